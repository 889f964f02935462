--TEST--
INI entries read by number per request give what zend_ini_long / zend_ini_string_ex give, also after ini_set(); the log trace id (task id, "-", sampled flag, cut at whole pieces) as corvidine.log_trace_id says
--EXTENSIONS--
corvidine
--INI--
corvidine.internal_test_hooks=1
corvidine.enable_profiling=0x1
corvidine.profiling_interval=010
corvidine.enable_laravel_tracing=257
corvidine.enable_sanitize_sql=-3
corvidine.xtrace=2Babc
corvidine.transaction_prepend_domain=1a
--FILE--
<?php
require __DIR__ . '/../support/child.inc';
function check(string $when): void
{
    $mismatch = [];
    foreach (corvidine_test_request_ini() as $name => $v) {
        if ($v['long'] !== $v['by_name_long'] || $v['on'] !== $v['by_name_on'] || $v['str'] !== $v['by_name_str']) {
            $mismatch[] = "$name: " . json_encode($v);
        }
    }
    $v = corvidine_test_request_ini()['corvidine.service_key'];
    echo "$when: mismatches: ", $mismatch ? implode('; ', $mismatch) : 'none', "; service_key long={$v['long']} str={$v['str']}\n";
}
check('start');
ini_set('corvidine.service_key', '9');
check('after ini_set');
ini_set('corvidine.service_key', 'x:1');
check('again');

$code = '<?php foreach ([43, 42, 41, 40] as $n) echo corvidine_test_log_trace_id($n), "|"; echo var_export(corvidine_test_log_append_trace_id("disk full"), true), var_export(corvidine_test_log_append_trace_id(null), true);';
foreach ([['enabled', 1000000], ['sampled_only', 1000000], ['enabled', 0], ['sampled_only', 0], ['Enabled', 1000000]] as [$mode, $rate]) {
    $r = vesk_child($code, ['corvidine.enable_cli' => 1, 'corvidine.internal_test_hooks' => 1, 'corvidine.log_trace_id' => $mode, 'corvidine.sample_rate' => $rate]);
    $entry = current(array_filter($r['docs'], fn($d) => vesk_field($d, 'Label') === ['string', 'entry'])) ?: null;
    $task = substr(vesk_field($entry ?? [], 'X-Trace')[1] ?? '', 2, 40);
    echo "$mode, rate $rate: ", preg_replace_callback('/[0-9A-F]{40}/', fn($m) => $m[0] === $task ? 'TASK' : 'OTHER', $r['out']), "\n";
}
?>
--EXPECT--
start: mismatches: none; service_key long=0 str=
after ini_set: mismatches: none; service_key long=9 str=9
again: mismatches: none; service_key long=0 str=x:1
enabled, rate 1000000: TASK-1|TASK-|TASK||'disk full [zq.traceId=TASK-1]'NULL
sampled_only, rate 1000000: TASK-1|TASK-|TASK||'disk full [zq.traceId=TASK-1]'NULL
enabled, rate 0: OTHER-0|OTHER-|OTHER||'disk full [zq.traceId=OTHER-0]'NULL
sampled_only, rate 0: OTHER-0|OTHER-|OTHER||NULLNULL
Enabled, rate 1000000: TASK-1|TASK-|TASK||NULLNULL
