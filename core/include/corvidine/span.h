/*
 * Spans: what one finished request contributes to the metrics. The extension
 * calls vesk_span / vesk_http_span at request end; they settle the
 * transaction name in the caller's buffer and hand the span to the current
 * reporter, which aggregates it on its own thread.
 *
 * Also here: the monotonic clock used for span durations, and the cleaner of
 * service keys ("token:service"), which start-up runs on the configured key.
 *
 * Threads: called on request threads. The current reporter is read without a
 * lock; the reporter locks inside its limit check.
 */
#ifndef CORVIDINE_SPAN_H
#define CORVIDINE_SPAN_H

#include <stdint.h>

#include "corvidine/reporter.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Longest transaction name, whatever the buffer. */
#define VESK_TRANSACTION_NAME_MAX 255

#define VESK_SPAN_NAME_UNKNOWN "unknown"
#define VESK_SPAN_NAME_OTHER "other"

/* Return codes of vesk_span / vesk_http_span (a length otherwise). */
#define VESK_SPAN_NO_PARAMS (-1)
#define VESK_SPAN_NO_BUFFER (-2)
#define VESK_SPAN_BAD_VERSION (-3)
#define VESK_SPAN_NO_REPORTER (-4)
#define VESK_SPAN_NOT_READY (-5)

typedef struct vesk_span_params {
    int version;             /* 1 or 2 */
    const char *service;     /* service name */
    const char *transaction; /* explicit name; null or empty = none */
    const char *url;         /* request URL or path; null or empty = none */
    const char *domain;      /* prefix of the name; null or empty = none */
    long duration;           /* microseconds */
    int status;              /* HTTP status (vesk_http_span only) */
    const char *method;      /* HTTP method (vesk_http_span only) */
    int has_error;           /* non-zero: the request failed (vesk_http_span only) */
    int do_metrics;          /* read only when version > 1: 0 = name only, send nothing */
} vesk_span_params_t;

/* Both write the transaction name into buffer (NUL-terminated) and return its
 * length, or one of the negative codes above. A buffer of len 0 has no room
 * even for the terminator and is refused like a null one. */
int vesk_span(char *buffer, uint16_t len, const vesk_span_params_t *params);
int vesk_http_span(char *buffer, uint16_t len, const vesk_span_params_t *params);

/* Works out the transaction name into buffer, at most min(len - 1, 255)
 * characters, and returns its length. reporter may be null (no limit check);
 * context is handed to its is_winthin_limit. len 0 writes nothing, returns 0. */
int vesk_span_get_transaction_name(vesk_reporter_t *reporter, void *context, char *buffer, uint16_t len,
                                   const vesk_span_params_t *params);

/* CLOCK_MONOTONIC in microseconds; start and stop are the same reading. */
long vesk_span_start(void);
long vesk_span_stop(void);

/* Cleans the service part of a "token:service" key in place (with no ":",
 * everything but the first character): upper case is lowered, blanks become
 * "-", characters other than [0-9a-z:._-] are removed. Stores the new length.
 * 0 nothing changed, 1 changed, -1 null or empty input. */
int vesk_validate_transform_service_name(char *name, int *length);

#ifdef __cplusplus
}
#endif

#endif
