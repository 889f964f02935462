<?php
// php-memcached calls whose events the test compares.
$m = new Memcached();
$m->addServer('127.0.0.1', (int)getenv('MEMCACHED_PORT'));
$m->setOption(Memcached::OPT_COMPRESSION, false); // append needs it off
$out = [];
$out[] = $m->set('m1', 'v');
$out[] = $m->get('m1');
$out[] = $m->get('nope');
$out[] = $m->add('m1', 'x');
$out[] = $m->setMulti(['a' => 1, 'b' => 2]);
$out[] = $m->getMulti(['a', 'b', 'zz']);
$out[] = $m->increment('a');
$out[] = $m->decrement('a', 2);
$out[] = $m->delete('nope');
$out[] = $m->setByKey('srv', 'bk', 'v');
$out[] = $m->getByKey('srv', 'bk');
$item = $m->get('m1', null, Memcached::GET_EXTENDED);
$out[] = $m->cas($item['cas'], 'm1', 'w');
$out[] = $m->append('m1', '+');
$out[] = $m->getDelayed(['m1']);
$out[] = $m->fetchAll();
$out[] = $m->deleteMulti(['a', 'b']);
$out[] = $m->get("k\xff");
$out[] = $m->get(123);
echo json_encode($out), "\n";
