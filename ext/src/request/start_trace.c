/*
 * Start and end of a request's trace: the incoming identifier, the tracing
 * decision, the entry event and the exit event, and the X-Trace answer.
 */
#include "php_corvidine.h"

#include "SAPI.h"

#include "corvidine/context.h"
#include "corvidine/debug_log.h"
#include "corvidine/metadata.h"
#include "corvidine/settings.h"
#include "corvidine/tracing_decisions.h"

#include "src/request/request_ini.h"
#include "src/request/request_trace.h"
#include "src/request/response_header.h"
#include "src/request/trace_options.h"
#include "src/wrap/wrap.h"

/* Records the entry event adds behind the caller's and the custom- options. */
#define PHP_VESK_ENTRY_KEYS 13
/* Records the exit event adds behind the caller's. */
#define PHP_VESK_EXIT_KEYS 3
/* Lists of up to this many records live on the stack: the request heap's
 * first block of a size in a request costs hundreds of instructions. */
#define PHP_VESK_STACK_KEYS 32

static int php_vesk_sapi_is_cli(void) {
    return sapi_module.name != NULL && strcmp(sapi_module.name, "cli") == 0;
}

/* Adds "X-Trace: <id>" to the response; an id that cannot be written is left
 * out. */
static void php_vesk_send_xtrace_header(const vesk_metadata_t *md) {
    php_vesk_add_xtrace_header(md);
}

void php_vesk_add_header(const char *line, size_t len) {
    /* Once the response has begun (a warning PHP printed at request start,
     * say) PHP would refuse the header with a warning of its own. */
    if (SG(headers_sent)) {
        VESK_DEBUG_LOG_USAGE(VESK_DEBUG_MODULE_PHP, VESK_DEBUG_INFO, "output began before request start: no %.*s",
                             (int)len, line);
        return;
    }
    sapi_header_line header = {0};
    header.line = (char *)line;
    header.line_len = len;
    sapi_header_op(SAPI_HEADER_ADD, &header);
}

/* The process-wide mode and rate from INI, written anew by every request (in
 * a threaded server the last writer wins). */
static void setup_vesk_configuration(int mode) {
    if (mode != 1 && mode != 0 && mode != -1) {
        PHP_VESK_WARNING("corvidine.tracing ini setting must be 'enabled' or 'disabled'");
        mode = 0;
    }
    vesk_settings_mode_set(mode);

    if (php_vesk_request_ini_str(PHP_VESK_RINI_SAMPLE_RATE)[0] != '\0') {
        uint32_t rate = (uint32_t)php_vesk_request_ini_long(PHP_VESK_RINI_SAMPLE_RATE);
        if (rate > VESK_SETTINGS_MAX_SAMPLE_RATE) {
            PHP_VESK_WARNING("corvidine.sample_rate ini setting must be between 0 and %d",
                             VESK_SETTINGS_MAX_SAMPLE_RATE);
        } else {
            vesk_settings_rate_set((int)rate);
        }
    }
}

/* The identifier to continue: the caller's, then one set from PHP code
 * (corvidine_set_context), then the request's X-Trace header, then
 * corvidine.xtrace. Null when there is none. */
static const char *php_vesk_incoming_xtrace(const char *xtrace) {
    if (xtrace != NULL && xtrace[0] != '\0') {
        return xtrace;
    }
    if (VESK_G(context_override) != NULL && VESK_G(context_override)[0] != '\0') {
        return VESK_G(context_override);
    }
    const char *header = php_vesk_server_value(PHP_VESK_SV_HTTP_X_TRACE);
    if (header != NULL) {
        return header[0] != '\0' ? header : NULL;
    }
    const char *configured = php_vesk_request_ini_str(PHP_VESK_RINI_XTRACE);
    return configured[0] != '\0' ? configured : NULL;
}

/* Sets the context from the incoming identifier. An identifier that parses
 * takes its place in the context whatever its version and task id: the
 * decision treats a version other than 2 as absent, and an unsampled one is
 * answered with itself. One that does not parse is forgotten: the request
 * starts a new trace with random ids and a sampled flag, with no edge.
 * Returns the identifier still in use, or null. */
static const char *php_vesk_set_context(const char *incoming, int *event_flags) {
    vesk_metadata_t md;
    vesk_metadata_init(&md);
    if (incoming != NULL && vesk_metadata_fromstr(&md, incoming, strlen(incoming)) == 0) {
        vesk_context_set(&md);
        return incoming;
    }
    /* Fresh lengths and flags: a failed parse may have left some behind. */
    vesk_metadata_init(&md);
    vesk_metadata_random(&md);
    md.flags |= VESK_XTRACE_FLAG_SAMPLED;
    vesk_context_set(&md);
    *event_flags |= PHP_VESK_EVENT_NO_EDGE;
    return NULL;
}

/* An exit event prepared but not sent (the context went away before request
 * end) still owns its buffer. */
static void php_vesk_drop_exit_event(void) {
    if (VESK_G(exit_event_state) != 0) {
        vesk_event_destroy(&VESK_G(exit_event));
        VESK_G(exit_event_state) = 0;
    }
}

