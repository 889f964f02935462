/*
 * INI entries read on every request, by number instead of by name.
 *
 * zend_ini_long() and zend_ini_string_ex() hash the entry's name on every
 * call; here each name is a string whose hash is worked out once per
 * process, so a read is one probe of the thread's INI table. The values are
 * exactly those of the by-name readers (the entry's current value), so a
 * per-directory or ini_set() value is seen at once as before.
 */
#ifndef PHP_VESK_REQUEST_INI_H
#define PHP_VESK_REQUEST_INI_H

#include "php.h"

typedef enum {
    PHP_VESK_RINI_ENABLE,
    PHP_VESK_RINI_SERVICE_KEY,
    PHP_VESK_RINI_USE_CUSTOM_START_TRACE,
    PHP_VESK_RINI_ENABLE_SANITIZE_SQL,
    PHP_VESK_RINI_ENABLE_PROFILING,
    PHP_VESK_RINI_PROFILING_INTERVAL,
    PHP_VESK_RINI_ENABLE_LARAVEL_TRACING,
    PHP_VESK_RINI_LARAVEL_ENABLE_BACKTRACE,
    PHP_VESK_RINI_TRACING,
    PHP_VESK_RINI_TRANSACTION_SETTINGS_FILE,
    PHP_VESK_RINI_SAMPLE_RATE,
    PHP_VESK_RINI_XTRACE,
    PHP_VESK_RINI_TRANSACTION_PREPEND_DOMAIN,
    PHP_VESK_RINI_FILTER_DEFAULT, /* the filter extension's; absent without it */
    PHP_VESK_RINI_COUNT
} php_vesk_request_ini_id;

/* The entry, or null when no such entry is registered. */
zend_ini_entry *php_vesk_request_ini_entry(php_vesk_request_ini_id id);
/* As zend_ini_long(name, len, 0): 0 when absent or unset. */
zend_long php_vesk_request_ini_long(php_vesk_request_ini_id id);
/* As VESK_INI_ON: the low byte of the integer value is 1. */
int php_vesk_request_ini_on(php_vesk_request_ini_id id);
/* As VESK_INI_OFF: the low byte of the integer value is 0. */
int php_vesk_request_ini_off(php_vesk_request_ini_id id);
/* As VESK_INI_STR: never null, "" when absent or unset. */
const char *php_vesk_request_ini_str(php_vesk_request_ini_id id);

#endif
