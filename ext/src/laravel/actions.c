/*
 * Filters and actions of the version tables. "Class" is the class of the
 * frame's object, else of the function's scope; the previous frame is the
 * caller's. Every event goes through vesk_laravel_trace_event; entry events
 * carry a backtrace when corvidine.laravel_enable_backtrace is on. A value
 * that cannot be found (or a call back into PHP that fails or answers with
 * another type) leaves its key out.
 */
#include "php_corvidine.h"

#include "zend_smart_str.h"

#include "src/laravel/actions.h"
#include "src/laravel/helpers.h"
#include "src/laravel/registry.h"
#include "src/laravel/span_stack.h"

#define KV_STR(key, value) {PHP_VESK_KV_STRING, (key), (value), 0}
#define KV_END {PHP_VESK_KV_END, NULL, NULL, 0}

static const vesk_laravel_traits *vesk_laravel_current_traits(void) {
    const laravel_version_entry *version = VESK_G(laravel_version);
    return version != NULL ? vesk_laravel_traits_of(version->version) : NULL;
}

static void vesk_laravel_entry(const char *span, const php_vesk_kv *records) {
    vesk_laravel_trace_event(span, "entry", records, VESK_G(laravel_enable_backtrace));
}

static const char *vesk_laravel_str(zval *value) {
    return value != NULL && Z_TYPE_P(value) == IS_STRING ? Z_STRVAL_P(value) : NULL;
}

static zval *vesk_laravel_this(zend_execute_data *execute_data) {
    return Z_TYPE(execute_data->This) == IS_OBJECT ? &execute_data->This : NULL;
}

static const char *vesk_laravel_this_class(zend_execute_data *execute_data) {
    return Z_TYPE(execute_data->This) == IS_OBJECT ? ZSTR_VAL(Z_OBJCE(execute_data->This)->name) : NULL;
}

static void vesk_laravel_set_transaction_name(const char *name) {
    size_t length = strnlen(name, sizeof(VESK_G(transaction_name)) - 1);
    memcpy(VESK_G(transaction_name), name, length);
    VESK_G(transaction_name)[length] = '\0';
}

/* ---- filters ---------------------------------------------------------- */

VESK_LARAVEL_FILTER(kernel) {
    return vesk_laravel_is_class_of(execute_data, "\\Http\\Kernel") ||
           vesk_laravel_is_class_of(execute_data, "\\Console\\Kernel");
}

VESK_LARAVEL_FILTER(respond) {
    return vesk_laravel_is_class_of(execute_data, "\\Http\\Response");
}

VESK_LARAVEL_FILTER(exceptions) {
    zend_class_entry *scope = execute_data->func->common.scope;
    return scope != NULL && (zend_string_equals_literal(scope->name, "Illuminate\\Foundation\\Exceptions\\Handler") ||
                             zend_string_equals_literal(scope->name, "Halvardsen\\Exceptions\\ExceptionHandler"));
}

/* A provider named by a string is autoloaded here, as PHP's is_subclass_of
 * would, but only when the variable is called provider: the first variable
 * of other register() methods (EngineResolver::register("php", ...)) is no
 * class name, and asking every autoloader for it costs more than the rest
 * of the dispatcher together. */
VESK_LARAVEL_FILTER(service_provider_register) {
    zval *named = vesk_laravel_find_named_var(execute_data, "provider");
    return vesk_laravel_is_subclass_of(named != NULL ? named : vesk_laravel_find_var(execute_data, "provider", 0),
                                       "Illuminate\\Support\\ServiceProvider", named != NULL);
}

VESK_LARAVEL_FILTER(service_provider_boot) {
    return vesk_laravel_is_subclass_of(vesk_laravel_this(execute_data), "Illuminate\\Support\\ServiceProvider", 0);
}

VESK_LARAVEL_FILTER(controller) {
    return vesk_laravel_is_subclass_of(vesk_laravel_this(execute_data), "Illuminate\\Routing\\Controller", 0);
}

VESK_LARAVEL_FILTER(view) {
    const zend_function *func = execute_data->func;
    return func->common.scope == NULL && ZEND_USER_CODE(func->type) && func->op_array.filename != NULL &&
           strstr(ZSTR_VAL(func->op_array.filename), "Foundation/helpers.php") != NULL;
}

