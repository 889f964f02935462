/*
 * The extension's INI entries and the ways they are read.
 *
 * All but three entries have no modify handler: their values are read by
 * name when needed, so a per-directory or ini_set() value is seen at once.
 * On/off entries count as on when the low byte of their integer value is 1.
 */
#ifndef PHP_VESK_CONFIG_INI_H
#define PHP_VESK_CONFIG_INI_H

#include "php.h"

/* Registers / unregisters the 40 entries for the module. */
zend_result php_vesk_ini_register(int type, int module_number);
void php_vesk_ini_unregister(int type, int module_number);

/* Integer value of an entry (0 when it does not exist). */
#define VESK_INI_LONG(name) zend_ini_long((name), sizeof(name) - 1, 0)
/* On/off entry: 1 when the low byte of its integer value is 1. */
#define VESK_INI_ON(name) ((VESK_INI_LONG(name) & 0xFF) == 1)
/* Off only when the low byte of its integer value is 0 (2 and -1 are on, 256
 * is off): how corvidine.enable and corvidine.enable_cli are read. */
#define VESK_INI_OFF(name) ((VESK_INI_LONG(name) & 0xFF) == 0)
/* String value of an entry; never null ("" when unset). */
#define VESK_INI_STR(name) php_vesk_ini_str((name), sizeof(name) - 1)

const char *php_vesk_ini_str(const char *name, size_t len);

/* 1 under the "cli" SAPI while corvidine.enable_cli is off: the module then
 * registers its INI entries and does nothing else. */
int php_vesk_cli_off(void);

/* 0 when corvidine.tracing holds an accepted value ("", "enabled", "always",
 * "disabled", "never"); otherwise warns and returns -1. */
int php_vesk_config_valid(void);

#endif
