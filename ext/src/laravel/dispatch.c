/* Laravel detection and dispatch (see dispatch.h). */
#include "php_corvidine.h"

#include "zend_exceptions.h"

#include "src/config/ini.h"
#include "src/hooks/observer.h"
#include "src/laravel/dispatch.h"
#include "src/laravel/helpers.h"
#include "src/laravel/registry.h"
#include "src/laravel/span_stack.h"
#include "src/request/request_ini.h"

/* Attempts of detection per request. */
#define VESK_LARAVEL_DETECT_ATTEMPTS 8

typedef struct vesk_laravel_call {
    zend_execute_data *frame;
    const laravel_action *action;
    /* CG(unclean_shutdown) when the call began: after a fatal error the
     * engine ends the calls that were running (zend_observer_fcall_end_all)
     * although they never returned; those ends are ignored, and the spans
     * stay open for the request end to report. */
    zend_bool unclean;
} vesk_laravel_call;

typedef struct vesk_laravel_calls {
    uint32_t count;
    uint32_t size;
    vesk_laravel_call items[];
} vesk_laravel_calls;

void vesk_laravel_guard_enter(vesk_laravel_exception_guard *guard) {
    guard->exception = EG(exception);
    guard->prev_exception = EG(prev_exception);
    guard->opline_before_exception = EG(opline_before_exception);
    guard->frame = EG(current_execute_data);
    guard->opline = guard->frame != NULL && guard->frame->func != NULL && ZEND_USER_CODE(guard->frame->func->type)
                        ? guard->frame->opline
                        : NULL;
    EG(exception) = NULL;
    EG(prev_exception) = NULL;
}

void vesk_laravel_guard_leave(vesk_laravel_exception_guard *guard) {
    if (EG(exception) != NULL || EG(prev_exception) != NULL) {
        zend_clear_exception();
    }
    EG(exception) = guard->exception;
    EG(prev_exception) = guard->prev_exception;
    EG(opline_before_exception) = guard->opline_before_exception;
    if (guard->opline != NULL && EG(current_execute_data) == guard->frame) {
        guard->frame->opline = guard->opline;
    }
}

static int vesk_laravel_push_call(zend_execute_data *frame, const laravel_action *action) {
    vesk_laravel_calls *calls = VESK_G(laravel_calls);
    if (calls == NULL || calls->count == calls->size) {
        uint32_t size = calls == NULL ? 32 : calls->size * 2;
        vesk_laravel_calls *grown = realloc(calls, sizeof(*calls) + size * sizeof(calls->items[0]));
        if (grown == NULL) {
            return -1;
        }
        if (calls == NULL) {
            grown->count = 0;
        }
        grown->size = size;
        VESK_G(laravel_calls) = calls = grown;
    }
    calls->items[calls->count++] = (vesk_laravel_call){frame, action, CG(unclean_shutdown)};
    return 0;
}

void vesk_is_laravel(zend_execute_data *execute_data) {
    (void)execute_data;
    if (VESK_G(laravel_detect_count)++ >= VESK_LARAVEL_DETECT_ATTEMPTS) {
        VESK_G(laravel_state) = 0;
        return;
    }
    if (zend_get_constant_str("LARAVEL_START", sizeof("LARAVEL_START") - 1) == NULL) {
        return;
    }
    vesk_laravel_spans_clear();
    VESK_G(laravel_version) = vesk_laravel_find_version(VESK_LARAVEL_BASE);
    VESK_G(laravel_state) = VESK_G(laravel_version) != NULL ? 1 : 0;
}

/* The observer's per-function init: once per function and request. */
static int vesk_laravel_wants(zend_execute_data *execute_data) {
    const zend_function *func = execute_data->func;
    if (!ZEND_USER_CODE(func->type)) {
        return 0;
    }
    if (VESK_G(laravel_state) == -1 && VESK_G(enable_laravel_tracing)) {
        vesk_is_laravel(execute_data);
    }
    zend_string *name = func->common.function_name;
    return name != NULL && vesk_laravel_watches(name);
}

static void vesk_laravel_execute_begin(zend_execute_data *execute_data) {
    if (VESK_G(laravel_state) != 1) {
        return;
    }
    zend_string *name = execute_data->func->common.function_name;
    const laravel_method_entry *method =
        vesk_laravel_find_method(VESK_G(laravel_version), ZSTR_VAL(name), ZSTR_LEN(name));
    if (method == NULL) {
        return;
    }
    vesk_laravel_exception_guard guard;
    vesk_laravel_guard_enter(&guard);
    const laravel_action *action = method->actions;
    while (action != NULL && !action->filter(execute_data)) {
        action = action->next;
    }
    if (action != NULL && vesk_laravel_push_call(execute_data, action) == 0) {
        if (action->entry_action != NULL) {
            action->entry_action(execute_data);
        } else if (action->span != NULL) {
            vesk_laravel_trace_event(action->span, "entry", NULL, VESK_G(laravel_enable_backtrace));
        }
    }
    vesk_laravel_guard_leave(&guard);
}

