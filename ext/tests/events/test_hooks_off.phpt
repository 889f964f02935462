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

// with the entry on, in a process of its own, none of them is missing
preg_match('~\s(/\S*corvidine\.so)\n~', file_get_contents('/proc/self/maps'), $m);
$cmd = [PHP_BINARY, '-n', '-d', 'extension=' . $m[1], '-d', 'corvidine.internal_test_hooks=1', '-r',
    'echo json_encode(array_values(array_diff(["corvidine_test_set_context", "corvidine_test_context",
        "corvidine_test_exit_event", "corvidine_test_exit_event_state", "corvidine_test_set_service_name",
        "corvidine_test_event", "corvidine_test_backtrace", "corvidine_test_make_backtrace", "corvidine_test_to_bson",
        "corvidine_test_backtrace_bson", "corvidine_test_args_bson", "corvidine_test_typename",
        "corvidine_test_retval_kv"], get_extension_funcs("corvidine")))), "\n";'];
$proc = proc_open($cmd, [1 => ['pipe', 'w'], 2 => ['pipe', 'w']], $pipes);
echo stream_get_contents($pipes[1]), stream_get_contents($pipes[2]);
proc_close($proc);
?>
--EXPECT--
0 test functions
string(1) "0"
bool(false)
bool(false)
[]
