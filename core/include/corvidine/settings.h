/*
 * The settings table: one fixed 0x20000-byte block holding up to 124
 * sampling records and 124 per-service (layer) counter entries, plus the
 * process's local configuration record with its three live token buckets.
 *
 * Threads: the table is guarded by a read-write lock (shared for lookups,
 * exclusive for add/update/delete); records never move, so a pointer from a
 * lookup stays usable. Layer counters are changed with atomic adds by request
 * threads and read-and-reset by the metric thread. The local configuration is
 * guarded by its own read-write lock.
 */
#ifndef CORVIDINE_SETTINGS_H
#define CORVIDINE_SETTINGS_H

#include <stddef.h>
#include <stdint.h>
#include <sys/time.h>

#include "corvidine/bson.h"

#ifdef __cplusplus
extern "C" {
#endif

#define VESK_SETTINGS_SIZE 0x20000
#define VESK_SETTINGS_MAGIC 0x7665736B /* "ksev" little-endian */
#define VESK_SETTINGS_VERSION 1
#define VESK_SETTINGS_MAX_RECORDS 124
#define VESK_SETTINGS_MAX_LAYERS 124
#define VESK_SETTINGS_NAME_SIZE 256
#define VESK_SETTINGS_MAX_SAMPLE_RATE 1000000

/* Where the parts of the block lie. */
#define VESK_SETTINGS_HEADER_SIZE 8
#define VESK_SETTINGS_RECORD_SIZE 584
#define VESK_SETTINGS_LAYER_ENTRY_SIZE 296
#define VESK_SETTINGS_RECORDS_OFFSET 8
#define VESK_SETTINGS_LAYERS_OFFSET 72424 /* 8 + 124 * 584 */
#define VESK_SETTINGS_LAYERS_END 109128   /* 72424 + 124 * 296; zero up to the end */

/* Record types */
#define VESK_SETTINGS_TYPE_DELETED 0
#define VESK_SETTINGS_TYPE_DEFAULT_SAMPLE_RATE 2
#define VESK_SETTINGS_TYPE_LAYER_SAMPLE_RATE 3

/* Record flags */
#define VESK_SETTINGS_FLAG_INVALID 0x01
#define VESK_SETTINGS_FLAG_OVERRIDE 0x02
#define VESK_SETTINGS_FLAG_SAMPLE_START 0x04
#define VESK_SETTINGS_FLAG_SAMPLE_THROUGH 0x08
#define VESK_SETTINGS_FLAG_SAMPLE_THROUGH_ALWAYS 0x10
#define VESK_SETTINGS_FLAG_TRIGGER_TRACE 0x20

/* Buckets */
#define VESK_BUCKET_MAIN 0
#define VESK_BUCKET_RELAXED 1
#define VESK_BUCKET_STRICT 2
#define VESK_BUCKET_COUNT 3

typedef struct vesk_settings_header {
    uint32_t magic;
    uint16_t version;
    uint8_t flags;
    uint8_t num_settings;
} vesk_settings_header_t;

typedef struct vesk_settings {
    uint32_t magic;
    uint32_t timestamp;
    uint16_t type;
    uint16_t flags;
    uint32_t value;
    uint32_t ttl;
    uint32_t reserved;
    char layer[VESK_SETTINGS_NAME_SIZE];
    double bucket_capacity[VESK_BUCKET_COUNT];
    double bucket_rate[VESK_BUCKET_COUNT];
    char signature_key[VESK_SETTINGS_NAME_SIZE];
} vesk_settings_t;

typedef struct vesk_settings_layer_entry {
    char name[VESK_SETTINGS_NAME_SIZE];
    uint32_t request_count;
    uint32_t token_bucket_exhaustion_count;
    uint32_t trace_count;
    uint32_t sample_count;
    uint32_t through_count;
    uint32_t through_ignored_count;
    uint32_t triggered_count;
    uint32_t sample_rate;
    uint32_t sample_source;
    uint8_t in_use;
    uint8_t reserved[3];
} vesk_settings_layer_entry_t;

typedef struct vesk_bucket {
    float available; /* -1.0: never filled */
    double capacity;
    double rate_per_usec;
    struct timeval last_check;
} vesk_bucket_t;

typedef struct vesk_settings_cfg {
    int tracing_mode; /* 0 disabled, 1 enabled, -1 unset */
    int sample_rate;  /* -1 unset */
    int trigger_mode; /* 0, 1, -1 unset */
    vesk_settings_t *settings;
    int value;
    uint16_t flags;
    uint32_t timestamp;
    uint32_t no_settings_since;
    vesk_bucket_t bucket[VESK_BUCKET_COUNT];
} vesk_settings_cfg_t;

/* Table base: a private heap block (init_local) or one given from outside. */
extern char *vesk_shm_base;

/* 0 (also when a block is set already), -1 when memory fails. */
int vesk_settings_init_local(void);
/* Uses a block from outside (VESK_SETTINGS_SIZE bytes, 8-byte aligned, header
 * written by its owner); null detaches. An outside block may have other
 * writers, so lookups in it compare names one by one. */
void _vesk_settings_set_shmaddr(void *addr);
int vesk_settings_wr_init(void);
int vesk_settings_get_version(void);
vesk_settings_t *vesk_settings_inspect(uint32_t *magic, uint16_t *version, uint8_t *flags, uint8_t *num);

vesk_settings_t *vesk_settings_get(int type, const char *layer);
/* 0, -1 no table, -2 exists already or no place left. */
int vesk_settings_add(const char *layer, int type, unsigned value, int flags, unsigned timestamp,
                      unsigned ttl, const double capacity[3], const double rate[3], const char *key,
                      int touch_default);
/* 0, or -2 when there is no such record. A null key keeps the old key. */
int vesk_settings_update(const char *layer, int type, unsigned value, int flags, unsigned timestamp,
                         unsigned ttl, const double capacity[3], const double rate[3], const char *key);
/* 0, or -2 when there is no such record. */
int vesk_settings_delete(int type, const char *layer);
vesk_settings_t *vesk_settings_get_layer_sample_rate(const char *layer);
/* 0 ok, -1 flagged invalid, -2 null / bad magic / bad value. */
int vesk_settings_get_value(const vesk_settings_t *record, unsigned *value, uint16_t *flags,
                            unsigned *timestamp);
/* Waits up to wait_ms for a default record; the reporter's server response. */
int vesk_is_ready(unsigned wait_ms);

vesk_settings_layer_entry_t *vesk_settings_entry_layer_get(const char *name);

/* Metrics-message writers: one element per entry in use into the open array
 * `b`, keys numbered from *index on; the seven counts are reset. */
void vesk_settings_append_request_count(vesk_bson_buffer *b, int *index);
void vesk_settings_append_token_bucket_exhaustion_count(vesk_bson_buffer *b, int *index);
void vesk_settings_append_trace_count(vesk_bson_buffer *b, int *index);
void vesk_settings_append_sample_count(vesk_bson_buffer *b, int *index);
void vesk_settings_append_through_count(vesk_bson_buffer *b, int *index);
void vesk_settings_append_through_ignored_count(vesk_bson_buffer *b, int *index);
void vesk_settings_append_triggered_count(vesk_bson_buffer *b, int *index);
void vesk_settings_append_sample_rate(vesk_bson_buffer *b, int *index);
void vesk_settings_append_sample_source(vesk_bson_buffer *b, int *index);

/* Local configuration. */
vesk_settings_cfg_t *vesk_settings_cfg_get(void);
void vesk_settings_cfg_init(vesk_settings_cfg_t *cfg);
void vesk_settings_mode_set(int mode);
void vesk_settings_rate_set(int rate);
void vesk_settings_trigger_set(int trigger);
void vesk_settings_set(int rate, int mode, int trigger);
const char *vesk_tracing_mode_to_string(int mode);

/* Internal to the sampling code. */

/* Empties the table: header rewritten, records and layer entries zeroed. For
 * a fresh start (tests); not for use while other threads decide. */
void _vesk_settings_reset(void);
/* The table's lock in shared mode, for readers that copy several fields of a
 * record as one. 0, or the lock's error number. */
int _vesk_settings_read_lock(void);
void _vesk_settings_read_unlock(void);
/* The local configuration's lock in shared mode. 0, or the error number. */
int _vesk_settings_cfg_read_lock(void);
void _vesk_settings_cfg_read_unlock(void);

#ifdef __cplusplus
}
#endif

#endif
