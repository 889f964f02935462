/* The VM interrupt handler, the frame walk, and a profiled request's start
 * and end. */
#include "php_corvidine.h"

#include "zend_atomic.h"

#include "corvidine/context.h"
#include "corvidine/debug_log.h"
#include "corvidine/profiler.h"

#include "src/profiler/profiler.h"
#include "src/profiler/sampler.h"

/* The handler that was installed before ours (pcntl's, for one); written
 * at module start and shutdown only. */
static void (*php_vesk_previous_interrupt)(zend_execute_data *execute_data);
static zend_result (*php_vesk_previous_post_startup)(void);

/* Called on the clock thread, under the clock's lock, while the request
 * runs. */
static void php_vesk_raise_interrupt(void *target) {
    zend_atomic_bool_store((zend_atomic_bool *)target, true);
}

/* The frames a snapshot shows: agent functions never; code outside any
 * function (a file's top level) only when it called a named function, so
 * that an include running at the top has no snapshot of its own; and
 * nothing that has neither a name, a class nor a file. */
static int php_vesk_frame_shown(const zend_function *func, int *seen_named) {
    const zend_string *name = func->common.function_name;
    if (name != NULL) {
        if (ZSTR_LEN(name) >= 6 && memcmp(ZSTR_VAL(name), "_vesk_", 6) == 0) {
            return 0;
        }
        *seen_named = 1;
        return 1;
    }
    if (!*seen_named) {
        return 0;
    }
    return func->common.scope != NULL || ZEND_USER_CODE(func->type);
}

static void php_vesk_add_frame(vesk_profiler_snapshot *snapshot, const zend_execute_data *ex) {
    const zend_function *func = ex->func;
    const zend_string *name = func->common.function_name;
    const zend_string *scope = func->common.scope != NULL ? func->common.scope->name : NULL;
    const zend_string *file = NULL;
    int32_t line = -1;
    int type = VESK_PROFILER_FRAME_INTERNAL;
    if (ZEND_USER_CODE(func->type)) {
        type = VESK_PROFILER_FRAME_USER;
        file = func->op_array.filename;
        if (ex->opline != NULL) {
            line = (int32_t)ex->opline->lineno;
        }
    }
    vesk_profiler_snapshot_add_frame(snapshot, type, name ? ZSTR_VAL(name) : NULL, name ? ZSTR_LEN(name) : 0,
                                     scope ? ZSTR_VAL(scope) : NULL, scope ? ZSTR_LEN(scope) : 0,
                                     file ? ZSTR_VAL(file) : NULL, file ? ZSTR_LEN(file) : 0, line);
}

/* Walks from ex outwards. Only the outermost VESK_PROFILER_MAX_FRAMES
 * frames are copied: the walk keeps pointers to the last ones seen, and
 * the frames in front of them are only counted. 0 when a snapshot was
 * queued, -2 when no frame is to be shown, else -1. */
static int php_vesk_report_snapshot(uint64_t sequence, zend_execute_data *ex) {
    const zend_execute_data *kept[VESK_PROFILER_MAX_FRAMES];
    size_t total = 0;
    int seen_named = 0;
    for (; ex != NULL; ex = ex->prev_execute_data) {
        if (ex->func != NULL && php_vesk_frame_shown(ex->func, &seen_named)) {
            kept[total % VESK_PROFILER_MAX_FRAMES] = ex;
            total++;
        }
    }
    if (total == 0) {
        return -2;
    }
    vesk_profiler_snapshot *snapshot = vesk_profiler_snapshot_new(sequence, vesk_context_get());
    if (snapshot == NULL) {
        return -1;
    }
    size_t count = total, first = 0;
    if (total > VESK_PROFILER_MAX_FRAMES) {
        vesk_profiler_snapshot_count_frames(snapshot, total - VESK_PROFILER_MAX_FRAMES);
        count = VESK_PROFILER_MAX_FRAMES;
        first = total % VESK_PROFILER_MAX_FRAMES;
    }
    for (size_t i = 0; i < count; i++) {
        php_vesk_add_frame(snapshot, kept[(first + i) % VESK_PROFILER_MAX_FRAMES]);
    }
    return vesk_profiler_report_snapshot(snapshot);
}

