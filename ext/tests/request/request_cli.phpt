--TEST--
A traced CLI run as a request ($_SERVER from the environment): identifier order, X-Trace-Options keys, sample rate and tracing words, transaction name and domain, the settings file, the exit status, no headers for the script; INI entries read by number per request as zend_ini_long / zend_ini_string_ex read them; the log trace id as corvidine.log_trace_id says
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
$rules = sys_get_temp_dir() . '/corvidine-rules-' . getmypid() . '.ini';
file_put_contents($rules, "[no-type]\nregexp = \".*\"\ntracing = disabled\n[secure-off]\ntype = url\nregexp = \"https://.*\"\ntracing = disabled\n");
$id = fn($task, $op) => '2B' . str_repeat($task, 20) . str_repeat($op, 8) . '01';
$name = fn($host, $uri, $port = null) => ['HTTP_HOST' => $host, 'REQUEST_URI' => $uri] + ($port ? ['SERVER_PORT' => $port] : []);
$cases = [
    // label, INI entries, environment ($_SERVER), keys of the entry or exit event as expected
    ['header over INI', ['corvidine.xtrace' => $id('C3', 'D4')], ['HTTP_X_TRACE' => $id('A1', 'B2')], 'Edge="B2B2B2B2B2B2B2B2"'],
    ['INI without header', ['corvidine.xtrace' => $id('C3', 'D4')], [], 'Edge="D4D4D4D4D4D4D4D4"'],
    ['trigger trace beats rate 0', ['corvidine.sample_rate' => '0'], ['HTTP_X_TRACE_OPTIONS' => 'trigger-trace;custom-a=b; custom-c ;pd-keys=k1:k2;x=y'],
     'TriggeredTrace=true custom-a="b" custom-c="" PDKeys="k1:k2" x=null SampleRate=0 SampleSource=0'],
    ['rate 1000000', ['corvidine.sample_rate' => '1000000'], [], 'SampleRate=1000000 SampleSource=1'],
    ['rate 1000001 refused', ['corvidine.sample_rate' => '1000001'], [], 'SampleRate=1000000 SampleSource=6'],
    ['rate -1 refused', ['corvidine.sample_rate' => '-1'], [], 'SampleRate=1000000 SampleSource=6'],
    ['rate 0', ['corvidine.sample_rate' => '0'], [], 'not traced'],
    ['tracing never', ['corvidine.tracing' => 'never'], [], 'not traced'],
    ['tracing always', ['corvidine.tracing' => 'always'], [], 'SampleSource=6'],
    ['port appended', [], $name('host1', '/a/b/c?x=1', '8080'), 'TransactionName="host1:8080/a/b"'],
    ['port not doubled', [], $name('host1:8080', '/a', '8080'), 'TransactionName="host1:8080/a"'],
    ['port 443 left out', [], $name('host1', '/a', '443'), 'TransactionName="host1/a"'],
    ['forwarded host first', [], ['HTTP_X_FORWARDED_HOST' => 'fwd'] + $name('h', '/a', '81'), 'TransactionName="fwd:81/a"'],
    ['empty forwarded host skipped', [], ['HTTP_X_FORWARDED_HOST' => ''] + $name('host1', '/a'), 'TransactionName="host1/a"'],
    ['254-byte host skipped', [], ['SERVER_NAME' => 'srv'] + $name(str_repeat('h', 254), '/a'), 'TransactionName="srv/a"'],
    ['no room for the port', [], $name(str_repeat('h', 253), '/a', '8080'), 'TransactionName="' . str_repeat('h', 253) . '/a"'],
    ['domain not prepended', ['corvidine.transaction_prepend_domain' => 0], $name('h', '/a/b/c'), 'TransactionName="/a/b"'],
    ['rules: no type skipped', ['corvidine.transaction_settings_file' => $rules], $name('h', '/p'), 'SampleRate=1000000'],
    ['rules: https from HTTPS', ['corvidine.transaction_settings_file' => $rules], ['HTTPS' => 'off'] + $name('h', '/p'), 'not traced'],
    ['rules: missing file', ['corvidine.transaction_settings_file' => "$rules.missing"], [], 'SampleRate=1000000'],
    ['response code', [], ['CODE' => '503'], 'Status=503'],
];
foreach ($cases as [$label, $ini, $env, $expected]) {
    $r = vesk_child("<?php http_response_code((int)(getenv('CODE') ?: 200)); echo count(headers_list());",
        $ini + ['corvidine.enable_cli' => 1, 'corvidine.max_ready_wait_time' => -1, 'corvidine.transaction_prepend_domain' => 1], $env);
    $events = [];
    foreach ($r['docs'] as $doc) {
        $events += [vesk_field($doc, 'Label')[1] => array_column(array_map(fn($p) => [$p[0], $p[1][1]], $doc), 1, 0)];
    }
    preg_match_all('/(\S+?)=\S+/', $expected, $m);
    $shown = isset($events['entry']) ? implode(' ', array_map(fn($key) => "$key=" . json_encode(
        $events['entry'][$key] ?? $events['exit'][$key] ?? null, JSON_UNESCAPED_SLASHES), $m[1])) : 'not traced';
    $shown .= $r['out'] === '0' ? '' : " HEADERS {$r['out']}";
    echo $shown === $expected ? '' : "$label: $shown\n  expected $expected\n";
}
unlink($rules);
echo count($cases), " cases done\n";