VESK_LARAVEL_FILTER(middleware) {
    return vesk_laravel_class_contains(execute_data, "Middleware");
}

VESK_LARAVEL_FILTER(middleware_closure) {
    const vesk_laravel_traits *traits = vesk_laravel_current_traits();
    if (!vesk_laravel_is_class_of(execute_data, "\\Routing\\Pipeline") &&
        !(traits != NULL && traits->pipeline_base_class &&
          vesk_laravel_is_class_of(execute_data, "\\Pipeline\\Pipeline"))) {
        return 0;
    }
    zend_execute_data *previous = execute_data->prev_execute_data;
    const char *method = vesk_laravel_get_method(previous);
    return method != NULL && strcmp(method, "handle") == 0 && vesk_laravel_class_contains(previous, "Middleware");
}

VESK_LARAVEL_FILTER(event_listener_queued) {
    return vesk_laravel_is_class_of(execute_data, "\\Events\\CallQueuedListener");
}

VESK_LARAVEL_FILTER(event_listener_synced_1) {
    return vesk_laravel_is_class_of(execute_data, "\\Events\\Dispatcher") &&
           vesk_laravel_string_ends_with(vesk_laravel_get_method(execute_data->prev_execute_data),
                                         "\\Events\\{closure}");
}

VESK_LARAVEL_FILTER(event_listener_synced_2) {
    const char *method = vesk_laravel_get_method(execute_data->prev_execute_data);
    return vesk_laravel_is_class_of(execute_data, "\\Events\\Dispatcher") && method != NULL &&
           strcmp(method, "dispatch") == 0;
}

VESK_LARAVEL_FILTER(sql_query) {
    return vesk_laravel_is_subclass_of(vesk_laravel_this(execute_data), "Illuminate\\Database\\Connection", 0);
}

VESK_LARAVEL_FILTER(cache) {
    return vesk_laravel_class_implements(vesk_laravel_this(execute_data), "Illuminate\\Contracts\\Cache\\Store");
}

/* ---- kernel ----------------------------------------------------------- */

VESK_LARAVEL_ACTION(exit_action_bootstrap) {
    const vesk_laravel_traits *traits = vesk_laravel_current_traits();
    php_vesk_kv records[] = {
        KV_STR("LaravelVersion", traits != NULL ? traits->label : NULL),
        KV_STR("LaravelRequestType", vesk_laravel_is_class_of(execute_data, "\\Http\\Kernel") ? "Http" : "Console"),
        KV_END,
    };
    vesk_laravel_trace_event("laravel_bootstrap", "exit", records, 0);
    vesk_laravel_entry("laravel_handle", NULL);
}

VESK_LARAVEL_ACTION(exit_action_handle) {
    if (vesk_laravel_is_class_of(execute_data, "\\Console\\Kernel")) {
        char name[PHP_VESK_TRANSACTION_NAME_SIZE] = "artisan";
        zval argument;
        if (vesk_laravel_call_user_function(vesk_laravel_find_var(execute_data, "input", 0), "getFirstArgument",
                                            &argument, 0) == SUCCESS &&
            Z_TYPE(argument) == IS_STRING) {
            snprintf(name, sizeof(name), "artisan-%s", Z_STRVAL(argument));
        }
        zval_ptr_dtor(&argument);
        vesk_laravel_set_transaction_name(name);
    }
    vesk_laravel_trace_event("laravel_handle", "exit", NULL, 0);
}

/* ---- controller, view, service providers ------------------------------- */

VESK_LARAVEL_ACTION(entry_action_controller) {
    const char *class_name = vesk_laravel_this_class(execute_data);
    const char *method = vesk_laravel_str(vesk_laravel_find_var(execute_data, "method", 0));
    char name[PHP_VESK_TRANSACTION_NAME_SIZE];
    snprintf(name, sizeof(name), "%s%s%s", class_name != NULL ? class_name : "", method != NULL ? "." : "",
             method != NULL ? method : "");
    vesk_laravel_set_transaction_name(name);
    php_vesk_kv records[] = {KV_STR("Controller", class_name), KV_STR("Action", method), KV_END};
    vesk_laravel_entry("laravel_controller_execute", records);
}

