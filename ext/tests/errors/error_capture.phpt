--TEST--
PHP error capture: which errors become "error" events (suppression, use_error_reporting, the type table), their keys, and the log trace id in the message PHP shows
--EXTENSIONS--
corvidine
--FILE--
<?php
require __DIR__ . '/../support/child.inc';

$parse = rq_script("<?php\nfunction f(\n");
$compile = rq_script("<?php\nbreak 2;\n");
$compile_warning = rq_script("<?php\ndeclare(foo=1);\n");
$suppressed = ['corvidine.report_suppressed_errors' => 1];
$by_level = ['corvidine.use_error_reporting' => 1];
$cases = [
    // name => [code, INI]
    'warning' => ['$a = []; echo $a[1];', []],
    '@warning' => ['$a = []; echo @$a[1];', []],
    '@warning, report_suppressed_errors' => ['$a = []; echo @$a[1];', $suppressed],
    'warning, report_suppressed_errors' => ['$a = []; echo $a[1];', $suppressed],
    'notice' => ['unserialize("xx");', []],
    'notice, use_error_reporting' => ['unserialize("xx");', $by_level],
    'notice, use_error_reporting, error_reporting without it' => ['unserialize("xx");', $by_level + ['error_reporting' => E_ALL & ~E_NOTICE]],
    'warning, use_error_reporting, error_reporting 0' => ['$a = []; echo $a[1];', $by_level + ['error_reporting' => 0]],
    '@warning, use_error_reporting, report_suppressed_errors' => ['$a = []; echo @$a[1];', $by_level + $suppressed],
    'deprecated' => ['utf8_encode("x");', []],
    'deprecated, use_error_reporting' => ['utf8_encode("x");', $by_level],
    'user warning, notice, deprecated' => ['trigger_error("w", E_USER_WARNING); trigger_error("n", E_USER_NOTICE); trigger_error("d", E_USER_DEPRECATED);', []],
    'user notice, deprecated, use_error_reporting' => ['trigger_error("n", E_USER_NOTICE); trigger_error("d", E_USER_DEPRECATED);', $by_level],
    'user error' => ['trigger_error("stop", E_USER_ERROR); echo "not reached";', []],
    'uncaught exception' => ['throw new RuntimeException("boom");', []],
    'parse error' => ["include '$parse';", []],
    'compile error' => ["include '$compile';", []],
    'compile warning' => ["include '$compile_warning';", []],
    'fatal error at request end' => ['register_shutdown_function(function () { undefined_function(); });', []],
    'handled by set_error_handler' => ['set_error_handler(fn() => true); $a = []; echo $a[1];', []],
    'enable_error_callback off at module start: no hook' => ['$a = []; echo $a[1];', ['corvidine.enable_error_callback' => 0, 'corvidine.log_trace_id' => 'enabled']],
    'enable_error_callback off at run time' => ['ini_set("corvidine.enable_error_callback", "0"); $a = []; echo $a[1];', []],
    'log trace id, "%" kept' => ['trigger_error("100% %s %d sure", E_USER_WARNING);', ['corvidine.log_trace_id' => 'enabled']],
    '@warning, log trace id' => ['$a = []; echo @$a[1]; echo error_get_last()["message"];', ['corvidine.log_trace_id' => 'enabled']],
    'unsampled, log trace id' => ['$a = []; echo $a[1];', ['corvidine.log_trace_id' => 'enabled', 'corvidine.sample_rate' => 0]],
    'unsampled, sampled_only' => ['$a = []; echo $a[1];', ['corvidine.log_trace_id' => 'sampled_only', 'corvidine.sample_rate' => 0]],
];
foreach ($cases as $name => [$code, $ini]) {
    $script = rq_script("<?php\n$code\n");
    $r = rq_run($script, $ini + ['error_reporting' => E_ALL]);
    $entry = rq_event($r, 'entry');
    $task = $entry !== null ? substr($entry['X-Trace'], 2, 40) : null;
    $clean = fn($text) => str_replace([$script, $parse, $compile, $compile_warning], 'FILE',
        preg_replace_callback('/[0-9A-F]{40}/', fn($m) => $m[0] === $task ? 'TASK' : 'ID', $text));
    echo "-- $name\n";
    foreach ($r['events'] as $e) {
        if ($e['Label'] === 'error') {
            echo "event: {$e['ErrorClass']} {$e['PHPErrorCode']} {$e['ErrorLevel']}",
                 isset($e['PHPSuppressed']) ? " suppressed={$e['PHPSuppressed']}" : '',
                 isset($e['Backtrace']) ? ' +backtrace' : '', ' ', $e['Layer'], ' ', $e['Spec'], ': ', $clean($e['ErrorMsg']), "\n";
        }
    }
    echo rq_event($r, 'exit') === null && $r['events'] ? "NO EXIT EVENT\n" : '', $clean(trim($r['err'] . $r['out'])), "\n";
}
?>
--EXPECT--
-- warning
event: WARNING E_WARNING 4 +backtrace PHP error: PHP Warning:  Undefined array key 1 in FILE on line 2
Warning: Undefined array key 1 in FILE on line 2
-- @warning

