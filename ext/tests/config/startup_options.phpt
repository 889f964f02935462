--TEST--
Start-up options: each CORVIDINE_* variable beats its INI entry (the service key too) (digit-led and true/false rules); test hooks only when asked for; corvidine.tracing / trigger_tracing words (others warn, and keep the agent off for tracing); corvidine.max_ready_wait_time
--EXTENSIONS--
corvidine
--FILE--
<?php
require __DIR__ . '/../support/child.inc';
$cases = [
    // row of phpinfo()'s start-up options, INI entries, environment, the value shown
    ['max transactions', ['corvidine.max_transactions' => 70], ['CORVIDINE_MAX_TRANSACTIONS' => '90'], '90'],
    ['max transactions', [], ['CORVIDINE_MAX_TRANSACTIONS' => '99999999999'], '2147483647'],
    ['max flush wait time', ['corvidine.max_flush_wait_time' => 100], ['CORVIDINE_FLUSH_MAX_WAIT_TIME' => '200'], '200'],
    ['events flush interval', ['corvidine.events_flush_interval' => 3], ['CORVIDINE_EVENTS_FLUSH_INTERVAL' => '4'], '4'],
    ['events flush batch size', ['corvidine.events_flush_batchsize' => 10], ['CORVIDINE_EVENTS_FLUSH_BATCH_SIZE' => '20'], '20'],
    ['ec2 metadata timeout', ['corvidine.ec2_metadata_timeout' => 5], ['CORVIDINE_EC2_METADATA_TIMEOUT' => '6'], '6'],
    ['hostname alias', ['corvidine.hostname_alias' => 'ini-host'], ['CORVIDINE_HOSTNAME_ALIAS' => 'env-host'], 'env-host'],
    ['log level', ['corvidine.debug_level' => 1], [], '1'],
    ['log level', ['corvidine.debug_level' => 1], ['CORVIDINE_DEBUG_LEVEL' => '0'], '0'],
    ['log level', ['corvidine.debug_level' => 1], ['CORVIDINE_DEBUG_LEVEL' => '-1'], '1'],   // only digit-led values count
    ['log level', ['corvidine.debug_level' => 1], ['CORVIDINE_DEBUG_LEVEL' => ' 3'], '1'],
    ['log level', ['corvidine.debug_level' => 1], ['CORVIDINE_DEBUG_LEVEL' => '3x'], '3'],
    ['buffer size', [], ['CORVIDINE_BUFSIZE' => '500'], '500'],
    ['histogram precision', [], ['CORVIDINE_HISTOGRAM_PRECISION' => '3'], '3'],
    ['token bucket capacity', [], ['CORVIDINE_TOKEN_BUCKET_CAPACITY' => '8'], '8'],
    ['token bucket rate', [], ['CORVIDINE_TOKEN_BUCKET_RATE' => 'x9'], 'not set'],
    ['file single', [], ['CORVIDINE_REPORTER_FILE_SINGLE' => '1'], '1'],
    ['collector', [], ['CORVIDINE_COLLECTOR' => 'collector.example:443'], 'collector.example:443'],
    ['trusted path', [], ['CORVIDINE_TRUSTEDPATH' => '/etc/trust.pem'], '/etc/trust.pem'],
    ['trace metrics', [], ['CORVIDINE_TRACE_METRICS' => 'false'], '0'],   // exactly "true" or "false"
    ['trace metrics', [], ['CORVIDINE_TRACE_METRICS' => 'FALSE'], '1'],
    ['service name', [], ['CORVIDINE_SERVICE_KEY' => 'other:Env Svc'], 'env-svc'],   // cleaned, over the INI key
    ['service name', ['corvidine.service_key' => 'token-without-service'], [], 'default'],
    ['corvidine.service_key', ['corvidine.service_key' => 'token-without-service'], [], '(token hidden) => (token hidden)'],
    ['service name', ['corvidine.service_key' => 'token:' . str_repeat('a', 400)], [], str_repeat('a', 321)],   // cut, not overrun
];
foreach ($cases as [$row, $ini, $env, $expected]) {
    $r = vesk_child(null, $ini + ['corvidine.enable_cli' => 1, 'corvidine.service_key' => 'token:svc'], $env + ['CORVIDINE_REPORTER' => 'null']);
    $shown = vesk_info_rows($r['out'])[$row] ?? "no row ({$r['err']})";
    echo $shown === $expected ? '' : "$row " . json_encode($ini + $env) . ": $shown, not $expected\n";
}
$hooks = fn($ini) => vesk_child('<?php echo count(preg_grep("/^corvidine_test_/", get_extension_funcs("corvidine"))) ? "some" : "none", " ", var_export(ini_set("corvidine.internal_test_hooks", "1"), true);', $ini)['out'];
echo count($cases), ' cases done; test hooks: ', $hooks([]), ' / ', $hooks(['corvidine.internal_test_hooks' => 1]), "\n";

$on = 'enabled, trigger not set, __Init 1';
$off = "disabled (invalid corvidine.tracing), trigger -, __Init 0 php_vesk_config_valid(): corvidine.tracing ini setting must be 'enabled' or 'disabled'";
$cases = [['tracing', '', $on], ['tracing', 'enabled', $on], ['tracing', 'always', $on], ['tracing', 'disabled', $on],
    ['tracing', 'never', $on], ['tracing', 'Enabled', $off], ['tracing', 'on', $off],
    ['trigger_tracing', 'enabled', 'enabled, trigger enabled, __Init 1'], ['trigger_tracing', 'disabled', 'enabled, trigger disabled, __Init 1'],
    ['trigger_tracing', 'yes', "$on php_vesk_apply_trigger_tracing(): corvidine.trigger_tracing ini setting must be 'enabled' or 'disabled'"]];
foreach ($cases as [$entry, $value, $expected]) {
    $r = vesk_child(null, ['corvidine.enable_cli' => 1, "corvidine.$entry" => $value]);
    $rows = vesk_info_rows($r['out']);
    // Module start's own warnings; request tracing may add its own later.
    preg_match_all('/Warning: \S+\.c:\d+:((php_vesk_config_valid|php_vesk_apply_trigger_tracing)\(\): .*) in Unknown/', $r['err'], $m);
    $shown = trim(sprintf("%s, trigger %s, __Init %d %s", $rows['corvidine support'] ?? '?', $rows['trigger trace'] ?? '-',
        count(vesk_inits($r['docs'])), implode(' ', $m[1])));
    echo $shown === $expected ? '' : "$entry='$value': $shown\n";
}
// An unknown reporter is never ready (every wait runs out), the file reporter at once; bounds tell waited or not.
foreach ([['-1', 'none', 0, 1.5], ['0', 'none', 2.0, 9], ['300', 'none', 0.3, 1.9], ['0', 'file', 0, 1.5]] as [$wait, $reporter, $min, $max]) {
    $t = hrtime(true);
    vesk_child('<?php ', ['corvidine.enable_cli' => 1, 'corvidine.max_ready_wait_time' => $wait], ['CORVIDINE_REPORTER' => $reporter]);
    $s = (hrtime(true) - $t) / 1e9;
    echo $s >= $min && $s < $max ? '' : "wait $wait, reporter $reporter: took $s s\n";
}
echo "done\n";
?>
--EXPECT--
25 cases done; test hooks: none false / some false
done
