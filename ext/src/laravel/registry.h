/*
 * The Laravel registry: for each supported Laravel version, the functions
 * watched in it and, per function name, the actions that may apply.
 *
 * Built once at module start and only read afterwards, so all threads share
 * it without a lock. Several classes have methods of the same name, so one
 * name carries a list of actions, tried in registration order; the first
 * whose filter matches the call is taken.
 */
#ifndef PHP_VESK_LARAVEL_REGISTRY_H
#define PHP_VESK_LARAVEL_REGISTRY_H

#include <stddef.h>
#include <stdint.h>

#include "php.h"

/* uthash's HASH_ADD is not the Zend flag of that name (zend_hash.h); only
 * the former is used where this header is included. */
#undef HASH_ADD
#include <uthash.h>

/* Non-zero when the action applies to this call. */
typedef int (*vesk_laravel_filter)(zend_execute_data *execute_data);
/* Runs before (entry) or after (exit) the watched function's body. */
typedef void (*vesk_laravel_action_fn)(zend_execute_data *execute_data);

typedef struct laravel_action {
    vesk_laravel_filter filter;
    vesk_laravel_action_fn entry_action; /* null: the default entry of span */
    vesk_laravel_action_fn exit_action;  /* null: the default exit of span */
    char *span;                          /* process heap, or null */
    struct laravel_action *next;
} laravel_action;

typedef struct laravel_method_entry {
    char *method; /* the function name as declared; case-sensitive key */
    laravel_action *actions;
    UT_hash_handle hh;
} laravel_method_entry;

/* Version ids: 0 the base table (before the version is known), 55, 57, 58,
 * 6, 8. */
#define VESK_LARAVEL_BASE 0

typedef struct laravel_version_entry {
    int32_t version;
    laravel_method_entry *methods;
    UT_hash_handle hh;
} laravel_version_entry;

/* Module start: builds the base table and every version's table. 0, or -1
 * when a table could not be built (the registry is then empty). */
int vesk_laravel_startup(void);
/* Module shutdown: frees every record. */
void vesk_laravel_shutdown(void);

/* Adds a version's (empty) table; the existing one when already there. */
laravel_version_entry *vesk_laravel_add_version(int32_t version);
/* Appends an action to the list of a function name. span may be null.
 * 0, or -1 when out of memory. */
int vesk_laravel_add_action(laravel_version_entry *version, const char *method, vesk_laravel_filter filter,
                            vesk_laravel_action_fn entry_action, vesk_laravel_action_fn exit_action,
                            const char *span);

laravel_version_entry *vesk_laravel_find_version(int32_t version);
const laravel_method_entry *vesk_laravel_find_method(const laravel_version_entry *version, const char *name,
                                                     size_t length);
/* 1 when some table has a function of that name. */
int vesk_laravel_watches(zend_string *name);

/* Version id of a VERSION text: "5.5." 55, "5.7." 57, "5.8." 58, "6." 6,
 * "8." 8; anything else (null too) 0. */
int32_t _vesk_laravel_get_version_from_str(const char *text);

/* The tables of the versions (tables.c). */
int vesk_laravel55_startup(void);
int vesk_laravel57_startup(void);
int vesk_laravel58_startup(void);
int vesk_laravel6_startup(void);
int vesk_laravel8_startup(void);

#endif
