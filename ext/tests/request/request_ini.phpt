--TEST--
INI entries read by number on every request: the same long, on/off and string values as zend_ini_long / zend_ini_string_ex, also after ini_set()
--EXTENSIONS--
corvidine
--INI--
corvidine.internal_test_hooks=1
corvidine.enable_profiling=0x1
corvidine.profiling_interval=010
corvidine.enable_laravel_tracing=257
corvidine.laravel_enable_backtrace=7
corvidine.enable_sanitize_sql=-3
corvidine.sample_rate=1000001
corvidine.xtrace=2Babc
corvidine.tracing=never
corvidine.transaction_prepend_domain=1a
corvidine.use_custom_start_trace=0
--FILE--
<?php
function check(string $when): void
{
    $entries = corvidine_test_request_ini();
    $mismatch = [];
    foreach ($entries as $name => $v) {
        if ($v['long'] !== $v['by_name_long'] || $v['on'] !== $v['by_name_on'] || $v['str'] !== $v['by_name_str']) {
            $mismatch[] = "$name: " . json_encode($v);
        }
    }
    $corvidine = array_filter(array_keys($entries), fn($n) => str_starts_with($n, 'corvidine.'));
    echo "$when: ", count($corvidine), " corvidine entries, mismatches: ", $mismatch ? implode('; ', $mismatch) : 'none', "\n";
    foreach (['corvidine.enable_profiling', 'corvidine.profiling_interval', 'corvidine.enable_laravel_tracing',
              'corvidine.laravel_enable_backtrace', 'corvidine.enable_sanitize_sql', 'corvidine.xtrace',
              'corvidine.transaction_prepend_domain', 'corvidine.service_key'] as $name) {
        $v = $entries[$name];
        printf("  %s long=%d on=%d str=%s\n", $name, $v['long'], $v['on'], json_encode($v['str']));
    }
}

check('start');
ini_set('corvidine.service_key', '9');
ini_set('corvidine.transaction_settings_file', '/nowhere');
check('after ini_set');
ini_set('corvidine.service_key', 'x:1');
check('again');
?>
--EXPECT--
start: 13 corvidine entries, mismatches: none
  corvidine.enable_profiling long=1 on=1 str="0x1"
  corvidine.profiling_interval long=8 on=0 str="010"
  corvidine.enable_laravel_tracing long=257 on=1 str="257"
  corvidine.laravel_enable_backtrace long=7 on=0 str="7"
  corvidine.enable_sanitize_sql long=-3 on=0 str="-3"
  corvidine.xtrace long=2 on=0 str="2Babc"
  corvidine.transaction_prepend_domain long=1 on=1 str="1a"
  corvidine.service_key long=0 on=0 str=""
after ini_set: 13 corvidine entries, mismatches: none
  corvidine.enable_profiling long=1 on=1 str="0x1"
  corvidine.profiling_interval long=8 on=0 str="010"
  corvidine.enable_laravel_tracing long=257 on=1 str="257"
  corvidine.laravel_enable_backtrace long=7 on=0 str="7"
  corvidine.enable_sanitize_sql long=-3 on=0 str="-3"
  corvidine.xtrace long=2 on=0 str="2Babc"
  corvidine.transaction_prepend_domain long=1 on=1 str="1a"
  corvidine.service_key long=9 on=0 str="9"
again: 13 corvidine entries, mismatches: none
  corvidine.enable_profiling long=1 on=1 str="0x1"
  corvidine.profiling_interval long=8 on=0 str="010"
  corvidine.enable_laravel_tracing long=257 on=1 str="257"
  corvidine.laravel_enable_backtrace long=7 on=0 str="7"
  corvidine.enable_sanitize_sql long=-3 on=0 str="-3"
  corvidine.xtrace long=2 on=0 str="2Babc"
  corvidine.transaction_prepend_domain long=1 on=1 str="1a"
  corvidine.service_key long=0 on=0 str="x:1"
