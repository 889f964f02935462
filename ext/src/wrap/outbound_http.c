/*
 * Shared by the outbound HTTP wrappers. Credentials never leave the host in
 * an event: a URL that carries a user or password is rebuilt from its parts
 * without them.
 */
#include "php.h"

#include "ext/standard/url.h"
#include "zend_smart_str.h"

#include "corvidine/context.h"

#include "src/wrap/outbound_http.h"

static int php_vesk_default_port(const php_url *url, unsigned short port) {
    if (url->scheme == NULL) {
        return port == 80 || port == 443;
    }
    return (port == 80 && zend_string_equals_literal_ci(url->scheme, "http")) ||
           (port == 443 && zend_string_equals_literal_ci(url->scheme, "https"));
}

zend_string *php_vesk_remote_url(zend_string *url) {
    php_url *parts = php_url_parse_ex(ZSTR_VAL(url), ZSTR_LEN(url));
    if (parts == NULL || (parts->user == NULL && parts->pass == NULL)) {
        if (parts != NULL) {
            php_url_free(parts);
        }
        return zend_string_copy(url);
    }
    smart_str out = {0};
    if (parts->scheme != NULL) {
        smart_str_append(&out, parts->scheme);
        smart_str_appendl(&out, "://", 3);
    }
    if (parts->host != NULL) {
        smart_str_append(&out, parts->host);
    }
    if (parts->port != 0 && !php_vesk_default_port(parts, parts->port)) {
        smart_str_appendc(&out, ':');
        smart_str_append_unsigned(&out, parts->port);
    }
    if (parts->path != NULL) {
        smart_str_append(&out, parts->path);
    }
    if (parts->query != NULL) {
        smart_str_appendc(&out, '?');
        smart_str_append(&out, parts->query);
    }
    if (parts->fragment != NULL) {
        smart_str_appendc(&out, '#');
        smart_str_append(&out, parts->fragment);
    }
    php_url_free(parts);
    return smart_str_extract(&out);
}

int php_vesk_is_xtrace_line(const char *line, size_t length, char separator) {
    return length >= 8 && zend_binary_strncasecmp(line, 7, "X-Trace", 7, 7) == 0 &&
           (line[7] == ':' || line[7] == separator);
}

int php_vesk_response_edge(const char *line, size_t length, int sampled_only, vesk_metadata_t *edge) {
    if (!php_vesk_is_xtrace_line(line, length, ':')) {
        return 0;
    }
    const char *value = line + 8, *end = line + length;
    while (value < end && (*value == ' ' || *value == '\t')) {
        value++;
    }
    while (end > value && (end[-1] == '\r' || end[-1] == '\n' || end[-1] == ' ' || end[-1] == '\t')) {
        end--;
    }
    const vesk_metadata_t *context = vesk_context_get();
    vesk_metadata_init(edge);
    return context != NULL && vesk_metadata_fromstr(edge, value, (size_t)(end - value)) == 0 &&
           edge->task_len == context->task_len && memcmp(edge->task_id, context->task_id, edge->task_len) == 0 &&
           (!sampled_only || vesk_metadata_is_sampled(edge));
}
