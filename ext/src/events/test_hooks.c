/*
 * TEST-ONLY PHP functions, corvidine_test_*(), that drive the event helpers
 * from PHP scripts. They exist only when corvidine.internal_test_hooks is 1
 * (PHP_INI_SYSTEM, off by default): production never has them. They can
 * replace the thread's trace context and send arbitrary events, so they must
 * never be turned on outside the test suite.
 */
#include "php_corvidine.h"

#include "zend_exceptions.h"

#include "corvidine/context.h"

#include "src/events/php_vesk_events.h"

// clang-format off
PHP_INI_BEGIN()
    PHP_INI_ENTRY("corvidine.internal_test_hooks", "0", PHP_INI_SYSTEM, NULL)
PHP_INI_END()
// clang-format on

/* corvidine_test_set_context(string $xtrace): bool */
static PHP_FUNCTION(corvidine_test_set_context) {
    zend_string *xtrace;
    ZEND_PARSE_PARAMETERS_START(1, 1)
    Z_PARAM_STR(xtrace)
    ZEND_PARSE_PARAMETERS_END();
    RETURN_BOOL(vesk_context_set_fromstr(ZSTR_VAL(xtrace), ZSTR_LEN(xtrace)) == 0);
}

/* corvidine_test_context(): ?string, the context's X-Trace when valid */
static PHP_FUNCTION(corvidine_test_context) {
    char buffer[VESK_MAX_METADATA_STRING_LEN];
    ZEND_PARSE_PARAMETERS_NONE();
    if (!vesk_context_is_valid() || vesk_metadata_tostr(vesk_context_get(), buffer, sizeof(buffer)) != 0) {
        RETURN_NULL();
    }
    RETURN_STRING(buffer);
}

/* corvidine_test_exit_event(int $state): ?string
 * 0 destroys a prepared exit event; 1 or 2 prepares one on the context with
 * that state and returns its X-Trace. */
static PHP_FUNCTION(corvidine_test_exit_event) {
    zend_long state;
    char buffer[VESK_MAX_METADATA_STRING_LEN];
    ZEND_PARSE_PARAMETERS_START(1, 1)
    Z_PARAM_LONG(state)
    ZEND_PARSE_PARAMETERS_END();
    if (VESK_G(exit_event_state) != 0) {
        vesk_event_destroy(&VESK_G(exit_event));
        VESK_G(exit_event_state) = 0;
    }
    if (state <= 0) {
        RETURN_NULL();
    }
    if (vesk_event_init(&VESK_G(exit_event), vesk_context_get(), NULL) != 0) {
        RETURN_NULL();
    }
    VESK_G(exit_event_state) = (zend_uchar)state;
    vesk_metadata_tostr(&VESK_G(exit_event).metadata, buffer, sizeof(buffer));
    RETURN_STRING(buffer);
}

/* corvidine_test_exit_event_state(): int */
static PHP_FUNCTION(corvidine_test_exit_event_state) {
    ZEND_PARSE_PARAMETERS_NONE();
    RETURN_LONG(VESK_G(exit_event_state));
}

/* corvidine_test_set_service_name(?string $name): void, this request's own
 * service name (request_service_name), as a per-directory key would set it. */
static PHP_FUNCTION(corvidine_test_set_service_name) {
    zend_string *name = NULL;
    ZEND_PARSE_PARAMETERS_START(1, 1)
    Z_PARAM_STR_OR_NULL(name)
    ZEND_PARSE_PARAMETERS_END();
    if (VESK_G(request_service_name) != NULL) {
        efree(VESK_G(request_service_name));
        VESK_G(request_service_name) = NULL;
    }
    if (name != NULL) {
        VESK_G(request_service_name) = estrndup(ZSTR_VAL(name), ZSTR_LEN(name));
    }
}

/* Storage behind one record built from PHP. */
typedef struct php_vesk_test_record {
    php_vesk_kv_scratch scratch;
    vesk_metadata_t metadata;
    vesk_php_mongo_buffer document;
    vesk_bson handle;
} php_vesk_test_record;

/* One record from [type, key, value, length?]; length defaults to the
 * string's length for strings and to 8 for integers. */
