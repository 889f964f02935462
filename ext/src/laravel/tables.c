/*
 * The version tables: what is watched in a Laravel application. Every
 * version has the same 22 registrations in the same order (so `handle`
 * tries the kernel, then middleware, then queued listeners; `terminate` the
 * kernel, then middleware); the traits say what differs.
 *
 * Laravel 8 has every class and method the 6 table watches; on top of 6 it
 * lets listeners be registered as [class, method] arrays.
 */
#include "php_corvidine.h"

#include "src/laravel/actions.h"
#include "src/laravel/registry.h"

static const vesk_laravel_traits vesk_laravel_all_traits[] = {
    {55, "5.5", "Illuminate\\Routing\\{closure}", 0, 0},
    {57, "5.7", "Illuminate\\Routing\\{closure}", 0, 0},
    {58, "5.8", "Illuminate\\Routing\\{closure}", 0, 0},
    {6, "6", "Illuminate\\Pipeline\\{closure}", 1, 0},
    {8, "8", "Illuminate\\Pipeline\\{closure}", 1, 1},
};

const vesk_laravel_traits *vesk_laravel_traits_of(int32_t version) {
    for (size_t i = 0; i < sizeof(vesk_laravel_all_traits) / sizeof(vesk_laravel_all_traits[0]); i++) {
        if (vesk_laravel_all_traits[i].version == version) {
            return &vesk_laravel_all_traits[i];
        }
    }
    return NULL;
}

typedef struct vesk_laravel_row {
    const char *method; /* null: the version's pipeline closure */
    vesk_laravel_filter filter;
    vesk_laravel_action_fn entry_action;
    vesk_laravel_action_fn exit_action;
    const char *span;
} vesk_laravel_row;

#define F(name) _vesk_laravel_filter_##name
#define A(name) _vesk_laravel_##name

static const vesk_laravel_row vesk_laravel_rows[] = {
    {"bootstrap", F(kernel), NULL, A(exit_action_bootstrap), NULL},
    {"handle", F(kernel), NULL, A(exit_action_handle), NULL},
    {"send", F(respond), NULL, NULL, "laravel_respond"},
    {"terminate", F(kernel), NULL, NULL, "laravel_terminate"},
    {"report", F(exceptions), A(entry_action_exceptions), NULL, NULL},
    {"register", F(service_provider_register), A(entry_action_service_provider_register), NULL,
     "laravel_service_provider_register"},
    {"boot", F(service_provider_boot), A(entry_action_service_provider_boot), NULL, "laravel_service_provider_boot"},
    {"callAction", F(controller), A(entry_action_controller), NULL, "laravel_controller_execute"},
    {"view", F(view), A(entry_action_view), NULL, "laravel_view_render"},
    {"handle", F(middleware), A(entry_action_middleware_handle), A(exit_action_middleware_handle), NULL},
    {NULL, F(middleware_closure), A(entry_action_middleware_closure), A(exit_action_middleware_closure), NULL},
    {"terminate", F(middleware), A(entry_action_middleware_terminate), NULL, "laravel_middleware_terminate"},
    {"handle", F(event_listener_queued), A(entry_action_event_listener_queued), NULL, "laravel_event_listener"},
    {"createClassCallable", F(event_listener_synced_1), NULL, A(exit_action_event_listener_synced_1), NULL},
    {"Illuminate\\Events\\{closure}", F(event_listener_synced_2), NULL, A(exit_action_event_listener_synced_2), NULL},
    {"runQueryCallback", F(sql_query), A(entry_action_sql_query), NULL, "laravel_sql"},
    {"put", F(cache), A(entry_action_cache_put), NULL, "laravel_cache"},
    {"get", F(cache), A(entry_action_cache_get), NULL, "laravel_cache"},
    {"increment", F(cache), A(entry_action_cache_increment), NULL, "laravel_cache"},
    {"decrement", F(cache), A(entry_action_cache_decrement), NULL, "laravel_cache"},
    {"forget", F(cache), A(entry_action_cache_forget), NULL, "laravel_cache"},
    {"flush", F(cache), A(entry_action_cache_flush), NULL, "laravel_cache"},
};

static int vesk_laravel_table_startup(int32_t version) {
    const vesk_laravel_traits *traits = vesk_laravel_traits_of(version);
    laravel_version_entry *entry = vesk_laravel_add_version(version);
    if (traits == NULL || entry == NULL) {
        return -1;
    }
    for (size_t i = 0; i < sizeof(vesk_laravel_rows) / sizeof(vesk_laravel_rows[0]); i++) {
        const vesk_laravel_row *row = &vesk_laravel_rows[i];
        const char *method = row->method != NULL ? row->method : traits->pipeline_closure;
        if (vesk_laravel_add_action(entry, method, row->filter, row->entry_action, row->exit_action, row->span) != 0) {
            return -1;
        }
    }
    return 0;
}

int vesk_laravel55_startup(void) { return vesk_laravel_table_startup(55); }
int vesk_laravel57_startup(void) { return vesk_laravel_table_startup(57); }
int vesk_laravel58_startup(void) { return vesk_laravel_table_startup(58); }
int vesk_laravel6_startup(void) { return vesk_laravel_table_startup(6); }
int vesk_laravel8_startup(void) { return vesk_laravel_table_startup(8); }
