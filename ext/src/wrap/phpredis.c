/*
 * The phpredis family: each wrapped method of Redis is a span of layer
 * "phpredis" with its operation ("KVOp"), for a few the key ("KVKey"), the
 * server ("RemoteHost") or whether it found something ("KVHit").
 *
 * A pipeline or multi block is one span: multi (or pipeline) sends the
 * entry event, each command queued in it an info event, exec (or discard)
 * an info event and then the exit event. While the block is open the out
 * callbacks send nothing; phpredis_batch keeps a nested multi from opening
 * a second span.
 *
 * Arguments are only looked at (count and types), never parsed: the
 * original parses them and raises whatever a bad call deserves.
 */
#include "php_corvidine.h"

#include "src/events/php_vesk_events.h"
#include "src/wrap/key_value.h"
#include "src/wrap/wrap.h"

/* The label of a command's event: an info event inside a block. */
static const char *php_vesk_phpredis_label(void) {
    return (VESK_G(phpredis_flags) & PHP_VESK_PHPREDIS_IN_BATCH) != 0 ? "info" : "entry";
}

/* KVOp and, when given, one more record; then the event. */
static void php_vesk_phpredis_send(const char *label, const char *operation, const char *key,
                                   const char *value) {
    php_vesk_kv records[] = {
        {PHP_VESK_KV_STRING, "KVOp", operation, 0},
        {key != NULL ? PHP_VESK_KV_STRING : PHP_VESK_KV_END, key, value, 0},
        {PHP_VESK_KV_END, NULL, NULL, 0},
    };
    php_vesk_trace_event("phpredis", label, records, 0);
}

/* The argument at position (1-based) when it is a string, or null. */
static zval *php_vesk_phpredis_string_arg(zend_execute_data *execute_data, uint32_t position) {
    if (ZEND_CALL_NUM_ARGS(execute_data) < position) {
        return NULL;
    }
    zval *arg = ZEND_CALL_ARG(execute_data, position);
    ZVAL_DEREF(arg);
    return Z_TYPE_P(arg) == IS_STRING ? arg : NULL;
}

intptr_t vesk_phpredis_in(zend_execute_data *execute_data, zval *return_value,
                          const php_vesk_wrap_target *target) {
    (void)execute_data;
    (void)return_value;
    if (VESK_G(tracing)) {
        php_vesk_phpredis_send(php_vesk_phpredis_label(), target->name, NULL, NULL);
    }
    return 0;
}

/* A key-reading call whose arguments the original would take: count within
 * min..max and the key a string. Otherwise no event (the original refuses
 * the call, or converts what it was given). */
static void php_vesk_phpredis_keyed(zend_execute_data *execute_data, const php_vesk_wrap_target *target,
                                    uint32_t min, uint32_t max, uint32_t strings, const char *key_name) {
    uint32_t argc = ZEND_CALL_NUM_ARGS(execute_data);
    if (!VESK_G(tracing) || argc < min || argc > max) {
        return;
    }
    zval *key = php_vesk_phpredis_string_arg(execute_data, 1);
    for (uint32_t i = 2; i <= strings; i++) {
        if (php_vesk_phpredis_string_arg(execute_data, i) == NULL) {
            return;
        }
    }
    if (key != NULL) {
        php_vesk_phpredis_send(php_vesk_phpredis_label(), target->name, key_name, Z_STRVAL_P(key));
    }
}

/* get(key), getbit(key, offset), getrange(key, start, end). */
intptr_t vesk_phpredis_in_get(zend_execute_data *execute_data, zval *return_value,
                              const php_vesk_wrap_target *target) {
    (void)return_value;
    php_vesk_phpredis_keyed(execute_data, target, 1, 3, 1, "KVKey");
    return 0;
}

/* getset(key, value). */
intptr_t vesk_phpredis_in_getset(zend_execute_data *execute_data, zval *return_value,
                                 const php_vesk_wrap_target *target) {
    (void)return_value;
    php_vesk_phpredis_keyed(execute_data, target, 2, 2, 2, "KVKey");
    return 0;
}

/* connect, open, pconnect, popen: host first, then up to six optional
 * arguments (port, timeout, persistent id or retry interval, read timeout,
 * context), any of which a framework may pass as null. */
intptr_t vesk_phpredis_in_connect(zend_execute_data *execute_data, zval *return_value,
                                  const php_vesk_wrap_target *target) {
    (void)return_value;
    php_vesk_phpredis_keyed(execute_data, target, 1, 7, 1, "RemoteHost");
    return 0;
}

