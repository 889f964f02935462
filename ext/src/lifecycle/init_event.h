/* The one status event a process sends when the module starts. */
#ifndef PHP_VESK_LIFECYCLE_INIT_EVENT_H
#define PHP_VESK_LIFECYCLE_INIT_EVENT_H

/* Builds the "__Init" event on a fresh random identifier and sends it on the
 * status channel. Returns what vesk_event_send returned, or -1 when the
 * event could not be built. */
int php_vesk_send_init_event(void);

#endif
