#!/usr/bin/env bash
# Benchmarks of the event helpers from PHP (bench/ext/events_bench.php).
#
#   tools/bench-events.sh [nts|zts] [ROUNDS] [CALLS]    default: nts, 7 rounds, 100000 calls
#
# Builds the extension with tools/test-ext.sh --build-only (its build
# directory, or $CORVIDINE_EXT_BUILD) and runs the benchmark with the null
# reporter and the test hooks on.
set -euo pipefail
export CORVIDINE_CLOUD_METADATA=off  # never a cloud lookup from a demo or benchmark

FLAVOUR=${1:-nts}
ROUNDS=${2:-7}
CALLS=${3:-100000}
ROOT=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)

SO=$(bash "$ROOT/tools/test-ext.sh" "$FLAVOUR" --build-only | tail -n1)
if [ "$FLAVOUR" = zts ]; then
  . "$ROOT/tools/php-zts/env.sh"
  PHP=$PHP_ZTS_BIN
else
  PHP=$(/usr/bin/php-config8.2 --php-binary)
fi
echo "bench-events[$FLAVOUR]: $("$PHP" -n -r 'echo PHP_VERSION, PHP_ZTS ? " ZTS" : " NTS";'), $SO"
CORVIDINE_REPORTER=null "$PHP" -n -d "extension=$SO" -d corvidine.internal_test_hooks=1 -d corvidine.enable_cli=1 \
  -d corvidine.enable=0 -d corvidine.max_ready_wait_time=-1 \
  "$ROOT/bench/ext/events_bench.php" "$ROUNDS" "$CALLS"
