<?php
// The inventory service: stock per product id, from Redis, and a status
// lookup from the warehouse over an HTTP stream.
header('Content-Type: application/json');
$redis = new Redis();
$redis->connect('127.0.0.1', (int)getenv('DEMO_REDIS_PORT'));
$ids = array_filter(array_map('intval', explode(',', $_GET['ids'] ?? '')));
$stock = [];
foreach ($ids as $id) {
    $stock[$id] = (int)$redis->hGet('stock', (string)$id);
}
$warehouse = @file_get_contents('http://' . $_SERVER['HTTP_HOST'] . '/warehouse.php');
usleep(15000);
echo json_encode($stock + ['warehouse' => trim((string)$warehouse)]);
