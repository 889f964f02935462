/*
 * TEST-ONLY wrap family (corvidine.internal_test_hooks = 1): core functions
 * and SPL methods that every PHP has, wrapped like any family, so that the
 * framework is tested without cURL or a database: a by-reference argument
 * (preg_match), exceptions (json_decode with JSON_THROW_ON_ERROR,
 * ArrayIterator::seek), a method a user class can extend (ArrayObject) and
 * one an internal subclass registered before this module copied
 * (ArrayIterator → RecursiveArrayIterator).
 *
 * Its in callback counts the call (per thread) and sends an "entry" event,
 * its out callback an "exit" event with whether an exception is pending.
 */
#include "php_corvidine.h"

#include "zend_exceptions.h"

#include "src/events/php_vesk_events.h"
#include "src/testing/wrap_family.h"
#include "src/wrap/wrap.h"

#define PHP_VESK_TEST_WRAP_MAX 8
static const char *const php_vesk_test_wrap_names[PHP_VESK_TEST_WRAP_MAX] = {
    "preg_match", "json_decode", "ArrayObject::offsetGet", "ArrayIterator::offsetGet", "ArrayIterator::seek"};
/* Calls seen by the in callback, on this thread. */
ZEND_TLS zend_long php_vesk_test_wrap_calls[PHP_VESK_TEST_WRAP_MAX];

static void php_vesk_test_wrap_name(const php_vesk_wrap_target *target, char *buffer, size_t size) {
    if (target->class_name != NULL) {
        snprintf(buffer, size, "%s::%s", target->class_name, target->name);
    } else {
        snprintf(buffer, size, "%s", target->name);
    }
}

intptr_t vesk_test_wrap_in(zend_execute_data *execute_data, zval *return_value, const php_vesk_wrap_target *target) {
    (void)return_value;
    char name[64];
    php_vesk_test_wrap_name(target, name, sizeof(name));
    for (int i = 0; i < PHP_VESK_TEST_WRAP_MAX && php_vesk_test_wrap_names[i] != NULL; i++) {
        if (strcmp(name, php_vesk_test_wrap_names[i]) == 0) {
            php_vesk_test_wrap_calls[i]++;
        }
    }
    int32_t argc = (int32_t)ZEND_CALL_NUM_ARGS(execute_data);
    php_vesk_kv records[] = {
        {PHP_VESK_KV_STRING, "Function", name, (int64_t)strlen(name)},
        {PHP_VESK_KV_INT, "ArgCount", &argc, 4},
        {PHP_VESK_KV_END, NULL, NULL, 0},
    };
    php_vesk_trace_event("test_wrap", "entry", records, 0);
    return argc;
}

void vesk_test_wrap_out(zend_execute_data *execute_data, zval *return_value, const vesk_metadata_t *entry,
                        intptr_t in_result, const php_vesk_wrap_target *target) {
    (void)execute_data;
    (void)return_value;
    char name[64];
    php_vesk_test_wrap_name(target, name, sizeof(name));
    int32_t argc = (int32_t)in_result, exception = EG(exception) != NULL;
    php_vesk_kv records[] = {
        {PHP_VESK_KV_STRING, "Function", name, (int64_t)strlen(name)},
        {PHP_VESK_KV_INT, "ArgCount", &argc, 4},
        {PHP_VESK_KV_BOOL, "Exception", &exception, 4},
        {PHP_VESK_KV_EDGE, "Edge", entry, 0},
        {PHP_VESK_KV_END, NULL, NULL, 0},
    };
    php_vesk_trace_event("test_wrap", "exit", records, 0);
}

/* corvidine_test_wrap_calls(): array, name => calls the family saw active
 * on this thread */
static PHP_FUNCTION(corvidine_test_wrap_calls) {
    ZEND_PARSE_PARAMETERS_NONE();
    array_init(return_value);
    for (int i = 0; i < PHP_VESK_TEST_WRAP_MAX && php_vesk_test_wrap_names[i] != NULL; i++) {
        add_assoc_long(return_value, php_vesk_test_wrap_names[i], php_vesk_test_wrap_calls[i]);
    }
}

/* corvidine_test_wrap_state(): array, wrap_state and wrap_mask of this
 * request */
static PHP_FUNCTION(corvidine_test_wrap_state) {
    ZEND_PARSE_PARAMETERS_NONE();
    array_init(return_value);
    add_assoc_long(return_value, "state", VESK_G(wrap_state));
    add_assoc_long(return_value, "mask", VESK_G(wrap_mask));
}

ZEND_BEGIN_ARG_WITH_RETURN_TYPE_INFO_EX(arginfo_corvidine_test_wrap_array, 0, 0, IS_ARRAY, 0)
ZEND_END_ARG_INFO()

static const zend_function_entry php_vesk_test_wrap_functions[] = {
    PHP_FE(corvidine_test_wrap_calls, arginfo_corvidine_test_wrap_array)
    PHP_FE(corvidine_test_wrap_state, arginfo_corvidine_test_wrap_array)
    PHP_FE_END};

void php_vesk_test_wrap_minit(int type) {
    if ((zend_ini_long(ZEND_STRL("corvidine.internal_test_hooks"), 0) & 0xFF) == 1) {
        zend_register_functions(NULL, php_vesk_test_wrap_functions, NULL, type);
    }
}
