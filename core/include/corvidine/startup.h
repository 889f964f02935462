/*
 * Library start-up and the registry of the current reporter.
 *
 * The library starts once per process, and again in a forked child at its
 * first use: a child notices the changed process id and rebuilds the
 * reporter from the options kept at the last start.
 *
 * Threads: vesk_init_reporter is serialised by one start-up mutex; the send
 * path reads the current reporter without a lock.
 */
#ifndef CORVIDINE_STARTUP_H
#define CORVIDINE_STARTUP_H

#include <stddef.h>
#include <stdint.h>
#include <sys/time.h>
#include <sys/types.h>

#include "corvidine/init_options.h"
#include "corvidine/reporter.h"

#ifdef __cplusplus
extern "C" {
#endif

#define VESK_HOSTNAME_SIZE 65

typedef struct vesk_internal_stats {
    uint32_t version;
    uint32_t reporters_initialized;
    uint32_t event_queue_free;
    uint32_t collector_response_ok;
    uint32_t collector_response_try_later;
    uint32_t collector_response_limit_exceeded;
} vesk_internal_stats_t;

/* Raw-send codes */
#define VESK_SEND_NO_REPORTER (-100)
#define VESK_SEND_MISSING_PARAMETERS (-101)
#define VESK_SEND_REPORTER_NOT_INITIALIZED (-102)

/* 1 when options->version < 7; else vesk_init_reporter(NULL, options). */
int vesk_init(const vesk_init_options_t *options);
/* vesk_init(NULL) unless the one-time set-up has run. */
void vesk_ensure_init(void);
/* 1 when version < 7; else every field but version gets its default. */
int vesk_init_options_set_defaults(vesk_init_options_t *options);
/* 0 ok, 2 unknown name, -1 this process has its reporter already, else the
 * reporter's init result. */
int vesk_init_reporter(const char *protocol, const vesk_init_options_t *options);
/* The current reporter, rebuilt first when none or made in another process. */
vesk_reporter_t *vesk_reporter_get(void);
/* 0 ready, 3 no reporter, 5 no room for events. null = current. */
int vesk_reporter_is_ready(vesk_reporter_t *reporter);
/* Hands bytes to the current reporter: its result, or -100 / -102. */
int vesk_raw_send(int channel, const char *data, size_t len);
/* Destroys the reporter (flushing it) and frees the kept options. */
int vesk_shutdown(void);

/* For reporter init functions. */
void _vesk_reporter_register(vesk_reporter_t *reporter);
int _vesk_destroy_reporter(vesk_reporter_t *reporter);
void *vesk_reporter_get_context(vesk_reporter_t *reporter);
vesk_reporter_extended_t *vesk_reporter_get_extended(vesk_reporter_t *reporter);

/* The options kept by the last start (a private deep copy), or null. */
const vesk_init_options_t *vesk_init_options_get(void);
/* The process the current reporter was made in; 0 before start or after shutdown. */
pid_t vesk_reporter_pid(void);
/* This process's id, cached; a fork makes the child ask again. Any thread. */
pid_t vesk_current_pid(void);
/* Host name taken at start, "?" when none. */
const char *vesk_hostname_get(void);

int vesk_get_profiling_interval(void);

vesk_internal_stats_t *vesk_get_internal_stats(void);
void vesk_internal_stats_reporters_initialized_inc(void);
void vesk_internal_stats_reporters_initialized_dec(void);
void vesk_internal_stats_set_event_queue_free(uint32_t value);
void vesk_internal_stats_collector_response_ok(void);
void vesk_internal_stats_collector_response_try_later(void);
void vesk_internal_stats_collector_response_limit_exceeded(void);

/* "7.0.1"; 7; 0; 1 when the library is at least version.revision. */
const char *vesk_config_get_version_string(void);
int vesk_config_get_version(void);
int vesk_config_get_revision(void);
int vesk_config_check_version(int version, int revision);

int vesk_gettimeofday(struct timeval *tv);

#ifdef __cplusplus
}
#endif

#endif
