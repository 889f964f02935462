/*
 * Laravel tracing: detection of a Laravel application and the dispatcher
 * that runs the registry's actions around the watched functions.
 *
 * Laravel's methods are user functions, so they are watched through the
 * engine's observer (src/hooks): a watcher whose per-function init answers
 * yes only for names in the registry. Its begin handler picks the action
 * whose filter matches and runs the entry side; its end handler runs the
 * exit side of the same call.
 *
 * Detection needs to see user code run before LARAVEL_START is known: it
 * happens in the per-function init, on the first run of each user function
 * (top-level code of the entry script and of included files included) in
 * the request, at most 8 times per request.
 *
 * Per-thread state (module globals): enable_laravel_tracing,
 * laravel_enable_backtrace, laravel_state (-1 unknown, 1 Laravel, 0 not, or
 * an unsupported version), laravel_detect_count, laravel_version (the table
 * in use), laravel_spans (span_stack.h) and laravel_calls (the watched calls
 * begun and not yet ended, with their action).
 */
#ifndef PHP_VESK_LARAVEL_DISPATCH_H
#define PHP_VESK_LARAVEL_DISPATCH_H

#include "php.h"

/* Module start: with corvidine.enable_laravel_tracing on (system value),
 * builds the registry and adds the watcher. Call before the hooks start. */
void php_vesk_laravel_minit(void);
void php_vesk_laravel_mshutdown(void);

/* Request start, from the INI values of this request. */
void php_vesk_laravel_request_startup(void);
/* Request end, before the trace ends: a Laravel request's open spans are
 * reported unclosed and closed; then everything is forgotten and the
 * dispatcher stands still until the next request. */
void php_vesk_laravel_request_shutdown(void);

/* One detection attempt (see above). */
void vesk_is_laravel(zend_execute_data *execute_data);

/* The base table's filters and action. */
int _vesk_laravel_filter_autoload(zend_execute_data *execute_data);
void _vesk_laravel_exit_action_autoload(zend_execute_data *execute_data);
/* Selects the version's table from Foundation\Application::VERSION; always
 * 0, so no action runs for the call itself. */
int _vesk_laravel_filter_application(zend_execute_data *execute_data);

/* A pending exception is put aside while an action runs (it calls into PHP,
 * which refuses to run with one pending), and whatever the action throws is
 * dropped: the application never sees the agent's exceptions. */
typedef struct vesk_laravel_exception_guard {
    zend_object *exception;
    zend_object *prev_exception;
    const zend_op *opline_before_exception;
    zend_execute_data *frame;
    const zend_op *opline;
} vesk_laravel_exception_guard;

void vesk_laravel_guard_enter(vesk_laravel_exception_guard *guard);
void vesk_laravel_guard_leave(vesk_laravel_exception_guard *guard);

#endif
