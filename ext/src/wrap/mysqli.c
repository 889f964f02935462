/*
 * The mysqli families: functions and methods of mysqli and mysqli_stmt as
 * entry and exit events of layer "php_mysqli", "Flavor" "mysql", the query
 * ("Queries" for multi_query), the connection's host and, when sanitizing
 * is off, the values bound to a statement.
 *
 * A prepared statement has no events of its own: prepare keeps its text and
 * execute reports it. mysqli keeps the text itself while it reports unused
 * indexes; otherwise it goes into a weak map of this request, by statement
 * object, and not into mysqli's record: mysqli prints that slot in its own
 * reports, which must read the same with the agent as without it.
 * The records read here are mysqli's and mysqlnd's own
 * (php_mysqli_structs.h, mysqlnd_structs.h); nothing of them is linked, so
 * this module loads without mysqli too.
 *
 * PHP 8.2's mysqli is built on mysqlnd only and has no send_query, so
 * neither libmysql's records nor send_query are looked for; it has
 * execute_query (new in 8.2), reported like a prepared statement's execute.
 */
#include "php_corvidine.h"

#include "zend_weakrefs.h"

#include "ext/mysqli/php_mysqli_structs.h"

#include "corvidine/db_host.h"

#include "src/events/php_vesk_events.h"
#include "src/wrap/database.h"
#include "src/wrap/wrap.h"

static const struct {
    const char *function;
    const char *literal; /* "": the query is an argument; null: no query */
} php_vesk_mysqli_ops[] = {
    [PHP_VESK_MYSQLI_COMMIT] = {"commit", "COMMIT"},
    [PHP_VESK_MYSQLI_ROLLBACK] = {"rollback", "ROLLBACK"},
    [PHP_VESK_MYSQLI_QUERY] = {"query", ""},
    [PHP_VESK_MYSQLI_REAL_QUERY] = {"real_query", ""},
    [PHP_VESK_MYSQLI_MULTI_QUERY] = {"multi_query", ""},
    [PHP_VESK_MYSQLI_STORE_RESULT] = {"store_result", NULL},
    [PHP_VESK_MYSQLI_USE_RESULT] = {"use_result", NULL},
    [PHP_VESK_MYSQLI_PREPARE] = {"prepare", ""},
    [PHP_VESK_MYSQLI_STMT_PREPARE] = {"stmt_prepare", ""},
    [PHP_VESK_MYSQLI_EXECUTE] = {"execute", NULL},
    [PHP_VESK_MYSQLI_STMT_EXECUTE] = {"stmt_execute", NULL},
    [PHP_VESK_MYSQLI_EXECUTE_QUERY] = {"execute_query", ""},
};

/* Query texts of statements prepared on this request (a weak map: an entry
 * goes with its statement); null until the first prepare. */
ZEND_TLS HashTable *php_vesk_mysqli_queries;

/* The text a statement was prepared with, or null. */
static zend_string *php_vesk_mysqli_kept_query(zval *object) {
    if (object == NULL || php_vesk_mysqli_queries == NULL) {
        return NULL;
    }
    zval *text = zend_hash_index_find(php_vesk_mysqli_queries, zend_object_to_weakref_key(Z_OBJ_P(object)));
    return text != NULL ? Z_STR_P(text) : NULL;
}

void php_vesk_mysqli_request_end(void) {
    if (php_vesk_mysqli_queries == NULL) {
        return;
    }
    /* The statements outlive this point (objects go after every module's
     * request end): each entry leaves their weak references first. */
    zend_ulong key;
    ZEND_HASH_FOREACH_NUM_KEY(php_vesk_mysqli_queries, key) {
        zend_weakrefs_hash_del(php_vesk_mysqli_queries, zend_weakref_key_to_object(key));
    }
    ZEND_HASH_FOREACH_END();
    zend_hash_destroy(php_vesk_mysqli_queries);
    FREE_HASHTABLE(php_vesk_mysqli_queries);
    php_vesk_mysqli_queries = NULL;
}

