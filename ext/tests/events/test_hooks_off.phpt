--TEST--
The test-only corvidine_test_* functions exist only when corvidine.internal_test_hooks is set at start-up
--EXTENSIONS--
corvidine
--FILE--
<?php
$hooks = array_filter(get_extension_funcs('corvidine') ?: [], fn($f) => str_starts_with($f, 'corvidine_test_'));
echo count($hooks), " test functions\n";
var_dump(ini_get('corvidine.internal_test_hooks'));
var_dump(ini_set('corvidine.internal_test_hooks', '1'));   // start-up only
var_dump(function_exists('corvidine_test_event'));

// with the entry on, in a process of its own
preg_match('~\s(/\S*corvidine\.so)\n~', file_get_contents('/proc/self/maps'), $m);
$cmd = [PHP_BINARY, '-n', '-d', 'extension=' . $m[1], '-d', 'corvidine.internal_test_hooks=1', '-r',
    'echo count(array_filter(get_extension_funcs("corvidine"), fn($f) => str_starts_with($f, "corvidine_test_"))), "\n";'];
$proc = proc_open($cmd, [1 => ['pipe', 'w'], 2 => ['pipe', 'w']], $pipes);
echo stream_get_contents($pipes[1]), stream_get_contents($pipes[2]);
proc_close($proc);
?>
--EXPECT--
0 test functions
string(1) "0"
bool(false)
bool(false)
13
