#!/usr/bin/env bash
# What tracing costs a real server: wrk against nginx + php-fpm serving a
# small page, with the extension not loaded, loaded with every request
# sampled (UDP reporter to a local listener), and loaded with none sampled.
# Prints requests per second, the ratios against "not loaded" and the
# latency a sampled request adds. About a minute by default (see
# bench/http/bench_http.py for the BENCH_* knobs). Loopback only.
#
#   tools/bench-http.sh            build the extension (NTS) and measure
#   CORVIDINE_SO=path tools/bench-http.sh
set -euo pipefail
export CORVIDINE_CLOUD_METADATA=off  # never a cloud lookup from a demo or benchmark

root=$(cd "$(dirname "$0")/.." && pwd)
for tool in wrk curl /usr/sbin/nginx /usr/sbin/php-fpm8.2; do
  command -v "$tool" >/dev/null || { echo "bench-http: $tool is missing (tools/install-deps.sh)" >&2; exit 1; }
done
module=${CORVIDINE_SO:-$("$root/tests/integration/build-ext.sh" nts | tail -n1)}
exec /usr/bin/python3 "$root/bench/http/bench_http.py" "$module"
