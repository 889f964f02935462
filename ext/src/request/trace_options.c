/* Parsing X-Trace-Options and answering it in X-Trace-Options-Response. */
#include "php_corvidine.h"

#include "SAPI.h"

#include "src/request/request_trace.h"
#include "src/request/trace_options.h"

#define PHP_VESK_SMART_STR_LEN(str) ((str).s != NULL ? ZSTR_LEN((str).s) : 0)

static int php_vesk_is_blank(char c) {
    return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\v' || c == '\f';
}

/* Trims [*start, *end) in place; returns 0 when nothing is left. */
static int php_vesk_trim(const char **start, const char **end) {
    while (*start < *end && php_vesk_is_blank(**start)) {
        (*start)++;
    }
    while (*end > *start && php_vesk_is_blank((*end)[-1])) {
        (*end)--;
    }
    return *end > *start;
}

/* The ignored list is echoed in a response header, and a front server
 * refuses a response whose headers outgrow its buffer (nginx answers 502):
 * keys that would take the list beyond this many bytes are left out. */
#define PHP_VESK_IGNORED_MAX 512

static void php_vesk_ignore(php_vesk_trace_options *options, const char *key, size_t key_len) {
    size_t used = PHP_VESK_SMART_STR_LEN(options->ignored);
    if (used + (used > 0) + key_len > PHP_VESK_IGNORED_MAX) {
        return;
    }
    if (used > 0) {
        smart_str_appendc(&options->ignored, ',');
    }
    smart_str_appendl(&options->ignored, key, key_len);
}


/* One entry, already known not to be empty nor to begin with "=". */
static void php_vesk_trace_option(php_vesk_trace_options *options, const char *entry, const char *entry_end) {
    const char *equals = memchr(entry, '=', (size_t)(entry_end - entry));
    const char *key = entry, *key_end = equals != NULL ? equals : entry_end;
    const char *value = NULL, *value_end = NULL;
    if (!php_vesk_trim(&key, &key_end)) {
        return; /* only blanks before "=": no key to act on or to list */
    }
    if (equals != NULL) {
        value = equals + 1;
        value_end = entry_end;
        if (!php_vesk_trim(&value, &value_end)) {
            value = NULL; /* blanks only: no value */
        }
    }
    size_t key_len = (size_t)(key_end - key);
    size_t value_len = value != NULL ? (size_t)(value_end - value) : 0;

#define KEY_IS(literal) (key_len == sizeof(literal) - 1 && memcmp(key, literal, key_len) == 0)
    if (KEY_IS("trigger-trace") && value == NULL) {
        options->request_type = 1;
    } else if (KEY_IS("ts") && value != NULL) {
        char digits[32];
        size_t n = value_len < sizeof(digits) - 1 ? value_len : sizeof(digits) - 1;
        memcpy(digits, value, n);
        digits[n] = '\0';
        options->timestamp = strtol(digits, NULL, 10);
    } else if (KEY_IS("pd-keys") && value != NULL) {
        if (VESK_G(pd_keys) != NULL) {
            efree(VESK_G(pd_keys));
        }
        VESK_G(pd_keys) = estrndup(value, value_len);
    } else if (key_len >= sizeof("custom-") - 1 && memcmp(key, "custom-", sizeof("custom-") - 1) == 0) {
        zval *kvs = &VESK_G(custom_kvs);
        if (Z_TYPE_P(kvs) != IS_ARRAY) {
            array_init(kvs);
        }
        add_assoc_stringl_ex(kvs, key, key_len, value != NULL ? (char *)value : "", value_len);
    } else {
        php_vesk_ignore(options, key, key_len);
    }
#undef KEY_IS
}

void php_vesk_trace_options_parse(const char *header, php_vesk_trace_options *options) {
    memset(options, 0, sizeof(*options));
    if (header == NULL) {
        return;
    }
    const char *cursor = header;
    const char *end = header + strlen(header);
    while (cursor < end) {
        const char *entry_end = memchr(cursor, ';', (size_t)(end - cursor));
        if (entry_end == NULL) {
            entry_end = end;
        }
        if (entry_end > cursor && cursor[0] != '=') {
            php_vesk_trace_option(options, cursor, entry_end);
        }
        cursor = entry_end + 1;
    }
    smart_str_0(&options->ignored);
}

void php_vesk_trace_options_free(php_vesk_trace_options *options) {
    smart_str_free(&options->ignored);
}

void php_vesk_trace_options_respond(const php_vesk_trace_options *options, int rc,
                                    const vesk_tracing_decisions_out_t *out) {
    const char *status = out->status_message != NULL ? out->status_message : "";
    if (rc == VESK_TRACING_DECISIONS_OK || rc == VESK_TRACING_DECISIONS_XTRACE_NOT_SAMPLED) {
        if (options->request_type == 0) {
            status = "not-requested";
        } else if (out->decision_type != 1) {
            status = "ignored";
        }
    }
    if (strcmp(sapi_module.name, "cli") == 0) {
        return;
    }

    smart_str line = {0};
    smart_str_appends(&line, "X-Trace-Options-Response: ");
    int done = 0;
    if (out->auth_status != VESK_AUTH_NO_SIGNATURE) {
        smart_str_appends(&line, "auth=");
        smart_str_appends(&line, out->auth_message != NULL ? out->auth_message : "");
        if (out->auth_status > 0) {
            done = 1; /* a failed signature says nothing about the trigger */
        } else {
            smart_str_appendc(&line, ';');
        }
    }
    if (!done) {
        smart_str_appends(&line, "trigger-trace=");
        smart_str_appends(&line, status);
        if (PHP_VESK_SMART_STR_LEN(options->ignored) > 0) {
            smart_str_appends(&line, ";ignored=");
            smart_str_append(&line, options->ignored.s);
        }
    }
    smart_str_0(&line);

    php_vesk_add_header(ZSTR_VAL(line.s), ZSTR_LEN(line.s));
    smart_str_free(&line);
}
