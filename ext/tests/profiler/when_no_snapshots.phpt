--TEST--
Profiler: which requests take snapshots (sampled and profiled only; code outside functions alone takes none)
--EXTENSIONS--
corvidine
--FILE--
<?php
require __DIR__ . '/profiler.inc';

$work = "<?php function work() { \$x = 0; for (\$i = 0; \$i < 3000000; \$i++) { \$x += \$i; } return \$x; }\nwork();\n";
$cases = [
    // label, script, INI entries
    ['sampled and profiled', $work, []],
    ['profiling off', $work, ['corvidine.enable_profiling' => 0]],
    ['not sampled', $work, ['corvidine.tracing' => 'never']],
    ['no function ever called', "<?php \$x = 0; for (\$i = 0; \$i < 3000000; \$i++) { \$x += \$i; }\n", []],
];
foreach ($cases as [$label, $code, $ini]) {
    $r = pf_run($code, $ini);
    $exit = $r['trace'] ? end($r['trace']) : null;
    $labels = implode(',', array_map(fn($e) => $e['Label'], $r['profile']));
    $frames = implode(';', array_map(fn($s) => implode('>', $s['frames']), pf_stacks($r['profile'])));
    printf("%s: status %d, ProfileSpans %s, profile [%s] %s\n", $label, $r['status'],
        $exit === null ? 'no trace' : $exit['ProfileSpans'], $labels,
        str_replace(basename($r['script']), 'script', $frames));
}
?>
--EXPECTF--
sampled and profiled: status 0, ProfileSpans 1, profile [entry,info%S,exit] script>work
profiling off: status 0, ProfileSpans -1, profile []%w
not sampled: status 0, ProfileSpans no trace, profile []%w
no function ever called: status 0, ProfileSpans 0, profile []%w