static void php_vesk_test_fill_record(zval *spec, php_vesk_kv *record, php_vesk_test_record *store) {
    memset(record, 0, sizeof(*record));
    record->type = -1; /* skipped unless the description is usable */
    if (Z_TYPE_P(spec) != IS_ARRAY) {
        return;
    }
    zval *type = zend_hash_index_find(Z_ARRVAL_P(spec), 0);
    zval *key = zend_hash_index_find(Z_ARRVAL_P(spec), 1);
    zval *value = zend_hash_index_find(Z_ARRVAL_P(spec), 2);
    zval *length = zend_hash_index_find(Z_ARRVAL_P(spec), 3);
    if (type == NULL || Z_TYPE_P(type) != IS_LONG) {
        return;
    }
    record->type = (int32_t)Z_LVAL_P(type);
    record->key = key != NULL && Z_TYPE_P(key) == IS_STRING ? Z_STRVAL_P(key) : "";
    record->length = length != NULL ? zval_get_long(length) : 8;
    if (value == NULL || Z_TYPE_P(value) == IS_NULL) {
        return;
    }
    switch (record->type) {
        case PHP_VESK_KV_STRING:
        case PHP_VESK_KV_BINARY:
        case PHP_VESK_KV_XTRACE:
            if (Z_TYPE_P(value) == IS_STRING) {
                record->value = Z_STRVAL_P(value);
                if (length == NULL) {
                    record->length = (int64_t)Z_STRLEN_P(value);
                }
            }
            break;
        case PHP_VESK_KV_INT:
            if (record->length == 4) {
                store->scratch.b = (int32_t)zval_get_long(value);
            } else {
                store->scratch.l = (int64_t)zval_get_long(value);
            }
            record->value = &store->scratch;
            break;
        case PHP_VESK_KV_DOUBLE:
            store->scratch.d = zval_get_double(value);
            record->value = &store->scratch;
            break;
        case PHP_VESK_KV_BOOL:
            store->scratch.b = (int32_t)zval_get_long(value);
            record->value = &store->scratch;
            break;
        case PHP_VESK_KV_BSON:
            if (Z_TYPE_P(value) == IS_ARRAY) {
                vesk_php_mongo_buffer_init(&store->document);
                vesk_zval_to_bson(&store->document, Z_ARRVAL_P(value), IS_ARRAY);
                store->handle.data = store->document.start;
                store->handle.owned = 0;
                record->value = &store->handle;
            }
            break;
        case PHP_VESK_KV_EDGE:
            vesk_metadata_init(&store->metadata);
            if (Z_TYPE_P(value) == IS_STRING) {
                vesk_metadata_fromstr(&store->metadata, Z_STRVAL_P(value), Z_STRLEN_P(value));
            }
            record->value = &store->metadata;
            break;
        case PHP_VESK_KV_BACKTRACE:
            record->value = value;
            break;
        default:
            record->value = value; /* unknown types must add nothing */
            break;
    }
}

/* corvidine_test_event(?string $layer, ?string $label, ?array $records = null,
 *                      int $flags = 0, mixed ...$extra): int, the send result.
 * Records are [type, key, value, length?]; the list ends where the array
 * does, or at a record of type 0. $extra only gives the call arguments to
 * report (flag 8). */
static PHP_FUNCTION(corvidine_test_event) {
    zend_string *layer = NULL, *label = NULL;
    HashTable *specs = NULL;
    zend_long flags = 0;
    zval *extra;
    int extra_count;
    ZEND_PARSE_PARAMETERS_START(2, -1)
    Z_PARAM_STR_OR_NULL(layer)
    Z_PARAM_STR_OR_NULL(label)
    Z_PARAM_OPTIONAL
    Z_PARAM_ARRAY_HT_OR_NULL(specs)
    Z_PARAM_LONG(flags)
    Z_PARAM_VARIADIC('*', extra, extra_count)
    ZEND_PARSE_PARAMETERS_END();
    (void)extra;
    (void)extra_count;

    uint32_t count = specs != NULL ? zend_hash_num_elements(specs) : 0;
    php_vesk_kv *records = ecalloc(count + 1, sizeof(*records));
    php_vesk_test_record *stores = ecalloc(count + 1, sizeof(*stores));
    uint32_t used = 0;
    if (specs != NULL) {
        zval *spec;
        ZEND_HASH_FOREACH_VAL(specs, spec) {
            php_vesk_test_fill_record(spec, &records[used], &stores[used]);
            if (records[used].type != -1) {
                used++;
            }
        }
        ZEND_HASH_FOREACH_END();
    }
    records[used].type = PHP_VESK_KV_END;

    int rc = php_vesk_trace_event(layer ? ZSTR_VAL(layer) : NULL, label ? ZSTR_VAL(label) : NULL,
                                  specs != NULL ? records : NULL, (int)flags);
    for (uint32_t i = 0; i < used; i++) {
        vesk_php_mongo_buffer_free(&stores[i].document);
    }
    efree(stores);
    efree(records);
    RETURN_LONG(rc);
}

