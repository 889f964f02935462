/*
 * Module start and shutdown: what the process does once, and what other
 * features ask about the process.
 */
#ifndef PHP_VESK_LIFECYCLE_MODULE_H
#define PHP_VESK_LIFECYCLE_MODULE_H

#include <time.h>

#include "php.h"

/* How far module start went; shutdown and phpinfo() follow it. */
typedef enum {
    PHP_VESK_NOT_STARTED = 0,
    PHP_VESK_CLI_OFF,        /* INI entries only */
    PHP_VESK_CONFIG_INVALID, /* INI entries only, after the warning */
    PHP_VESK_STARTED,        /* core, reporter, hooks */
} php_vesk_module_state;

php_vesk_module_state php_vesk_module_state_get(void);

zend_result php_vesk_module_startup(int type, int module_number);
zend_result php_vesk_module_shutdown(int type, int module_number);

/* Change time of the server's process entry: of the parent when it runs the
 * same command line (a forked worker reports when its master started), else
 * of this process. 0 when it cannot be read. */
time_t php_vesk_get_restart_timestamp(void);

/* The service name in force: this request's, then the environment's, then
 * the INI key's, else "default". */
const char *php_vesk_get_service_name(void);

/* Whether PHP has loaded the module of that name (case-insensitive). */
int vesk_check_module_exists(const char *name);

#endif
