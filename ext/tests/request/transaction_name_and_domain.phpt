--TEST--
Request span: transaction name from custom, script or URL, with the domain worked out from host, forwarded host and port
--EXTENSIONS--
corvidine
--FILE--
<?php
require __DIR__ . '/request.inc';

$script = rq_script("<?php echo 'ran';\n");
$long253 = str_repeat('h', 253);
$cases = [
    // label, environment ($_SERVER under the CLI), prepend domain, expected name
    ['script only', [], 1, basename($script)],
    ['port appended', ['HTTP_HOST' => 'host1', 'SERVER_PORT' => '8080', 'REQUEST_URI' => '/a/b/c?x=1'], 1, 'host1:8080/a/b'],
    ['port not doubled', ['HTTP_HOST' => 'host1:8080', 'SERVER_PORT' => '8080', 'REQUEST_URI' => '/a'], 1, 'host1:8080/a'],
    ['port 443 left out', ['HTTP_HOST' => 'host1', 'SERVER_PORT' => '443', 'REQUEST_URI' => '/a'], 1, 'host1/a'],
    ['port 80 left out', ['HTTP_HOST' => 'host1', 'SERVER_PORT' => '80', 'REQUEST_URI' => '/a'], 1, 'host1/a'],
    ['forwarded host first', ['HTTP_X_FORWARDED_HOST' => 'fwd', 'HTTP_HOST' => 'host1', 'SERVER_PORT' => '81', 'REQUEST_URI' => '/a'], 1, 'fwd:81/a'],
    ['empty forwarded host skipped', ['HTTP_X_FORWARDED_HOST' => '', 'HTTP_HOST' => 'host1', 'REQUEST_URI' => '/a'], 1, 'host1/a'],
    ['server name last', ['SERVER_NAME' => 'srv', 'REQUEST_URI' => '/a'], 1, 'srv/a'],
    ['254-byte host skipped', ['HTTP_HOST' => str_repeat('h', 254), 'SERVER_NAME' => 'srv', 'REQUEST_URI' => '/a'], 1, 'srv/a'],
    ['no room for the port', ['HTTP_HOST' => $long253, 'SERVER_PORT' => '8080', 'REQUEST_URI' => '/a'], 1, "$long253/a"],
    ['domain not prepended', ['HTTP_HOST' => 'host1', 'SERVER_PORT' => '8080', 'REQUEST_URI' => '/a/b/c'], 0, '/a/b'],
];
foreach ($cases as [$label, $env, $prepend, $expected]) {
    $r = rq_run($script, ['corvidine.transaction_prepend_domain' => $prepend], $env);
    $exit = rq_event($r, 'exit');
    $name = $exit['TransactionName'] ?? '(no exit event: ' . $r['err'] . ')';
    echo $label, ': ', $name === $expected ? 'ok' : "got '$name', expected '$expected'", "\n";
}

// A host but no REQUEST_URI: the core's fallback name, and no PHP warning
// (the agent's own notes go to its debug log).
$r = rq_run($script, [], ['HTTP_HOST' => 'host1']);
echo 'no uri: ', rq_event($r, 'exit')['TransactionName'] ?? 'none', "\n";
echo 'warnings: ', count(rq_warnings($r)), "\n";

// The response code of the request becomes Status of the exit event.
$r = rq_run(rq_script("<?php http_response_code(503);\n"));
echo 'status: ', rq_event($r, 'exit')['Status'] ?? 'none', "\n";
?>
--EXPECTF--
script only: ok
port appended: ok
port not doubled: ok
port 443 left out: ok
port 80 left out: ok
forwarded host first: ok
empty forwarded host skipped: ok
server name last: ok
254-byte host skipped: ok
no room for the port: ok
domain not prepended: ok
no uri: unknown
warnings: 0
status: 503
