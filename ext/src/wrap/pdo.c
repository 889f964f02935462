/*
 * The PDO family: PDO::exec, query, commit and rollBack, and
 * PDOStatement::execute, as entry and exit events of layer "php_pdo" with
 * the driver's name as "Flavor", the query, the connection's host and, when
 * sanitizing is off, the values bound to a statement.
 *
 * The connection and statement records are PDO's own (php_pdo_driver.h);
 * nothing of PDO is linked, so this module loads without PDO too.
 */
#include "php_corvidine.h"

#include "ext/pdo/php_pdo_driver.h"

#include "corvidine/db_host.h"

#include "src/events/php_vesk_events.h"
#include "src/wrap/database.h"
#include "src/wrap/wrap.h"

/* PDO's attribute number of the connection status (PDO_ATTR_CONNECTION_STATUS). */
#define PHP_VESK_PDO_CONNECTION_STATUS 7

static const struct {
    const char *function;
    const char *literal; /* "": the query is an argument */
} php_vesk_pdo_ops[] = {
    [PHP_VESK_PDO_EXEC] = {"exec", ""},
    [PHP_VESK_PDO_QUERY] = {"query", ""},
    [PHP_VESK_PDO_COMMIT] = {"commit", "COMMIT"},
    [PHP_VESK_PDO_ROLLBACK] = {"rollback", "ROLLBACK"},
    [PHP_VESK_PDO_STMT_EXECUTE] = {"execute", NULL},
};

static pdo_dbh_t *php_vesk_pdo_dbh(zend_execute_data *execute_data) {
    zval *self = getThis();
    return php_vesk_db_instance_of(self, ZEND_STRL("pdo")) ? Z_PDO_DBH_P(self) : NULL;
}

static pdo_stmt_t *php_vesk_pdo_stmt(zend_execute_data *execute_data) {
    zval *self = getThis();
    return php_vesk_db_instance_of(self, ZEND_STRL("pdostatement")) ? Z_PDO_STMT_P(self) : NULL;
}

static const char *php_vesk_pdo_driver_name(const pdo_dbh_t *dbh) {
    return dbh != NULL && dbh->driver != NULL && dbh->driver->driver_name != NULL ? dbh->driver->driver_name : NULL;
}

/* The host of a connection, as a string of the request heap (efree), or
 * null: MySQL's connection status, SQLite's file name, or else the host in
 * the data source. */
static char *pdo_get_hostname(pdo_dbh_t *dbh) {
    const char *driver = php_vesk_pdo_driver_name(dbh);
    const char *host;
    size_t length;
    if (driver != NULL && strcmp(driver, "mysql") == 0 && dbh->methods != NULL && dbh->methods->get_attribute != NULL) {
        zval status;
        ZVAL_UNDEF(&status);
        char *found = NULL;
        if (dbh->methods->get_attribute(dbh, PHP_VESK_PDO_CONNECTION_STATUS, &status) > 0 &&
            Z_TYPE(status) == IS_STRING && Z_STRLEN(status) > 0 &&
            vesk_db_host_from_info(Z_STRVAL(status), &host, &length) == 0) {
            found = estrndup(host, length);
        }
        zval_ptr_dtor(&status);
        if (found != NULL) {
            return found;
        }
    }
    if (dbh == NULL || dbh->data_source == NULL) {
        return NULL;
    }
    if (driver != NULL && strcmp(driver, "sqlite") == 0) {
        return estrndup(dbh->data_source, dbh->data_source_len);
    }
    if (vesk_db_host_from_dsn(dbh->data_source, dbh->data_source_len, &host, &length) == 0) {
        return estrndup(host, length);
    }
    return NULL;
}

/* Function, Flavor and (when given) the query; then the entry event. */
static void php_vesk_pdo_entry(pdo_dbh_t *dbh, int op, const char *text, size_t length) {
    const char *driver = php_vesk_pdo_driver_name(dbh);
    php_vesk_db_records records;
    php_vesk_db_query query = {NULL, 0};
    php_vesk_db_records_init(&records);
    php_vesk_db_records_add(&records, PHP_VESK_KV_STRING, "Function", php_vesk_pdo_ops[op].function, 0);
    if (driver != NULL) {
        php_vesk_db_records_add(&records, PHP_VESK_KV_STRING, "Flavor", driver, 0);
    }
    if (text != NULL) {
        php_vesk_db_query_capture(&query, text, length, driver);
        php_vesk_db_records_add(&records, PHP_VESK_KV_BINARY, "Query", query.text, (int64_t)query.length);
    }
    php_vesk_trace_event("php_pdo", "entry", records.kv, PHP_VESK_EVENT_BACKTRACE);
    php_vesk_db_query_free(&query);
}

