--TEST--
Log trace id: task id, "-", sampled flag; cut at whole pieces; appended to messages as corvidine.log_trace_id says
--EXTENSIONS--
corvidine
--FILE--
<?php
require __DIR__ . '/request.inc';

$script = rq_script(<<<'PHP'
<?php
foreach ([43, 100, 42, 41, 40, 1] as $size) {
    echo "size $size: ", corvidine_test_log_trace_id($size), "\n";
}
echo 'append: ', var_export(corvidine_test_log_append_trace_id('disk full'), true), "\n";
echo 'null message: ', var_export(corvidine_test_log_append_trace_id(null), true), "\n";
PHP);

function show(array $r): void
{
    $entry = rq_event($r, 'entry');
    $task = $entry !== null ? substr($entry['X-Trace'], 2, 40) : null;
    // The task id is random: name it, and check that it is the trace's.
    $out = preg_replace_callback('/[0-9A-F]{40}/', fn($m) => $task === null ? 'TASK' : ($m[0] === $task ? 'TASK' : 'OTHER'), $r['out']);
    echo $out, implode("\n", rq_warnings($r));
}

$hooks = ['corvidine.internal_test_hooks' => 1];
echo "-- sampled, enabled\n";
show(rq_run($script, $hooks + ['corvidine.log_trace_id' => 'enabled']));
echo "-- sampled, sampled_only\n";
show(rq_run($script, $hooks + ['corvidine.log_trace_id' => 'sampled_only']));
echo "-- unsampled, enabled\n";
show(rq_run($script, $hooks + ['corvidine.log_trace_id' => 'enabled', 'corvidine.sample_rate' => 0]));
echo "-- unsampled, sampled_only\n";
show(rq_run($script, $hooks + ['corvidine.log_trace_id' => 'sampled_only', 'corvidine.sample_rate' => 0]));
echo "-- sampled, Enabled\n";
show(rq_run($script, $hooks + ['corvidine.log_trace_id' => 'Enabled']));
?>
--EXPECT--
-- sampled, enabled
size 43: TASK-1
size 100: TASK-1
size 42: TASK-
size 41: TASK
size 40: 
size 1: 
append: 'disk full [zq.traceId=TASK-1]'
null message: NULL
-- sampled, sampled_only
size 43: TASK-1
size 100: TASK-1
size 42: TASK-
size 41: TASK
size 40: 
size 1: 
append: 'disk full [zq.traceId=TASK-1]'
null message: NULL
-- unsampled, enabled
size 43: TASK-0
size 100: TASK-0
size 42: TASK-
size 41: TASK
size 40: 
size 1: 
append: 'disk full [zq.traceId=TASK-0]'
null message: NULL
-- unsampled, sampled_only
size 43: TASK-0
size 100: TASK-0
size 42: TASK-
size 41: TASK
size 40: 
size 1: 
append: NULL
null message: NULL
-- sampled, Enabled
size 43: TASK-1
size 100: TASK-1
size 42: TASK-
size 41: TASK
size 40: 
size 1: 
append: NULL
null message: NULL
