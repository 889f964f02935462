/*
 * Helpers of the database wrappers (see database.h).
 */
#include "php_corvidine.h"

#include "zend_exceptions.h"

#include "corvidine/sql_sanitizer.h"

#include "src/wrap/database.h"

uint32_t get_sql_sanitizer_flags(const char *database) {
    return vesk_sql_sanitizer_flags(VESK_G(enable_sanitize_sql), database);
}

int php_vesk_db_sanitizing(void) {
    return vesk_sql_sanitize_enabled(VESK_G(enable_sanitize_sql));
}

int vesk_mysqli_get_query(zend_execute_data *execute_data, zval *return_value, const char *literal,
                          const char **query, size_t *length) {
    (void)return_value;
    if (literal != NULL && literal[0] != '\0') {
        *query = literal;
        *length = strlen(literal);
        return 0;
    }
    uint32_t argc = ZEND_CALL_NUM_ARGS(execute_data);
    if (argc < (getThis() != NULL ? 1u : 2u)) {
        return -1;
    }
    for (uint32_t i = 1; i <= 2 && i <= argc; i++) {
        zval *arg = ZEND_CALL_ARG(execute_data, i);
        ZVAL_DEREF(arg);
        if (Z_TYPE_P(arg) == IS_STRING) {
            *query = Z_STRVAL_P(arg);
            *length = Z_STRLEN_P(arg);
            return 0;
        }
    }
    return -1;
}

void php_vesk_db_query_capture(php_vesk_db_query *query, const char *text, size_t length, const char *database) {
    query->text = emalloc(length + 1);
    memcpy(query->text, text, length);
    query->text[length] = '\0';
    query->length = length;
    if (php_vesk_db_sanitizing()) {
        int64_t sanitized = vesk_sanitize_sql(query->text, length, get_sql_sanitizer_flags(database));
        query->length = sanitized > 0 ? (size_t)sanitized : 0;
    }
    if (query->length > PHP_VESK_DB_QUERY_MAX) {
        query->length = PHP_VESK_DB_QUERY_MAX;
    }
}

void php_vesk_db_query_free(php_vesk_db_query *query) {
    if (query->text != NULL) {
        efree(query->text);
        query->text = NULL;
    }
}

void php_vesk_db_list_add(zval *list, zval *value) {
    ZVAL_DEINDIRECT(value);
    ZVAL_DEREF(value);
    if (Z_TYPE_P(value) != IS_UNDEF) {
        Z_TRY_ADDREF_P(value);
        add_next_index_zval(list, value);
    }
}

void php_vesk_db_args_make(php_vesk_db_args *args, zval *list) {
    /* A failed call (PDO's exception mode) still reports what it was given:
     * the writer stops at a pending exception, so that one waits aside. The
     * writer runs no PHP code, so nothing else can be thrown meanwhile. */
    zend_object *pending = EG(exception);
    EG(exception) = NULL;
    vesk_php_mongo_buffer_init(&args->buffer);
    args->made = vesk_zval_to_bson(&args->buffer, Z_ARRVAL_P(list), IS_ARRAY) >= 0;
    if (EG(exception) != NULL) {
        zend_object *thrown = EG(exception);
        EG(exception) = NULL;
        OBJ_RELEASE(thrown);
    }
    EG(exception) = pending;
    args->document.data = args->buffer.start;
    args->document.owned = 0;
}

void php_vesk_db_args_free(php_vesk_db_args *args) {
    vesk_php_mongo_buffer_free(&args->buffer);
    args->made = 0;
}

void php_vesk_db_records_init(php_vesk_db_records *records) {
    memset(records, 0, sizeof(*records));
}

void php_vesk_db_records_add(php_vesk_db_records *records, int32_t type, const char *key, const void *value,
                             int64_t length) {
    if (records->count < PHP_VESK_DB_RECORDS) {
        records->kv[records->count++] = (php_vesk_kv){type, key, value, length};
    }
}

int php_vesk_db_instance_of(zval *object, const char *lc_class, size_t length) {
    if (object == NULL || Z_TYPE_P(object) != IS_OBJECT) {
        return 0;
    }
    zend_class_entry *ce = zend_hash_str_find_ptr(CG(class_table), lc_class, length);
    return ce != NULL && instanceof_function(Z_OBJCE_P(object), ce);
}
