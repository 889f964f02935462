/*
 * Token buckets for rate limiting the tracing decision, refilled lazily when
 * a token is asked for. `available` is a float; capacity and rate come from
 * the settings record (see vesk_bucket_t in settings.h).
 *
 * Threads: any request thread may consume from a bucket at any time. Each
 * bucket's update is serialised by a short spin lock kept beside it, so many
 * threads never take more tokens than the bucket held plus its refill.
 */
#ifndef CORVIDINE_TOKEN_BUCKET_H
#define CORVIDINE_TOKEN_BUCKET_H

#include <stdint.h>
#include <sys/time.h>
#include <time.h>

#include "corvidine/settings.h"

#ifdef __cplusplus
extern "C" {
#endif

/* (sec_to - sec_from) * 1000000 + usec_to - usec_from */
int64_t vesk_bucket_timedelta(long sec_from, long usec_from, long sec_to, long usec_to);
/* Lazy refill from the time passed since last_check; a full bucket keeps its
 * last_check, and a clock that went back refills nothing. */
void vesk_bucket_update_available(vesk_bucket_t *bucket);
/* Refills, then takes one token: 1 taken, 0 none there. */
int vesk_bucket_consume(vesk_bucket_t *bucket);

/* Internal to the sampling code. */

/* Sets capacity and rate (tokens per microsecond) under the bucket's lock. A
 * never-filled bucket, or one holding more than the new capacity, is set to
 * the capacity; a raised capacity adds nothing at once. */
void _vesk_bucket_set_limits(vesk_bucket_t *bucket, double capacity, double rate_per_usec);

/* The wall clock of the buckets, of the signature window and of settings
 * timestamps. Tests replace it to step time exactly; null restores the real
 * clock. Set it only while no other thread decides. */
typedef void (*vesk_clock_fn)(struct timeval *now);
void _vesk_clock_set(vesk_clock_fn fn);
void _vesk_clock_gettimeofday(struct timeval *now);
time_t _vesk_clock_time(void);

#ifdef __cplusplus
}
#endif

#endif