VESK_LARAVEL_ACTION(entry_action_view) {
    php_vesk_kv records[] = {KV_STR("View", vesk_laravel_str(vesk_laravel_find_var(execute_data, "view", 0))),
                             KV_END};
    vesk_laravel_entry("laravel_view_render", records);
}

VESK_LARAVEL_ACTION(entry_action_service_provider_boot) {
    php_vesk_kv records[] = {KV_STR("ServiceProvider", vesk_laravel_this_class(execute_data)), KV_END};
    vesk_laravel_entry("laravel_service_provider_boot", records);
}

VESK_LARAVEL_ACTION(entry_action_service_provider_register) {
    zval *provider = vesk_laravel_find_var(execute_data, "provider", 0);
    const char *name = NULL;
    if (provider != NULL && Z_TYPE_P(provider) == IS_OBJECT) {
        name = ZSTR_VAL(Z_OBJCE_P(provider)->name);
    } else {
        name = vesk_laravel_str(provider);
    }
    php_vesk_kv records[] = {KV_STR("ServiceProvider", name), KV_END};
    vesk_laravel_entry("laravel_service_provider_register", records);
}

/* ---- middleware: a before span up to the call of the next one, an after
 * span from its return ------------------------------------------------------ */

VESK_LARAVEL_ACTION(entry_action_middleware_handle) {
    php_vesk_kv records[] = {KV_STR("Middleware", vesk_laravel_get_class(execute_data)), KV_END};
    vesk_laravel_entry("laravel_middleware_before", records);
}

VESK_LARAVEL_ACTION(entry_action_middleware_closure) {
    (void)execute_data;
    vesk_laravel_trace_event("laravel_middleware_before", "exit", NULL, 0);
}

VESK_LARAVEL_ACTION(exit_action_middleware_closure) {
    php_vesk_kv records[] = {KV_STR("Middleware", vesk_laravel_get_class(execute_data->prev_execute_data)), KV_END};
    vesk_laravel_entry("laravel_middleware_after", records);
}

VESK_LARAVEL_ACTION(exit_action_middleware_handle) {
    (void)execute_data;
    vesk_laravel_trace_event("laravel_middleware_after", "exit", NULL, 0);
}

VESK_LARAVEL_ACTION(entry_action_middleware_terminate) {
    php_vesk_kv records[] = {KV_STR("Middleware", vesk_laravel_get_class(execute_data)), KV_END};
    vesk_laravel_entry("laravel_middleware_terminate", records);
}

/* ---- event listeners ---------------------------------------------------- */

VESK_LARAVEL_ACTION(entry_action_event_listener_queued) {
    smart_str events = {0};
    zval *this_ = vesk_laravel_this(execute_data);
    zval *data = this_ != NULL ? vesk_laravel_find(Z_OBJPROP_P(this_), "data") : NULL;
    if (data != NULL && Z_TYPE_P(data) == IS_ARRAY) {
        zval *item;
        ZEND_HASH_FOREACH_VAL_IND(Z_ARRVAL_P(data), item) {
            ZVAL_DEREF(item);
            if (Z_TYPE_P(item) == IS_OBJECT) {
                if (events.s != NULL) {
                    smart_str_appendc(&events, ',');
                }
                smart_str_append(&events, Z_OBJCE_P(item)->name);
            }
        }
        ZEND_HASH_FOREACH_END();
    }
    smart_str_0(&events);
    int32_t queued = 1;
    php_vesk_kv records[] = {
        KV_STR("Listener", vesk_laravel_property_str(execute_data, "class")),
        KV_STR("Handle", vesk_laravel_property_str(execute_data, "method")),
        KV_STR("Events", events.s != NULL ? ZSTR_VAL(events.s) : NULL),
        {PHP_VESK_KV_INT, "Queued", &queued, 4},
        KV_END,
    };
    vesk_laravel_entry("laravel_event_listener", records);
    smart_str_free(&events);
}

/* The class and method of a synchronous listener, and whether it is not
 * queued; parsed holds what class and method point into (release it). */