/* corvidine_test_backtrace(int $limit = 0): ?string */
static PHP_FUNCTION(corvidine_test_backtrace) {
    zend_long limit = 0;
    ZEND_PARSE_PARAMETERS_START(0, 1)
    Z_PARAM_OPTIONAL
    Z_PARAM_LONG(limit)
    ZEND_PARSE_PARAMETERS_END();
    size_t length = 0;
    char *text = vesk_get_backtrace((int)limit, &length);
    if (text == NULL) {
        RETURN_NULL();
    }
    RETVAL_STRINGL(text, length);
    efree(text);
}

/* corvidine_test_make_backtrace(mixed $frames, int $limit = 0): string */
static PHP_FUNCTION(corvidine_test_make_backtrace) {
    zval *frames;
    zend_long limit = 0;
    ZEND_PARSE_PARAMETERS_START(1, 2)
    Z_PARAM_ZVAL(frames)
    Z_PARAM_OPTIONAL
    Z_PARAM_LONG(limit)
    ZEND_PARSE_PARAMETERS_END();
    size_t length = 0;
    char *text = vesk_make_backtrace((int)limit, &length, frames);
    RETVAL_STRINGL(text, length);
    efree(text);
}

/* corvidine_test_to_bson(array|object $value, bool $pending_exception = false):
 * array, [count, document bytes]. With $pending_exception an exception is
 * pending during the walk and cleared afterwards. */
static PHP_FUNCTION(corvidine_test_to_bson) {
    zval *value;
    bool pending = 0;
    ZEND_PARSE_PARAMETERS_START(1, 2)
    Z_PARAM_ZVAL(value)
    Z_PARAM_OPTIONAL
    Z_PARAM_BOOL(pending)
    ZEND_PARSE_PARAMETERS_END();
    ZVAL_DEREF(value);
    if (Z_TYPE_P(value) != IS_ARRAY && Z_TYPE_P(value) != IS_OBJECT) {
        zend_argument_type_error(1, "must be of type array|object, %s given", zend_zval_type_name(value));
        RETURN_THROWS();
    }
    vesk_php_mongo_buffer buffer;
    vesk_php_mongo_buffer_init(&buffer);
    if (pending) {
        zend_throw_exception(NULL, "pending", 0);
    }
    int count =
        Z_TYPE_P(value) == IS_ARRAY
            ? vesk_zval_to_bson(&buffer, Z_ARRVAL_P(value), IS_ARRAY)
            : vesk_zval_to_bson(&buffer, Z_OBJ_HT_P(value)->get_properties(Z_OBJ_P(value)), IS_OBJECT);
    if (pending) {
        zend_clear_exception();
    }
    array_init(return_value);
    add_next_index_long(return_value, count);
    add_next_index_stringl(return_value, buffer.start, (size_t)(buffer.cursor - buffer.start));
    add_next_index_long(return_value, (zend_long)(buffer.end - buffer.start));
    vesk_php_mongo_buffer_free(&buffer);
}

/* corvidine_test_backtrace_bson(): ?string */
static PHP_FUNCTION(corvidine_test_backtrace_bson) {
    ZEND_PARSE_PARAMETERS_NONE();
    size_t length = 0;
    zval frames;
    char *document = vesk_get_backtrace_bson(&length, &frames);
    /* The frames handed back must be the ones the document was made from. */
    if (document == NULL || Z_TYPE(frames) != IS_ARRAY) {
        if (document != NULL) {
            efree(document);
        }
        zval_ptr_dtor(&frames);
        RETURN_NULL();
    }
    zval_ptr_dtor(&frames);
    RETVAL_STRINGL(document, length);
    efree(document);
}

