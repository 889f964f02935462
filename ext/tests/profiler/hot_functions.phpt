--TEST--
Profiler: snapshots of a loop without calls, a sleep inside a function and a recursion deeper than 200 frames count the ticks where the time went; the agent's own functions never show
--EXTENSIONS--
corvidine
--FILE--
<?php
require __DIR__ . '/profiler.inc';

$code = <<<'PHP'
<?php
function spin(int $n) { $x = 0; for ($i = 0; $i < $n; $i++) { $x += $i & 7; } return $x; }
function nap() { for ($i = 0; $i < 3; $i++) { usleep(100000); } }
function deep(int $depth, int $n) { return $depth > 0 ? deep($depth - 1, $n) : spin($n); }
function _vesk_wrapped_spin(int $n) { return spin($n); }
function calibrate() { $t = hrtime(true); spin(1000000); return 1000000 / ((hrtime(true) - $t) / 1e9); }
$per_second = calibrate();
$phases = [];
$t = hrtime(true); _vesk_wrapped_spin((int)($per_second * 0.3)); $phases['spin'] = hrtime(true) - $t;
$t = hrtime(true); nap(); $phases['nap'] = hrtime(true) - $t;
$t = hrtime(true); deep(250, (int)($per_second * 0.2)); $phases['deep'] = hrtime(true) - $t;
echo json_encode(array_map(fn($ns) => $ns / 1e3, $phases));
PHP;
$r = pf_run($code);
$phases = json_decode($r['out'], true);
$stacks = pf_stacks($r['profile']);
$entry = $r['trace'][0];
$exit = $r['trace'][count($r['trace']) - 1];
$pentry = $r['profile'][0];

echo "status: ", $r['status'], "\n";
echo "exit ProfileSpans: ", $exit['ProfileSpans'], "\n";
echo "profile: ", $pentry['Label'], " ... ", end($r['profile'])['Label'], ", interval ", $pentry['Interval'], " ms\n";
echo "same trace, chained: ", var_export(pf_chained($r['profile'], substr($entry['X-Trace'], 2, 40)), true), "\n";
echo "SpanRef is the entry event: ", var_export($pentry['SpanRef'] === substr($entry['X-Trace'], 42, 16), true), "\n";

/* Ticks of each phase against its duration in 20 ms ticks (a late clock thread on a loaded machine skips some). */
$match = [
    'spin' => fn($f) => end($f) === 'spin' && !in_array('deep', $f, true) && !in_array('calibrate', $f, true),
    'nap' => fn($f) => array_slice($f, -2) === ['nap', 'usleep'],
    'deep' => fn($f) => in_array('deep', $f, true),
];
foreach ($match as $phase => $m) {
    $ratio = pf_ticks($stacks, $m) / ($phases[$phase] / 20000);
    echo "$phase: ", $ratio >= 0.6 && $ratio <= 1.35 ? 'ticks match its time' : "ratio $ratio", "\n";
}
$total = array_sum(array_column($stacks, 'ticks'));
$all = array_sum($phases) / 20000;
echo "ticks outside the phases: ", $total - array_sum(array_map(fn($m) => pf_ticks($stacks, $m), $match)) <= 0.3 * $all + 3 ? 'few' : 'many', "\n";

$deep = array_values(array_filter($stacks, fn($s) => in_array('deep', $s['frames'], true)))[0];
echo "deep: depth ", $deep['count'], ", kept ", count($deep['frames']), ", outermost ",
    $deep['frames'][0] === basename($r['script']) ? 'the script' : $deep['frames'][0],
    ", then ", count(array_filter($deep['frames'], fn($f) => $f === 'deep')), " x deep\n";
/* Functions named like the agent's own wrappers never show. */
echo "wrapped calls seen: ", implode(',', array_unique(array_merge(...array_map(
    fn($s) => array_filter($s['frames'], fn($f) => str_starts_with($f, '_vesk_')), $stacks)))) ?: 'none', "\n";
?>
--EXPECT--
status: 0
exit ProfileSpans: 1
profile: entry ... exit, interval 20 ms
same trace, chained: true
SpanRef is the entry event: true
spin: ticks match its time
nap: ticks match its time
deep: ticks match its time
ticks outside the phases: few
deep: depth 253, kept 200, outermost the script, then 199 x deep
wrapped calls seen: none
