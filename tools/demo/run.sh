#!/usr/bin/env bash
# `make run`: builds the extension against Debian's PHP 8.2 and shows it
# tracing the demo shop (nginx + php-fpm, MariaDB, Redis, an inventory
# service over HTTP) into the local development Collector and its web page.
# Ends after the summary when not on a terminal or with CORVIDINE_DEMO_EXIT=1.
set -euo pipefail
export CORVIDINE_CLOUD_METADATA=off  # never a cloud lookup from a demo or benchmark
root=$(cd "$(dirname "$0")/../.." && pwd)
echo "== building the extension for PHP 8.2 (build-ext-demo/)"
module=$(CORVIDINE_EXT_BUILD="$root/build-ext-demo" "$root/tools/test-ext.sh" nts --build-only 2>&1 | tail -n 1)
[ -f "$module" ] || { echo "extension build failed: $module" >&2; exit 1; }
exec /usr/bin/python3 "$root/tools/demo/serve_demo.py" "$module"
