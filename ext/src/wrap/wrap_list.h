/*
 * The one list of wrapped functions and methods. wrap.c generates from it
 * the family table, the module's optional dependencies, the table of
 * targets with their originals, and one small handler per target (an
 * internal handler gets only its frame, so each target needs a handler of
 * its own to know which original to call).
 *
 * Adding a family: one PHP_VESK_WRAP_FAMILY line, its PHP_VESK_WRAP_TARGET
 * lines, and a file of its own with the in and out callbacks.
 *
 * PHP_VESK_WRAP_FAMILY(id, switch, module, span, test_only)
 *   switch     INI entry that turns the family on (read per request), or null
 *   module     module that registers the targets; declared as an optional
 *              dependency so that it starts before this module
 *   span       1: active on untraced requests too (wrap_for_span)
 *   test_only  1: wrapped only when corvidine.internal_test_hooks is on
 *
 * PHP_VESK_WRAP_TARGET(family, id, class, name, in, out, data)
 *   id         C name of the handler, zif__vesk_wrapped_<id>
 *   class      class of a method, or null for a function
 *   name       the function's or method's name
 *   in, out    callbacks (wrap.h); vesk_noop_in / vesk_noop_out for none
 *   data       a constant handed to the callbacks with the target
 *
 * Internal subclasses registered before this module (they hold their own
 * copies of a parent's method records) are found and wrapped with their
 * parent's method; user subclasses copy the wrapped record when linked.
 */
#ifndef PHP_VESK_WRAP_LIST_H
#define PHP_VESK_WRAP_LIST_H

#include "src/wrap/database.h"
#include "src/wrap/key_value.h"

// clang-format off
#define PHP_VESK_WRAP_FAMILIES(PHP_VESK_WRAP_FAMILY)                                       \
    PHP_VESK_WRAP_FAMILY(ERROR_LOG, "corvidine.enable_wrap_error_log", "standard", 1, 0)   \
    PHP_VESK_WRAP_FAMILY(CURL, "corvidine.enable_wrap_curl", "curl", 1, 0)                 \
    PHP_VESK_WRAP_FAMILY(TEST, NULL, "spl", 0, 1)                                          \
    PHP_VESK_WRAP_FAMILY(MYSQLI, "corvidine.enable_wrap_mysqli", "mysqli", 0, 0)           \
    PHP_VESK_WRAP_FAMILY(MYSQLI_OO, "corvidine.enable_wrap_mysqli_oo", "mysqli", 0, 0)     \
    PHP_VESK_WRAP_FAMILY(PDO, "corvidine.enable_wrap_pdo", "pdo", 0, 0)                     \
    PHP_VESK_WRAP_FAMILY(PHPREDIS, "corvidine.enable_wrap_phpredis", "redis", 0, 0)        \
    PHP_VESK_WRAP_FAMILY(MEMCACHED, "corvidine.enable_wrap_memcached", "memcached", 0, 0)

