--TEST--
Transaction settings file: missing file warning, rules without type skipped, a matched rule without tracing, https:// from HTTPS
--EXTENSIONS--
corvidine
--FILE--
<?php
require __DIR__ . '/request.inc';

$script = rq_script();
$strip = fn($w) => preg_replace(['/^.*?Warning: +(\S+):\d+:(\w+)\(\): /', '/[^\']*corvidine-test-[^\']*/'],
                                ['$1:N:$2(): ', 'FILE'], $w);
function traced(array $r): string
{
    return rq_event($r, 'entry') === null ? 'not traced' : 'traced';
}

$missing = vesk_temp_path('.ini');
$r = rq_run($script, ['corvidine.transaction_settings_file' => $missing]);
echo 'missing: ', traced($r), "\n";
foreach (rq_warnings($r) as $w) {
    echo '  ', $strip($w), "\n";
}
$r = rq_run($script, ['corvidine.transaction_settings_file' => $missing, 'corvidine.tracing' => 'never']);
echo 'missing, never: ', traced($r), "\n";

$rules = vesk_temp_path('.ini');
file_put_contents($rules, <<<'INI'
[no-type]
regexp = ".*"
tracing = disabled

[secure-off]
type = url
regexp = "https://.*"
tracing = disabled

[no-tracing-key]
type = url
regexp = ".*/quiet.*"
INI);
$env = ['HTTP_HOST' => 'h', 'REQUEST_URI' => '/page'];
$r = rq_run($script, ['corvidine.transaction_settings_file' => $rules], $env);
echo 'http, rule without type skipped: ', traced($r), "\n";
$r = rq_run($script, ['corvidine.transaction_settings_file' => $rules], $env + ['HTTPS' => 'off']);
echo 'https (any HTTPS value): ', traced($r), "\n";
$r = rq_run($script, ['corvidine.transaction_settings_file' => $rules], ['HTTP_HOST' => 'h', 'REQUEST_URI' => '/quiet']);
echo 'rule without tracing: ', traced($r), "\n";
foreach (rq_warnings($r) as $w) {
    echo '  ', $strip($w), "\n";
}
$r = rq_run($script, ['corvidine.transaction_settings_file' => $rules]);
echo 'no REQUEST_URI, no rule applies: ', traced($r), "\n";
unlink($rules);
?>
--EXPECT--
missing: traced
  transaction_settings.c:N:php_vesk_transaction_settings_get(): File 'FILE' not found. Check your configuration 'corvidine.transaction_settings_file' in Unknown on line 0
missing, never: not traced
http, rule without type skipped: traced
https (any HTTPS value): not traced
rule without tracing: traced
  transaction_settings.c:N:php_vesk_transaction_filtering(): Unknown tracing mode '' in file 'FILE' in Unknown on line 0
no REQUEST_URI, no rule applies: traced
