--TEST--
Profiler: a child forked in a profiled run ends cleanly; the parent's profile covers its time before and after the fork
--EXTENSIONS--
corvidine
pcntl
--FILE--
<?php
require __DIR__ . '/profiler.inc';

$code = <<<'PHP'
<?php
function spin(int $n) { $x = 0; for ($i = 0; $i < $n; $i++) { $x += $i; } return $x; }
function before() { spin(10000000); }
function after() { spin(10000000); }
function in_child() { usleep(200000); } // the parent waits long enough for several ticks
before();
$pid = pcntl_fork();
if ($pid === 0) {
    in_child();
    exit(7);
}
pcntl_waitpid($pid, $status);
after();
echo getmypid(), ' ', pcntl_wexitstatus($status);
PHP;
$r = pf_run($code);
[$parent, $child_status] = explode(' ', $r['out']);
$stacks = pf_stacks($r['profile']);
$seen = array_unique(array_merge(...array_map(fn($s) => $s['frames'], $stacks)));
echo "status ", $r['status'], ", child exit ", $child_status, "\n";
echo "profile spans: ", count(array_filter($r['profile'], fn($e) => $e['Label'] === 'entry')), "\n";
echo "all from the parent: ", var_export(array_unique(array_column($stacks, 'pid')) == [(int)$parent], true), "\n";
foreach (['before', 'after', 'pcntl_waitpid'] as $name) {
    echo "$name sampled: ", var_export(in_array($name, $seen, true), true), "\n";
}
?>
--EXPECT--
status 0, child exit 7
profile spans: 1
all from the parent: true
before sampled: true
after sampled: true
pcntl_waitpid sampled: true
