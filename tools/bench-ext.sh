#!/usr/bin/env bash
# Benchmarks of the PHP extension against the same PHP without it.
#
#   tools/bench-ext.sh [nts|zts] [ROUNDS]      default: nts, 9 rounds
#
# 1. Hook cost: a call-heavy script (recursive fibonacci, method and static
#    calls, chains of small functions, internal functions) timed inside PHP,
#    with the extension loaded and started but not tracing (null reporter:
#    sample rate 0) against no extension. Runs alternate A/B/B/A in one go;
#    the figure is the ratio of the medians. Done without opcache and with
#    opcache + tracing JIT, where opcache_get_status()['jit'] is shown for
#    both sides (the extension must not switch the JIT off). Twice: with
#    corvidine.enable_laravel_tracing=0 (no call observer; target <= 1.03)
#    and with Laravel tracing on, its default (the engine's call observer is
#    registered; the script is no Laravel application; goal <= 1.05).
#    Wall time on a shared machine is noisy, so the ratio of the minimums and,
#    when valgrind is installed, an instruction count of the same work under
#    callgrind (deterministic: the script with the work minus without it) are
#    shown as well.
# 2. Module start-up: `php -n -r ''` with the extension and the file reporter
#    (the __Init document is written and fsync'ed) against no extension;
#    hyperfine when installed, else an interleaved loop.
set -euo pipefail
export CORVIDINE_CLOUD_METADATA=off  # never a cloud lookup from a demo or benchmark

FLAVOUR=${1:-nts}
ROUNDS=${2:-9}
ROOT=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)

. "$ROOT/tools/bench-php.sh"  # SO and PHP

WORK=$(mktemp -d /tmp/corvidine-bench.XXXXXX)
trap 'rm -rf "$WORK"' EXIT

cat >"$WORK/calls.php" <<'PHP'
<?php
function fib($n) { return $n < 2 ? $n : fib($n - 1) + fib($n - 2); }
final class Counter {
    private int $value = 0;
    public function add(int $x): static { $this->value += $x; return $this; }
    public function get(): int { return $this->value; }
    public static function twice(int $x): int { return $x * 2; }
}
function f1($x) { return $x + 1; }
function f2($x) { return f1($x) * 2; }
function f3($x) { return f2($x) - f1($x); }
function f4($x) { return f3($x) + f2($x); }

$scale = (int)($argv[1] ?? 1);
$start = hrtime(true);
$result = $scale ? fib(27) : 0;
$counter = new Counter();
for ($i = 0; $i < 400000 * $scale; $i++) {
    $counter->add(Counter::twice($i));
}
$sum = 0;
for ($i = 0; $i < 300000 * $scale; $i++) {
    $sum += f4($i);
}
for ($i = 0; $i < 300000 * $scale; $i++) {
    $sum += strlen(str_repeat('x', $i & 15)) + abs(-$i);
}
$ms = (hrtime(true) - $start) / 1e6;
$jit = function_exists('opcache_get_status') ? (opcache_get_status(false)['jit'] ?? []) : [];
echo json_encode(['ms' => $ms, 'check' => [$result, $counter->get(), $sum],
                  'jit' => ['enabled' => $jit['enabled'] ?? false, 'on' => $jit['on'] ?? false]]), "\n";
PHP

PYTHONPATH="$ROOT/tools" /usr/bin/python3 - "$PHP" "$SO" "$WORK" "$ROUNDS" <<'PY'
import json
import os
import re
import shutil
import statistics
import subprocess
import sys
import time

php, so, work, rounds = sys.argv[1], sys.argv[2], sys.argv[3], int(sys.argv[4])
script = os.path.join(work, "calls.php")
base_env = {"PATH": os.environ.get("PATH", "/usr/bin:/bin")}
ext_args = ["-d", "extension=" + so, "-d", "corvidine.enable_cli=1", "-d", "corvidine.service_key=bench:bench"]
jit_args = ["-d", "zend_extension=opcache", "-d", "opcache.enable_cli=1", "-d", "opcache.jit=tracing",
            "-d", "opcache.jit_buffer_size=64M"]


def run(args, env):
    out = subprocess.run([php, "-n"] + args, env=env, capture_output=True, text=True, check=True).stdout
    return json.loads(out.strip().splitlines()[-1])


