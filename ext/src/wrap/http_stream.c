/*
 * HTTP streams (fopen, file_get_contents, get_headers ... on http:// and
 * https://) carry the X-Trace header too, and a traced request reports each
 * open as a span of layer "php_http".
 *
 * PHP's wrapper record (php_stream_http_wrapper) is const, so a record of
 * our own takes its place in the URL wrappers registry at module start, for
 * each scheme that has one. Its operations are a copy of the original's
 * with another opener, which adds the header line to the stream context for
 * the one open, calls the original opener with our record (its error
 * messages are filed under the record the caller found, so they still
 * show), and puts the context's header back as it was. Response headers are
 * the stream's wrapper data; a failed open leaves them in the caller's
 * $http_response_header only.
 */
#include "php_corvidine.h"

#include "php_streams.h"
#include "zend_smart_str.h"

#include "corvidine/context.h"

#include "src/config/ini.h"
#include "src/events/php_vesk_events.h"
#include "src/wrap/outbound_http.h"
#include "src/wrap/wrap.h"

#define PHP_VESK_HTTP_LAYER "php_http"

static const char *const php_vesk_http_schemes[] = {"http", "https"};
#define PHP_VESK_HTTP_SCHEMES 2

/* Written at module start and shutdown only. */
static const php_stream_wrapper *php_vesk_http_originals[PHP_VESK_HTTP_SCHEMES];
static php_stream_wrapper_ops php_vesk_http_ops[PHP_VESK_HTTP_SCHEMES];
static php_stream_wrapper php_vesk_http_wrappers[PHP_VESK_HTTP_SCHEMES];

/* The context's "http" options, separated for writing; null when absent
 * (or not an array). */
static zval *php_vesk_http_options(php_stream_context *context, int create) {
    SEPARATE_ARRAY(&context->options);
    zval *http = zend_hash_str_find_deref(Z_ARRVAL(context->options), ZEND_STRL("http"));
    if (http == NULL && create) {
        zval empty;
        array_init(&empty);
        http = zend_hash_str_update(Z_ARRVAL(context->options), ZEND_STRL("http"), &empty);
    }
    if (http == NULL || Z_TYPE_P(http) != IS_ARRAY) {
        return NULL;
    }
    SEPARATE_ARRAY(http);
    return http;
}

/* An X-Trace line among the application's own request headers. */
static int php_vesk_http_has_own(zval *header) {
    if (Z_TYPE_P(header) == IS_ARRAY) {
        zval *line;
        ZEND_HASH_FOREACH_VAL(Z_ARRVAL_P(header), line) {
            ZVAL_DEREF(line);
            if (Z_TYPE_P(line) == IS_STRING && php_vesk_is_xtrace_line(Z_STRVAL_P(line), Z_STRLEN_P(line), ':')) {
                return 1;
            }
        }
        ZEND_HASH_FOREACH_END();
        return 0;
    }
    if (Z_TYPE_P(header) != IS_STRING) {
        return 0;
    }
    const char *text = Z_STRVAL_P(header), *end = text + Z_STRLEN_P(header);
    while (text < end) {
        const char *eol = memchr(text, '\n', (size_t)(end - text));
        size_t length = (size_t)((eol != NULL ? eol : end) - text);
        if (php_vesk_is_xtrace_line(text, length, ':')) {
            return 1;
        }
        text += length + 1;
    }
    return 0;
}

/* Adds "X-Trace: <id>" to the context's header option (string or array
 * form, whichever the application used). Returns 1 when the option was
 * changed: backup then holds the old value (undef: there was none) and
 * had_http whether the "http" options existed at all. */
