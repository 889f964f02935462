/* Response headers the request path adds. */
#ifndef PHP_VESK_RESPONSE_HEADER_H
#define PHP_VESK_RESPONSE_HEADER_H

#include "php.h"

#include "corvidine/metadata.h"

/* Adds "X-Trace: <id>" to the response, as sapi_header_op(SAPI_HEADER_ADD)
 * would; an id that cannot be written is left out. FAILURE then, or once the
 * headers are sent. */
zend_result php_vesk_add_xtrace_header(const vesk_metadata_t *md);

#endif
