#!/usr/bin/env bash
# Cost of the key-value wrappers: a loop of get calls on a traced request,
# an untraced one and without the extension.
#
#   tools/bench-kv.sh [nts|zts] [ROUNDS] [CALLS]    default: nts, 5 rounds, 10000 calls
#
# phpredis against a redis-server and php-memcached against a memcached,
# both started for the run on loopback (temporary directories). Traced runs
# write every event with the file reporter into a directory in /dev/shm.
# Runs alternate the order; medians, µs per call and the ratio to "without".
set -euo pipefail

FLAVOUR=${1:-nts}
ROUNDS=${2:-5}
CALLS=${3:-10000}
ROOT=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)

SO=$("$ROOT/tools/test-ext.sh" "$FLAVOUR" --build-only | tail -n1)
WORK=$(mktemp -d /tmp/corvidine-bench-kv.XXXXXX)
trap 'rm -rf "$WORK"' EXIT

cat >"$WORK/redis.php" <<'PHP'
<?php
$n = (int)$argv[1];
$r = new Redis();
$r->connect('127.0.0.1', (int)getenv('REDIS_PORT'));
$r->set('bench', 'value');
$start = hrtime(true);
for ($i = 0; $i < $n; $i++) {
    $r->get('bench');
}
echo (hrtime(true) - $start) / 1000 / $n, "\n";
PHP

cat >"$WORK/memcached.php" <<'PHP'
<?php
$n = (int)$argv[1];
$m = new Memcached();
$m->addServer('127.0.0.1', (int)getenv('MEMCACHED_PORT'));
$m->set('bench', 'value');
$start = hrtime(true);
for ($i = 0; $i < $n; $i++) {
    $m->get('bench');
}
echo (hrtime(true) - $start) / 1000 / $n, "\n";
PHP

PYTHONPATH="$ROOT/tests/integration" /usr/bin/python3 - "$SO" "$FLAVOUR" "$WORK" "$ROUNDS" "$CALLS" <<'PY'
import os
import shutil
import statistics
import subprocess
import sys
import tempfile

import harness

so, flavour, work, rounds, calls = sys.argv[1], sys.argv[2], sys.argv[3], int(sys.argv[4]), sys.argv[5]
php = harness.Php(flavour, so)
ini = harness.key_value_ini(php)
if ini is None:
    sys.exit("bench-kv: this PHP has neither phpredis nor php-memcached")
modules = [a for item in ini["extension"] for a in ("-d", "extension=" + item)]
agent = ["-d", "extension=" + so, "-d", "corvidine.enable_cli=1", "-d", "corvidine.max_ready_wait_time=-1"]
variants = [("without extension", []), ("untraced", agent + ["-d", "corvidine.sample_rate=0"]), ("traced", agent)]
shm = "/dev/shm" if os.path.isdir("/dev/shm") else work
events = tempfile.mkdtemp(prefix="corvidine-bench-kv-", dir=shm)
env = dict(os.environ, CORVIDINE_REPORTER="file", CORVIDINE_COLLECTOR=os.path.join(events, "trace"))


def bench(script, extra_env):
    times = {name: [] for name, _ in variants}
    for r in range(rounds):
        for name, args in (variants if r % 2 == 0 else list(reversed(variants))):
            out = subprocess.run([php.cli, "-n"] + modules + args + [os.path.join(work, script), calls],
                                 env=dict(env, **extra_env), capture_output=True, text=True, check=True)
            times[name].append(float(out.stdout.strip().splitlines()[-1]))
            for f in os.listdir(events):
                os.unlink(os.path.join(events, f))
    base = statistics.median(times["without extension"])
    for name, _ in variants:
        m = statistics.median(times[name])
        print("  %-22s %7.2f µs/call   ratio %.3f" % (name, m, m / base))


print("PHP %s, %s calls per run, %d rounds" % (flavour, calls, rounds))
for module, server_class, script, variable in (("redis", harness.RedisServer, "redis.php", "REDIS_PORT"),
                                               ("memcached", harness.MemcachedServer, "memcached.php",
                                                "MEMCACHED_PORT")):
    if module not in ini["extension"] or not server_class.available():
        print("%s: no extension or server, skipped" % module)
        continue
    server = server_class().start()
    try:
        print("%s get, server on loopback TCP:" % module)
        bench(script, {variable: str(server.port)})
    finally:
        server.stop()
shutil.rmtree(events, ignore_errors=True)
PY
