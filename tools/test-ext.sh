#!/usr/bin/env bash
# Builds the PHP extension against one flavour of PHP 8.2 and runs its tests.
#
#   tools/test-ext.sh nts     Debian's php8.2 (phpize8.2, php-config8.2, php-fpm8.2)
#   tools/test-ext.sh zts     the thread-safe PHP of tools/php-zts (built first if missing)
#   tools/test-ext.sh nts|zts --build-only
#                             only build; print the path of corvidine.so last
#
# The build happens in build-ext-<flavour>/ (or $CORVIDINE_EXT_BUILD): a tree of
# symbolic links to ext/, core/ and reporters/, so phpize and make write nothing
# into the checkout, and a fresh copy of ext/tests, so run-tests.php writes its
# .out/.diff files there too. phpize and configure run again only when the list
# of source files or config.m4 changed; make rebuilds what changed.
#
# Runs every .phpt with run-tests.php, then the php-fpm test. Exits non-zero on
# any failure, after printing the diffs of the failed tests.
set -euo pipefail

usage() { echo "usage: $0 nts|zts [--build-only]" >&2; exit 2; }
[ $# -ge 1 ] && [ $# -le 2 ] || usage
FLAVOUR=$1
case $FLAVOUR in nts | zts) ;; *) usage ;; esac
BUILD_ONLY=0
if [ $# -eq 2 ]; then
  [ "$2" = --build-only ] || usage
  BUILD_ONLY=1
fi

ROOT=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
BUILD=${CORVIDINE_EXT_BUILD:-$ROOT/build-ext-$FLAVOUR}
PYTHON=/usr/bin/python3
JOBS=${JOBS:-$(nproc)}

log() { printf 'test-ext[%s]: %s\n' "$FLAVOUR" "$*"; }

# --- packages the tests need ---------------------------------------------------
packages=(php8.2-dev php8.2-cli php8.2-fpm php8.2-curl python3-bson nginx-light pkg-config libpcre2-dev libssl-dev php-parser)
packages+=(php8.2-mysql php8.2-sqlite3 mariadb-server) # database wrappers (integration tests, bench-db)
packages+=(thrift-compiler libthrift-dev zlib1g-dev python3-thrift) # the Collector reporter's client
packages+=(php8.2-redis php8.2-memcached php8.2-igbinary php8.2-msgpack php-predis redis-server memcached) # key-value wrappers (integration tests)
missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
  if [ "$(id -u)" -ne 0 ]; then
    echo "test-ext: missing packages: ${missing[*]} (run as root to install them)" >&2
    exit 1
  fi
  log "installing ${missing[*]}"
  DEBIAN_FRONTEND=noninteractive apt-get update -qq
  DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
fi

# The user API's argument information must be what its stub gives.
"$ROOT/tools/gen-arginfo.sh" --check >/dev/null

# --- the PHP to build against ----------------------------------------------------
if [ "$FLAVOUR" = nts ]; then
  PHPIZE=/usr/bin/phpize8.2
  PHP_CONFIG=/usr/bin/php-config8.2
  PHP=$($PHP_CONFIG --php-binary)
  RUN_TESTS=$(dpkg -L php8.2-dev | grep '/run-tests\.php$' | head -n1)
  PHP_FPM=/usr/sbin/php-fpm8.2
else
  # shellcheck source=php-zts/env.sh
  . "$ROOT/tools/php-zts/env.sh"
  # build.sh returns at once when its stamp says the build is complete and
  # current; otherwise it (re)builds, which takes several minutes.
  "$ROOT/tools/php-zts/build.sh" "$PHP_ZTS_PREFIX"
  # phpredis (and php-memcached where the mirror has its source) for the
  # key-value tests; without them those tests skip.
  "$ROOT/tools/php-zts/build-kv-ext.sh" "$PHP_ZTS_PREFIX" >&2 || log "key-value extensions for ZTS not built"
  PHPIZE=$PHP_ZTS_PHPIZE
  PHP_CONFIG=$PHP_ZTS_CONFIG
  PHP=$PHP_ZTS_BIN
  RUN_TESTS=$PHP_ZTS_RUN_TESTS
  PHP_FPM=$PHP_ZTS_PREFIX/sbin/php-fpm
fi
for f in "$PHPIZE" "$PHP_CONFIG" "$PHP" "$RUN_TESTS"; do
  [ -e "$f" ] || { echo "test-ext: $f not found" >&2; exit 1; }
done
log "PHP $("$PHP" -n -r 'echo PHP_VERSION, PHP_ZTS ? " ZTS" : " NTS";') ($PHP)"

# --- source tree of links ----------------------------------------------------------
SRC=$BUILD/src
mkdir -p "$SRC"
find "$SRC" -type l -delete
link_files() { # link_files DIR FIND-ARGS...: links the files find selects under ROOT/DIR
  local dir=$1
  shift
  (cd "$ROOT" && find "$dir" -type f "$@") | while IFS= read -r f; do
    mkdir -p "$SRC/$(dirname "$f")"
    ln -s "$ROOT/$f" "$SRC/$f"
  done
}
link_files ext -maxdepth 1 \( -name config.m4 -o -name '*.c' -o -name '*.h' \) ! -name config.h
link_files ext/src \( -name '*.c' -o -name '*.h' \)
link_files core/include
link_files core/src \( -name '*.cc' -o -name '*.h' \)
link_files reporters/include
link_files reporters/src \( -name '*.cc' -o -name '*.h' \)
link_files reporters/collector \( -name '*.cc' -o -name '*.h' -o -name '*.thrift' \)
link_files reporters/metrics/include
link_files reporters/metrics/src \( -name '*.cc' -o -name '*.h' \)
rm -rf "$SRC/ext/tests" "$SRC/tests/support" "$SRC/tests/integration"
cp -r "$ROOT/ext/tests" "$SRC/ext/tests"
# The helpers shared by all tests (and the server harness the fpm test uses),
# at the same place relative to ext/tests.
mkdir -p "$SRC/tests/integration"
cp -r "$ROOT/tests/support" "$SRC/tests/support"
cp "$ROOT/tests/integration/harness.py" "$SRC/tests/integration/"
mkdir -p "$SRC/tools" && cp -r "$ROOT/tools/bson_tools.py" "$ROOT/tools/collector" "$SRC/tools/"

signature=$( (cd "$SRC" && find . -type l | LC_ALL=C sort; sha256sum "$ROOT/ext/config.m4"; echo "$PHPIZE") | sha256sum)
cd "$SRC/ext"
if [ ! -f Makefile ] || [ "$(cat .corvidine-signature 2>/dev/null)" != "$signature" ]; then
  log "phpize + configure"
  # Objects and their dependency lists may name files that moved: start clean.
  find "$SRC" \( -name '*.lo' -o -name '*.o' -o -name '*.dep' \) -delete
  "$PHPIZE" >phpize.log 2>&1 || { cat phpize.log; exit 1; }
  ./configure --with-php-config="$PHP_CONFIG" >configure.log 2>&1 || { tail -n 40 configure.log; exit 1; }
  echo "$signature" >.corvidine-signature
fi
log "make"
make -j"$JOBS" >make.log 2>&1 || { grep -E 'error|Error' make.log | head -n 40; tail -n 20 make.log; exit 1; }
if grep -E 'warning:' make.log | grep -E "/ext/(src/|corvidine\.c)" >/dev/null; then
  echo "test-ext: compiler warnings in the extension:" >&2
  grep -A3 'warning:' make.log | grep -E -A3 "/ext/(src/|corvidine\.c)" >&2
  exit 1
fi
SO=$SRC/ext/modules/corvidine.so
[ -f "$SO" ] || { echo "test-ext: $SO was not built" >&2; exit 1; }
if [ $BUILD_ONLY = 1 ]; then
  echo "$SO"
  exit 0
fi

# --- .phpt tests ------------------------------------------------------------------------
log "run-tests.php ($(find tests -name '*.phpt' | wc -l) tests)"
status=0
NO_INTERACTION=1 "$PHP" -n "$RUN_TESTS" -q -n -p "$PHP" -d "extension=$SO" -j"$JOBS" --show-diff \
  --set-timeout 120 tests >run-tests.log 2>&1 || status=$?
# Summary and failures only; the full log stays in run-tests.log.
sed -n '/^FAILED TEST SUMMARY/,$p; /^Number of tests/,/^Time taken/p' run-tests.log
if [ $status -ne 0 ] || grep -qE '^Tests failed *: *[1-9]' run-tests.log; then
  for diff in $(find tests -name '*.diff'); do
    echo "--- ${diff%.diff}.phpt"
    cat "$diff"
  done
  echo "test-ext: .phpt tests failed (log: $SRC/ext/run-tests.log)" >&2
  exit 1
fi
grep -qE '^Tests passed *: *[1-9]' run-tests.log || { echo "test-ext: no test passed" >&2; exit 1; }

# --- php-fpm with forked workers -------------------------------------------------------
if [ -x "$PHP_FPM" ]; then
  log "php-fpm test ($PHP_FPM)"
  "$PYTHON" tests/fpm/fpm_workers_test.py --php-fpm "$PHP_FPM" --extension "$SO"
else
  log "no php-fpm for this flavour ($PHP_FPM): fpm test skipped"
fi
log "all passed"
