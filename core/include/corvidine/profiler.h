/*
 * The stack sampler's PHP-independent half: the clock of a profiled request,
 * stack snapshots, the bounded queue to the profiler thread, and that thread.
 *
 * Threads:
 *   - a request thread makes snapshots (vesk_profiler_snapshot_*), hands them
 *     over with vesk_profiler_report_snapshot and closes its span with
 *     vesk_profiler_notify_done; it owns a snapshot until it hands it over;
 *   - one clock thread per profiled request counts ticks and calls the
 *     request's raise function (vesk_profiler_clock_*);
 *   - one profiler thread per process takes records from the queue and turns
 *     them into profiling documents (profile_spans.h), sent on the profiling
 *     channel of the current reporter.
 * A forked child starts its own profiler thread at its first profiled
 * request; a clock running in the parent at the fork stands still in the
 * child (its request is not sampled further there).
 */
#ifndef CORVIDINE_PROFILER_H
#define CORVIDINE_PROFILER_H

#include <stddef.h>
#include <stdint.h>

#include "corvidine/metadata.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Frames a snapshot keeps: the outermost ones of a deeper stack. */
#define VESK_PROFILER_MAX_FRAMES 200
/* Snapshots waiting for the profiler thread; more are dropped. */
#define VESK_PROFILER_QUEUE_CAPACITY 3000

#define VESK_PROFILER_FRAME_INTERNAL 1
#define VESK_PROFILER_FRAME_USER 2

/* ---- clock (request thread: start, tick, stop; the clock thread: raise) */

typedef struct vesk_profiler_clock vesk_profiler_clock;

/* Starts a detached clock thread. Its tick count stands at 1; every
 * interval_us on a fixed grid it adds 1 and calls raise(target). Null when
 * the thread cannot be started. */
vesk_profiler_clock *vesk_profiler_clock_start(int64_t interval_us, void (*raise)(void *target), void *target);
/* Has the clock call raise once more, soon and without a tick: for a tick
 * that the request thread saw at a point where it could not take it. */
void vesk_profiler_clock_nudge(vesk_profiler_clock *clock);
/* The tick count (lock-free; a late view only delays a sample). */
uint64_t vesk_profiler_clock_tick(const vesk_profiler_clock *clock);
/* Stops the clock: once this returns, raise is never called again. The
 * clock is freed (by its thread, or here); do not use it afterwards. */
void vesk_profiler_clock_stop(vesk_profiler_clock *clock);

/* Waits until every clock thread of this process has ended (they end as
 * soon as their clock is stopped): module shutdown, so that no thread runs
 * the module's code once it may be unloaded. 0, or -1 after timeout_ms. */
int vesk_profiler_clocks_wait(long timeout_ms);

/* ---- snapshots (request thread) */

typedef struct vesk_profiler_snapshot vesk_profiler_snapshot;

/* A new snapshot: the context given, the calling thread's kernel id, the
 * wall-clock time now. Null when memory fails. */
vesk_profiler_snapshot *vesk_profiler_snapshot_new(uint64_t sequence, const vesk_metadata_t *context);
/* Adds a frame; frames come innermost first. Strings are copied (null:
 * absent); line 0 or below: unknown. Of more than VESK_PROFILER_MAX_FRAMES
 * the innermost are dropped and only counted. */
void vesk_profiler_snapshot_add_frame(vesk_profiler_snapshot *snapshot, int frame_type, const char *method,
                                      size_t method_len, const char *class_name, size_t class_len,
                                      const char *file, size_t file_len, int32_t line);
/* Counts frames seen but not added (innermost ones beyond the limit, which a
 * caller may leave out instead of adding them to be dropped). */
void vesk_profiler_snapshot_count_frames(vesk_profiler_snapshot *snapshot, uint64_t count);
size_t vesk_profiler_snapshot_frame_total(const vesk_profiler_snapshot *snapshot);
void vesk_profiler_snapshot_free(vesk_profiler_snapshot *snapshot);

/* ---- queue and profiler thread */

/* Starts the profiler thread of this process unless it runs. 0, or -1 when
 * the thread cannot be started. Any thread. */
int vesk_profiler_start(void);
/* 1 when the profiler thread runs in this process and the queue has room. */
int vesk_profiler_ready(void);
/* Hands a snapshot over (it is taken in any case): 0 queued, -1 dropped (the
 * queue is full or the thread does not run). Never waits. */
int vesk_profiler_report_snapshot(vesk_profiler_snapshot *snapshot);
/* Ends the span of the trace of parent: queued even when the queue is full
 * (one such record per request), never waits. sequence is the clock's tick
 * at the end. 0, or -1 when the profiler thread does not run. */
int vesk_profiler_notify_done(const vesk_metadata_t *parent, uint64_t sequence, const char *service_name,
                              int64_t interval_us);
/* Lets the profiler thread finish what is queued, then stops and joins it.
 * Spans still waiting for their end are dropped. Module shutdown. */
void vesk_profiler_terminate(void);

#ifdef __cplusplus
}
#endif

#endif
