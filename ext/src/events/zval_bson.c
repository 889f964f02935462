/* PHP arrays and objects as BSON documents, and small zval helpers. */
#include "php_corvidine.h"

#include "zend_exceptions.h"

#include "corvidine/utf8.h"

#include "src/events/php_vesk_events.h"

/* BSON type bytes written here. */
#define VESK_BSON_DOUBLE 0x01
#define VESK_BSON_STRING 0x02
#define VESK_BSON_DOCUMENT 0x03
#define VESK_BSON_ARRAY 0x04
#define VESK_BSON_BOOL 0x08
#define VESK_BSON_NULL 0x0A
#define VESK_BSON_INT64 0x12

/* One walk of vesk_zval_to_bson: where the outermost document starts, how
 * many documents are open (each still owes its closing byte) and whether the
 * size limit stopped the walk. */
typedef struct vesk_bson_walk {
    vesk_php_mongo_buffer *buffer;
    size_t top;
    int open;
    int full;
} vesk_bson_walk;

void vesk_php_mongo_buffer_init(vesk_php_mongo_buffer *buffer) {
    buffer->start = emalloc(VESK_PHP_MONGO_INITIAL_SIZE);
    buffer->cursor = buffer->start;
    buffer->end = buffer->start + VESK_PHP_MONGO_INITIAL_SIZE;
}

void vesk_php_mongo_buffer_free(vesk_php_mongo_buffer *buffer) {
    if (buffer->start != NULL) {
        efree(buffer->start);
    }
    buffer->start = buffer->cursor = buffer->end = NULL;
}

/* Doubling keeps small documents cheap; past 1 MB the block grows in 1 KB
 * steps so that a big document does not take twice its size. */
static void vesk_mongo_reserve(vesk_php_mongo_buffer *buffer, size_t needed) {
    if ((size_t)(buffer->end - buffer->cursor) >= needed) {
        return;
    }
    size_t used = (size_t)(buffer->cursor - buffer->start);
    size_t total = (size_t)(buffer->end - buffer->start);
    total = total < VESK_PHP_MONGO_GROW_SLOWLY ? total * 2 : total + VESK_PHP_MONGO_INITIAL_SIZE;
    while (total - used < needed) {
        total += needed;
    }
    buffer->start = erealloc(buffer->start, total);
    buffer->cursor = buffer->start + used;
    buffer->end = buffer->start + total;
}

static zend_always_inline void vesk_mongo_put(vesk_php_mongo_buffer *buffer, const void *bytes,
                                              size_t length) {
    memcpy(buffer->cursor, bytes, length);
    buffer->cursor += length;
}

static zend_always_inline void vesk_mongo_put_int32(vesk_php_mongo_buffer *buffer, int32_t value) {
    /* BSON is little-endian, as is every platform this builds for. */
    vesk_mongo_put(buffer, &value, 4);
}

/* Room for an element of `size` bytes (type, key, fixed payload) that opens
 * `opens` documents, within the size limit: every open document still needs
 * its closing byte. Sets full and fails when the element does not fit. */
static int vesk_bson_room(vesk_bson_walk *walk, size_t size, int opens) {
    size_t used = (size_t)(walk->buffer->cursor - walk->buffer->start) - walk->top;
    if (used + size + (size_t)(walk->open + opens) > VESK_PHP_BSON_MAX_SIZE) {
        walk->full = 1;
        return 0;
    }
    vesk_mongo_reserve(walk->buffer, size + 1);
    return 1;
}

/* Element key: integer keys in decimal, string keys up to their first NUL
 * (BSON keys are C strings). Property tables hold private and protected
 * names as "\0Class\0name"; those are written as "name". */
static const char *vesk_bson_key(zend_string *str_key, zend_ulong num_key, int type, char *digits,
                                 size_t digits_size, size_t *key_len) {
    const char *key;
    if (str_key == NULL) {
        key = zend_print_long_to_buf(digits + digits_size - 1, (zend_long)num_key);
        *key_len = (size_t)(digits + digits_size - 1 - key);
        return key;
    }
    key = ZSTR_VAL(str_key);
    if (type == IS_OBJECT && ZSTR_LEN(str_key) > 0 && key[0] == '\0') {
        const char *class_name, *prop_name;
        size_t prop_len;
        if (zend_unmangle_property_name_ex(str_key, &class_name, &prop_name, &prop_len) == SUCCESS) {
            key = prop_name;
        }
    }
    *key_len = strlen(key);
    return key;
}

/* PHP strings are bytes; BSON keys and strings are UTF-8, or a strict reader
 * refuses the whole document. Bytes just written that are not part of a valid
 * sequence become '?' (the NUL that follows them is written over too). */
static void vesk_bson_repair(char *written, size_t length) {
    if (vesk_utf8_valid_prefix(written, length) != length) {
        vesk_utf8_sanitize(written, length, written);
    }
}

