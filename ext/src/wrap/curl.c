/*
 * The cURL family: each curl_exec carries an X-Trace request header with the
 * request's context (sampled or not), the X-Trace of the response becomes
 * the exit event's Edge, and a traced request reports the call as a span of
 * layer "cURL".
 *
 * A handle's options cannot be read back, so the ones the header depends on
 * are recorded as the application sets them: its header lines, its header
 * callback, the method. Records hang off the CurlHandle object through weak
 * references: a handle's record goes when the handle is freed (curl_close
 * does nothing on PHP 8, and the handle stays usable after it), the rest go
 * at request end.
 *
 * Never changed for the application: its own X-Trace line wins (any case,
 * also the "X-Trace:" that tells libcurl to send none); its header callback
 * gets every line and its return value reaches libcurl; a header list that
 * PHP could only convert with a warning, and a CURLOPT_WRITEHEADER file,
 * are left alone (no header, or no response Edge, rather than a second
 * warning or a file without headers).
 */
#include "php_corvidine.h"

#include "zend_weakrefs.h"

#include "corvidine/context.h"

#include "src/events/php_vesk_events.h"
#include "src/wrap/outbound_http.h"
#include "src/wrap/wrap.h"

#define PHP_VESK_CURL_LAYER "cURL"
#define PHP_VESK_CURL_HEADER_FUNCTION "_vesk_wrapped_curl_headerfunction"

/* What the application set on one handle. */
typedef struct {
    zval headers;         /* CURLOPT_HTTPHEADER array, or undef */
    zval header_function; /* CURLOPT_HEADERFUNCTION, or undef */
    zend_string *method;  /* null: none recorded ("GET" is reported) */
    zend_bool header_file; /* CURLOPT_WRITEHEADER came after any header function */
    zend_bool has_edge;    /* response_edge holds a response X-Trace of this trace */
    zend_bool hooked;      /* our header callback is the handle's */
    /* The id in the header list the handle has now ("" none we know of):
     * an untraced request sends the same id each time, and the list stays. */
    char sent[VESK_MAX_METADATA_STRING_LEN];
    vesk_metadata_t response_edge;
} php_vesk_curl_handle;

struct php_vesk_curl_request {
    HashTable handles; /* weak-reference key of the CurlHandle -> php_vesk_curl_handle */
    int raw;           /* the agent is setting an option of its own: not the application's */
};

/* Process-wide, written at module start. */
static zend_long php_vesk_opt_httpheader, php_vesk_opt_headerfunction, php_vesk_opt_writeheader,
    php_vesk_opt_post, php_vesk_opt_postfields, php_vesk_opt_httpget, php_vesk_opt_customrequest;
/* CurlHandle, looked up by name: cURL is an optional module, so nothing of
 * it is linked. */
static zend_class_entry *php_vesk_curl_ce;
static zend_function *php_vesk_fn_setopt, *php_vesk_fn_getinfo, *php_vesk_fn_error;
static int php_vesk_curl_ready;

static void php_vesk_curl_handle_free(zval *zv) {
    php_vesk_curl_handle *record = Z_PTR_P(zv);
    zval_ptr_dtor(&record->headers);
    zval_ptr_dtor(&record->header_function);
    if (record->method != NULL) {
        zend_string_release(record->method);
    }
    efree(record);
}

static zend_object *php_vesk_curl_arg(zend_execute_data *execute_data, uint32_t n) {
    if (ZEND_CALL_NUM_ARGS(execute_data) < n) {
        return NULL;
    }
    zval *arg = ZEND_CALL_ARG(execute_data, n);
    ZVAL_DEREF(arg);
    return Z_TYPE_P(arg) == IS_OBJECT && Z_OBJCE_P(arg) == php_vesk_curl_ce ? Z_OBJ_P(arg) : NULL;
}

static php_vesk_curl_handle *php_vesk_curl_find(zend_object *handle) {
    struct php_vesk_curl_request *state = VESK_G(curl);
    return state != NULL ? zend_hash_index_find_ptr(&state->handles, zend_object_to_weakref_key(handle)) : NULL;
}

