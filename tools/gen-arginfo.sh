#!/usr/bin/env bash
# Makes ext/corvidine_arginfo.h (the argument information of the user API's
# functions) from ext/corvidine.stub.php with PHP's own gen_stub.php.
#
#   tools/gen-arginfo.sh           regenerate the header after an edit of the stub
#   tools/gen-arginfo.sh --check   exit 1 when the committed header is not what the stub gives
#
# gen_stub.php (php8.2-dev) wants PHP-Parser next to itself; it runs from a
# copy in a temporary folder with Debian's php-parser linked in, so it never
# downloads anything.
set -euo pipefail
ROOT=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
GEN_STUB=${GEN_STUB:-$(dpkg -L php8.2-dev 2>/dev/null | grep '/gen_stub\.php$' | head -n1)}
PARSER=/usr/share/php/PhpParser
PHP=${PHP:-$(command -v php8.2 || command -v php)}
[ -f "$GEN_STUB" ] || { echo "gen-arginfo: gen_stub.php not found (apt-get install php8.2-dev)" >&2; exit 1; }
[ -d "$PARSER" ] || { echo "gen-arginfo: $PARSER not found (apt-get install php-parser)" >&2; exit 1; }

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cp "$GEN_STUB" "$work/gen_stub.php"
# The version gen_stub.php asks for; Debian's 4.15 series has the same API.
version=$(sed -n 's/^ *\$version = "\([0-9.]*\)";/\1/p' "$GEN_STUB" | head -n1)
mkdir -p "$work/PHP-Parser-$version/lib"
ln -s "$PARSER" "$work/PHP-Parser-$version/lib/PhpParser"
cp "$ROOT/ext/corvidine.stub.php" "$work/"
"$PHP" "$work/gen_stub.php" -f "$work/corvidine.stub.php" >/dev/null

if [ "${1:-}" = --check ]; then
  if ! cmp -s "$work/corvidine_arginfo.h" "$ROOT/ext/corvidine_arginfo.h"; then
    diff -u "$ROOT/ext/corvidine_arginfo.h" "$work/corvidine_arginfo.h" >&2 || true
    echo "gen-arginfo: ext/corvidine_arginfo.h is stale: run tools/gen-arginfo.sh" >&2
    exit 1
  fi
  echo "gen-arginfo: ext/corvidine_arginfo.h matches ext/corvidine.stub.php"
else
  cp "$work/corvidine_arginfo.h" "$ROOT/ext/corvidine_arginfo.h"
  echo "gen-arginfo: wrote ext/corvidine_arginfo.h"
fi
