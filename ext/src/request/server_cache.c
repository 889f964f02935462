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
 * terminator, read by number. Not a PHP array: building a hash table that
 * request code reads a handful of times cost more than all the rest of an
 * unsampled request. Values of the usual size go to the thread's own block
 * (the request heap's first allocation of a size class in a request costs
 * several hundred instructions); longer ones to the request heap.
 *
 * Under php-fpm a request's FastCGI parameters stay as they are for the
 * whole request, so a key is looked up there when first read ("pending"):
 * an unsampled request reads about half of them. What the environment
 * contributes is taken at request start, as before.
 */
#define PHP_VESK_SERVER_INLINE 1024

typedef struct {
    const char *value[PHP_VESK_SV_COUNT]; /* null: absent */
    size_t length[PHP_VESK_SV_COUNT];
    uint32_t pending; /* bit per key: still to be looked up in the parameters */
    size_t used;      /* of inline_block */
    uint32_t on_heap; /* bit per key: its copy is in heap[] */
    char *heap[PHP_VESK_SV_COUNT];
    char inline_block[PHP_VESK_SERVER_INLINE];
} php_vesk_server_copy;

ZEND_TLS php_vesk_server_copy php_vesk_server_vars;

/* Keeps a copy of value (PROTOCOL's literals are kept as they are). */
static void php_vesk_server_keep(php_vesk_server_id id, const char *value, size_t length) {
    php_vesk_server_copy *vars = &php_vesk_server_vars;
    if (id == PHP_VESK_SV_PROTOCOL) {
        vars->value[id] = value;
        vars->length[id] = length;
        return;
    }
    char *copy;
    if (length < sizeof(vars->inline_block) - vars->used) {
        copy = vars->inline_block + vars->used;
        vars->used += length + 1;
    } else {
        if (vars->on_heap & (1u << id)) {
            efree(vars->heap[id]);
        }
        copy = vars->heap[id] = emalloc(length + 1);
        vars->on_heap |= 1u << id;
    }
    memcpy(copy, value, length);
    copy[length] = '\0';
    vars->value[id] = copy;
    vars->length[id] = length;
}

/* Any value of HTTPS counts, "off" included. */
static void php_vesk_set_protocol(int https) {
    if (https) {
        php_vesk_server_keep(PHP_VESK_SV_PROTOCOL, "https://", sizeof("https://") - 1);
    } else {
        php_vesk_server_keep(PHP_VESK_SV_PROTOCOL, "http://", sizeof("http://") - 1);
    }
}

static int php_vesk_sapi_is_fpm(void) {
    return sapi_module.name != NULL && strcmp(sapi_module.name, "fpm-fcgi") == 0;
}

/* A request parameter beats the environment's value (kept at request
 * start, if any). */
