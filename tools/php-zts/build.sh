#!/usr/bin/env bash
# Builds a thread-safe (ZTS) PHP 8.2 from Debian's own php8.2 source package, so the
# extension can be built and tested against ZTS as well as against the stock NTS php8.2.
#
#   tools/php-zts/build.sh [PREFIX]      default PREFIX: /opt/corvidine/php-8.2-zts
#
# The result lives outside the checkout and is built once per machine: a stamp file in
# PREFIX records this script's checksum and the source version, and while it matches the
# script exits at once. The stamp is written last, so an interrupted build is redone.
# PHP_ZTS_FORCE=1 rebuilds regardless. Needs root (apt-get) unless the stamp matches.
set -euo pipefail

DEFAULT_PREFIX=/opt/corvidine/php-8.2-zts
PREFIX=${1:-$DEFAULT_PREFIX}
PREFIX=${PREFIX%/}
WORK=/opt/corvidine/src/php8.2-zts
LOG=$WORK/build.log
STAMP_NAME=.corvidine-php-zts.stamp
MARKER_NAME=.corvidine-php-zts.partial
JOBS=${PHP_ZTS_JOBS:-2}
SRC_PACKAGE=php8.2
SRC_LIST=/etc/apt/sources.list.d/corvidine-bookworm-src

BUILD_PACKAGES=(
  build-essential dpkg-dev xz-utils autoconf bison re2c pkg-config ccache
  libtool shtool # Debian's phpize takes these from the system, not from PHP's tree
  libcurl4-openssl-dev libxml2-dev libsqlite3-dev libssl-dev zlib1g-dev
  libonig-dev # mbstring
)

START=$(date +%s)
log() { printf 'php-zts [%4ss] %s\n' "$(($(date +%s) - START))" "$*"; }

fail() {
  echo "php-zts: ERROR: $*" >&2
  if [ -s "$LOG" ]; then
    echo "php-zts: last lines of $LOG:" >&2
    tail -n 60 "$LOG" >&2
  fi
  exit 1
}

# Runs "$@" in directory $2 with its output in the log; stops with the log's tail on failure.
step() {
  local what=$1 dir=$2
  shift 2
  log "$what"
  echo "=== $what ($(date -u +%FT%TZ))" >>"$LOG"
  (cd "$dir" && "$@") >>"$LOG" 2>&1 || fail "$what failed (full log: $LOG)"
}

case $PREFIX in
  /?*) ;;
  *) echo "php-zts: PREFIX must be an absolute path, got '${1:-}'" >&2; exit 2 ;;
esac

SCRIPT=$(readlink -f "${BASH_SOURCE[0]}")
SCRIPT_SUM=$(sha256sum "$SCRIPT" | cut -d' ' -f1)
STAMP=$PREFIX/$STAMP_NAME

stamp_ok() {
  [ "${PHP_ZTS_FORCE:-0}" != 1 ] && [ -f "$STAMP" ] && [ -x "$PREFIX/bin/php" ] &&
    grep -qx "script_sha256=$SCRIPT_SUM" "$STAMP"
}

if stamp_ok; then
  echo "php-zts: $PREFIX is up to date ($(grep '^source_version=' "$STAMP" | cut -d= -f2))"
  exit 0
fi

if [ "$(id -u)" -ne 0 ]; then
  echo "php-zts: $PREFIX needs a (re)build, which installs packages: run as root" >&2
  exit 1
fi

mkdir -p "$WORK"
# Two runs at once (say, two CI jobs) would trample the same work dir: take turns, and
# the second one finds the first one's stamp.
exec 9>"$WORK/.lock"
if ! flock -n 9; then
  log "another build holds $WORK/.lock; waiting"
  flock 9
fi
if stamp_ok; then
  echo "php-zts: $PREFIX was built meanwhile"
  exit 0
fi

# Only ever delete a prefix this script made (or an empty one): PREFIX is a parameter.
if [ -e "$PREFIX" ] && [ ! -f "$STAMP" ] && [ ! -f "$PREFIX/$MARKER_NAME" ] &&
  [ -n "$(ls -A "$PREFIX" 2>/dev/null)" ]; then
  echo "php-zts: $PREFIX exists, is not empty and was not made by this script; refusing to touch it" >&2
  exit 1
fi

