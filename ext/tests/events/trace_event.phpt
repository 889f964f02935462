--TEST--
php_vesk_trace_event through the file reporter: Label, Layer, memory keys, the ten record types, edges, flags
--EXTENSIONS--
corvidine
--SKIPIF--
<?php if (!is_executable('/usr/bin/python3')) die('skip /usr/bin/python3 (python3-bson) is needed'); ?>
--FILE--
<?php
require __DIR__ . '/events.inc';

$task = str_repeat('A1', 20);
$r = ev_child(<<<PHP
<?php
\$task = '$task';
\$context = '2B' . \$task . str_repeat('B2', 8) . '01';
\$same_task = '2B' . \$task . str_repeat('E5', 8) . '01';
\$other_task = '2B' . str_repeat('C3', 20) . str_repeat('D4', 8) . '01';
corvidine_test_set_context(\$context);

\$rc = corvidine_test_event('a-layer', 'records', [
    [1, 'S', 'text'], [1, 'NoString', null],
    [2, 'I4', -7, 4], [2, 'I8', -(1 << 40), 8], [2, 'I2', 5, 2], [2, 'I16', 5, 16],
    [3, 'D', -2.5],
    [4, 'B', "a\\0b"],
    [5, 'Doc', ['x' => 1, 'l' => [1, 2]]],
    [6, 'ignored', \$same_task],          // same trace, other op: Edge
    [6, 'ignored', \$other_task],         // another trace: dropped
    [6, 'ignored', \$context],            // the context's own op: dropped
    [7, 'ignored', [['file' => '/app/f.php', 'line' => 4, 'function' => 'f', 'args' => ['secret']]]],
    [8, 'ignored', '2B' . \$task . str_repeat('F6', 8) . '01'],
    [8, 'ignored', \$other_task],
    [8, 'ignored', 'not an X-Trace'],
    [8, 'ignored', \$context],
    [9, 'T', 7], [9, 'F', 0],
    [10, 'Ten', 'x'], [99, 'NinetyNine', 'x'],
    [0, 'End', null],
    [1, 'AfterEnd', 'never'],
]);
echo "bytes sent: ", var_export(\$rc > 0, true), "\\n";
\$after_first = corvidine_test_context();

// bit 1: the event opens a trace, no edge; no layer given: no Layer key
corvidine_test_event(null, 'no-edge', null, 1);
echo 'context moved: ', corvidine_test_context() !== \$after_first ? 'yes' : 'no', "\\n";
echo 'first event id: ', \$after_first, "\\n";

// an unsampled context sends nothing, and neither does an invalid one
corvidine_test_set_context('2B' . \$task . str_repeat('B2', 8) . '00');
echo 'unsampled: ', corvidine_test_event('a-layer', 'unsampled', [[1, 'S', 'x']], 2 | 4 | 8), "\\n";
corvidine_test_set_context('2B' . str_repeat('00', 20) . str_repeat('B2', 8) . '01');
echo 'invalid: ', corvidine_test_event('a-layer', 'invalid', null, 0), "\\n";
PHP);
echo $r['out'], $r['err'], "status {$r['status']}\n";

$events = ev_labelled($r['docs'], ['records', 'no-edge', 'unsampled', 'invalid']);
echo count($events), " events\n";
$first = $events[0];
foreach ($first as [$key, [$type, $value]]) {
    $shown = match ($key) {
        'X-Trace' => preg_match("/^2B{$task}[0-9A-F]{16}01$/", $value) ? 'own op, same task, sampled' : "WRONG $value",
        'Memory-Used', 'Memory-Used-Real', 'Memory-Peak', 'Memory-Peak-Real' => $value > 0 ? 'positive' : 'ZERO',
        'TID', 'Timestamp_u', 'Hostname' => 'set',
        'Doc' => ev_show($value, '  '),
        default => json_encode($value),
    };
    echo "$key $type $shown\n";
}
// the event id the child saw after the send is the event's own id
preg_match('/first event id: (\S+)/', $r['out'], $m);
echo ev_field($first, 'X-Trace')[1] === $m[1] ? "context moved on to the event\n" : "CONTEXT NOT MOVED\n";

echo "-- second event\n";
echo implode(',', ev_keys($events[1])), "\n";
$edge = array_values(array_filter($events[1], fn($p) => $p[0] === 'Edge'));
echo count($edge) === 0 ? "no edge\n" : "EDGE FOUND\n";
?>
--EXPECTF--
bytes sent: true
context moved: yes
first event id: 2B%s
unsampled: 0
invalid: 0
%Astatus 0
2 events
_V string "1"
X-Trace string own op, same task, sampled
Label string "records"
Layer string "a-layer"
Memory-Used int64 positive
Memory-Used-Real int64 positive
Memory-Peak int64 positive
Memory-Peak-Real int64 positive
S string "text"
I4 int64 -7
I8 int64 -1099511627776
D double -2.5
B binary "610062"
Doc document   x:int64=1
  l:array
    0:int64=1
    1:int64=2

Edge string "E5E5E5E5E5E5E5E5"
Backtrace string "#0 \/app\/f.php(4): f(String)\n#1 {main}"
Edge string "F6F6F6F6F6F6F6F6"
T bool true
F bool false
Edge string "B2B2B2B2B2B2B2B2"
TID int64 set
Timestamp_u int64 set
Hostname string set
context moved on to the event
-- second event
_V,X-Trace,Label,Memory-Used,Memory-Used-Real,Memory-Peak,Memory-Peak-Real,TID,Timestamp_u,Hostname
no edge
