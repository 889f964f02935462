--TEST--
phpinfo(): the corvidine section when running, when off under the CLI, and the service key without its token
--EXTENSIONS--
corvidine
--FILE--
<?php
require __DIR__ . '/../support/child.inc';

$file = vesk_temp_path();
$r = vesk_run(['corvidine.enable_cli' => 1, 'corvidine.service_key' => 'secret-token:Shop Front',
               'corvidine.debug_level' => 1, 'corvidine.max_transactions' => 70,
               'corvidine.sample_rate' => 250000],
    vesk_file_reporter($file) + ['CORVIDINE_EVENTS_FLUSH_INTERVAL' => '9'], 'phpinfo(INFO_MODULES);');
@unlink($file);
preg_match('/^corvidine\n.*?^corvidine\.xtrace => .*?$/ms', $r['out'], $m);   // the section, to its last directive
// Without a local rate, the rate and source of the reporter's default record.
$plain = vesk_run(['corvidine.enable_cli' => 1], vesk_file_reporter($file), 'phpinfo(INFO_MODULES);');
@unlink($file);
preg_match_all('/^sample (?:rate|source) => .*$/m', $plain['out'], $rows);
echo implode("\n", $rows[0]), "\n";
echo $m[0] ?? "no section: {$r['err']}", "\n";
echo "token shown anywhere: ", str_contains($r['out'], 'secret-token') ? 'yes' : 'no', "\n\n";

$off = vesk_run(['corvidine.service_key' => 'secret-token:shop'], [])['out'];
preg_match('/^corvidine\n.*?^Directive => Local Value => Master Value$/ms', $off, $m);
echo $m[0] ?? "no section: $off", "\n";
preg_match('/^corvidine\.service_key => .*$/m', $off, $m);
echo $m[0] ?? 'no service_key row', "\n";
?>
--EXPECTF--
sample rate => 1000000
sample source => vesk default
corvidine

corvidine support => enabled
version => 3.8.3
libvesk version => 7.0.1
sample rate => 250000
sample source => local configuration
service name => shop-front
reporter ready => yes
trigger trace => not set
debug log level => error
thread safety => %s
function hooks => none (no feature watches calls)

%wstart-up options (environment over INI)%w
reporter => file
service key => (token hidden):shop-front
%A
max transactions => 70
%A
events flush interval => 9
%A

Directive => Local Value => Master Value
corvidine.debug_level => 1 => 1
%A
corvidine.service_key => (token hidden):Shop Front => (token hidden):Shop Front
%A
corvidine.xtrace => no value => no value
token shown anywhere: no

corvidine

corvidine support => disabled (CLI)
version => 3.8.3

Directive => Local Value => Master Value
corvidine.service_key => (token hidden):shop => (token hidden):shop
