/*
 * Filters and actions of the version tables (tables.c). One family serves
 * every version; where versions differ, the action asks the traits of the
 * table in use.
 */
#ifndef PHP_VESK_LARAVEL_ACTIONS_H
#define PHP_VESK_LARAVEL_ACTIONS_H

#include <stdint.h>

#include "php.h"

/* What differs between the version tables. */
typedef struct vesk_laravel_traits {
    int32_t version;
    const char *label;            /* LaravelVersion */
    const char *pipeline_closure; /* name of the pipeline's closures */
    int pipeline_base_class;      /* closures of \Pipeline\Pipeline count too */
    int array_listeners;          /* listeners may be given as [class, method] */
} vesk_laravel_traits;

/* Traits of a version id, or null. */
const vesk_laravel_traits *vesk_laravel_traits_of(int32_t version);

#define VESK_LARAVEL_FILTER(name) int _vesk_laravel_filter_##name(zend_execute_data *execute_data)
#define VESK_LARAVEL_ACTION(name) void _vesk_laravel_##name(zend_execute_data *execute_data)

VESK_LARAVEL_FILTER(kernel);
VESK_LARAVEL_FILTER(respond);
VESK_LARAVEL_FILTER(exceptions);
VESK_LARAVEL_FILTER(service_provider_register);
VESK_LARAVEL_FILTER(service_provider_boot);
VESK_LARAVEL_FILTER(controller);
VESK_LARAVEL_FILTER(view);
VESK_LARAVEL_FILTER(middleware);
VESK_LARAVEL_FILTER(middleware_closure);
VESK_LARAVEL_FILTER(event_listener_queued);
VESK_LARAVEL_FILTER(event_listener_synced_1);
VESK_LARAVEL_FILTER(event_listener_synced_2);
VESK_LARAVEL_FILTER(sql_query);
VESK_LARAVEL_FILTER(cache);

VESK_LARAVEL_ACTION(exit_action_bootstrap);
VESK_LARAVEL_ACTION(exit_action_handle);
VESK_LARAVEL_ACTION(entry_action_exceptions);
VESK_LARAVEL_ACTION(entry_action_service_provider_register);
VESK_LARAVEL_ACTION(entry_action_service_provider_boot);
VESK_LARAVEL_ACTION(entry_action_controller);
VESK_LARAVEL_ACTION(entry_action_view);
VESK_LARAVEL_ACTION(entry_action_middleware_handle);
VESK_LARAVEL_ACTION(exit_action_middleware_handle);
VESK_LARAVEL_ACTION(entry_action_middleware_closure);
VESK_LARAVEL_ACTION(exit_action_middleware_closure);
VESK_LARAVEL_ACTION(entry_action_middleware_terminate);
VESK_LARAVEL_ACTION(entry_action_event_listener_queued);
VESK_LARAVEL_ACTION(exit_action_event_listener_synced_1);
VESK_LARAVEL_ACTION(exit_action_event_listener_synced_2);
VESK_LARAVEL_ACTION(entry_action_sql_query);
VESK_LARAVEL_ACTION(entry_action_cache_put);
VESK_LARAVEL_ACTION(entry_action_cache_get);
VESK_LARAVEL_ACTION(entry_action_cache_increment);
VESK_LARAVEL_ACTION(entry_action_cache_decrement);
VESK_LARAVEL_ACTION(entry_action_cache_forget);
VESK_LARAVEL_ACTION(entry_action_cache_flush);

#endif