static php_vesk_curl_handle *php_vesk_curl_record(zend_object *handle) {
    struct php_vesk_curl_request *state = VESK_G(curl);
    if (state == NULL) {
        state = VESK_G(curl) = ecalloc(1, sizeof(*state));
        zend_hash_init(&state->handles, 8, NULL, php_vesk_curl_handle_free, 0);
    }
    php_vesk_curl_handle *record = php_vesk_curl_find(handle);
    if (record == NULL) {
        record = ecalloc(1, sizeof(*record));
        ZVAL_UNDEF(&record->headers);
        ZVAL_UNDEF(&record->header_function);
        zend_weakrefs_hash_add_ptr(&state->handles, handle, record);
    }
    return record;
}

static void php_vesk_curl_forget(zend_object *handle) {
    struct php_vesk_curl_request *state = VESK_G(curl);
    if (state != NULL) {
        zend_weakrefs_hash_del(&state->handles, handle);
    }
}

/* One option the original accepted. */
static void php_vesk_curl_note(zend_object *handle, zend_long option, zval *value) {
    ZVAL_DEREF(value);
    php_vesk_curl_handle *record;
    const char *method = NULL;
    if (option == php_vesk_opt_httpheader) {
        if (Z_TYPE_P(value) != IS_ARRAY) {
            return;
        }
        record = php_vesk_curl_record(handle);
        zval_ptr_dtor(&record->headers);
        ZVAL_COPY(&record->headers, value);
        record->sent[0] = '\0';
        return;
    }
    if (option == php_vesk_opt_headerfunction) {
        record = php_vesk_curl_record(handle);
        zval_ptr_dtor(&record->header_function);
        ZVAL_COPY(&record->header_function, value);
        record->header_file = 0;
        record->hooked = 0;
        return;
    }
    if (option == php_vesk_opt_writeheader) {
        record = php_vesk_curl_record(handle);
        record->header_file = 1;
        record->hooked = 0;
        return;
    }
    if (option == php_vesk_opt_post) {
        method = zend_is_true(value) ? "POST" : NULL;
    } else if (option == php_vesk_opt_postfields) {
        method = "POST";
    } else if (option == php_vesk_opt_httpget) {
        method = "GET";
    } else if (option == php_vesk_opt_customrequest && Z_TYPE_P(value) == IS_STRING) {
        record = php_vesk_curl_record(handle);
        if (record->method != NULL) {
            zend_string_release(record->method);
        }
        record->method = zend_string_copy(Z_STR_P(value));
        return;
    }
    if (method != NULL) {
        record = php_vesk_curl_record(handle);
        if (record->method != NULL) {
            zend_string_release(record->method);
        }
        record->method = zend_string_init(method, strlen(method), 0);
    }
}

/* curl_setopt(CurlHandle $handle, int $option, mixed $value): recorded once
 * the original accepted it. */
void vesk_curl_setopt_out(zend_execute_data *execute_data, zval *return_value, const vesk_metadata_t *entry,
                          intptr_t in_result, const php_vesk_wrap_target *target) {
    (void)entry;
    (void)in_result;
    (void)target;
    zend_object *handle = php_vesk_curl_arg(execute_data, 1);
    if (handle == NULL || (VESK_G(curl) != NULL && VESK_G(curl)->raw) || ZEND_CALL_NUM_ARGS(execute_data) != 3 ||
        Z_TYPE_P(return_value) != IS_TRUE) {
        return;
    }
    zval *option = ZEND_CALL_ARG(execute_data, 2);
    ZVAL_DEREF(option);
    if (Z_TYPE_P(option) == IS_LONG) {
        php_vesk_curl_note(handle, Z_LVAL_P(option), ZEND_CALL_ARG(execute_data, 3));
    }
}

/* curl_setopt_array(CurlHandle $handle, array $options): the original sets
 * them in array order and stops at the first it refuses; all are recorded
 * when it accepted all. */
void vesk_curl_setopt_array_out(zend_execute_data *execute_data, zval *return_value, const vesk_metadata_t *entry,
                                intptr_t in_result, const php_vesk_wrap_target *target) {
    (void)entry;
    (void)in_result;
    (void)target;
    zend_object *handle = php_vesk_curl_arg(execute_data, 1);
    if (handle == NULL || ZEND_CALL_NUM_ARGS(execute_data) != 2 || Z_TYPE_P(return_value) != IS_TRUE) {
        return;
    }
    zval *options = ZEND_CALL_ARG(execute_data, 2);
    ZVAL_DEREF(options);
    if (Z_TYPE_P(options) != IS_ARRAY) {
        return;
    }
    zend_ulong option;
    zend_string *key;
    zval *value;
    ZEND_HASH_FOREACH_KEY_VAL(Z_ARRVAL_P(options), option, key, value) {
        if (key == NULL) {
            php_vesk_curl_note(handle, (zend_long)option, value);
        }
    }
    ZEND_HASH_FOREACH_END();
}