/* corvidine_test_args_bson(mixed ...$args): ?string, this call's arguments */
static PHP_FUNCTION(corvidine_test_args_bson) {
    zval *args;
    int argc;
    ZEND_PARSE_PARAMETERS_START(0, -1)
    Z_PARAM_VARIADIC('*', args, argc)
    ZEND_PARSE_PARAMETERS_END();
    (void)args;
    (void)argc;
    size_t length = 0;
    char *document = vesk_get_args_bson(&length, NULL);
    if (document == NULL) {
        RETURN_NULL();
    }
    RETVAL_STRINGL(document, length);
    efree(document);
}

/* corvidine_test_typename(mixed $value): string */
static PHP_FUNCTION(corvidine_test_typename) {
    zval *value;
    ZEND_PARSE_PARAMETERS_START(1, 1)
    Z_PARAM_ZVAL(value)
    ZEND_PARSE_PARAMETERS_END();
    RETURN_STRING(vesk_z_typename_p(value));
}

/* corvidine_test_retval_kv(mixed $value): array, [type, key, value, length]
 * with the value read back through the record's pointer. */
static PHP_FUNCTION(corvidine_test_retval_kv) {
    zval *value;
    ZEND_PARSE_PARAMETERS_START(1, 1)
    Z_PARAM_ZVAL(value)
    ZEND_PARSE_PARAMETERS_END();
    php_vesk_kv record;
    php_vesk_kv_scratch scratch;
    vesk_z_retval_kv_p(value, &record, &scratch);
    array_init(return_value);
    add_next_index_long(return_value, record.type);
    add_next_index_string(return_value, record.key);
    switch (record.type) {
        case PHP_VESK_KV_BOOL:
            add_next_index_long(return_value, *(const int32_t *)record.value);
            break;
        case PHP_VESK_KV_INT:
            add_next_index_long(return_value, (zend_long) * (const int64_t *)record.value);
            break;
        case PHP_VESK_KV_DOUBLE:
            add_next_index_double(return_value, *(const double *)record.value);
            break;
        case PHP_VESK_KV_STRING:
            add_next_index_stringl(return_value, (const char *)record.value, (size_t)record.length);
            break;
        default:
            add_next_index_null(return_value);
            break;
    }
    add_next_index_long(return_value, (zend_long)record.length);
}

ZEND_BEGIN_ARG_WITH_RETURN_TYPE_INFO_EX(arginfo_corvidine_test_set_context, 0, 1, _IS_BOOL, 0)
ZEND_ARG_TYPE_INFO(0, xtrace, IS_STRING, 0)
ZEND_END_ARG_INFO()

ZEND_BEGIN_ARG_WITH_RETURN_TYPE_INFO_EX(arginfo_corvidine_test_context, 0, 0, IS_STRING, 1)
ZEND_END_ARG_INFO()

ZEND_BEGIN_ARG_WITH_RETURN_TYPE_INFO_EX(arginfo_corvidine_test_exit_event, 0, 1, IS_STRING, 1)
ZEND_ARG_TYPE_INFO(0, state, IS_LONG, 0)
ZEND_END_ARG_INFO()

ZEND_BEGIN_ARG_WITH_RETURN_TYPE_INFO_EX(arginfo_corvidine_test_exit_event_state, 0, 0, IS_LONG, 0)
ZEND_END_ARG_INFO()

ZEND_BEGIN_ARG_WITH_RETURN_TYPE_INFO_EX(arginfo_corvidine_test_set_service_name, 0, 1, IS_VOID, 0)
ZEND_ARG_TYPE_INFO(0, name, IS_STRING, 1)
ZEND_END_ARG_INFO()

ZEND_BEGIN_ARG_WITH_RETURN_TYPE_INFO_EX(arginfo_corvidine_test_event, 0, 2, IS_LONG, 0)
ZEND_ARG_TYPE_INFO(0, layer, IS_STRING, 1)
ZEND_ARG_TYPE_INFO(0, label, IS_STRING, 1)
ZEND_ARG_TYPE_INFO_WITH_DEFAULT_VALUE(0, records, IS_ARRAY, 1, "null")
ZEND_ARG_TYPE_INFO_WITH_DEFAULT_VALUE(0, flags, IS_LONG, 0, "0")
ZEND_END_ARG_INFO()

