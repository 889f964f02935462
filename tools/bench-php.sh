# Sourced by the extension benchmarks: builds corvidine.so for $FLAVOUR (nts or
# zts) and sets SO to it and PHP to the matching interpreter. Needs ROOT.
SO=$("$ROOT/tools/test-ext.sh" "$FLAVOUR" --build-only | tail -n1)
if [ "$FLAVOUR" = zts ]; then
  # shellcheck source=php-zts/env.sh
  . "$ROOT/tools/php-zts/env.sh"
  PHP=$PHP_ZTS_BIN
else
  PHP=$(/usr/bin/php-config8.2 --php-binary)
fi
