--TEST--
User API: every function in a traced, an unsampled, a custom-started and an inactive CLI request (results, warnings, the events the file reporter wrote); edge cases and hostile arguments; reflection of the generated argument information
--EXTENSIONS--
corvidine
--FILE--
<?php
require __DIR__ . '/../support/child.inc';
/* Warnings as short tags; events as "Layer/Label" and their own keys (the fixed ones left out). */
$tag = fn($line) => preg_replace(['/"sample_rate":(\d+),"sample_source":(\d+)/', '/ Tracing has not yet.*/', '/ A trace was already active.*/',
    '/ Either use_custom.*/', '/ Transaction name can only.*/'], ['rate $1 source $2', ' W-unstarted', ' W-active', ' N-again', ' W-inactive'], $line);
$fixed = ['X-Trace', 'Edge', 'Label', 'Layer', 'TID', 'Timestamp_u', 'Hostname', '_V', 'Memory-Used', 'Memory-Used-Real',
    'Memory-Peak', 'Memory-Peak-Real', 'ProfileSpans', 'Status', 'SampleSource', 'SampleRate', 'URL'];
$show = function (array $r) use ($fixed) {
    return implode(' ', array_map(fn($e) => ($e['Layer'] ?? '') . '/' . $e['Label'] . '{' . implode(',', array_map(
        fn($k, $v) => $k === 'Backtrace' && strlen($v) > 30 ? 'BT' : "$k=" . preg_replace(['~ in /\S+:\d+~', '~corvidine-test-\S+~', '~\n~'],
            [' in F', 'SCRIPT', '|'], is_string($v) ? $v : json_encode($v)),
        array_keys($o = array_diff_key($e, array_flip($fixed))), $o)) . '}', $r['events']));
};

$modes = ['traced' => [], 'unsampled' => ['corvidine.sample_rate' => 0], 'custom' => ['corvidine.use_custom_start_trace' => 1],
    'inactive' => ['corvidine.enable_cli' => 0]];
$rows = [];
foreach ($modes as $mode => $ini) {
    $r = rq_run(__DIR__ . '/api_calls.inc', $ini);
    foreach (array_filter(explode("\n", $r['out'])) as $line) {
        [$call, $result] = explode('=', $line, 2);
        $rows[$call][] = $tag($result);
    }
    echo "$mode events: ", $show($r), "\n";
    if ($mode === 'custom') {  // the context set before the start is continued, with an edge to it
        $entry = rq_event($r, 'entry');
        echo 'custom continues: ', substr($entry['X-Trace'], 2, 40) === str_repeat('AB', 20) && $entry['Edge'] === str_repeat('CD', 8) ? 'yes' : 'no', "\n";
    }
}
foreach ($rows as $call => $cells) { echo "$call: ", implode(' | ', $cells), "\n"; }

