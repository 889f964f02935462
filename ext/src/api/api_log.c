/* The user API's event functions: corvidine_log(), corvidine_log_entry(),
 * corvidine_log_exit(), corvidine_log_error(), corvidine_log_exception().
 * They keep no state: entries and exits need not balance. */
#include "php_corvidine.h"

#include <limits.h>

#include "zend_exceptions.h"
#include "zend_interfaces.h"

#include "src/api/api.h"
#include "src/errors/errors.h"

/* Records an event function adds behind the caller's, once it knows the
 * event will be sent (so user code such as an exception's methods runs only
 * then). 0, or -1 with an exception pending. */
typedef int (*php_vesk_extra_records)(php_vesk_info_list *list, int *want_backtrace, void *data);

/* What all event functions share once their own checks passed. */
static void php_vesk_log_event(zval *return_value, const char *layer, const char *label, zval *info,
                               zval *backtrace, zval *edge, int want_backtrace, int extra_flags,
                               php_vesk_extra_records extra, void *data) {
    php_vesk_info_list list;
    if (php_vesk_parse_info_pairs(info, backtrace, edge, &want_backtrace, &list) != 0) {
        RETURN_NULL();
    }
    if (!VESK_G(trace_started)) {
        php_vesk_api_warn_not_started();
        php_vesk_info_list_free(&list);
        RETURN_FALSE;
    }
    if (!VESK_G(tracing)) {
        php_vesk_info_list_free(&list);
        RETURN_FALSE;
    }
    if (label[0] == '\0') {
        zend_error(E_WARNING, "%s() expects label names to not be empty strings", get_active_function_name());
        php_vesk_info_list_free(&list);
        RETURN_FALSE;
    }
    if (extra != NULL && extra(&list, &want_backtrace, data) != 0) {
        php_vesk_info_list_free(&list);
        RETURN_NULL();
    }
    int flags = (want_backtrace ? PHP_VESK_EVENT_BACKTRACE : 0) | extra_flags;
    php_vesk_trace_event(layer, label, list.kvs, flags);
    php_vesk_info_list_free(&list);
    RETURN_TRUE;
}

static int php_vesk_empty_layer(size_t layer_len) {
    if (layer_len == 0) {
        zend_error(E_WARNING, "%s() expects layer name to not be an empty string", get_active_function_name());
        return 1;
    }
    return 0;
}

/* The error functions send a backtrace unless the caller gave one: a null
 * or bool argument counts as true. */
static zval *php_vesk_error_backtrace(zval *backtrace) {
    if (backtrace != NULL) {
        ZVAL_DEREF(backtrace);
        if (Z_TYPE_P(backtrace) == IS_NULL || Z_TYPE_P(backtrace) == IS_TRUE || Z_TYPE_P(backtrace) == IS_FALSE) {
            return NULL;
        }
    }
    return backtrace;
}

/* corvidine_log(label, info[, backtrace]) of old: two or three arguments,
 * a string, an array or object, and a flag. */
static int php_vesk_log_old_form(zend_execute_data *execute_data, zend_string **label, zval **info,
                                 int *want_backtrace) {
    uint32_t count = ZEND_NUM_ARGS();
    if (count < 2 || count > 3) {
        return 0;
    }
    zval *first = ZEND_CALL_ARG(execute_data, 1), *second = ZEND_CALL_ARG(execute_data, 2);
    ZVAL_DEREF(first);
    ZVAL_DEREF(second);
    if (Z_TYPE_P(first) != IS_STRING || (Z_TYPE_P(second) != IS_ARRAY && Z_TYPE_P(second) != IS_OBJECT)) {
        return 0;
    }
    *want_backtrace = 0;
    if (count == 3) {
        zval *third = ZEND_CALL_ARG(execute_data, 3);
        ZVAL_DEREF(third);
        if (Z_TYPE_P(third) > IS_DOUBLE) {
            return 0; /* not a flag: the new form's info */
        }
        *want_backtrace = zend_is_true(third);
    }
    *label = Z_STR_P(first);
    *info = second;
    return 1;
}