print("PHP %s, extension %s" % (subprocess.run([php, "-n", "-r", "echo PHP_VERSION, PHP_ZTS ? ' ZTS' : ' NTS';"],
                                                capture_output=True, text=True).stdout, so))
null_env = dict(base_env, CORVIDINE_REPORTER="null")
all_ext_args = ext_args
for variant, laravel, target in (("Laravel tracing off", "0", 1.03), ("Laravel tracing on", "1", 1.05)):
    ext_args = all_ext_args + ["-d", "corvidine.enable_laravel_tracing=" + laravel]
    print("\n== hook cost: call-heavy script, %d rounds, extension started but not tracing, %s ==" % (rounds, variant))
    worst = 0.0
    for label, extra in (("no opcache", []), ("opcache + tracing JIT", jit_args)):
        without, with_ext = [], []
        jit_without = jit_with = None
        for r in range(rounds):
            order = (False, True) if r % 2 == 0 else (True, False)
            for loaded in order:
                if loaded:
                    res = run(extra + ext_args + [script], null_env)
                    with_ext.append(res["ms"])
                    jit_with = res["jit"]
                    check_with = res["check"]
                else:
                    res = run(extra + [script], base_env)
                    without.append(res["ms"])
                    jit_without = res["jit"]
                    check_without = res["check"]
        assert check_with == check_without, (check_with, check_without)
        m0, m1 = statistics.median(without), statistics.median(with_ext)
        ratio = m1 / m0
        worst = max(worst, ratio)
        print("%-22s without %8.1f ms   with %8.1f ms   ratio %.3f   (min %.1f / %.1f ms, ratio %.3f)" %
              (label, m0, m1, ratio, min(without), min(with_ext), min(with_ext) / min(without)))
        if extra:
            print("%-22s opcache_get_status()['jit'] without: %s   with: %s" % ("", jit_without, jit_with))
    print("hook cost: worst ratio of medians %.3f (target <= %.2f)" % (worst, target))

    if shutil.which("valgrind"):
        def instructions(args, env, scale):
            out = subprocess.run(["valgrind", "--tool=callgrind", "--callgrind-out-file=/dev/null", php, "-n"] + args +
                                 [script, str(scale)], env=env, capture_output=True, text=True, check=True).stderr
            return int(re.search(r"Collected : (\d+)", out).group(1))
        # The work alone: the script with it (scale 1) minus without it (scale 0).
        plain = instructions([], base_env, 1) - instructions([], base_env, 0)
        loaded = instructions(ext_args, null_env, 1) - instructions(ext_args, null_env, 0)
        print("callgrind, no opcache:  without %d   with %d instructions   ratio %.4f" % (plain, loaded, loaded / plain))

print("\n== module start-up: php -n -r '' ==")
trace = os.path.join(work, "trace.bson")
file_env = dict(base_env, CORVIDINE_REPORTER="file", CORVIDINE_COLLECTOR=trace)
plain_cmd = [php, "-n", "-r", ""]
ext_cmd = [php, "-n"] + all_ext_args + ["-r", ""]
if shutil.which("hyperfine"):
    subprocess.run(["hyperfine", "-N", "--warmup", "5", "--runs", "200", "-n", "without extension",
                    " ".join(plain_cmd) + " ''", "-n", "with extension, file reporter",
                    " ".join(ext_cmd[:-1]) + " ''"], env=file_env, check=True)
else:
    runs, block = 200, 10
    times = {"without": [], "with": []}
    for b in range(runs // block):
        for name, cmd in (("without", plain_cmd), ("with", ext_cmd)) if b % 2 == 0 else \
                (("with", ext_cmd), ("without", plain_cmd)):
            for _ in range(block):
                t = time.perf_counter()
                subprocess.run(cmd, env=file_env, check=True, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
                times[name].append((time.perf_counter() - t) * 1000)
    docs = 0
    if os.path.exists(trace):
        import bson_tools
        docs = sum(1 for d in bson_tools.decode_file(trace) if d.get("__Init") is True)
    m0, m1 = statistics.median(times["without"]), statistics.median(times["with"])
    print("(hyperfine not installed: %d interleaved runs each)" % runs)
    print("without extension          median %6.2f ms   mean %6.2f ms" % (m0, statistics.mean(times["without"])))
    print("with extension + file rep. median %6.2f ms   mean %6.2f ms   (+%.2f ms; %d __Init documents written)" %
          (m1, statistics.mean(times["with"]), m1 - m0, docs))
PY