static int vesk_laravel_synced_listener(zend_execute_data *execute_data, zval *listener, zval *parsed,
                                        const char **class_name, const char **method) {
    const vesk_laravel_traits *traits = vesk_laravel_current_traits();
    *class_name = *method = NULL;
    ZVAL_UNDEF(parsed);
    if (listener == NULL) {
        return 0;
    }
    if (Z_TYPE_P(listener) == IS_STRING) {
        vesk_laravel_call_user_function(&execute_data->This, "parseClassCallable", parsed, 1, listener);
    } else if (Z_TYPE_P(listener) == IS_ARRAY && traits != NULL && traits->array_listeners) {
        ZVAL_COPY(parsed, listener);
    }
    if (Z_TYPE_P(parsed) == IS_ARRAY) {
        zval *item;
        ZEND_HASH_FOREACH_VAL(Z_ARRVAL_P(parsed), item) {
            ZVAL_DEREF(item);
            if (Z_TYPE_P(item) != IS_STRING) {
                continue;
            }
            if (*class_name == NULL) {
                *class_name = Z_STRVAL_P(item);
            } else {
                *method = Z_STRVAL_P(item);
                break;
            }
        }
        ZEND_HASH_FOREACH_END();
    }
    if (*class_name == NULL) {
        return 0;
    }
    zval class_value, queued;
    ZVAL_STRING(&class_value, *class_name);
    zend_result rc = vesk_laravel_call_user_function(&execute_data->This, "handlerShouldBeQueued", &queued, 1,
                                                     &class_value);
    zval_ptr_dtor(&class_value);
    int synced = rc == SUCCESS && Z_TYPE(queued) == IS_FALSE;
    zval_ptr_dtor(&queued);
    return synced;
}

VESK_LARAVEL_ACTION(exit_action_event_listener_synced_1) {
    zend_execute_data *previous = execute_data->prev_execute_data;
    if (previous == NULL || previous->func == NULL || Z_TYPE(execute_data->This) != IS_OBJECT) {
        return;
    }
    zval parsed;
    const char *class_name, *method;
    if (vesk_laravel_synced_listener(execute_data, vesk_laravel_find_var(previous, "listener", 2), &parsed,
                                     &class_name, &method)) {
        int32_t queued = 0;
        php_vesk_kv records[] = {
            KV_STR("Listener", class_name),
            KV_STR("Handle", method),
            KV_STR("Events", vesk_laravel_str(vesk_laravel_find_var(previous, "event", 0))),
            {PHP_VESK_KV_INT, "Queued", &queued, 4},
            KV_END,
        };
        vesk_laravel_entry("laravel_event_listener", records);
    }
    zval_ptr_dtor(&parsed);
}

VESK_LARAVEL_ACTION(exit_action_event_listener_synced_2) {
    if (execute_data->prev_execute_data == NULL || Z_TYPE(execute_data->This) != IS_OBJECT) {
        return;
    }
    zval parsed;
    const char *class_name, *method;
    if (vesk_laravel_synced_listener(execute_data, vesk_laravel_find_var(execute_data, "listener", 2), &parsed,
                                     &class_name, &method)) {
        vesk_laravel_trace_event("laravel_event_listener", "exit", NULL, 0);
    }
    zval_ptr_dtor(&parsed);
}

/* ---- SQL ---------------------------------------------------------------- */

VESK_LARAVEL_ACTION(entry_action_sql_query) {
    zval *this_ = vesk_laravel_this(execute_data);
    zval config, database;
    const char *flavor = NULL, *host = NULL;
    if (vesk_laravel_call_user_function(this_, "getConfig", &config, 0) == SUCCESS && Z_TYPE(config) == IS_ARRAY) {
        flavor = vesk_laravel_str(vesk_laravel_find(Z_ARRVAL(config), "name"));
        host = vesk_laravel_str(vesk_laravel_find(Z_ARRVAL(config), "host"));
    }
    vesk_laravel_call_user_function(this_, "getDatabaseName", &database, 0);
    php_vesk_kv records[] = {
        KV_STR("Spec", "query"),
        KV_STR("Flavor", flavor),
        KV_STR("Query", vesk_laravel_str(vesk_laravel_find_var(execute_data, "query", 0))),
        KV_STR("Database", vesk_laravel_str(&database)),
        KV_STR("RemoteHost", host),
        KV_END,
    };
    vesk_laravel_entry("laravel_sql", records);
    zval_ptr_dtor(&config);
    zval_ptr_dtor(&database);
}

