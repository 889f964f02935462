#!/usr/bin/env bash
# Cost of the database wrappers: a loop of simple queries on a traced
# request, an untraced one and without the extension.
#
#   tools/bench-db.sh [nts|zts] [ROUNDS] [QUERIES]    default: nts, 5 rounds, 10000 queries
#
# PDO on SQLite in memory (PDO::query), and mysqli_query against a MariaDB
# server started for the run (loopback, temporary directory; skipped without
# mariadb-server). Traced runs write every event with the file reporter into
# a directory in /dev/shm (the reporter syncs each write: on tmpfs that costs
# little), with and without the backtrace of the entry events. Runs
# alternate the order; medians, µs per query and the ratio to "without".
set -euo pipefail
export CORVIDINE_CLOUD_METADATA=off  # never a cloud lookup from a demo or benchmark

FLAVOUR=${1:-nts}
ROUNDS=${2:-5}
QUERIES=${3:-10000}
ROOT=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)

. "$ROOT/tools/bench-php.sh"  # SO and PHP

WORK=$(mktemp -d /tmp/corvidine-bench-db.XXXXXX)
trap 'rm -rf "$WORK"' EXIT

cat >"$WORK/pdo.php" <<'PHP'
<?php
$n = (int)$argv[1];
$db = new PDO('sqlite::memory:');
$start = hrtime(true);
for ($i = 0; $i < $n; $i++) {
    $db->query("SELECT 1 WHERE 'abc' <> 'x'")->fetchColumn();
}
echo (hrtime(true) - $start) / 1000 / $n, "\n";
PHP

cat >"$WORK/mysqli.php" <<'PHP'
<?php
$n = (int)$argv[1];
$link = mysqli_connect('127.0.0.1', 'root', '', 'test', (int)getenv('MYSQL_PORT'));
$start = hrtime(true);
for ($i = 0; $i < $n; $i++) {
    mysqli_query($link, "SELECT 1 FROM DUAL WHERE 'abc' <> 'x'")->fetch_row();
}
echo (hrtime(true) - $start) / 1000 / $n, "\n";
PHP

PYTHONPATH="$ROOT/tests/integration" /usr/bin/python3 - "$PHP" "$SO" "$FLAVOUR" "$WORK" "$ROUNDS" "$QUERIES" <<'PY'
import os
import shutil
import statistics
import subprocess
import sys
import tempfile

import harness

php_bin, so, flavour, work, rounds, queries = sys.argv[1], sys.argv[2], sys.argv[3], sys.argv[4], int(sys.argv[5]), sys.argv[6]
php = harness.Php(flavour, so)
modules = []
for name, items in harness.database_ini(php).items():
    for item in items:
        modules += ["-d", "%s=%s" % (name, item)]
agent = ["-d", "extension=" + so, "-d", "corvidine.enable_cli=1", "-d", "corvidine.max_ready_wait_time=-1"]
variants = [("without extension", []), ("untraced", agent + ["-d", "corvidine.sample_rate=0"]),
            ("traced", agent), ("traced, no backtrace", agent + ["-d", "corvidine.enable_backtrace=0"])]
shm = "/dev/shm" if os.path.isdir("/dev/shm") else work
events = tempfile.mkdtemp(prefix="corvidine-bench-db-", dir=shm)
env = dict(os.environ, CORVIDINE_REPORTER="file", CORVIDINE_COLLECTOR=os.path.join(events, "trace"))


def bench(script, extra_env=None):
    times = {name: [] for name, _ in variants}
    for r in range(rounds):
        for name, args in (variants if r % 2 == 0 else list(reversed(variants))):
            out = subprocess.run([php_bin, "-n"] + modules + args + [os.path.join(work, script), queries],
                                 env=dict(env, **(extra_env or {})), capture_output=True, text=True, check=True)
            times[name].append(float(out.stdout.strip().splitlines()[-1]))
            for f in os.listdir(events):
                os.unlink(os.path.join(events, f))
    base = statistics.median(times["without extension"])
    for name, _ in variants:
        m = statistics.median(times[name])
        print("  %-22s %7.2f µs/query   ratio %.3f" % (name, m, m / base))


print("PHP %s, %s queries per run, %d rounds" % (flavour, queries, rounds))
print("PDO::query, SQLite in memory:")
bench("pdo.php")
if harness.MariaDB.available():
    server = harness.MariaDB().start()
    try:
        print("mysqli_query, MariaDB on loopback TCP:")
        bench("mysqli.php", {"MYSQL_PORT": str(server.port)})
    finally:
        server.stop()
else:
    print("mysqli: no MariaDB server (mariadb-server), skipped")
shutil.rmtree(events, ignore_errors=True)
PY
