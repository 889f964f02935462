/*
 * Request tracing: one PHP request becomes one trace.
 *
 * Request start caches the server variables, reads X-Trace and
 * X-Trace-Options, applies the transaction settings file, asks the core for
 * a tracing decision and answers the client in response headers. Request end
 * records the span and sends the exit event prepared at start.
 *
 * Threads: everything runs on the request's thread, on its own module
 * globals, except the transaction settings cache, which is process-wide and
 * guarded by its own lock.
 */
#ifndef PHP_VESK_REQUEST_TRACE_H
#define PHP_VESK_REQUEST_TRACE_H

#include <stddef.h>

#include "php.h"

#include "src/events/php_vesk_events.h"

/* Room for a domain and its terminator (vesk_php_get_domain). */
#define PHP_VESK_DOMAIN_SIZE 256
/* 40 digits of task id, "-", "0" or "1", and the terminator. */
#define PHP_VESK_LOG_TRACE_ID_SIZE 43

/* Copies the server variables that tracing reads, plus "PROTOCOL"
 * ("https://" when "HTTPS" exists at all, else "http://"): the values
 * _SERVER holds, though under php-fpm and php-cgi they are read from where
 * PHP would build _SERVER from, without building it. -1 when PHP has no
 * _SERVER at all (the copy is then left as it was), else 0. */
int php_vesk_cache_server_globals(void);

/* Forgets the copy (request end). */
void php_vesk_server_cache_clear(void);

/* A string of the copy, or null when the key is absent or the copy was
 * never made. Later readers of server variables go through this. */
const char *php_vesk_server_str(const char *key, size_t key_len);
#define PHP_VESK_SERVER_STR(key) php_vesk_server_str((key), sizeof(key) - 1)

/* The copy as a new PHP array of strings, key => value. */
void php_vesk_server_cache_array(zval *out);

/* The keys of the copy, for the cheaper lookup by number. */
typedef enum {
    PHP_VESK_SV_HTTP_X_TRACE,
    PHP_VESK_SV_REQUEST_URI,
    PHP_VESK_SV_SCRIPT_NAME,
    PHP_VESK_SV_HTTP_X_FORWARDED_HOST,
    PHP_VESK_SV_HTTP_X_FORWARDED_FOR,
    PHP_VESK_SV_HTTP_HOST,
    PHP_VESK_SV_SERVER_NAME,
    PHP_VESK_SV_SERVER_PORT,
    PHP_VESK_SV_REQUEST_METHOD,
    PHP_VESK_SV_REMOTE_ADDR,
    PHP_VESK_SV_HTTP_X_TRACE_OPTIONS,
    PHP_VESK_SV_HTTP_X_TRACE_OPTIONS_SIGNATURE,
    PHP_VESK_SV_PROTOCOL,
    PHP_VESK_SV_COUNT
} php_vesk_server_id;

/* php_vesk_server_str of the key numbered id, without hashing its name. */
const char *php_vesk_server_value(php_vesk_server_id id);

/* Starts the trace of this request: layer such as "PHP"; xtrace an
 * identifier given by the caller or null; the decision's rate and source go
 * to sample_rate / sample_source (each may be null); kvs (kv_count records,
 * closed by a record of type 0, may be null) are added to the entry event;
 * event_flags are those of php_vesk_trace_event. Returns 0. */
int php_vesk_start_trace(const char *layer, const char *xtrace, int *sample_rate, int *sample_source,
                         const php_vesk_kv *kvs, int kv_count, int event_flags);

/* Adds a response header line ("Name: value", len bytes), unless output has
 * already begun. */
void php_vesk_add_header(const char *line, size_t len);

/* Sends the exit event of a sampled trace (with the caller's records first),
 * clears the context. On an unsampled request only the layer is freed. */
void php_vesk_end_trace(const php_vesk_kv *kvs, int kv_count, int event_flags);

/* Works out the transaction name (into transaction_name) and hands the span
 * to the core. start and stop are from vesk_span_start / vesk_span_stop. */
void php_vesk_record_span(int64_t start, int64_t stop);

/* Whether this request may be traced (1) under corvidine.tracing and the
 * transaction settings file; *mode receives the mode to hand to
 * vesk_settings_mode_set: 1 traced, 0 not, -1 no local opinion, -2 a value
 * corvidine.tracing does not know. */
int php_vesk_transaction_filtering(int *mode);

/* Forgets every cached transaction settings file. Module shutdown only. */
void php_vesk_transaction_settings_destroy(void);

/* The domain of the request into buffer (PHP_VESK_DOMAIN_SIZE bytes): the
 * first non-empty of X-Forwarded-Host, Host, SERVER_NAME shorter than 254
 * bytes, with ":port" appended when it has none and the port is not 80 or
 * 443. 0, or -1 when there is no domain. */
int vesk_php_get_domain(char *buffer);

/* The id for log lines: the context's task id in hex, "-", then "1" when
 * this request is sampled, else "0". A size below PHP_VESK_LOG_TRACE_ID_SIZE
 * drops whole pieces from the end. Always NUL-terminated (size > 0). */
void php_vesk_get_log_trace_id(char *buffer, size_t size);

/* message with " [zq.traceId=<id>]" appended, as corvidine.log_trace_id asks
 * ("enabled" always, "sampled_only" on sampled requests); null when nothing
 * is to be appended or message is null. The caller efree()s the result. */
char *php_vesk_log_append_trace_id(const char *message);

/* Module start: the test-only functions corvidine_test_log_*() when
 * corvidine.internal_test_hooks is on (after the event helpers registered
 * that entry). */
void php_vesk_request_test_hooks_minit(int type);

#endif
