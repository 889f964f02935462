<?php
// One product; an unknown id answers 404.
require __DIR__ . '/catalog.php';
header('Content-Type: text/plain');
$id = (int)($_GET['id'] ?? 0);
$items = catalog();
if (!isset($items[$id])) {
    http_response_code(404);
    echo "no such product\n";
    return;
}
usleep(20000); // stands for a database round trip
printf("%s: %.2f EUR incl. tax\n", $items[$id]['name'], price_with_tax($items[$id]['price']));
