/*
 * Event helpers: the one way the extension sends an event, the key-value
 * records every caller hands it, PHP backtraces as text or BSON, and the
 * writer that turns PHP arrays and objects into BSON documents.
 *
 * Threads: everything runs on the request's thread, on its own context and
 * request heap. Strings and documents returned here are on the request heap;
 * release them with efree().
 */
#ifndef PHP_VESK_EVENTS_H
#define PHP_VESK_EVENTS_H

#include <stddef.h>
#include <stdint.h>

#include "php.h"

#include "corvidine/bson.h"
#include "corvidine/event.h"
#include "corvidine/metadata.h"

/* Record types of php_vesk_kv. A list ends at a record of type 0; a type
 * above 9 adds nothing. */
#define PHP_VESK_KV_END 0
#define PHP_VESK_KV_STRING 1    /* value: NUL-terminated string */
#define PHP_VESK_KV_INT 2       /* value: int32_t (length 4) or int64_t (length 8) */
#define PHP_VESK_KV_DOUBLE 3    /* value: double */
#define PHP_VESK_KV_BINARY 4    /* value: bytes, length: their count */
#define PHP_VESK_KV_BSON 5      /* value: const vesk_bson * */
#define PHP_VESK_KV_EDGE 6      /* value: const vesk_metadata_t * */
#define PHP_VESK_KV_BACKTRACE 7 /* value: zval * array of frames; key ignored ("Backtrace") */
#define PHP_VESK_KV_XTRACE 8    /* value: X-Trace string, length: its bytes */
#define PHP_VESK_KV_BOOL 9      /* value: int32_t */

typedef struct php_vesk_kv {
    int32_t type;
    const char *key;
    const void *value;
    int64_t length;
} php_vesk_kv;

/* Flags of php_vesk_trace_event. */
#define PHP_VESK_EVENT_NO_EDGE 1   /* the event opens a trace */
#define PHP_VESK_EVENT_BACKTRACE 2 /* backtrace as text */
#define PHP_VESK_EVENT_BSON_BT 4   /* backtrace as BSON; only when bit 2 is clear */
#define PHP_VESK_EVENT_ARGS 8      /* the current function's arguments */
#define PHP_VESK_EVENT_FORCE_BT 64 /* backtrace even with corvidine.enable_backtrace off */

/* Deepest backtrace an event carries. */
#define PHP_VESK_BACKTRACE_LIMIT 128

/*
 * Sends one event on this thread's context: Label, Layer (when not null),
 * backtrace / arguments as the flags ask, the four memory keys, the records
 * of kvs (may be null) up to the one of type 0, then an Edge to the context
 * (unless PHP_VESK_EVENT_NO_EDGE) and "SN" when the request has a service
 * name of its own. Does nothing unless the context is valid and sampled.
 * With exit_event_state 2 the prepared exit event is used (and the state
 * goes to 0), so the event carries the id already sent to the client.
 * Returns the send result, 0 when nothing was to be sent, -1 when the event
 * could not be made.
 */
int php_vesk_trace_event(const char *layer, const char *label, const php_vesk_kv *kvs, int flags);

/* One record / its fields. Edges (types 6 and 8) are added only when they
 * name this thread's trace and an operation other than the context's. */
int php_vesk_event_add_kv(vesk_event_t *event, const php_vesk_kv *record);
int php_vesk_event_add_info(vesk_event_t *event, int type, const char *key, const void *value,
                            int64_t length);
/* "Memory-Used", "Memory-Used-Real", "Memory-Peak", "Memory-Peak-Real". */
int php_vesk_event_add_memory(vesk_event_t *event);
/* "Args": the current function's arguments as a document, when
 * corvidine.enable_function_args is on. */
int php_vesk_event_add_args(vesk_event_t *event);
/* "Backtrace" as text / as a document. Unless force, only when
 * corvidine.enable_backtrace is on. */
int php_vesk_event_add_bt(vesk_event_t *event, int force);
int php_vesk_event_add_bson_bt(vesk_event_t *event, int force);
/* Edge to metadata (unless PHP_VESK_EVENT_NO_EDGE), "SN", then the send on
 * the event channel, which moves metadata on to this event. */
