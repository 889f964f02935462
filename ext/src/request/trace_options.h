/* The X-Trace-Options request header: what it asks for, and the answer. */
#ifndef PHP_VESK_REQUEST_TRACE_OPTIONS_H
#define PHP_VESK_REQUEST_TRACE_OPTIONS_H

#include "php.h"
#include "zend_smart_str.h"

#include "corvidine/tracing_decisions.h"

typedef struct php_vesk_trace_options {
    int request_type;     /* 1 when "trigger-trace" came without a value */
    long timestamp;       /* "ts", 0 if none */
    smart_str ignored;    /* keys not understood, joined by "," */
} php_vesk_trace_options;

/* Walks the ";"-separated entries of header. Sets pd_keys (request heap) and
 * adds the "custom-" entries to custom_kvs. Free options with
 * php_vesk_trace_options_free. */
void php_vesk_trace_options_parse(const char *header, php_vesk_trace_options *options);
void php_vesk_trace_options_free(php_vesk_trace_options *options);

/* Sends "X-Trace-Options-Response" for the decision (rc its return value)
 * unless the SAPI is "cli". */
void php_vesk_trace_options_respond(const php_vesk_trace_options *options, int rc,
                                    const vesk_tracing_decisions_out_t *out);

#endif