static void vesk_laravel_execute_end(zend_execute_data *execute_data, zval *retval) {
    (void)retval;
    vesk_laravel_calls *calls = VESK_G(laravel_calls);
    if (calls == NULL || calls->count == 0) {
        return;
    }
    vesk_laravel_call *top = &calls->items[calls->count - 1];
    if (top->frame != execute_data || top->unclean != CG(unclean_shutdown)) {
        return;
    }
    const laravel_action *action = top->action;
    calls->count--;

    vesk_laravel_exception_guard guard;
    vesk_laravel_guard_enter(&guard);
    if (action->exit_action != NULL) {
        action->exit_action(execute_data);
    } else if (action->span != NULL) {
        vesk_laravel_trace_event(action->span, "exit", NULL, 0);
    }
    vesk_laravel_guard_leave(&guard);
}

static const php_vesk_fcall_watcher vesk_laravel_watcher = {
    "laravel",
    vesk_laravel_wants,
    vesk_laravel_execute_begin,
    vesk_laravel_execute_end,
};

int _vesk_laravel_filter_autoload(zend_execute_data *execute_data) {
    const char *name = vesk_laravel_get_class(execute_data);
    return name != NULL && strncmp(name, "ComposerAutoloaderInit", sizeof("ComposerAutoloaderInit") - 1) == 0;
}

void _vesk_laravel_exit_action_autoload(zend_execute_data *execute_data) {
    (void)execute_data;
    vesk_laravel_trace_event("laravel_autoload", "exit", NULL, 0);
    vesk_laravel_trace_event("laravel_bootstrap", "entry", NULL, VESK_G(laravel_enable_backtrace));
}

/* Application::VERSION as written in the class (a literal), or null. */
static const char *vesk_laravel_version_text(zend_execute_data *execute_data) {
    zend_class_entry *ce = Z_TYPE(execute_data->This) == IS_OBJECT ? Z_OBJCE(execute_data->This)
                                                                    : execute_data->func->common.scope;
    if (ce == NULL) {
        return NULL;
    }
    zend_class_constant *constant = zend_hash_str_find_ptr(CE_CONSTANTS_TABLE(ce), "VERSION", sizeof("VERSION") - 1);
    if (constant == NULL || Z_TYPE(constant->value) != IS_STRING) {
        return NULL;
    }
    return Z_STRVAL(constant->value);
}

int _vesk_laravel_filter_application(zend_execute_data *execute_data) {
    if (!vesk_laravel_is_class_of(execute_data, "\\Foundation\\Application")) {
        return 0;
    }
    const char *text = vesk_laravel_version_text(execute_data);
    int32_t version = text != NULL ? _vesk_laravel_get_version_from_str(text) : 0;
    if (version != 0) {
        const laravel_version_entry *entry = vesk_laravel_find_version(version);
        if (entry != NULL) {
            VESK_G(laravel_version) = entry;
            return 0;
        }
    }
    VESK_G(laravel_state) = 0;
    char message[128];
    snprintf(message, sizeof(message), "Laravel %s is not supported.", text != NULL ? text : "(unknown)");
    php_vesk_kv records[] = {
        {PHP_VESK_KV_STRING, "ErrorClass", "ZqUnsupportedLaravel", 0},
        {PHP_VESK_KV_STRING, "ErrorMsg", message, 0},
        {PHP_VESK_KV_END, NULL, NULL, 0},
    };
    vesk_laravel_trace_event("laravel", "error", records, 0);
    vesk_laravel_close_all_spans(0);
    return 0;
}

void php_vesk_laravel_minit(void) {
    if (!VESK_INI_ON("corvidine.enable_laravel_tracing")) {
        return;
    }
    if (vesk_laravel_startup() == 0) {
        php_vesk_hooks_add_watcher(&vesk_laravel_watcher);
    }
}

void php_vesk_laravel_mshutdown(void) {
    VESK_G(laravel_version) = NULL;
    vesk_laravel_shutdown();
}

static void vesk_laravel_forget(void) {
    vesk_laravel_spans_clear();
    free(VESK_G(laravel_calls));
    VESK_G(laravel_calls) = NULL;
    VESK_G(laravel_version) = NULL;
    VESK_G(laravel_detect_count) = 0;
}

void php_vesk_laravel_request_startup(void) {
    vesk_laravel_forget();
    VESK_G(enable_laravel_tracing) = php_vesk_request_ini_on(PHP_VESK_RINI_ENABLE_LARAVEL_TRACING);
    VESK_G(laravel_enable_backtrace) = php_vesk_request_ini_on(PHP_VESK_RINI_LARAVEL_ENABLE_BACKTRACE);
    VESK_G(laravel_state) = -1;
}

void php_vesk_laravel_request_shutdown(void) {
    if (VESK_G(laravel_state) == 1) {
        vesk_laravel_close_all_spans(1);
    }
    vesk_laravel_forget();
    /* Destructors run after the request end: nothing of theirs is watched. */
    VESK_G(laravel_state) = 0;
}
