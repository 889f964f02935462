--TEST--
Ready wait: corvidine.max_ready_wait_time 0 waits 2 s under the CLI, a positive value that long, -1 not at all
--EXTENSIONS--
corvidine
--FILE--
<?php
require __DIR__ . '/../support/child.inc';

// Seconds one CLI start takes. A reporter name the core does not know leaves
// no reporter, so the settings never become ready and every wait runs out;
// the file reporter installs its settings at once, so it is ready at once.
function start_time(string $wait, string $reporter): float
{
    $file = vesk_temp_path();
    $t = hrtime(true);
    vesk_run(['corvidine.enable_cli' => 1, 'corvidine.max_ready_wait_time' => $wait, 'corvidine.service_key' => 'token:w'],
        ['CORVIDINE_REPORTER' => $reporter, 'CORVIDINE_COLLECTOR' => $file], '');
    $seconds = (hrtime(true) - $t) / 1e9;
    @unlink($file);
    return $seconds;
}

$never = start_time('-1', 'no-such-reporter');
$default = start_time('0', 'no-such-reporter');
$short = start_time('300', 'no-such-reporter');
$ready = start_time('0', 'file');
// Lower bounds are exact; upper bounds only tell "waited" from "did not".
echo "-1 does not wait: ", $never < 1.5 ? 'yes' : "no ($never s)", "\n";
echo "0 waits 2 s under the CLI: ", $default >= 2.0 ? 'yes' : "no ($default s)", "\n";
echo "300 waits 300 ms: ", $short >= 0.3 && $short < 1.9 ? 'yes' : "no ($short s)", "\n";
echo "a ready reporter ends the wait: ", $ready < 1.5 ? 'yes' : "no ($ready s)", "\n";
?>
--EXPECT--
-1 does not wait: yes
0 waits 2 s under the CLI: yes
300 waits 300 ms: yes
a ready reporter ends the wait: yes
