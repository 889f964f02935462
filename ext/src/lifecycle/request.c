/* Request start and end. */
#include "php_corvidine.h"

#include "SAPI.h"

#include "corvidine/debug_log.h"
#include "corvidine/span.h"
#include "corvidine/startup.h"

#include "src/config/ini.h"
#include "src/laravel/dispatch.h"
#include "src/lifecycle/request.h"
#include "src/profiler/profiler.h"
#include "src/request/request_ini.h"
#include "src/request/request_trace.h"
#include "src/wrap/wrap.h"

/* Shortest profiling interval, in microseconds. */
#define PHP_VESK_MIN_PROFILING_INTERVAL_US 20000

int php_vesk_request_inactive(void) {
    return php_vesk_cli_off() || php_vesk_request_ini_off(PHP_VESK_RINI_ENABLE);
}

/* Whether request start found the module active: request end goes by it
 * (both entries are per-directory, so they cannot change in between). */
ZEND_TLS int php_vesk_request_active;

int php_vesk_request_is_active(void) {
    return php_vesk_request_active;
}

void php_vesk_request_trace_reset(void) {
    VESK_G(phpredis_batch) = 0;
    VESK_G(enable_sanitize_sql) = (int)php_vesk_request_ini_long(PHP_VESK_RINI_ENABLE_SANITIZE_SQL);
    VESK_G(triggered_trace) = 0;
}

/* The last key seen on this thread, the names it was compared with, and the
 * service it made ("" for none): the key seldom changes between requests. */
ZEND_TLS char php_vesk_last_service_key[PHP_VESK_SERVICE_KEY_SIZE];
ZEND_TLS const char *php_vesk_last_names[2];
ZEND_TLS char php_vesk_last_service[PHP_VESK_SERVICE_KEY_SIZE];

/* A per-directory service key whose service differs from both names known
 * at module start makes this request's service. The key is cut to the size
 * module start keeps and cleaned the way it does it, so that the same key
 * always names the same service; a key whose ":" lies past the cut names
 * none. */
static void php_vesk_request_service_name(void) {
    const char *key = php_vesk_request_ini_str(PHP_VESK_RINI_SERVICE_KEY);
    if (php_vesk_last_service_key[0] != '\0' && php_vesk_last_names[0] == VESK_G(ini_service_name) &&
        php_vesk_last_names[1] == VESK_G(env_service_name) &&
        strncmp(key, php_vesk_last_service_key, PHP_VESK_SERVICE_KEY_SIZE) == 0) {
        if (php_vesk_last_service[0] != '\0') {
            VESK_G(request_service_name) = estrdup(php_vesk_last_service);
        }
        return;
    }
    php_vesk_last_service_key[0] = '\0';
    if (strchr(key, ':') == NULL) {
        return;
    }
    char cleaned[PHP_VESK_SERVICE_KEY_SIZE];
    size_t key_len = strlen(key);
    if (key_len > sizeof(cleaned) - 1) {
        VESK_DEBUG_LOG_USAGE(VESK_DEBUG_MODULE_PHP, VESK_DEBUG_WARNING,
                             "corvidine.service_key is %zu bytes long: only its first %zu bytes are used", key_len,
                             sizeof(cleaned) - 1);
        key_len = sizeof(cleaned) - 1;
    }
    memcpy(cleaned, key, key_len);
    cleaned[key_len] = '\0';
    int length = (int)key_len;
    vesk_validate_transform_service_name(cleaned, &length);

    const char *colon = strchr(cleaned, ':');
    if (colon == NULL) {
        VESK_DEBUG_LOG_USAGE(VESK_DEBUG_MODULE_PHP, VESK_DEBUG_WARNING,
                             "corvidine.service_key has no ':' within its first %zu bytes: no service name taken",
                             sizeof(cleaned) - 1);
        return;
    }
    const char *service = colon + 1;
    const char *ini_name = VESK_G(ini_service_name);
    const char *env_name = VESK_G(env_service_name);
    if (service[0] != '\0' && (ini_name == NULL || strcmp(service, ini_name) != 0) &&
        (env_name == NULL || strcmp(service, env_name) != 0)) {
        VESK_G(request_service_name) = estrdup(service);
    }
    if (strlen(key) < PHP_VESK_SERVICE_KEY_SIZE) {
        strcpy(php_vesk_last_service, VESK_G(request_service_name) != NULL ? VESK_G(request_service_name) : "");
        strcpy(php_vesk_last_service_key, key);
        php_vesk_last_names[0] = ini_name;
        php_vesk_last_names[1] = env_name;
    }
}

