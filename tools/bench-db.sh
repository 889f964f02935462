#!/usr/bin/env bash
# Cost of the database wrappers: a loop of simple queries on a traced
# request, an untraced one and without the extension.
#
#   tools/bench-db.sh [nts|zts] [ROUNDS] [QUERIES]    default: nts, 5 rounds, 10000 queries
#
# PDO on SQLite in memory (PDO::query), and mysqli_query against a MariaDB
# server started for the run (loopback, temporary directory; skipped without
# mariadb-server). Traced with and without the backtrace of the entry events;
# rounds, medians and ratios as tools/bench_cli_rounds.py runs them.
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

PYTHONPATH="$ROOT/tests/integration:$ROOT/tools" /usr/bin/python3 - "$PHP" "$SO" "$FLAVOUR" "$WORK" "$ROUNDS" "$QUERIES" <<'PY'
import os
import sys

import harness
from bench_cli_rounds import BASELINE, CliRounds, agent

php_bin, so, flavour, work, rounds, queries = sys.argv[1], sys.argv[2], sys.argv[3], sys.argv[4], int(sys.argv[5]), sys.argv[6]
php = harness.Php(flavour, so)
modules = ["-d%s=%s" % (name, item) for name, items in harness.database_ini(php).items() for item in items]
variants = [(BASELINE, []), ("untraced", agent(so) + ["-d", "corvidine.sample_rate=0"]), ("traced", agent(so)),
            ("traced, no backtrace", agent(so) + ["-d", "corvidine.enable_backtrace=0"])]
rounds_of = CliRounds(php_bin, modules, variants, rounds, work)
print("PHP %s, %s queries per run, %d rounds" % (flavour, queries, rounds))
print("PDO::query, SQLite in memory:")
rounds_of.run(os.path.join(work, "pdo.php"), queries, "query")
if harness.MariaDB.available():
    server = harness.MariaDB().start()
    try:
        print("mysqli_query, MariaDB on loopback TCP:")
        rounds_of.run(os.path.join(work, "mysqli.php"), queries, "query", {"MYSQL_PORT": str(server.port)})
    finally:
        server.stop()
else:
    print("mysqli: no MariaDB server (mariadb-server), skipped")
rounds_of.close()
PY
