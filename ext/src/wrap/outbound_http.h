/*
 * What the outbound HTTP wrappers (cURL, HTTP streams) share: the URL they
 * report, and the X-Trace header lines they write and read.
 */
#ifndef PHP_VESK_OUTBOUND_HTTP_H
#define PHP_VESK_OUTBOUND_HTTP_H

#include "php.h"

#include "corvidine/metadata.h"

/* A request-heap copy of url without its credentials; url unchanged (with
 * another reference) when it has none or does not parse. */
zend_string *php_vesk_remote_url(zend_string *url);

/* line is a header line named X-Trace, in any case, up to the separator:
 * ':' (a value, or none), or separator (';' is libcurl's form for an empty
 * value in a request header list). */
int php_vesk_is_xtrace_line(const char *line, size_t length, char separator);

/* 1 when line is a response "X-Trace: <id>" whose id parses and names this
 * thread's trace (sampled too, when sampled_only); the id goes to edge. */
int php_vesk_response_edge(const char *line, size_t length, int sampled_only, vesk_metadata_t *edge);

#endif