static void php_vesk_server_resolve(php_vesk_server_id id) {
    php_vesk_server_vars.pending &= ~(1u << id);
    const php_vesk_server_key *key = PHP_VESK_SOURCE_KEY(id);
    const char *found = sapi_module.getenv(key->name, key->length);
    if (found == NULL) {
        return;
    }
    if (id == PHP_VESK_SV_PROTOCOL) {
        php_vesk_set_protocol(1);
    } else {
        php_vesk_server_keep(id, found, strlen(found));
    }
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
static void php_vesk_scan_environment(char **env, const char *first[], const char *last[]) {
    for (; env != NULL && *env != NULL; env++) {
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

/*
 * The scan of the environment, kept for as long as the environment is the
 * same: the same array holding the same entry pointers. setenv(), putenv()
 * and unsetenv() change the array (a new entry pointer, or entries moved);
 * PHP's putenv() hands over a string of its own and takes it back at request
 * end, before the next request compares. An environment too large to keep
 * is scanned every time.
 */
#define PHP_VESK_ENV_KEPT 256

typedef struct {
    char **array;
    size_t count;
    char *entry[PHP_VESK_ENV_KEPT];
    const char *first[PHP_VESK_SV_COUNT], *last[PHP_VESK_SV_COUNT];
} php_vesk_env_scan;

ZEND_TLS php_vesk_env_scan php_vesk_env_seen;

static int php_vesk_environment_unchanged(const php_vesk_env_scan *seen) {
    if (seen->array != environ || seen->array == NULL) {
        return 0;
    }
    return memcmp(environ, seen->entry, seen->count * sizeof(char *)) == 0 && environ[seen->count] == NULL;
}

static void php_vesk_environment_sources(const char *first[], const char *last[]) {
    php_vesk_env_scan *seen = &php_vesk_env_seen;
    if (!php_vesk_environment_unchanged(seen)) {
        memset(seen->first, 0, sizeof(seen->first));
        memset(seen->last, 0, sizeof(seen->last));
        php_vesk_scan_environment(environ, seen->first, seen->last);
        size_t count = 0;
        while (environ != NULL && environ[count] != NULL && count < PHP_VESK_ENV_KEPT) {
            seen->entry[count] = environ[count];
            count++;
        }
        int kept = environ != NULL && environ[count] == NULL;
        seen->array = kept ? environ : NULL;
        seen->count = kept ? count : 0;
    }
    memcpy(first, seen->first, sizeof(seen->first));
    memcpy(last, seen->last, sizeof(seen->last));
}

static void php_vesk_copy_from_cgi(void) {
    const char *first[PHP_VESK_SV_COUNT] = {NULL}, *last[PHP_VESK_SV_COUNT] = {NULL};
    tsrm_env_lock();
    php_vesk_environment_sources(first, last);
    /* Copied before the environment may change. */
    for (size_t i = 0; i < PHP_VESK_SV_COUNT; i++) {
        if (i == PHP_VESK_SV_PROTOCOL) {
            php_vesk_set_protocol(last[i] != NULL);
        } else if (last[i] != NULL) {
            php_vesk_server_keep(i, last[i], strlen(last[i]));
        }
    }
    if (php_vesk_sapi_is_fpm()) {
        /* php-fpm's hook answers from the request's parameters only. */
        php_vesk_server_vars.pending = (1u << PHP_VESK_SV_COUNT) - 1;
    } else {
        /* php-cgi's hook falls back on getenv(), which answers with the
         * first entry of a name where _SERVER holds the last: such an answer
         * is no parameter. Looked up now, under the lock. */
        for (size_t i = 0; i < PHP_VESK_SV_COUNT; i++) {
            const php_vesk_server_key *key = PHP_VESK_SOURCE_KEY(i);
            const char *found = sapi_module.getenv(key->name, key->length);
            if (found != NULL && found != first[i]) {
                php_vesk_server_resolve(i);
            }
        }
    }
    tsrm_env_unlock();
}

static void php_vesk_copy_from_server(void) {
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
            php_vesk_server_keep(i, Z_STRVAL_P(found), Z_STRLEN_P(found));
        }
    }
    php_vesk_set_protocol(zend_hash_str_exists(vars, ZEND_STRL("HTTPS")));
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
    php_vesk_server_copy *vars = &php_vesk_server_vars;
    for (size_t i = 0; vars->on_heap != 0; i++) {
        if (vars->on_heap & (1u << i)) {
            efree(vars->heap[i]);
            vars->on_heap &= ~(1u << i);
        }
    }
    memset(vars->value, 0, sizeof(vars->value));
    memset(vars->length, 0, sizeof(vars->length));
    vars->pending = 0;
    vars->used = 0;
}

const char *php_vesk_server_value(php_vesk_server_id id) {
    if (UNEXPECTED(php_vesk_server_vars.pending & (1u << id))) {
        php_vesk_server_resolve(id);
    }
    return php_vesk_server_vars.value[id];
}

const char *php_vesk_server_str(const char *key, size_t key_len) {
    for (size_t i = 0; i < PHP_VESK_SV_COUNT; i++) {
        if (php_vesk_server_keys[i].length == key_len && memcmp(php_vesk_server_keys[i].name, key, key_len) == 0) {
            return php_vesk_server_value(i);
        }
    }
    return NULL;
}

void php_vesk_server_cache_array(zval *out) {
    array_init_size(out, PHP_VESK_SV_COUNT);
    for (size_t i = 0; i < PHP_VESK_SV_COUNT; i++) {
        if (php_vesk_server_value(i) != NULL) {
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