ZEND_BEGIN_ARG_WITH_RETURN_TYPE_INFO_EX(arginfo_corvidine_test_backtrace, 0, 0, IS_STRING, 1)
ZEND_ARG_TYPE_INFO_WITH_DEFAULT_VALUE(0, limit, IS_LONG, 0, "0")
ZEND_END_ARG_INFO()

ZEND_BEGIN_ARG_WITH_RETURN_TYPE_INFO_EX(arginfo_corvidine_test_make_backtrace, 0, 1, IS_STRING, 0)
ZEND_ARG_TYPE_INFO(0, frames, IS_MIXED, 0)
ZEND_ARG_TYPE_INFO_WITH_DEFAULT_VALUE(0, limit, IS_LONG, 0, "0")
ZEND_END_ARG_INFO()

ZEND_BEGIN_ARG_WITH_RETURN_TYPE_INFO_EX(arginfo_corvidine_test_to_bson, 0, 1, IS_ARRAY, 0)
ZEND_ARG_TYPE_MASK(0, value, MAY_BE_ARRAY | MAY_BE_OBJECT, NULL)
ZEND_ARG_TYPE_INFO_WITH_DEFAULT_VALUE(0, pending_exception, _IS_BOOL, 0, "false")
ZEND_END_ARG_INFO()

ZEND_BEGIN_ARG_WITH_RETURN_TYPE_INFO_EX(arginfo_corvidine_test_backtrace_bson, 0, 0, IS_STRING, 1)
ZEND_END_ARG_INFO()

ZEND_BEGIN_ARG_WITH_RETURN_TYPE_INFO_EX(arginfo_corvidine_test_args_bson, 0, 0, IS_STRING, 1)
ZEND_ARG_VARIADIC_TYPE_INFO(0, args, IS_MIXED, 0)
ZEND_END_ARG_INFO()

ZEND_BEGIN_ARG_WITH_RETURN_TYPE_INFO_EX(arginfo_corvidine_test_typename, 0, 1, IS_STRING, 0)
ZEND_ARG_TYPE_INFO(0, value, IS_MIXED, 0)
ZEND_END_ARG_INFO()

ZEND_BEGIN_ARG_WITH_RETURN_TYPE_INFO_EX(arginfo_corvidine_test_retval_kv, 0, 1, IS_ARRAY, 0)
ZEND_ARG_TYPE_INFO(0, value, IS_MIXED, 0)
ZEND_END_ARG_INFO()

static const zend_function_entry php_vesk_test_functions[] = {
    PHP_FE(corvidine_test_set_context, arginfo_corvidine_test_set_context)
        PHP_FE(corvidine_test_context, arginfo_corvidine_test_context)
            PHP_FE(corvidine_test_exit_event, arginfo_corvidine_test_exit_event)
                PHP_FE(corvidine_test_exit_event_state, arginfo_corvidine_test_exit_event_state)
                    PHP_FE(corvidine_test_set_service_name, arginfo_corvidine_test_set_service_name)
                        PHP_FE(corvidine_test_event, arginfo_corvidine_test_event)
                            PHP_FE(corvidine_test_backtrace, arginfo_corvidine_test_backtrace) PHP_FE(
                                corvidine_test_make_backtrace, arginfo_corvidine_test_make_backtrace)
                                PHP_FE(corvidine_test_to_bson, arginfo_corvidine_test_to_bson) PHP_FE(
                                    corvidine_test_backtrace_bson, arginfo_corvidine_test_backtrace_bson)
                                    PHP_FE(corvidine_test_args_bson, arginfo_corvidine_test_args_bson)
                                        PHP_FE(corvidine_test_typename, arginfo_corvidine_test_typename)
                                            PHP_FE(corvidine_test_retval_kv, arginfo_corvidine_test_retval_kv)
                                                PHP_FE_END};

void php_vesk_events_minit(int type, int module_number) {
    zend_register_ini_entries_ex(ini_entries, module_number, type);
    if ((zend_ini_long(ZEND_STRL("corvidine.internal_test_hooks"), 0) & 0xFF) == 1) {
        zend_register_functions(NULL, php_vesk_test_functions, NULL, type);
    }
}
