/*
 * corvidine: the PHP extension's shared declarations — the module record,
 * the per-thread module globals and the helpers every feature folder uses.
 *
 * Module globals are one block per PHP thread (ZTS) or one static block
 * (NTS); always reach them through VESK_G(). Files that use VESK_G() in a
 * ZTS build get the thread-local resource cache through the extern below.
 */
#ifndef PHP_CORVIDINE_H
#define PHP_CORVIDINE_H

#ifdef HAVE_CONFIG_H
#include "config.h"
#endif

#include <stdint.h>

#include "php.h"

#include "corvidine/event.h"

#define PHP_CORVIDINE_EXTNAME "corvidine"
#define PHP_CORVIDINE_VERSION "3.8.3"

/* Size of the buffer the service key is cleaned in at module start. */
#define PHP_VESK_SERVICE_KEY_SIZE 328
/* Room for a transaction name and its terminator. */
#define PHP_VESK_TRANSACTION_NAME_SIZE 256

extern zend_module_entry vesk_module_entry;
#define phpext_corvidine_ptr &vesk_module_entry

/* Request-lifetime and per-thread state. Fields of features that are not
 * built yet (wrappers, profiler, Laravel) join this block with them. */
// clang-format off
ZEND_BEGIN_MODULE_GLOBALS(vesk)
    /* 0 none, 1 prepared by request start, 2 consumed by the next event */
    zend_uchar exit_event_state;
    vesk_event_t exit_event;
    zend_uchar trace_started; /* a trace was started, sampled or not */
    zend_uchar tracing;       /* this request is sampled */
    int32_t wrap_state; /* 0 none; traced 1 or -1; untraced +1 per span family */
    uint32_t wrap_mask; /* active wrap families, bit per family (src/wrap) */
    struct php_vesk_curl_request *curl; /* request heap, src/wrap/curl.c */
    int enable_sanitize_sql;
    /* Bound to the INI entries of the same names (OnUpdateBool). */
    zend_bool enable_error_callback;
    zend_bool report_suppressed_errors;
    zend_bool use_error_reporting;
    int phpredis_batch; /* 1 from a multi or pipeline until its exit event (src/wrap/phpredis.c) */
    int phpredis_flags; /* PHP_VESK_PHPREDIS_IN_BATCH while a batch is open */
    char *env_service_name;     /* process heap, from CORVIDINE_SERVICE_KEY */
    char *ini_service_name;     /* process heap, from corvidine.service_key */
    char *request_service_name; /* request heap */
    char *context_override;     /* request heap */
    char *layer_name;           /* request heap */
    char *pd_keys;              /* request heap */
    zval server_cache;
    zval custom_kvs;
    char transaction_name[PHP_VESK_TRANSACTION_NAME_SIZE];
    char custom_transaction_name[PHP_VESK_TRANSACTION_NAME_SIZE];
    int64_t span_start; /* microseconds, monotonic */
    int do_metrics;
    int profiling_enabled;
    int64_t profiler_interval_us;
    uint64_t profiler_last_tick;               /* tick of the last snapshot; 0: none yet */
    struct vesk_profiler_clock *profiler_clock; /* while this request is sampled */
    vesk_metadata_t profiler_parent_metadata;  /* context after the entry event */
    int enable_laravel_tracing;
    int laravel_state; /* -1 not yet detected, 0 not Laravel, 1 Laravel */
    int laravel_detect_count;
    int laravel_enable_backtrace;
    const struct laravel_version_entry *laravel_version; /* table in use; null until detected */
    struct vesk_laravel_span *laravel_spans;             /* open Laravel spans, process heap */
    struct vesk_laravel_calls *laravel_calls;            /* watched calls begun, process heap */
    int triggered_trace;
ZEND_END_MODULE_GLOBALS(vesk)
// clang-format on

ZEND_EXTERN_MODULE_GLOBALS(vesk)

#define VESK_G(v) ZEND_MODULE_GLOBALS_ACCESSOR(vesk, v)

#if defined(ZTS) && defined(COMPILE_DL_CORVIDINE)
ZEND_TSRMLS_CACHE_EXTERN()
#endif

/* Warnings to the PHP user start with source file, line and function. */
#define PHP_VESK_WARNING(fmt, ...) \
    zend_error(E_WARNING, "%s:%d:%s(): " fmt, __FILE_NAME__, __LINE__, __func__, ##__VA_ARGS__)

#endif
