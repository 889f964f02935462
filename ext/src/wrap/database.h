/*
 * What the mysqli and PDO wrappers share: the operations the wrap list
 * hands them as its constant, the query text as it goes into an event
 * (copied, sanitized, cut), and the bound values as a document.
 *
 * Threads: the request's own; everything lives on the request heap.
 */
#ifndef PHP_VESK_WRAP_DATABASE_H
#define PHP_VESK_WRAP_DATABASE_H

#include <stddef.h>
#include <stdint.h>

/* mysqli operations (the data of the mysqli targets). */
enum {
    PHP_VESK_MYSQLI_COMMIT,
    PHP_VESK_MYSQLI_ROLLBACK,
    PHP_VESK_MYSQLI_QUERY,
    PHP_VESK_MYSQLI_REAL_QUERY,
    PHP_VESK_MYSQLI_MULTI_QUERY,
    PHP_VESK_MYSQLI_STORE_RESULT,
    PHP_VESK_MYSQLI_USE_RESULT,
    PHP_VESK_MYSQLI_PREPARE,
    PHP_VESK_MYSQLI_STMT_PREPARE,
    PHP_VESK_MYSQLI_EXECUTE,      /* mysqli_execute, mysqli_stmt::execute */
    PHP_VESK_MYSQLI_STMT_EXECUTE, /* mysqli_stmt_execute */
    PHP_VESK_MYSQLI_EXECUTE_QUERY,
};

/* PDO operations (the data of the PDO targets). */
enum {
    PHP_VESK_PDO_EXEC,
    PHP_VESK_PDO_QUERY,
    PHP_VESK_PDO_COMMIT,
    PHP_VESK_PDO_ROLLBACK,
    PHP_VESK_PDO_STMT_EXECUTE,
};

#include "php.h"

#include "src/events/php_vesk_events.h"

/* Bytes of a query text an event keeps; the cut comes after sanitizing. */
#define PHP_VESK_DB_QUERY_MAX 2048

/* Sanitizer flags for a database (a PDO driver name, "mysql" for mysqli, or
 * null) under this request's corvidine.enable_sanitize_sql. */
uint32_t get_sql_sanitizer_flags(const char *database);

/* Whether this request sanitizes queries (otherwise bound values are
 * reported as "QueryArgs"). */
int php_vesk_db_sanitizing(void);

/* The query of a call: a non-empty literal, or else from the arguments: a
 * function needs two of them and a method one, and the first string among
 * the first two is the query (so a function's link argument is passed
 * over). 0, or -1 when there is none. The text stays in the frame. */
int vesk_mysqli_get_query(zend_execute_data *execute_data, zval *return_value, const char *literal,
                          const char **query, size_t *length);

/* A query as an event keeps it: a private copy, sanitized for the database
 * unless the request turned that off, cut to PHP_VESK_DB_QUERY_MAX. */
typedef struct {
    char *text; /* request heap, or null */
    size_t length;
} php_vesk_db_query;
void php_vesk_db_query_capture(php_vesk_db_query *query, const char *text, size_t length, const char *database);
void php_vesk_db_query_free(php_vesk_db_query *query);

/* Bound values as a document: a list of their values in order, written
 * also while the call left an exception pending. list_add appends a value
 * (references followed, undefined ones left out) to an array. */
typedef struct {
    vesk_php_mongo_buffer buffer;
    vesk_bson document;
    int made;
} php_vesk_db_args;
void php_vesk_db_list_add(zval *list, zval *value);
void php_vesk_db_args_make(php_vesk_db_args *args, zval *list);
void php_vesk_db_args_free(php_vesk_db_args *args);

/* Records of one event, filled in order; room for every key a database
 * event has, and always ended by a record of type 0. */
#define PHP_VESK_DB_RECORDS 8
typedef struct {
    php_vesk_kv kv[PHP_VESK_DB_RECORDS + 1];
    int count;
} php_vesk_db_records;
void php_vesk_db_records_init(php_vesk_db_records *records);
void php_vesk_db_records_add(php_vesk_db_records *records, int32_t type, const char *key, const void *value,
                             int64_t length);

/* Request end: the statements' kept query texts go. */
void php_vesk_mysqli_request_end(void);

/* The class of that lower-case name is the object's class or one of its
 * parents. */
int php_vesk_db_instance_of(zval *object, const char *lc_class, size_t length);

#endif
