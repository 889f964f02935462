/*
 * The reporter interface: one context word and thirteen operations. The core
 * knows only this table; which reporter fills it is chosen by name at start.
 *
 * Every operation receives the reporter's own record (see
 * vesk_reporter_get_context). Operations are called from PHP request threads
 * and must not block on the network.
 */
#ifndef CORVIDINE_REPORTER_H
#define CORVIDINE_REPORTER_H

#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>

#include "corvidine/init_options.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Replies of get_server_response. */
#define VESK_SERVER_RESPONSE_UNKNOWN 0
#define VESK_SERVER_RESPONSE_OK 1
#define VESK_SERVER_RESPONSE_TRY_LATER 2
#define VESK_SERVER_RESPONSE_LIMIT_EXCEEDED 3
#define VESK_SERVER_RESPONSE_INVALID_API_KEY 4
#define VESK_SERVER_RESPONSE_CONNECT_ERROR 5

/* A context word that begins with this magic is a vesk_reporter_extended. */
#define VESK_REPORTER_EXTENDED_MAGIC 0x3FC35EB6ULL

typedef struct vesk_metric_tag {
    const char *key;
    const char *value;
} vesk_metric_tag_t;

typedef struct vesk_reporter {
    void *context;
    int (*event_ready)(void *ctx);
    int (*profiling_ready)(void *ctx);
    int (*status_ready)(void *ctx);
    int (*span_ready)(void *ctx);
    int (*is_winthin_limit)(void *ctx, const char *service, const char *transaction);
    int (*custom_metric_ready)(void *ctx);
    ssize_t (*send)(void *ctx, int channel, const char *data, size_t len);
    int (*send_span)(void *ctx, const char *service, const char *transaction, int64_t duration);
    int (*send_http_span)(void *ctx, const char *service, const char *transaction, int64_t duration,
                          int status, const char *method, int has_error);
    int (*add_custom_metric)(void *ctx, const char *name, double value, int count, int host_tag,
                             const char *service_name, int summary, const vesk_metric_tag_t *tags,
                             size_t tag_count);
    int (*destroy)(void *ctx);
    int (*get_server_response)(void *ctx);
    int (*get_profiling_interval)(void *ctx);
} vesk_reporter_t;

/* What the SSL reporter keeps in the context word. */
typedef struct vesk_reporter_extended {
    uint64_t magic;
    uint16_t version; /* 1 */
    uint16_t size;    /* 32 */
    char *name;
    void *reporter;
} vesk_reporter_extended_t;

/* A reporter's init function: clears and fills the table from the options
 * (null: all defaults). 0, or a code of its own. Runs under the start-up
 * mutex. */
typedef int (*vesk_reporter_init_fn)(vesk_reporter_t *reporter, const vesk_init_options_t *options);

/* A reporter that can be chosen by name. */
typedef struct vesk_reporter_entry {
    const char *name;
    vesk_reporter_init_fn init;
} vesk_reporter_entry_t;

/* The reporters every build has (file, udp, null), ended by an entry with a
 * null name. Owned by reporters/, read by the registry. */
extern const vesk_reporter_entry_t vesk_builtin_reporters[];

/* Adds a reporter that lives outside the built-in table (the Collector
 * reporter, a test reporter); call before the library starts, e.g. at module
 * start. A name that is taken already gets the new init function. 0, or -1
 * when the table is full or an argument is null. */
int vesk_reporter_entry_register(const char *name, vesk_reporter_init_fn init);
/* The entry of that exact name, registered ones first; null when none. */
const vesk_reporter_entry_t *vesk_reporter_entry_find(const char *name);

#ifdef __cplusplus
}
#endif

#endif
