<?php
// A phpredis block that the page may leave open (?open=1), then a get.
$r = new Redis();
$r->connect('127.0.0.1', (int)getenv('REDIS_PORT'));
if (!empty($_GET['open'])) {
    $r->multi();
}
echo json_encode($r->get('k'));
