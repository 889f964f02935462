#!/usr/bin/env bash
# Runs every test stage of `make test`, each to its own log under
# build-logs/, and ends with one summary line of all tests counted.
# A stage that fails prints its log's tail; the script exits non-zero when
# any stage failed.
set -uo pipefail
cd "$(dirname "$0")/.."
# Nothing a test runs may look up the cloud metadata address: a test that
# wants the lookup points it at a stub of its own.
export CORVIDINE_CLOUD_METADATA=off
logs=build-logs
mkdir -p "$logs"
total_passed=0; total_failed=0; failed_stages=()

# Counts the tests of a stage from its log, in whichever runner's words.
count() {
  local log=$1 p f
  if grep -q 'tests passed, .* tests failed out of' "$log"; then
    f=$(grep -oE '[0-9]+ tests failed out of [0-9]+' "$log" | tail -1 | awk '{print $1}')
    p=$(( $(grep -oE 'out of [0-9]+' "$log" | tail -1 | awk '{print $3}') - f ))
  elif grep -qE '^Tests passed *:' "$log"; then
    p=$(grep -E '^Tests passed *:' "$log" | awk -F: '{s+=$2} END {print s+0}' | awk '{print $1}')
    f=$(grep -E '^Tests failed *:' "$log" | awk -F: '{s+=$2} END {print s+0}' | awk '{print $1}')
  elif grep -qE '[0-9]+ passed, [0-9]+ failed' "$log"; then
    p=$(grep -oE '[0-9]+ passed, [0-9]+ failed' "$log" | awk '{s+=$1} END {print s}')
    f=$(grep -oE '[0-9]+ passed, [0-9]+ failed' "$log" | awk '{s+=$3} END {print s}')
  else
    p=0; f=0
  fi
  total_passed=$((total_passed + p)); total_failed=$((total_failed + f))
  counted="$p passed, $f failed"
}

stage() {
  local name=$1; shift
  local log="$logs/$name.log" start=$SECONDS
  printf '== %-18s ' "$name"
  if "$@" >"$log" 2>&1; then
    count "$log"
    printf 'ok     (%3ds)  %s\n' $((SECONDS - start)) "$counted"
  else
    count "$log"
    printf 'FAILED (%3ds)  %s\n' $((SECONDS - start)) "$counted"
    failed_stages+=("$name")
    tail -n 60 "$log" | sed 's/^/   | /'
  fi
}

stage unit-asan        make --no-print-directory test-unit
stage unit-tsan        make --no-print-directory test-tsan
stage wire             make --no-print-directory test-wire
if [ -x tools/test-ext.sh ]; then
  stage ext-nts        tools/test-ext.sh nts
  stage ext-zts        tools/test-ext.sh zts
fi
if [ -x tests/integration/run.sh ]; then
  stage integration-nts tests/integration/run.sh nts
  stage integration-zts tests/integration/run.sh zts
fi

echo
if [ ${#failed_stages[@]} -gt 0 ]; then
  echo "failed stages: ${failed_stages[*]} (logs in $logs/)"
  [ "$total_failed" -eq 0 ] && total_failed=${#failed_stages[@]}
fi
echo "tests: $total_passed passed, $total_failed failed"
[ ${#failed_stages[@]} -eq 0 ]
