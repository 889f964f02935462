<?php
// Work for the profiler: a loop without calls, then a sleep.
function crunch(int $n) { $x = 0; for ($i = 0; $i < $n; $i++) { $x += $i & 3; } return $x; }
function pause() { usleep(60000); }
crunch(isset($_GET['n']) ? (int)$_GET['n'] : 8000000);
pause();
echo "profiled\n";
