/*
 * The start-up options of the library: filled by the extension from its INI
 * entries, kept as a private copy by the registry, read by reporter init
 * functions. An integer of -1 means "not given": the reader uses its own
 * default.
 */
#ifndef CORVIDINE_INIT_OPTIONS_H
#define CORVIDINE_INIT_OPTIONS_H

#ifdef __cplusplus
extern "C" {
#endif

#define VESK_INIT_OPTIONS_VERSION 7
#define VESK_MISSING_SERVICE_KEY "missing-service-key"
#define VESK_DEFAULT_REPORTER "ssl"

typedef struct vesk_init_options {
    int version;
    const char *hostname_alias;
    int log_level;
    const char *log_file_path;
    int max_transactions;
    int max_flush_wait_time;
    int events_flush_interval;
    int events_flush_batch_size;
    const char *reporter;
    const char *host;
    const char *service_key;
    const char *trusted_path;
    int buffer_size;
    int trace_metrics;
    int histogram_precision;
    int token_bucket_capacity;
    int token_bucket_rate;
    int file_single;
    int ec2_metadata_timeout;
} vesk_init_options_t;

#ifdef __cplusplus
}
#endif

#endif