/* Edge cases and hostile arguments in one traced run, each "label: result [first warning or exception]". */
$edge = <<<'PHP'
<?php
class Bad { function __toString(): string { throw new LogicException('no __toString'); } }
$deep = []; for ($i = 0; $i < 3000; $i++) { $deep = ['d' => $deep]; }
$warned = [];
set_error_handler(function ($no, $msg) use (&$warned) { $warned[] = $msg; return true; });
$cases = [
    'no layer' => fn() => corvidine_log('', 'x'),
    'reserved key' => fn() => corvidine_log('L', 'reserved', ['Label' => 'x', 'a' => 1, 7 => true, 'n' => null, 'arr' => [1]]),
    'old form' => fn() => corvidine_log('old', ['k' => 'v'], true),
    'empty label' => fn() => corvidine_log('L', ''),
    'caller frames' => fn() => corvidine_log('L', 'frames', null, [['function' => 'f', 'file' => 'x.php', 'line' => 3]]),
    'edge to earlier' => function () { $c = corvidine_get_context(); corvidine_log('L', 'between', null, false);
        return corvidine_log_exit('L', null, false, [$c]); },
    'bad edge' => fn() => corvidine_log('L', 'x', null, null, 'zz'),
    'edgeless object' => fn() => corvidine_log('L', 'x', null, null, new stdClass),
    'info string' => fn() => corvidine_log('L', 'x', 'str'),
    'backtrace int' => fn() => corvidine_log('L', 'x', null, 5),
    'exception, no bt' => fn() => corvidine_log_exception('L', new LogicException(''), null, false),
    'error code huge' => fn() => corvidine_log_error('L', 'm', PHP_INT_MAX, (object)['p' => 'q'], false),
    'bad context' => fn() => corvidine_set_context('2Bxyz'),
    'empty name' => fn() => corvidine_metric_summary('', 1.0),
    'named args' => fn() => [corvidine_metric_increment(name: 'x', tags: ['a' => 'b']), corvidine_log_entry(layer: 'N', backtrace: false)],
    'hostile' => fn() => corvidine_log("L\xff", "lbl\xfe", ["k\xc3" => "v\xff", 'big' => str_repeat('b', 1 << 20), 'deep' => $deep]),
    'throwing __toString' => fn() => corvidine_log('L', 'x', ['b' => new Bad]),
    'throwing edge' => fn() => corvidine_log('L', 'x', null, null, [new Bad]),
    'type: layer' => fn() => corvidine_log([], 'x', 1, 2, 3),
    'type: exception' => fn() => corvidine_log_exception('L', new stdClass),
    'type: value' => fn() => corvidine_metric_summary('m', 'abc'),
    'type: tags' => fn() => corvidine_metric_increment('m', 1, false, null, 'tags'),
    'long name' => fn() => corvidine_set_transaction_name(str_repeat('n', 300)),
    'start again' => fn() => corvidine_start_trace('second', null, null, false),
];
foreach ($cases as $label => $case) {
    $warned = [];
    try { $result = json_encode($case()); } catch (Throwable $e) { $result = get_class($e) . ': ' . $e->getMessage(); }
    echo "$label: $result", $warned ? ' [' . $warned[0] . ']' : '', "\n";
}
PHP;
$r = rq_run(rq_script($edge), ['corvidine.enable_backtrace' => 1]);
echo preg_replace('~ in /\S+ on line \d+~', '', $r['out']), $r['err'];
foreach ($r['events'] as $e) {
    $e = ['Layer' => $e['Layer'] ?? '', 'Label' => $e['Label']] + array_map(fn($v) => is_string($v) && strlen($v) > 200 && $v[0] !== '#' ? 'len ' . strlen($v) : $v, $e);
    echo $show(['events' => [$e]]), "\n";
}
$edges = array_map(fn($d) => count(array_filter($d, fn($p) => $p[0] === 'Edge')), $r['docs']);
echo 'events with two edges: ', count(array_filter($edges, fn($n) => $n === 2)), "\n";

