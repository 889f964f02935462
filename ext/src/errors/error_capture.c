/*
 * The zend_error_cb hook (PHP 8.2 form: the message arrives formatted).
 * php-src 8.2's zend_error_impl calls it with the type as raised, so an
 * uncaught exception arrives as E_ERROR | E_DONT_BAIL.
 */
#include "php_corvidine.h"

#include "corvidine/context.h"

#include "src/errors/errors.h"
#include "src/events/php_vesk_events.h"
#include "src/request/request_ini.h"
#include "src/request/request_trace.h"

typedef void (*php_vesk_error_cb)(int type, zend_string *file, const uint32_t line, zend_string *message);

/* Written at module start and shutdown only. */
static php_vesk_error_cb old_error_handler;

/* Reported without corvidine.use_error_reporting: errors and warnings, not
 * notices, strict or deprecation notices. */
#define PHP_VESK_ERRORS_REPORTED                                                                          \
    (E_ERROR | E_WARNING | E_PARSE | E_CORE_ERROR | E_CORE_WARNING | E_COMPILE_ERROR | E_COMPILE_WARNING | \
     E_USER_ERROR | E_USER_WARNING | E_RECOVERABLE_ERROR)

static int php_vesk_error_reported(int type) {
    if (!VESK_G(enable_error_callback)) {
        return 0;
    }
    /* "@" no longer zeroes error_reporting: it keeps the fatal bits. */
    int suppressed = (EG(error_reporting) & ~E_FATAL_ERRORS) == 0;
    if (!VESK_G(report_suppressed_errors) && suppressed) {
        return 0;
    }
    if (VESK_G(use_error_reporting)) {
        if ((EG(error_reporting) & type) == 0 && !(VESK_G(report_suppressed_errors) && suppressed)) {
            return 0;
        }
    } else if ((type & PHP_VESK_ERRORS_REPORTED) == 0) {
        return 0;
    }
    return vesk_metadata_is_sampled(vesk_context_get());
}

static void php_vesk_error_event(int type, zend_string *file, uint32_t line, zend_string *message) {
    char error_class[PHP_VESK_ERROR_NAME_SIZE], code[PHP_VESK_ERROR_NAME_SIZE];
    php_vesk_get_errorclass(type, error_class, sizeof(error_class));
    php_vesk_get_errorstr(type, code, sizeof(code));
    int32_t level = php_vesk_get_severity(type), suppressed_flag = 1;

    char *text;
    spprintf(&text, 0, "PHP %s:  %s in %s on line %u", php_vesk_get_errorlabel(type), ZSTR_VAL(message),
             file != NULL ? ZSTR_VAL(file) : "Unknown", line);
    php_vesk_kv records[] = {
        {PHP_VESK_KV_STRING, "Spec", "error", 5},
        {PHP_VESK_KV_STRING, "ErrorClass", error_class, (int64_t)strlen(error_class)},
        {PHP_VESK_KV_STRING, "ErrorMsg", text, (int64_t)strlen(text)},
        {PHP_VESK_KV_INT, "ErrorLevel", &level, 4},
        {PHP_VESK_KV_STRING, "PHPErrorCode", code, (int64_t)strlen(code)},
        /* On every event while the entry is on, not only on "@" errors. */
        {VESK_G(report_suppressed_errors) ? PHP_VESK_KV_INT : PHP_VESK_KV_END, "PHPSuppressed", &suppressed_flag, 4},
        {PHP_VESK_KV_END, NULL, NULL, 0},
    };
    php_vesk_trace_event("PHP", "error", records, PHP_VESK_EVENT_BACKTRACE | PHP_VESK_EVENT_FORCE_BT);
    efree(text);
}

static void vesk_error_handler(int orig_type, zend_string *file, const uint32_t line, zend_string *message) {
    if (!php_vesk_request_ini_on(PHP_VESK_RINI_ENABLE)) {
        old_error_handler(orig_type, file, line, message);
        return;
    }
    int type = orig_type & ~E_DONT_BAIL;
    if (php_vesk_error_reported(type)) {
        php_vesk_error_event(type, file, line, message);
    }

    /* The id joins the message PHP logs and shows; it is formatted already,
     * so a "%" in it stays as it is. */
    char *suffix = php_vesk_log_append_trace_id("");
    if (suffix == NULL) {
        old_error_handler(orig_type, file, line, message);
        return;
    }
    zend_string *with_id = zend_string_concat2(ZSTR_VAL(message), ZSTR_LEN(message), suffix, strlen(suffix));
    efree(suffix);
    /* A fatal type may not return (bailout): the request heap takes the
     * string back then. */
    old_error_handler(orig_type, file, line, with_id);
    zend_string_release(with_id);
}

void php_vesk_errors_minit(void) {
    if ((zend_ini_long(ZEND_STRL("corvidine.enable_error_callback"), 0) & 0xFF) != 1) {
        return;
    }
    old_error_handler = zend_error_cb;
    zend_error_cb = vesk_error_handler;
}

void php_vesk_errors_mshutdown(void) {
    if (old_error_handler != NULL && zend_error_cb == vesk_error_handler) {
        zend_error_cb = old_error_handler;
    }
    old_error_handler = NULL;
}