static int php_vesk_http_add_header(php_stream_context *context, const vesk_metadata_t *md, zval *backup,
                                    int *had_http) {
    char id[VESK_MAX_METADATA_STRING_LEN];
    if (vesk_metadata_tostr(md, id, sizeof(id)) != 0) {
        return 0;
    }
    zval *existing = zend_hash_str_find_deref(Z_ARRVAL(context->options), ZEND_STRL("http"));
    if (existing != NULL && Z_TYPE_P(existing) != IS_ARRAY) {
        return 0;
    }
    *had_http = existing != NULL;
    zval *old = existing != NULL ? zend_hash_str_find_deref(Z_ARRVAL_P(existing), ZEND_STRL("header")) : NULL;
    if (old != NULL && php_vesk_http_has_own(old)) {
        return 0;
    }
    zval header;
    if (old != NULL && Z_TYPE_P(old) == IS_ARRAY) {
        ZVAL_ARR(&header, zend_array_dup(Z_ARRVAL_P(old)));
        add_next_index_str(&header, zend_strpprintf(0, "X-Trace: %s", id));
    } else if (old != NULL && Z_TYPE_P(old) == IS_STRING && Z_STRLEN_P(old) > 0) {
        size_t length = Z_STRLEN_P(old);
        while (length > 0 && (Z_STRVAL_P(old)[length - 1] == '\r' || Z_STRVAL_P(old)[length - 1] == '\n')) {
            length--;
        }
        ZVAL_STR(&header, zend_strpprintf(0, "%.*s\r\nX-Trace: %s", (int)length, Z_STRVAL_P(old), id));
    } else {
        ZVAL_STR(&header, zend_strpprintf(0, "X-Trace: %s", id));
    }
    if (old != NULL) {
        ZVAL_COPY(backup, old);
    } else {
        ZVAL_UNDEF(backup);
    }
    zval *http = php_vesk_http_options(context, 1);
    zend_hash_str_update(Z_ARRVAL_P(http), ZEND_STRL("header"), &header);
    return 1;
}

static void php_vesk_http_restore_header(php_stream_context *context, zval *backup, int had_http) {
    zval *http = php_vesk_http_options(context, 0);
    if (http == NULL) {
        zval_ptr_dtor(backup);
        return;
    }
    if (Z_ISUNDEF_P(backup)) {
        zend_hash_str_del(Z_ARRVAL_P(http), ZEND_STRL("header"));
        if (!had_http && zend_hash_num_elements(Z_ARRVAL_P(http)) == 0) {
            zend_hash_str_del(Z_ARRVAL(context->options), ZEND_STRL("http"));
        }
    } else {
        zend_hash_str_update(Z_ARRVAL_P(http), ZEND_STRL("header"), backup);
    }
}

static void php_vesk_http_entry(const char *path) {
    int32_t one = 1;
    zend_string *url = zend_string_init(path, strlen(path), 0);
    zend_string *remote = php_vesk_remote_url(url);
    php_vesk_kv records[] = {
        {PHP_VESK_KV_INT, "IsService", &one, 4},
        {PHP_VESK_KV_STRING, "RemoteController", "php_http_stream", 0},
        {PHP_VESK_KV_STRING, "RemoteURL", ZSTR_VAL(remote), 0},
        {PHP_VESK_KV_END, NULL, NULL, 0},
    };
    php_vesk_trace_event(PHP_VESK_HTTP_LAYER, "entry", records, PHP_VESK_EVENT_BACKTRACE);
    zend_string_release(remote);
    zend_string_release(url);
}

/* Status of the last response (after redirects, the final one), the remote
 * side's sampled exit id, the method. */
static void php_vesk_http_exit(php_stream *stream, php_stream_context *context) {
    zval *lines = NULL;
    if (stream != NULL) {
        lines = &stream->wrapperdata;
    } else if (!EG(exception)) {
        zend_array *symbols = zend_rebuild_symbol_table();
        lines = symbols != NULL ? zend_hash_str_find_ind(symbols, ZEND_STRL("http_response_header")) : NULL;
    }
    if (lines != NULL) {
        ZVAL_DEREF(lines);
    }
    php_vesk_kv records[4];
    int n = 0;
    zval *method = context != NULL ? php_stream_context_get_option(context, "http", "method") : NULL;
    records[n++] = (php_vesk_kv){PHP_VESK_KV_STRING, "HTTPMethod",
                                 method != NULL && Z_TYPE_P(method) == IS_STRING ? Z_STRVAL_P(method) : "GET", 0};
    int64_t status = -1;
    vesk_metadata_t edge;
    int has_edge = 0;
    if (lines != NULL && Z_TYPE_P(lines) == IS_ARRAY) {
        zval *line;
        ZEND_HASH_FOREACH_VAL(Z_ARRVAL_P(lines), line) {
            if (Z_TYPE_P(line) != IS_STRING) {
                continue;
            }
            const char *text = Z_STRVAL_P(line);
            if (Z_STRLEN_P(line) > 9 && strncasecmp(text, "HTTP/", 5) == 0) {
                const char *space = memchr(text, ' ', Z_STRLEN_P(line));
                status = space != NULL ? ZEND_STRTOL(space + 1, NULL, 10) : status;
            } else if (!has_edge) {
                has_edge = php_vesk_response_edge(text, Z_STRLEN_P(line), 1, &edge);
            }
        }
        ZEND_HASH_FOREACH_END();
    }
    if (status >= 0) {
        records[n++] = (php_vesk_kv){PHP_VESK_KV_INT, "HTTPStatus", &status, 8};
    }
    if (has_edge) {
        records[n++] = (php_vesk_kv){PHP_VESK_KV_EDGE, "Edge", &edge, 0};
    }
    records[n] = (php_vesk_kv){PHP_VESK_KV_END, NULL, NULL, 0};
    php_vesk_trace_event(PHP_VESK_HTTP_LAYER, "exit", records, 0);
}

