#!/usr/bin/env bash
# What Laravel tracing costs a Laravel 8 request (Debian's
# php-laravel-framework): wrk against nginx + php-fpm with the extension not
# loaded, tracing every request, and tracing with Laravel spans off. See
# bench/http/bench_laravel.py. Loopback only.
#
#   tools/bench-laravel.sh            build the extension (NTS) and measure
#   CORVIDINE_SO=path tools/bench-laravel.sh
set -euo pipefail
export CORVIDINE_CLOUD_METADATA=off  # never a cloud lookup from a demo or benchmark

root=$(cd "$(dirname "$0")/.." && pwd)
for tool in wrk curl /usr/sbin/nginx /usr/sbin/php-fpm8.2 /usr/share/php/Illuminate/autoload.php; do
  [ -e "$tool" ] || command -v "$tool" >/dev/null || { echo "bench-laravel: $tool is missing (tools/install-deps.sh)" >&2; exit 1; }
done
module=${CORVIDINE_SO:-$("$root/tests/integration/build-ext.sh" nts | tail -n1)}
exec /usr/bin/python3 "$root/bench/http/bench_laravel.py" "$module"
