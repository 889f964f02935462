--TEST--
Wrap framework: handlers replaced once, per-request families; user and internal subclasses, by-reference arguments, exceptions; plain, opcache, JIT
--EXTENSIONS--
corvidine
--SKIPIF--
<?php if (!extension_loaded('curl') && !file_exists(PHP_EXTENSION_DIR . '/curl.so')) die('skip needs cURL (its family is counted in the state)'); ?>
--FILE--
<?php
require __DIR__ . '/wrap.inc';

// The test-only family wraps preg_match (by-reference $matches), json_decode, ArrayObject::offsetGet (a user class
// extends it), ArrayIterator::offsetGet (copied by the internal RecursiveArrayIterator before we started), ::seek.
$script = rq_script(<<<'PHP'
<?php
class Bag extends ArrayObject {}
class Tenfold extends ArrayIterator {
    public function offsetGet(mixed $key): mixed { return parent::offsetGet($key) * 10; }
}
function work(int $i): array {
    $found = preg_match('/(b)(c)?/', 'abc', $m);
    $bag = (new Bag(['k' => $i]))->offsetGet('k');
    $inner = (new RecursiveArrayIterator(['k' => 1]))->offsetGet('k');
    $ten = (new Tenfold(['k' => 2]))->offsetGet('k');
    try { json_decode('{', false, 512, JSON_THROW_ON_ERROR); $ex = 'none'; } catch (JsonException $e) { $ex = get_class($e); }
    try { (new ArrayIterator([1]))->seek(3); } catch (OutOfBoundsException $e) { $ex .= ' ' . get_class($e) . ' at ' . $e->getTrace()[0]['class'] . '::' . $e->getTrace()[0]['function']; }
    return [$found, $m, $bag, $inner, $ten, $ex];
}
for ($i = 0; $i < 40; $i++) { $r = work($i); }
echo json_encode($r), "\n";
$p = (new ReflectionFunction('preg_match'))->getParameters()[2];
echo 'reflection: ', $p->getName(), $p->isPassedByReference() ? ' by reference' : ' by value', ', ',
     (new ReflectionMethod('Bag', 'offsetGet'))->getDeclaringClass()->getName(), "\n";
echo 'calls: ', json_encode(corvidine_test_wrap_calls()), "\n";
// The families this test knows (error_log, cURL, test-only); built-in database modules add theirs to the mask.
$state = corvidine_test_wrap_state();
$state['mask'] &= 7;
echo 'state: ', json_encode($state), "\n";
PHP . wr_jit_line());

$cases = [
    'traced' => [],
    'untraced' => ['corvidine.sample_rate' => 0],
    'enable_wrap=0' => ['corvidine.enable_wrap' => 0],
];
$first = [];
foreach (wr_engines() as $engine => $engine_ini) {
    foreach ($cases as $case => $ini) {
        $r = rq_run($script, $engine_ini + wr_curl_ini() + $ini + ['corvidine.internal_test_hooks' => 1]);
        preg_match('/^jit: (.*)$/m', $r['out'], $jit);
        $out = preg_replace('/^jit: .*\n/m', '', $r['out']) . $r['err'];
        $entries = wr_events($r, 'test_wrap', 'entry');
        $exits = wr_events($r, 'test_wrap', 'exit');
        $pairs = array_count_values(array_map(fn($e) => $e['Function'] . ($e['Exception'] === true ? ' (exception)' : ''), $exits));
        ksort($pairs);
        $out .= 'events: ' . count($entries) . ' entries, ' . count($exits) . ' exits ' . json_encode($pairs) . "\n";
        if (!isset($first[$case])) {
            $first[$case] = $out;
            echo "-- $case\n$out";
        } else {
            echo "-- $case under $engine: ", $out === $first[$case] ? 'same' : "DIFFERENT\n$out", "\n";
        }
        if ($engine === 'jit' && $case === 'traced') {
            echo "jit on: {$jit[1]}\n";
        }
    }
}
?>
--EXPECT--
-- traced
[1,["bc","b","c"],39,1,20,"JsonException OutOfBoundsException at ArrayIterator::seek"]
reflection: matches by reference, ArrayObject
calls: {"preg_match":40,"json_decode":40,"ArrayObject::offsetGet":40,"ArrayIterator::offsetGet":80,"ArrayIterator::seek":40}
state: {"state":-1,"mask":7}
events: 240 entries, 240 exits {"ArrayIterator::offsetGet":80,"ArrayIterator::seek (exception)":40,"ArrayObject::offsetGet":40,"json_decode (exception)":40,"preg_match":40}
-- untraced
[1,["bc","b","c"],39,1,20,"JsonException OutOfBoundsException at ArrayIterator::seek"]
reflection: matches by reference, ArrayObject
calls: {"preg_match":0,"json_decode":0,"ArrayObject::offsetGet":0,"ArrayIterator::offsetGet":0,"ArrayIterator::seek":0}
state: {"state":2,"mask":3}
events: 0 entries, 0 exits []
-- enable_wrap=0
[1,["bc","b","c"],39,1,20,"JsonException OutOfBoundsException at ArrayIterator::seek"]
reflection: matches by reference, ArrayObject
calls: {"preg_match":0,"json_decode":0,"ArrayObject::offsetGet":0,"ArrayIterator::offsetGet":0,"ArrayIterator::seek":0}
state: {"state":0,"mask":0}
events: 0 entries, 0 exits []
-- traced under opcache: same
-- untraced under opcache: same
-- enable_wrap=0 under opcache: same
-- traced under jit: same
jit on: true
-- untraced under jit: same
-- enable_wrap=0 under jit: same