intptr_t vesk_pdo_in(zend_execute_data *execute_data, zval *return_value, const php_vesk_wrap_target *target) {
    if (!VESK_G(tracing)) {
        return 0;
    }
    const char *text = NULL;
    size_t length = 0;
    const char *literal = php_vesk_pdo_ops[target->data].literal;
    if (literal != NULL && vesk_mysqli_get_query(execute_data, return_value, literal, &text, &length) != 0) {
        text = NULL;
    }
    php_vesk_pdo_entry(php_vesk_pdo_dbh(execute_data), (int)target->data, text, length);
    return 0;
}

intptr_t vesk_pdostatement_in(zend_execute_data *execute_data, zval *return_value,
                              const php_vesk_wrap_target *target) {
    (void)return_value;
    if (!VESK_G(tracing)) {
        return 0;
    }
    pdo_stmt_t *stmt = php_vesk_pdo_stmt(execute_data);
    zend_string *query = stmt != NULL ? stmt->query_string : NULL;
    php_vesk_pdo_entry(stmt != NULL ? stmt->dbh : NULL, (int)target->data, query != NULL ? ZSTR_VAL(query) : NULL,
                       query != NULL ? ZSTR_LEN(query) : 0);
    return 0;
}

/* Edge, RemoteHost when asked for and found, QueryArgs when given; then the
 * exit event. */
static void php_vesk_pdo_exit(const vesk_metadata_t *entry, pdo_dbh_t *dbh, HashTable *bound) {
    php_vesk_db_records records;
    php_vesk_db_args args = {0};
    php_vesk_db_records_init(&records);
    if (entry != NULL) {
        php_vesk_db_records_add(&records, PHP_VESK_KV_EDGE, "Edge", entry, 0);
    }
    char *host = dbh != NULL ? pdo_get_hostname(dbh) : NULL;
    if (host != NULL) {
        php_vesk_db_records_add(&records, PHP_VESK_KV_STRING, "RemoteHost", host, 0);
    }
    if (bound != NULL) {
        zval list;
        struct pdo_bound_param_data *param;
        array_init_size(&list, zend_hash_num_elements(bound));
        ZEND_HASH_FOREACH_PTR(bound, param) {
            php_vesk_db_list_add(&list, &param->parameter);
        }
        ZEND_HASH_FOREACH_END();
        php_vesk_db_args_make(&args, &list);
        zval_ptr_dtor(&list);
        if (args.made) {
            php_vesk_db_records_add(&records, PHP_VESK_KV_BSON, "QueryArgs", &args.document, 0);
        }
    }
    php_vesk_trace_event("php_pdo", "exit", records.kv, 0);
    if (bound != NULL) {
        php_vesk_db_args_free(&args);
    }
    if (host != NULL) {
        efree(host);
    }
}

void vesk_pdo_out(zend_execute_data *execute_data, zval *return_value, const vesk_metadata_t *entry,
                  intptr_t in_result, const php_vesk_wrap_target *target) {
    (void)in_result;
    (void)target;
    if (!VESK_G(tracing)) {
        return;
    }
    /* A failed call returns false, or throws (its return value is then not
     * set): neither has a host. */
    int failed = EG(exception) != NULL || Z_TYPE_P(return_value) == IS_FALSE || Z_ISUNDEF_P(return_value);
    php_vesk_pdo_exit(entry, failed ? NULL : php_vesk_pdo_dbh(execute_data), NULL);
}

void vesk_pdostatement_out(zend_execute_data *execute_data, zval *return_value, const vesk_metadata_t *entry,
                           intptr_t in_result, const php_vesk_wrap_target *target) {
    (void)return_value;
    (void)in_result;
    (void)target;
    if (!VESK_G(tracing)) {
        return;
    }
    /* What execute returned does not matter here: the statement's
     * connection and bound values are what is reported. */
    pdo_stmt_t *stmt = php_vesk_pdo_stmt(execute_data);
    pdo_dbh_t *dbh = stmt != NULL ? stmt->dbh : NULL;
    HashTable *bound = dbh != NULL && !php_vesk_db_sanitizing() && stmt->bound_params != NULL &&
                               zend_hash_num_elements(stmt->bound_params) > 0
                           ? stmt->bound_params
                           : NULL;
    php_vesk_pdo_exit(entry, dbh, bound);
}
