--TEST--
Under valgrind (PHP's allocator off): the PHP-value walkers and events with every record type and flag make no invalid access, no use of uninitialised memory, no lost block
--EXTENSIONS--
corvidine
--SKIPIF--
<?php if (!is_executable('/usr/bin/valgrind')) die('skip valgrind is not installed'); ?>
--FILE--
<?php
require __DIR__ . '/../support/child.inc';
$work = <<<'PHP'
<?php
#[AllowDynamicProperties]
class Node { public $next; protected $p = 'x'; private $q = [1]; public int $unset; }
function deep(int $n, callable $f) { return $n === 0 ? $f() : deep($n - 1, $f); }
$fh = fopen('php://memory', 'r');
$self = ['a' => 1]; $self['me'] = &$self;
$node = new Node; $node->next = $node;
for ($nest = 'bottom', $i = 0; $i < 300; $i++) { $nest = [$nest, 'k' => $i]; }
for ($chain = null, $i = 0; $i < 2000; $i++) { $n = new Node; $n->next = $chain; $chain = $n; }
$values = [[null, true, 1.5, "a\0b", str_repeat('s', 3000), $fh], [1 => 'a'], fn() => 1, (array)new Node, $self, $node, $nest, $chain];
foreach ([$values, $self, $node] as $v) { corvidine_test_to_bson($v); corvidine_test_to_bson($v, true); }
corvidine_test_to_bson([str_repeat('k', 10000) => array_fill(0, 1200, str_repeat('g', 1000))]);
deep(150, fn() => corvidine_test_backtrace(5) . corvidine_test_backtrace() . corvidine_test_backtrace_bson());
corvidine_test_args_bson($values, $node, $fh, 2.5, str_repeat('z', 4000));
corvidine_test_make_backtrace(['x', ['file' => 1, 'line' => 'y', 'args' => 'no'], (object)['function' => 'f', 'args' => [$node]]]);
foreach ([true, 's', $node, $fh, null] as $v) { corvidine_test_retval_kv($v); corvidine_test_typename($v); }
$task = str_repeat('A1', 20);
corvidine_test_set_context("2B{$task}" . str_repeat('B2', 8) . '01');
$records = [[1, 'S', 'text'], [1, 'Null', null], [2, 'I4', -7, 4], [2, 'I3', 1, 3], [3, 'D', 2.5], [4, 'B', "a\0b"],
    [5, 'Doc', $values], [6, 'e', "2B{$task}" . str_repeat('E5', 8) . '01'], [6, 'e', '2B' . str_repeat('C3', 28) . '01'],
    [7, 'bt', [['file' => '/f', 'line' => 1, 'function' => 'f', 'args' => [$node, $fh]]]], [8, 'x', 'garbage'], [9, 'T', 1], [10, 'Ten', 'x']];
foreach ([0, 1, 2, 4, 8, 6, 66, 68, 10, 12] as $flags) {
    deep(30, fn() => corvidine_test_event('layer', "flags-$flags", $records, $flags, $values, $nest));
}
corvidine_test_set_service_name('svc');
corvidine_test_exit_event(2);
corvidine_test_event('layer', 'exit', $records, 2);
corvidine_test_set_service_name(null);   // with request tracing off (corvidine.enable=0) request end leaves it
corvidine_test_exit_event(0);
unset($values, $self, $node, $nest, $chain, $n, $records);   // PHP's own cycles: the collector does not run at exit
gc_collect_cycles();
echo "done\n";
PHP;
$dir = sys_get_temp_dir() . '/corvidine-valgrind-' . getmypid();
@mkdir($dir);
file_put_contents("$dir/work.php", $work);
$r = vesk_exec(array_merge(['/usr/bin/valgrind', '--error-exitcode=99', '--leak-check=full', '--errors-for-leak-kinds=definite',
    '--track-origins=yes', "--log-file=$dir/valgrind.log"], vesk_command(['corvidine.internal_test_hooks' => 1,
    'corvidine.enable_cli' => 1, 'corvidine.enable' => 0, 'corvidine.max_ready_wait_time' => -1, 'memory_limit' => -1], ["$dir/work.php"])),
    ['USE_ZEND_ALLOC' => '0', 'ZEND_DONT_UNLOAD_MODULES' => '1', 'CORVIDINE_REPORTER' => 'file', 'CORVIDINE_COLLECTOR' => "$dir/events.bson"]);
echo trim($r['out']), ", exit status {$r['status']}\n";
if ($r['status'] !== 0) { echo $r['err'], file_get_contents("$dir/valgrind.log"); }
echo count(vesk_decode(file_get_contents("$dir/events.bson"))), " documents, all readable\n";
array_map('unlink', glob("$dir/*"));
rmdir($dir);
?>
--EXPECT--
done, exit status 0
12 documents, all readable
