/*
 * INI entries read on every request, by number instead of by name.
 *
 * zend_ini_long() and zend_ini_string_ex() hash the entry's name on every
 * call and probe the INI table; here each record is found once per thread
 * and kept, so a read is a load of the record's current value. The values are
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
/* Drops the thread's found entries (module shutdown). */
void php_vesk_request_ini_forget(void);

/* As zend_ini_long(name, len, 0): 0 when absent or unset. */
static inline zend_long php_vesk_request_ini_long(php_vesk_request_ini_id id) {
    zend_ini_entry *entry = php_vesk_request_ini_entry(id);
    if (entry == NULL || entry->value == NULL) {
        return 0;
    }
    /* Plain decimal numbers (the on/off entries' one digit, a sample rate):
     * strtol's answer without its cost. A leading 0 means octal to strtol
     * with base 0, and signs, blanks, hex and overlong values go to it too. */
    const char *value = ZSTR_VAL(entry->value);
    size_t length = ZSTR_LEN(entry->value);
    if (length == 1 && value[0] >= '0' && value[0] <= '9') {
        return value[0] - '0';
    }
    if (length >= 2 && length <= 18 && value[0] >= '1' && value[0] <= '9') {
        zend_long number = 0;
        size_t i = 0;
        for (; i < length && value[i] >= '0' && value[i] <= '9'; i++) {
            number = number * 10 + (value[i] - '0');
        }
        if (i == length) {
            return number;
        }
    }
    return ZEND_STRTOL(value, NULL, 0);
}

/* As VESK_INI_ON: the low byte of the integer value is 1. */
static inline int php_vesk_request_ini_on(php_vesk_request_ini_id id) {
    return (php_vesk_request_ini_long(id) & 0xFF) == 1;
}

/* As VESK_INI_OFF: the low byte of the integer value is 0. */
static inline int php_vesk_request_ini_off(php_vesk_request_ini_id id) {
    return (php_vesk_request_ini_long(id) & 0xFF) == 0;
}

/* As VESK_INI_STR: never null, "" when absent or unset. */
static inline const char *php_vesk_request_ini_str(php_vesk_request_ini_id id) {
    zend_ini_entry *entry = php_vesk_request_ini_entry(id);
    return entry != NULL && entry->value != NULL ? ZSTR_VAL(entry->value) : "";
}

#endif