PHP_FUNCTION(corvidine_log) {
    zend_string *label;
    zval *info = NULL, *backtrace = NULL, *edge = NULL;
    int flag;
    if (php_vesk_log_old_form(execute_data, &label, &info, &flag)) {
        php_error_docref(NULL, E_DEPRECATED,
                         "This function signature is deprecated, please use corvidine_log(string layer, string "
                         "label[, mixed info = null, mixed backtrace = null, mixed edge = null])");
        zval flag_value;
        ZVAL_BOOL(&flag_value, flag);
        php_vesk_log_event(return_value, NULL, ZSTR_VAL(label), info, &flag_value, NULL, 1, 0, NULL, NULL);
        return;
    }
    zend_string *layer;
    if (zend_parse_parameters(ZEND_NUM_ARGS(), "SS|zzz", &layer, &label, &info, &backtrace, &edge) == FAILURE) {
        RETURN_THROWS();
    }
    php_vesk_log_event(return_value, ZSTR_LEN(layer) > 0 ? ZSTR_VAL(layer) : NULL, ZSTR_VAL(label), info,
                       backtrace, edge, 1, 0, NULL, NULL);
}

PHP_FUNCTION(corvidine_log_entry) {
    zend_string *layer;
    zval *info = NULL, *backtrace = NULL;
    if (zend_parse_parameters(ZEND_NUM_ARGS(), "S|zz", &layer, &info, &backtrace) == FAILURE) {
        RETURN_THROWS();
    }
    if (php_vesk_empty_layer(ZSTR_LEN(layer))) {
        RETURN_FALSE;
    }
    php_vesk_log_event(return_value, ZSTR_VAL(layer), "entry", info, backtrace, NULL, 1, 0, NULL, NULL);
}

PHP_FUNCTION(corvidine_log_exit) {
    zend_string *layer;
    zval *info = NULL, *backtrace = NULL, *edge = NULL;
    if (zend_parse_parameters(ZEND_NUM_ARGS(), "S|zzz", &layer, &info, &backtrace, &edge) == FAILURE) {
        RETURN_THROWS();
    }
    if (php_vesk_empty_layer(ZSTR_LEN(layer))) {
        RETURN_FALSE;
    }
    php_vesk_log_event(return_value, ZSTR_VAL(layer), "exit", info, backtrace, edge, 1, 0, NULL, NULL);
}

typedef struct php_vesk_error_records {
    zend_string *message;
    zend_long code;
    char error_class[PHP_VESK_ERROR_NAME_SIZE];
    char error_code[PHP_VESK_ERROR_NAME_SIZE];
    int32_t level;
} php_vesk_error_records;

static int php_vesk_add_error_records(php_vesk_info_list *list, int *want_backtrace, void *data) {
    (void)want_backtrace;
    php_vesk_error_records *error = data;
    /* A code beyond int is no PHP error type. */
    int type = error->code >= INT_MIN && error->code <= INT_MAX ? (int)error->code : 0;
    php_vesk_get_errorclass(type, error->error_class, sizeof(error->error_class));
    php_vesk_get_errorstr(type, error->error_code, sizeof(error->error_code));
    error->level = php_vesk_get_severity(type);
    php_vesk_info_list_add(list, PHP_VESK_KV_STRING, "Spec", "error", 5);
    php_vesk_info_list_add(list, PHP_VESK_KV_STRING, "ErrorClass", error->error_class,
                           (int64_t)strlen(error->error_class));
    php_vesk_info_list_add(list, PHP_VESK_KV_STRING, "ErrorMsg", ZSTR_VAL(error->message),
                           (int64_t)ZSTR_LEN(error->message));
    php_vesk_info_list_add(list, PHP_VESK_KV_INT, "ErrorLevel", &error->level, 4);
    php_vesk_info_list_add(list, PHP_VESK_KV_STRING, "PHPErrorCode", error->error_code,
                           (int64_t)strlen(error->error_code));
    return 0;
}

