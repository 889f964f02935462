#!/usr/bin/env bash
# Request tracing through real servers, for one PHP build:
#
#   tests/integration/run.sh nts|zts [TEST-NAME-PATTERN...]
#
# Builds the extension for that PHP (in a build directory of its own, see
# build-ext.sh; CORVIDINE_SO=path skips the build), then runs every test
# under tests/integration: nginx + php-fpm (when the build has a php-fpm),
# PHP's built-in server, the CLI, the header fuzzer and its valgrind pass.
# Ends with "integration: N passed, M failed"; exit status 1 on failures.
set -uo pipefail

flavour=${1:-nts}
shift || true
here=$(cd "$(dirname "$0")" && pwd)
python=${PYTHON:-/usr/bin/python3}
export CORVIDINE_CLOUD_METADATA=off  # a test that wants the lookup points it at a stub of its own

module=${CORVIDINE_SO:-}
if [ -z "$module" ]; then
  if ! module=$("$here/build-ext.sh" "$flavour" | tail -n1); then
    echo "integration: 0 passed, 1 failed (the extension did not build)"
    exit 1
  fi
fi

# Fail at once on what would make every case fail for the wrong reason.
for tool in curl /usr/sbin/nginx; do
  command -v "$tool" >/dev/null || { echo "integration: missing $tool"; echo "integration: 0 passed, 1 failed"; exit 1; }
done

"$python" "$here/run_tests.py" "$flavour" "$module" "$@"
