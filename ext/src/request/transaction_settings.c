/*
 * Transaction filtering: corvidine.tracing and the per-URL rules of the
 * transaction settings file.
 *
 * The file is parsed once per process and path, by PHP's parse_ini_file()
 * with sections; later changes to it take no effect until a restart. The
 * cache is shared by all threads: lookups and insertions take one mutex, and
 * a rule list, once in the cache, is never changed nor freed before module
 * shutdown, so it is read without the lock. Two threads that load the same
 * file at once both parse it; the first insertion wins and the other copy is
 * dropped.
 */
#include "php_corvidine.h"

#include <pthread.h>
#include <stdlib.h>
#include <sys/stat.h>

#include "zend_exceptions.h"

#include "corvidine/regex.h"

#include "src/request/request_ini.h"
#include "src/request/request_trace.h"
#include "src/request/transaction_settings.h"

static php_vesk_array php_vesk_transaction_settings;
static pthread_mutex_t php_vesk_transaction_settings_lock = PTHREAD_MUTEX_INITIALIZER;

static void php_vesk_array_free_value(int type, void *value) {
    if (value == NULL) {
        return;
    }
    switch (type) {
        case PHP_VESK_ARRAY_MAP:
            php_vesk_array_destroy((php_vesk_array *)value);
            free(value);
            break;
        case PHP_VESK_ARRAY_REGEX:
            vesk_regex_delete_expression(value);
            break;
        default:
            free(value);
            break;
    }
}

int php_vesk_array_add(php_vesk_array *map, const char *key, void *value, int type) {
    for (size_t i = 0; i < map->count; i++) {
        if (strcmp(map->entries[i].key, key) == 0) {
            php_vesk_array_free_value(map->entries[i].type, map->entries[i].value);
            map->entries[i].type = type;
            map->entries[i].value = value;
            return 0;
        }
    }
    if (map->count == map->capacity) {
        size_t capacity = map->capacity ? map->capacity * 2 : 4;
        php_vesk_array_entry *entries = realloc(map->entries, capacity * sizeof(*entries));
        if (entries == NULL) {
            php_vesk_array_free_value(type, value);
            return -1;
        }
        map->entries = entries;
        map->capacity = capacity;
    }
    char *copy = strdup(key);
    if (copy == NULL) {
        php_vesk_array_free_value(type, value);
        return -1;
    }
    map->entries[map->count].key = copy;
    map->entries[map->count].type = type;
    map->entries[map->count].value = value;
    map->count++;
    return 0;
}

void *php_vesk_array_get(const php_vesk_array *map, const char *key) {
    for (size_t i = 0; i < map->count; i++) {
        if (strcmp(map->entries[i].key, key) == 0) {
            return map->entries[i].value;
        }
    }
    return NULL;
}

void php_vesk_array_destroy(php_vesk_array *map) {
    for (size_t i = 0; i < map->count; i++) {
        php_vesk_array_free_value(map->entries[i].type, map->entries[i].value);
        free(map->entries[i].key);
    }
    free(map->entries);
    memset(map, 0, sizeof(*map));
}

void php_vesk_transaction_settings_destroy(void) {
    pthread_mutex_lock(&php_vesk_transaction_settings_lock);
    php_vesk_array_destroy(&php_vesk_transaction_settings);
    pthread_mutex_unlock(&php_vesk_transaction_settings_lock);
}

static void php_vesk_rule_copy_string(php_vesk_array *rule, HashTable *section, const char *key) {
    zval *value = zend_hash_str_find_deref(section, key, strlen(key));
    if (value != NULL && Z_TYPE_P(value) == IS_STRING) {
        char *copy = strdup(Z_STRVAL_P(value));
        if (copy != NULL) {
            php_vesk_array_add(rule, key, copy, PHP_VESK_ARRAY_STRING);
        }
    }
}

/* Rules of one file. A file parse_ini_file() refuses gives an empty list
 * (parse_ini_file has warned already). Never null unless memory ran out. */
