/* The event helpers under the name other feature folders include. */
#ifndef PHP_VESK_TRACE_EVENT_H
#define PHP_VESK_TRACE_EVENT_H

#include "src/events/php_vesk_events.h"

#endif
