/*
 * In-place handler replacement at module start, and the per-thread mask of
 * active families that decides what a wrapper does (see wrap.h for why).
 */
#include "php_corvidine.h"

#include "corvidine/context.h"

#include "src/config/ini.h"
#include "src/wrap/wrap.h"

/* The callbacks named by the list, wherever their families define them. */
#define PHP_VESK_WRAP_DECLARE(family, id, cls, name, in, out, data)                                      \
    intptr_t in(zend_execute_data *execute_data, zval *return_value, const php_vesk_wrap_target *target); \
    void out(zend_execute_data *execute_data, zval *return_value, const vesk_metadata_t *entry,          \
             intptr_t in_result, const php_vesk_wrap_target *target);                                    \
    static ZEND_NAMED_FUNCTION(zif__vesk_wrapped_##id);
PHP_VESK_WRAP_TARGETS(PHP_VESK_WRAP_DECLARE)
#undef PHP_VESK_WRAP_DECLARE

#define PHP_VESK_WRAP_TARGET_ENUM(family, id, cls, name, in, out, data) PHP_VESK_WRAP_TARGET_##id,
enum { PHP_VESK_WRAP_TARGETS(PHP_VESK_WRAP_TARGET_ENUM) PHP_VESK_WRAP_TARGET_COUNT };
#undef PHP_VESK_WRAP_TARGET_ENUM

typedef struct {
    const char *switch_name;
    const char *module;
    int span;
    int test_only;
} php_vesk_wrap_family;

#define PHP_VESK_WRAP_FAMILY_ROW(id, switch_name, module, span, test_only) {switch_name, module, span, test_only},
static const php_vesk_wrap_family php_vesk_wrap_families[PHP_VESK_WRAP_FAMILY_COUNT] = {
    PHP_VESK_WRAP_FAMILIES(PHP_VESK_WRAP_FAMILY_ROW)};
#undef PHP_VESK_WRAP_FAMILY_ROW

/* Written at module start and shutdown only; read by every thread. */
#define PHP_VESK_WRAP_TARGET_ROW(family, id, cls, name, in, out, data) \
    {PHP_VESK_WRAP_FAMILY_##family, cls, name, in, out, data, zif__vesk_wrapped_##id, NULL, NULL},
static php_vesk_wrap_target php_vesk_wrap_targets[PHP_VESK_WRAP_TARGET_COUNT] = {
    PHP_VESK_WRAP_TARGETS(PHP_VESK_WRAP_TARGET_ROW)};
#undef PHP_VESK_WRAP_TARGET_ROW

/* Families with at least one wrapped record (their module was loaded). */
static uint32_t php_vesk_wrap_installed;
/* The switches' names, interned at module start so that a request reads a
 * switch with one probe of its INI table and no hashing. */
static zend_string *php_vesk_wrap_switches[PHP_VESK_WRAP_FAMILY_COUNT];
static zend_string *php_vesk_wrap_enable_name;

/* Copies of wrapped methods held by internal subclasses, to restore. */
typedef struct {
    zend_internal_function *record;
    const php_vesk_wrap_target *target;
} php_vesk_wrap_copy;
static php_vesk_wrap_copy *php_vesk_wrap_copies;
static int php_vesk_wrap_copy_count;

#define PHP_VESK_FAMILY_BIT(family) (1u << (unsigned)(family))

/* The call of an active family: in, the original on the same frame, out.
 * The pair lives on this activation's stack, so a wrapped call made inside
 * another (a cURL callback, say) gets a pair of its own. Only a traced
 * request can have sent an entry event, so only there is the context copied
 * for the out callback; elsewhere it gets null. The record owns nothing, so
 * it needs no destroy. */
static zend_always_inline void php_vesk_wrap_active_call(const php_vesk_wrap_target *target,
                                                         zend_execute_data *execute_data, zval *return_value) {
    intptr_t in_result = target->in != vesk_noop_in ? target->in(execute_data, return_value, target) : 0;
    if (!VESK_G(tracing)) {
        target->original(execute_data, return_value);
        if (target->out != vesk_noop_out) {
            target->out(execute_data, return_value, NULL, in_result, target);
        }
        return;
    }
    vesk_metadata_t entry;
    vesk_metadata_copy(&entry, vesk_context_get());
    target->original(execute_data, return_value);
    target->out(execute_data, return_value, &entry, in_result, target);
}

/* family is the target's, as a constant: one test of the thread's mask. */
static zend_always_inline void php_vesk_wrap_call(int family, const php_vesk_wrap_target *target,
                                                  zend_execute_data *execute_data, zval *return_value) {
    if (EXPECTED((VESK_G(wrap_mask) & PHP_VESK_FAMILY_BIT(family)) == 0)) {
        target->original(execute_data, return_value);
        return;
    }
    php_vesk_wrap_active_call(target, execute_data, return_value);
}

#define PHP_VESK_WRAP_HANDLER(family, id, cls, name, in, out, data)                                     \
    static ZEND_NAMED_FUNCTION(zif__vesk_wrapped_##id) {                                               \
        php_vesk_wrap_call(PHP_VESK_WRAP_FAMILY_##family, &php_vesk_wrap_targets[PHP_VESK_WRAP_TARGET_##id], \
                           execute_data, return_value);                                                \
    }
PHP_VESK_WRAP_TARGETS(PHP_VESK_WRAP_HANDLER)
#undef PHP_VESK_WRAP_HANDLER

intptr_t vesk_noop_in(zend_execute_data *execute_data, zval *return_value, const php_vesk_wrap_target *target) {
    (void)execute_data;
    (void)return_value;
    (void)target;
    return 0;
}

void vesk_noop_out(zend_execute_data *execute_data, zval *return_value, const vesk_metadata_t *entry,
                   intptr_t in_result, const php_vesk_wrap_target *target) {
    (void)execute_data;
    (void)return_value;
    (void)entry;
    (void)in_result;
    (void)target;
}

/* A subclass registered before this module copied the parent's record
 * (zend_do_inheritance → zend_duplicate_internal_function): wrap each copy
 * that still has the original handler (an override has a handler of its
 * own and is left alone). */
static void php_vesk_wrap_subclasses(zend_class_entry *parent, const char *lc_name, size_t length,
                                     php_vesk_wrap_target *target) {
    zend_class_entry *ce;
    ZEND_HASH_MAP_FOREACH_PTR(CG(class_table), ce) {
        if (ce == parent || ce->type != ZEND_INTERNAL_CLASS || !instanceof_function(ce, parent)) {
            continue;
        }
        zend_function *copy = zend_hash_str_find_ptr(&ce->function_table, lc_name, length);
        if (copy == NULL || copy->type != ZEND_INTERNAL_FUNCTION || copy->internal_function.handler != target->original) {
            continue;
        }
        php_vesk_wrap_copies = perealloc(php_vesk_wrap_copies,
                                         sizeof(*php_vesk_wrap_copies) * (size_t)(php_vesk_wrap_copy_count + 1), 1);
        php_vesk_wrap_copies[php_vesk_wrap_copy_count++] = (php_vesk_wrap_copy){&copy->internal_function, target};
        copy->internal_function.handler = target->wrapper;
    }
    ZEND_HASH_FOREACH_END();
}

static void php_vesk_wrap_install(php_vesk_wrap_target *target) {
    size_t length = strlen(target->name);
    char *lc_name = zend_str_tolower_dup(target->name, length);
    zend_class_entry *ce = NULL;
    zend_function *function;
    if (target->class_name != NULL) {
        size_t class_length = strlen(target->class_name);
        char *lc_class = zend_str_tolower_dup(target->class_name, class_length);
        ce = zend_hash_str_find_ptr(CG(class_table), lc_class, class_length);
        efree(lc_class);
        function = ce != NULL ? zend_hash_str_find_ptr(&ce->function_table, lc_name, length) : NULL;
    } else {
        function = zend_hash_str_find_ptr(CG(function_table), lc_name, length);
    }
    /* A name the loaded version lacks is skipped: its wrapper is never
     * reached. */
    if (function != NULL && function->type == ZEND_INTERNAL_FUNCTION &&
        function->internal_function.handler != target->wrapper) {
        target->record = &function->internal_function;
        target->original = function->internal_function.handler;
        function->internal_function.handler = target->wrapper;
        php_vesk_wrap_installed |= PHP_VESK_FAMILY_BIT(target->family);
        if (ce != NULL) {
            php_vesk_wrap_subclasses(ce, lc_name, length, target);
        }
    }
    efree(lc_name);
}

void php_vesk_wrap_minit(void) {
    int test_hooks = VESK_INI_ON("corvidine.internal_test_hooks");
    php_vesk_wrap_enable_name = zend_string_init_interned(ZEND_STRL("corvidine.enable_wrap"), 1);
    for (int f = 0; f < PHP_VESK_WRAP_FAMILY_COUNT; f++) {
        const char *name = php_vesk_wrap_families[f].switch_name;
        php_vesk_wrap_switches[f] = name != NULL ? zend_string_init_interned(name, strlen(name), 1) : NULL;
    }
    for (int i = 0; i < PHP_VESK_WRAP_TARGET_COUNT; i++) {
        php_vesk_wrap_target *target = &php_vesk_wrap_targets[i];
        const php_vesk_wrap_family *family = &php_vesk_wrap_families[target->family];
        if ((family->test_only && !test_hooks) ||
            !zend_hash_str_exists(&module_registry, family->module, strlen(family->module))) {
            continue;
        }
        php_vesk_wrap_install(target);
    }
    php_vesk_curl_minit();
}

void php_vesk_wrap_mshutdown(void) {
    php_vesk_curl_mshutdown();
    for (int i = 0; i < php_vesk_wrap_copy_count; i++) {
        if (php_vesk_wrap_copies[i].record->handler == php_vesk_wrap_copies[i].target->wrapper) {
            php_vesk_wrap_copies[i].record->handler = php_vesk_wrap_copies[i].target->original;
        }
    }
    if (php_vesk_wrap_copies != NULL) {
        pefree(php_vesk_wrap_copies, 1);
        php_vesk_wrap_copies = NULL;
    }
    php_vesk_wrap_copy_count = 0;
    for (int i = 0; i < PHP_VESK_WRAP_TARGET_COUNT; i++) {
        php_vesk_wrap_target *target = &php_vesk_wrap_targets[i];
        if (target->record != NULL && target->record->handler == target->wrapper) {
            target->record->handler = target->original;
        }
        target->record = NULL;
        target->original = NULL;
    }
    php_vesk_wrap_installed = 0;
}

/* An on/off entry: the low byte of its integer value is 1. */
static int php_vesk_wrap_ini_on(zend_string *name) {
    zend_ini_entry *entry = zend_hash_find_ptr(EG(ini_directives), name);
    if (entry == NULL || entry->value == NULL) {
        return 0;
    }
    return (ZEND_STRTOL(ZSTR_VAL(entry->value), NULL, 0) & 0xFF) == 1;
}

int php_vesk_wrap_enabled(void) {
    return php_vesk_wrap_enable_name != NULL && php_vesk_wrap_ini_on(php_vesk_wrap_enable_name);
}

static int php_vesk_wrap_family_on(int f) {
    return (php_vesk_wrap_installed & PHP_VESK_FAMILY_BIT(f)) != 0 &&
           (php_vesk_wrap_switches[f] == NULL || php_vesk_wrap_ini_on(php_vesk_wrap_switches[f]));
}

void new_wrap_init(void) {
    if (VESK_G(wrap_state) != 0) {
        PHP_VESK_WARNING("Wrapping when wrappers already loaded");
    }
    uint32_t mask = 0;
    for (int f = 0; f < PHP_VESK_WRAP_FAMILY_COUNT; f++) {
        if (php_vesk_wrap_family_on(f)) {
            mask |= PHP_VESK_FAMILY_BIT(f);
        }
    }
    VESK_G(wrap_mask) = mask;
    /* 1 when the phpredis family was asked for and its module is loaded,
     * -1 otherwise: both mean every requested family is in place. */
    VESK_G(wrap_state) = VESK_INI_ON("corvidine.enable_wrap_phpredis") &&
                                 zend_hash_str_exists(&module_registry, ZEND_STRL("redis"))
                             ? 1
                             : -1;
}

void new_wrap_unload(void) {
    VESK_G(wrap_mask) = 0;
    VESK_G(wrap_state) = 0;
}

void wrap_for_span(void) {
    for (int f = 0; f < PHP_VESK_WRAP_FAMILY_COUNT; f++) {
        if (php_vesk_wrap_families[f].span && php_vesk_wrap_family_on(f)) {
            VESK_G(wrap_mask) |= PHP_VESK_FAMILY_BIT(f);
            VESK_G(wrap_state)++;
        }
    }
}

void unwrap_for_span(void) {
    for (int f = 0; f < PHP_VESK_WRAP_FAMILY_COUNT; f++) {
        if (php_vesk_wrap_families[f].span && (VESK_G(wrap_mask) & PHP_VESK_FAMILY_BIT(f)) != 0) {
            VESK_G(wrap_mask) &= ~PHP_VESK_FAMILY_BIT(f);
            VESK_G(wrap_state)--;
        }
    }
}

void php_vesk_wrap_request_end(void) {
    php_vesk_curl_request_end();
    VESK_G(wrap_mask) = 0;
    VESK_G(wrap_state) = 0;
    php_vesk_mysqli_request_end();
    php_vesk_phpredis_request_end();
}