#define PHP_VESK_WRAP_TARGETS(PHP_VESK_WRAP_TARGET)                                                          \
    PHP_VESK_WRAP_TARGET(ERROR_LOG, error_log, NULL, "error_log", vesk_error_log_in, vesk_noop_out, 0)       \
    PHP_VESK_DATABASE_TARGETS(PHP_VESK_WRAP_TARGET)                                                          \
    PHP_VESK_PHPREDIS_TARGETS(PHP_VESK_WRAP_TARGET)                                                          \
    PHP_VESK_MEMCACHED_TARGETS(PHP_VESK_WRAP_TARGET)                                                         \
    PHP_VESK_WRAP_TARGET(CURL, curl_exec, NULL, "curl_exec", vesk_curl_exec_in, vesk_curl_exec_out, 0)           \
    PHP_VESK_WRAP_TARGET(CURL, curl_setopt, NULL, "curl_setopt", vesk_noop_in, vesk_curl_setopt_out, 0)             \
    PHP_VESK_WRAP_TARGET(CURL, curl_close, NULL, "curl_close", vesk_noop_in, vesk_noop_out, 0)               \
    PHP_VESK_WRAP_TARGET(CURL, curl_reset, NULL, "curl_reset", vesk_noop_in, vesk_curl_reset_out, 0)               \
    PHP_VESK_WRAP_TARGET(CURL, curl_copy_handle, NULL, "curl_copy_handle", vesk_noop_in, vesk_curl_copy_handle_out, 0)   \
    PHP_VESK_WRAP_TARGET(CURL, curl_setopt_array, NULL, "curl_setopt_array", vesk_noop_in, vesk_curl_setopt_array_out, 0) \
    PHP_VESK_WRAP_TARGET(TEST, test_preg_match, NULL, "preg_match", vesk_test_wrap_in, vesk_test_wrap_out, 0) \
    PHP_VESK_WRAP_TARGET(TEST, test_json_decode, NULL, "json_decode", vesk_test_wrap_in, vesk_test_wrap_out, 0) \
    PHP_VESK_WRAP_TARGET(TEST, test_arrayobject_offsetget, "ArrayObject", "offsetGet", vesk_test_wrap_in,      \
                         vesk_test_wrap_out, 0)                                                              \
    PHP_VESK_WRAP_TARGET(TEST, test_arrayiterator_offsetget, "ArrayIterator", "offsetGet", vesk_test_wrap_in,  \
                         vesk_test_wrap_out, 0)                                                              \
    PHP_VESK_WRAP_TARGET(TEST, test_arrayiterator_seek, "ArrayIterator", "seek", vesk_test_wrap_in,            \
                         vesk_test_wrap_out, 0)
/* curl_close does nothing on PHP 8 (the handle stays usable); a handle's
 * records go when the handle is freed. */

/* The database families (database.h names the operations in data). PHP
 * 8.2's mysqli has no send_query; execute_query is new in 8.2. */