/* curl_reset: the handle is back to its defaults. */
void vesk_curl_reset_out(zend_execute_data *execute_data, zval *return_value, const vesk_metadata_t *entry,
                         intptr_t in_result, const php_vesk_wrap_target *target) {
    (void)return_value;
    (void)entry;
    (void)in_result;
    (void)target;
    zend_object *handle = php_vesk_curl_arg(execute_data, 1);
    if (handle != NULL) {
        php_vesk_curl_forget(handle);
    }
}

/* curl_copy_handle: the copy has the original's options, so it gets a copy
 * of its record too. */
void vesk_curl_copy_handle_out(zend_execute_data *execute_data, zval *return_value, const vesk_metadata_t *entry,
                               intptr_t in_result, const php_vesk_wrap_target *target) {
    (void)entry;
    (void)in_result;
    (void)target;
    zend_object *handle = php_vesk_curl_arg(execute_data, 1);
    php_vesk_curl_handle *from = handle != NULL ? php_vesk_curl_find(handle) : NULL;
    if (from == NULL || Z_TYPE_P(return_value) != IS_OBJECT || Z_OBJCE_P(return_value) != php_vesk_curl_ce) {
        return;
    }
    php_vesk_curl_handle *to = php_vesk_curl_record(Z_OBJ_P(return_value));
    from = php_vesk_curl_find(handle); /* the table may have grown */
    ZVAL_COPY(&to->headers, &from->headers);
    ZVAL_COPY(&to->header_function, &from->header_function);
    to->method = from->method != NULL ? zend_string_copy(from->method) : NULL;
    to->header_file = from->header_file;
    to->hooked = from->hooked;
    memcpy(to->sent, from->sent, sizeof(to->sent));
}

/* Sets an option of the agent's own through the application's curl_setopt,
 * without recording it. */
static int php_vesk_curl_raw_setopt(zend_object *handle, zend_long option, zval *value) {
    zval params[3], result;
    ZVAL_OBJ(&params[0], handle);
    ZVAL_LONG(&params[1], option);
    ZVAL_COPY_VALUE(&params[2], value);
    ZVAL_UNDEF(&result);
    struct php_vesk_curl_request *state = VESK_G(curl);
    state->raw = 1;
    zend_call_known_function(php_vesk_fn_setopt, NULL, NULL, &result, 3, params, NULL);
    state->raw = 0;
    int ok = Z_TYPE(result) == IS_TRUE;
    zval_ptr_dtor(&result);
    return ok ? 0 : -1;
}

/* The request header list: the application's lines and, unless one of them
 * is an X-Trace line, the context's. The record keeps the application's
 * lines only, so each call sends a fresh id. */
static void php_vesk_curl_set_headers(zend_object *handle, php_vesk_curl_handle *record) {
    vesk_metadata_t *context = vesk_context_get();
    char id[VESK_MAX_METADATA_STRING_LEN];
    if (context == NULL || !vesk_metadata_is_valid(context) || vesk_metadata_tostr(context, id, sizeof(id)) != 0 ||
        strcmp(id, record->sent) == 0) {
        return;
    }
    zval list;
    int own = 0;
    array_init(&list);
    if (Z_TYPE(record->headers) == IS_ARRAY) {
        zval *line;
        ZEND_HASH_FOREACH_VAL(Z_ARRVAL(record->headers), line) {
            ZVAL_DEREF(line);
            if (Z_TYPE_P(line) == IS_ARRAY || Z_TYPE_P(line) == IS_OBJECT) {
                /* Converting it again could warn or run user code again. */
                zval_ptr_dtor(&list);
                return;
            }
            if (Z_TYPE_P(line) == IS_STRING && php_vesk_is_xtrace_line(Z_STRVAL_P(line), Z_STRLEN_P(line), ';')) {
                own = 1;
            }
            Z_TRY_ADDREF_P(line);
            zend_hash_next_index_insert_new(Z_ARRVAL(list), line);
        }
        ZEND_HASH_FOREACH_END();
    }
    if (!own) {
        add_next_index_str(&list, zend_strpprintf(0, "X-Trace: %s", id));
    }
    if (php_vesk_curl_raw_setopt(handle, php_vesk_opt_httpheader, &list) == 0) {
        memcpy(record->sent, id, sizeof(id));
    }
    zval_ptr_dtor(&list);
}

