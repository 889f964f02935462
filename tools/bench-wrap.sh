#!/usr/bin/env bash
# Cost of the function wrappers, against the same PHP without the extension.
#
#   tools/bench-wrap.sh [nts|zts] [ROUNDS]      default: nts, 7 rounds
#
# 1. A wrapped cheap function: curl_setopt() on one handle in a loop, on an
#    untraced request (the cURL family is active there: in callback, original,
#    out callback), with the family switched off (the wrapper
#    only tests the thread's mask). ns per call and the
#    ratio to "without"; target <= 1.10 for the untraced request. Runs alternate
#    A/B/B/A; medians. callgrind's instruction count per call (deterministic,
#    the loop with its work minus without) is shown as well.
# 2. Hook cost: a bench.php-style script (loops, calls, strings, arrays) with
#    every family wrapped (cURL loaded, the test-only family on), untraced,
#    against no extension. Target <= 1.03.
# Both without opcache and with opcache + tracing JIT.
set -euo pipefail
export CORVIDINE_CLOUD_METADATA=off  # never a cloud lookup from a demo or benchmark

FLAVOUR=${1:-nts}
ROUNDS=${2:-7}
ROOT=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)

. "$ROOT/tools/bench-php.sh"  # SO and PHP

WORK=$(mktemp -d /tmp/corvidine-bench-wrap.XXXXXX)
trap 'rm -rf "$WORK"' EXIT

cat >"$WORK/setopt.php" <<'PHP'
<?php
$n = (int)($argv[1] ?? 1000000);
$h = curl_init();
$start = hrtime(true);
for ($i = 0; $i < $n; $i++) {
    curl_setopt($h, CURLOPT_TIMEOUT, 5);
}
$ns = (hrtime(true) - $start) / max($n, 1);
$state = function_exists('corvidine_test_wrap_state') ? corvidine_test_wrap_state() : null;
$jit = function_exists('opcache_get_status') ? (opcache_get_status(false)['jit']['on'] ?? false) : false;
echo json_encode(['ns' => $ns, 'state' => $state, 'jit' => $jit]), "\n";
PHP

cat >"$WORK/mixed.php" <<'PHP'
<?php
function simpleucall_f($a) { return $a; }
function ackermann($m, $n) { return $m == 0 ? $n + 1 : ($n == 0 ? ackermann($m - 1, 1) : ackermann($m - 1, ackermann($m, $n - 1))); }
function fibo($n) { return $n < 2 ? 1 : fibo($n - 2) + fibo($n - 1); }
function mandel() {
    $sum = 0;
    for ($y = -39; $y < 39; $y++) {
        for ($x = -39; $x < 39; $x++) {
            $cr = $y / 40 - 0.5; $ci = $x / 40; $zr = $zi = 0; $i = 0;
            while ($i < 100 && $zr * $zr + $zi * $zi < 4) { $t = $zr * $zr - $zi * $zi + $cr; $zi = 2 * $zr * $zi + $ci; $zr = $t; $i++; }
            $sum += $i;
        }
    }
    return $sum;
}
function sieve($n) {
    $count = 0;
    while ($n-- > 0) {
        $flags = array_fill(2, 8191, true); $count = 0;
        for ($i = 2; $i <= 8192; $i++) { if ($flags[$i]) { for ($k = $i + $i; $k <= 8192; $k += $i) { $flags[$k] = false; } $count++; } }
    }
    return $count;
}
function strings($n) { $s = ''; for ($i = 0; $i < $n; $i++) { $s .= strtoupper(substr("hello$i", 0, 4)) . str_pad((string)$i, 6, '0', STR_PAD_LEFT); } return strlen($s) + crc32($s); }
function hashes($n) { $h = []; for ($i = 0; $i < $n; $i++) { $h[dechex($i)] = $i; } $c = 0; for ($i = $n; $i > 0; $i--) { if (isset($h[dechex($i)])) { $c++; } } return $c; }
function sorting($n) { $a = []; for ($i = 0; $i < $n; $i++) { $a[] = ($i * 7919) % 10007; } sort($a); usort($a, fn($x, $y) => $y <=> $x); return $a[0]; }

$scale = (int)($argv[1] ?? 1);
$start = hrtime(true);
$check = [];
if ($scale) {
    $x = 0; for ($i = 0; $i < 1000000; $i++) { $x = simpleucall_f($i); } $check[] = $x;
    $check[] = ackermann(2, 300);
    $check[] = fibo(25);
    $check[] = mandel();
    $check[] = sieve(10);
    $check[] = strings(200000);
    $check[] = hashes(200000);
    $check[] = sorting(200000);
}
$ms = (hrtime(true) - $start) / 1e6;
$jit = function_exists('opcache_get_status') ? (opcache_get_status(false)['jit']['on'] ?? false) : false;
echo json_encode(['ms' => $ms, 'check' => $check, 'jit' => $jit]), "\n";
PHP

