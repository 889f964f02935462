/*
 * The error_log family: an "error_log" event with the message on traced
 * requests, and the log trace id appended to the message on every request
 * that corvidine.log_trace_id asks it for.
 */
#include "php_corvidine.h"

#include "src/events/php_vesk_events.h"
#include "src/request/request_trace.h"
#include "src/wrap/wrap.h"

/* Bytes of the message an event keeps. */
#define PHP_VESK_ERROR_LOG_MESSAGE_MAX 1024

intptr_t vesk_error_log_in(zend_execute_data *execute_data, zval *return_value, const php_vesk_wrap_target *target) {
    (void)return_value;
    (void)target;
    uint32_t argc = ZEND_CALL_NUM_ARGS(execute_data);
    /* error_log(string $message, int $type = 0, ?string $destination = null,
     * ?string $headers = null): other counts fail in the original. */
    if (argc < 1 || argc > 4) {
        return 0;
    }
    zval *message = ZEND_CALL_ARG(execute_data, 1);
    if (Z_TYPE_P(message) != IS_STRING) {
        /* The original converts or refuses it; neither is ours to do. */
        return 0;
    }
    if (VESK_G(tracing)) {
        /* String records are NUL-terminated: a long message is cut in a copy. */
        size_t length = MIN(Z_STRLEN_P(message), PHP_VESK_ERROR_LOG_MESSAGE_MAX);
        char *text = estrndup(Z_STRVAL_P(message), length);
        php_vesk_kv records[] = {
            {PHP_VESK_KV_STRING, "Message", text, (int64_t)length},
            {PHP_VESK_KV_END, NULL, NULL, 0},
        };
        php_vesk_trace_event(NULL, "error_log", records, PHP_VESK_EVENT_BACKTRACE);
        efree(text);
    }
    /* The frame owns its arguments: the longer text replaces the message,
     * and the frame frees it after the call. */
    char *suffix = php_vesk_log_append_trace_id("");
    if (suffix != NULL) {
        zend_string *longer = zend_string_concat2(Z_STRVAL_P(message), Z_STRLEN_P(message), suffix, strlen(suffix));
        efree(suffix);
        zval_ptr_dtor(message);
        ZVAL_STR(message, longer);
    }
    return 0;
}
