--TEST--
Init options: each CORVIDINE_* variable beats its INI entry; digit-led and true/false rules
--EXTENSIONS--
corvidine
--FILE--
<?php
require __DIR__ . '/../support/child.inc';

/* One child PHP per case; the row is read back from the start-up options
 * table of phpinfo(), which shows what the core was started with. */
function option(array $ini, array $env, string $row): string
{
    $env += ['CORVIDINE_REPORTER' => 'null'];
    $r = vesk_run(['corvidine.enable_cli' => 1, 'corvidine.service_key' => 'token:svc'] + $ini, $env);
    $rows = vesk_info_rows($r['out']);
    if (!isset($rows[$row])) {
        return "no row '$row' (status {$r['status']}): {$r['err']}";
    }
    return $rows[$row];
}

$cases = [
    // row, INI entry => value, environment variable => value
    ['max transactions', ['corvidine.max_transactions' => 70], []],
    ['max transactions', ['corvidine.max_transactions' => 70], ['CORVIDINE_MAX_TRANSACTIONS' => '90']],
    ['max flush wait time', ['corvidine.max_flush_wait_time' => 100], ['CORVIDINE_FLUSH_MAX_WAIT_TIME' => '200']],
    ['events flush interval', ['corvidine.events_flush_interval' => 3], ['CORVIDINE_EVENTS_FLUSH_INTERVAL' => '4']],
    ['events flush batch size', ['corvidine.events_flush_batchsize' => 10], ['CORVIDINE_EVENTS_FLUSH_BATCH_SIZE' => '20']],
    ['ec2 metadata timeout', ['corvidine.ec2_metadata_timeout' => 5], ['CORVIDINE_EC2_METADATA_TIMEOUT' => '6']],
    ['hostname alias', ['corvidine.hostname_alias' => 'ini-host'], []],
    ['hostname alias', ['corvidine.hostname_alias' => 'ini-host'], ['CORVIDINE_HOSTNAME_ALIAS' => 'env-host']],
    ['log level', ['corvidine.debug_level' => 1], []],
    ['log level', ['corvidine.debug_level' => 1], ['CORVIDINE_DEBUG_LEVEL' => '0']],
    // digit-led: only a value whose first character is a digit counts
    ['log level', ['corvidine.debug_level' => 1], ['CORVIDINE_DEBUG_LEVEL' => '-1']],
    ['log level', ['corvidine.debug_level' => 1], ['CORVIDINE_DEBUG_LEVEL' => ' 3']],
    ['log level', ['corvidine.debug_level' => 1], ['CORVIDINE_DEBUG_LEVEL' => '']],
    ['log level', ['corvidine.debug_level' => 1], ['CORVIDINE_DEBUG_LEVEL' => '3x']],
    ['max transactions', [], ['CORVIDINE_MAX_TRANSACTIONS' => '99999999999']],
    // environment only
    ['buffer size', [], []],
    ['buffer size', [], ['CORVIDINE_BUFSIZE' => '500']],
    ['histogram precision', [], ['CORVIDINE_HISTOGRAM_PRECISION' => '3']],
    ['token bucket capacity', [], ['CORVIDINE_TOKEN_BUCKET_CAPACITY' => '8']],
    ['token bucket rate', [], ['CORVIDINE_TOKEN_BUCKET_RATE' => '9']],
    ['token bucket rate', [], ['CORVIDINE_TOKEN_BUCKET_RATE' => 'x9']],
    ['file single', [], ['CORVIDINE_REPORTER_FILE_SINGLE' => '1']],
    ['collector', [], ['CORVIDINE_COLLECTOR' => 'collector.example:443']],
    ['trusted path', [], ['CORVIDINE_TRUSTEDPATH' => '/etc/trust.pem']],
    ['log file', [], ['CORVIDINE_LOGNAME' => '/dev/null']],
    // exactly "true" or "false"
    ['trace metrics', [], ['CORVIDINE_TRACE_METRICS' => 'false']],
    ['trace metrics', [], ['CORVIDINE_TRACE_METRICS' => 'FALSE']],
    ['trace metrics', [], ['CORVIDINE_TRACE_METRICS' => 'true']],
    ['reporter', [], ['CORVIDINE_REPORTER' => 'null']],
];
foreach ($cases as [$row, $ini, $env]) {
    $given = [];
    foreach ($ini + $env as $k => $v) {
        $given[] = "$k=" . var_export((string)$v, true);
    }
    printf("%-24s %-70s => %s\n", $row, implode(' ', $given) ?: '(defaults)', option($ini, $env, $row));
}
?>
--EXPECT--
max transactions         corvidine.max_transactions='70'                                        => 70
max transactions         corvidine.max_transactions='70' CORVIDINE_MAX_TRANSACTIONS='90'        => 90
max flush wait time      corvidine.max_flush_wait_time='100' CORVIDINE_FLUSH_MAX_WAIT_TIME='200' => 200
events flush interval    corvidine.events_flush_interval='3' CORVIDINE_EVENTS_FLUSH_INTERVAL='4' => 4
events flush batch size  corvidine.events_flush_batchsize='10' CORVIDINE_EVENTS_FLUSH_BATCH_SIZE='20' => 20
ec2 metadata timeout     corvidine.ec2_metadata_timeout='5' CORVIDINE_EC2_METADATA_TIMEOUT='6'  => 6
hostname alias           corvidine.hostname_alias='ini-host'                                    => ini-host
hostname alias           corvidine.hostname_alias='ini-host' CORVIDINE_HOSTNAME_ALIAS='env-host' => env-host
log level                corvidine.debug_level='1'                                              => 1
log level                corvidine.debug_level='1' CORVIDINE_DEBUG_LEVEL='0'                    => 0
log level                corvidine.debug_level='1' CORVIDINE_DEBUG_LEVEL='-1'                   => 1
log level                corvidine.debug_level='1' CORVIDINE_DEBUG_LEVEL=' 3'                   => 1
log level                corvidine.debug_level='1' CORVIDINE_DEBUG_LEVEL=''                     => 1
log level                corvidine.debug_level='1' CORVIDINE_DEBUG_LEVEL='3x'                   => 3
max transactions         CORVIDINE_MAX_TRANSACTIONS='99999999999'                               => 2147483647
buffer size              (defaults)                                                             => not set
buffer size              CORVIDINE_BUFSIZE='500'                                                => 500
histogram precision      CORVIDINE_HISTOGRAM_PRECISION='3'                                      => 3
token bucket capacity    CORVIDINE_TOKEN_BUCKET_CAPACITY='8'                                    => 8
token bucket rate        CORVIDINE_TOKEN_BUCKET_RATE='9'                                        => 9
token bucket rate        CORVIDINE_TOKEN_BUCKET_RATE='x9'                                       => not set
file single              CORVIDINE_REPORTER_FILE_SINGLE='1'                                     => 1
collector                CORVIDINE_COLLECTOR='collector.example:443'                            => collector.example:443
trusted path             CORVIDINE_TRUSTEDPATH='/etc/trust.pem'                                 => /etc/trust.pem
log file                 CORVIDINE_LOGNAME='/dev/null'                                          => /dev/null
trace metrics            CORVIDINE_TRACE_METRICS='false'                                        => 0
trace metrics            CORVIDINE_TRACE_METRICS='FALSE'                                        => 1
trace metrics            CORVIDINE_TRACE_METRICS='true'                                         => 1
reporter                 CORVIDINE_REPORTER='null'                                              => null
