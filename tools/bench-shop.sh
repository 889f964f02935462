#!/usr/bin/env bash
# The whole agent on the demo shop (nginx + php-fpm, MariaDB, Redis): wrk
# with the extension not loaded / loaded and unsampled / sampled to the
# local development Collector, in turns over rounds, php-fpm pinned to one
# CPU; throughput and p99 ratios against "not loaded" from the same run
# (bench/http/bench_shop.py for the BENCH_* knobs). Loopback only.
#
#   tools/bench-shop.sh            build the extension (NTS) and measure
#   CORVIDINE_SO=path tools/bench-shop.sh
set -euo pipefail
export CORVIDINE_CLOUD_METADATA=off  # never a cloud lookup from a demo or benchmark

root=$(cd "$(dirname "$0")/.." && pwd)
for tool in wrk curl /usr/sbin/nginx /usr/sbin/php-fpm8.2 mariadbd redis-server; do
  command -v "$tool" >/dev/null || [ -x "/usr/sbin/$tool" ] ||
    { echo "bench-shop: $tool is missing (tools/install-deps.sh)" >&2; exit 1; }
done
module=${CORVIDINE_SO:-$("$root/tests/integration/build-ext.sh" nts | tail -n1)}
exec /usr/bin/python3 "$root/bench/http/bench_shop.py" "$module"
