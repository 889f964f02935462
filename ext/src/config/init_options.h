/*
 * The start-up options of the core, taken from the INI entries and the
 * CORVIDINE_* environment variables. Read once, at module start; an
 * environment value always beats the INI value of the same option.
 */
#ifndef PHP_VESK_CONFIG_INIT_OPTIONS_H
#define PHP_VESK_CONFIG_INIT_OPTIONS_H

#include <stddef.h>

#include "corvidine/startup.h"

/* Fills `options` (defaults first) and the service-key buffer it points
 * into. Also sets the ini_service_name / env_service_name globals of this
 * thread from what follows the first ":" of each key. The strings the
 * options point at live in the environment, the INI values or the buffer:
 * they outlive the vesk_init() call that follows. Returns 0. */
int vesk_set_init_options(char *service_key_buffer, size_t buffer_size, vesk_init_options_t *options);

/* Value of a digit-led variable: used only when its first character is a
 * decimal digit, then read in base 10 (capped at INT_MAX). Returns 1 and
 * stores it, or 0 and leaves *out alone. */
int php_vesk_digit_led(const char *value, int *out);

#endif
