--TEST--
Request start: corvidine.sample_rate bounds and corvidine.tracing words decide what the entry event says
--EXTENSIONS--
corvidine
--FILE--
<?php
require __DIR__ . '/request.inc';

$script = rq_script();
$cases = [
    // label, INI entries
    ['rate 1000000 accepted', ['corvidine.sample_rate' => '1000000']],
    ['rate 1000001 refused', ['corvidine.sample_rate' => '1000001']],
    ['rate -1 refused as unsigned', ['corvidine.sample_rate' => '-1']],
    ['rate 0', ['corvidine.sample_rate' => '0']],
    ['no rate: remote default', []],
    ['tracing never', ['corvidine.tracing' => 'never']],
    ['tracing disabled', ['corvidine.tracing' => 'disabled']],
    ['tracing always', ['corvidine.tracing' => 'always']],
];
foreach ($cases as [$label, $ini]) {
    $r = rq_run($script, $ini);
    $entry = rq_event($r, 'entry');
    echo $label, ': ', $entry === null ? 'not traced' : "source {$entry['SampleSource']} rate {$entry['SampleRate']}", "\n";
    foreach (rq_warnings($r) as $warning) {
        echo '  ', preg_replace('/^.*?Warning: +(\S+):\d+:(\w+)\(\): /', '$1:N:$2(): ', $warning), "\n";
    }
}
?>
--EXPECT--
rate 1000000 accepted: source 1 rate 1000000
rate 1000001 refused: source 6 rate 1000000
  start_trace.c:N:setup_vesk_configuration(): corvidine.sample_rate ini setting must be between 0 and 1000000 in Unknown on line 0
rate -1 refused as unsigned: source 6 rate 1000000
  start_trace.c:N:setup_vesk_configuration(): corvidine.sample_rate ini setting must be between 0 and 1000000 in Unknown on line 0
rate 0: not traced
no rate: remote default: source 6 rate 1000000
tracing never: not traced
tracing disabled: not traced
tracing always: source 6 rate 1000000
