#!/usr/bin/env bash
# Line coverage of core/, reporters/ and ext/ by the unit tests and the NTS
# extension tests (.phpt and the php-fpm test), summed by gcovr.
#
#   tools/coverage.sh [DIR]     builds into DIR (default build-cov), prints the summary;
#                               DIR/coverage.txt keeps the per-file table
set -uo pipefail
cd "$(dirname "$0")/.."
ROOT=$PWD
OUT=$ROOT/${1:-build-cov}
JOBS=${JOBS:-$(nproc)}
command -v gcovr >/dev/null || { echo "coverage: gcovr missing (apt-get install gcovr)" >&2; exit 1; }
mkdir -p "$OUT"
find "$OUT" -name '*.gcda' -delete
rm -f "$OUT/gcovr.log"

echo "coverage: unit tests"
cmake -S . -B "$OUT/unit" -DCMAKE_BUILD_TYPE=Debug -DCORVIDINE_BENCH=OFF \
  -DCMAKE_C_FLAGS="--coverage -fprofile-update=atomic" -DCMAKE_CXX_FLAGS="--coverage -fprofile-update=atomic" \
  >/dev/null || exit 1
cmake --build "$OUT/unit" -j"$JOBS" >"$OUT/unit-build.log" 2>&1 || { tail -n 30 "$OUT/unit-build.log"; exit 1; }
(cd "$OUT/unit" && ctest -j"$JOBS" >ctest.log 2>&1) || echo "coverage: unit tests failed (see $OUT/unit/ctest.log)" >&2
grep -E 'tests passed' "$OUT/unit/ctest.log"

echo "coverage: extension tests (NTS)"
CFLAGS="-g -O0 --coverage" CXXFLAGS="-g -O0 --coverage" LDFLAGS=--coverage CORVIDINE_EXT_BUILD="$OUT/ext" \
  tools/test-ext.sh nts >"$OUT/ext.log" 2>&1 || echo "coverage: extension tests failed (see $OUT/ext.log)" >&2
grep -E '^Tests (passed|failed)' "$OUT/ext.log"

# The extension is built in a tree of links (tools/test-ext.sh): read relative
# to that tree, its files have the checkout's names, and gcovr adds the counts
# of both builds up.
g() { gcovr --gcov-ignore-parse-errors -j"$JOBS" "$@" 2>>"$OUT/gcovr.log"; }
g -r "$ROOT" --json -o "$OUT/unit.json" "$OUT/unit"
g -r "$OUT/ext/src" --json -o "$OUT/ext.json" "$OUT/ext"
g -r "$ROOT" -f 'core/' -f 'reporters/' -f 'ext/' -e 'ext/tests/' -a "$OUT/unit.json" -a "$OUT/ext.json" \
  -o "$OUT/coverage.txt"
grep -E '^TOTAL' "$OUT/coverage.txt"