intptr_t vesk_curl_exec_in(zend_execute_data *execute_data, zval *return_value, const php_vesk_wrap_target *target) {
    (void)return_value;
    (void)target;
    if (VESK_G(tracing)) {
        int32_t one = 1;
        php_vesk_kv records[] = {
            {PHP_VESK_KV_INT, "IsService", &one, 4},
            {PHP_VESK_KV_STRING, "RemoteController", "php_curl_exec", 0},
            {PHP_VESK_KV_END, NULL, NULL, 0},
        };
        php_vesk_trace_event(PHP_VESK_CURL_LAYER, "entry", records, PHP_VESK_EVENT_BACKTRACE);
    }
    zend_object *handle = php_vesk_curl_arg(execute_data, 1);
    if (!php_vesk_curl_ready || handle == NULL || ZEND_CALL_NUM_ARGS(execute_data) != 1) {
        return 0; /* the original reports a wrong call */
    }
    php_vesk_curl_handle *record = php_vesk_curl_record(handle);
    record->has_edge = 0;
    php_vesk_curl_set_headers(handle, record);
    /* The response's X-Trace only matters to an exit event, and a header
     * callback in PHP costs each response line a call: traced requests only. */
    if (VESK_G(tracing) && !record->header_file && !record->hooked) {
        zval callback;
        ZVAL_STRINGL(&callback, PHP_VESK_CURL_HEADER_FUNCTION, sizeof(PHP_VESK_CURL_HEADER_FUNCTION) - 1);
        record->hooked = php_vesk_curl_raw_setopt(handle, php_vesk_opt_headerfunction, &callback) == 0;
        zval_ptr_dtor(&callback);
    }
    return 0;
}

static zval *php_vesk_info(zval *info, const char *key, int type) {
    zval *value = zend_hash_str_find(Z_ARRVAL_P(info), key, strlen(key));
    return value != NULL && Z_TYPE_P(value) == type ? value : NULL;
}

