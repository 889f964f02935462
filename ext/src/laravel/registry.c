/* The Laravel registry (see registry.h). uthash tables, default hash. */
#include "php_corvidine.h"

#include "src/laravel/registry.h"

#include <stdlib.h>
#include <string.h>

#include "src/laravel/dispatch.h"

/* Every name any table watches: what the observer's per-function init asks
 * for each function of each request, so a Zend table, whose lookups use the
 * hash the function name already carries. */
static HashTable laravel_watched_names;
static int laravel_watched_names_ready;

static laravel_version_entry *laravel_versions_available;

laravel_version_entry *vesk_laravel_add_version(int32_t version) {
    laravel_version_entry *entry = vesk_laravel_find_version(version);
    if (entry != NULL) {
        return entry;
    }
    entry = calloc(1, sizeof(*entry));
    if (entry == NULL) {
        return NULL;
    }
    entry->version = version;
    HASH_ADD_INT(laravel_versions_available, version, entry);
    return entry;
}

laravel_version_entry *vesk_laravel_find_version(int32_t version) {
    laravel_version_entry *entry = NULL;
    HASH_FIND_INT(laravel_versions_available, &version, entry);
    return entry;
}

const laravel_method_entry *vesk_laravel_find_method(const laravel_version_entry *version, const char *name,
                                                     size_t length) {
    laravel_method_entry *entry = NULL;
    if (version != NULL && name != NULL) {
        HASH_FIND(hh, version->methods, name, length, entry);
    }
    return entry;
}

int vesk_laravel_watches(zend_string *name) {
    return laravel_watched_names_ready && zend_hash_exists(&laravel_watched_names, name);
}

static int vesk_laravel_watch_name(const char *method) {
    if (!laravel_watched_names_ready) {
        zend_hash_init(&laravel_watched_names, 32, NULL, NULL, 1);
        laravel_watched_names_ready = 1;
    }
    zval present;
    ZVAL_TRUE(&present);
    zend_hash_str_update(&laravel_watched_names, method, strlen(method), &present);
    return 0;
}

int vesk_laravel_add_action(laravel_version_entry *version, const char *method, vesk_laravel_filter filter,
                            vesk_laravel_action_fn entry_action, vesk_laravel_action_fn exit_action,
                            const char *span) {
    if (version == NULL || method == NULL || filter == NULL || vesk_laravel_watch_name(method) != 0) {
        return -1;
    }
    laravel_action *action = calloc(1, sizeof(*action));
    if (action == NULL || (span != NULL && (action->span = strdup(span)) == NULL)) {
        free(action);
        return -1;
    }
    action->filter = filter;
    action->entry_action = entry_action;
    action->exit_action = exit_action;

    laravel_method_entry *entry = (laravel_method_entry *)vesk_laravel_find_method(version, method, strlen(method));
    if (entry == NULL) {
        entry = calloc(1, sizeof(*entry));
        if (entry == NULL || (entry->method = strdup(method)) == NULL) {
            free(entry);
            free(action->span);
            free(action);
            return -1;
        }
        HASH_ADD_KEYPTR(hh, version->methods, entry->method, strlen(entry->method), entry);
    }
    laravel_action **tail = &entry->actions;
    while (*tail != NULL) {
        tail = &(*tail)->next;
    }
    *tail = action;
    return 0;
}

static int _vesk_laravel_startup_versions(void) {
    int rc = 0;
    rc |= vesk_laravel55_startup();
    rc |= vesk_laravel57_startup();
    rc |= vesk_laravel58_startup();
    rc |= vesk_laravel6_startup();
    rc |= vesk_laravel8_startup();
    return rc;
}

int vesk_laravel_startup(void) {
    vesk_laravel_shutdown();
    laravel_version_entry *base = vesk_laravel_add_version(VESK_LARAVEL_BASE);
    int rc = base == NULL ? -1 : 0;
    rc |= vesk_laravel_add_action(base, "getLoader", _vesk_laravel_filter_autoload, NULL,
                                  _vesk_laravel_exit_action_autoload, "laravel_autoload");
    rc |= vesk_laravel_add_action(base, "registerBaseBindings", _vesk_laravel_filter_application, NULL, NULL, NULL);
    rc |= _vesk_laravel_startup_versions();
    if (rc != 0) {
        vesk_laravel_shutdown();
        return -1;
    }
    return 0;
}

void vesk_laravel_shutdown(void) {
    laravel_version_entry *version, *next_version;
    HASH_ITER(hh, laravel_versions_available, version, next_version) {
        laravel_method_entry *method, *next_method;
        HASH_ITER(hh, version->methods, method, next_method) {
            HASH_DEL(version->methods, method);
            for (laravel_action *action = method->actions, *next; action != NULL; action = next) {
                next = action->next;
                free(action->span);
                free(action);
            }
            free(method->method);
            free(method);
        }
        HASH_DEL(laravel_versions_available, version);
        free(version);
    }
    if (laravel_watched_names_ready) {
        zend_hash_destroy(&laravel_watched_names);
        laravel_watched_names_ready = 0;
    }
    laravel_versions_available = NULL;
}

int32_t _vesk_laravel_get_version_from_str(const char *text) {
    static const struct {
        const char *prefix;
        int32_t version;
    } prefixes[] = {{"5.5.", 55}, {"5.7.", 57}, {"5.8.", 58}, {"6.", 6}, {"8.", 8}};
    if (text == NULL) {
        return 0;
    }
    for (size_t i = 0; i < sizeof(prefixes) / sizeof(prefixes[0]); i++) {
        if (strncmp(text, prefixes[i].prefix, strlen(prefixes[i].prefix)) == 0) {
            return prefixes[i].version;
        }
    }
    return 0;
}
