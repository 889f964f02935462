#!/usr/bin/env bash
# Builds the key-value extensions (igbinary, phpredis, php-memcached) for the
# ZTS PHP of tools/php-zts/build.sh from Debian's own source packages, with
# that PHP's phpize, and installs them into its extension directory, so the
# key-value wrappers' tests run on ZTS as they do on Debian's NTS PHP.
#
#   tools/php-zts/build-kv-ext.sh [PREFIX]   default PREFIX: /opt/corvidine/php-8.2-zts
#
# An extension already in the extension directory that loads is left alone.
# php-memcached is optional: where the mirror lacks its source, it is skipped
# (the tests then skip the memcached cases on ZTS). Needs root (apt-get).
set -euo pipefail

PREFIX=${1:-${PHP_ZTS_PREFIX:-/opt/corvidine/php-8.2-zts}}
PREFIX=${PREFIX%/}
WORK=/opt/corvidine/src/kv-zts
LOG=$WORK/build.log
JOBS=${PHP_ZTS_JOBS:-2}
PHP=$PREFIX/bin/php

log() { printf 'kv-zts: %s\n' "$*"; }
fail() {
  echo "kv-zts: ERROR: $*" >&2
  [ -s "$LOG" ] && tail -n 40 "$LOG" >&2
  exit 1
}

[ -x "$PHP" ] || fail "no ZTS PHP at $PREFIX (tools/php-zts/build.sh builds it)"
EXT_DIR=$("$PREFIX/bin/php-config" --extension-dir)
mkdir -p "$WORK"

packages=(dpkg-dev libmemcached-dev zlib1g-dev pkg-config)
missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
  log "installing ${missing[*]}"
  DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
fi

# Loads with the modules before it in this order (igbinary first).
loads() {
  local args=(-n)
  for m in "$@"; do args+=(-d "extension=$m"); done
  "$PHP" "${args[@]}" -r 'exit(0);' 2>&1 | grep -q . && return 1
  "$PHP" "${args[@]}" -m | grep -qx "${!#}"
}

# build SOURCE-PACKAGE MODULE CONFIGURE-ARGS... (loaded after the modules built before it)
built=()
build() {
  local package=$1 module=$2
  shift 2
  if [ -f "$EXT_DIR/$module.so" ] && loads "${built[@]}" "$module"; then
    log "$module: already built"
    built+=("$module")
    return
  fi
  log "$module: apt-get source $package"
  rm -rf "${WORK:?}/$package"
  mkdir -p "$WORK/$package"
  if ! (cd "$WORK/$package" && apt-get source -qq --download-only "$package" &&
    dpkg-source -x --no-check ./*.dsc src) >>"$LOG" 2>&1; then
    log "$module: apt-get source $package failed (log: $LOG)"
    return 1
  fi
  # Debian's tarballs hold the upstream tree in a directory named after it
  # (redis-5.3.7, memcached-3.2.0, ...): the one with a config.m4 for this PHP.
  local dir
  dir=$(find "$WORK/$package/src" -maxdepth 2 -name config.m4 -printf '%h\n' | sort -V | tail -n1)
  [ -n "$dir" ] || fail "$package: no config.m4"
  log "$module: build in $dir"
  (cd "$dir" && "$PREFIX/bin/phpize" && ./configure --with-php-config="$PREFIX/bin/php-config" "$@" &&
    make -j"$JOBS" && make install) >>"$LOG" 2>&1 || fail "$module: build failed (log: $LOG)"
  loads "${built[@]}" "$module" || fail "$module: built but does not load"
  built+=("$module")
}

build php-igbinary igbinary || fail "igbinary is needed"
build php-redis redis --enable-redis-igbinary --enable-redis-lzf || fail "phpredis is needed"
build php-memcached memcached --enable-memcached-igbinary --disable-memcached-sasl || log "memcached: skipped"
log "done: ${built[*]} in $EXT_DIR"
