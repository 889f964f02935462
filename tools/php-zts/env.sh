# Source this (". tools/php-zts/env.sh") to get the paths of the ZTS PHP that
# tools/php-zts/build.sh makes. Set PHP_ZTS_PREFIX first to use another prefix.
# Only sets variables: it neither builds nor checks that the build is there.

PHP_ZTS_PREFIX=${PHP_ZTS_PREFIX:-/opt/corvidine/php-8.2-zts}
PHP_ZTS_PREFIX=${PHP_ZTS_PREFIX%/}
export PHP_ZTS_PREFIX
export PHP_ZTS_BIN="$PHP_ZTS_PREFIX/bin/php"
export PHP_ZTS_PHPIZE="$PHP_ZTS_PREFIX/bin/phpize"
export PHP_ZTS_CONFIG="$PHP_ZTS_PREFIX/bin/php-config"
export PHP_ZTS_RUN_TESTS="$PHP_ZTS_PREFIX/lib/php/build/run-tests.php"