/* ---- cache -------------------------------------------------------------- */

/* Calls method on *value (an object) and puts the result in its place; 0
 * when the result is an object, so that chains can go on. */
static int vesk_laravel_chain(zval *value, const char *method) {
    zval result;
    if (Z_TYPE_P(value) != IS_OBJECT) {
        return -1;
    }
    vesk_laravel_call_user_function(value, method, &result, 0);
    zval_ptr_dtor(value);
    ZVAL_COPY_VALUE(value, &result);
    return Z_TYPE_P(value) == IS_OBJECT ? 0 : -1;
}

/* Host of a RedisStore: connection()->client()->getConnection()
 * ->getParameters()->__get("host"). held keeps what host points into. */
static const char *vesk_laravel_redis_host(zval *store, zval *held) {
    ZVAL_COPY(held, store);
    if (vesk_laravel_chain(held, "connection") != 0 || vesk_laravel_chain(held, "client") != 0 ||
        vesk_laravel_chain(held, "getConnection") != 0 || vesk_laravel_chain(held, "getParameters") != 0) {
        return NULL;
    }
    zval name, host;
    ZVAL_STRING(&name, "host");
    vesk_laravel_call_user_function(held, "__get", &host, 1, &name);
    zval_ptr_dtor(&name);
    zval_ptr_dtor(held);
    ZVAL_COPY_VALUE(held, &host);
    return vesk_laravel_str(held);
}

/* Host of a MemcachedStore: of getMemcached()->getServerList(), the host of
 * the first server that has a string host. */
static const char *vesk_laravel_memcached_host(zval *store, zval *held) {
    ZVAL_COPY(held, store);
    if (vesk_laravel_chain(held, "getMemcached") != 0) {
        return NULL;
    }
    zval list;
    vesk_laravel_call_user_function(held, "getServerList", &list, 0);
    zval_ptr_dtor(held);
    ZVAL_COPY_VALUE(held, &list);
    if (Z_TYPE_P(held) != IS_ARRAY) {
        return NULL;
    }
    zval *server;
    ZEND_HASH_FOREACH_VAL(Z_ARRVAL_P(held), server) {
        ZVAL_DEREF(server);
        if (Z_TYPE_P(server) == IS_ARRAY) {
            const char *host = vesk_laravel_str(vesk_laravel_find(Z_ARRVAL_P(server), "host"));
            if (host != NULL) {
                return host;
            }
        }
    }
    ZEND_HASH_FOREACH_END();
    return NULL;
}

/* Host of a DatabaseStore: getConnection()->getConfig()["host"]. */
static const char *vesk_laravel_database_host(zval *store, zval *held) {
    ZVAL_COPY(held, store);
    if (vesk_laravel_chain(held, "getConnection") != 0) {
        return NULL;
    }
    zval config;
    vesk_laravel_call_user_function(held, "getConfig", &config, 0);
    zval_ptr_dtor(held);
    ZVAL_COPY_VALUE(held, &config);
    return Z_TYPE_P(held) == IS_ARRAY ? vesk_laravel_str(vesk_laravel_find(Z_ARRVAL_P(held), "host")) : NULL;
}

