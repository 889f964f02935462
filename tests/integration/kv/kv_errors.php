<?php
// What the application sees of phpredis, php-memcached and predis (serializers, compression, a server down or killed
// mid-pipeline, huge values, binary keys), printed to compare runs with and without the agent.
$port = (int)getenv('REDIS_PORT');
$down = (int)getenv('DOWN_PORT');
function show($label, callable $call) {
    try {
        $value = $call();
        echo $label, ': ', json_encode($value, JSON_INVALID_UTF8_SUBSTITUTE), "\n";
    } catch (Throwable $e) {
        echo $label, ': ', get_class($e), ' ', explode("\n", $e->getMessage())[0], "\n";
    }
}
$r = new Redis();
show('connect down', fn() => $r->connect('127.0.0.1', $down, 0.5));
show('connect', fn() => $r->connect('127.0.0.1', $port, null, null, null, null));
show('serializer', fn() => $r->setOption(Redis::OPT_SERIALIZER, Redis::SERIALIZER_IGBINARY));
show('compression', fn() => $r->setOption(Redis::OPT_COMPRESSION, Redis::COMPRESSION_LZF));
show('set array', fn() => $r->set('arr', ['a' => 1, 'b' => [2, 3]]));
show('get array', fn() => $r->get('arr'));
show('huge', fn() => [$r->set('big', str_repeat('xy', 1 << 20)), strlen($r->get('big'))]);
show('binary key', fn() => [$r->set("b\x00\xff", 'bin'), $r->get("b\x00\xff"), $r->get("b\x00")]);
show('mget', fn() => $r->mget(['arr', 'missing']));
show('no args', fn() => $r->get());
show('bad key', fn() => $r->get(['x']));
show('getset bad', fn() => $r->getSet('arr'));
show('multi bad mode', fn() => $r->multi('two'));
show('multi', fn() => $r->multi()->get('arr')->incr('arr')->exec());
show('discard idle', fn() => $r->discard());
$k = new Redis();
$k->connect('127.0.0.1', $port);
$r->pipeline();
$r->set('p', 1);
$k->rawCommand('CLIENT', 'KILL', 'TYPE', 'normal', 'SKIPME', 'yes');
try {
    $r->exec();
    echo "killed mid-pipeline: no exception\n";
} catch (RedisException $e) {
    echo "killed mid-pipeline: RedisException\n";
}
show('after kill', fn() => $r->ping());
show('reconnect', fn() => [$r->connect('127.0.0.1', $port), $r->get('arr')]);

require_once 'Predis/Autoloader.php';
Predis\Autoloader::register();
$c = new Predis\Client(['host' => '127.0.0.1', 'port' => $port]);
show('predis set', fn() => (string)$c->set('pk', 'pv'));
show('predis pipeline', fn() => $c->pipeline(fn($pipe) => [$pipe->incr('pn'), $pipe->get('pk')]));
show('phpredis reads predis', fn() => [$r->setOption(Redis::OPT_SERIALIZER, Redis::SERIALIZER_NONE),
    $r->setOption(Redis::OPT_COMPRESSION, Redis::COMPRESSION_NONE), $r->get('pk'), $r->get('pn')]);
show('predis down', fn() => (new Predis\Client(['host' => '127.0.0.1', 'port' => $down]))->get('x'));
$r->flushAll();

if (!class_exists('Memcached')) {
    return; // a PHP without php-memcached
}
$m = new Memcached();
$m->addServer('127.0.0.1', (int)getenv('MEMCACHED_PORT'));
$m->setOption(Memcached::OPT_SERIALIZER, Memcached::SERIALIZER_IGBINARY);
$m->setOption(Memcached::OPT_COMPRESSION, true);
$codes = fn($value) => [$value, $m->getResultCode(), $m->getResultMessage()];
show('mc set array', fn() => $codes($m->set('arr', ['a' => 1])));
show('mc get array', fn() => $codes($m->get('arr')));
show('mc append compressed', fn() => $codes($m->append('arr', 'x')));
show('mc huge', fn() => $codes($m->set('big', random_bytes(2 << 20))));
show('mc binary key', fn() => $codes($m->get("k\xff")));
show('mc key with space', fn() => $codes($m->set('a b', 1)));
show('mc getMulti', fn() => $codes($m->getMulti(['arr', 'none'])));
show('mc empty getMulti', fn() => $codes($m->getMulti([])));
show('mc no args', fn() => $m->get());
show('mc bad key type', fn() => $codes($m->get(['arr'])));
show('mc missing server key', fn() => $m->getByKey());
$d = new Memcached();
$d->addServer('127.0.0.1', $down);
show('mc down', fn() => [$d->get('x'), $d->getResultCode()]);
class NoConstructor extends Memcached {
    public function __construct() {}
}
show('mc no constructor', fn() => (new NoConstructor())->get('x'));
$m->flush();