static php_vesk_array *php_vesk_transaction_settings_parse(const char *path) {
    php_vesk_array *rules = calloc(1, sizeof(*rules));
    if (rules == NULL) {
        return NULL;
    }
    /* Looked up in the engine's table: a disable_functions'd parse_ini_file
     * is simply not there. */
    zend_function *parse = zend_hash_str_find_ptr(CG(function_table), ZEND_STRL("parse_ini_file"));
    if (parse == NULL) {
        return rules;
    }

    zval args[2], result;
    ZVAL_STRING(&args[0], path);
    ZVAL_TRUE(&args[1]);
    ZVAL_UNDEF(&result);
    zend_call_known_function(parse, NULL, NULL, &result, 2, args, NULL);
    if (EG(exception) != NULL) {
        zend_clear_exception();
    }

    if (Z_TYPE(result) == IS_ARRAY) {
        int ordinal = 0;
        zval *section;
        ZEND_HASH_FOREACH_VAL(Z_ARRVAL(result), section) {
            ZVAL_DEREF(section);
            if (Z_TYPE_P(section) != IS_ARRAY) {
                continue; /* a key outside any section */
            }
            php_vesk_array *rule = calloc(1, sizeof(*rule));
            if (rule == NULL) {
                break;
            }
            HashTable *fields = Z_ARRVAL_P(section);
            php_vesk_rule_copy_string(rule, fields, "type");
            php_vesk_rule_copy_string(rule, fields, "extensions");
            php_vesk_rule_copy_string(rule, fields, "tracing");
            zval *regexp = zend_hash_str_find_deref(fields, ZEND_STRL("regexp"));
            if (regexp != NULL && Z_TYPE_P(regexp) == IS_STRING) {
                /* One that does not compile leaves the rule without regexp. */
                void *expression = vesk_regex_new_expression(Z_STRVAL_P(regexp));
                if (expression != NULL) {
                    php_vesk_array_add(rule, "regexp", expression, PHP_VESK_ARRAY_REGEX);
                }
            }
            char key[16];
            snprintf(key, sizeof(key), "%d", ordinal++);
            php_vesk_array_add(rules, key, rule, PHP_VESK_ARRAY_MAP);
        }
        ZEND_HASH_FOREACH_END();
    }
    zval_ptr_dtor(&result);
    zval_ptr_dtor(&args[0]);
    return rules;
}

/* The cached rules of path, parsing the file on its first use. Null when the
 * file cannot be seen (after the warning): nothing is cached then, so a file
 * that appears later is still read. */
static const php_vesk_array *php_vesk_transaction_settings_get(const char *path) {
    pthread_mutex_lock(&php_vesk_transaction_settings_lock);
    const php_vesk_array *rules = php_vesk_array_get(&php_vesk_transaction_settings, path);
    pthread_mutex_unlock(&php_vesk_transaction_settings_lock);
    if (rules != NULL) {
        return rules;
    }

    struct stat st;
    if (stat(path, &st) != 0) {
        PHP_VESK_WARNING("File '%s' not found. Check your configuration 'corvidine.transaction_settings_file'",
                         path);
        return NULL;
    }
    /* Parsed outside the lock: parse_ini_file runs PHP code paths that may
     * warn, and other threads must not wait on them. */
    php_vesk_array *parsed = php_vesk_transaction_settings_parse(path);
    if (parsed == NULL) {
        return NULL;
    }

    pthread_mutex_lock(&php_vesk_transaction_settings_lock);
    rules = php_vesk_array_get(&php_vesk_transaction_settings, path);
    if (rules == NULL) {
        if (php_vesk_array_add(&php_vesk_transaction_settings, path, parsed, PHP_VESK_ARRAY_MAP) == 0) {
            rules = parsed;
        }
    } else {
        php_vesk_array_destroy(parsed);
        free(parsed);
    }
    pthread_mutex_unlock(&php_vesk_transaction_settings_lock);
    return rules;
}

