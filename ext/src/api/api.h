/*
 * The user API: the corvidine_*() functions PHP code calls to start and end
 * traces, send events, read and set the context, name the transaction and
 * record custom metrics. Their argument information comes from
 * ext/corvidine.stub.php (tools/gen-arginfo.sh); the table is the module's.
 *
 * Threads: request threads only, on their own module globals.
 */
#ifndef PHP_VESK_API_H
#define PHP_VESK_API_H

#include "php.h"

#include "src/events/php_vesk_events.h"

/* The records of an event made from PHP arguments, closed by a record of
 * type 0, with what their pointers need: strings made by conversion live in
 * `strings`, a caller's backtrace (type 7) in `backtrace`. */
typedef struct php_vesk_info_list {
    php_vesk_kv *kvs;
    int count; /* records before the closing one */
    int capacity;
    zval strings;   /* array of the strings made here */
    zval backtrace; /* array of frames, or undef */
} php_vesk_info_list;

/*
 * Builds the list from an event function's info, backtrace and edge
 * arguments (each may be null: absent). *want_backtrace, set by the caller
 * beforehand, becomes the truth of a bool backtrace, or 0 when the caller
 * gave its own frames. Returns 0, or -1 after a warning (or with the
 * exception a value's __toString threw pending): the list is then empty and
 * needs no free.
 */
int php_vesk_parse_info_pairs(zval *info, zval *backtrace, zval *edge, int *want_backtrace,
                              php_vesk_info_list *list);

/* Appends one record (the list stays closed); a string value must outlive
 * the list, or be kept with php_vesk_info_list_keep. */
void php_vesk_info_list_add(php_vesk_info_list *list, int32_t type, const char *key, const void *value,
                            int64_t length);
/* Keeps a string for as long as the list; returns its bytes. */
const char *php_vesk_info_list_keep(php_vesk_info_list *list, zend_string *value);
void php_vesk_info_list_free(php_vesk_info_list *list);

/* An array of frames the list owns, from an array or from an object's
 * properties; the type-7 record is added. */
void php_vesk_info_list_set_backtrace(php_vesk_info_list *list, zval *frames);

/* The properties of an object (its get_properties handler) as a new array:
 * declared properties followed, unset ones left out, private and protected
 * ones under their bare names. */
void php_vesk_object_properties(zval *object, zval *out);

/* "Tracing has not yet been started, call corvidine_start_trace()". */
void php_vesk_api_warn_not_started(void);


#endif
