/* The records of a user API event, from its info, backtrace and edge
 * arguments. */
#include "php_corvidine.h"

#include "zend_exceptions.h"
#include "zend_interfaces.h"

#include "corvidine/metadata.h"

#include "src/api/api.h"

#define PHP_VESK_INFO_FIRST_CAPACITY 8

static const char *const php_vesk_reserved_keys[] = {"Label", "Layer", "Edge", "Timestamp", "Timestamp_u"};

static void php_vesk_info_list_init(php_vesk_info_list *list) {
    list->capacity = PHP_VESK_INFO_FIRST_CAPACITY;
    list->kvs = safe_emalloc((size_t)list->capacity, sizeof(php_vesk_kv), 0);
    list->count = 0;
    list->kvs[0] = (php_vesk_kv){PHP_VESK_KV_END, NULL, NULL, 0};
    array_init(&list->strings);
    ZVAL_UNDEF(&list->backtrace);
}

void php_vesk_info_list_free(php_vesk_info_list *list) {
    if (list->kvs != NULL) {
        efree(list->kvs);
        list->kvs = NULL;
    }
    zval_ptr_dtor(&list->strings);
    ZVAL_UNDEF(&list->strings);
    zval_ptr_dtor(&list->backtrace);
    ZVAL_UNDEF(&list->backtrace);
    list->count = 0;
}

void php_vesk_info_list_add(php_vesk_info_list *list, int32_t type, const char *key, const void *value,
                            int64_t length) {
    if (list->count + 1 >= list->capacity) {
        list->capacity *= 2;
        list->kvs = safe_erealloc(list->kvs, (size_t)list->capacity, sizeof(php_vesk_kv), 0);
    }
    list->kvs[list->count++] = (php_vesk_kv){type, key, value, length};
    list->kvs[list->count] = (php_vesk_kv){PHP_VESK_KV_END, NULL, NULL, 0};
}

const char *php_vesk_info_list_keep(php_vesk_info_list *list, zend_string *value) {
    zval holder;
    ZVAL_STR(&holder, value);
    zend_hash_next_index_insert_new(Z_ARRVAL(list->strings), &holder);
    return ZSTR_VAL(value);
}

void php_vesk_object_properties(zval *object, zval *out) {
    HashTable *properties = Z_OBJ_HT_P(object)->get_properties(Z_OBJ_P(object));
    array_init(out);
    if (properties == NULL) {
        return;
    }
    zend_string *key;
    zend_ulong index;
    zval *value;
    ZEND_HASH_FOREACH_KEY_VAL_IND(properties, index, key, value) {
        if (Z_TYPE_P(value) == IS_UNDEF) {
            continue; /* a typed property not yet set */
        }
        ZVAL_DEREF(value);
        Z_TRY_ADDREF_P(value);
        if (key == NULL) {
            zend_hash_index_update(Z_ARRVAL_P(out), index, value);
        } else {
            const char *class_name, *name;
            size_t name_len;
            zend_unmangle_property_name_ex(key, &class_name, &name, &name_len);
            zend_hash_str_update(Z_ARRVAL_P(out), name, name_len, value);
        }
    }
    ZEND_HASH_FOREACH_END();
}

void php_vesk_info_list_set_backtrace(php_vesk_info_list *list, zval *frames) {
    zval_ptr_dtor(&list->backtrace);
    if (Z_TYPE_P(frames) == IS_OBJECT) {
        php_vesk_object_properties(frames, &list->backtrace);
    } else {
        ZVAL_COPY(&list->backtrace, frames);
    }
    php_vesk_info_list_add(list, PHP_VESK_KV_BACKTRACE, NULL, &list->backtrace, 0);
}

/* A value as event text: arrays as "Array" and objects that cannot be
 * strings as "Object(<class>)", without PHP's warning or Error; others as
 * PHP converts them. Null while an exception a __toString threw is
 * pending. */
static zend_string *php_vesk_value_string(zval *value) {
    ZVAL_DEREF(value);
    switch (Z_TYPE_P(value)) {
        case IS_STRING:
            return zend_string_copy(Z_STR_P(value));
        case IS_ARRAY:
            return zend_string_init("Array", sizeof("Array") - 1, 0);
        case IS_OBJECT: {
            zend_class_entry *ce = Z_OBJCE_P(value);
            if (ce->__tostring == NULL && Z_OBJ_HT_P(value)->cast_object == zend_std_cast_object_tostring) {
                return zend_strpprintf(0, "Object(%s)", ZSTR_VAL(ce->name));
            }
            zend_string *text = zval_try_get_string(value);
            if (text == NULL && !EG(exception)) {
                return zend_strpprintf(0, "Object(%s)", ZSTR_VAL(ce->name));
            }
            return text;
        }
        default:
            return zval_get_string(value);
    }
}

static int php_vesk_reserved_key(const char *key) {
    for (size_t i = 0; i < sizeof(php_vesk_reserved_keys) / sizeof(php_vesk_reserved_keys[0]); i++) {
        if (strcmp(key, php_vesk_reserved_keys[i]) == 0) {
            return 1;
        }
    }
    return 0;
}

/* A string, array or object argument as a table the list keeps alive (so
 * that a __toString met on the way cannot change it under the walk). */
static HashTable *php_vesk_kept_table(php_vesk_info_list *list, zval *value) {
    zval kept;
    if (Z_TYPE_P(value) == IS_OBJECT) {
        php_vesk_object_properties(value, &kept);
    } else {
        ZVAL_COPY(&kept, value);
    }
    zval *stored = zend_hash_next_index_insert_new(Z_ARRVAL(list->strings), &kept);
    return Z_ARRVAL_P(stored);
}

