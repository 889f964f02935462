/*
 * The stack sampler of profiled requests (corvidine.enable_profiling), the
 * Zend half: the VM interrupt handler that walks the request's own frames,
 * the start and end of a profiled request, and the thin handlers around
 * known long internal calls (sleep, curl_exec, database queries) that see
 * such a call on its way out.
 *
 * How a sample is taken: the request's clock thread (core, profiler.h)
 * raises the request thread's EG(vm_interrupt) at each tick. The VM calls
 * zend_interrupt_function at its next function entry or loop back-edge, on
 * the request's own thread, where the frames may be read; the handler takes
 * the snapshot there and hands it to the profiler thread. Between ticks this
 * costs nothing, and the JIT stays on. An internal call cannot be
 * interrupted, and the VM only checks the flag again after its caller moved
 * on; so calls that are known to last are wrapped, and a tick that came
 * during one is sampled as the call returns, with the call innermost.
 *
 * Threads: request threads only. The clock thread reaches the request only
 * through the interrupt flag registered at request start, and not after
 * request end (the clock is stopped first).
 */
#ifndef PHP_VESK_PROFILER_H
#define PHP_VESK_PROFILER_H

#include "php.h"

/* Module start: the interrupt handler (chained to the one before); the long
 * calls are wrapped once all modules have started. */
void php_vesk_profiler_minit(void);
/* Module shutdown: restores both, then lets the profiler thread send what
 * is queued and joins it, so that a CLI run's profile is out before the
 * process exits. */
void php_vesk_profiler_mshutdown(void);

/* After the trace started, on a sampled request with profiling_enabled:
 * keeps the context as the parent of the profiling span and starts the
 * clock (and, once per process, the profiler thread). */
void php_vesk_profiler_request_start(void);
/* Request end (or a trace ended early): stops the clock and closes the span
 * at the clock's tick. Does nothing when no clock runs. */
void php_vesk_profiler_request_end(void);

#endif
