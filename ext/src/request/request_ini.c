/* INI entries read on every request, with their names hashed once. */
#include "php_corvidine.h"

#include <pthread.h>

#include "src/request/request_ini.h"

typedef struct {
    const char *name;
    size_t length;
} php_vesk_request_ini_name;
#define PHP_VESK_RINI_NAME(name) {name, sizeof(name) - 1}

static const php_vesk_request_ini_name php_vesk_request_ini_names[PHP_VESK_RINI_COUNT] = {
    [PHP_VESK_RINI_ENABLE] = PHP_VESK_RINI_NAME("corvidine.enable"),
    [PHP_VESK_RINI_SERVICE_KEY] = PHP_VESK_RINI_NAME("corvidine.service_key"),
    [PHP_VESK_RINI_USE_CUSTOM_START_TRACE] = PHP_VESK_RINI_NAME("corvidine.use_custom_start_trace"),
    [PHP_VESK_RINI_ENABLE_SANITIZE_SQL] = PHP_VESK_RINI_NAME("corvidine.enable_sanitize_sql"),
    [PHP_VESK_RINI_ENABLE_PROFILING] = PHP_VESK_RINI_NAME("corvidine.enable_profiling"),
    [PHP_VESK_RINI_PROFILING_INTERVAL] = PHP_VESK_RINI_NAME("corvidine.profiling_interval"),
    [PHP_VESK_RINI_ENABLE_LARAVEL_TRACING] = PHP_VESK_RINI_NAME("corvidine.enable_laravel_tracing"),
    [PHP_VESK_RINI_LARAVEL_ENABLE_BACKTRACE] = PHP_VESK_RINI_NAME("corvidine.laravel_enable_backtrace"),
    [PHP_VESK_RINI_TRACING] = PHP_VESK_RINI_NAME("corvidine.tracing"),
    [PHP_VESK_RINI_TRANSACTION_SETTINGS_FILE] = PHP_VESK_RINI_NAME("corvidine.transaction_settings_file"),
    [PHP_VESK_RINI_SAMPLE_RATE] = PHP_VESK_RINI_NAME("corvidine.sample_rate"),
    [PHP_VESK_RINI_XTRACE] = PHP_VESK_RINI_NAME("corvidine.xtrace"),
    [PHP_VESK_RINI_TRANSACTION_PREPEND_DOMAIN] = PHP_VESK_RINI_NAME("corvidine.transaction_prepend_domain"),
    [PHP_VESK_RINI_FILTER_DEFAULT] = PHP_VESK_RINI_NAME("filter.default"),
};

/* The names' hashes as the engine computes them; written once, then only
 * read, by every thread. Nothing is allocated, so nothing outlives a module
 * that is unloaded. */
static zend_ulong php_vesk_request_ini_hashes[PHP_VESK_RINI_COUNT];
static pthread_once_t php_vesk_request_ini_once = PTHREAD_ONCE_INIT;

static void php_vesk_request_ini_hash_names(void) {
    for (int i = 0; i < PHP_VESK_RINI_COUNT; i++) {
        php_vesk_request_ini_hashes[i] =
            zend_hash_func(php_vesk_request_ini_names[i].name, php_vesk_request_ini_names[i].length);
    }
}

zend_ini_entry *php_vesk_request_ini_entry(php_vesk_request_ini_id id) {
    const php_vesk_request_ini_name *name = &php_vesk_request_ini_names[id];
    HashTable *table = EG(ini_directives);
    if (HT_IS_PACKED(table)) {
        return zend_hash_str_find_ptr(table, name->name, name->length);
    }
    pthread_once(&php_vesk_request_ini_once, php_vesk_request_ini_hash_names);
    /* The engine's own probe of a string key (zend_hash_str_find), with the
     * hash known. */
    zend_ulong hash = php_vesk_request_ini_hashes[id];
    uint32_t index = HT_HASH(table, hash | table->nTableMask);
    while (index != HT_INVALID_IDX) {
        Bucket *bucket = HT_HASH_TO_BUCKET(table, index);
        if (bucket->h == hash && bucket->key != NULL && ZSTR_LEN(bucket->key) == name->length &&
            memcmp(ZSTR_VAL(bucket->key), name->name, name->length) == 0) {
            return Z_PTR(bucket->val);
        }
        index = Z_NEXT(bucket->val);
    }
    return NULL;
}

zend_long php_vesk_request_ini_long(php_vesk_request_ini_id id) {
    zend_ini_entry *entry = php_vesk_request_ini_entry(id);
    if (entry == NULL || entry->value == NULL) {
        return 0;
    }
    /* The on/off entries hold one digit: strtol's answer without its cost. */
    const char *value = ZSTR_VAL(entry->value);
    if (ZSTR_LEN(entry->value) == 1 && value[0] >= '0' && value[0] <= '9') {
        return value[0] - '0';
    }
    return ZEND_STRTOL(value, NULL, 0);
}

int php_vesk_request_ini_on(php_vesk_request_ini_id id) {
    return (php_vesk_request_ini_long(id) & 0xFF) == 1;
}

int php_vesk_request_ini_off(php_vesk_request_ini_id id) {
    return (php_vesk_request_ini_long(id) & 0xFF) == 0;
}

const char *php_vesk_request_ini_str(php_vesk_request_ini_id id) {
    zend_ini_entry *entry = php_vesk_request_ini_entry(id);
    return entry != NULL && entry->value != NULL ? ZSTR_VAL(entry->value) : "";
}