static void php_vesk_curl_exit_event(zend_object *handle, php_vesk_curl_handle *record, zval *result) {
    php_vesk_kv records[12];
    int n = 0;
    zval info, error, handle_zv;
    zend_string *remote = NULL;
    ZVAL_UNDEF(&info);
    ZVAL_UNDEF(&error);
    ZVAL_OBJ(&handle_zv, handle);
    /* With an exception pending (a header callback threw) no PHP function
     * is called: the exit event goes without the call's details. */
    if (!EG(exception)) {
        zend_call_known_function(php_vesk_fn_getinfo, NULL, NULL, &info, 1, &handle_zv, NULL);
        if (Z_TYPE_P(result) == IS_FALSE && !EG(exception)) {
            zend_call_known_function(php_vesk_fn_error, NULL, NULL, &error, 1, &handle_zv, NULL);
        }
    }
    if (Z_TYPE(info) == IS_ARRAY) {
        zval *url = php_vesk_info(&info, "url", IS_STRING);
        zval *code = php_vesk_info(&info, "http_code", IS_LONG);
        if (url != NULL) {
            remote = php_vesk_remote_url(Z_STR_P(url));
            records[n++] = (php_vesk_kv){PHP_VESK_KV_STRING, "RemoteURL", ZSTR_VAL(remote), 0};
            records[n++] = (php_vesk_kv){PHP_VESK_KV_STRING, "cURL_URL", ZSTR_VAL(remote), 0};
        }
        if (code != NULL) {
            records[n++] = (php_vesk_kv){PHP_VESK_KV_INT, "HTTPStatus", &Z_LVAL_P(code), 8};
            records[n++] = (php_vesk_kv){PHP_VESK_KV_INT, "ResponseCode", &Z_LVAL_P(code), 8};
        }
    }
    records[n++] = (php_vesk_kv){PHP_VESK_KV_STRING, "HTTPMethod",
                                 record != NULL && record->method != NULL ? ZSTR_VAL(record->method) : "GET", 0};
    if (Z_TYPE(info) == IS_ARRAY) {
        zval *start = php_vesk_info(&info, "starttransfer_time", IS_DOUBLE);
        zval *up = php_vesk_info(&info, "size_upload", IS_DOUBLE);
        zval *down = php_vesk_info(&info, "size_download", IS_DOUBLE);
        if (start != NULL) {
            records[n++] = (php_vesk_kv){PHP_VESK_KV_DOUBLE, "PreDownloadTime", &Z_DVAL_P(start), 8};
        }
        if (up != NULL) {
            records[n++] = (php_vesk_kv){PHP_VESK_KV_DOUBLE, "BytesUploaded", &Z_DVAL_P(up), 8};
        }
        if (down != NULL) {
            records[n++] = (php_vesk_kv){PHP_VESK_KV_DOUBLE, "BytesDownloaded", &Z_DVAL_P(down), 8};
        }
    }
    if (Z_TYPE(error) == IS_STRING && Z_STRLEN(error) > 0) {
        records[n++] = (php_vesk_kv){PHP_VESK_KV_STRING, "cURL_Error", Z_STRVAL(error), 0};
    }
    if (record != NULL && record->has_edge) {
        records[n++] = (php_vesk_kv){PHP_VESK_KV_EDGE, "Edge", &record->response_edge, 0};
    }
    records[n] = (php_vesk_kv){PHP_VESK_KV_END, NULL, NULL, 0};
    php_vesk_trace_event(PHP_VESK_CURL_LAYER, "exit", records, 0);
    if (remote != NULL) {
        zend_string_release(remote);
    }
    zval_ptr_dtor(&info);
    zval_ptr_dtor(&error);
}

void vesk_curl_exec_out(zend_execute_data *execute_data, zval *return_value, const vesk_metadata_t *entry,
                        intptr_t in_result, const php_vesk_wrap_target *target) {
    (void)in_result;
    (void)target;
    if (entry == NULL) {
        return; /* untraced: the header went out, no events */
    }
    zend_object *handle = php_vesk_curl_arg(execute_data, 1);
    if (handle == NULL || ZEND_CALL_NUM_ARGS(execute_data) != 1) {
        php_vesk_trace_event(PHP_VESK_CURL_LAYER, "exit", NULL, 0);
        return;
    }
    php_vesk_curl_exit_event(handle, php_vesk_curl_find(handle), return_value);
}

/* The first response X-Trace naming this trace is the remote side's exit
 * (redirects and hostile servers may send more). */
static void php_vesk_curl_response_line(php_vesk_curl_handle *record, const char *line, size_t length) {
    vesk_metadata_t edge;
    if (!record->has_edge && php_vesk_response_edge(line, length, 0, &edge)) {
        record->response_edge = edge;
        record->has_edge = 1;
    }
}

/* The header callback the agent installs: (CurlHandle $handle, string $line).
 * libcurl ends the transfer unless it gets the line's length back; that is
 * the answer unless the application's own callback gives one. */
static ZEND_NAMED_FUNCTION(zif__vesk_wrapped_curl_headerfunction) {
    uint32_t argc = ZEND_CALL_NUM_ARGS(execute_data);
    zval *line = argc >= 2 ? ZEND_CALL_ARG(execute_data, 2) : NULL;
    zend_object *handle = php_vesk_curl_arg(execute_data, 1);
    if (line == NULL || Z_TYPE_P(line) != IS_STRING) {
        RETURN_LONG(0);
    }
    RETVAL_LONG((zend_long)Z_STRLEN_P(line));
    php_vesk_curl_handle *record = handle != NULL ? php_vesk_curl_find(handle) : NULL;
    if (record == NULL) {
        return;
    }
    php_vesk_curl_response_line(record, Z_STRVAL_P(line), Z_STRLEN_P(line));
    if (Z_ISUNDEF(record->header_function)) {
        return;
    }
    /* The callback may replace itself (curl_setopt) while it runs. */
    zval callback, result;
    ZVAL_COPY(&callback, &record->header_function);
    ZVAL_UNDEF(&result);
    zend_fcall_info fci = {sizeof(fci), callback, &result, ZEND_CALL_ARG(execute_data, 1), NULL, argc, NULL};
    if (zend_call_function(&fci, NULL) == SUCCESS) {
        if (!Z_ISUNDEF(result)) {
            zval_ptr_dtor(return_value);
            ZVAL_COPY_VALUE(return_value, &result);
        }
    } else {
        /* What libcurl's caller does when it cannot call the callback. */
        php_error_docref(NULL, E_WARNING, "Could not call the CURLOPT_HEADERFUNCTION");
        RETVAL_LONG(-1);
    }
    zval_ptr_dtor(&callback);
}

