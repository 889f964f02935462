/*
 * TEST-ONLY PHP functions of request tracing, registered only when
 * corvidine.internal_test_hooks is 1 (off by default, system level):
 * production never has them.
 *
 *   corvidine_test_log_trace_id(int $size = 43): string
 *   corvidine_test_log_append_trace_id(?string $message): ?string
 *   corvidine_test_server_cache(): array    the request's copy of server variables
 *   corvidine_test_request_ini(): array     per entry read by number: its long,
 *       on/off and string value next to those of the by-name readers
 */
#include "php_corvidine.h"

#include "src/config/ini.h"
#include "src/request/request_ini.h"
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
    php_vesk_server_cache_array(return_value);
}

static PHP_FUNCTION(corvidine_test_request_ini) {
    ZEND_PARSE_PARAMETERS_NONE();
    array_init(return_value);
    for (int id = 0; id < PHP_VESK_RINI_COUNT; id++) {
        zend_ini_entry *entry = php_vesk_request_ini_entry((php_vesk_request_ini_id)id);
        if (entry == NULL) {
            continue;
        }
        const char *name = ZSTR_VAL(entry->name);
        size_t name_len = ZSTR_LEN(entry->name);
        zval values;
        array_init(&values);
        add_assoc_long(&values, "long", php_vesk_request_ini_long((php_vesk_request_ini_id)id));
        add_assoc_long(&values, "by_name_long", zend_ini_long(name, name_len, 0));
        add_assoc_bool(&values, "on", php_vesk_request_ini_on((php_vesk_request_ini_id)id));
        add_assoc_bool(&values, "by_name_on", (zend_ini_long(name, name_len, 0) & 0xFF) == 1);
        add_assoc_string(&values, "str", php_vesk_request_ini_str((php_vesk_request_ini_id)id));
        add_assoc_string(&values, "by_name_str", php_vesk_ini_str(name, name_len));
        add_assoc_zval_ex(return_value, name, name_len, &values);
    }
}

ZEND_BEGIN_ARG_WITH_RETURN_TYPE_INFO_EX(arginfo_corvidine_test_log_trace_id, 0, 0, IS_STRING, 0)
ZEND_ARG_TYPE_INFO_WITH_DEFAULT_VALUE(0, size, IS_LONG, 0, "43")
ZEND_END_ARG_INFO()

ZEND_BEGIN_ARG_WITH_RETURN_TYPE_INFO_EX(arginfo_corvidine_test_log_append_trace_id, 0, 1, IS_STRING, 1)
ZEND_ARG_TYPE_INFO(0, message, IS_STRING, 1)
ZEND_END_ARG_INFO()

ZEND_BEGIN_ARG_WITH_RETURN_TYPE_INFO_EX(arginfo_corvidine_test_server_cache, 0, 0, IS_ARRAY, 0)
ZEND_END_ARG_INFO()

ZEND_BEGIN_ARG_WITH_RETURN_TYPE_INFO_EX(arginfo_corvidine_test_request_ini, 0, 0, IS_ARRAY, 0)
ZEND_END_ARG_INFO()

static const zend_function_entry php_vesk_request_test_functions[] = {
    PHP_FE(corvidine_test_log_trace_id, arginfo_corvidine_test_log_trace_id)
    PHP_FE(corvidine_test_log_append_trace_id, arginfo_corvidine_test_log_append_trace_id)
    PHP_FE(corvidine_test_server_cache, arginfo_corvidine_test_server_cache)
    PHP_FE(corvidine_test_request_ini, arginfo_corvidine_test_request_ini)
    PHP_FE_END
};

void php_vesk_request_test_hooks_minit(int type) {
    if ((zend_ini_long(ZEND_STRL("corvidine.internal_test_hooks"), 0) & 0xFF) == 1) {
        zend_register_functions(NULL, php_vesk_request_test_functions, NULL, type);
    }
}