#define PHP_VESK_DATABASE_TARGETS(PHP_VESK_WRAP_TARGET)                                                       \
    PHP_VESK_WRAP_TARGET(MYSQLI, mysqli_commit, NULL, "mysqli_commit", vesk_mysqli_in, vesk_mysqli_out, PHP_VESK_MYSQLI_COMMIT) \
    PHP_VESK_WRAP_TARGET(MYSQLI, mysqli_rollback, NULL, "mysqli_rollback", vesk_mysqli_in, vesk_mysqli_out, PHP_VESK_MYSQLI_ROLLBACK) \
    PHP_VESK_WRAP_TARGET(MYSQLI, mysqli_query, NULL, "mysqli_query", vesk_mysqli_in, vesk_mysqli_out, PHP_VESK_MYSQLI_QUERY) \
    PHP_VESK_WRAP_TARGET(MYSQLI, mysqli_real_query, NULL, "mysqli_real_query", vesk_mysqli_in, vesk_mysqli_out, PHP_VESK_MYSQLI_REAL_QUERY) \
    PHP_VESK_WRAP_TARGET(MYSQLI, mysqli_multi_query, NULL, "mysqli_multi_query", vesk_mysqli_in, vesk_mysqli_out, PHP_VESK_MYSQLI_MULTI_QUERY) \
    PHP_VESK_WRAP_TARGET(MYSQLI, mysqli_store_result, NULL, "mysqli_store_result", vesk_mysqli_in, vesk_mysqli_out, PHP_VESK_MYSQLI_STORE_RESULT) \
    PHP_VESK_WRAP_TARGET(MYSQLI, mysqli_use_result, NULL, "mysqli_use_result", vesk_mysqli_in, vesk_mysqli_out, PHP_VESK_MYSQLI_USE_RESULT) \
    PHP_VESK_WRAP_TARGET(MYSQLI, mysqli_prepare, NULL, "mysqli_prepare", vesk_mysqli_in, vesk_mysqli_out, PHP_VESK_MYSQLI_PREPARE) \
    PHP_VESK_WRAP_TARGET(MYSQLI, mysqli_stmt_prepare, NULL, "mysqli_stmt_prepare", vesk_mysqli_in, vesk_mysqli_out, PHP_VESK_MYSQLI_STMT_PREPARE) \
    PHP_VESK_WRAP_TARGET(MYSQLI, mysqli_execute_query, NULL, "mysqli_execute_query", vesk_mysqli_in, vesk_mysqli_out, PHP_VESK_MYSQLI_EXECUTE_QUERY) \
    PHP_VESK_WRAP_TARGET(MYSQLI, mysqli_execute, NULL, "mysqli_execute", vesk_mysqli_stmt_in, vesk_mysqli_out, PHP_VESK_MYSQLI_EXECUTE) \
    PHP_VESK_WRAP_TARGET(MYSQLI, mysqli_stmt_execute, NULL, "mysqli_stmt_execute", vesk_mysqli_stmt_in, vesk_mysqli_out, PHP_VESK_MYSQLI_STMT_EXECUTE) \
    PHP_VESK_WRAP_TARGET(MYSQLI_OO, mysqli_m_commit, "mysqli", "commit", vesk_mysqli_in, vesk_mysqli_out, PHP_VESK_MYSQLI_COMMIT) \
    PHP_VESK_WRAP_TARGET(MYSQLI_OO, mysqli_m_rollback, "mysqli", "rollback", vesk_mysqli_in, vesk_mysqli_out, PHP_VESK_MYSQLI_ROLLBACK) \
    PHP_VESK_WRAP_TARGET(MYSQLI_OO, mysqli_m_query, "mysqli", "query", vesk_mysqli_in, vesk_mysqli_out, PHP_VESK_MYSQLI_QUERY) \
    PHP_VESK_WRAP_TARGET(MYSQLI_OO, mysqli_m_real_query, "mysqli", "real_query", vesk_mysqli_in, vesk_mysqli_out, PHP_VESK_MYSQLI_REAL_QUERY) \
    PHP_VESK_WRAP_TARGET(MYSQLI_OO, mysqli_m_multi_query, "mysqli", "multi_query", vesk_mysqli_in, vesk_mysqli_out, PHP_VESK_MYSQLI_MULTI_QUERY) \
    PHP_VESK_WRAP_TARGET(MYSQLI_OO, mysqli_m_store_result, "mysqli", "store_result", vesk_mysqli_in, vesk_mysqli_out, PHP_VESK_MYSQLI_STORE_RESULT) \
    PHP_VESK_WRAP_TARGET(MYSQLI_OO, mysqli_m_use_result, "mysqli", "use_result", vesk_mysqli_in, vesk_mysqli_out, PHP_VESK_MYSQLI_USE_RESULT) \
    PHP_VESK_WRAP_TARGET(MYSQLI_OO, mysqli_m_prepare, "mysqli", "prepare", vesk_mysqli_in, vesk_mysqli_out, PHP_VESK_MYSQLI_PREPARE) \
    PHP_VESK_WRAP_TARGET(MYSQLI_OO, mysqli_m_execute_query, "mysqli", "execute_query", vesk_mysqli_in, vesk_mysqli_out, PHP_VESK_MYSQLI_EXECUTE_QUERY) \
    PHP_VESK_WRAP_TARGET(MYSQLI_OO, mysqli_stmt_m_prepare, "mysqli_stmt", "prepare", vesk_mysqli_in, vesk_mysqli_out, PHP_VESK_MYSQLI_STMT_PREPARE) \
    PHP_VESK_WRAP_TARGET(MYSQLI_OO, mysqli_stmt_m_execute, "mysqli_stmt", "execute", vesk_mysqli_stmt_in, vesk_mysqli_out, PHP_VESK_MYSQLI_EXECUTE) \
    PHP_VESK_WRAP_TARGET(PDO, pdo_exec, "PDO", "exec", vesk_pdo_in, vesk_pdo_out, PHP_VESK_PDO_EXEC)         \
    PHP_VESK_WRAP_TARGET(PDO, pdo_query, "PDO", "query", vesk_pdo_in, vesk_pdo_out, PHP_VESK_PDO_QUERY)      \
    PHP_VESK_WRAP_TARGET(PDO, pdo_commit, "PDO", "commit", vesk_pdo_in, vesk_pdo_out, PHP_VESK_PDO_COMMIT)   \
    PHP_VESK_WRAP_TARGET(PDO, pdo_rollback, "PDO", "rollBack", vesk_pdo_in, vesk_pdo_out, PHP_VESK_PDO_ROLLBACK) \
    PHP_VESK_WRAP_TARGET(PDO, pdostatement_execute, "PDOStatement", "execute", vesk_pdostatement_in,          \
                         vesk_pdostatement_out, PHP_VESK_PDO_STMT_EXECUTE)
// clang-format on

#endif