/* 1 traced, 0 not, -1 no local opinion (empty), -2 unknown. */
static int php_vesk_tracing_mode(const char *tracing) {
    if (tracing[0] == '\0') {
        return -1;
    }
    if (strcmp(tracing, "enabled") == 0 || strcmp(tracing, "always") == 0) {
        return 1;
    }
    if (strcmp(tracing, "disabled") == 0 || strcmp(tracing, "never") == 0) {
        return 0;
    }
    return -2;
}

/* Whether the text behind the last "." of url is one of the blank-separated
 * extensions. A query string behind the extension prevents the match. */
static int php_vesk_extension_matches(const char *url, const char *extensions) {
    const char *dot = strrchr(url, '.');
    if (dot == NULL) {
        return 0;
    }
    const char *suffix = dot + 1;
    size_t suffix_len = strlen(suffix);
    const char *cursor = extensions;
    while (*cursor != '\0') {
        while (*cursor == ' ' || *cursor == '\t') {
            cursor++;
        }
        const char *word = cursor;
        while (*cursor != '\0' && *cursor != ' ' && *cursor != '\t') {
            cursor++;
        }
        size_t word_len = (size_t)(cursor - word);
        if (word_len > 0 && word_len == suffix_len && memcmp(word, suffix, word_len) == 0) {
            return 1;
        }
    }
    return 0;
}

int php_vesk_transaction_filtering(int *mode) {
    const char *tracing = php_vesk_request_ini_str(PHP_VESK_RINI_TRACING);
    int base = (strcmp(tracing, "disabled") == 0 || strcmp(tracing, "never") == 0) ? 0 : 1;
    *mode = php_vesk_tracing_mode(tracing);

    const char *path = php_vesk_request_ini_str(PHP_VESK_RINI_TRANSACTION_SETTINGS_FILE);
    if (path[0] == '\0') {
        return base;
    }
    const php_vesk_array *rules = php_vesk_transaction_settings_get(path);
    if (rules == NULL) {
        return base;
    }

    const char *uri = php_vesk_server_value(PHP_VESK_SV_REQUEST_URI);
    if (uri == NULL || rules->count == 0) {
        return base; /* without a URL no rule can match */
    }
    char domain[PHP_VESK_DOMAIN_SIZE] = "";
    if (vesk_php_get_domain(domain) != 0) {
        domain[0] = '\0';
    }
    const char *protocol = php_vesk_server_value(PHP_VESK_SV_PROTOCOL);
    char *url;
    spprintf(&url, 0, "%s%s%s", protocol != NULL ? protocol : "", domain, uri);

    int result = base;
    for (size_t i = 0; i < rules->count; i++) {
        const php_vesk_array *rule = rules->entries[i].value;
        const char *type = php_vesk_array_get(rule, "type");
        void *regexp = php_vesk_array_get(rule, "regexp");
        const char *extensions = php_vesk_array_get(rule, "extensions");
        if (type == NULL || strcmp(type, "url") != 0 || (regexp == NULL && extensions == NULL)) {
            continue;
        }
        int matched = regexp != NULL ? vesk_regex_match(url, regexp) != 0
                                     : php_vesk_extension_matches(url, extensions);
        if (!matched) {
            continue;
        }

        const char *rule_tracing = php_vesk_array_get(rule, "tracing");
        if (rule_tracing != NULL && strcmp(rule_tracing, "disabled") == 0) {
            /* A mode of -1 stays: the Collector still governs metrics. */
            result = 0;
            if (*mode == 1) {
                *mode = 0;
            }
        } else if (rule_tracing != NULL && strcmp(rule_tracing, "enabled") == 0) {
            result = 1;
            if (*mode == 0) {
                *mode = 1;
            }
        } else {
            PHP_VESK_WARNING("Unknown tracing mode '%s' in file '%s'", rule_tracing != NULL ? rule_tracing : "",
                             path);
        }
        break;
    }
    efree(url);
    return result;
}