static void vesk_laravel_cache(zend_execute_data *execute_data, const char *operation) {
    static const struct {
        const char *suffix;
        const char *flavor;
        const char *host;
        const char *(*find_host)(zval *store, zval *held);
    } stores[] = {
        {"\\FileStore", "file", "127.0.0.1", NULL},
        {"\\ArrayStore", "array", "127.0.0.1", NULL},
        {"\\RedisStore", "redis", NULL, vesk_laravel_redis_host},
        {"\\MemcachedStore", "memcached", NULL, vesk_laravel_memcached_host},
        {"\\ApcStore", "apc", "127.0.0.1", NULL},
        {"\\DatabaseStore", "database", NULL, vesk_laravel_database_host},
        {"\\DynamoDbStore", "dynamodb", NULL, NULL},
    };
    const char *class_name = vesk_laravel_get_class(execute_data);
    const char *flavor = "", *host = "";
    zval held;
    ZVAL_UNDEF(&held);
    if (class_name != NULL) {
        flavor = "unknown";
        host = NULL;
        for (size_t i = 0; i < sizeof(stores) / sizeof(stores[0]); i++) {
            if (vesk_laravel_string_ends_with(class_name, stores[i].suffix)) {
                flavor = stores[i].flavor;
                host = stores[i].find_host != NULL && Z_TYPE(execute_data->This) == IS_OBJECT
                           ? stores[i].find_host(&execute_data->This, &held)
                           : stores[i].host;
                break;
            }
        }
    }
    php_vesk_kv records[] = {
        KV_STR("Spec", "cache"),
        KV_STR("KVOp", operation),
        KV_STR("KVKey", vesk_laravel_str(vesk_laravel_find_var(execute_data, "key", 0))),
        KV_STR("Flavor", flavor),
        KV_STR("RemoteHost", host),
        KV_END,
    };
    vesk_laravel_entry("laravel_cache", records);
    zval_ptr_dtor(&held);
}

VESK_LARAVEL_ACTION(entry_action_cache_put) { vesk_laravel_cache(execute_data, "put"); }
VESK_LARAVEL_ACTION(entry_action_cache_get) { vesk_laravel_cache(execute_data, "get"); }
VESK_LARAVEL_ACTION(entry_action_cache_increment) { vesk_laravel_cache(execute_data, "increment"); }
VESK_LARAVEL_ACTION(entry_action_cache_decrement) { vesk_laravel_cache(execute_data, "decrement"); }
VESK_LARAVEL_ACTION(entry_action_cache_forget) { vesk_laravel_cache(execute_data, "forget"); }
VESK_LARAVEL_ACTION(entry_action_cache_flush) { vesk_laravel_cache(execute_data, "flush"); }

/* ---- reported exceptions ------------------------------------------------ */

/* A string or number as text (no conversion that could warn); else "". */
static zend_string *vesk_laravel_text(zval *value) {
    if (Z_TYPE_P(value) == IS_STRING || Z_TYPE_P(value) == IS_LONG || Z_TYPE_P(value) == IS_DOUBLE) {
        return zval_get_string(value);
    }
    return ZSTR_EMPTY_ALLOC();
}

VESK_LARAVEL_ACTION(entry_action_exceptions) {
    zval *exception = vesk_laravel_find_var(execute_data, "e", 0);
    if (exception == NULL || Z_TYPE_P(exception) != IS_OBJECT) {
        return;
    }
    zval message, file, line, trace;
    vesk_laravel_call_user_function(exception, "getmessage", &message, 0);
    vesk_laravel_call_user_function(exception, "getfile", &file, 0);
    vesk_laravel_call_user_function(exception, "getline", &line, 0);
    vesk_laravel_call_user_function(exception, "gettrace", &trace, 0);
    zend_string *message_text = vesk_laravel_text(&message);
    zend_string *file_text = vesk_laravel_text(&file);
    zend_long line_number = Z_TYPE(line) == IS_LONG ? Z_LVAL(line) : 0;
    const char *class_name = ZSTR_VAL(Z_OBJCE_P(exception)->name);

    char *text;
    if (ZSTR_LEN(message_text) > 0) {
        spprintf(&text, 0, "exception '%s' with message '%s' in %s:" ZEND_LONG_FMT, class_name,
                 ZSTR_VAL(message_text), ZSTR_VAL(file_text), line_number);
    } else {
        spprintf(&text, 0, "exception '%s' in %s:" ZEND_LONG_FMT, class_name, ZSTR_VAL(file_text), line_number);
    }
    php_vesk_kv records[] = {
        KV_STR("ErrorClass", class_name),
        KV_STR("ErrorMsg", text),
        {PHP_VESK_KV_BACKTRACE, "Backtrace", Z_TYPE(trace) == IS_ARRAY ? &trace : NULL, 0},
        KV_END,
    };
    vesk_laravel_trace_event("laravel", "error", records, 0);
    efree(text);
    zend_string_release(message_text);
    zend_string_release(file_text);
    zval_ptr_dtor(&message);
    zval_ptr_dtor(&file);
    zval_ptr_dtor(&line);
    zval_ptr_dtor(&trace);
}
