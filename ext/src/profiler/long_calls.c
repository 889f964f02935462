/*
 * Internal functions that are known to last (sleeps, child processes,
 * network and database round trips): each gets a handler of ours that runs
 * the original and then, when a tick of the profiler's clock came meanwhile,
 * takes the snapshot with the call still innermost. The VM interrupt alone
 * would see such a tick only later, at a loop or call of whatever code runs
 * next, and blame that code for the time.
 *
 * Handlers are replaced once, when all modules have started and before the
 * first request, in the function's own record (so copies made later, such
 * as a user class extending PDO, get ours too).
 * When no profiled request runs, a call costs one read of module globals.
 */
#include "php_corvidine.h"

#include "src/profiler/sampler.h"

typedef struct {
    const char *class_name; /* lower case; null for a function */
    const char *name;       /* lower case */
    zif_handler wrapper;
    zend_function *func; /* null when not wrapped */
    zif_handler original;
} php_vesk_long_call;

// clang-format off
#define PHP_VESK_LONG_CALLS(X) \
    X(0, NULL, "sleep") X(1, NULL, "usleep") X(2, NULL, "time_nanosleep") X(3, NULL, "time_sleep_until") \
    X(4, NULL, "exec") X(5, NULL, "shell_exec") X(6, NULL, "system") X(7, NULL, "passthru") \
    X(8, NULL, "proc_close") X(9, NULL, "stream_select") X(10, NULL, "file_get_contents") \
    X(11, NULL, "fread") X(12, NULL, "fgets") X(13, NULL, "stream_get_contents") \
    X(14, NULL, "fsockopen") X(15, NULL, "stream_socket_client") \
    X(16, NULL, "curl_exec") X(17, NULL, "curl_multi_exec") X(18, NULL, "curl_multi_select") \
    X(19, NULL, "mysqli_query") X(20, NULL, "mysqli_real_query") X(21, NULL, "mysqli_execute_query") \
    X(22, NULL, "mysqli_stmt_execute") X(23, "mysqli", "query") X(24, "mysqli", "real_query") \
    X(25, "mysqli", "execute_query") X(26, "mysqli_stmt", "execute") \
    X(27, "pdo", "query") X(28, "pdo", "exec") X(29, "pdostatement", "execute") \
    X(30, NULL, "pcntl_waitpid") X(31, NULL, "pcntl_wait") X(32, NULL, "socket_select")
// clang-format on

#define PHP_VESK_LONG_CALL_DECLARE(n, class_name, name) static ZEND_NAMED_FUNCTION(php_vesk_long_call_##n);
PHP_VESK_LONG_CALLS(PHP_VESK_LONG_CALL_DECLARE)

#define PHP_VESK_LONG_CALL_ENTRY(n, class_name, name) {class_name, name, php_vesk_long_call_##n, NULL, NULL},
static php_vesk_long_call php_vesk_long_calls[] = {PHP_VESK_LONG_CALLS(PHP_VESK_LONG_CALL_ENTRY)};

static zend_always_inline void php_vesk_long_call_run(int n, INTERNAL_FUNCTION_PARAMETERS) {
    php_vesk_long_calls[n].original(INTERNAL_FUNCTION_PARAM_PASSTHRU);
    if (VESK_G(profiler_clock) != NULL) {
        php_vesk_profiler_sample(execute_data);
    }
}

#define PHP_VESK_LONG_CALL_DEFINE(n, class_name, name)    \
    static ZEND_NAMED_FUNCTION(php_vesk_long_call_##n) { \
        php_vesk_long_call_run(n, INTERNAL_FUNCTION_PARAM_PASSTHRU); \
    }
PHP_VESK_LONG_CALLS(PHP_VESK_LONG_CALL_DEFINE)

static zend_function *php_vesk_long_call_find(const php_vesk_long_call *call) {
    HashTable *table = CG(function_table);
    if (call->class_name != NULL) {
        zend_class_entry *ce = zend_hash_str_find_ptr(CG(class_table), call->class_name, strlen(call->class_name));
        if (ce == NULL || ce->type != ZEND_INTERNAL_CLASS) {
            return NULL;
        }
        table = &ce->function_table;
    }
    zend_function *func = zend_hash_str_find_ptr(table, call->name, strlen(call->name));
    return func != NULL && func->type == ZEND_INTERNAL_FUNCTION ? func : NULL;
}

void php_vesk_long_calls_wrap(void) {
    for (size_t i = 0; i < sizeof(php_vesk_long_calls) / sizeof(php_vesk_long_calls[0]); i++) {
        php_vesk_long_call *call = &php_vesk_long_calls[i];
        zend_function *func = php_vesk_long_call_find(call);
        if (func == NULL || func->internal_function.handler == NULL) {
            continue;
        }
        call->func = func;
        call->original = func->internal_function.handler;
        func->internal_function.handler = call->wrapper;
    }
}

/* A handler that another module put over ours since is left as it is: it
 * calls ours, which still calls the original. */
void php_vesk_long_calls_unwrap(void) {
    for (size_t i = 0; i < sizeof(php_vesk_long_calls) / sizeof(php_vesk_long_calls[0]); i++) {
        php_vesk_long_call *call = &php_vesk_long_calls[i];
        if (call->func != NULL && call->func->internal_function.handler == call->wrapper) {
            call->func->internal_function.handler = call->original;
        }
        call->func = NULL;
    }
}
