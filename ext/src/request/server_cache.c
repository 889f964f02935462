/* The request's server variables, copied once at request start, and the
 * domain worked out from them. */
#include "php_corvidine.h"

#include <strings.h>
#include <unistd.h>

#include "SAPI.h"
#include "php_variables.h"

#include "src/request/request_ini.h"
#include "src/request/request_trace.h"

typedef struct {
    const char *name;
    size_t length;
} php_vesk_server_key;
#define PHP_VESK_KEY(name) {name, sizeof(name) - 1}

/* Only these keys are copied: every later read of a server variable goes to
 * the cache, and the application may change _SERVER meanwhile. HTTPS, last,
 * is looked up for "PROTOCOL" only. */
static const php_vesk_server_key php_vesk_server_keys[] = {
    PHP_VESK_KEY("HTTP_X_TRACE"),
    PHP_VESK_KEY("REQUEST_URI"),
    PHP_VESK_KEY("SCRIPT_NAME"),
    PHP_VESK_KEY("HTTP_X_FORWARDED_HOST"),
    PHP_VESK_KEY("HTTP_X_FORWARDED_FOR"),
    PHP_VESK_KEY("HTTP_HOST"),
    PHP_VESK_KEY("SERVER_NAME"),
    PHP_VESK_KEY("SERVER_PORT"),
    PHP_VESK_KEY("REQUEST_METHOD"),
    PHP_VESK_KEY("REMOTE_ADDR"),
    PHP_VESK_KEY("HTTP_X_TRACE_OPTIONS"),
    PHP_VESK_KEY("HTTP_X_TRACE_OPTIONS_SIGNATURE"),
    PHP_VESK_KEY("HTTPS"),
};
#define PHP_VESK_SERVER_KEYS (sizeof(php_vesk_server_keys) / sizeof(php_vesk_server_keys[0]))
#define PHP_VESK_HTTPS_KEY (PHP_VESK_SERVER_KEYS - 1)

static void php_vesk_cache_add(HashTable *cache, const php_vesk_server_key *key, zend_string *value) {
    zval entry;
    ZVAL_STR(&entry, value);
    zend_hash_str_add_new(cache, key->name, key->length, &entry);
}

static void php_vesk_cache_add_protocol(HashTable *cache, int https) {
    /* Any value of HTTPS counts, "off" included. */
    zval protocol;
    ZVAL_STRING(&protocol, https ? "https://" : "http://");
    zend_hash_str_add_new(cache, ZEND_STRL("PROTOCOL"), &protocol);
}

/*
 * PHP builds _SERVER lazily, and building it registers every variable of the
 * request and of the process environment: by far the largest cost of an
 * unsampled request. Under php-fpm and php-cgi, _SERVER is the process
 * environment (in its order: of two equal names the last wins) overlaid by
 * the request's FastCGI parameters, which the SAPI's getenv hook returns
 * (as fix_pathinfo left them), plus PHP_SELF, REQUEST_TIME* and PHP_AUTH_*,
 * none of which is cached. So the few values tracing reads are taken from
 * there, and _SERVER is built only if the application asks for it.
 *
 * Only where the values are sure to be the ones _SERVER would hold: _SERVER
 * not built yet (else it is read), "S" in variables_order, and an input
 * filter that keeps values as they are (filter.default "unsafe_raw", or
 * PHP's default filter). Parameter names that PHP would rewrite when
 * registering them (blanks, dots, brackets) are not followed: web servers
 * make the HTTP_* names of letters, digits and underscores.
 */
static int php_vesk_server_from_cgi(void) {
    const char *sapi = sapi_module.name;
    if (sapi == NULL || sapi_module.getenv == NULL ||
        (strcmp(sapi, "fpm-fcgi") != 0 && strcmp(sapi, "cgi-fcgi") != 0)) {
        return 0;
    }
    if (Z_TYPE(PG(http_globals)[TRACK_VARS_SERVER]) == IS_ARRAY) {
        return 0;
    }
    const char *order = PG(variables_order);
    if (order == NULL || (strchr(order, 'S') == NULL && strchr(order, 's') == NULL)) {
        return 0;
    }
    zend_ini_entry *filter = php_vesk_request_ini_entry(PHP_VESK_RINI_FILTER_DEFAULT);
    if (filter != NULL) {
        return filter->value != NULL && strcasecmp(ZSTR_VAL(filter->value), "unsafe_raw") == 0;
    }
    return sapi_module.input_filter == php_default_input_filter;
}

