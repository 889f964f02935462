<?php
// phpredis calls whose events the test compares, one line of output each.
error_reporting(E_ALL & ~E_DEPRECATED); // the aliases are deprecated
$port = (int)getenv('REDIS_PORT');
$r = new Redis();
$p = new Redis();
$out = [];
$out[] = $r->connect('127.0.0.1', $port, 0.0, null, 0, 0.0);
$out[] = $p->pconnect('127.0.0.1', $port, 0.0, 'persistent');
$out[] = $r->set('k1', 'v1');
$out[] = $r->get('k1');
$out[] = $r->get('missing');
$out[] = $r->getSet('k1', 'v2');
$out[] = $r->hSet('h', 'f', 'x');
$out[] = $r->hGet('h', 'f');
$out[] = $r->mget(['k1', 'missing']);
$out[] = $r->getMultiple(['k1']);
$out[] = $r->lSize('list');
$out[] = $r->multi()->set('k2', 'v')->get('k2')->exec();
$r->multi();
$r->multi(); // nested: the same block
$r->set('k3', 'v');
$out[] = $r->discard();
$out[] = $r->pipeline()->incr('c')->exec();
$out[] = $r->multi(Redis::PIPELINE)->get('k2')->exec();
try {
    $r->get(['not', 'a', 'key']);
} catch (TypeError $e) {
    $out[] = 'TypeError';
}
$out[] = $r->get("b\xffn");
$out[] = $r->delete('k1', 'k2', 'k3', 'c', 'h');
$out[] = $p->close();
echo json_encode($out, JSON_INVALID_UTF8_SUBSTITUTE), "\n";
