/* The extension's phpinfo() section. */
#ifndef PHP_VESK_LIFECYCLE_INFO_H
#define PHP_VESK_LIFECYCLE_INFO_H

#include "php.h"

void php_vesk_info(zend_module_entry *zend_module);

#endif
