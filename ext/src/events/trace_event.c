/* php_vesk_trace_event: the one way the extension sends an event. */
#include "php_corvidine.h"

#include "corvidine/context.h"

#include "src/config/ini.h"
#include "src/events/php_vesk_events.h"

/* An edge only within this thread's trace, and never to the operation the
 * event will get its own edge to. */
static int php_vesk_add_edge_checked(vesk_event_t *event, const vesk_metadata_t *md) {
    const vesk_metadata_t *context = vesk_context_get();
    size_t task_len = md->task_len <= VESK_MAX_TASK_ID_LEN ? md->task_len : VESK_MAX_TASK_ID_LEN;
    size_t op_len = md->op_len <= VESK_MAX_OP_ID_LEN ? md->op_len : VESK_MAX_OP_ID_LEN;
    if (memcmp(md->task_id, context->task_id, task_len) != 0 ||
        memcmp(md->op_id, context->op_id, op_len) == 0) {
        return 0;
    }
    return vesk_event_add_edge(event, md);
}

int php_vesk_event_add_info(vesk_event_t *event, int type, const char *key, const void *value,
                            int64_t length) {
    switch (type) {
        case PHP_VESK_KV_STRING:
            return vesk_event_add_info(event, key, (const char *)value);
        case PHP_VESK_KV_INT:
            if (value == NULL) {
                return 0;
            }
            if (length == 4) {
                return vesk_event_add_info_int64(event, key, (int64_t) * (const int32_t *)value);
            }
            if (length == 8) {
                return vesk_event_add_info_int64(event, key, *(const int64_t *)value);
            }
            return 0;
        case PHP_VESK_KV_DOUBLE:
            return value != NULL ? vesk_event_add_info_double(event, key, *(const double *)value) : 0;
        case PHP_VESK_KV_BINARY:
            return length >= 0 ? vesk_event_add_info_binary(event, key, value, (size_t)length) : 0;
        case PHP_VESK_KV_BSON:
            return vesk_event_add_info_bson(event, key, (const vesk_bson *)value);
        case PHP_VESK_KV_EDGE:
            return value != NULL ? php_vesk_add_edge_checked(event, (const vesk_metadata_t *)value) : 0;
        case PHP_VESK_KV_BACKTRACE: {
            if (value == NULL || !VESK_INI_ON("corvidine.enable_backtrace")) {
                return 0;
            }
            size_t text_length;
            char *text = vesk_make_backtrace(PHP_VESK_BACKTRACE_LIMIT, &text_length, (zval *)value);
            int rc = vesk_event_add_info(event, "Backtrace", text);
            efree(text);
            return rc;
        }
        case PHP_VESK_KV_XTRACE: {
            vesk_metadata_t md;
            if (value == NULL || length < 0) {
                return 0;
            }
            vesk_metadata_init(&md);
            if (vesk_metadata_fromstr(&md, (const char *)value, (size_t)length) != 0) {
                return 0; /* malformed: no edge */
            }
            return php_vesk_add_edge_checked(event, &md);
        }
        case PHP_VESK_KV_BOOL:
            return value != NULL ? vesk_event_add_info_bool(event, key, *(const int32_t *)value) : 0;
        default:
            return 0;
    }
}

int php_vesk_event_add_kv(vesk_event_t *event, const php_vesk_kv *record) {
    return php_vesk_event_add_info(event, record->type, record->key, record->value, record->length);
}

int php_vesk_event_add_memory(vesk_event_t *event) {
    int rc = 0;
    rc |= vesk_event_add_info_int64(event, "Memory-Used", (int64_t)zend_memory_usage(0));
    rc |= vesk_event_add_info_int64(event, "Memory-Used-Real", (int64_t)zend_memory_usage(1));
    rc |= vesk_event_add_info_int64(event, "Memory-Peak", (int64_t)zend_memory_peak_usage(0));
    rc |= vesk_event_add_info_int64(event, "Memory-Peak-Real", (int64_t)zend_memory_peak_usage(1));
    return rc ? -1 : 0;
}

/* A request-heap document under key, then freed. */
static int php_vesk_event_add_document(vesk_event_t *event, const char *key, char *document) {
    if (document == NULL) {
        return 0;
    }
    vesk_bson handle = {document, 0};
    int rc = vesk_event_add_info_bson(event, key, &handle);
    efree(document);
    return rc;
}

int php_vesk_event_add_args(vesk_event_t *event) {
    if (!VESK_INI_ON("corvidine.enable_function_args")) {
        return 0;
    }
    size_t length;
    return php_vesk_event_add_document(event, "Args", vesk_get_args_bson(&length, NULL));
}

int php_vesk_event_add_bt(vesk_event_t *event, int force) {
    if (!force && !VESK_INI_ON("corvidine.enable_backtrace")) {
        return 0;
    }
    size_t length;
    char *text = vesk_get_backtrace(PHP_VESK_BACKTRACE_LIMIT, &length);
    if (text == NULL) {
        return 0;
    }
    int rc = vesk_event_add_info(event, "Backtrace", text);
    efree(text);
    return rc;
}

int php_vesk_event_add_bson_bt(vesk_event_t *event, int force) {
    if (!force && !VESK_INI_ON("corvidine.enable_backtrace")) {
        return 0;
    }
    size_t length;
    return php_vesk_event_add_document(event, "Backtrace", vesk_get_backtrace_bson(&length, NULL));
}

int php_vesk_reporter_send(vesk_metadata_t *metadata, vesk_event_t *event, int flags) {
    if (!(flags & PHP_VESK_EVENT_NO_EDGE)) {
        vesk_event_add_edge(event, metadata);
    }
    if (VESK_G(request_service_name) != NULL) {
        vesk_event_add_info(event, "SN", VESK_G(request_service_name));
    }
    return vesk_event_send(VESK_SEND_EVENT, event, metadata);
}

int php_vesk_trace_event(const char *layer, const char *label, const php_vesk_kv *kvs, int flags) {
    /* Unsampled requests stop here, before any backtrace is built. */
    if (!vesk_context_is_valid() || !vesk_context_is_sampled()) {
        return 0;
    }
    vesk_metadata_t *context = vesk_context_get();
    vesk_event_t event;

    if (VESK_G(exit_event_state) < 2) {
        if (vesk_event_init(&event, context, NULL) < 0) {
            return -1;
        }
    } else {
        /* The exit event prepared at request start: its id is already in the
         * X-Trace response header. It is ours to send and destroy now. */
        event = VESK_G(exit_event);
        memset(&VESK_G(exit_event), 0, sizeof(VESK_G(exit_event)));
        VESK_G(exit_event_state) = 0;
    }

    vesk_event_add_info(&event, "Label", label);
    if (layer != NULL) {
        vesk_event_add_info(&event, "Layer", layer);
    }
    if (flags & PHP_VESK_EVENT_BACKTRACE) {
        php_vesk_event_add_bt(&event, flags & PHP_VESK_EVENT_FORCE_BT);
    } else if (flags & PHP_VESK_EVENT_BSON_BT) {
        php_vesk_event_add_bson_bt(&event, flags & PHP_VESK_EVENT_FORCE_BT);
    }
    if (flags & PHP_VESK_EVENT_ARGS) {
        php_vesk_event_add_args(&event);
    }
    php_vesk_event_add_memory(&event);
    for (const php_vesk_kv *record = kvs; record != NULL && record->type != PHP_VESK_KV_END; record++) {
        php_vesk_event_add_kv(&event, record);
    }

    int rc = php_vesk_reporter_send(context, &event, flags);
    vesk_event_destroy(&event);
    VESK_G(tracing) = 1;
    return rc;
}
