#!/usr/bin/env bash
# Cost of the key-value wrappers: a loop of get calls on a traced request,
# an untraced one and without the extension.
#
#   tools/bench-kv.sh [nts|zts] [ROUNDS] [CALLS]    default: nts, 5 rounds, 10000 calls
#
# phpredis against a redis-server and php-memcached against a memcached,
# both started for the run on loopback (temporary directories). Traced runs
# write every event with the file reporter; rounds, medians and ratios as
# tools/bench_cli_rounds.py runs them.
set -euo pipefail

FLAVOUR=${1:-nts}
ROUNDS=${2:-5}
CALLS=${3:-10000}
ROOT=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)

export CORVIDINE_CLOUD_METADATA=off  # never a cloud lookup from a demo or benchmark

. "$ROOT/tools/bench-php.sh"  # SO and PHP
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

PYTHONPATH="$ROOT/tests/integration:$ROOT/tools" /usr/bin/python3 - "$PHP" "$SO" "$FLAVOUR" "$WORK" "$ROUNDS" "$CALLS" <<'PY'
import os
import sys

import harness
from bench_cli_rounds import BASELINE, CliRounds, agent

php_bin, so, flavour, work, rounds, calls = sys.argv[1], sys.argv[2], sys.argv[3], sys.argv[4], int(sys.argv[5]), sys.argv[6]
php = harness.Php(flavour, so)
ini = harness.key_value_ini(php)
if ini is None:
    sys.exit("bench-kv: this PHP has neither phpredis nor php-memcached")
modules = [a for item in ini["extension"] for a in ("-d", "extension=" + item)]
variants = [(BASELINE, []), ("untraced", agent(so) + ["-d", "corvidine.sample_rate=0"]), ("traced", agent(so))]
rounds_of = CliRounds(php_bin, modules, variants, rounds, work)
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
        rounds_of.run(os.path.join(work, script), calls, "call", {variable: str(server.port)})
    finally:
        server.stop()
rounds_of.close()
PY