intptr_t vesk_phpredis_in_pipeline(zend_execute_data *execute_data, zval *return_value,
                                   const php_vesk_wrap_target *target) {
    (void)execute_data;
    (void)return_value;
    if (!VESK_G(tracing) || VESK_G(phpredis_batch) != 0) {
        return 0;
    }
    VESK_G(phpredis_batch) = 1;
    php_vesk_phpredis_send("entry", target->name, NULL, NULL);
    VESK_G(phpredis_flags) |= PHP_VESK_PHPREDIS_IN_BATCH;
    return 0;
}

/* multi(mode = Redis::MULTI): any other mode is a pipeline. */
intptr_t vesk_phpredis_in_multi(zend_execute_data *execute_data, zval *return_value,
                                const php_vesk_wrap_target *target) {
    (void)return_value;
    if (!VESK_G(tracing) || VESK_G(phpredis_batch) != 0) {
        return 0;
    }
    VESK_G(phpredis_batch) = 1;
    uint32_t argc = ZEND_CALL_NUM_ARGS(execute_data);
    zend_long mode = 1;
    if (argc > 1) {
        return 0;
    }
    if (argc == 1) {
        zval *arg = ZEND_CALL_ARG(execute_data, 1);
        ZVAL_DEREF(arg);
        if (Z_TYPE_P(arg) != IS_LONG) {
            return 0;
        }
        mode = Z_LVAL_P(arg);
    }
    php_vesk_phpredis_send("entry", mode == 1 ? target->name : "pipeline", NULL, NULL);
    VESK_G(phpredis_flags) |= PHP_VESK_PHPREDIS_IN_BATCH;
    return 0;
}

/* exec, discard: the last info event of the block; the out callback sends
 * its exit event. */
intptr_t vesk_phpredis_in_batchend(zend_execute_data *execute_data, zval *return_value,
                                   const php_vesk_wrap_target *target) {
    (void)execute_data;
    (void)return_value;
    if (!VESK_G(tracing)) {
        return 0;
    }
    php_vesk_phpredis_send("info", target->name, NULL, NULL);
    VESK_G(phpredis_flags) &= ~PHP_VESK_PHPREDIS_IN_BATCH;
    return 0;
}

/* The exit event, unless a block is open; hit is "KVHit" or -1 for none. */
static void php_vesk_phpredis_exit(const vesk_metadata_t *entry, int32_t hit) {
    if (!VESK_G(tracing) || (VESK_G(phpredis_flags) & PHP_VESK_PHPREDIS_IN_BATCH) != 0) {
        return;
    }
    php_vesk_kv records[3] = {{PHP_VESK_KV_END, NULL, NULL, 0}};
    int count = 0;
    if (entry != NULL) {
        records[count++] = (php_vesk_kv){PHP_VESK_KV_EDGE, "Edge", entry, 0};
    }
    if (hit >= 0) {
        records[count++] = (php_vesk_kv){PHP_VESK_KV_INT, "KVHit", &hit, 4};
    }
    records[count] = (php_vesk_kv){PHP_VESK_KV_END, NULL, NULL, 0};
    VESK_G(phpredis_batch) = 0;
    php_vesk_trace_event("phpredis", "exit", records, 0);
}

void vesk_phpredis_out(zend_execute_data *execute_data, zval *return_value, const vesk_metadata_t *entry,
                       intptr_t in_result, const php_vesk_wrap_target *target) {
    (void)execute_data;
    (void)return_value;
    (void)in_result;
    (void)target;
    php_vesk_phpredis_exit(entry, -1);
}

/* KVHit: 1 for a boolean true, 0 for anything else (a string included). */
void vesk_phpredis_out_with_stats(zend_execute_data *execute_data, zval *return_value,
                                  const vesk_metadata_t *entry, intptr_t in_result,
                                  const php_vesk_wrap_target *target) {
    (void)execute_data;
    (void)in_result;
    (void)target;
    php_vesk_phpredis_exit(entry, return_value != NULL && Z_TYPE_P(return_value) == IS_TRUE ? 1 : 0);
}

/* Request end: a block left open does not carry over to the next request
 * on this thread. */
void php_vesk_phpredis_request_end(void) {
    VESK_G(phpredis_flags) = 0;
    VESK_G(phpredis_batch) = 0;
}
