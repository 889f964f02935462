#!/usr/bin/env bash
# Builds corvidine.so for one PHP in a private copy of the sources, so that
# the build never touches (or races with) an in-tree build in ext/.
#
#   tests/integration/build-ext.sh nts|zts [build-dir]
#
# Prints the path of the built module on its last line.
set -euo pipefail

flavour=${1:?usage: build-ext.sh nts|zts [build-dir]}
root=$(cd "$(dirname "$0")/../.." && pwd)
build=${2:-${TMPDIR:-/tmp}/corvidine-integration-build-$flavour}

case "$flavour" in
  nts)
    phpize=phpize
    php_config=php-config
    ;;
  zts)
    # shellcheck source=/dev/null
    . "$root/tools/php-zts/env.sh"
    phpize=$PHP_ZTS_PHPIZE
    php_config=$PHP_ZTS_CONFIG
    if [ ! -x "$phpize" ]; then
      echo "build-ext: no ZTS PHP at $PHP_ZTS_PREFIX (build it with tools/php-zts/build.sh)" >&2
      exit 3
    fi
    ;;
  *)
    echo "build-ext: unknown flavour '$flavour'" >&2
    exit 2
    ;;
esac

# configure lists the sources: a changed list means a fresh build directory.
sources=$(cd "$root" && find ext/corvidine.c ext/config.m4 ext/php_corvidine.h ext/src core reporters \
  -name '*.c' -o -name '*.cc' -o -name '*.h' -o -name 'config.m4' | LC_ALL=C sort)
stamp=$(echo "$sources" | md5sum | cut -d' ' -f1)
if [ "$(cat "$build/.sources" 2>/dev/null)" != "$stamp" ]; then
  rm -rf "$build"
fi
mkdir -p "$build/src"
# Copies keep their times, so make rebuilds only what changed.
(cd "$root" && echo "$sources" | xargs cp -p --parents -t "$build/src")

cd "$build/src/ext"
if [ ! -f Makefile ]; then
  "$phpize" >"$build/phpize.log" 2>&1
  ./configure --with-php-config="$php_config" >"$build/configure.log" 2>&1
  echo "$stamp" >"$build/.sources"
fi
if ! make -j"$(nproc)" >"$build/make.log" 2>&1; then
  grep -E 'error' "$build/make.log" | head -20 >&2
  echo "build-ext: make failed, see $build/make.log" >&2
  exit 1
fi
echo "$build/src/ext/modules/corvidine.so"
