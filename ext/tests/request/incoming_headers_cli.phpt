--TEST--
Request start under the CLI: identifier order (header over corvidine.xtrace), X-Trace-Options keys in the entry event, and no response header
--EXTENSIONS--
corvidine
--FILE--
<?php
require __DIR__ . '/request.inc';

// Prints the headers PHP would send: none may come from the extension.
$script = rq_script("<?php echo 'headers: ', count(headers_list()), \"\\n\";\n");
$header_id = '2B' . str_repeat('A1', 20) . str_repeat('B2', 8) . '01';
$ini_id = '2B' . str_repeat('C3', 20) . str_repeat('D4', 8) . '01';

$r = rq_run($script, ['corvidine.xtrace' => $ini_id], ['HTTP_X_TRACE' => $header_id]);
$entry = rq_event($r, 'entry');
echo 'header wins: ', substr($entry['X-Trace'], 2, 40) === str_repeat('A1', 20) && $entry['Edge'] === str_repeat('B2', 8) ? 'ok' : 'no', "\n";
echo trim($r['out']), "\n";

$r = rq_run($script, ['corvidine.xtrace' => $ini_id]);
$entry = rq_event($r, 'entry');
echo 'ini used without header: ', $entry['Edge'] === str_repeat('D4', 8) ? 'ok' : 'no', "\n";

// An empty header is an unusable identifier: a new trace, and the INI
// value is not looked at.
$r = rq_run($script, ['corvidine.xtrace' => $ini_id], ['HTTP_X_TRACE' => '']);
$entry = rq_event($r, 'entry');
echo 'empty header: ', isset($entry['Edge']) ? 'edge ' . $entry['Edge'] : 'new trace', "\n";

// Trigger trace samples what rate 0 would not.
$r = rq_run($script, ['corvidine.sample_rate' => '0'],
            ['HTTP_X_TRACE_OPTIONS' => 'trigger-trace;custom-a=b; custom-c ;pd-keys=k1:k2;x=y']);
$entry = rq_event($r, 'entry');
foreach (['TriggeredTrace', 'custom-a', 'custom-c', 'PDKeys', 'SampleRate', 'SampleSource', 'x'] as $key) {
    echo $key, ': ', var_export($entry[$key] ?? null, true), "\n";
}
echo trim($r['out']), "\n";
?>
--EXPECT--
header wins: ok
headers: 0
ini used without header: ok
empty header: new trace
TriggeredTrace: 'True'
custom-a: 'b'
custom-c: ''
PDKeys: 'k1:k2'
SampleRate: 0
SampleSource: 0
x: NULL
headers: 0
