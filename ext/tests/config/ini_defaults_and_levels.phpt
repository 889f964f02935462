--TEST--
INI: all 40 entries exist with their defaults and change levels
--EXTENSIONS--
corvidine
--FILE--
<?php
$levels = [INI_ALL => 'ALL', INI_SYSTEM => 'SYSTEM', INI_PERDIR | INI_SYSTEM => 'PERDIR|SYSTEM'];
// Entries named corvidine.internal_* exist for the test suite only and are
// not part of the documented configuration.
$entries = array_filter(ini_get_all('corvidine'), fn($name) => !str_starts_with($name, 'corvidine.internal_'),
    ARRAY_FILTER_USE_KEY);
echo count($entries), " entries\n";
foreach ($entries as $name => $entry) {
    printf("%s = '%s' %s\n", $name, $entry['global_value'], $levels[$entry['access']] ?? $entry['access']);
}
?>
--EXPECT--
40 entries
corvidine.debug_level = '2' PERDIR|SYSTEM
corvidine.ec2_metadata_timeout = '1000' SYSTEM
corvidine.enable = '1' PERDIR|SYSTEM
corvidine.enable_backtrace = '1' ALL
corvidine.enable_cli = '0' PERDIR|SYSTEM
corvidine.enable_error_callback = '1' ALL
corvidine.enable_function_args = '1' ALL
corvidine.enable_laravel_tracing = '1' PERDIR|SYSTEM
corvidine.enable_memcached_hosts = '1' ALL
corvidine.enable_profiling = '0' PERDIR|SYSTEM
corvidine.enable_sanitize_sql = '1' ALL
corvidine.enable_wrap = '1' PERDIR|SYSTEM
corvidine.enable_wrap_curl = '1' PERDIR|SYSTEM
corvidine.enable_wrap_error_log = '1' PERDIR|SYSTEM
corvidine.enable_wrap_http = '1' PERDIR|SYSTEM
corvidine.enable_wrap_memcached = '1' PERDIR|SYSTEM
corvidine.enable_wrap_mysqli = '1' PERDIR|SYSTEM
corvidine.enable_wrap_mysqli_oo = '1' PERDIR|SYSTEM
corvidine.enable_wrap_pdo = '1' PERDIR|SYSTEM
corvidine.enable_wrap_phpredis = '1' PERDIR|SYSTEM
corvidine.events_flush_batchsize = '2000' SYSTEM
corvidine.events_flush_interval = '2' SYSTEM
corvidine.hostname_alias = '' SYSTEM
corvidine.laravel_enable_backtrace = '0' PERDIR|SYSTEM
corvidine.log_trace_id = 'disabled' PERDIR|SYSTEM
corvidine.max_flush_wait_time = '5000' SYSTEM
corvidine.max_ready_wait_time = '0' SYSTEM
corvidine.max_transactions = '50' SYSTEM
corvidine.profiling_interval = '20' PERDIR|SYSTEM
corvidine.report_suppressed_errors = '0' ALL
corvidine.sample_rate = '' PERDIR|SYSTEM
corvidine.service_key = '' ALL
corvidine.so_file = 'corvidine.so' PERDIR|SYSTEM
corvidine.tracing = '' PERDIR|SYSTEM
corvidine.transaction_prepend_domain = '0' SYSTEM
corvidine.transaction_settings_file = '' ALL
corvidine.trigger_tracing = '' PERDIR|SYSTEM
corvidine.use_custom_start_trace = '0' PERDIR|SYSTEM
corvidine.use_error_reporting = '0' ALL
corvidine.xtrace = '' PERDIR|SYSTEM
