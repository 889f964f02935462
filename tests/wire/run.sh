#!/usr/bin/env bash
# Wire checks through independent decoders: every tests/wire/*_check.py runs
# against the build directory given as $1.
set -uo pipefail
build=${1:-build}
here=$(cd "$(dirname "$0")" && pwd)
PYTHON=${PYTHON:-/usr/bin/python3}
passed=0; failed=0
for check in "$here"/*_check.py; do
  if "$PYTHON" "$check" "$build"; then passed=$((passed+1)); else failed=$((failed+1)); echo "FAILED: $check"; fi
done
echo "wire: $passed passed, $failed failed"
[ "$failed" -eq 0 ]
