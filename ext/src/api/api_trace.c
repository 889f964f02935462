/* The user API's trace and context functions: start and end a trace, read
 * and set the context, name the transaction, ask about the state. */
#include "php_corvidine.h"

#include <limits.h>

#include "corvidine/context.h"
#include "corvidine/metadata.h"
#include "corvidine/settings.h"
#include "corvidine/span.h"

#include "src/api/api.h"
#include "src/laravel/dispatch.h"
#include "src/lifecycle/module.h"
#include "src/lifecycle/request.h"
#include "src/profiler/profiler.h"
#include "src/request/request_trace.h"

/* Buffer of the context's string form. */
#define PHP_VESK_CONTEXT_STRING_SIZE 512

/* At most 255 bytes of name into a transaction-name buffer. */
static void php_vesk_copy_transaction_name(char *target, const char *name, size_t length) {
    if (length > PHP_VESK_TRANSACTION_NAME_SIZE - 1) {
        length = PHP_VESK_TRANSACTION_NAME_SIZE - 1;
    }
    memcpy(target, name, length);
    target[length] = '\0';
}

PHP_FUNCTION(corvidine_get_context) {
    ZEND_PARSE_PARAMETERS_NONE();
    if (!VESK_G(trace_started)) {
        php_vesk_api_warn_not_started();
        RETURN_FALSE;
    }
    if (!VESK_G(tracing)) {
        RETURN_FALSE;
    }
    char buffer[PHP_VESK_CONTEXT_STRING_SIZE];
    if (vesk_metadata_tostr(vesk_context_get(), buffer, sizeof(buffer)) != 0) {
        RETURN_FALSE;
    }
    RETURN_STRING(buffer);
}

PHP_FUNCTION(corvidine_set_context) {
    char *context;
    size_t context_len;
    if (zend_parse_parameters(ZEND_NUM_ARGS(), "s", &context, &context_len) == FAILURE) {
        RETURN_THROWS();
    }
    if (VESK_G(trace_started) && !VESK_G(tracing)) {
        RETURN_FALSE;
    }
    vesk_metadata_t md;
    vesk_metadata_init(&md);
    if (vesk_metadata_fromstr(&md, context, context_len) != 0) {
        zend_error(E_WARNING, "Context %s is not valid and cannot be set", context);
        RETURN_FALSE;
    }
    if (VESK_G(trace_started)) {
        vesk_context_set(&md);
        RETURN_TRUE;
    }
    /* Kept for the next corvidine_start_trace(); request end frees it, so
     * only a request whose end runs may keep one. */
    if (!php_vesk_request_is_active()) {
        RETURN_FALSE;
    }
    if (VESK_G(context_override) != NULL) {
        efree(VESK_G(context_override));
    }
    VESK_G(context_override) = estrndup(context, context_len);
    RETURN_TRUE;
}

PHP_FUNCTION(corvidine_set_transaction_name) {
    char *name;
    size_t name_len;
    if (zend_parse_parameters(ZEND_NUM_ARGS(), "s", &name, &name_len) == FAILURE) {
        RETURN_THROWS();
    }
    if (!VESK_G(trace_started)) {
        zend_error(E_WARNING, "Transaction name can only be set for active traces");
        RETURN_FALSE;
    }
    if (name_len == 0) {
        zend_error(E_WARNING, "Transaction name cannot be empty");
        RETURN_FALSE;
    }
    php_vesk_copy_transaction_name(VESK_G(custom_transaction_name), name, name_len);
    RETURN_TRUE;
}

/* A sampled trace still running is ended as request end would end it; the
 * sampler and Laravel tracing then stay off for the rest of the request. */
static void php_vesk_end_running_trace(void) {
    zend_error(E_WARNING,
               "A trace was already active, corvidine_start_trace ending previous trace and may start a new trace");
    int64_t stop = vesk_span_stop();
    php_vesk_record_span(VESK_G(span_start), stop);
    php_vesk_profiler_request_end();
    php_vesk_laravel_request_shutdown();
    php_vesk_end_trace(NULL, 0, 0);
    VESK_G(trace_started) = 0;
    VESK_G(profiling_enabled) = 0;
    VESK_G(laravel_state) = 0;
}