static void vesk_bson_head(vesk_php_mongo_buffer *buffer, char type, const char *key, size_t key_len) {
    *buffer->cursor++ = type;
    vesk_mongo_put(buffer, key, key_len);
    vesk_bson_repair(buffer->cursor - key_len, key_len);
    *buffer->cursor++ = '\0';
}

static int vesk_bson_elements(vesk_bson_walk *walk, HashTable *table, int type, int depth, int *elements);

/* A nested array or object. The type byte of an array is written as 3 and
 * turned into 4 once its keys turn out to be 0, 1, 2, ...; a container that
 * is already being walked (a reference cycle) or that sits too deep becomes
 * a null. Returns -1 when an exception stopped the walk. */
static int vesk_bson_container(vesk_bson_walk *walk, zval *value, const char *key, size_t key_len,
                               int depth) {
    vesk_php_mongo_buffer *buffer = walk->buffer;
    zend_object *object = NULL;
    HashTable *table = NULL;

    if (Z_TYPE_P(value) == IS_OBJECT) {
        object = Z_OBJ_P(value);
        if (!GC_IS_RECURSIVE(object) && depth < VESK_PHP_BSON_MAX_NESTING) {
            table = object->handlers->get_properties(object);
        }
    } else {
        table = Z_ARRVAL_P(value);
    }
    /* Immutable arrays are shared read-only memory and can't hold a cycle. */
    int guard = table != NULL && !(GC_FLAGS(table) & GC_IMMUTABLE);
    if (table == NULL || depth >= VESK_PHP_BSON_MAX_NESTING || (guard && GC_IS_RECURSIVE(table))) {
        if (vesk_bson_room(walk, key_len + 2, 0)) {
            vesk_bson_head(buffer, VESK_BSON_NULL, key, key_len);
        }
        return 0;
    }
    /* The element's head and the 5 bytes of an empty document. */
    if (!vesk_bson_room(walk, key_len + 2 + 5, 1)) {
        return 0;
    }
    size_t type_at = (size_t)(buffer->cursor - buffer->start);
    vesk_bson_head(buffer, VESK_BSON_DOCUMENT, key, key_len);

    if (object != NULL) {
        GC_PROTECT_RECURSION(object);
    }
    if (guard) {
        GC_PROTECT_RECURSION(table);
    }
    int elements = 0;
    int count = vesk_bson_elements(walk, table, object != NULL ? IS_OBJECT : IS_ARRAY, depth + 1, &elements);
    if (guard) {
        GC_UNPROTECT_RECURSION(table);
    }
    if (object != NULL) {
        GC_UNPROTECT_RECURSION(object);
    }
    if (object == NULL && count == elements) {
        buffer->start[type_at] = VESK_BSON_ARRAY;
    }
    return count < 0 ? -1 : 0;
}

/* Writes one document: length, elements, closing byte, then the length
 * patched in. Returns the count of elements whose integer key was the next
 * integer; *elements receives how many elements were written. */
