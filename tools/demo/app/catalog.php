<?php
function catalog(): array
{
    return [
        1 => ['name' => 'kettle', 'price' => 24.90],
        2 => ['name' => 'teapot', 'price' => 31.50],
        3 => ['name' => 'cups (6)', 'price' => 18.00],
    ];
}

function price_with_tax(float $price): float
{
    return round($price * 1.19, 2);
}