static int php_vesk_add_info_pairs(php_vesk_info_list *list, HashTable *pairs, const char *function) {
    zend_string *key;
    zend_ulong index;
    zval *value;
    ZEND_HASH_FOREACH_KEY_VAL_IND(pairs, index, key, value) {
        const char *key_text = key != NULL ? ZSTR_VAL(key)
                                           : php_vesk_info_list_keep(list, zend_long_to_str((zend_long)index));
        if (php_vesk_reserved_key(key_text)) {
            zend_error(E_WARNING, "%s() info contains the reserved key name %s and will not be sent", function,
                       key_text);
            continue;
        }
        zend_string *text = php_vesk_value_string(value);
        if (text == NULL) {
            return -1;
        }
        php_vesk_info_list_add(list, PHP_VESK_KV_STRING, key_text, php_vesk_info_list_keep(list, text),
                               (int64_t)ZSTR_LEN(text));
    }
    ZEND_HASH_FOREACH_END();
    return 0;
}

/* An edge named by text: type 8 when it parses, else the warning. */
static void php_vesk_add_edge_text(php_vesk_info_list *list, zend_string *text, const char *function) {
    vesk_metadata_t md;
    vesk_metadata_init(&md);
    if (vesk_metadata_fromstr(&md, ZSTR_VAL(text), ZSTR_LEN(text)) != 0) {
        zend_error(E_WARNING, "%s() xtrace %s passed in is invalid", function, ZSTR_VAL(text));
        zend_string_release(text);
        return;
    }
    php_vesk_info_list_add(list, PHP_VESK_KV_XTRACE, "Edge", php_vesk_info_list_keep(list, text),
                           (int64_t)ZSTR_LEN(text));
}

static int php_vesk_is_array_or_object(zval *value) {
    return Z_TYPE_P(value) == IS_ARRAY || Z_TYPE_P(value) == IS_OBJECT;
}

static int php_vesk_object_has_properties(zval *object) {
    HashTable *properties = Z_OBJ_HT_P(object)->get_properties(Z_OBJ_P(object));
    return properties != NULL && zend_hash_num_elements(properties) > 0;
}

int php_vesk_parse_info_pairs(zval *info, zval *backtrace, zval *edge, int *want_backtrace,
                              php_vesk_info_list *list) {
    const char *function = get_active_function_name();
    memset(list, 0, sizeof(*list));
    ZVAL_UNDEF(&list->strings);
    ZVAL_UNDEF(&list->backtrace);
    if (info != NULL) {
        ZVAL_DEREF(info);
    }
    if (backtrace != NULL) {
        ZVAL_DEREF(backtrace);
    }
    if (edge != NULL) {
        ZVAL_DEREF(edge);
    }

    if (info != NULL && Z_TYPE_P(info) != IS_NULL && !php_vesk_is_array_or_object(info)) {
        zend_error(E_WARNING, "%s() expects info to be an array or object", function);
        return -1;
    }
    if (backtrace != NULL && Z_TYPE_P(backtrace) != IS_NULL && !php_vesk_is_array_or_object(backtrace) &&
        Z_TYPE_P(backtrace) != IS_TRUE && Z_TYPE_P(backtrace) != IS_FALSE) {
        zend_error(E_WARNING, "%s() expects backtrace to be an array or object with backtrace information to serialize",
                   function);
        return -1;
    }
    if (edge != NULL && Z_TYPE_P(edge) != IS_NULL && !php_vesk_is_array_or_object(edge) &&
        Z_TYPE_P(edge) != IS_STRING) {
        zend_error(E_WARNING, "%s() expects edge to be a string, an array or an object", function);
        return -1;
    }
    if (edge != NULL && Z_TYPE_P(edge) == IS_OBJECT && !php_vesk_object_has_properties(edge)) {
        zend_error(E_WARNING, "%s() expects edge to be an array or object", function);
        return -1;
    }

    php_vesk_info_list_init(list);
    if (info != NULL && php_vesk_is_array_or_object(info) &&
        php_vesk_add_info_pairs(list, php_vesk_kept_table(list, info), function) != 0) {
        php_vesk_info_list_free(list);
        return -1;
    }
    if (backtrace != NULL) {
        if (php_vesk_is_array_or_object(backtrace)) {
            *want_backtrace = 0;
            php_vesk_info_list_set_backtrace(list, backtrace);
        } else if (Z_TYPE_P(backtrace) != IS_NULL) {
            *want_backtrace = Z_TYPE_P(backtrace) == IS_TRUE;
        }
    }
    if (edge != NULL && Z_TYPE_P(edge) == IS_STRING) {
        php_vesk_add_edge_text(list, zend_string_copy(Z_STR_P(edge)), function);
    } else if (edge != NULL && php_vesk_is_array_or_object(edge)) {
        zval *value;
        ZEND_HASH_FOREACH_VAL_IND(php_vesk_kept_table(list, edge), value) {
            zend_string *text = php_vesk_value_string(value);
            if (text == NULL) {
                php_vesk_info_list_free(list);
                return -1;
            }
            php_vesk_add_edge_text(list, text, function);
        }
        ZEND_HASH_FOREACH_END();
    }
    return 0;
}

void php_vesk_api_warn_not_started(void) {
    zend_error(E_WARNING, "Tracing has not yet been started, call corvidine_start_trace()");
}
