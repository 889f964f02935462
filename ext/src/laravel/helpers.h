/*
 * What the Laravel filters and actions ask about a call: names of the
 * function and its class, local variables by name, class relations, and
 * calls back into PHP. All run on the request's thread, inside an observer
 * handler; callers guard a pending exception (see dispatch.h).
 */
#ifndef PHP_VESK_LARAVEL_HELPERS_H
#define PHP_VESK_LARAVEL_HELPERS_H

#include "php.h"

/* Name of the executing function, or null (top-level code). */
const char *vesk_laravel_get_method(zend_execute_data *execute_data);
/* Class of the frame's object; without one, of the function's scope; or
 * null. */
const char *vesk_laravel_get_class(zend_execute_data *execute_data);
/* 1 when text ends with suffix; 0 when either is null. */
int vesk_laravel_string_ends_with(const char *text, const char *suffix);
/* Whether vesk_laravel_get_class ends with suffix: "App\Http\Kernel" is of
 * "\Http\Kernel". */
int vesk_laravel_is_class_of(zend_execute_data *execute_data, const char *suffix);
/* The class name contains text. */
int vesk_laravel_class_contains(zend_execute_data *execute_data, const char *text);
/* What PHP's is_subclass_of(value, class_name) answers, for an object or a
 * class name; 1 or 0. A class name not loaded yet is autoloaded only when
 * autoload is not 0. */
int vesk_laravel_is_subclass_of(zval *value, const char *class_name, int autoload);
/* 1 when the object's class, or the (already loaded) class a string names,
 * is an instance of interface. */
int vesk_laravel_class_implements(zval *value, const char *interface);
/* The element key of a table, through indirections and references; null if
 * absent. */
zval *vesk_laravel_find(HashTable *table, const char *key);
/* The frame's local variable name, or null. */
zval *vesk_laravel_find_named_var(zend_execute_data *execute_data, const char *name);
/* The frame's local variable name; if the function has none of that name,
 * the one at position when there is one; else null. References are
 * followed; an unset variable gives null. */
zval *vesk_laravel_find_var(zend_execute_data *execute_data, const char *name, uint32_t position);
/* Calls method name on object (function name when object is null) with
 * count zval pointers (a null pointer passes PHP null). result is set
 * (UNDEF on failure) and must be released with zval_ptr_dtor. SUCCESS when
 * the call ran and threw nothing. */
zend_result vesk_laravel_call_user_function(zval *object, const char *name, zval *result, uint32_t count, ...);

/* String value of the frame's object property, or null. */
const char *vesk_laravel_property_str(zend_execute_data *execute_data, const char *name);

#endif