static void php_vesk_unsampled_path(void) {
    /* The families an untraced request needs too (X-Trace on outgoing
     * calls, log trace ids). */
    if (VESK_G(wrap_state) == 0 && php_vesk_wrap_enabled()) {
        wrap_for_span();
    }

    vesk_metadata_t *context = vesk_context_get();
    context->flags &= (uint8_t)~VESK_XTRACE_FLAG_SAMPLED;
    if (!php_vesk_sapi_is_cli()) {
        php_vesk_send_xtrace_header(context);
    }
}

static void php_vesk_add_server_kv(php_vesk_kv *list, int *n, const char *key, php_vesk_server_id source) {
    const char *value = php_vesk_server_value(source);
    if (value != NULL) {
        list[*n] = (php_vesk_kv){PHP_VESK_KV_STRING, key, value, (int64_t)strlen(value)};
        (*n)++;
    }
}

static void php_vesk_sampled_path(const char *layer, const vesk_tracing_decisions_out_t *out,
                                  const php_vesk_kv *kvs, int kv_count, int event_flags) {
    VESK_G(tracing) = 1;

    zval *custom = &VESK_G(custom_kvs);
    int custom_count = Z_TYPE_P(custom) == IS_ARRAY ? (int)zend_hash_num_elements(Z_ARRVAL_P(custom)) : 0;
    if (kvs == NULL || kv_count < 0) {
        kv_count = 0;
    }
    php_vesk_kv stack_list[PHP_VESK_STACK_KEYS];
    size_t list_size = (size_t)kv_count + (size_t)custom_count + PHP_VESK_ENTRY_KEYS;
    php_vesk_kv *list = list_size <= PHP_VESK_STACK_KEYS ? stack_list : safe_emalloc(list_size, sizeof(*list), 0);
    int n = 0;
    for (int i = 0; i < kv_count && kvs[i].type != PHP_VESK_KV_END; i++) {
        list[n++] = kvs[i];
    }
    if (php_vesk_server_value(PHP_VESK_SV_REQUEST_URI) != NULL) {
        php_vesk_add_server_kv(list, &n, "URL", PHP_VESK_SV_REQUEST_URI);
    } else {
        php_vesk_add_server_kv(list, &n, "URL", PHP_VESK_SV_SCRIPT_NAME);
    }
    php_vesk_add_server_kv(list, &n, "HTTP-Host", PHP_VESK_SV_HTTP_HOST);
    php_vesk_add_server_kv(list, &n, "Method", PHP_VESK_SV_REQUEST_METHOD);
    php_vesk_add_server_kv(list, &n, "ClientIP", PHP_VESK_SV_REMOTE_ADDR);
    php_vesk_add_server_kv(list, &n, "Forwarded-For", PHP_VESK_SV_HTTP_X_FORWARDED_FOR);
    php_vesk_add_server_kv(list, &n, "Forwarded-Host", PHP_VESK_SV_HTTP_X_FORWARDED_HOST);

    int32_t sample_source = out->sample_source, sample_rate = out->sample_rate, triggered = 1;
    list[n++] = (php_vesk_kv){PHP_VESK_KV_INT, "SampleSource", &sample_source, 4};
    list[n++] = (php_vesk_kv){PHP_VESK_KV_INT, "SampleRate", &sample_rate, 4};
    if (VESK_G(triggered_trace)) {
        list[n++] = (php_vesk_kv){PHP_VESK_KV_BOOL, "TriggeredTrace", &triggered, 4};
    }
    if (VESK_G(pd_keys) != NULL) {
        list[n++] = (php_vesk_kv){PHP_VESK_KV_STRING, "PDKeys", VESK_G(pd_keys), (int64_t)strlen(VESK_G(pd_keys))};
    }
    if (custom_count > 0) {
        zend_string *key;
        zval *value;
        ZEND_HASH_FOREACH_STR_KEY_VAL(Z_ARRVAL_P(custom), key, value) {
            if (key != NULL && Z_TYPE_P(value) == IS_STRING) {
                list[n++] = (php_vesk_kv){PHP_VESK_KV_STRING, ZSTR_VAL(key), Z_STRVAL_P(value),
                                          (int64_t)Z_STRLEN_P(value)};
            }
        }
        ZEND_HASH_FOREACH_END();
    }
    list[n] = (php_vesk_kv){PHP_VESK_KV_END, NULL, NULL, 0};

    php_vesk_trace_event(layer, "entry", list, event_flags);

    /* The exit event gets its id now, so that the response can name it
     * although the event is sent only at request end. A trace started
     * twice in one request (from PHP code) replaces the first one's. */
    php_vesk_drop_exit_event();
    if (vesk_event_init(&VESK_G(exit_event), vesk_context_get(), NULL) == 0) {
        VESK_G(exit_event_state) = 1;
        if (!php_vesk_sapi_is_cli()) {
            php_vesk_send_xtrace_header(&VESK_G(exit_event).metadata);
        }
    }

    if (list != stack_list) {
        efree(list);
    }
    if (VESK_G(context_override) != NULL) {
        efree(VESK_G(context_override));
        VESK_G(context_override) = NULL;
    }

    if (VESK_G(tracing) && VESK_G(wrap_state) == 0 && php_vesk_wrap_enabled()) {
        new_wrap_init();
    }
}

