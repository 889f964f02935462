<?php
// The extension's copy of the server variables (a test hook) next to what
// _SERVER holds for the same keys, as JSON. The copy is made at request
// start; _SERVER is built when this file is compiled, after it.
$keys = ['HTTP_X_TRACE', 'REQUEST_URI', 'SCRIPT_NAME', 'HTTP_X_FORWARDED_HOST', 'HTTP_X_FORWARDED_FOR',
         'HTTP_HOST', 'SERVER_NAME', 'SERVER_PORT', 'REQUEST_METHOD', 'REMOTE_ADDR', 'HTTP_X_TRACE_OPTIONS',
         'HTTP_X_TRACE_OPTIONS_SIGNATURE'];
$server = [];
foreach ($keys as $key) {
    if (isset($_SERVER[$key]) && is_string($_SERVER[$key])) {
        $server[$key] = $_SERVER[$key];
    }
}
$server['PROTOCOL'] = array_key_exists('HTTPS', $_SERVER) ? 'https://' : 'http://';
$cache = corvidine_test_server_cache();
ksort($server);
ksort($cache);
echo json_encode(['cache' => $cache, 'server' => $server, 'request_time' => $_SERVER['REQUEST_TIME_FLOAT'] ?? null]);
