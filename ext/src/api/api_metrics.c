/* The user API's custom metrics: corvidine_metric_summary() and
 * corvidine_metric_increment(), handed to the core. */
#include "php_corvidine.h"

#include <limits.h>

#include "corvidine/custom_metric.h"

#include "src/api/api.h"
#include "src/lifecycle/module.h"

/* The tags array as {key, value} pairs. Integer keys and scalar values are
 * taken in their string form (kept in `strings`); an element whose value is
 * no scalar is skipped. The caller efree()s the pairs (null when count is 0)
 * and releases `strings`. */
static vesk_metric_tag_t *php_vesk_get_metric_tags(HashTable *tags, zval *strings, size_t *count) {
    array_init(strings);
    *count = 0;
    uint32_t size = zend_hash_num_elements(tags);
    if (size == 0) {
        return NULL;
    }
    vesk_metric_tag_t *pairs = safe_emalloc(size, sizeof(*pairs), 0);
    zend_string *key;
    zend_ulong index;
    zval *value;
    ZEND_HASH_FOREACH_KEY_VAL_IND(tags, index, key, value) {
        ZVAL_DEREF(value);
        if (Z_TYPE_P(value) < IS_FALSE || Z_TYPE_P(value) > IS_STRING) {
            continue;
        }
        zval held;
        if (key == NULL) {
            ZVAL_STR(&held, zend_long_to_str((zend_long)index));
            zend_hash_next_index_insert_new(Z_ARRVAL_P(strings), &held);
        }
        const char *key_text = key != NULL ? ZSTR_VAL(key) : Z_STRVAL(held);
        const char *value_text;
        if (Z_TYPE_P(value) == IS_STRING) {
            value_text = Z_STRVAL_P(value);
        } else {
            ZVAL_STR(&held, zval_get_string(value));
            zend_hash_next_index_insert_new(Z_ARRVAL_P(strings), &held);
            value_text = Z_STRVAL(held);
        }
        pairs[*count].key = key_text;
        pairs[*count].value = value_text;
        (*count)++;
    }
    ZEND_HASH_FOREACH_END();
    return pairs;
}

static int php_vesk_metric_count(zend_long count) {
    return count > INT_MAX ? INT_MAX : count < INT_MIN ? INT_MIN : (int)count;
}

/* Both functions: the name check, the tags, then the core's call. */
static void php_vesk_custom_metric(zval *return_value, zend_string *name, int summary, double value,
                                   zend_long count, zend_bool host_tag, zend_string *service, HashTable *tags) {
    if (ZSTR_LEN(name) == 0) {
        zend_error(E_WARNING, "%s() expects name to not be an empty string", get_active_function_name());
        RETURN_FALSE;
    }
    /* Without a started core there is no reporter to take it (and asking
     * would set one up). */
    if (php_vesk_module_state_get() != PHP_VESK_STARTED) {
        RETURN_FALSE;
    }
    const char *service_name = service != NULL ? ZSTR_VAL(service) : NULL; /* the core takes "" as none */
    zval strings;
    size_t tag_count = 0;
    vesk_metric_tag_t *pairs = NULL;
    ZVAL_UNDEF(&strings);
    if (tags != NULL) {
        pairs = php_vesk_get_metric_tags(tags, &strings, &tag_count);
    }
    int accepted =
        summary ? vesk_custom_metric_summary(ZSTR_VAL(name), value, php_vesk_metric_count(count), host_tag,
                                             service_name, pairs, tag_count)
                : vesk_custom_metric_increment(ZSTR_VAL(name), php_vesk_metric_count(count), host_tag, service_name,
                                               pairs, tag_count);
    if (pairs != NULL) {
        efree(pairs);
    }
    zval_ptr_dtor(&strings);
    RETURN_BOOL(accepted != 0);
}

PHP_FUNCTION(corvidine_metric_summary) {
    zend_string *name, *service = NULL;
    double value;
    zend_long count = 1;
    zend_bool host_tag = 0;
    HashTable *tags = NULL;
    if (zend_parse_parameters(ZEND_NUM_ARGS(), "Sd|lbS!h!", &name, &value, &count, &host_tag, &service, &tags) ==
        FAILURE) {
        RETURN_THROWS();
    }
    php_vesk_custom_metric(return_value, name, 1, value, count, host_tag, service, tags);
}

PHP_FUNCTION(corvidine_metric_increment) {
    zend_string *name, *service = NULL;
    zend_long count = 1;
    zend_bool host_tag = 0;
    HashTable *tags = NULL;
    if (zend_parse_parameters(ZEND_NUM_ARGS(), "S|lbS!h!", &name, &count, &host_tag, &service, &tags) == FAILURE) {
        RETURN_THROWS();
    }
    php_vesk_custom_metric(return_value, name, 0, 0.0, count, host_tag, service, tags);
}
