#!/usr/bin/env bash
# What the stack sampler costs a traced request, for a CPU-bound script
# (recursive calls, an array loop with a sort, a loop without calls) under
# the CLI, in three set-ups:
#   off      the extension not loaded,
#   traced   loaded and tracing the run (every run sampled; the UDP reporter
#            sends to a loopback port nobody reads),
#   profiled the same with corvidine.enable_profiling=1 (20 ms interval).
#
#   tools/bench-profiler.sh [ROUNDS]           default 7 timed rounds
#   CORVIDINE_SO=path tools/bench-profiler.sh  an already built module
#
# Instructions of the request's thread are counted by callgrind, which does
# not drift with other load on the machine. Under valgrind the script runs
# some 50 times slower while the clock keeps real time, so far more samples
# fall into it than natively: the script reports the cost of one sample and
# the fixed cost per request (clock start at request start; clock stop and
# the span's end record at request end) and scales the samples to the
# script's native run time, measured in the timed rounds (median).
# Goal: profiled / traced <= 1.02.
set -euo pipefail
export CORVIDINE_CLOUD_METADATA=off  # never a cloud lookup from a demo or benchmark
ROUNDS=${1:-7}
ROOT=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
SO=${CORVIDINE_SO:-$("$ROOT/tools/test-ext.sh" nts --build-only | tail -n1)}
command -v valgrind >/dev/null || { echo "bench-profiler: needs valgrind" >&2; exit 1; }

exec /usr/bin/python3 - "$SO" "$ROUNDS" <<'PY'
import glob, os, re, shutil, socket, statistics, subprocess, sys, tempfile

so, rounds = sys.argv[1], int(sys.argv[2])
INTERVAL_US = 20000
work = tempfile.mkdtemp(prefix="corvidine-bench-profiler-")
script = os.path.join(work, "cpu.php")
with open(script, "w") as f:
    f.write("""<?php
function fib($n) { return $n < 2 ? $n : fib($n - 1) + fib($n - 2); }
function mix($n) { $a = []; for ($i = 0; $i < $n; $i++) { $a[] = $i * 7 % 13; } sort($a); return count($a); }
function loop($n) { $x = 0; for ($i = 0; $i < $n; $i++) { $x += $i & 3; } return $x; }
$t = hrtime(true);
fib(23); mix(100000); loop(2000000);
echo (hrtime(true) - $t) / 1e3;
""")
with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as probe:
    probe.bind(("127.0.0.1", 0))
    port = probe.getsockname()[1]
env = {"PATH": os.environ.get("PATH", "/usr/bin:/bin"), "CORVIDINE_REPORTER": "udp",
       "CORVIDINE_COLLECTOR": "127.0.0.1:%d" % port}
traced = ["-d", "extension=" + so, "-d", "corvidine.enable_cli=1", "-d", "corvidine.max_ready_wait_time=-1"]
setups = {"off": [], "traced": traced, "profiled": traced + ["-d", "corvidine.enable_profiling=1"]}


def callgrind(name, args):
    out = os.path.join(work, name)
    os.makedirs(out)
    subprocess.run(["valgrind", "--tool=callgrind", "--separate-threads=yes",
                    "--callgrind-out-file=" + os.path.join(out, "cg.%p"), "php", "-n"] + args + [script],
                   env=env, capture_output=True, check=True)
    return glob.glob(os.path.join(out, "cg.*-01"))[0]


def total(path):
    with open(path) as f:
        for line in f:
            if line.startswith(("summary:", "totals:")):
                return int(line.split()[1])


def calls(path, function):
    """Calls of function and their inclusive instructions, from the raw file."""
    names, n, inclusive = {}, 0, 0
    with open(path) as f:
        lines = f.read().splitlines()
    for i, line in enumerate(lines):
        m = re.match(r"(c?)fn=\((\d+)\)(?: (.*))?$", line)
        if not m:
            continue
        if m.group(3):  # a name is given once, at its first use as fn= or cfn=
            names[m.group(2)] = m.group(3)
        if m.group(1) and names.get(m.group(2)) == function:
            n += int(re.match(r"calls=(\d+)", lines[i + 1]).group(1))
            inclusive += int(lines[i + 2].split()[1])
    return n, inclusive


try:
    native = {name: [] for name in setups}
    for _ in range(rounds):
        for name, args in setups.items():
            out = subprocess.run(["php", "-n"] + args + [script], env=env, capture_output=True, text=True,
                                 check=True).stdout
            native[name].append(float(out))
    seconds = {name: statistics.median(v) / 1e6 for name, v in native.items()}

    instr = {name: total(callgrind(name, args)) for name, args in setups.items()}
    profiled = os.path.join(work, "profiled")
    main = glob.glob(os.path.join(profiled, "cg.*-01"))[0]
    interrupts, sampling = calls(main, "php_vesk_profiler_interrupt")
    _, start = calls(main, "php_vesk_profiler_request_start")
    _, end = calls(main, "php_vesk_profiler_request_end")
finally:
    shutil.rmtree(work, ignore_errors=True)

per_sample = sampling / max(interrupts, 1)
native_samples = seconds["traced"] * 1e6 / INTERVAL_US + 1
estimate = (instr["traced"] + start + end + native_samples * per_sample) / instr["traced"]
print("request thread, instructions (callgrind):  off %d  traced %d  profiled %d"
      % (instr["off"], instr["traced"], instr["profiled"]))
print("  under valgrind: %d interrupts, %.0f instructions each; request start +%d, request end +%d"
      % (interrupts, per_sample, start, end))
print("native run time of the work (median of %d):  off %.1f ms  traced %.1f ms  profiled %.1f ms"
      % (rounds, seconds["off"] * 1e3, seconds["traced"] * 1e3, seconds["profiled"] * 1e3))
print("profiled / traced at native speed (%.0f samples): %.4f   (goal <= 1.02; timed ratio %.3f)"
      % (native_samples, estimate, seconds["profiled"] / seconds["traced"]))
PY
