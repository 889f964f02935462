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

// clang-format off
#define PHP_VESK_WRAP_FAMILIES(PHP_VESK_WRAP_FAMILY)                                       \
    PHP_VESK_WRAP_FAMILY(ERROR_LOG, "corvidine.enable_wrap_error_log", "standard", 1, 0)   \
    PHP_VESK_WRAP_FAMILY(CURL, "corvidine.enable_wrap_curl", "curl", 1, 0)                 \
    PHP_VESK_WRAP_FAMILY(TEST, NULL, "spl", 0, 1)

#define PHP_VESK_WRAP_TARGETS(PHP_VESK_WRAP_TARGET)                                                          \
    PHP_VESK_WRAP_TARGET(ERROR_LOG, error_log, NULL, "error_log", vesk_error_log_in, vesk_noop_out, 0)       \
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
// clang-format on

#endif
