/*
 * The tracing decision taken at the start of every request: trace it or not,
 * keep metrics for it or not. It weighs the incoming X-Trace, the local
 * configuration, the settings table, the dice, three token buckets and, for
 * trigger-trace requests, an HMAC-SHA1 signature over the options header.
 *
 * Threads: called from any request thread at once. Layer counters are atomic;
 * the buckets are serialised per bucket; nothing on the ordinary path
 * allocates.
 */
#ifndef CORVIDINE_TRACING_DECISIONS_H
#define CORVIDINE_TRACING_DECISIONS_H

#ifdef __cplusplus
extern "C" {
#endif

typedef struct vesk_tracing_decisions_in {
    int version;                  /* 1 or 2 */
    const char *service_name;     /* may be null */
    const char *in_xtrace;        /* incoming X-Trace, or null */
    int custom_sample_rate;       /* 0 .. 1000000, -1 none */
    int custom_tracing_mode;      /* 0 disabled, 1 enabled, -1 none */
    int custom_trigger_mode;      /* 0 disabled, 1 enabled, -1 none */
    int request_type;             /* 1 trigger-trace request; 0 or -1 otherwise */
    const char *header_options;   /* exact text the signature signs */
    const char *header_signature; /* or null */
    long header_timestamp;        /* seconds since the epoch, from the options */
} vesk_tracing_decisions_in_t;

typedef struct vesk_tracing_decisions_out {
    int version;       /* set by the caller, not touched */
    int sample_rate;   /* -1 until known; 0 on a triggered request */
    int sample_source; /* VESK_SAMPLE_SOURCE_* */
    int do_sample;
    int do_metrics;
    int decision_type; /* 0 ordinary, 1 trigger trace, -1 none */
    int auth_status;   /* VESK_AUTH_* */
    const char *auth_message;
    const char *status_message;
} vesk_tracing_decisions_out_t;

/* Sample sources */
#define VESK_SAMPLE_SOURCE_NONE 0
#define VESK_SAMPLE_SOURCE_LOCAL 1
#define VESK_SAMPLE_SOURCE_UNSET 2
#define VESK_SAMPLE_SOURCE_LAYER 3
#define VESK_SAMPLE_SOURCE_DEFAULT 6
#define VESK_SAMPLE_SOURCE_CUSTOM 7

/* Return codes of vesk_tracing_decisions */
#define VESK_TRACING_DECISIONS_AUTH_FAILED (-5)
#define VESK_TRACING_DECISIONS_RATE_EXCEEDED (-4)
#define VESK_TRACING_DECISIONS_TRIGGER_DISABLED (-3)
#define VESK_TRACING_DECISIONS_TRACING_DISABLED (-2)
#define VESK_TRACING_DECISIONS_XTRACE_NOT_SAMPLED (-1)
#define VESK_TRACING_DECISIONS_OK 0
#define VESK_TRACING_DECISIONS_NULL_OUT 1
#define VESK_TRACING_DECISIONS_NO_CONFIG 2
#define VESK_TRACING_DECISIONS_REPORTER_NOT_READY 3
#define VESK_TRACING_DECISIONS_NO_SETTINGS 4
#define VESK_TRACING_DECISIONS_QUEUE_FULL 5
#define VESK_TRACING_DECISIONS_BAD_ARG 6

/* Auth status */
#define VESK_AUTH_NOT_CHECKED (-2)
#define VESK_AUTH_NO_SIGNATURE (-1)
#define VESK_AUTH_OK 0
#define VESK_AUTH_NO_SIGNATURE_KEY 1
#define VESK_AUTH_BAD_SIGNATURE 2
#define VESK_AUTH_BAD_TIMESTAMP 3

/* Accepted distance of header_timestamp from now, seconds, inclusive. */
#define VESK_SIGNATURE_WINDOW 300

int vesk_tracing_decisions(const vesk_tracing_decisions_in_t *in, vesk_tracing_decisions_out_t *out);
/* Static texts of the return codes and of the auth status. */
const char *vesk_get_tracing_decisions_message(int code);
const char *vesk_get_tracing_decisions_auth_message(int code);

#ifdef __cplusplus
}
#endif

#endif