ZEND_BEGIN_ARG_INFO_EX(arginfo_vesk_curl_headerfunction, 0, 0, 2)
ZEND_ARG_INFO(0, handle)
ZEND_ARG_INFO(0, line)
ZEND_END_ARG_INFO()

static const zend_function_entry php_vesk_curl_functions[] = {
    ZEND_RAW_FENTRY(PHP_VESK_CURL_HEADER_FUNCTION, zif__vesk_wrapped_curl_headerfunction,
                    arginfo_vesk_curl_headerfunction, 0) PHP_FE_END};

static zend_long php_vesk_curl_constant(const char *name) {
    zval *value = zend_get_constant_str(name, strlen(name));
    return value != NULL && Z_TYPE_P(value) == IS_LONG ? Z_LVAL_P(value) : -1;
}

void php_vesk_curl_minit(void) {
    if (!zend_hash_str_exists(&module_registry, ZEND_STRL("curl"))) {
        return;
    }
    php_vesk_opt_httpheader = php_vesk_curl_constant("CURLOPT_HTTPHEADER");
    php_vesk_opt_headerfunction = php_vesk_curl_constant("CURLOPT_HEADERFUNCTION");
    php_vesk_opt_writeheader = php_vesk_curl_constant("CURLOPT_WRITEHEADER");
    php_vesk_opt_post = php_vesk_curl_constant("CURLOPT_POST");
    php_vesk_opt_postfields = php_vesk_curl_constant("CURLOPT_POSTFIELDS");
    php_vesk_opt_httpget = php_vesk_curl_constant("CURLOPT_HTTPGET");
    php_vesk_opt_customrequest = php_vesk_curl_constant("CURLOPT_CUSTOMREQUEST");
    php_vesk_curl_ce = zend_hash_str_find_ptr(CG(class_table), ZEND_STRL("curlhandle"));
    php_vesk_fn_setopt = zend_hash_str_find_ptr(CG(function_table), ZEND_STRL("curl_setopt"));
    php_vesk_fn_getinfo = zend_hash_str_find_ptr(CG(function_table), ZEND_STRL("curl_getinfo"));
    php_vesk_fn_error = zend_hash_str_find_ptr(CG(function_table), ZEND_STRL("curl_error"));
    if (php_vesk_curl_ce != NULL && php_vesk_fn_setopt != NULL && php_vesk_fn_getinfo != NULL && php_vesk_fn_error != NULL &&
        zend_register_functions(NULL, php_vesk_curl_functions, NULL, MODULE_PERSISTENT) == SUCCESS) {
        php_vesk_curl_ready = 1;
    }
}

void php_vesk_curl_mshutdown(void) {
    if (php_vesk_curl_ready) {
        zend_unregister_functions(php_vesk_curl_functions, -1, NULL);
        php_vesk_curl_ready = 0;
    }
}

/* Records of handles still alive leave their weak references first, so
 * that freeing those handles later finds nothing of ours. */
void php_vesk_curl_request_end(void) {
    struct php_vesk_curl_request *state = VESK_G(curl);
    if (state == NULL) {
        return;
    }
    zend_ulong key;
    while (zend_hash_num_elements(&state->handles) > 0) {
        zend_hash_internal_pointer_reset(&state->handles);
        zend_hash_get_current_key(&state->handles, NULL, &key);
        zend_weakrefs_hash_del(&state->handles, zend_weakref_key_to_object(key));
    }
    zend_hash_destroy(&state->handles);
    efree(state);
    VESK_G(curl) = NULL;
}
