/*
 * Function-call hooks through PHP 8's observer API.
 *
 * Why the observer API and not a zend_execute_ex / zend_execute_internal
 * replacement: on PHP 8 an extension that replaces zend_execute_ex makes
 * opcache switch the JIT off, and it forces every user call through a C
 * level recursion (no more "call in the same VM loop"). The observer API
 * gives the same thing the features need — a callback before and after each
 * function they watch — and keeps the JIT on. The init handler below runs
 * once per function and request; a function that no watcher wants gets no
 * handlers, so its later calls only pass the engine's "not observed" test.
 *
 * Why the observer is registered only when a feature watches: on PHP 8.2
 * that "not observed" path is not free. Once any observer is registered the
 * engine runs the observer variants of every call and return (measured with
 * callgrind on a recursive fibonacci: 190 -> 280 instructions per call, +47%;
 * about +45% wall time with and without JIT). Without a watcher nothing is
 * registered and calls cost what they cost without the extension; Laravel
 * tracing watches only when the system value of
 * corvidine.enable_laravel_tracing is on.
 * The registration can only happen during module start, so features that may
 * watch register their watcher there, before php_vesk_hooks_startup().
 *
 * What the observer does not give: a way to replace the execution of a
 * function (it only watches). The Laravel dispatcher only needs to watch, so
 * nothing is lost. (The profiler samples through the VM interrupt instead.)
 *
 * Observers cannot be unregistered; at module shutdown the watchers are
 * forgotten and the engine's own handlers stay as the engine set them.
 */
#include "php_corvidine.h"

#include "src/hooks/observer.h"

static const php_vesk_fcall_watcher *php_vesk_watchers[PHP_VESK_MAX_WATCHERS];
static int php_vesk_watcher_count;
static int php_vesk_observer_registered;

/* When several watchers want the same function, each gets every call of it;
 * their begin/end test their own request state first. */
static void php_vesk_observe_all_begin(zend_execute_data *execute_data) {
    for (int i = 0; i < php_vesk_watcher_count; i++) {
        if (php_vesk_watchers[i]->begin != NULL) {
            php_vesk_watchers[i]->begin(execute_data);
        }
    }
}

static void php_vesk_observe_all_end(zend_execute_data *execute_data, zval *retval) {
    for (int i = php_vesk_watcher_count - 1; i >= 0; i--) {
        if (php_vesk_watchers[i]->end != NULL) {
            php_vesk_watchers[i]->end(execute_data, retval);
        }
    }
}

static zend_observer_fcall_handlers php_vesk_observer_init(zend_execute_data *execute_data) {
    zend_observer_fcall_handlers handlers = {NULL, NULL};
    int interested = 0;
    const php_vesk_fcall_watcher *only = NULL;

    for (int i = 0; i < php_vesk_watcher_count; i++) {
        if (php_vesk_watchers[i]->wants(execute_data)) {
            interested++;
            only = php_vesk_watchers[i];
        }
    }
    if (interested == 1) {
        handlers.begin = only->begin;
        handlers.end = only->end;
    } else if (interested > 1) {
        handlers.begin = php_vesk_observe_all_begin;
        handlers.end = php_vesk_observe_all_end;
    }
    return handlers;
}

int php_vesk_hooks_add_watcher(const php_vesk_fcall_watcher *watcher) {
    if (php_vesk_observer_registered || watcher == NULL || watcher->wants == NULL ||
        php_vesk_watcher_count >= PHP_VESK_MAX_WATCHERS) {
        return -1;
    }
    php_vesk_watchers[php_vesk_watcher_count++] = watcher;
    return 0;
}

void php_vesk_hooks_startup(void) {
    /* Watchers join here, before the registration:
     *   the Laravel detector and dispatcher (corvidine.enable_laravel_tracing). */
    if (php_vesk_watcher_count == 0) {
        return;
    }
    zend_observer_fcall_register(php_vesk_observer_init);
    php_vesk_observer_registered = 1;
}

void php_vesk_hooks_shutdown(void) {
    php_vesk_watcher_count = 0;
}

int php_vesk_hooks_installed(void) {
    return php_vesk_observer_registered;
}

int php_vesk_hooks_watcher_count(void) {
    return php_vesk_watcher_count;
}
