--TEST--
Function hooks: the started extension leaves opcache's JIT on, and calls behave as without it
--EXTENSIONS--
corvidine
--SKIPIF--
<?php if (!file_exists(PHP_EXTENSION_DIR . '/opcache.so')) die('skip opcache.so is not built for this PHP'); ?>
--FILE--
<?php
require __DIR__ . '/../support/child.inc';

$jit = ['-d', 'zend_extension=opcache', '-d', 'opcache.enable_cli=1', '-d', 'opcache.jit=tracing',
        '-d', 'opcache.jit_buffer_size=64M'];
$ini = ['corvidine.enable_cli' => 1, 'corvidine.service_key' => 'token:jit'];
$env = ['CORVIDINE_REPORTER' => 'null'];

$status = <<<'PHP'
$s = opcache_get_status(false);
echo json_encode(['enabled' => $s['jit']['enabled'] ?? null, 'on' => $s['jit']['on'] ?? null]);
PHP;
$r = vesk_exec(vesk_command($ini, array_merge($jit, ['-r', $status])), $env);
echo "JIT with the extension started: ", $r['out'], trim($r['err']), "\n";
$info = vesk_info_rows(vesk_exec(vesk_command($ini, array_merge($jit, ['--ri', 'corvidine'])), $env)['out']);
echo "function hooks: ", $info['function hooks'] ?? '?', "\n";
$off = vesk_info_rows(vesk_exec(vesk_command($ini + ['corvidine.enable_laravel_tracing' => 0], ['--ri', 'corvidine']),
                                $env)['out']);
echo "function hooks, Laravel tracing off: ", $off['function hooks'] ?? '?', "\n";

// Recursion, exceptions through frames, generators, closures, internal
// callbacks, fibers and a deep stack: same results with the extension started
// or not, with and without the JIT, with the observer registered (Laravel
// tracing is on by default).
$work = <<<'PHP'
function fib($n) { return $n < 2 ? $n : fib($n - 1) + fib($n - 2); }
function thrower($d) { if ($d === 0) throw new RuntimeException('deep'); return thrower($d - 1); }
function gen($n) { for ($i = 0; $i < $n; $i++) { $x = yield $i; if ($x) return $x; } }
function deep($n) { return $n === 0 ? 0 : 1 + deep($n - 1); }
class A { public function m($x) { return $x * 2; } public static function s($x) { return $x + 1; } }
$out = [];
$out[] = fib(20);
try { thrower(50); } catch (RuntimeException $e) { $out[] = $e->getMessage() . count($e->getTrace()); }
$g = gen(10); $sum = 0; foreach ($g as $v) { $sum += $v; } $out[] = $sum;
$g = gen(10); $g->current(); $g->send('stop'); $out[] = $g->getReturn();
$out[] = array_sum(array_map(fn($x) => (new A)->m($x), range(1, 100)));
$out[] = implode(',', array_map('A::s', [1, 2, 3]));
$f = new Fiber(function ($x) { $y = Fiber::suspend($x + 1); return $y * 3; });
$out[] = $f->start(1); $f->resume(5); $out[] = $f->getReturn();
$out[] = deep(20000);
$a = [3, 1, 2]; usort($a, fn($p, $q) => $p <=> $q); $out[] = implode(",", $a);
echo implode(' ', $out);
PHP;
$plain = vesk_exec([PHP_BINARY, '-n', '-r', $work]);
$observed = vesk_exec(vesk_command($ini, ['-r', $work]), $env);
$observed_jit = vesk_exec(vesk_command($ini, array_merge($jit, ['-r', $work])), $env);
echo "without extension: {$plain['out']}\n";
echo "observed:          ", $observed['out'] === $plain['out'] ? 'same' : "DIFFERENT: {$observed['out']} {$observed['err']}", "\n";
echo "observed with JIT: ", $observed_jit['out'] === $plain['out'] ? 'same' : "DIFFERENT: {$observed_jit['out']} {$observed_jit['err']}", "\n";
?>
--EXPECT--
JIT with the extension started: {"enabled":true,"on":true}
function hooks: observer API, 1 watcher(s)
function hooks, Laravel tracing off: none (no feature watches calls)
without extension: 6765 deep51 45 stop 10100 2,3,4 2 15 20000 1,2,3
observed:          same
observed with JIT: same
