/* INI entries read on every request: names hashed once, records found once. */
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

static zend_ini_entry *php_vesk_request_ini_probe(php_vesk_request_ini_id id) {
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

/*
 * The entries found, per thread. An entry record stays where it is for as
 * long as its module is loaded: ini_set(), per-directory values and their
 * restore at request end change the record's value, never the record. The
 * table is the thread's (each ZTS thread has its own copy of the records),
 * so the cache belongs to the table it was filled from. Absent entries are
 * looked for again, in case a module that declares them is loaded later.
 */
typedef struct {
    HashTable *table;
    zend_ini_entry *entry[PHP_VESK_RINI_COUNT];
} php_vesk_request_ini_cache;

ZEND_TLS php_vesk_request_ini_cache php_vesk_request_ini_found;

zend_ini_entry *php_vesk_request_ini_entry(php_vesk_request_ini_id id) {
    php_vesk_request_ini_cache *cache = &php_vesk_request_ini_found;
    if (UNEXPECTED(cache->table != EG(ini_directives))) {
        memset(cache, 0, sizeof(*cache));
        cache->table = EG(ini_directives);
    }
    zend_ini_entry *entry = cache->entry[id];
    if (UNEXPECTED(entry == NULL)) {
        entry = cache->entry[id] = php_vesk_request_ini_probe(id);
    }
    return entry;
}

/* Entries of this module go away with it (a dl() in the CLI unloads it at
 * request end): the cache must not outlive them. */
void php_vesk_request_ini_forget(void) {
    memset(&php_vesk_request_ini_found, 0, sizeof(php_vesk_request_ini_found));
}