[ -f "$LOG" ] && mv -f "$LOG" "$LOG.prev"
: >"$LOG"
log "building ZTS PHP into $PREFIX (log: $LOG)"
export DEBIAN_FRONTEND=noninteractive

# --- apt sources: Debian's main suite serves the sources (its security suite may not) ---

has_bookworm_src() {
  # grep without -q: an early exit would kill apt with SIGPIPE and, under pipefail, fail this.
  apt-get indextargets --no-release-info --format '$(TARGET_OF) $(RELEASE) $(COMPONENT)' 2>/dev/null |
    grep -x 'deb-src bookworm main' >/dev/null
}

# Prints a deb-src entry for bookworm/main that mirrors the machine's own deb entry for
# bookworm (same URI and signing options, since apt refuses differing Signed-By values for
# one repository). Arg: "keep" to copy the signing options, "drop" to leave them out.
derive_src_entry() {
  local mode=$1 f
  for f in /etc/apt/sources.list.d/*.sources; do
    [ -f "$f" ] || continue
    awk -v mode="$mode" '
      function flush() {
        if (isdeb && isbookworm && uris != "" && !disabled) {
          print "Types: deb-src"; print uris; print "Suites: bookworm"; print "Components: main"
          if (mode == "keep" && signed != "") printf "%s", signed
          found = 1; exit
        }
        isdeb = isbookworm = disabled = 0; uris = signed = ""; field = ""
      }
      /^[ \t]*#/ { next }
      /^[ \t]*$/ { flush(); next }
      /^[ \t]/ { if (field == "signed-by") signed = signed $0 "\n"; next }
      {
        field = tolower($1); sub(/:.*/, "", field)
        val = $0; sub(/^[^:]*:[ \t]*/, "", val)
        if (field == "types") { n = split(val, t, /[ \t]+/); for (i = 1; i <= n; i++) if (t[i] == "deb") isdeb = 1 }
        else if (field == "suites") { n = split(val, t, /[ \t]+/); for (i = 1; i <= n; i++) if (t[i] == "bookworm") isbookworm = 1 }
        else if (field == "uris") uris = "URIs: " val
        else if (field == "signed-by") signed = "Signed-By: " val "\n"
        else if (field == "enabled" && tolower(val) == "no") disabled = 1
      }
      END { if (!found) flush() }
    ' "$f" | grep . && return 0
  done
  for f in /etc/apt/sources.list /etc/apt/sources.list.d/*.list; do
    [ -f "$f" ] || continue
    awk -v mode="$mode" '
      $1 == "deb" {
        opts = ""; i = 2
        if ($2 ~ /^\[/) { while (i <= NF) { opts = opts (opts == "" ? "" : " ") $i; if ($i ~ /\]$/) break; i++ }; i++ }
        if ($(i + 1) != "bookworm") next
        if (mode != "keep") opts = ""
        print "#list"; print "deb-src " (opts == "" ? "" : opts " ") $i " bookworm main"; exit
      }' "$f" | grep . && return 0
  done
  return 1
}

ensure_deb_src() {
  if has_bookworm_src; then
    log "apt already has a deb-src entry for bookworm/main"
    return 0
  fi
  local mode entry
  for mode in keep drop; do
    rm -f "$SRC_LIST.sources" "$SRC_LIST.list"
    if entry=$(derive_src_entry "$mode"); then
      if [ "${entry%%$'\n'*}" = "#list" ]; then
        printf '%s\n' "${entry#*$'\n'}" >"$SRC_LIST.list"
      else
        printf '%s\n' "$entry" >"$SRC_LIST.sources"
      fi
    else
      # No deb entry for bookworm to copy: fall back to Debian's own mirror.
      {
        echo "Types: deb-src"
        echo "URIs: http://deb.debian.org/debian"
        echo "Suites: bookworm"
        echo "Components: main"
        if [ "$mode" = keep ] && [ -f /usr/share/keyrings/debian-archive-keyring.gpg ]; then
          echo "Signed-By: /usr/share/keyrings/debian-archive-keyring.gpg"
        fi
      } >"$SRC_LIST.sources"
    fi
    if apt-get indextargets >/dev/null 2>>"$LOG" && has_bookworm_src; then
      log "added deb-src for bookworm/main: $(ls "$SRC_LIST".*)"
      cat "$SRC_LIST".* >>"$LOG"
      return 0
    fi
  done
  rm -f "$SRC_LIST.sources" "$SRC_LIST.list"
  fail "could not add a deb-src entry for bookworm/main that apt accepts"
}

ensure_deb_src
step "apt-get update" / apt-get update -q

missing=()
for p in "${BUILD_PACKAGES[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
  step "apt-get install ${missing[*]}" / apt-get install -y -q --no-install-recommends "${missing[@]}"
else
  log "build packages already installed"
fi

# The shared embed SAPI makes libtool compile every file twice, PIC for libphp.so and
# non-PIC for the binaries. With --with-pic both compiles are identical, so ccache turns
# the second into a hit; it also makes a rebuild after a change to this script quick.
export PATH=/usr/lib/ccache:$PATH
export CCACHE_DIR=/opt/corvidine/src/ccache
export CCACHE_MAXSIZE=2G

# --- source ---

APT_SRC_OPTS=(-o APT::Sandbox::User=root)
mkdir -p "$WORK/dl"
# --print-uris leaves out files already downloaded, so ask from an empty directory.
rm -rf "$WORK/uris" && mkdir -p "$WORK/uris"
dsc=$(cd "$WORK/uris" && apt-get "${APT_SRC_OPTS[@]}" source --print-uris "$SRC_PACKAGE" 2>>"$LOG" |
  awk '$2 ~ /\.dsc$/ { print $2; exit }') || true
[ -n "$dsc" ] || fail "apt-get source --print-uris $SRC_PACKAGE found no source package"
SRC_VERSION=${dsc#"${SRC_PACKAGE}_"}
SRC_VERSION=${SRC_VERSION%.dsc}
UPSTREAM_VERSION=${SRC_VERSION%%-*}
UPSTREAM_VERSION=${UPSTREAM_VERSION#*:}
step "apt-get source $SRC_PACKAGE ($SRC_VERSION)" "$WORK/dl" \
  apt-get "${APT_SRC_OPTS[@]}" source --download-only "$SRC_PACKAGE=$SRC_VERSION"

SRC=$WORK/$SRC_PACKAGE-$UPSTREAM_VERSION
rm -rf "$SRC"
# dpkg-source applies Debian's patches. apt has already checked the files against the
# signed Sources index, so the .dsc's own signature check is skipped.
step "unpack $dsc" "$WORK" dpkg-source --no-check -x "$WORK/dl/$dsc" "$SRC"

# Debian's phpize copies libtool's m4 files from $prefix/share/aclocal, which holds them only
# for prefix /usr; point it at the system's copies, as the stock phpize does.
step "point phpize at /usr/share/aclocal" "$SRC" \
  sed -i 's|^aclocaldir="\$prefix/share/aclocal"$|aclocaldir="/usr/share/aclocal"|' scripts/phpize.in
grep -qx 'aclocaldir="/usr/share/aclocal"' "$SRC/scripts/phpize.in" ||
  fail "scripts/phpize.in has no aclocaldir line to fix; Debian's patches changed"

# Debian's patches touch configure.ac and m4 files, so configure must be regenerated.
step "buildconf" "$SRC" ./buildconf --force

CONFIGURE_ARGS=(
  --prefix="$PREFIX"
  --enable-zts
  --disable-all
  --enable-cli
  --enable-embed=shared
  --with-pic
  --enable-fpm
  --disable-phpdbg
  --with-openssl
  --with-curl
  --with-zlib
  --enable-mysqlnd
  --with-mysqli
  --enable-pdo
  --with-pdo-mysql
  --with-pdo-sqlite
  --with-sqlite3
  --enable-opcache
  --enable-session
  --enable-filter
  --enable-ctype
  --enable-tokenizer
  --enable-posix
  --enable-pcntl
  --enable-sockets
  --enable-mbstring
  --with-config-file-path="$PREFIX/etc"
  --with-config-file-scan-dir="$PREFIX/etc/conf.d"
)
# json is built in since PHP 8.0; pass the switch only where configure still knows it.
configure_help=$(cd "$SRC" && ./configure --help) || fail "configure --help failed"
if grep -q -- '--enable-json' <<<"$configure_help"; then
  CONFIGURE_ARGS+=(--enable-json)
fi
echo "configure ${CONFIGURE_ARGS[*]}" >>"$LOG"
step "configure" "$SRC" ./configure "${CONFIGURE_ARGS[@]}"
if grep -q 'unknown configure options' "$LOG"; then
  log "warning: configure did not know some options: $(grep -A1 'unknown configure options' "$LOG" | tail -n1)"
fi
ccache -z >/dev/null 2>&1 || true
step "make -j$JOBS (the long part)" "$SRC" make -j"$JOBS"
ccache -s >>"$LOG" 2>&1 || true

# --- install ---

if [ -e "$PREFIX" ]; then
  log "removing the old $PREFIX"
  rm -rf "$PREFIX"
fi
mkdir -p "$PREFIX"
touch "$PREFIX/$MARKER_NAME"
step "make install" "$SRC" make install
mkdir -p "$PREFIX/etc/conf.d"

RUN_TESTS=$PREFIX/lib/php/build/run-tests.php
if [ ! -f "$RUN_TESTS" ]; then
  log "copying run-tests.php to $RUN_TESTS"
  install -D -m 0644 "$SRC/run-tests.php" "$RUN_TESTS"
fi

# --- checks: a build that cannot do these gets no stamp ---

PHP=$PREFIX/bin/php
log "checking the result"
info=$("$PHP" -n -i) || fail "$PHP -i failed"
grep -qi '^Thread Safety => enabled' <<<"$info" || fail "$PHP is not thread-safe"
mods=$("$PHP" -n -m)
for m in curl mysqli pdo_mysql pdo_sqlite sqlite3 openssl zlib mysqlnd session posix pcntl sockets mbstring; do
  grep -qx "$m" <<<"$mods" || fail "$PHP lacks the $m module"
done
out=$("$PHP" -n -d zend_extension=opcache -v 2>&1) || true
grep -q 'Zend OPcache' <<<"$out" || fail "opcache does not load as a zend_extension: $out"
[ "$("$PREFIX/bin/php-config" --prefix)" = "$PREFIX" ] || fail "php-config does not report $PREFIX"

# phpize + php-config must carry a real extension build through, as the extension's will.
PROBE=$WORK/probe
rm -rf "$PROBE"
mkdir -p "$PROBE"
cat >"$PROBE/config.m4" <<'EOF'
PHP_ARG_ENABLE([zts_probe], [whether to enable zts_probe], [AS_HELP_STRING([--enable-zts-probe], [probe])], [yes])
if test "$PHP_ZTS_PROBE" != "no"; then
  PHP_NEW_EXTENSION(zts_probe, zts_probe.c, $ext_shared)
fi
EOF
cat >"$PROBE/zts_probe.c" <<'EOF'
#ifdef HAVE_CONFIG_H
#include "config.h"
#endif
#include "php.h"

#ifndef ZTS
#error "php-config handed out the headers of a non-ZTS PHP"
#endif

zend_module_entry zts_probe_module_entry = {
    STANDARD_MODULE_HEADER, "zts_probe", NULL, NULL, NULL, NULL, NULL, NULL, "0", STANDARD_MODULE_PROPERTIES};
ZEND_GET_MODULE(zts_probe)
EOF
step "phpize" "$PROBE" "$PREFIX/bin/phpize"
step "configure a probe extension" "$PROBE" ./configure --with-php-config="$PREFIX/bin/php-config"
step "make the probe extension" "$PROBE" make
out=$("$PHP" -n -d extension="$PROBE/modules/zts_probe.so" -m 2>&1) || true
grep -qx zts_probe <<<"$out" || fail "an extension built with $PREFIX/bin/phpize does not load: $out"
[ -f "$PROBE/run-tests.php" ] || fail "phpize did not provide run-tests.php"
rm -rf "$PROBE"

PHP_VERSION=$("$PHP" -n -r 'echo PHP_VERSION;')
ELAPSED=$(($(date +%s) - START))
{
  echo "script_sha256=$SCRIPT_SUM"
  echo "source_package=$SRC_PACKAGE"
  echo "source_version=$SRC_VERSION"
  echo "php_version=$PHP_VERSION"
  echo "built_at=$(date -u +%FT%TZ)"
  echo "build_seconds=$ELAPSED"
  echo "configure=${CONFIGURE_ARGS[*]}"
} >"$STAMP.tmp"
mv -f "$STAMP.tmp" "$STAMP"
rm -f "$PREFIX/$MARKER_NAME"
log "done: PHP $PHP_VERSION (ZTS) from $SRC_PACKAGE $SRC_VERSION in $PREFIX, ${ELAPSED}s"
