#!/usr/bin/env bash
# Runs the PHP-value walkers of the event helpers (valgrind_workload.inc)
# under valgrind, with PHP's allocator off so that every request-heap block
# is a malloc valgrind can follow. Fails on any invalid read or write, use of
# uninitialised memory, or definitely lost block.
#
#   ext/tests/events/valgrind.sh [PHP-BINARY] [CORVIDINE.SO]
#
# Defaults: php8.2 on PATH and build-ext-nts/src/ext/modules/corvidine.so of
# tools/test-ext.sh (or $CORVIDINE_EXT_BUILD).
set -euo pipefail

HERE=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
ROOT=$(cd "$HERE/../../.." && pwd)
PHP=${1:-$(command -v php8.2 || command -v php)}
SO=${2:-${CORVIDINE_EXT_BUILD:-$ROOT/build-ext-nts}/src/ext/modules/corvidine.so}

command -v valgrind >/dev/null || { echo "valgrind.sh: valgrind is not installed (apt-get install valgrind)" >&2; exit 2; }
[ -x "$PHP" ] || { echo "valgrind.sh: no PHP binary at $PHP" >&2; exit 2; }
[ -f "$SO" ] || { echo "valgrind.sh: no extension at $SO (build it with tools/test-ext.sh)" >&2; exit 2; }

WORK=$(mktemp -d)
trap 'rm -rf "$WORK"' EXIT
LOG=$WORK/valgrind.log

status=0
USE_ZEND_ALLOC=0 ZEND_DONT_UNLOAD_MODULES=1 CORVIDINE_REPORTER=file CORVIDINE_COLLECTOR=$WORK/events.bson \
  valgrind --error-exitcode=99 --leak-check=full --errors-for-leak-kinds=definite --show-leak-kinds=definite \
  --track-origins=yes --num-callers=30 --log-file="$LOG" \
  "$PHP" -n -d "extension=$SO" -d corvidine.internal_test_hooks=1 -d corvidine.enable_cli=1 \
  -d corvidine.enable=0 -d corvidine.max_ready_wait_time=-1 -d memory_limit=-1 \
  "$HERE/valgrind_workload.inc" >"$WORK/out" 2>"$WORK/err" || status=$?

summary=$(grep -E 'ERROR SUMMARY|definitely lost' "$LOG" | sed 's/^==[0-9]*== //')
echo "$summary"
if [ "$status" -ne 0 ] || ! grep -qx done "$WORK/out"; then
  echo "valgrind.sh: FAILED (exit $status)" >&2
  cat "$WORK/err" >&2
  grep -vE '^==[0-9]+== ($|Memcheck|Copyright|Using Valgrind|Command|Parent PID)' "$LOG" | head -n 200 >&2
  exit 1
fi
events=$(/usr/bin/python3 "$ROOT/tests/support/bson_tools.py" count "$WORK/events.bson")
echo "valgrind.sh: clean ($events documents written and readable)"
