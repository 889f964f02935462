--TEST--
error_log family: "error_log" event with the message (1024 bytes at most) on traced requests; the log trace id in the written line as corvidine.log_trace_id and the switches say
--EXTENSIONS--
corvidine
--FILE--
<?php
require __DIR__ . '/wrap.inc';

$log = vesk_temp_path('.log');
$dest = vesk_temp_path('.log');
$script = rq_script(<<<PHP
<?php
error_log('disk 100% full');
error_log(str_repeat('x', 2000));
error_log("to a file", 3, '$dest');
PHP);

$cases = [
    'sampled, enabled' => ['corvidine.log_trace_id' => 'enabled'],
    'unsampled, enabled' => ['corvidine.log_trace_id' => 'enabled', 'corvidine.sample_rate' => 0],
    'unsampled, sampled_only' => ['corvidine.log_trace_id' => 'sampled_only', 'corvidine.sample_rate' => 0],
    'sampled, disabled' => [],
    'enable_wrap_error_log=0' => ['corvidine.log_trace_id' => 'enabled', 'corvidine.enable_wrap_error_log' => 0],
    'enable_wrap=0' => ['corvidine.log_trace_id' => 'enabled', 'corvidine.enable_wrap' => 0],
];
foreach (wr_engines() as $engine => $engine_ini) {
    foreach ($cases as $case => $ini) {
        @unlink($log);
        @unlink($dest);
        $r = rq_run($script, $engine_ini + $ini + ['error_log' => $log]);
        $entry = rq_event($r, 'entry');
        $task = $entry !== null ? substr($entry['X-Trace'], 2, 40) : null;
        $show = fn($text) => preg_replace_callback('/x{20,}/', fn($m) => 'x{' . strlen($m[0]) . '}',
            preg_replace_callback('/[0-9A-F]{40}/', fn($m) => $m[0] === $task ? 'TASK' : 'ID', $text));
        $lines = array_map(fn($l) => preg_replace('/^\[[^\]]+\] /', '', $l), file($log, FILE_IGNORE_NEW_LINES) ?: []);
        $lines[] = @file_get_contents($dest) ?: '';
        $events = array_map(fn($e) => $e['Message'] . (isset($e['Backtrace']) ? ' (backtrace)' : ''),
                            array_values(array_filter($r['events'], fn($e) => $e['Label'] === 'error_log')));
        $text = $show("lines: " . implode(' | ', $lines) . "\nevents: " . implode(' | ', $events) . "\n" . $r['err']);
        if ($engine === 'plain') {
            echo "-- $case\n$text";
            $plain[$case] = $text;
        } elseif ($text !== $plain[$case]) {
            echo "-- $case under $engine: DIFFERENT\n$text";
        }
    }
}
@unlink($log);
@unlink($dest);
echo "done\n";
?>
--EXPECT--
-- sampled, enabled
lines: disk 100% full [zq.traceId=TASK-1] | x{2000} [zq.traceId=TASK-1] | to a file [zq.traceId=TASK-1]
events: disk 100% full (backtrace) | x{1024} (backtrace) | to a file (backtrace)
-- unsampled, enabled
lines: disk 100% full [zq.traceId=ID-0] | x{2000} [zq.traceId=ID-0] | to a file [zq.traceId=ID-0]
events: 
-- unsampled, sampled_only
lines: disk 100% full | x{2000} | to a file
events: 
-- sampled, disabled
lines: disk 100% full | x{2000} | to a file
events: disk 100% full (backtrace) | x{1024} (backtrace) | to a file (backtrace)
-- enable_wrap_error_log=0
lines: disk 100% full | x{2000} | to a file
events: 
-- enable_wrap=0
lines: disk 100% full | x{2000} | to a file
events: 
done
