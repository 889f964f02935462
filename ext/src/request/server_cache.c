/* The request's server variables, copied once at request start, and the
 * domain worked out from them. */
#include "php_corvidine.h"

#include "src/request/request_trace.h"

/* Only these keys are copied: every later read of a server variable goes to
 * the cache, and the application may change _SERVER meanwhile. */
static const char *const php_vesk_cached_keys[] = {
    "HTTP_X_TRACE",          "REQUEST_URI",          "SCRIPT_NAME",
    "HTTP_X_FORWARDED_HOST", "HTTP_X_FORWARDED_FOR", "HTTP_HOST",
    "SERVER_NAME",           "SERVER_PORT",          "REQUEST_METHOD",
    "REMOTE_ADDR",           "HTTP_X_TRACE_OPTIONS", "HTTP_X_TRACE_OPTIONS_SIGNATURE",
};

void php_vesk_cache_server_globals(void) {
    zval *cache = &VESK_G(server_cache);
    zval_ptr_dtor(cache);
    array_init(cache);

    zval *server = zend_hash_str_find(&EG(symbol_table), ZEND_STRL("_SERVER"));
    if (server != NULL) {
        ZVAL_DEREF(server);
    }
    if (server == NULL || Z_TYPE_P(server) != IS_ARRAY) {
        PHP_VESK_WARNING("vesk extension couldn't fetch _SERVER global");
        return;
    }

    HashTable *vars = Z_ARRVAL_P(server);
    for (size_t i = 0; i < sizeof(php_vesk_cached_keys) / sizeof(php_vesk_cached_keys[0]); i++) {
        const char *key = php_vesk_cached_keys[i];
        zval *value = zend_hash_str_find_deref(vars, key, strlen(key));
        if (value != NULL && Z_TYPE_P(value) == IS_STRING) {
            add_assoc_str_ex(cache, key, strlen(key), zend_string_copy(Z_STR_P(value)));
        }
    }
    /* Any value of HTTPS counts, "off" included. */
    add_assoc_string_ex(cache, ZEND_STRL("PROTOCOL"),
                        zend_hash_str_exists(vars, ZEND_STRL("HTTPS")) ? "https://" : "http://");
}

const char *php_vesk_server_str(const char *key, size_t key_len) {
    zval *cache = &VESK_G(server_cache);
    if (Z_TYPE_P(cache) != IS_ARRAY) {
        return NULL;
    }
    zval *value = zend_hash_str_find(Z_ARRVAL_P(cache), key, key_len);
    return (value != NULL && Z_TYPE_P(value) == IS_STRING) ? Z_STRVAL_P(value) : NULL;
}

/* The longest domain taken, so that ":port" and the terminator still fit in
 * PHP_VESK_DOMAIN_SIZE. */
#define PHP_VESK_DOMAIN_MAX 254

int vesk_php_get_domain(char *buffer) {
    static const char *const sources[] = {"HTTP_X_FORWARDED_HOST", "HTTP_HOST", "SERVER_NAME"};
    const char *domain = NULL;
    size_t length = 0;
    for (size_t i = 0; i < sizeof(sources) / sizeof(sources[0]) && domain == NULL; i++) {
        const char *candidate = php_vesk_server_str(sources[i], strlen(sources[i]));
        if (candidate != NULL) {
            length = strlen(candidate);
            if (length > 0 && length < PHP_VESK_DOMAIN_MAX) {
                domain = candidate;
            }
        }
    }
    if (domain == NULL) {
        return -1;
    }
    memcpy(buffer, domain, length + 1);
    if (strchr(domain, ':') != NULL) {
        return 0;
    }

    const char *port = PHP_VESK_SERVER_STR("SERVER_PORT");
    if (port == NULL || strcmp(port, "80") == 0 || strcmp(port, "443") == 0) {
        return 0;
    }
    size_t port_len = strlen(port);
    if (port_len + 1 < PHP_VESK_DOMAIN_MAX - length) {
        buffer[length] = ':';
        memcpy(buffer + length + 1, port, port_len + 1);
    }
    return 0;
}
