#!/usr/bin/env bash
# Installs the Debian packages the build, the tests and the demo need, when
# they are missing. Safe to run again: installed packages are left alone.
set -euo pipefail

packages=(
  build-essential cmake pkg-config git
  libssl-dev openssl zlib1g-dev libpcre2-dev uthash-dev
  libthrift-dev thrift-compiler libboost-dev
  libgtest-dev libgmock-dev libbenchmark-dev valgrind gcovr
  php8.2-dev php8.2-cli php8.2-fpm php8.2-opcache php8.2-curl
  python3 python3-bson python3-thrift python3-cryptography
  nginx-light curl netcat-openbsd wrk
  php-laravel-framework php8.2-sqlite3 php8.2-mbstring
)
# Test-only readers of histogram encodings (tests/wire): Java's HdrHistogram,
# and node with npm for hdr-histogram-js (a node that bundles npm needs no npm package).
packages+=(openjdk-17-jdk-headless libhdrhistogram-java nodejs)
command -v npm >/dev/null 2>&1 || packages+=(npm)
# PHP-Parser for gen_stub.php (tools/gen-arginfo.sh: the user API's argument information).
packages+=(php-parser)
# The database wrappers' tests and benchmark: PHP's modules and a MariaDB server they start themselves.
packages+=(php8.2-mysql php8.2-sqlite3 mariadb-server)
# The key-value wrappers' tests: phpredis, php-memcached, predis and the servers they start themselves.
packages+=(php8.2-redis php8.2-memcached php8.2-igbinary php8.2-msgpack php-predis redis-server memcached)
# The dev Collector's page is checked in a real browser (headless).
packages+=(chromium)

missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
[ ${#missing[@]} -eq 0 ] && exit 0

if [ "$(id -u)" -ne 0 ]; then
  echo "install-deps: missing packages: ${missing[*]} (run as root to install them)" >&2
  exit 1
fi
echo "install-deps: installing ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
apt-get update -qq
apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
