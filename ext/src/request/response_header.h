/* Response headers the request path adds. */
#ifndef PHP_VESK_RESPONSE_HEADER_H
#define PHP_VESK_RESPONSE_HEADER_H

#include "php.h"

/* Adds a header line that the agent built itself ("Name: value", no line
 * breaks, no NUL, no trailing blanks, not one of the headers the SAPI layer
 * treats specially), as sapi_header_op(SAPI_HEADER_ADD) would. FAILURE once
 * the headers are sent. */
zend_result php_vesk_add_own_header(const char *line, size_t line_len);

#endif