/* The Collector's interval wins over corvidine.profiling_interval; anything
 * below 20 ms but 0 becomes 20 ms, and 0 turns profiling off. */
static void php_vesk_profiling_interval(void) {
    int interval_ms = vesk_get_profiling_interval();
    if (interval_ms < 0) {
        interval_ms = (int)php_vesk_request_ini_long(PHP_VESK_RINI_PROFILING_INTERVAL);
    }
    int64_t interval_us = (int64_t)interval_ms * 1000;
    if (interval_us == 0) {
        VESK_G(profiling_enabled) = 0;
    } else if (interval_us < PHP_VESK_MIN_PROFILING_INTERVAL_US) {
        interval_us = PHP_VESK_MIN_PROFILING_INTERVAL_US;
    }
    VESK_G(profiler_interval_us) = interval_us;
}

/* A request with no script and no client: the one opcache's preloading runs
 * at server start, or other work done inside module start-up. It is not the
 * application's, and starts no trace. */
static int php_vesk_request_without_script(void) {
    return SG(request_info).path_translated == NULL && SG(server_context) == NULL;
}

zend_result php_vesk_request_startup(void) {
    php_vesk_request_active = !php_vesk_request_inactive() && !php_vesk_request_without_script();
    if (!php_vesk_request_active) {
        return SUCCESS;
    }
    VESK_G(do_metrics) = 0;

    if (php_vesk_cache_server_globals() != 0) {
        PHP_VESK_WARNING("vesk extension couldn't find _SERVER global");
        return FAILURE;
    }

    /* The first "custom-" option makes the array. */
    ZVAL_UNDEF(&VESK_G(custom_kvs));
    php_vesk_request_service_name();

    if (php_vesk_request_ini_on(PHP_VESK_RINI_USE_CUSTOM_START_TRACE)) {
        /* PHP code starts the trace itself (corvidine_start_trace). */
        return SUCCESS;
    }

    VESK_G(trace_started) = 1;
    php_vesk_request_trace_reset();
    VESK_G(pd_keys) = NULL;
    VESK_G(profiling_enabled) = php_vesk_request_ini_on(PHP_VESK_RINI_ENABLE_PROFILING);
    if (VESK_G(profiling_enabled)) {
        php_vesk_profiling_interval();
    }

    int sample_rate, sample_source;
    php_vesk_start_trace("PHP", NULL, &sample_rate, &sample_source, NULL, 0, 0);
    if (VESK_G(tracing) && VESK_G(profiling_enabled)) {
        php_vesk_profiler_request_start();
    }

    VESK_G(transaction_name)[0] = '\0';
    VESK_G(custom_transaction_name)[0] = '\0';
    php_vesk_laravel_request_startup();
    VESK_G(span_start) = vesk_span_start();
    return SUCCESS;
}

static void php_vesk_free_request_string(char **value) {
    if (*value != NULL) {
        efree(*value);
        *value = NULL;
    }
}

static void php_vesk_destroy_request_zval(zval *value) {
    zval_ptr_dtor(value);
    ZVAL_UNDEF(value);
}

zend_result php_vesk_request_shutdown(void) {
    if (!php_vesk_request_active) {
        return SUCCESS;
    }
    php_vesk_request_active = 0;
    /* Taken first, so the span covers all of the request. */
    int64_t stop = vesk_span_stop();

    if (VESK_G(trace_started) && !php_vesk_request_ini_on(PHP_VESK_RINI_USE_CUSTOM_START_TRACE)) {
        php_vesk_record_span(VESK_G(span_start), stop);
    }
    VESK_G(trace_started) = 0;

    /* The profiler's span is closed before the trace's exit event. */
    php_vesk_profiler_request_end();
    php_vesk_laravel_request_shutdown(); /* open Laravel spans are reported and closed */
    php_vesk_end_trace(NULL, 0, 0);

    php_vesk_free_request_string(&VESK_G(context_override));
    php_vesk_free_request_string(&VESK_G(pd_keys));

    php_vesk_wrap_request_end();

    php_vesk_free_request_string(&VESK_G(request_service_name));
    php_vesk_server_cache_clear();
    php_vesk_destroy_request_zval(&VESK_G(custom_kvs));
    return SUCCESS;
}