void php_vesk_profiler_sample(zend_execute_data *execute_data) {
    /* The snapshot is numbered after the last tick seen plus one: when
     * several ticks went by, it stands for the first of them, and the
     * profiler thread counts the others as omitted. A full queue drops the
     * sample; the tick stays due and the next safe point tries again. */
    uint64_t last = VESK_G(profiler_last_tick);
    uint64_t tick = vesk_profiler_clock_tick(VESK_G(profiler_clock));
    if (last >= tick || !vesk_profiler_ready()) {
        return;
    }
    int rc = php_vesk_report_snapshot(last + 1, execute_data);
    if (rc == 0) {
        VESK_G(profiler_last_tick) = tick;
    } else if (rc == -2 && last == 0 && ZEND_USER_CODE(execute_data->func->type) &&
               execute_data->opline == execute_data->func->op_array.opcodes) {
        /* The flag raised at request start is seen as the script's code
         * outside functions begins, which has nothing to show yet. Raising
         * it again here would bring the VM straight back; the clock raises
         * it again a moment later instead, for the first call or loop. */
        vesk_profiler_clock_nudge(VESK_G(profiler_clock));
    }
}

static void php_vesk_profiler_interrupt(zend_execute_data *execute_data) {
    if (VESK_G(profiler_clock) != NULL) {
        php_vesk_profiler_sample(execute_data);
    }
    if (php_vesk_previous_interrupt != NULL) {
        php_vesk_previous_interrupt(execute_data);
    }
}

/* Once every module has started (and registered its functions, whatever
 * the order in which the modules were loaded), before the first request. */
static zend_result php_vesk_profiler_post_startup(void) {
    php_vesk_long_calls_wrap();
    return php_vesk_previous_post_startup != NULL ? php_vesk_previous_post_startup() : SUCCESS;
}

void php_vesk_profiler_minit(void) {
    php_vesk_previous_interrupt = zend_interrupt_function;
    zend_interrupt_function = php_vesk_profiler_interrupt;
    php_vesk_previous_post_startup = zend_post_startup_cb;
    zend_post_startup_cb = php_vesk_profiler_post_startup;
}

void php_vesk_profiler_mshutdown(void) {
    php_vesk_long_calls_unwrap();
    if (zend_interrupt_function == php_vesk_profiler_interrupt) {
        zend_interrupt_function = php_vesk_previous_interrupt;
    }
    vesk_profiler_terminate();
    if (vesk_profiler_clocks_wait(1000) != 0) {
        VESK_DEBUG_LOG_USAGE(VESK_DEBUG_MODULE_PHP, VESK_DEBUG_WARNING, "Profiler clocks still running at shutdown");
    }
}

void php_vesk_profiler_request_start(void) {
    VESK_G(profiler_last_tick) = 0;
    vesk_metadata_copy(&VESK_G(profiler_parent_metadata), vesk_context_get());
    if (vesk_profiler_start() != 0) {
        return;
    }
    VESK_G(profiler_clock) =
        vesk_profiler_clock_start(VESK_G(profiler_interval_us), php_vesk_raise_interrupt, (void *)&EG(vm_interrupt));
    if (VESK_G(profiler_clock) != NULL) {
        /* Tick 1 is due now: the first snapshot at the first safe point. */
        zend_atomic_bool_store(&EG(vm_interrupt), true);
    }
}

void php_vesk_profiler_request_end(void) {
    vesk_profiler_clock *clock = VESK_G(profiler_clock);
    if (clock == NULL) {
        return;
    }
    uint64_t tick = vesk_profiler_clock_tick(clock);
    VESK_G(profiler_clock) = NULL;
    vesk_profiler_clock_stop(clock);
    /* Refused only where no profiler thread runs: a child forked during
     * the request, whose snapshots went to the parent's. */
    if (vesk_profiler_notify_done(&VESK_G(profiler_parent_metadata), tick, VESK_G(request_service_name),
                                  VESK_G(profiler_interval_us)) != 0) {
        VESK_DEBUG_LOG(VESK_DEBUG_MODULE_PHP, VESK_DEBUG_LOW, "No profiler thread in this process: span not closed");
    }
}
