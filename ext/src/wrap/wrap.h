/*
 * Function wrapping: instrumented stand-ins for functions and methods of
 * other extensions (cURL, error_log, the databases, the key-value stores).
 *
 * Why the handler is replaced in place, once per process: on PHP 8.2 a
 * function-table entry swapped per request is not what runs. opcache's
 * run-time caches keep the zend_function * they resolved, JIT-compiled code
 * calls an internal handler by its address, ZTS threads share internal
 * classes (a per-request change of a method table is a data race), and a
 * class extending an internal class copies the parent's method records when
 * it is linked. All of them keep the record itself, so module start
 * replaces the `handler` of each wrapped record, after the owning module
 * registered it, before any script is compiled, and keeps the original
 * beside it; nothing else of the record changes, so reflection, arginfo,
 * by-reference arguments and backtraces read as before. What a wrapper does
 * is decided per thread and request: a mask of active families, set at
 * request start and cleared at request end. An inactive wrapper calls the
 * original handler and nothing else.
 *
 * Threads: the records and the table of originals are written at module
 * start and shutdown only; the family mask lives in the thread's module
 * globals.
 */
#ifndef PHP_VESK_WRAP_H
#define PHP_VESK_WRAP_H

#include <stdint.h>

#include "php.h"

#include "corvidine/metadata.h"

#include "src/wrap/wrap_list.h"

/* Families by number; bit (1 << number) in the thread's wrap_mask. */
#define PHP_VESK_WRAP_FAMILY_ENUM(id, switch_name, module, span, test_only) PHP_VESK_WRAP_FAMILY_##id,
enum { PHP_VESK_WRAP_FAMILIES(PHP_VESK_WRAP_FAMILY_ENUM) PHP_VESK_WRAP_FAMILY_COUNT };
#undef PHP_VESK_WRAP_FAMILY_ENUM

typedef struct php_vesk_wrap_target php_vesk_wrap_target;

/* Runs before the original, with its frame: arguments are read with
 * ZEND_CALL_NUM_ARGS / ZEND_CALL_ARG and type tests, never parsed (the
 * original raises its own errors). The result goes to the out callback. */
typedef intptr_t (*php_vesk_wrap_in_fn)(zend_execute_data *execute_data, zval *return_value,
                                        const php_vesk_wrap_target *target);
/* Runs after the original, also when it left an exception pending (then
 * return_value may be unset). entry is the context as it was after the in
 * callback (the id of the entry event, if one was sent) on a traced request,
 * null on an untraced one. */
typedef void (*php_vesk_wrap_out_fn)(zend_execute_data *execute_data, zval *return_value,
                                     const vesk_metadata_t *entry, intptr_t in_result,
                                     const php_vesk_wrap_target *target);

struct php_vesk_wrap_target {
    int family;             /* PHP_VESK_WRAP_FAMILY_* */
    const char *class_name; /* null for a function */
    const char *name;       /* the operation's name as PHP spells it */
    php_vesk_wrap_in_fn in;
    php_vesk_wrap_out_fn out;
    intptr_t data;          /* a constant of the family's own */
    zif_handler wrapper;
    zif_handler original;   /* set at module start; null when not wrapped */
    zend_internal_function *record;
};

/* Stand-ins for a family that has nothing to do before or after a call. */
intptr_t vesk_noop_in(zend_execute_data *execute_data, zval *return_value, const php_vesk_wrap_target *target);
void vesk_noop_out(zend_execute_data *execute_data, zval *return_value, const vesk_metadata_t *entry,
                   intptr_t in_result, const php_vesk_wrap_target *target);

/* Module start (after the wrapped modules started) / shutdown: replace and
 * restore the handlers. */
void php_vesk_wrap_minit(void);
void php_vesk_wrap_mshutdown(void);

/* Every family whose switch is on (traced request) / the families that an
 * untraced request needs too, cURL and error_log (outgoing X-Trace header,
 * log trace id). unload/unwrap undo them; wrap_state counts as documented in
 * php_corvidine.h. */
void new_wrap_init(void);
void new_wrap_unload(void);
void wrap_for_span(void);
void unwrap_for_span(void);

/* Request end: no family stays active, whatever happened in between. */
void php_vesk_wrap_request_end(void);

/* cURL (curl.c): the header callback and option numbers at module start,
 * the handles' records at request end. */
void php_vesk_curl_minit(void);
void php_vesk_curl_mshutdown(void);
void php_vesk_curl_request_end(void);

/* HTTP streams (http_stream.c): our wrapper record for http and https in
 * the URL wrappers registry at module start, the originals back at
 * shutdown. */
void php_vesk_http_stream_minit(void);
void php_vesk_http_stream_mshutdown(void);

/* phpredis (phpredis.c): request end, a pipeline or multi block left open
 * is forgotten. */
void php_vesk_phpredis_request_end(void);

/* corvidine.enable_wrap is on (read at the request's join points). */
int php_vesk_wrap_enabled(void);

#endif