PHP_FUNCTION(corvidine_start_trace) {
    char *layer, *xtrace = NULL;
    size_t layer_len, xtrace_len = 0;
    zval *info = NULL, *backtrace = NULL;
    if (zend_parse_parameters(ZEND_NUM_ARGS(), "s|s!zz", &layer, &layer_len, &xtrace, &xtrace_len, &info,
                              &backtrace) == FAILURE) {
        RETURN_THROWS();
    }
    /* Without request callbacks nothing would end the trace or free what
     * it holds. */
    if (!php_vesk_request_is_active()) {
        RETURN_FALSE;
    }
    if (VESK_G(tracing)) {
        php_vesk_end_running_trace();
    }
    if (VESK_G(trace_started)) {
        zend_error(E_NOTICE,
                   "Either use_custom_start_trace is off or corvidine_start_trace was previously called, may start a "
                   "new trace");
    }
    VESK_G(trace_started) = 1;
    if (layer_len == 0) {
        zend_error(E_WARNING, "%s() expects label and layer names to not be empty strings",
                   get_active_function_name());
        RETURN_NULL();
    }
    int want_backtrace = 1;
    php_vesk_info_list list;
    if (php_vesk_parse_info_pairs(info, backtrace, NULL, &want_backtrace, &list) != 0) {
        RETURN_NULL();
    }
    php_vesk_request_trace_reset();

    int sample_rate = 0, sample_source = 0;
    int rc = php_vesk_start_trace(layer, xtrace, &sample_rate, &sample_source, list.kvs, list.count,
                                  want_backtrace ? PHP_VESK_EVENT_BACKTRACE : 0);
    php_vesk_info_list_free(&list);
    VESK_G(transaction_name)[0] = '\0';
    VESK_G(custom_transaction_name)[0] = '\0';
    VESK_G(span_start) = vesk_span_start();
    if (rc != 0) {
        RETURN_FALSE;
    }
    array_init(return_value);
    add_assoc_long(return_value, "sample_rate", sample_rate);
    add_assoc_long(return_value, "sample_source", sample_source);
}

PHP_FUNCTION(corvidine_end_trace) {
    int64_t stop = vesk_span_stop();
    zval *info = NULL, *backtrace = NULL, *edge = NULL;
    char *name = NULL;
    size_t name_len = 0;
    if (zend_parse_parameters(ZEND_NUM_ARGS(), "|zzzs!", &info, &backtrace, &edge, &name, &name_len) == FAILURE) {
        RETURN_THROWS();
    }
    if (name != NULL && name_len > 0) {
        php_vesk_copy_transaction_name(VESK_G(custom_transaction_name), name, name_len);
    }
    if (!VESK_G(trace_started)) {
        php_vesk_api_warn_not_started();
        RETURN_FALSE;
    }
    VESK_G(trace_started) = 0;
    if (!VESK_G(tracing)) {
        RETURN_FALSE;
    }
    int want_backtrace = 1;
    php_vesk_info_list list;
    if (php_vesk_parse_info_pairs(info, backtrace, edge, &want_backtrace, &list) != 0) {
        RETURN_NULL();
    }
    php_vesk_record_span(VESK_G(span_start), stop);
    php_vesk_end_trace(list.kvs, list.count, want_backtrace ? PHP_VESK_EVENT_BACKTRACE : 0);
    php_vesk_info_list_free(&list);
    RETURN_TRUE;
}

PHP_FUNCTION(corvidine_is_tracing) {
    ZEND_PARSE_PARAMETERS_NONE();
    RETURN_BOOL(VESK_G(tracing));
}

PHP_FUNCTION(corvidine_trace_started) {
    ZEND_PARSE_PARAMETERS_NONE();
    RETURN_BOOL(VESK_G(trace_started));
}

PHP_FUNCTION(corvidine_is_ready) {
    zend_long timeout = 0;
    if (zend_parse_parameters(ZEND_NUM_ARGS(), "|l", &timeout) == FAILURE) {
        RETURN_THROWS();
    }
    /* Without a started core there is no reporter to ask (and asking would
     * set one up). */
    if (php_vesk_module_state_get() != PHP_VESK_STARTED) {
        RETURN_FALSE;
    }
    /* A negative wait is none; the core takes an unsigned count of ms. */
    unsigned wait_ms = timeout <= 0 ? 0 : (zend_ulong)timeout > UINT_MAX ? UINT_MAX : (unsigned)timeout;
    RETURN_BOOL(vesk_is_ready(wait_ms) != 0);
}

PHP_FUNCTION(corvidine_get_log_trace_id) {
    ZEND_PARSE_PARAMETERS_NONE();
    char buffer[PHP_VESK_LOG_TRACE_ID_SIZE];
    php_vesk_get_log_trace_id(buffer, sizeof(buffer));
    RETURN_STRING(buffer);
}
