/* Request start and end: the per-request part of the module's life. */
#ifndef PHP_VESK_LIFECYCLE_REQUEST_H
#define PHP_VESK_LIFECYCLE_REQUEST_H

#include "php.h"

zend_result php_vesk_request_startup(void);
zend_result php_vesk_request_shutdown(void);

/* 1 when the request callbacks stand still: CLI with corvidine.enable_cli
 * off, corvidine.enable off, or a module start that stopped early. */
int php_vesk_request_inactive(void);

/* 1 from the start of a request whose callbacks run until its end: the
 * user API has a request to drive only then. */
int php_vesk_request_is_active(void);

/* The per-trace state a new trace starts from: at request start, and when
 * PHP code starts a trace of its own (corvidine_start_trace). */
void php_vesk_request_trace_reset(void);

#endif
