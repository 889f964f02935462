<?php

return [
    'default' => 'sqlite',
    'connections' => [
        'sqlite' => ['driver' => 'sqlite', 'database' => storage_path('shop.sqlite'), 'prefix' => ''],
    ],
];
