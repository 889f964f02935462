<?php
// One product, read with mysqli; an unknown id answers 404.
require __DIR__ . '/catalog.php';
header('Content-Type: text/plain');
$id = (int)($_GET['id'] ?? 0);
$db = mysqli_connect('127.0.0.1', 'root', '', 'test', (int)getenv('DEMO_DB_PORT'));
$stmt = mysqli_prepare($db, 'SELECT name, price FROM products WHERE id = ?');
mysqli_stmt_bind_param($stmt, 'i', $id);
mysqli_stmt_execute($stmt);
$row = mysqli_fetch_assoc(mysqli_stmt_get_result($stmt));
cache()->incr("views:$id");
if (!$row) {
    http_response_code(404);
    echo "no such product\n";
    return;
}
printf("%s: %.2f EUR incl. tax\n", $row['name'], price_with_tax((float)$row['price']));