/usr/bin/python3 - "$PHP" "$SO" "$WORK" "$ROUNDS" <<'PY'
import json
import os
import re
import shutil
import statistics
import subprocess
import sys

php, so, work, rounds = sys.argv[1], sys.argv[2], sys.argv[3], int(sys.argv[4])
ext_dir = subprocess.run([php, "-n", "-r", "echo PHP_EXTENSION_DIR;"], capture_output=True, text=True).stdout
curl = ["-d", "extension=curl"] if os.path.exists(os.path.join(ext_dir, "curl.so")) else []
jit = ["-d", "zend_extension=opcache", "-d", "opcache.enable_cli=1", "-d", "opcache.jit=tracing",
       "-d", "opcache.jit_buffer_size=64M"]
agent = ["-d", "extension=" + so, "-d", "corvidine.enable_cli=1", "-d", "corvidine.internal_test_hooks=1",
         "-d", "corvidine.max_ready_wait_time=-1"]
untraced = agent + ["-d", "corvidine.sample_rate=0"]
env = {"PATH": os.environ.get("PATH", "/usr/bin:/bin"), "CORVIDINE_REPORTER": "null"}
N = 2000000


def run(args, script, arg):
    out = subprocess.run([php, "-n"] + curl + args + [os.path.join(work, script), str(arg)], env=env,
                         capture_output=True, text=True, check=True).stdout
    return json.loads(out.strip().splitlines()[-1])


def instructions(args, script, arg):
    out = subprocess.run(["valgrind", "--tool=callgrind", "--callgrind-out-file=/dev/null", php, "-n"] + curl + args +
                         [os.path.join(work, script), str(arg)], env=env, capture_output=True, text=True,
                         check=True).stderr
    return int(re.search(r"Collected : (\d+)", out).group(1))


print("PHP %s, extension %s" % (subprocess.run([php, "-n", "-r", "echo PHP_VERSION, PHP_ZTS ? ' ZTS' : ' NTS';"],
                                                capture_output=True, text=True).stdout, so))
variants = [("without extension", []),
            ("untraced (cURL active)", untraced),
            ("cURL family off", untraced + ["-d", "corvidine.enable_wrap_curl=0"])]
print("\n== curl_setopt() on one handle, %d calls, %d rounds ==" % (N, rounds))
worst = 0.0
for engine, extra in (("no opcache", []), ("opcache + JIT", jit)):
    times = {name: [] for name, _ in variants}
    states = {}
    for r in range(rounds):
        order = variants if r % 2 == 0 else list(reversed(variants))
        for name, args in order:
            res = run(extra + args, "setopt.php", N)
            times[name].append(res["ns"])
            states[name] = (res["state"], res["jit"])
    base = statistics.median(times["without extension"])
    for name, _ in variants:
        m = statistics.median(times[name])
        print("%-14s %-24s %6.1f ns/call  ratio %.3f   state %s jit %s" % (engine, name, m, m / base, *states[name]))
    worst = max(worst, statistics.median(times["untraced (cURL active)"]) / base)
print("curl_setopt untraced: worst ratio of medians %.3f (target <= 1.10)" % worst)
if shutil.which("valgrind"):
    n = 200000
    base = (instructions([], "setopt.php", n) - instructions([], "setopt.php", 0)) / n
    for name, args in variants[1:]:
        per = (instructions(args, "setopt.php", n) - instructions(args, "setopt.php", 0)) / n
        print("callgrind, no opcache: %-24s %6.1f instructions/call (without: %.1f, +%.1f)" % (name, per, base, per - base))

print("\n== hook cost: bench.php-style script, every family wrapped, untraced, %d rounds ==" % rounds)
worst = 0.0
for engine, extra in (("no opcache", []), ("opcache + JIT", jit)):
    without, with_ext = [], []
    for r in range(rounds):
        for loaded in ((False, True) if r % 2 == 0 else (True, False)):
            res = run(extra + (untraced if loaded else []), "mixed.php", 1)
            (with_ext if loaded else without).append(res["ms"])
            check = res["check"]
            if loaded:
                check_with, jit_with = res["check"], res["jit"]
            else:
                check_without, jit_without = res["check"], res["jit"]
    assert check_with == check_without, (check_with, check_without)
    ratio = statistics.median(with_ext) / statistics.median(without)
    worst = max(worst, ratio)
    print("%-14s without %8.1f ms   with %8.1f ms   ratio %.3f   (jit without %s, with %s)" %
          (engine, statistics.median(without), statistics.median(with_ext), ratio, jit_without, jit_with))
print("hook cost: worst ratio of medians %.3f (target <= 1.03)" % worst)
if shutil.which("valgrind"):
    plain = instructions([], "mixed.php", 1) - instructions([], "mixed.php", 0)
    loaded = instructions(untraced, "mixed.php", 1) - instructions(untraced, "mixed.php", 0)
    print("callgrind, no opcache: without %d   with %d instructions   ratio %.4f" % (plain, loaded, loaded / plain))
PY
