/*
 * PHP error capture: a PHP error becomes an "error" event of the running
 * trace, and reaches PHP's own handling with the log trace id appended when
 * corvidine.log_trace_id asks for it.
 *
 * Threads: the hook is installed and removed at module start and shutdown;
 * it runs on the thread that raised the error.
 */
#ifndef PHP_VESK_ERRORS_H
#define PHP_VESK_ERRORS_H

#include <stddef.h>

#include "php.h"

/* Size of the buffers the error-type readers below are given. */
#define PHP_VESK_ERROR_NAME_SIZE 25

/* For an error type (E_DONT_BAIL masked off): "ERROR", "WARNING", ...
 * ("UNKNOWN"); "E_ERROR", "E_WARNING", ... ("UNKNOWN"); the level 2-6 (0). */
void php_vesk_get_errorclass(int type, char *buffer, size_t size);
void php_vesk_get_errorstr(int type, char *buffer, size_t size);
int php_vesk_get_severity(int type);
/* The label PHP prints: "Fatal error", "Warning", ... ("Unknown error"). */
const char *php_vesk_get_errorlabel(int type);

/* Module start (corvidine.enable_error_callback on) / shutdown. */
void php_vesk_errors_minit(void);
void php_vesk_errors_mshutdown(void);

#endif