/* The call's object of that class: the object of a method call, or the
 * first argument of a function call. */
static zval *php_vesk_mysqli_object(zend_execute_data *execute_data, const char *lc_class, size_t length) {
    zval *object = getThis();
    if (object == NULL && ZEND_CALL_NUM_ARGS(execute_data) >= 1) {
        object = ZEND_CALL_ARG(execute_data, 1);
        ZVAL_DEREF(object);
    }
    return php_vesk_db_instance_of(object, lc_class, length) ? object : NULL;
}

/* mysqli's statement record of a mysqli_stmt object, once initialized. */
static MY_STMT *php_vesk_mysqli_stmt_record(zval *object) {
    MYSQLI_RESOURCE *resource = object != NULL ? (MYSQLI_RESOURCE *)Z_MYSQLI_P(object)->ptr : NULL;
    return resource != NULL && resource->status >= MYSQLI_STATUS_INITIALIZED ? (MY_STMT *)resource->ptr : NULL;
}

/* Host description of the call's connection (mysqlnd's string), or null. */
static const char *vesk_mysqli_get_host_info(zend_execute_data *execute_data) {
    zval *link = php_vesk_mysqli_object(execute_data, ZEND_STRL("mysqli"));
    if (link != NULL) {
        MYSQLI_RESOURCE *resource = (MYSQLI_RESOURCE *)Z_MYSQLI_P(link)->ptr;
        MY_MYSQL *mysql = resource != NULL && resource->status >= MYSQLI_STATUS_VALID ? resource->ptr : NULL;
        return mysql != NULL && mysql->mysql != NULL && mysql->mysql->data != NULL ? mysql->mysql->data->host_info
                                                                                   : NULL;
    }
    MY_STMT *stmt = php_vesk_mysqli_stmt_record(php_vesk_mysqli_object(execute_data, ZEND_STRL("mysqli_stmt")));
    if (stmt == NULL || stmt->stmt == NULL || stmt->stmt->data == NULL || stmt->stmt->data->conn == NULL) {
        return NULL;
    }
    return stmt->stmt->data->conn->host_info;
}

/* The array argument at that position (1-based, counting a function's
 * link or statement argument), or null. */
static HashTable *php_vesk_mysqli_array_arg(zend_execute_data *execute_data, uint32_t method_position) {
    uint32_t position = method_position + (getThis() == NULL ? 1 : 0);
    if (ZEND_CALL_NUM_ARGS(execute_data) < position) {
        return NULL;
    }
    zval *arg = ZEND_CALL_ARG(execute_data, position);
    ZVAL_DEREF(arg);
    return Z_TYPE_P(arg) == IS_ARRAY ? Z_ARRVAL_P(arg) : NULL;
}

/* Function, Flavor, the query, QueryArgs from values (when the request
 * reports them), then the entry event. */
static void php_vesk_mysqli_entry(int op, const char *text, size_t length, zval *values) {
    php_vesk_db_records records;
    php_vesk_db_query query = {NULL, 0};
    php_vesk_db_args args = {0};
    php_vesk_db_records_init(&records);
    php_vesk_db_records_add(&records, PHP_VESK_KV_STRING, "Function", php_vesk_mysqli_ops[op].function, 0);
    php_vesk_db_records_add(&records, PHP_VESK_KV_STRING, "Flavor", "mysql", 0);
    if (text != NULL) {
        php_vesk_db_query_capture(&query, text, length, "mysql");
        php_vesk_db_records_add(&records, PHP_VESK_KV_BINARY, op == PHP_VESK_MYSQLI_MULTI_QUERY ? "Queries" : "Query",
                                query.text, (int64_t)query.length);
    }
    if (values != NULL) {
        php_vesk_db_args_make(&args, values);
        if (args.made) {
            php_vesk_db_records_add(&records, PHP_VESK_KV_BSON, "QueryArgs", &args.document, 0);
        }
    }
    php_vesk_trace_event("php_mysqli", "entry", records.kv, PHP_VESK_EVENT_BACKTRACE);
    if (values != NULL) {
        php_vesk_db_args_free(&args);
    }
    php_vesk_db_query_free(&query);
}

