/* What the interrupt handler and the wrapped long calls share. */
#ifndef PHP_VESK_PROFILER_SAMPLER_H
#define PHP_VESK_PROFILER_SAMPLER_H

#include "php.h"

/* Takes a snapshot with execute_data innermost when a tick is due. Only
 * while this request's clock runs (VESK_G(profiler_clock) set). */
void php_vesk_profiler_sample(zend_execute_data *execute_data);

/* Puts the long-call handlers in place of the originals' (after every
 * module started, before any request) and back (module shutdown). */
void php_vesk_long_calls_wrap(void);
void php_vesk_long_calls_unwrap(void);

#endif
