/*
 * Append-only BSON writer. Documents are little-endian BSON; length fields of
 * sub-documents are patched in place, so there is no tree and no second pass.
 *
 * Every append returns the buffer, or null on failure (finished buffer, no
 * memory). Memory failures go to the error handler. A buffer belongs to one
 * thread at a time.
 */
#ifndef CORVIDINE_BSON_H
#define CORVIDINE_BSON_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define VESK_BSON_INITIAL_SIZE 1024
#define VESK_BSON_MAX_DEPTH 32

typedef struct vesk_bson_buffer {
    char *data;
    char *cur;
    int32_t capacity;
    int32_t finished;
    int32_t stack[VESK_BSON_MAX_DEPTH];
    int32_t stack_depth;
} vesk_bson_buffer;

/* Read-only handle on a finished document. */
typedef struct vesk_bson {
    const char *data;
    int owned; /* non-zero: data is freed by vesk_bson_destroy */
} vesk_bson;

typedef void (*vesk_bson_err_handler)(const char *message);

/* Allocates 1024 bytes; returns b, or null when memory fails. */
vesk_bson_buffer *vesk_bson_buffer_init(vesk_bson_buffer *b);
/* Closes the document, writes its length; returns data (null if no room). A
 * second call returns data again. */
char *vesk_bson_buffer_finish(vesk_bson_buffer *b);
/* Frees data, nulls the pointers, marks the buffer finished. */
void vesk_bson_buffer_destroy(vesk_bson_buffer *b);
/* Bytes written so far (cur - data). */
size_t vesk_bson_buffer_size(const vesk_bson_buffer *b);

vesk_bson_buffer *vesk_bson_append_string(vesk_bson_buffer *b, const char *key, const char *value);
/* A string of exactly len bytes (a NUL is added). */
vesk_bson_buffer *vesk_bson_append_string_n(vesk_bson_buffer *b, const char *key, const char *value, size_t len);
vesk_bson_buffer *vesk_bson_append_int(vesk_bson_buffer *b, const char *key, int32_t value);
vesk_bson_buffer *vesk_bson_append_long(vesk_bson_buffer *b, const char *key, int64_t value);
vesk_bson_buffer *vesk_bson_append_double(vesk_bson_buffer *b, const char *key, double value);
vesk_bson_buffer *vesk_bson_append_bool(vesk_bson_buffer *b, const char *key, int value);
vesk_bson_buffer *vesk_bson_append_null(vesk_bson_buffer *b, const char *key);
vesk_bson_buffer *vesk_bson_append_binary(vesk_bson_buffer *b, const char *key, const void *value, size_t len);
vesk_bson_buffer *vesk_bson_append_bson(vesk_bson_buffer *b, const char *key, const vesk_bson *value);
vesk_bson_buffer *vesk_bson_append_start_object(vesk_bson_buffer *b, const char *key);
vesk_bson_buffer *vesk_bson_append_start_array(vesk_bson_buffer *b, const char *key);
/* Closes the innermost open object or array. */
vesk_bson_buffer *vesk_bson_append_finish_object(vesk_bson_buffer *b);

/* Handle on a finished buffer's document (not owned). */
vesk_bson *vesk_bson_from_buffer(vesk_bson *out, const vesk_bson_buffer *b);
/* Document length from its leading int32; 0 for a null handle or document. */
int32_t vesk_bson_size(const vesk_bson *doc);
void vesk_bson_destroy(vesk_bson *doc);

/* Installs the handler for writer errors; returns the previous one. Without
 * one, an error prints "error: <message>" and exits the process. */
vesk_bson_err_handler vesk_set_bson_err_handler(vesk_bson_err_handler handler);

#ifdef __cplusplus
}
#endif

#endif