static void php_vesk_mysqli_list_of(zval *list, HashTable *values) {
    zval *value;
    array_init_size(list, zend_hash_num_elements(values));
    ZEND_HASH_FOREACH_VAL(values, value) {
        php_vesk_db_list_add(list, value);
    }
    ZEND_HASH_FOREACH_END();
}

intptr_t vesk_mysqli_in(zend_execute_data *execute_data, zval *return_value, const php_vesk_wrap_target *target) {
    int op = (int)target->data;
    /* prepare sends nothing: its query waits for the execute. */
    if (!VESK_G(tracing) || op == PHP_VESK_MYSQLI_PREPARE || op == PHP_VESK_MYSQLI_STMT_PREPARE) {
        return 0;
    }
    const char *text = NULL;
    size_t length = 0;
    const char *literal = php_vesk_mysqli_ops[op].literal;
    if (literal != NULL && vesk_mysqli_get_query(execute_data, return_value, literal, &text, &length) != 0) {
        text = NULL;
    }
    zval list;
    HashTable *params = NULL;
    if (op == PHP_VESK_MYSQLI_EXECUTE_QUERY && !php_vesk_db_sanitizing()) {
        /* execute_query(string $query, ?array $params) */
        params = php_vesk_mysqli_array_arg(execute_data, 2);
    }
    if (params != NULL) {
        php_vesk_mysqli_list_of(&list, params);
    }
    php_vesk_mysqli_entry(op, text, length, params != NULL ? &list : NULL);
    if (params != NULL) {
        zval_ptr_dtor(&list);
    }
    return 0;
}

/* The values bound to a statement: those execute was given, or else those
 * bound with bind_param (which mysqlnd keeps). */
static int php_vesk_mysqli_bound(zend_execute_data *execute_data, MY_STMT *stmt, zval *list) {
    /* execute(?array $params) */
    HashTable *given = php_vesk_mysqli_array_arg(execute_data, 1);
    if (given != NULL) {
        php_vesk_mysqli_list_of(list, given);
        return 1;
    }
    if (stmt == NULL) {
        return 0;
    }
    if (stmt->param.var_cnt > 0 && stmt->param.vars != NULL) {
        array_init_size(list, stmt->param.var_cnt);
        for (unsigned int i = 0; i < stmt->param.var_cnt; i++) {
            php_vesk_db_list_add(list, &stmt->param.vars[i]);
        }
        return 1;
    }
    MYSQLND_STMT_DATA *data = stmt->stmt != NULL ? stmt->stmt->data : NULL;
    if (data == NULL || data->param_bind == NULL || data->param_count == 0) {
        return 0;
    }
    array_init_size(list, data->param_count);
    for (unsigned int i = 0; i < data->param_count; i++) {
        php_vesk_db_list_add(list, &data->param_bind[i].zv);
    }
    return 1;
}

intptr_t vesk_mysqli_stmt_in(zend_execute_data *execute_data, zval *return_value,
                             const php_vesk_wrap_target *target) {
    (void)return_value;
    if (!VESK_G(tracing)) {
        return 0;
    }
    zval *object = php_vesk_mysqli_object(execute_data, ZEND_STRL("mysqli_stmt"));
    MY_STMT *stmt = php_vesk_mysqli_stmt_record(object);
    const char *text = NULL;
    size_t length = 0;
    zend_string *kept = stmt != NULL ? php_vesk_mysqli_kept_query(object) : NULL;
    if (stmt != NULL && stmt->query != NULL) {
        text = stmt->query;
        length = strlen(text);
    } else if (kept != NULL) {
        text = ZSTR_VAL(kept);
        length = ZSTR_LEN(kept);
    }
    zval list;
    int bound = !php_vesk_db_sanitizing() && php_vesk_mysqli_bound(execute_data, stmt, &list);
    php_vesk_mysqli_entry((int)target->data, text, length, bound ? &list : NULL);
    if (bound) {
        zval_ptr_dtor(&list);
    }
    return 0;
}

