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
#define PHP_VESK_SERVER_KEY(name) {name, sizeof(name) - 1}

/* Only these keys are copied: every later read of a server variable goes to
 * the copy, and the application may change _SERVER meanwhile. "PROTOCOL" is
 * not a server variable: it tells whether "HTTPS" exists. */
static const php_vesk_server_key php_vesk_server_keys[PHP_VESK_SV_COUNT] = {
    [PHP_VESK_SV_HTTP_X_TRACE] = PHP_VESK_SERVER_KEY("HTTP_X_TRACE"),
    [PHP_VESK_SV_REQUEST_URI] = PHP_VESK_SERVER_KEY("REQUEST_URI"),
    [PHP_VESK_SV_SCRIPT_NAME] = PHP_VESK_SERVER_KEY("SCRIPT_NAME"),
    [PHP_VESK_SV_HTTP_X_FORWARDED_HOST] = PHP_VESK_SERVER_KEY("HTTP_X_FORWARDED_HOST"),
    [PHP_VESK_SV_HTTP_X_FORWARDED_FOR] = PHP_VESK_SERVER_KEY("HTTP_X_FORWARDED_FOR"),
    [PHP_VESK_SV_HTTP_HOST] = PHP_VESK_SERVER_KEY("HTTP_HOST"),
    [PHP_VESK_SV_SERVER_NAME] = PHP_VESK_SERVER_KEY("SERVER_NAME"),
    [PHP_VESK_SV_SERVER_PORT] = PHP_VESK_SERVER_KEY("SERVER_PORT"),
    [PHP_VESK_SV_REQUEST_METHOD] = PHP_VESK_SERVER_KEY("REQUEST_METHOD"),
    [PHP_VESK_SV_REMOTE_ADDR] = PHP_VESK_SERVER_KEY("REMOTE_ADDR"),
    [PHP_VESK_SV_HTTP_X_TRACE_OPTIONS] = PHP_VESK_SERVER_KEY("HTTP_X_TRACE_OPTIONS"),
    [PHP_VESK_SV_HTTP_X_TRACE_OPTIONS_SIGNATURE] = PHP_VESK_SERVER_KEY("HTTP_X_TRACE_OPTIONS_SIGNATURE"),
    [PHP_VESK_SV_PROTOCOL] = PHP_VESK_SERVER_KEY("PROTOCOL"),
};
/* What the keys are read from: the same names, and HTTPS for PROTOCOL. */
static const php_vesk_server_key php_vesk_https_key = PHP_VESK_SERVER_KEY("HTTPS");
#define PHP_VESK_SOURCE_KEY(i) ((i) == PHP_VESK_SV_PROTOCOL ? &php_vesk_https_key : &php_vesk_server_keys[i])

/*
 * The copy, for the request the thread is serving: the values, each with its
 * terminator, in one block on the request heap, read by number. Not a PHP
 * array: building a hash table that request code reads a handful of times
 * cost more than all the rest of an unsampled request.
 */
typedef struct {
    const char *value[PHP_VESK_SV_COUNT]; /* null: absent */
    size_t length[PHP_VESK_SV_COUNT];
    char *block;
} php_vesk_server_copy;

ZEND_TLS php_vesk_server_copy php_vesk_server_vars;

/* Copies the found values into one block (PROTOCOL points to a literal). */
static void php_vesk_server_copy_fill(const char *const value[], const size_t length[]) {
    size_t total = 0;
    for (size_t i = 0; i < PHP_VESK_SV_PROTOCOL; i++) {
        if (value[i] != NULL) {
            total += length[i] + 1;
        }
    }
    char *cursor = total > 0 ? emalloc(total) : NULL;
    php_vesk_server_vars.block = cursor;
    for (size_t i = 0; i < PHP_VESK_SV_PROTOCOL; i++) {
        if (value[i] != NULL) {
            memcpy(cursor, value[i], length[i]);
            cursor[length[i]] = '\0';
            php_vesk_server_vars.value[i] = cursor;
            php_vesk_server_vars.length[i] = length[i];
            cursor += length[i] + 1;
        }
    }
    php_vesk_server_vars.value[PHP_VESK_SV_PROTOCOL] = value[PHP_VESK_SV_PROTOCOL];
    php_vesk_server_vars.length[PHP_VESK_SV_PROTOCOL] = length[PHP_VESK_SV_PROTOCOL];
}

/* Any value of HTTPS counts, "off" included. */
static void php_vesk_set_protocol(const char *value[], size_t length[], int https) {
    value[PHP_VESK_SV_PROTOCOL] = https ? "https://" : "http://";
    length[PHP_VESK_SV_PROTOCOL] = https ? sizeof("https://") - 1 : sizeof("http://") - 1;
}

/*
 * PHP builds _SERVER lazily, and building it registers every variable of the
 * request and of the process environment: by far the largest cost of an
 * unsampled request. Under php-fpm and php-cgi, _SERVER is the process
 * environment (in its order: of two equal names the last wins) overlaid by
 * the request's FastCGI parameters, which the SAPI's getenv hook returns
 * (as fix_pathinfo left them), plus PHP_SELF, REQUEST_TIME* and PHP_AUTH_*,
 * none of which is copied. So the few values tracing reads are taken from
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

/* The environment's values of the source keys: of each name the first entry
 * (what getenv() finds) and the last (what _SERVER keeps). The caller holds
 * the environment lock. */