foreach (['start' => null, 'after ini_set' => '9', 'again' => 'x:1'] as $when => $key) {
    if ($key !== null) { ini_set('corvidine.service_key', $key); }
    $entries = corvidine_test_request_ini();
    $mismatch = array_filter($entries, fn($v) => [$v['long'], $v['on'], $v['str']] !== [$v['by_name_long'], $v['by_name_on'], $v['by_name_str']]);
    $v = $entries['corvidine.service_key'];
    echo "$when: mismatches: ", $mismatch ? json_encode($mismatch) : 'none', "; service_key long={$v['long']} str={$v['str']}\n";
}

$code = '<?php foreach ([43, 42, 41, 40] as $n) echo corvidine_test_log_trace_id($n), "|"; echo var_export(corvidine_test_log_append_trace_id("disk full"), true), var_export(corvidine_test_log_append_trace_id(null), true);';
foreach ([['enabled', 1000000], ['sampled_only', 1000000], ['enabled', 0], ['sampled_only', 0], ['Enabled', 1000000]] as [$mode, $rate]) {
    $r = vesk_child($code, ['corvidine.enable_cli' => 1, 'corvidine.internal_test_hooks' => 1, 'corvidine.log_trace_id' => $mode, 'corvidine.sample_rate' => $rate]);
    $entry = current(array_filter($r['docs'], fn($d) => vesk_field($d, 'Label') === ['string', 'entry'])) ?: null;
    $task = substr(vesk_field($entry ?? [], 'X-Trace')[1] ?? '', 2, 40);
    echo "$mode, rate $rate: ", preg_replace_callback('/[0-9A-F]{40}/', fn($m) => $m[0] === $task ? 'TASK' : 'OTHER', $r['out']), "\n";
}
?>
--EXPECT--
21 cases done
start: mismatches: none; service_key long=0 str=
after ini_set: mismatches: none; service_key long=9 str=9
again: mismatches: none; service_key long=0 str=x:1
enabled, rate 1000000: TASK-1|TASK-|TASK||'disk full [zq.traceId=TASK-1]'NULL
sampled_only, rate 1000000: TASK-1|TASK-|TASK||'disk full [zq.traceId=TASK-1]'NULL
enabled, rate 0: OTHER-0|OTHER-|OTHER||'disk full [zq.traceId=OTHER-0]'NULL
sampled_only, rate 0: OTHER-0|OTHER-|OTHER||NULLNULL
Enabled, rate 1000000: TASK-1|TASK-|TASK||NULLNULL