foreach (get_extension_funcs('corvidine') as $name) {
    if (str_starts_with($name, 'corvidine_test_')) { continue; }
    $f = new ReflectionFunction($name);
    echo $name, '(', implode(', ', array_map(fn($p) => $p->getType() . ' $' . $p->getName()
        . ($p->isOptional() ? ' = ' . var_export($p->getDefaultValue(), true) : ''), $f->getParameters())), '): ', $f->getReturnType(), "\n";
}
?>
--EXPECT--
traced events: PHP/entry{} L/a{BT,x=1} api/entry{BT,k=1} api/entry{BT,a=b} api/error{BT,Spec=error,ErrorClass=NOTICE,ErrorMsg=m,ErrorLevel=5,PHPErrorCode=E_USER_NOTICE} api/error{ErrorClass=RuntimeException,ErrorMsg=exception 'RuntimeException' with message 'boom' in F,BT} api/exit{BT} api/exit{BT,e=1,TransactionName=tx}
unsampled events: 
custom events: api/entry{BT,k=1} api/entry{BT,a=b} api/error{BT,Spec=error,ErrorClass=NOTICE,ErrorMsg=m,ErrorLevel=5,PHPErrorCode=E_USER_NOTICE} api/error{ErrorClass=RuntimeException,ErrorMsg=exception 'RuntimeException' with message 'boom' in F,BT} api/exit{BT} api/exit{BT,e=1,TransactionName=tx}
custom continues: yes
inactive events: 
started: true | true | false | false
tracing: true | false | false | false
context: 60 | false | false W-unstarted | false W-unstarted
log: true | false | false W-unstarted | false W-unstarted
set_context: true | false | true | false
start: {rate 1000000 source 6} W-active | {rate 0 source 1} N-again | {rate 1000000 source 6} | false
tracing2: true | false | true | false
entry: true | false | true | false W-unstarted
error: true | false | true | false W-unstarted
exception: true | false | true | false W-unstarted
exit: true | false | true | false W-unstarted
name: true | true | true | false W-inactive
log_id: "T-1" | "T-0" | "T-1" | "T-0"
ready: true | true | true | false
increment: false | false | false | false
summary: false | false | false | false
end: true | false | true | false W-unstarted
started2: false | false | false | false
no layer: true
reserved key: true [corvidine_log() info contains the reserved key name Label and will not be sent]
old form: true [corvidine_log(): This function signature is deprecated, please use corvidine_log(string layer, string label[, mixed info = null, mixed backtrace = null, mixed edge = null])]
empty label: false [corvidine_log() expects label names to not be empty strings]
caller frames: true
edge to earlier: true
bad edge: true [corvidine_log() xtrace zz passed in is invalid]
edgeless object: null [corvidine_log() expects edge to be an array or object]
info string: null [corvidine_log() expects info to be an array or object]
backtrace int: null [corvidine_log() expects backtrace to be an array or object with backtrace information to serialize]
exception, no bt: true
error code huge: true
bad context: false [Context 2Bxyz is not valid and cannot be set]
empty name: false [corvidine_metric_summary() expects name to not be an empty string]
named args: [false,true]
hostile: true
throwing __toString: LogicException: no __toString
throwing edge: LogicException: no __toString
type: layer: TypeError: corvidine_log(): Argument #1 ($layer) must be of type string, array given
type: exception: TypeError: corvidine_log_exception(): Argument #2 ($exception) must be of type Throwable, stdClass given
type: value: TypeError: corvidine_metric_summary(): Argument #2 ($value) must be of type float, string given
type: tags: TypeError: corvidine_metric_increment(): Argument #5 ($tags) must be of type ?array, string given
long name: true
start again: {"sample_rate":1000000,"sample_source":6} [A trace was already active, corvidine_start_trace ending previous trace and may start a new trace]
PHP/entry{}
/x{BT}
L/reserved{BT,a=1,7=1,n=,arr=Array}
/old{BT,k=v}
L/frames{Backtrace=#0 x.php(3): f()|#1 {main}}
L/between{}
L/exit{}
L/x{BT}
L/error{ErrorClass=LogicException,ErrorMsg=exception 'LogicException' in F,BT}
L/error{BT,p=q,Spec=error,ErrorClass=UNKNOWN,ErrorMsg=m,ErrorLevel=0,PHPErrorCode=UNKNOWN}
N/entry{}
L?/lbl?{BT,k?=v?,big=len 1048576,deep=Array}
PHP/exit{TransactionName=len 255}
second/entry{}
second/exit{TransactionName=SCRIPT}
events with two edges: 1
corvidine_get_context(): string|false
corvidine_set_context(string $context): bool
corvidine_set_transaction_name(string $name): bool
corvidine_start_trace(string $layer, ?string $xtrace = NULL, mixed $info = NULL, mixed $backtrace = NULL): array|false|null
corvidine_end_trace(mixed $info = NULL, mixed $backtrace = NULL, mixed $edge = NULL, ?string $transaction_name = NULL): ?bool
corvidine_is_tracing(): bool
corvidine_trace_started(): bool
corvidine_is_ready(int $timeout = 0): bool
corvidine_log(string $layer, mixed $label, mixed $info = NULL, mixed $backtrace = NULL, mixed $edge = NULL): ?bool
corvidine_log_entry(string $layer, mixed $info = NULL, mixed $backtrace = NULL): ?bool
corvidine_log_exit(string $layer, mixed $info = NULL, mixed $backtrace = NULL, mixed $edge = NULL): ?bool
corvidine_log_error(string $layer, string $message, int $code, mixed $info = NULL, mixed $backtrace = NULL, mixed $edge = NULL): ?bool
corvidine_log_exception(string $layer, Throwable $exception, mixed $info = NULL, mixed $backtrace = NULL, mixed $edge = NULL): ?bool
corvidine_metric_summary(string $name, float $value, int $count = 1, bool $host_tag = false, ?string $service_name = NULL, ?array $tags = NULL): bool
corvidine_metric_increment(string $name, int $count = 1, bool $host_tag = false, ?string $service_name = NULL, ?array $tags = NULL): bool
corvidine_get_log_trace_id(): string
