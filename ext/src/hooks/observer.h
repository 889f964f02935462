/*
 * Engine hooks: where features watch PHP function calls (the profiler
 * samples through the VM interrupt instead, see src/profiler).
 *
 * Features that need a callback around function calls (the Laravel
 * dispatcher) register a watcher here during
 * module start, before php_vesk_hooks_startup() runs. The engine observer is
 * registered only when there is a watcher: on PHP 8.2 a registered observer
 * slows every call, watched or not (see observer.c).
 */
#ifndef PHP_VESK_HOOKS_OBSERVER_H
#define PHP_VESK_HOOKS_OBSERVER_H

#include "php.h"
#include "zend_observer.h"

#define PHP_VESK_MAX_WATCHERS 4

typedef struct php_vesk_fcall_watcher {
    const char *name;
    /* Asked once per function and request, at the function's first call:
     * non-zero when the watcher wants begin/end around that function. Keep it
     * cheap: it runs on the first call of every function of every request. */
    int (*wants)(zend_execute_data *execute_data);
    zend_observer_fcall_begin_handler begin; /* may be null */
    zend_observer_fcall_end_handler end;     /* may be null */
} php_vesk_fcall_watcher;

/* Adds a watcher (kept by pointer). 0, or -1 when the table is full or the
 * hooks are already installed. Module start only. */
int php_vesk_hooks_add_watcher(const php_vesk_fcall_watcher *watcher);

/* Registers the function-call observer with the engine when at least one
 * watcher was added. Module start only. */
void php_vesk_hooks_startup(void);
/* Forgets the watchers at module shutdown. */
void php_vesk_hooks_shutdown(void);

/* 1 once the observer is registered. */
int php_vesk_hooks_installed(void);
int php_vesk_hooks_watcher_count(void);

#endif
