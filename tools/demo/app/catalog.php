<?php
// The shop's data: products in MariaDB (PDO), cached in Redis; ports come
// from the environment make run gives php-fpm.
function db(): PDO
{
    static $pdo = null;
    if ($pdo === null) {
        $pdo = new PDO('mysql:host=127.0.0.1;port=' . getenv('DEMO_DB_PORT') . ';dbname=test', 'root', '',
                       [PDO::ATTR_ERRMODE => PDO::ERRMODE_EXCEPTION]);
    }
    return $pdo;
}

function cache(): Redis
{
    static $redis = null;
    if ($redis === null) {
        $redis = new Redis();
        $redis->connect('127.0.0.1', (int)getenv('DEMO_REDIS_PORT'));
    }
    return $redis;
}

function catalog(): array
{
    $cached = cache()->get('catalog');
    if ($cached !== false) {
        return json_decode($cached, true);
    }
    $items = [];
    foreach (db()->query('SELECT id, name, price FROM products ORDER BY id') as $row) {
        $items[(int)$row['id']] = ['name' => $row['name'], 'price' => (float)$row['price']];
    }
    cache()->setex('catalog', 300, json_encode($items));
    return $items;
}

function price_with_tax(float $price): float
{
    return round($price * 1.19, 2);
}
