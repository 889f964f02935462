/*
 * The memcached family: each wrapped method of Memcached is a span of layer
 * "memcached". The entry event has the key ("KVKey", or "KVKeyCount" for
 * a batch) and, when corvidine.enable_memcached_hosts is on, the server
 * the key maps to ("RemoteHost"); the exit event has the operation
 * ("KVOp") and what was found ("KVHit", or "KVHitCount" for a batch).
 *
 * getServerByKey and getResultCode are called as Memcached's own methods
 * (a subclass's override is not run), only while no exception is pending,
 * and an exception they raise is dropped: the application sees neither.
 */
#include "php_corvidine.h"

#include "zend_exceptions.h"

#include "src/config/ini.h"
#include "src/events/php_vesk_events.h"
#include "src/wrap/key_value.h"
#include "src/wrap/wrap.h"

static const char *const php_vesk_memcached_ops[] = {
    [PHP_VESK_MEMCACHED_ADD] = "add",         [PHP_VESK_MEMCACHED_APPEND] = "append",
    [PHP_VESK_MEMCACHED_CAS] = "cas",         [PHP_VESK_MEMCACHED_DECR] = "decr",
    [PHP_VESK_MEMCACHED_DELETE] = "delete",   [PHP_VESK_MEMCACHED_GET] = "get",
    [PHP_VESK_MEMCACHED_INCR] = "incr",       [PHP_VESK_MEMCACHED_PREPEND] = "prepend",
    [PHP_VESK_MEMCACHED_REPLACE] = "replace", [PHP_VESK_MEMCACHED_SET] = "set",
};

/* libmemcached's result codes that say "not found" / "not stored". */
#define PHP_VESK_MEMCACHED_SUCCESS 0
#define PHP_VESK_MEMCACHED_NOTSTORED 14
#define PHP_VESK_MEMCACHED_NOTFOUND 16

/* Calls Memcached's own method of that (lower-case) name on the call's
 * object, with at most one argument. 0 and the result in *result (to be
 * destroyed), or -1. */
static int php_vesk_memcached_call(zend_execute_data *execute_data, const char *lc_name, size_t length,
                                   zval *arg, zval *result) {
    zval *self = getThis();
    if (self == NULL || EG(exception) != NULL) {
        return -1;
    }
    zend_class_entry *base = zend_hash_str_find_ptr(CG(class_table), ZEND_STRL("memcached"));
    if (base == NULL || !instanceof_function(Z_OBJCE_P(self), base)) {
        return -1;
    }
    zend_function *method = zend_hash_str_find_ptr(&base->function_table, lc_name, length);
    if (method == NULL) {
        return -1;
    }
    ZVAL_UNDEF(result);
    zend_call_known_function(method, Z_OBJ_P(self), Z_OBJCE_P(self), result, arg != NULL ? 1 : 0, arg, NULL);
    if (EG(exception) != NULL) {
        zend_clear_exception();
        zval_ptr_dtor(result);
        ZVAL_UNDEF(result);
        return -1;
    }
    return 0;
}

/* The key argument (a string or an array) and the server key, which is a
 * string the caller releases, or null. 0 or -1. */
int vesk_memcached_get_key(zend_execute_data *execute_data, int key_position, int server_key_position,
                           zval **key, zend_string **server_key) {
    uint32_t argc = ZEND_CALL_NUM_ARGS(execute_data);
    *server_key = NULL;
    if ((uint32_t)key_position >= argc) {
        return -1;
    }
    *key = ZEND_CALL_ARG(execute_data, key_position + 1);
    ZVAL_DEREF(*key);
    if (Z_TYPE_P(*key) != IS_STRING && Z_TYPE_P(*key) != IS_ARRAY) {
        return -1;
    }
    if (server_key_position >= 0) {
        if ((uint32_t)server_key_position >= argc) {
            return -1;
        }
        zval *given = ZEND_CALL_ARG(execute_data, server_key_position + 1);
        ZVAL_DEREF(given);
        if (Z_TYPE_P(given) != IS_STRING) {
            return -1;
        }
        *server_key = zend_string_copy(Z_STR_P(given));
        return 0;
    }
    if (Z_TYPE_P(*key) == IS_STRING) {
        *server_key = zend_string_copy(Z_STR_P(*key));
        return 0;
    }
    /* A batch maps by its first key: the first element's string key (a
     * setMulti's items), or else its value (a getMulti's list). */
    zend_string *name;
    zval *value;
    ZEND_HASH_FOREACH_STR_KEY_VAL(Z_ARRVAL_P(*key), name, value) {
        ZVAL_DEREF(value);
        if (name != NULL) {
            *server_key = zend_string_copy(name);
        } else if (Z_TYPE_P(value) == IS_STRING) {
            *server_key = zend_string_copy(Z_STR_P(value));
        } else if (Z_TYPE_P(value) == IS_LONG) {
            *server_key = zend_long_to_str(Z_LVAL_P(value));
        }
        break;
    }
    ZEND_HASH_FOREACH_END();
    return 0;
}

/* The host of the server a key maps to, a copy the caller releases, or
 * null. */