static php_stream *php_vesk_http_open(php_stream_wrapper *wrapper, const char *path, const char *mode, int options,
                                      zend_string **opened_path, php_stream_context *context STREAMS_DC) {
    const php_stream_wrapper *original = php_vesk_http_originals[wrapper - php_vesk_http_wrappers];
    vesk_metadata_t *md = vesk_context_get();
    if (!VESK_G(trace_started) || md == NULL || !vesk_metadata_is_valid(md) || !php_vesk_wrap_enabled()) {
        return original->wops->stream_opener(wrapper, path, mode, options, opened_path, context STREAMS_REL_CC);
    }
    int traced = VESK_G(tracing);
    if (traced) {
        php_vesk_http_entry(path);
    }
    if (context == NULL) {
        context = php_stream_context_alloc();
    }
    zval backup;
    int had_http = 0;
    int changed = php_vesk_http_add_header(context, vesk_context_get(), &backup, &had_http);
    php_stream *stream =
        original->wops->stream_opener(wrapper, path, mode, options, opened_path, context STREAMS_REL_CC);
    if (changed) {
        php_vesk_http_restore_header(context, &backup, had_http);
    }
    if (traced) {
        php_vesk_http_exit(stream, context);
    }
    return stream;
}

void php_vesk_http_stream_minit(void) {
    if (!VESK_INI_ON("corvidine.enable_wrap") || !VESK_INI_ON("corvidine.enable_wrap_http")) {
        return;
    }
    HashTable *registry = php_stream_get_url_stream_wrappers_hash_global();
    for (int i = 0; i < PHP_VESK_HTTP_SCHEMES; i++) {
        const char *scheme = php_vesk_http_schemes[i];
        php_stream_wrapper *found = zend_hash_str_find_ptr(registry, scheme, strlen(scheme));
        if (found == NULL || found->wops == NULL || found->wops->stream_opener == NULL ||
            found == &php_vesk_http_wrappers[i]) {
            continue;
        }
        php_vesk_http_ops[i] = *found->wops;
        php_vesk_http_ops[i].stream_opener = php_vesk_http_open;
        php_vesk_http_wrappers[i] = *found;
        php_vesk_http_wrappers[i].wops = &php_vesk_http_ops[i];
        php_vesk_http_originals[i] = found;
        php_unregister_url_stream_wrapper(scheme);
        if (php_register_url_stream_wrapper(scheme, &php_vesk_http_wrappers[i]) != SUCCESS) {
            php_register_url_stream_wrapper(scheme, found);
            php_vesk_http_originals[i] = NULL;
        }
    }
}

void php_vesk_http_stream_mshutdown(void) {
    HashTable *registry = php_stream_get_url_stream_wrappers_hash_global();
    for (int i = 0; i < PHP_VESK_HTTP_SCHEMES; i++) {
        const char *scheme = php_vesk_http_schemes[i];
        if (php_vesk_http_originals[i] == NULL) {
            continue;
        }
        if (zend_hash_str_find_ptr(registry, scheme, strlen(scheme)) == &php_vesk_http_wrappers[i]) {
            php_unregister_url_stream_wrapper(scheme);
            php_register_url_stream_wrapper(scheme, php_vesk_http_originals[i]);
        }
        php_vesk_http_originals[i] = NULL;
    }
}
