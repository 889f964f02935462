/*
 * TEST-ONLY PHP functions of request tracing, registered only when
 * corvidine.internal_test_hooks is 1 (off by default, system level):
 * production never has them.
 *
 *   corvidine_test_log_trace_id(int $size = 43): string
 *   corvidine_test_log_append_trace_id(?string $message): ?string
 *   corvidine_test_server_cache(): array    a copy of the request's server_cache
 */
#include "php_corvidine.h"

#include "src/request/request_trace.h"

static PHP_FUNCTION(corvidine_test_log_trace_id) {
    zend_long size = PHP_VESK_LOG_TRACE_ID_SIZE;
    ZEND_PARSE_PARAMETERS_START(0, 1)
    Z_PARAM_OPTIONAL
    Z_PARAM_LONG(size)
    ZEND_PARSE_PARAMETERS_END();
    if (size < 1 || size > 256) {
        zend_argument_value_error(1, "must be between 1 and 256");
        RETURN_THROWS();
    }
    /* A canary behind the given size shows a write beyond it. */
    char buffer[257];
    memset(buffer, '#', sizeof(buffer));
    php_vesk_get_log_trace_id(buffer, (size_t)size);
    if (buffer[size] != '#') {
        RETURN_STRING("overflow");
    }
    RETURN_STRING(buffer);
}

static PHP_FUNCTION(corvidine_test_log_append_trace_id) {
    zend_string *message = NULL;
    ZEND_PARSE_PARAMETERS_START(1, 1)
    Z_PARAM_STR_OR_NULL(message)
    ZEND_PARSE_PARAMETERS_END();
    char *result = php_vesk_log_append_trace_id(message != NULL ? ZSTR_VAL(message) : NULL);
    if (result == NULL) {
        RETURN_NULL();
    }
    RETVAL_STRING(result);
    efree(result);
}

static PHP_FUNCTION(corvidine_test_server_cache) {
    ZEND_PARSE_PARAMETERS_NONE();
    zval *cache = &VESK_G(server_cache);
    if (Z_TYPE_P(cache) != IS_ARRAY) {
        RETURN_EMPTY_ARRAY();
    }
    RETURN_ARR(zend_array_dup(Z_ARRVAL_P(cache)));
}

ZEND_BEGIN_ARG_WITH_RETURN_TYPE_INFO_EX(arginfo_corvidine_test_log_trace_id, 0, 0, IS_STRING, 0)
ZEND_ARG_TYPE_INFO_WITH_DEFAULT_VALUE(0, size, IS_LONG, 0, "43")
ZEND_END_ARG_INFO()

ZEND_BEGIN_ARG_WITH_RETURN_TYPE_INFO_EX(arginfo_corvidine_test_log_append_trace_id, 0, 1, IS_STRING, 1)
ZEND_ARG_TYPE_INFO(0, message, IS_STRING, 1)
ZEND_END_ARG_INFO()

ZEND_BEGIN_ARG_WITH_RETURN_TYPE_INFO_EX(arginfo_corvidine_test_server_cache, 0, 0, IS_ARRAY, 0)
ZEND_END_ARG_INFO()

static const zend_function_entry php_vesk_request_test_functions[] = {
    PHP_FE(corvidine_test_log_trace_id, arginfo_corvidine_test_log_trace_id)
    PHP_FE(corvidine_test_log_append_trace_id, arginfo_corvidine_test_log_append_trace_id)
    PHP_FE(corvidine_test_server_cache, arginfo_corvidine_test_server_cache)
    PHP_FE_END
};

void php_vesk_request_test_hooks_minit(int type) {
    if ((zend_ini_long(ZEND_STRL("corvidine.internal_test_hooks"), 0) & 0xFF) == 1) {
        zend_register_functions(NULL, php_vesk_request_test_functions, NULL, type);
    }
}
