/*
 * Adding a header line the agent built itself. sapi_header_op() checks a
 * line from PHP code for line breaks, NULs and trailing blanks, and compares
 * its name with the headers it handles specially (Content-Type,
 * Content-Length, Location, WWW-Authenticate, "HTTP/" status lines): more
 * than half the cost of an unsampled request's own work. A line the agent
 * wrote passes every one of those tests by construction, so it goes the
 * rest of sapi_header_op's SAPI_HEADER_ADD path only (php-src 8.2,
 * main/SAPI.c: the headers_sent test, then sapi_header_add_op()).
 */
#include "php_corvidine.h"

#include "SAPI.h"

#include "corvidine/debug_log.h"
#include "corvidine/metadata.h"

#include "src/request/response_header.h"

/* Hands a request-heap line over to the SAPI's header list, or frees it. */
static zend_result php_vesk_add_own_header(char *line, size_t line_len) {
    if (SG(headers_sent) && !SG(request_info).no_headers) {
        /* The response has begun (a warning PHP printed at request start,
         * say): sapi_header_op() would refuse the line with a warning of its
         * own, which the application must not see. */
        VESK_DEBUG_LOG_USAGE(VESK_DEBUG_MODULE_PHP, VESK_DEBUG_INFO, "output began before request start: no %.*s",
                             (int)line_len, line);
        efree(line);
        return FAILURE;
    }
    sapi_header_struct header;
    header.header = line;
    header.header_len = line_len;
    if (!sapi_module.header_handler ||
        (SAPI_HEADER_ADD & sapi_module.header_handler(&header, SAPI_HEADER_ADD, &SG(sapi_headers)))) {
        zend_llist_add_element(&SG(sapi_headers).headers, (void *)&header);
    } else {
        sapi_free_header(&header);
    }
    return SUCCESS;
}

zend_result php_vesk_add_xtrace_header(const vesk_metadata_t *md) {
    static const char name[] = "X-Trace: ";
    const size_t name_len = sizeof(name) - 1;
    /* The identifier is written straight into the line the SAPI keeps. */
    char *line = emalloc(name_len + VESK_MAX_METADATA_STRING_LEN);
    memcpy(line, name, name_len);
    if (vesk_metadata_tostr(md, line + name_len, VESK_MAX_METADATA_STRING_LEN) != 0) {
        efree(line);
        return FAILURE;
    }
    return php_vesk_add_own_header(line, name_len + strnlen(line + name_len, VESK_MAX_METADATA_STRING_LEN - 1));
}
