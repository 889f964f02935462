<?php
// A small shop front: the home page of the demo app.
require __DIR__ . '/catalog.php';
header('Content-Type: text/plain');
echo "corvidine demo shop\n\n";
foreach (catalog() as $id => $item) {
    printf("  #%d %-12s %6.2f EUR   /product.php?id=%d\n", $id, $item['name'], $item['price'], $id);
}