/* After a prepare that found its host: the statement's query text is kept
 * for its execute, unless mysqli keeps it already. A statement prepared
 * again keeps its latest text. */
static void php_vesk_mysqli_keep_query(zend_execute_data *execute_data, zval *return_value, int op) {
    zval *object = NULL;
    if (op == PHP_VESK_MYSQLI_PREPARE && Z_TYPE_P(return_value) == IS_OBJECT) {
        object = return_value;
    } else if (op == PHP_VESK_MYSQLI_STMT_PREPARE) {
        object = getThis();
    }
    if (object == NULL && ZEND_CALL_NUM_ARGS(execute_data) >= 1) {
        object = ZEND_CALL_ARG(execute_data, 1);
        ZVAL_DEREF(object);
    }
    if (!php_vesk_db_instance_of(object, ZEND_STRL("mysqli_stmt"))) {
        return;
    }
    MY_STMT *stmt = php_vesk_mysqli_stmt_record(object);
    const char *text;
    size_t length;
    if (stmt == NULL || stmt->query != NULL ||
        vesk_mysqli_get_query(execute_data, return_value, "", &text, &length) != 0) {
        return;
    }
    if (php_vesk_mysqli_queries == NULL) {
        ALLOC_HASHTABLE(php_vesk_mysqli_queries);
        zend_hash_init(php_vesk_mysqli_queries, 8, NULL, ZVAL_PTR_DTOR, 0);
    }
    zval copy;
    ZVAL_STRINGL(&copy, text, length);
    zval *old = zend_hash_index_find(php_vesk_mysqli_queries, zend_object_to_weakref_key(Z_OBJ_P(object)));
    if (old != NULL) {
        zval_ptr_dtor(old);
        ZVAL_COPY_VALUE(old, &copy);
    } else if (zend_weakrefs_hash_add(php_vesk_mysqli_queries, Z_OBJ_P(object), &copy) == NULL) {
        zval_ptr_dtor(&copy);
    }
}

void vesk_mysqli_out(zend_execute_data *execute_data, zval *return_value, const vesk_metadata_t *entry,
                     intptr_t in_result, const php_vesk_wrap_target *target) {
    (void)in_result;
    if (!VESK_G(tracing)) {
        return;
    }
    int op = (int)target->data;
    php_vesk_db_records records;
    php_vesk_db_records_init(&records);
    if (entry != NULL) {
        php_vesk_db_records_add(&records, PHP_VESK_KV_EDGE, "Edge", entry, 0);
    }
    /* A failed call returns false, or throws (mysqli_sql_exception) and
     * leaves null: neither has a host. */
    const char *info = NULL;
    const char *host = NULL;
    size_t length = 0;
    if (Z_TYPE_P(return_value) != IS_FALSE && Z_TYPE_P(return_value) != IS_NULL && !Z_ISUNDEF_P(return_value)) {
        info = vesk_mysqli_get_host_info(execute_data);
    }
    if (info != NULL && info[0] != '\0' && vesk_db_host_from_info(info, &host, &length) == 0) {
        php_vesk_db_records_add(&records, PHP_VESK_KV_BINARY, "RemoteHost", host, (int64_t)length);
        if (op == PHP_VESK_MYSQLI_PREPARE || op == PHP_VESK_MYSQLI_STMT_PREPARE) {
            php_vesk_mysqli_keep_query(execute_data, return_value, op);
        }
    }
    if (op == PHP_VESK_MYSQLI_PREPARE || op == PHP_VESK_MYSQLI_STMT_PREPARE) {
        return;
    }
    php_vesk_trace_event("php_mysqli", "exit", records.kv, 0);
}
