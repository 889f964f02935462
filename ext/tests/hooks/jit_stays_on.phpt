--TEST--
Function hooks: the started extension leaves opcache's JIT on, and calls behave as without it
--EXTENSIONS--
corvidine
--SKIPIF--
<?php if (!file_exists(PHP_EXTENSION_DIR . '/opcache.so')) die('skip opcache.so is not built for this PHP'); ?>
--FILE--
<?php
require __DIR__ . '/../support/child.inc';
$jit = ['zend_extension' => 'opcache', 'opcache.enable_cli' => 1, 'opcache.jit' => 'tracing', 'opcache.jit_buffer_size' => '64M'];
$ini = ['corvidine.enable_cli' => 1, 'corvidine.enable_laravel_tracing' => 1];  // the call observer registered
$s = vesk_child('<?php $s = opcache_get_status(false); echo json_encode([$s["jit"]["enabled"] ?? null, $s["jit"]["on"] ?? null]);', $ini + $jit);
echo "JIT enabled and on: {$s['out']}{$s['err']}, function hooks: ", vesk_info_rows(vesk_child(null, $ini + $jit)['out'])['function hooks'] ?? '?', "\n";
echo "function hooks, Laravel tracing off: ",
     vesk_info_rows(vesk_child(null, ['corvidine.enable_laravel_tracing' => 0] + $ini + $jit)['out'])['function hooks'] ?? '?', "\n";
// Recursion, exceptions through frames, generators, closures, internal
// callbacks, fibers, a deep stack: the same with the extension or without,
// with the JIT or without (whatever hooks the features install).
$work = <<<'PHP'
<?php
function fib($n) { return $n < 2 ? $n : fib($n - 1) + fib($n - 2); }
function thrower($d) { if ($d === 0) throw new RuntimeException('deep'); return thrower($d - 1); }
function gen() { $x = yield 1; return $x; }
function deep($n) { return $n === 0 ? 0 : 1 + deep($n - 1); }
class A { public function m($x) { return $x * 2; } public static function s($x) { return $x + 1; } }
$out = [fib(20), array_sum(array_map(fn($x) => (new A)->m($x), range(1, 100))), implode(',', array_map('A::s', [1, 2]))];
try { thrower(50); } catch (RuntimeException $e) { $out[] = $e->getMessage() . count($e->getTrace()); }
$g = gen(); $g->current(); $g->send('stop'); $out[] = $g->getReturn();
$f = new Fiber(function ($x) { return Fiber::suspend($x + 1) * 3; });
$out[] = $f->start(1); $f->resume(5); $out[] = $f->getReturn();
echo implode(' ', $out), ' ', deep(20000);
PHP;
$plain = vesk_exec([PHP_BINARY, '-n', '-r', substr($work, 5)])['out'];
echo "without the extension: $plain\n";
foreach (['with it' => $ini, 'with it and the JIT' => $ini + $jit] as $name => $with) {
    $r = vesk_child($work, $with, ['CORVIDINE_REPORTER' => 'null']);
    echo "$name: ", $r['out'] === $plain ? 'same' : "DIFFERENT: {$r['out']} {$r['err']}", "\n";
}
?>
--EXPECT--
JIT enabled and on: [true,true], function hooks: observer API, 1 watcher(s)
function hooks, Laravel tracing off: none (no feature watches calls)
without the extension: 6765 10100 2,3 deep51 stop 2 15 20000
with it: same
with it and the JIT: same
