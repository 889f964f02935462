/*
 * The transaction settings cache: per settings file path, its rules, read
 * once per process. Kept on the process heap (it outlives requests and is
 * shared by the threads of a threaded server).
 *
 * A map is insertion-ordered and keyed by strings. A value is a nested map
 * (PHP_VESK_ARRAY_MAP), a string (PHP_VESK_ARRAY_STRING) or a compiled
 * regular expression (PHP_VESK_ARRAY_REGEX), owned by the map.
 */
#ifndef PHP_VESK_REQUEST_TRANSACTION_SETTINGS_H
#define PHP_VESK_REQUEST_TRANSACTION_SETTINGS_H

#include <stddef.h>

#define PHP_VESK_ARRAY_MAP 0
#define PHP_VESK_ARRAY_STRING 1
#define PHP_VESK_ARRAY_REGEX 2

typedef struct php_vesk_array_entry {
    char *key;
    int type;
    void *value;
} php_vesk_array_entry;

typedef struct php_vesk_array {
    php_vesk_array_entry *entries;
    size_t count;
    size_t capacity;
} php_vesk_array;

/* Adds value under a copy of key, taking ownership of value; an existing
 * entry of that key is replaced. 0, or -1 when memory ran out (value is then
 * destroyed). */
int php_vesk_array_add(php_vesk_array *map, const char *key, void *value, int type);
/* The value under key, or null. */
void *php_vesk_array_get(const php_vesk_array *map, const char *key);
/* Frees every entry (recursing into nested maps) and zeroes the map. */
void php_vesk_array_destroy(php_vesk_array *map);

#endif