-- @warning, report_suppressed_errors
event: WARNING E_WARNING 4 suppressed=1 +backtrace PHP error: PHP Warning:  Undefined array key 1 in FILE on line 2

-- warning, report_suppressed_errors
event: WARNING E_WARNING 4 suppressed=1 +backtrace PHP error: PHP Warning:  Undefined array key 1 in FILE on line 2
Warning: Undefined array key 1 in FILE on line 2
-- notice
Notice: unserialize(): Error at offset 0 of 2 bytes in FILE on line 2
-- notice, use_error_reporting
event: NOTICE E_NOTICE 5 +backtrace PHP error: PHP Notice:  unserialize(): Error at offset 0 of 2 bytes in FILE on line 2
Notice: unserialize(): Error at offset 0 of 2 bytes in FILE on line 2
-- notice, use_error_reporting, error_reporting without it

-- warning, use_error_reporting, error_reporting 0

-- @warning, use_error_reporting, report_suppressed_errors
event: WARNING E_WARNING 4 suppressed=1 +backtrace PHP error: PHP Warning:  Undefined array key 1 in FILE on line 2

-- deprecated
Deprecated: Function utf8_encode() is deprecated in FILE on line 2
-- deprecated, use_error_reporting
event: DEPRECATED E_DEPRECATED 6 +backtrace PHP error: PHP Deprecated:  Function utf8_encode() is deprecated in FILE on line 2
Deprecated: Function utf8_encode() is deprecated in FILE on line 2
-- user warning, notice, deprecated
event: WARNING E_USER_WARNING 4 +backtrace PHP error: PHP Warning:  w in FILE on line 2
Warning: w in FILE on line 2
Notice: n in FILE on line 2
Deprecated: d in FILE on line 2
-- user notice, deprecated, use_error_reporting
event: NOTICE E_USER_NOTICE 5 +backtrace PHP error: PHP Notice:  n in FILE on line 2
event: DEPRECATED E_USER_DEPRECATED 6 +backtrace PHP error: PHP Deprecated:  d in FILE on line 2
Notice: n in FILE on line 2
Deprecated: d in FILE on line 2
-- user error
event: ERROR E_USER_ERROR 3 +backtrace PHP error: PHP Fatal error:  stop in FILE on line 2
Fatal error: stop in FILE on line 2
-- uncaught exception
event: ERROR E_ERROR 3 PHP error: PHP Fatal error:  Uncaught RuntimeException: boom in FILE:2
Stack trace:
#0 {main}
  thrown in FILE on line 2
Fatal error: Uncaught RuntimeException: boom in FILE:2
Stack trace:
#0 {main}
  thrown in FILE on line 2
-- parse error
event: PARSE E_PARSE 2 PHP error: PHP Parse error:  Unclosed '(' on line 2 in FILE on line 3
Parse error: Unclosed '(' on line 2 in FILE on line 3
-- compile error
event: ERROR E_COMPILE_ERROR 3 +backtrace PHP error: PHP Fatal error:  'break' not in the 'loop' or 'switch' context in FILE on line 2
Fatal error: 'break' not in the 'loop' or 'switch' context in FILE on line 2
-- compile warning
event: WARNING E_COMPILE_WARNING 4 +backtrace PHP error: PHP Warning:  Unsupported declare 'foo' in FILE on line 2
Warning: Unsupported declare 'foo' in FILE on line 2
-- fatal error at request end
event: ERROR E_ERROR 3 PHP error: PHP Fatal error:  Uncaught Error: Call to undefined function undefined_function() in FILE:2
Stack trace:
#0 [internal function]: {closure}()
#1 {main}
  thrown in FILE on line 2
Fatal error: Uncaught Error: Call to undefined function undefined_function() in FILE:2
Stack trace:
#0 [internal function]: {closure}()
#1 {main}
  thrown in FILE on line 2
-- handled by set_error_handler

-- enable_error_callback off at module start: no hook
Warning: Undefined array key 1 in FILE on line 2
-- enable_error_callback off at run time
Warning: Undefined array key 1 in FILE on line 2
-- log trace id, "%" kept
event: WARNING E_USER_WARNING 4 +backtrace PHP error: PHP Warning:  100% %s %d sure in FILE on line 2
Warning: 100% %s %d sure [zq.traceId=TASK-1] in FILE on line 2
-- @warning, log trace id
Undefined array key 1 [zq.traceId=TASK-1]
-- unsampled, log trace id
Warning: Undefined array key 1 [zq.traceId=ID-0] in FILE on line 2
-- unsampled, sampled_only
Warning: Undefined array key 1 in FILE on line 2