int php_vesk_start_trace(const char *layer, const char *xtrace, int *sample_rate, int *sample_source,
                         const php_vesk_kv *kvs, int kv_count, int event_flags) {
    const char *incoming = php_vesk_incoming_xtrace(xtrace);

    if (VESK_G(layer_name) != NULL) {
        efree(VESK_G(layer_name));
    }
    VESK_G(layer_name) = estrdup(layer != NULL ? layer : "");

    int mode = -1;
    int filter = php_vesk_transaction_filtering(&mode);
    setup_vesk_configuration(mode);

    incoming = php_vesk_set_context(incoming, &event_flags);

    vesk_tracing_decisions_in_t in;
    memset(&in, 0, sizeof(in));
    in.version = 2;
    in.service_name = VESK_G(request_service_name);
    in.in_xtrace = incoming;
    in.custom_sample_rate = -1;
    in.custom_tracing_mode = -1;
    in.custom_trigger_mode = -1;
    in.request_type = 0;
    in.header_options = php_vesk_server_value(PHP_VESK_SV_HTTP_X_TRACE_OPTIONS);
    in.header_signature = php_vesk_server_value(PHP_VESK_SV_HTTP_X_TRACE_OPTIONS_SIGNATURE);
    in.header_timestamp = 0;

    php_vesk_trace_options options;
    php_vesk_trace_options_parse(in.header_options, &options);
    if (in.header_options != NULL) {
        in.request_type = options.request_type;
        in.header_timestamp = options.timestamp;
    }

    vesk_tracing_decisions_out_t out;
    memset(&out, 0, sizeof(out));
    out.version = 2;
    int rc = vesk_tracing_decisions(&in, &out);
    if (sample_rate != NULL) {
        *sample_rate = out.sample_rate;
    }
    if (sample_source != NULL) {
        *sample_source = out.sample_source;
    }
    VESK_G(do_metrics) = out.do_metrics;

    if (in.header_options != NULL) {
        php_vesk_trace_options_respond(&options, rc, &out);
    }
    php_vesk_trace_options_free(&options);
    if (out.decision_type == 1) {
        VESK_G(triggered_trace) = 1;
    }

    if (!out.do_sample || !filter) {
        php_vesk_unsampled_path();
    } else {
        php_vesk_sampled_path(VESK_G(layer_name), &out, kvs, kv_count, event_flags);
    }
    return 0;
}

void php_vesk_end_trace(const php_vesk_kv *kvs, int kv_count, int event_flags) {
    if (VESK_G(tracing)) {
        if (kvs == NULL || kv_count < 0) {
            kv_count = 0;
        }
        php_vesk_kv stack_list[PHP_VESK_STACK_KEYS];
        size_t list_size = (size_t)kv_count + PHP_VESK_EXIT_KEYS + 1;
        php_vesk_kv *list = list_size <= PHP_VESK_STACK_KEYS ? stack_list : safe_emalloc(list_size, sizeof(*list), 0);
        int n = 0;
        for (int i = 0; i < kv_count && kvs[i].type != PHP_VESK_KV_END; i++) {
            list[n++] = kvs[i];
        }
        /* -1 without profiling; whether any snapshot was taken otherwise. */
        int32_t profile_spans = VESK_G(profiling_enabled) ? VESK_G(profiler_last_tick) != 0 : -1;
        int64_t status = SG(sapi_headers).http_response_code;
        list[n++] = (php_vesk_kv){PHP_VESK_KV_INT, "ProfileSpans", &profile_spans, 4};
        if (VESK_G(transaction_name)[0] != '\0') {
            list[n++] = (php_vesk_kv){PHP_VESK_KV_STRING, "TransactionName", VESK_G(transaction_name),
                                      (int64_t)strlen(VESK_G(transaction_name))};
        }
        list[n++] = (php_vesk_kv){PHP_VESK_KV_INT, "Status", &status, 8};
        list[n] = (php_vesk_kv){PHP_VESK_KV_END, NULL, NULL, 0};

        if (VESK_G(exit_event_state) != 0) {
            VESK_G(exit_event_state) = 2;
        }
        php_vesk_trace_event(VESK_G(layer_name), "exit", list, event_flags);
        php_vesk_drop_exit_event();

        if (list != stack_list) {
            efree(list);
        }
        if (VESK_G(layer_name) != NULL) {
            efree(VESK_G(layer_name));
            VESK_G(layer_name) = NULL;
        }
        vesk_context_clear();

        if (VESK_G(wrap_state) != 0 && php_vesk_wrap_enabled()) {
            new_wrap_unload();
        }
        VESK_G(tracing) = 0;
        return;
    }

    php_vesk_drop_exit_event();
    if (VESK_G(wrap_state) > 0 && php_vesk_wrap_enabled()) {
        unwrap_for_span();
    }
    if (VESK_G(layer_name) != NULL) {
        efree(VESK_G(layer_name));
        VESK_G(layer_name) = NULL;
    }
}
