--TEST--
php_vesk_trace_event flags and switches: text or BSON backtrace, arguments, corvidine.enable_backtrace, forced backtraces, the prepared exit event, SN
--EXTENSIONS--
corvidine
--SKIPIF--
<?php if (!is_executable('/usr/bin/python3')) die('skip /usr/bin/python3 (python3-bson) is needed'); ?>
--FILE--
<?php
require __DIR__ . '/events.inc';

$child = <<<'PHP'
<?php
corvidine_test_set_context('2B' . str_repeat('A1', 20) . str_repeat('B2', 8) . '01');
$frames = [['file' => '/app/x.php', 'line' => 1, 'function' => 'x']];
function send($label, $flags) {
    return corvidine_test_event('L', $label, [[7, 'ignored', $GLOBALS['frames']]], $flags);
}
function nested($label, $flags) { return send($label, $flags); }
nested('text', 2);
nested('bson', 4);
nested('text-wins', 2 | 4);
nested('forced', 2 | 64);
nested('forced-bson', 4 | 64);
corvidine_test_event('L', 'args', [], 8, str_repeat('a', 2000), null);
nested('plain', 0);
PHP;

function summary(array $doc): string
{
    $parts = [];
    foreach ($doc as [$key, [$type, $value]]) {
        if ($key === 'Backtrace' && $type === 'string') {
            $lines = explode("\n", $value);
            $parts[] = "Backtrace:text(" . count($lines) . " lines, " . (str_contains($value, '/app/x.php') ? 'from record' : 'of the stack') . ")";
        } elseif ($key === 'Backtrace') {
            $functions = array_map(fn($frame) => ev_field($frame[1][1], 'function')[1], $value);
            $parts[] = "Backtrace:$type(" . implode(',', $functions) . ")";
        } elseif ($key === 'Args') {
            $parts[] = "Args:$type(" . implode(',', array_map(fn($p) => $p[0] . '=' . ($p[1][0] === 'string'
                ? strlen($p[1][1]) . ' bytes' : json_encode($p[1][1])), $value)) . ")";
        }
    }
    return implode(' ', $parts) ?: '-';
}

$labels = ['text', 'bson', 'text-wins', 'forced', 'forced-bson', 'args', 'plain'];
foreach (['corvidine.enable_backtrace=1 (default)' => [],
          'corvidine.enable_backtrace=0' => ['corvidine.enable_backtrace' => 0],
          'corvidine.enable_function_args=0' => ['corvidine.enable_function_args' => 0]] as $title => $ini) {
    echo "-- $title\n";
    $r = ev_child($child, $ini);
    echo $r['out'], $r['status'] === 0 ? '' : "status {$r['status']}: {$r['err']}\n";
    foreach (ev_labelled($r['docs'], $labels) as $doc) {
        echo str_pad(ev_field($doc, 'Label')[1], 12), summary($doc), "\n";
    }
}

echo "-- the prepared exit event: state 2 hands its id to the next event, state 1 does not\n";
$r = ev_child(<<<'PHP'
<?php
corvidine_test_set_context('2B' . str_repeat('A1', 20) . str_repeat('B2', 8) . '01');
$prepared = corvidine_test_exit_event(1);
corvidine_test_event('L', 'state-1', null, 0);
echo 'state after an ordinary event: ', corvidine_test_exit_event_state(), "\n";
$prepared = corvidine_test_exit_event(2);
echo "prepared $prepared\n";
corvidine_test_event('L', 'state-2', null, 0);
echo 'state after the exit event: ', corvidine_test_exit_event_state(), "\n";
corvidine_test_event('L', 'after', null, 0);
// unsampled: the prepared event stays where it is
$prepared = corvidine_test_exit_event(2);
corvidine_test_set_context('2B' . str_repeat('A1', 20) . str_repeat('B2', 8) . '00');
corvidine_test_event('L', 'unsampled', null, 0);
echo 'state on an unsampled context: ', corvidine_test_exit_event_state(), "\n";
corvidine_test_exit_event(0);
PHP);
echo $r['status'] === 0 ? '' : "status {$r['status']}: {$r['err']}\n";
preg_match('/prepared (\S+)/', $r['out'], $m);
echo preg_replace('/prepared \S+/', 'prepared <id>', $r['out']);
$events = ev_labelled($r['docs'], ['state-1', 'state-2', 'after', 'unsampled']);
foreach ($events as $doc) {
    $id = ev_field($doc, 'X-Trace')[1];
    echo str_pad(ev_field($doc, 'Label')[1], 10), $id === $m[1] ? 'the prepared id' : 'an id of its own', "\n";
}

echo "-- a request with a service name of its own carries SN, after the edge\n";
$r = ev_child(<<<'PHP'
<?php
corvidine_test_set_context('2B' . str_repeat('A1', 20) . str_repeat('B2', 8) . '01');
corvidine_test_event('L', 'without-sn', null, 0);
corvidine_test_set_service_name('shop-front');
corvidine_test_event('L', 'with-sn', [[1, 'K', 'v']], 0);
corvidine_test_set_service_name(null);
PHP);
echo $r['status'] === 0 ? '' : "status {$r['status']}: {$r['err']}\n";
foreach (ev_labelled($r['docs'], ['without-sn', 'with-sn']) as $doc) {
    echo implode(',', array_slice(ev_keys($doc), -5)), ' SN=', json_encode(ev_field($doc, 'SN')[1] ?? null), "\n";
}
?>
--EXPECT--
-- corvidine.enable_backtrace=1 (default)
text        Backtrace:text(4 lines, of the stack) Backtrace:text(2 lines, from record)
bson        Backtrace:document(corvidine_test_event,send,nested) Backtrace:text(2 lines, from record)
text-wins   Backtrace:text(4 lines, of the stack) Backtrace:text(2 lines, from record)
forced      Backtrace:text(4 lines, of the stack) Backtrace:text(2 lines, from record)
forced-bson Backtrace:document(corvidine_test_event,send,nested) Backtrace:text(2 lines, from record)
args        Args:document(0=1 bytes,1=4 bytes,2=[],3=8,4=1024 bytes,5=null)
plain       Backtrace:text(2 lines, from record)
-- corvidine.enable_backtrace=0
text        -
bson        -
text-wins   -
forced      Backtrace:text(4 lines, of the stack)
forced-bson Backtrace:document(corvidine_test_event,send,nested)
args        Args:document(0=1 bytes,1=4 bytes,2=[],3=8,4=1024 bytes,5=null)
plain       -
-- corvidine.enable_function_args=0
text        Backtrace:text(4 lines, of the stack) Backtrace:text(2 lines, from record)
bson        Backtrace:document(corvidine_test_event,send,nested) Backtrace:text(2 lines, from record)
text-wins   Backtrace:text(4 lines, of the stack) Backtrace:text(2 lines, from record)
forced      Backtrace:text(4 lines, of the stack) Backtrace:text(2 lines, from record)
forced-bson Backtrace:document(corvidine_test_event,send,nested) Backtrace:text(2 lines, from record)
args        -
plain       Backtrace:text(2 lines, from record)
-- the prepared exit event: state 2 hands its id to the next event, state 1 does not
state after an ordinary event: 1
prepared <id>
state after the exit event: 0
state on an unsampled context: 2
state-1   an id of its own
state-2   the prepared id
after     an id of its own
-- a request with a service name of its own carries SN, after the edge
Memory-Peak-Real,Edge,TID,Timestamp_u,Hostname SN=null
Edge,SN,TID,Timestamp_u,Hostname SN="shop-front"