static void php_vesk_scan_environment(const char *first[], const char *last[]) {
    for (char **env = environ; env != NULL && *env != NULL; env++) {
        const char *entry = *env;
        /* Every key begins with H, R or S: most entries stop here. */
        if (entry[0] != 'H' && entry[0] != 'R' && entry[0] != 'S') {
            continue;
        }
        for (size_t i = 0; i < PHP_VESK_SV_COUNT; i++) {
            const php_vesk_server_key *key = PHP_VESK_SOURCE_KEY(i);
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
}

static void php_vesk_copy_from_cgi(void) {
    const char *first[PHP_VESK_SV_COUNT] = {NULL}, *last[PHP_VESK_SV_COUNT] = {NULL};
    const char *value[PHP_VESK_SV_COUNT] = {NULL};
    size_t length[PHP_VESK_SV_COUNT] = {0};
    tsrm_env_lock();
    php_vesk_scan_environment(first, last);
    for (size_t i = 0; i < PHP_VESK_SV_COUNT; i++) {
        const php_vesk_server_key *key = PHP_VESK_SOURCE_KEY(i);
        /* A request parameter beats the environment. php-cgi's hook falls
         * back on getenv(), which answers with the first entry of a name
         * where _SERVER holds the last. */
        const char *found = sapi_module.getenv(key->name, key->length);
        if (found == NULL || found == first[i]) {
            found = last[i];
        }
        if (i == PHP_VESK_SV_PROTOCOL) {
            php_vesk_set_protocol(value, length, found != NULL);
        } else if (found != NULL) {
            value[i] = found;
            length[i] = strlen(found);
        }
    }
    /* Copied before the environment may change. */
    php_vesk_server_copy_fill(value, length);
    tsrm_env_unlock();
}

static void php_vesk_copy_from_server(void) {
    const char *value[PHP_VESK_SV_COUNT] = {NULL};
    size_t length[PHP_VESK_SV_COUNT] = {0};
    zval *server = zend_hash_str_find(&EG(symbol_table), ZEND_STRL("_SERVER"));
    if (server != NULL) {
        ZVAL_DEREF(server);
    }
    if (server == NULL || Z_TYPE_P(server) != IS_ARRAY) {
        PHP_VESK_WARNING("vesk extension couldn't fetch _SERVER global");
        return;
    }
    HashTable *vars = Z_ARRVAL_P(server);
    for (size_t i = 0; i < PHP_VESK_SV_PROTOCOL; i++) {
        const php_vesk_server_key *key = &php_vesk_server_keys[i];
        zval *found = zend_hash_str_find_deref(vars, key->name, key->length);
        if (found != NULL && Z_TYPE_P(found) == IS_STRING) {
            value[i] = Z_STRVAL_P(found);
            length[i] = Z_STRLEN_P(found);
        }
    }
    php_vesk_set_protocol(value, length, zend_hash_str_exists(vars, ZEND_STRL("HTTPS")));
    php_vesk_server_copy_fill(value, length);
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

    php_vesk_server_cache_clear();
    if (from_cgi) {
        php_vesk_copy_from_cgi();
        /* The request time is taken when first asked for; building _SERVER
         * asked for it here, and REQUEST_TIME stays this moment. */
        sapi_get_request_time();
    } else {
        php_vesk_copy_from_server();
    }
    return 0;
}

void php_vesk_server_cache_clear(void) {
    if (php_vesk_server_vars.block != NULL) {
        efree(php_vesk_server_vars.block);
    }
    memset(&php_vesk_server_vars, 0, sizeof(php_vesk_server_vars));
}

const char *php_vesk_server_value(php_vesk_server_id id) {
    return php_vesk_server_vars.value[id];
}

const char *php_vesk_server_str(const char *key, size_t key_len) {
    for (size_t i = 0; i < PHP_VESK_SV_COUNT; i++) {
        if (php_vesk_server_keys[i].length == key_len && memcmp(php_vesk_server_keys[i].name, key, key_len) == 0) {
            return php_vesk_server_vars.value[i];
        }
    }
    return NULL;
}

void php_vesk_server_cache_array(zval *out) {
    array_init_size(out, PHP_VESK_SV_COUNT);
    for (size_t i = 0; i < PHP_VESK_SV_COUNT; i++) {
        if (php_vesk_server_vars.value[i] != NULL) {
            add_assoc_stringl_ex(out, php_vesk_server_keys[i].name, php_vesk_server_keys[i].length,
                                 php_vesk_server_vars.value[i], php_vesk_server_vars.length[i]);
        }
    }
}

/* The longest domain taken, so that ":port" and the terminator still fit in
 * PHP_VESK_DOMAIN_SIZE. */
#define PHP_VESK_DOMAIN_MAX 254

int vesk_php_get_domain(char *buffer) {
    static const php_vesk_server_id sources[] = {PHP_VESK_SV_HTTP_X_FORWARDED_HOST, PHP_VESK_SV_HTTP_HOST,
                                                 PHP_VESK_SV_SERVER_NAME};
    const char *domain = NULL;
    size_t length = 0;
    for (size_t i = 0; i < sizeof(sources) / sizeof(sources[0]) && domain == NULL; i++) {
        const char *candidate = php_vesk_server_value(sources[i]);
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

    const char *port = php_vesk_server_value(PHP_VESK_SV_SERVER_PORT);
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