static zend_string *vesk_memcached_get_remote_host(zend_execute_data *execute_data, zend_string *server_key) {
    zval arg, result;
    ZVAL_STR(&arg, server_key);
    if (php_vesk_memcached_call(execute_data, ZEND_STRL("getserverbykey"), &arg, &result) != 0) {
        return NULL;
    }
    zend_string *host = NULL;
    if (Z_TYPE(result) == IS_ARRAY) {
        zval *found = zend_hash_str_find(Z_ARRVAL(result), ZEND_STRL("host"));
        if (found != NULL && Z_TYPE_P(found) == IS_STRING) {
            host = zend_string_copy(Z_STR_P(found));
        }
    }
    zval_ptr_dtor(&result);
    return host;
}

intptr_t vesk_memcached_in(zend_execute_data *execute_data, zval *return_value,
                           const php_vesk_wrap_target *target) {
    (void)return_value;
    if (!VESK_G(tracing)) {
        return 0;
    }
    php_vesk_kv records[3] = {{PHP_VESK_KV_END, NULL, NULL, 0}};
    int count = 0;
    zval *key = NULL;
    zend_string *server_key = NULL;
    zend_string *host = NULL;
    int64_t key_count = 0;
    if (vesk_memcached_get_key(execute_data, PHP_VESK_MEMCACHED_KEY_POSITION(target->data),
                               PHP_VESK_MEMCACHED_SERVER_KEY_POSITION(target->data), &key,
                               &server_key) == 0) {
        if (Z_TYPE_P(key) == IS_STRING) {
            records[count++] =
                (php_vesk_kv){PHP_VESK_KV_BINARY, "KVKey", Z_STRVAL_P(key), (int64_t)Z_STRLEN_P(key)};
        } else {
            key_count = zend_hash_num_elements(Z_ARRVAL_P(key));
            records[count++] = (php_vesk_kv){PHP_VESK_KV_INT, "KVKeyCount", &key_count, 8};
        }
        if (server_key != NULL && VESK_INI_ON("corvidine.enable_memcached_hosts")) {
            host = vesk_memcached_get_remote_host(execute_data, server_key);
            if (host != NULL) {
                records[count++] =
                    (php_vesk_kv){PHP_VESK_KV_BINARY, "RemoteHost", ZSTR_VAL(host), (int64_t)ZSTR_LEN(host)};
            }
        }
    }
    records[count] = (php_vesk_kv){PHP_VESK_KV_END, NULL, NULL, 0};
    php_vesk_trace_event("memcached", "entry", records, 0);
    if (host != NULL) {
        zend_string_release(host);
    }
    if (server_key != NULL) {
        zend_string_release(server_key);
    }
    return 0;
}

/* Keys found: an array result's size, 1 for true, else from the object's
 * result code (1 success, 0 not found or not stored); -1 when unknown. */
int64_t vesk_memcached_get_hit(zend_execute_data *execute_data, zval *return_value) {
    if (return_value != NULL && Z_TYPE_P(return_value) == IS_ARRAY) {
        return zend_hash_num_elements(Z_ARRVAL_P(return_value));
    }
    if (return_value != NULL && Z_TYPE_P(return_value) == IS_TRUE) {
        return 1;
    }
    zval code;
    if (php_vesk_memcached_call(execute_data, ZEND_STRL("getresultcode"), NULL, &code) != 0) {
        return -1;
    }
    int64_t hit = -1;
    if (Z_TYPE(code) == IS_LONG) {
        zend_long r = Z_LVAL(code);
        hit = r == PHP_VESK_MEMCACHED_SUCCESS                                         ? 1
              : r == PHP_VESK_MEMCACHED_NOTSTORED || r == PHP_VESK_MEMCACHED_NOTFOUND ? 0
                                                                                      : -1;
    }
    zval_ptr_dtor(&code);
    return hit;
}

void vesk_memcached_out(zend_execute_data *execute_data, zval *return_value, const vesk_metadata_t *entry,
                        intptr_t in_result, const php_vesk_wrap_target *target) {
    (void)in_result;
    if (!VESK_G(tracing)) {
        return;
    }
    int op = PHP_VESK_MEMCACHED_OP(target->data);
    php_vesk_kv records[4] = {{PHP_VESK_KV_END, NULL, NULL, 0}};
    int count = 0;
    int64_t hit = -1;
    if (entry != NULL) {
        records[count++] = (php_vesk_kv){PHP_VESK_KV_EDGE, "Edge", entry, 0};
    }
    records[count++] = (php_vesk_kv){PHP_VESK_KV_STRING, "KVOp", php_vesk_memcached_ops[op], 0};
    /* A store or a counter has nothing to find. */
    if (op != PHP_VESK_MEMCACHED_SET && op != PHP_VESK_MEMCACHED_DECR && op != PHP_VESK_MEMCACHED_INCR) {
        hit = vesk_memcached_get_hit(execute_data, return_value);
        if (return_value != NULL && Z_TYPE_P(return_value) == IS_ARRAY && hit >= 0) {
            records[count++] = (php_vesk_kv){PHP_VESK_KV_INT, "KVHitCount", &hit, 8};
        } else if (hit == 0 || hit == 1) {
            records[count++] = (php_vesk_kv){PHP_VESK_KV_INT, "KVHit", &hit, 8};
        }
    }
    records[count] = (php_vesk_kv){PHP_VESK_KV_END, NULL, NULL, 0};
    php_vesk_trace_event("memcached", "exit", records, 0);
}
