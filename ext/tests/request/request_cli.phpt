--TEST--
A traced CLI run as a request ($_SERVER from the environment): identifier order, X-Trace-Options keys, sample rate and tracing words, transaction name and domain, the settings file, the exit status; nothing reaches the script's headers
--EXTENSIONS--
corvidine
--FILE--
<?php
require __DIR__ . '/../support/child.inc';
$rules = sys_get_temp_dir() . '/corvidine-rules-' . getmypid() . '.ini';
file_put_contents($rules, "[no-type]\nregexp = \".*\"\ntracing = disabled\n[secure-off]\ntype = url\nregexp = \"https://.*\"\ntracing = disabled\n");
$id = fn($task, $op, $flags = '01') => '2B' . str_repeat($task, 20) . str_repeat($op, 8) . $flags;
$h253 = str_repeat('h', 253);
$cases = [
    // label, INI entries, environment ($_SERVER), what to show of the entry and exit events
    ['header over INI', ['corvidine.xtrace' => $id('C3', 'D4')], ['HTTP_X_TRACE' => $id('A1', 'B2')], 'Edge'],
    ['INI without header', ['corvidine.xtrace' => $id('C3', 'D4')], [], 'Edge'],
    ['trigger trace beats rate 0', ['corvidine.sample_rate' => '0'],
     ['HTTP_X_TRACE_OPTIONS' => 'trigger-trace;custom-a=b; custom-c ;pd-keys=k1:k2;x=y'], 'TriggeredTrace custom-a custom-c PDKeys x SampleRate SampleSource'],
    ['rate 1000000', ['corvidine.sample_rate' => '1000000'], [], 'SampleRate SampleSource'],
    ['rate 1000001 refused', ['corvidine.sample_rate' => '1000001'], [], 'SampleRate SampleSource'],
    ['rate -1 refused', ['corvidine.sample_rate' => '-1'], [], 'SampleRate SampleSource'],
    ['rate 0', ['corvidine.sample_rate' => '0'], [], 'SampleRate'],
    ['tracing never', ['corvidine.tracing' => 'never'], [], 'SampleRate'],
    ['tracing always', ['corvidine.tracing' => 'always'], [], 'SampleSource'],
    ['port appended', [], ['HTTP_HOST' => 'host1', 'SERVER_PORT' => '8080', 'REQUEST_URI' => '/a/b/c?x=1'], 'TransactionName'],
    ['port not doubled', [], ['HTTP_HOST' => 'host1:8080', 'SERVER_PORT' => '8080', 'REQUEST_URI' => '/a'], 'TransactionName'],
    ['port 443 left out', [], ['HTTP_HOST' => 'host1', 'SERVER_PORT' => '443', 'REQUEST_URI' => '/a'], 'TransactionName'],
    ['forwarded host first', [], ['HTTP_X_FORWARDED_HOST' => 'fwd', 'HTTP_HOST' => 'h', 'SERVER_PORT' => '81', 'REQUEST_URI' => '/a'], 'TransactionName'],
    ['empty forwarded host skipped', [], ['HTTP_X_FORWARDED_HOST' => '', 'HTTP_HOST' => 'host1', 'REQUEST_URI' => '/a'], 'TransactionName'],
    ['254-byte host skipped', [], ['HTTP_HOST' => str_repeat('h', 254), 'SERVER_NAME' => 'srv', 'REQUEST_URI' => '/a'], 'TransactionName'],
    ['no room for the port', [], ['HTTP_HOST' => $h253, 'SERVER_PORT' => '8080', 'REQUEST_URI' => '/a'], 'TransactionName'],
    ['domain not prepended', ['corvidine.transaction_prepend_domain' => 0], ['HTTP_HOST' => 'h', 'REQUEST_URI' => '/a/b/c'], 'TransactionName'],
    ['rules: no type skipped', ['corvidine.transaction_settings_file' => $rules], ['HTTP_HOST' => 'h', 'REQUEST_URI' => '/p'], 'SampleRate'],
    ['rules: https from HTTPS', ['corvidine.transaction_settings_file' => $rules], ['HTTP_HOST' => 'h', 'REQUEST_URI' => '/p', 'HTTPS' => 'off'], 'SampleRate'],
    ['rules: missing file', ['corvidine.transaction_settings_file' => "$rules.missing"], [], 'SampleRate'],
    ['response code', [], ['CODE' => '503'], 'Status'],
];
foreach ($cases as [$label, $ini, $env, $keys]) {
    $r = vesk_child("<?php http_response_code((int)(getenv('CODE') ?: 200)); echo count(headers_list());",
        $ini + ['corvidine.enable_cli' => 1, 'corvidine.max_ready_wait_time' => -1, 'corvidine.transaction_prepend_domain' => 1], $env);
    $events = [];
    foreach ($r['docs'] as $doc) {
        $events += [vesk_field($doc, 'Label')[1] => array_column(array_map(fn($p) => [$p[0], $p[1][1]], $doc), 1, 0)];
    }
    $shown = [];
    foreach (explode(' ', $keys) as $key) {
        $shown[] = "$key=" . preg_replace('/h{253}/', 'h{253}', json_encode($events['entry'][$key] ?? $events['exit'][$key] ?? null, JSON_UNESCAPED_SLASHES));
    }
    echo "$label: ", isset($events['entry']) ? implode(' ', $shown) : 'not traced', $r['out'] === '0' ? '' : " HEADERS {$r['out']}", "\n";
}
unlink($rules);
?>
--EXPECT--
header over INI: Edge="B2B2B2B2B2B2B2B2"
INI without header: Edge="D4D4D4D4D4D4D4D4"
trigger trace beats rate 0: TriggeredTrace=true custom-a="b" custom-c="" PDKeys="k1:k2" x=null SampleRate=0 SampleSource=0
rate 1000000: SampleRate=1000000 SampleSource=1
rate 1000001 refused: SampleRate=1000000 SampleSource=6
rate -1 refused: SampleRate=1000000 SampleSource=6
rate 0: not traced
tracing never: not traced
tracing always: SampleSource=6
port appended: TransactionName="host1:8080/a/b"
port not doubled: TransactionName="host1:8080/a"
port 443 left out: TransactionName="host1/a"
forwarded host first: TransactionName="fwd:81/a"
empty forwarded host skipped: TransactionName="host1/a"
254-byte host skipped: TransactionName="srv/a"
no room for the port: TransactionName="h{253}/a"
domain not prepended: TransactionName="/a/b"
rules: no type skipped: SampleRate=1000000
rules: https from HTTPS: not traced
rules: missing file: SampleRate=1000000
response code: Status=503