int php_vesk_reporter_send(vesk_metadata_t *metadata, vesk_event_t *event, int flags);

/*
 * Backtrace text, one line per frame as "#<n> <file>(<line>): <class><type>
 * <function>(<arguments>)" with "[internal function]: " for frames without a
 * file, and a last "#<n> {main}" line (no line end) when the frames ran out
 * before the limit. String arguments show as "String": no string data ends
 * up in a backtrace. limit 0 means 99999.
 *
 * vesk_get_backtrace: of the running PHP code; null outside PHP code.
 * vesk_make_backtrace: of a given array of frames (debug_backtrace() form).
 * Both return a request-heap string and its length.
 */
char *vesk_get_backtrace(int limit, size_t *length);
char *vesk_make_backtrace(int limit, size_t *length, zval *frames);

/*
 * Backtrace (at most PHP_VESK_BACKTRACE_LIMIT frames) as a document. When
 * frames_out is not null it receives the fetched frames and the caller
 * releases them (zval_ptr_dtor); otherwise they are released here.
 * Arguments: "args" of frame 0 (the function running now) as a document;
 * frames may be null, and a trace is then fetched and released here.
 * Both return a request-heap document and its length, or null.
 */
char *vesk_get_backtrace_bson(size_t *length, zval *frames_out);
char *vesk_get_args_bson(size_t *length, zval *frames);

/* Writer state: three pointers into one request-heap block. */
typedef struct vesk_php_mongo_buffer {
    char *start;
    char *cursor;
    char *end;
} vesk_php_mongo_buffer;

#define VESK_PHP_MONGO_INITIAL_SIZE 1024
/* Below this size the block doubles when it grows; above, it grows by
 * VESK_PHP_MONGO_INITIAL_SIZE. */
#define VESK_PHP_MONGO_GROW_SLOWLY 0x100000
/* Largest document written; elements that would go beyond are left out. */
#define VESK_PHP_BSON_MAX_SIZE 16000000
/* Bytes of a string value kept in a document. */
#define VESK_PHP_BSON_MAX_STRING 1024
/* Arrays and objects nested deeper than this are written as null, so that a
 * long chain of objects can't exhaust the C stack. */
#define VESK_PHP_BSON_MAX_NESTING 128

/* A 1024-byte block / release of it. */
void vesk_php_mongo_buffer_init(vesk_php_mongo_buffer *buffer);
void vesk_php_mongo_buffer_free(vesk_php_mongo_buffer *buffer);

/*
 * Appends `array` as a document at the buffer's cursor. type is IS_ARRAY for
 * an array's table, IS_OBJECT for an object's property table (keys of
 * private and protected properties are then written as the bare property
 * name). Strings keep at most 1024 bytes; a nested array is BSON type 4 when
 * its keys are 0, 1, 2, ... and 3 otherwise; objects are their properties
 * (type 3); an array or object met again inside itself is written as null.
 * Elements that would take the document beyond 16000000 bytes are left out,
 * so the result is always a complete document.
 * Returns the count of elements whose integer key was the next integer, or
 * -1 when a PHP exception is pending: the walk stops there, and the document
 * (still well-formed) lacks the elements not yet reached.
 */
int vesk_zval_to_bson(vesk_php_mongo_buffer *buffer, HashTable *array, int type);

/* "null", "bool", "long", "double", "string", "array", "object",
 * "resource", or "unrecognized". References are followed. */
const char *vesk_z_typename_p(zval *value);

/* Value holder for records made from a return value. */
typedef union php_vesk_kv_scratch {
    int64_t l;
    double d;
    int32_t b;
} php_vesk_kv_scratch;

/* Fills record (key "ReturnValue") for a return value: bool as type 9,
 * integer, resource id or object handle as type 2 (length 8), double as
 * type 3, string as type 1; any other value gives type 0. Numbers live in
 * scratch, strings stay in the zval: both must outlive the record. */
void vesk_z_retval_kv_p(zval *value, php_vesk_kv *record, php_vesk_kv_scratch *scratch);

/* Module start: registers corvidine.internal_test_hooks and, when it is on,
 * the test-only PHP functions corvidine_test_*(). */
void php_vesk_events_minit(int type, int module_number);

#endif
