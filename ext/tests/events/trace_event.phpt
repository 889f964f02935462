--TEST--
php_vesk_trace_event through the file reporter: record types, edges, memory keys, flags (backtraces, arguments, forced), corvidine.enable_backtrace / enable_function_args, the prepared exit event, SN
--EXTENSIONS--
corvidine
--FILE--
<?php
require __DIR__ . '/../support/child.inc';
function child(string $code, array $ini = []): array
{
    $ini += ['corvidine.enable_cli' => 1, 'corvidine.enable' => 0, 'corvidine.internal_test_hooks' => 1,
             'corvidine.max_ready_wait_time' => -1];
    $r = vesk_child("<?php\n\$task = str_repeat('A1', 20);\ncorvidine_test_set_context('2B' . \$task . str_repeat('B2', 8) . '01');\n$code", $ini);
    echo $GLOBALS['out'] = $r['out'], $r['status'] === 0 ? '' : "status {$r['status']}: {$r['err']}\n";
    return array_values(array_filter($r['docs'], fn($d) => vesk_field($d, '__Init') === null));
}

// the ten record types; edges only within the trace
[$first, $second] = child(<<<'PHP'
$other = '2B' . str_repeat('C3', 28) . '01';
corvidine_test_event('a-layer', 'records', [
    [1, 'S', 'text'], [1, 'NoString', null], [2, 'I4', -7, 4], [2, 'I8', -(1 << 40), 8], [2, 'I16', 5, 16],
    [3, 'D', -2.5], [4, 'B', "a\0b"], [5, 'Doc', ['x' => 1]],
    [6, 'ignored', "2B{$task}" . str_repeat('E5', 8) . '01'], [6, 'ignored', $other],
    [7, 'ignored', [['file' => '/app/f.php', 'line' => 4, 'function' => 'f', 'args' => ['secret']]]],
    [8, 'ignored', "2B{$task}" . str_repeat('F6', 8) . '01'], [8, 'ignored', $other], [8, 'ignored', 'no id'],
    [9, 'T', 7], [10, 'Ten', 'x'], [0, 'End', null], [1, 'AfterEnd', 'never'],
]);
$id = corvidine_test_context();
corvidine_test_event(null, 'no-edge', null, 1);   // opens a trace: no edge; no layer: no Layer key
echo 'context moved on: ', $id !== corvidine_test_context() ? 'yes' : 'no', ', to the event: ', $id, "\n";
corvidine_test_set_context("2B{$task}" . str_repeat('B2', 8) . '00');
echo 'unsampled: ', corvidine_test_event('L', 'unsampled', [[1, 'S', 'x']], 2 | 4 | 8), "\n";
corvidine_test_set_context('2B' . str_repeat('00', 20) . str_repeat('B2', 8) . '01');
echo 'invalid: ', corvidine_test_event('L', 'invalid', null, 0), "\n";
PHP);
$shown = [];
foreach ($first as [$key, [$type, $value]]) {
    $shown[] = "$key:$type" . match ($key) {
        'X-Trace' => preg_match('/^2B(A1){20}[0-9A-F]{16}01$/', $value) ? '' : " WRONG $value",
        'Memory-Used', 'Memory-Used-Real', 'Memory-Peak', 'Memory-Peak-Real' => $value > 0 ? '' : ' ZERO',
        'TID', 'Timestamp_u', 'Hostname', '_V' => '',
        default => '=' . json_encode($value) };
}
echo implode(" ", $shown), "\n";
echo implode(',', array_column($second, 0)), "\n";

// flags: 2 text backtrace, 4 BSON (2 wins), 8 arguments, 64 backtrace even when turned off
$code = <<<'PHP'
function nested($label, $flags) { return corvidine_test_event('L', $label, [[7, 'x', [['function' => 'x']]]], $flags); }
foreach (['text' => 2, 'bson' => 4, 'both' => 6, 'forced' => 66, 'forced-bson' => 68, 'plain' => 0] as $label => $flags) {
    nested($label, $flags);
}
corvidine_test_event('L', 'args', [], 8, str_repeat('a', 2000), null);
PHP;
foreach ([[], ['corvidine.enable_backtrace' => 0, 'corvidine.enable_function_args' => 0]] as $ini) {
    $shown = [];
    foreach (child($code, $ini) as $doc) {
        $parts = [];
        foreach ($doc as [$key, [$type, $value]]) {
            if ($key === 'Backtrace') {
                $parts[] = $type === 'string' ? 'text(' . substr_count($value, "\n") . ')'
                    : 'bson(' . implode(',', array_map(fn($f) => vesk_field($f[1][1], 'function')[1], $value)) . ')';
            } elseif ($key === 'Args') {
                $parts[] = 'args(' . implode(',', array_map(fn($a) => $a[1][0] === 'string' ? strlen($a[1][1]) : $a[1][0], $value)) . ')';
            }
        }
        $shown[] = vesk_field($doc, 'Label')[1] . ': ' . implode(' ', $parts);
    }
    echo json_encode($ini), "\n  ", implode(' | ', $shown), "\n";
}

// the prepared exit event: state 2 hands its id to the next event; SN after the edge
$docs = child(<<<'PHP'
echo 'prepared ', corvidine_test_exit_event(2), "\n";
corvidine_test_set_service_name('shop-front');
corvidine_test_event('L', 'exit', [[1, 'K', 'v']], 0);
echo 'state after it: ', corvidine_test_exit_event_state(), "\n";
corvidine_test_set_service_name(null);
corvidine_test_event('L', 'after', null, 0);
PHP);
[$exit, $after] = $docs;
echo implode(',', array_slice(array_column($exit, 0), -5)), ' ', implode(',', array_slice(array_column($after, 0), -4)), "\n";
foreach ($docs as $doc) {
    echo vesk_field($doc, 'Label')[1], ': ', str_contains($GLOBALS['out'], vesk_field($doc, 'X-Trace')[1]) ? 'the prepared id' : 'an id of its own', "\n";
}
?>
--EXPECTF--
context moved on: yes, to the event: 2B%s
unsampled: 0
invalid: 0
_V:string X-Trace:string Label:string="records" Layer:string="a-layer" Memory-Used:int64 Memory-Used-Real:int64 Memory-Peak:int64 Memory-Peak-Real:int64 S:string="text" I4:int64=-7 I8:int64=-1099511627776 D:double=-2.5 B:binary="610062" Doc:document=[["x",["int64",1]]] Edge:string="E5E5E5E5E5E5E5E5" Backtrace:string="#0 \/app\/f.php(4): f(String)\n#1 {main}" Edge:string="F6F6F6F6F6F6F6F6" T:bool=true Edge:string="B2B2B2B2B2B2B2B2" TID:int64 Timestamp_u:int64 Hostname:string
_V,X-Trace,Label,Memory-Used,Memory-Used-Real,Memory-Peak,Memory-Peak-Real,TID,Timestamp_u,Hostname
[]
  text: text(2) text(1) | bson: bson(corvidine_test_event,nested) text(1) | both: text(2) text(1) | forced: text(2) text(1) | forced-bson: bson(corvidine_test_event,nested) text(1) | plain: text(1) | args: args(1,4,array,int64,1024,null)
{"corvidine.enable_backtrace":0,"corvidine.enable_function_args":0}
  text:  | bson:  | both:  | forced: text(2) | forced-bson: bson(corvidine_test_event,nested) | plain:  | args: 
prepared 2B%s
state after it: 0
Edge,SN,TID,Timestamp_u,Hostname Edge,TID,Timestamp_u,Hostname
exit: the prepared id
after: an id of its own