PHP_FUNCTION(corvidine_log_error) {
    zend_string *layer;
    php_vesk_error_records error;
    zval *info = NULL, *backtrace = NULL, *edge = NULL;
    if (zend_parse_parameters(ZEND_NUM_ARGS(), "SSl|zzz", &layer, &error.message, &error.code, &info, &backtrace,
                              &edge) == FAILURE) {
        RETURN_THROWS();
    }
    if (php_vesk_empty_layer(ZSTR_LEN(layer))) {
        RETURN_FALSE;
    }
    php_vesk_log_event(return_value, ZSTR_VAL(layer), "error", info, php_vesk_error_backtrace(backtrace), edge, 1,
                       PHP_VESK_EVENT_FORCE_BT, php_vesk_add_error_records, &error);
}

/* One of the exception's methods, into result (undef after an exception). */
static int php_vesk_call_exception_method(zval *exception, const char *name, zval *result) {
    zend_call_method(Z_OBJ_P(exception), Z_OBJCE_P(exception), NULL, name, strlen(name), result, 0, NULL, NULL);
    if (EG(exception)) {
        zval_ptr_dtor(result);
        ZVAL_UNDEF(result);
        return -1;
    }
    return 0;
}

/* One of the exception's methods as a string the list keeps; NULL with an
 * exception pending. */
static zend_string *php_vesk_exception_text(php_vesk_info_list *list, zval *exception, const char *method) {
    zval result;
    if (php_vesk_call_exception_method(exception, method, &result) != 0) {
        return NULL;
    }
    zend_string *text = zval_try_get_string(&result);
    zval_ptr_dtor(&result);
    if (text != NULL) {
        php_vesk_info_list_keep(list, text);
    }
    return text;
}

static int php_vesk_add_exception_records(php_vesk_info_list *list, int *want_backtrace, void *data) {
    zval *exception = data;
    zval line;
    zend_string *message_text = php_vesk_exception_text(list, exception, "getmessage");
    if (message_text == NULL) {
        return -1;
    }
    zend_string *file_text = php_vesk_exception_text(list, exception, "getfile");
    if (file_text == NULL) {
        return -1;
    }
    if (php_vesk_call_exception_method(exception, "getline", &line) != 0) {
        return -1;
    }
    zend_long line_number = zval_get_long(&line);
    zval_ptr_dtor(&line);

    const char *class_name = ZSTR_VAL(Z_OBJCE_P(exception)->name);
    zend_string *text =
        ZSTR_LEN(message_text) > 0
            ? zend_strpprintf(0, "exception '%s' with message '%s' in %s:" ZEND_LONG_FMT, class_name,
                              ZSTR_VAL(message_text), ZSTR_VAL(file_text), line_number)
            : zend_strpprintf(0, "exception '%s' in %s:" ZEND_LONG_FMT, class_name, ZSTR_VAL(file_text), line_number);
    php_vesk_info_list_add(list, PHP_VESK_KV_STRING, "ErrorClass", class_name,
                           (int64_t)ZSTR_LEN(Z_OBJCE_P(exception)->name));
    php_vesk_info_list_add(list, PHP_VESK_KV_STRING, "ErrorMsg", php_vesk_info_list_keep(list, text),
                           (int64_t)ZSTR_LEN(text));

    if (*want_backtrace) {
        zval trace;
        if (php_vesk_call_exception_method(exception, "gettrace", &trace) != 0) {
            return -1;
        }
        if (Z_TYPE(trace) == IS_ARRAY || Z_TYPE(trace) == IS_OBJECT) {
            php_vesk_info_list_set_backtrace(list, &trace);
        }
        zval_ptr_dtor(&trace);
    }
    /* The exception's own trace stands in for the backtrace of this call. */
    *want_backtrace = 0;
    return 0;
}

PHP_FUNCTION(corvidine_log_exception) {
    zend_string *layer;
    zval *exception, *info = NULL, *backtrace = NULL, *edge = NULL;
    if (zend_parse_parameters(ZEND_NUM_ARGS(), "SO|zzz", &layer, &exception, zend_ce_throwable, &info, &backtrace,
                              &edge) == FAILURE) {
        RETURN_THROWS();
    }
    if (php_vesk_empty_layer(ZSTR_LEN(layer))) {
        RETURN_FALSE;
    }
    php_vesk_log_event(return_value, ZSTR_VAL(layer), "error", info, php_vesk_error_backtrace(backtrace), edge, 1,
                       0, php_vesk_add_exception_records, exception);
}
