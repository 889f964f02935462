--TEST--
A traced CLI run as a request ($_SERVER from the environment): identifier order, X-Trace-Options keys, sample rate and tracing words, transaction name and domain, the settings file, the exit status; nothing reaches the script's headers
--EXTENSIONS--
corvidine
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
?>
--EXPECT--
21 cases done
