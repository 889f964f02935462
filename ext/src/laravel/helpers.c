/* Helpers of the Laravel filters and actions (see helpers.h). */
#include "php_corvidine.h"

#include <stdarg.h>

#include "zend_exceptions.h"
#include "zend_interfaces.h"

#include "src/laravel/helpers.h"

#define VESK_LARAVEL_MAX_ARGS 4

const char *vesk_laravel_get_method(zend_execute_data *execute_data) {
    if (execute_data == NULL || execute_data->func == NULL || execute_data->func->common.function_name == NULL) {
        return NULL;
    }
    return ZSTR_VAL(execute_data->func->common.function_name);
}

const char *vesk_laravel_get_class(zend_execute_data *execute_data) {
    if (execute_data == NULL || execute_data->func == NULL) {
        return NULL;
    }
    if (Z_TYPE(execute_data->This) == IS_OBJECT) {
        return ZSTR_VAL(Z_OBJCE(execute_data->This)->name);
    }
    zend_class_entry *scope = execute_data->func->common.scope;
    return scope != NULL ? ZSTR_VAL(scope->name) : NULL;
}

int vesk_laravel_string_ends_with(const char *text, const char *suffix) {
    if (text == NULL || suffix == NULL) {
        return 0;
    }
    size_t text_length = strlen(text), suffix_length = strlen(suffix);
    return text_length >= suffix_length && memcmp(text + text_length - suffix_length, suffix, suffix_length) == 0;
}

int vesk_laravel_is_class_of(zend_execute_data *execute_data, const char *suffix) {
    return vesk_laravel_string_ends_with(vesk_laravel_get_class(execute_data), suffix);
}

int vesk_laravel_class_contains(zend_execute_data *execute_data, const char *text) {
    const char *name = vesk_laravel_get_class(execute_data);
    return name != NULL && strstr(name, text) != NULL;
}

static zend_class_entry *vesk_laravel_lookup_class(const char *name, int autoload) {
    zend_string *key = zend_string_init(name, strlen(name), 0);
    zend_class_entry *ce = zend_lookup_class_ex(key, NULL, autoload ? 0 : ZEND_FETCH_CLASS_NO_AUTOLOAD);
    zend_string_release(key);
    return ce;
}

/* Mirrors php-src 8.2's is_subclass_of() (zend_builtin_functions.c,
 * is_a_impl with only_subclass and allow_string). */
int vesk_laravel_is_subclass_of(zval *value, const char *class_name, int autoload) {
    if (value == NULL || class_name == NULL) {
        return 0;
    }
    ZVAL_DEREF(value);
    zend_class_entry *instance_ce;
    if (Z_TYPE_P(value) == IS_OBJECT) {
        instance_ce = Z_OBJCE_P(value);
    } else if (Z_TYPE_P(value) == IS_STRING) {
        instance_ce = zend_lookup_class_ex(Z_STR_P(value), NULL, autoload ? 0 : ZEND_FETCH_CLASS_NO_AUTOLOAD);
        if (instance_ce == NULL) {
            return 0;
        }
    } else {
        return 0;
    }
    zend_class_entry *ce = vesk_laravel_lookup_class(class_name, 0);
    return ce != NULL && instance_ce != ce && instanceof_function(instance_ce, ce);
}

int vesk_laravel_class_implements(zval *value, const char *interface) {
    if (value == NULL || interface == NULL) {
        return 0;
    }
    ZVAL_DEREF(value);
    zend_class_entry *ce;
    if (Z_TYPE_P(value) == IS_OBJECT) {
        ce = Z_OBJCE_P(value);
    } else if (Z_TYPE_P(value) == IS_STRING) {
        ce = vesk_laravel_lookup_class(Z_STRVAL_P(value), 0);
    } else {
        return 0;
    }
    zend_class_entry *interface_ce = vesk_laravel_lookup_class(interface, 0);
    return ce != NULL && interface_ce != NULL && instanceof_function(ce, interface_ce);
}

zval *vesk_laravel_find(HashTable *table, const char *key) {
    if (table == NULL || key == NULL) {
        return NULL;
    }
    zval *value = zend_hash_str_find_ind(table, key, strlen(key));
    if (value == NULL) {
        return NULL;
    }
    ZVAL_DEREF(value);
    return Z_TYPE_P(value) == IS_UNDEF ? NULL : value;
}

static zval *vesk_laravel_defined(zval *value) {
    if (value == NULL) {
        return NULL;
    }
    ZVAL_DEREF(value);
    return Z_TYPE_P(value) == IS_UNDEF ? NULL : value;
}

/* Slot of the compiled variable name, or -1. */
static int vesk_laravel_var_slot(zend_execute_data *execute_data, const char *name) {
    if (execute_data == NULL || execute_data->func == NULL || !ZEND_USER_CODE(execute_data->func->type)) {
        return -1;
    }
    const zend_op_array *op_array = &execute_data->func->op_array;
    size_t length = strlen(name);
    for (int i = 0; i < op_array->last_var; i++) {
        if (zend_string_equals_cstr(op_array->vars[i], name, length)) {
            return i;
        }
    }
    return -1;
}

zval *vesk_laravel_find_named_var(zend_execute_data *execute_data, const char *name) {
    int slot = vesk_laravel_var_slot(execute_data, name);
    return slot >= 0 ? vesk_laravel_defined(ZEND_CALL_VAR_NUM(execute_data, slot)) : NULL;
}

zval *vesk_laravel_find_var(zend_execute_data *execute_data, const char *name, uint32_t position) {
    int slot = vesk_laravel_var_slot(execute_data, name);
    if (slot >= 0) {
        return vesk_laravel_defined(ZEND_CALL_VAR_NUM(execute_data, slot));
    }
    if (execute_data == NULL || execute_data->func == NULL || !ZEND_USER_CODE(execute_data->func->type) ||
        position >= (uint32_t)execute_data->func->op_array.last_var) {
        return NULL;
    }
    return vesk_laravel_defined(ZEND_CALL_VAR_NUM(execute_data, position));
}

zend_result vesk_laravel_call_user_function(zval *object, const char *name, zval *result, uint32_t count, ...) {
    zval params[VESK_LARAVEL_MAX_ARGS];
    ZVAL_UNDEF(result);
    if (count > VESK_LARAVEL_MAX_ARGS || name == NULL || (object != NULL && Z_TYPE_P(object) != IS_OBJECT)) {
        return FAILURE;
    }
    va_list args;
    va_start(args, count);
    for (uint32_t i = 0; i < count; i++) {
        zval *arg = va_arg(args, zval *);
        if (arg == NULL) {
            ZVAL_NULL(&params[i]);
        } else {
            ZVAL_COPY_VALUE(&params[i], arg);
        }
    }
    va_end(args);

    zval function_name;
    ZVAL_STRING(&function_name, name);
    zend_result rc = call_user_function(NULL, object, &function_name, result, count, params);
    zval_ptr_dtor(&function_name);
    if (rc != SUCCESS || EG(exception) != NULL) {
        zval_ptr_dtor(result);
        ZVAL_UNDEF(result);
        return FAILURE;
    }
    return SUCCESS;
}

const char *vesk_laravel_property_str(zend_execute_data *execute_data, const char *name) {
    if (Z_TYPE(execute_data->This) != IS_OBJECT) {
        return NULL;
    }
    zval *value = vesk_laravel_find(Z_OBJ_HT(execute_data->This)->get_properties(Z_OBJ(execute_data->This)), name);
    return value != NULL && Z_TYPE_P(value) == IS_STRING ? Z_STRVAL_P(value) : NULL;
}