/* The environment's values of the keys: of each name the first entry (what
 * getenv() finds) and the last (what _SERVER keeps). */
static void php_vesk_scan_environment(const char *first[], const char *last[]) {
    tsrm_env_lock();
    for (char **env = environ; env != NULL && *env != NULL; env++) {
        const char *entry = *env;
        /* Every key begins with H, R or S: most entries stop here. */
        if (entry[0] != 'H' && entry[0] != 'R' && entry[0] != 'S') {
            continue;
        }
        for (size_t i = 0; i < PHP_VESK_SERVER_KEYS; i++) {
            const php_vesk_server_key *key = &php_vesk_server_keys[i];
            if (entry[0] == key->name[0] && strncmp(entry, key->name, key->length) == 0 &&
                entry[key->length] == '=') {
                if (first[i] == NULL) {
                    first[i] = entry + key->length + 1;
                }
                last[i] = entry + key->length + 1;
                break;
            }
        }
    }
    tsrm_env_unlock();
}

static void php_vesk_cache_from_cgi(HashTable *cache) {
    const char *first[PHP_VESK_SERVER_KEYS] = {NULL}, *last[PHP_VESK_SERVER_KEYS] = {NULL};
    php_vesk_scan_environment(first, last);
    for (size_t i = 0; i < PHP_VESK_SERVER_KEYS; i++) {
        const php_vesk_server_key *key = &php_vesk_server_keys[i];
        /* A request parameter beats the environment. php-cgi's hook falls
         * back on getenv(), which answers with the first entry of a name
         * where _SERVER holds the last. */
        const char *value = sapi_module.getenv(key->name, key->length);
        if (value == NULL || value == first[i]) {
            value = last[i];
        }
        if (i == PHP_VESK_HTTPS_KEY) {
            php_vesk_cache_add_protocol(cache, value != NULL);
        } else if (value != NULL) {
            php_vesk_cache_add(cache, key, zend_string_init(value, strlen(value), 0));
        }
    }
}

static void php_vesk_cache_from_server(HashTable *cache) {
    zval *server = zend_hash_str_find(&EG(symbol_table), ZEND_STRL("_SERVER"));
    if (server != NULL) {
        ZVAL_DEREF(server);
    }
    if (server == NULL || Z_TYPE_P(server) != IS_ARRAY) {
        PHP_VESK_WARNING("vesk extension couldn't fetch _SERVER global");
        return;
    }
    HashTable *vars = Z_ARRVAL_P(server);
    for (size_t i = 0; i < PHP_VESK_HTTPS_KEY; i++) {
        const php_vesk_server_key *key = &php_vesk_server_keys[i];
        zval *value = zend_hash_str_find_deref(vars, key->name, key->length);
        if (value != NULL && Z_TYPE_P(value) == IS_STRING) {
            php_vesk_cache_add(cache, key, zend_string_copy(Z_STR_P(value)));
        }
    }
    php_vesk_cache_add_protocol(cache, zend_hash_str_exists(vars, ZEND_STRL("HTTPS")));
}

int php_vesk_cache_server_globals(void) {
    int from_cgi = php_vesk_server_from_cgi();
    if (from_cgi) {
        if (!zend_hash_str_exists(CG(auto_globals), ZEND_STRL("_SERVER"))) {
            return -1;
        }
    } else if (!zend_is_auto_global_str(ZEND_STRL("_SERVER"))) {
        /* Asked for now: PHP fills _SERVER lazily (auto_globals_jit). */
        return -1;
    }

    zval *cache = &VESK_G(server_cache);
    zval_ptr_dtor(cache);
    array_init_size(cache, PHP_VESK_SERVER_KEYS);
    if (from_cgi) {
        php_vesk_cache_from_cgi(Z_ARRVAL_P(cache));
        /* The request time is taken when first asked for; building _SERVER
         * asked for it here, and REQUEST_TIME stays this moment. */
        sapi_get_request_time();
    } else {
        php_vesk_cache_from_server(Z_ARRVAL_P(cache));
    }
    return 0;
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