static int vesk_bson_elements(vesk_bson_walk *walk, HashTable *table, int type, int depth, int *elements) {
    vesk_php_mongo_buffer *buffer = walk->buffer;
    zend_string *str_key;
    zend_ulong num_key;
    zval *value;
    char digits[24];
    int count = 0, written = 0, failed = 0;

    size_t start = (size_t)(buffer->cursor - buffer->start);
    vesk_mongo_reserve(buffer, 5);
    buffer->cursor += 4;
    walk->open++;

    ZEND_HASH_FOREACH_KEY_VAL(table, num_key, str_key, value) {
        if (EG(exception)) {
            failed = 1;
            break;
        }
        if (walk->full) {
            break;
        }
        ZVAL_DEINDIRECT(value);
        ZVAL_DEREF(value);

        size_t key_len;
        const char *key = vesk_bson_key(str_key, num_key, type, digits, sizeof(digits), &key_len);
        size_t head = key_len + 2;
        int is_next = str_key == NULL && (zend_long)num_key == count;

        switch (Z_TYPE_P(value)) {
            case IS_NULL:
                if (!vesk_bson_room(walk, head, 0)) continue;
                vesk_bson_head(buffer, VESK_BSON_NULL, key, key_len);
                break;
            case IS_FALSE:
            case IS_TRUE:
                if (!vesk_bson_room(walk, head + 1, 0)) continue;
                vesk_bson_head(buffer, VESK_BSON_BOOL, key, key_len);
                *buffer->cursor++ = Z_TYPE_P(value) == IS_TRUE ? 1 : 0;
                break;
            case IS_LONG:
            case IS_RESOURCE: {
                int64_t number =
                    Z_TYPE_P(value) == IS_LONG ? (int64_t)Z_LVAL_P(value) : (int64_t)Z_RES_HANDLE_P(value);
                if (!vesk_bson_room(walk, head + 8, 0)) continue;
                vesk_bson_head(buffer, VESK_BSON_INT64, key, key_len);
                vesk_mongo_put(buffer, &number, 8);
                break;
            }
            case IS_DOUBLE: {
                double number = Z_DVAL_P(value);
                if (!vesk_bson_room(walk, head + 8, 0)) continue;
                vesk_bson_head(buffer, VESK_BSON_DOUBLE, key, key_len);
                vesk_mongo_put(buffer, &number, 8);
                break;
            }
            case IS_STRING: {
                /* Cut at a character boundary, never inside one. */
                size_t length = vesk_utf8_cut(Z_STRVAL_P(value), Z_STRLEN_P(value), VESK_PHP_BSON_MAX_STRING);
                if (!vesk_bson_room(walk, head + 4 + length + 1, 0)) continue;
                vesk_bson_head(buffer, VESK_BSON_STRING, key, key_len);
                vesk_mongo_put_int32(buffer, (int32_t)(length + 1));
                vesk_mongo_put(buffer, Z_STRVAL_P(value), length);
                vesk_bson_repair(buffer->cursor - length, length);
                *buffer->cursor++ = '\0';
                break;
            }
            case IS_ARRAY:
            case IS_OBJECT: {
                char *before = buffer->cursor;
                if (vesk_bson_container(walk, value, key, key_len, depth) < 0) {
                    failed = 1;
                }
                if (buffer->cursor == before) {
                    continue; /* left out: no room */
                }
                break;
            }
            default:
                /* Undefined slots and anything unknown are left out. */
                continue;
        }
        written++;
        if (is_next) {
            count++;
        }
        if (failed) {
            break;
        }
    }
    ZEND_HASH_FOREACH_END();

    /* Room for the closing byte was kept by every element written. */
    vesk_mongo_reserve(buffer, 1);
    *buffer->cursor++ = '\0';
    walk->open--;
    int32_t size = (int32_t)((size_t)(buffer->cursor - buffer->start) - start);
    memcpy(buffer->start + start, &size, 4);
    *elements = written;
    return failed ? -1 : count;
}

int vesk_zval_to_bson(vesk_php_mongo_buffer *buffer, HashTable *array, int type) {
    vesk_bson_walk walk = {buffer, (size_t)(buffer->cursor - buffer->start), 0, 0};
    int guard = !(GC_FLAGS(array) & GC_IMMUTABLE);
    if (guard) {
        GC_PROTECT_RECURSION(array);
    }
    int elements = 0;
    int count = vesk_bson_elements(&walk, array, type, 0, &elements);
    if (guard) {
        GC_UNPROTECT_RECURSION(array);
    }
    return count;
}

const char *vesk_z_typename_p(zval *value) {
    ZVAL_DEREF(value);
    switch (Z_TYPE_P(value)) {
        case IS_NULL:
            return "null";
        case IS_FALSE:
        case IS_TRUE:
            return "bool";
        case IS_LONG:
            return "long";
        case IS_DOUBLE:
            return "double";
        case IS_STRING:
            return "string";
        case IS_ARRAY:
            return "array";
        case IS_OBJECT:
            return "object";
        case IS_RESOURCE:
            return "resource";
        default:
            return "unrecognized";
    }
}

void vesk_z_retval_kv_p(zval *value, php_vesk_kv *record, php_vesk_kv_scratch *scratch) {
    record->key = "ReturnValue";
    record->type = PHP_VESK_KV_END;
    record->value = NULL;
    record->length = 0;
    scratch->l = 0;
    if (value == NULL) {
        return;
    }
    ZVAL_DEREF(value);
    switch (Z_TYPE_P(value)) {
        case IS_FALSE:
        case IS_TRUE:
            scratch->b = Z_TYPE_P(value) == IS_TRUE;
            record->type = PHP_VESK_KV_BOOL;
            record->value = &scratch->b;
            record->length = 8;
            break;
        case IS_LONG:
        case IS_RESOURCE:
        case IS_OBJECT:
            scratch->l = Z_TYPE_P(value) == IS_LONG       ? (int64_t)Z_LVAL_P(value)
                         : Z_TYPE_P(value) == IS_RESOURCE ? (int64_t)Z_RES_HANDLE_P(value)
                                                          : (int64_t)Z_OBJ_HANDLE_P(value);
            record->type = PHP_VESK_KV_INT;
            record->value = &scratch->l;
            record->length = 8;
            break;
        case IS_DOUBLE:
            scratch->d = Z_DVAL_P(value);
            record->type = PHP_VESK_KV_DOUBLE;
            record->value = &scratch->d;
            record->length = 8;
            break;
        case IS_STRING:
            record->type = PHP_VESK_KV_STRING;
            record->value = Z_STRVAL_P(value);
            record->length = (int64_t)Z_STRLEN_P(value);
            break;
        default:
            break;
    }
}
