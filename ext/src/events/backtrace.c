/* PHP backtraces as text and as BSON, and the current call's arguments. */
#include "php_corvidine.h"

#include "zend_builtin_functions.h"

#include "src/events/php_vesk_events.h"

/* A growing request-heap string. */
typedef struct vesk_text {
    char *data;
    size_t length;
    size_t capacity;
} vesk_text;

static void vesk_text_reserve(vesk_text *text, size_t more) {
    if (text->length + more + 1 <= text->capacity) {
        return;
    }
    size_t capacity = text->capacity ? text->capacity : 256;
    while (text->length + more + 1 > capacity) {
        capacity *= 2;
    }
    text->data = erealloc(text->data, capacity);
    text->capacity = capacity;
}

static void vesk_text_add(vesk_text *text, const char *bytes, size_t length) {
    vesk_text_reserve(text, length);
    memcpy(text->data + text->length, bytes, length);
    text->length += length;
}

#define VESK_TEXT_ADD_LITERAL(text, literal) vesk_text_add((text), (literal), sizeof(literal) - 1)

static void vesk_text_add_long(vesk_text *text, zend_long number) {
    char digits[24];
    char *start = zend_print_long_to_buf(digits + sizeof(digits) - 1, number);
    vesk_text_add(text, start, (size_t)(digits + sizeof(digits) - 1 - start));
}

/* The frame as a table: an array, or an object through its properties. */
static HashTable *vesk_frame_table(zval *frame) {
    ZVAL_DEREF(frame);
    if (Z_TYPE_P(frame) == IS_ARRAY) {
        return Z_ARRVAL_P(frame);
    }
    if (Z_TYPE_P(frame) == IS_OBJECT) {
        return Z_OBJ_HT_P(frame)->get_properties(Z_OBJ_P(frame));
    }
    return NULL;
}

/* Frame keys are the engine's known strings, whose hashes are computed
 * once: the lookups are the main cost of a text backtrace. */
static zval *vesk_frame_find(HashTable *frame, zend_known_string_id key) {
    zval *value = zend_hash_find_known_hash(frame, ZSTR_KNOWN(key));
    if (value != NULL) {
        ZVAL_DEINDIRECT(value);
        ZVAL_DEREF(value);
    }
    return value;
}

static void vesk_text_add_string_field(vesk_text *text, HashTable *frame, zend_known_string_id key) {
    zval *value = vesk_frame_find(frame, key);
    if (value != NULL && Z_TYPE_P(value) == IS_STRING) {
        vesk_text_add(text, Z_STRVAL_P(value), Z_STRLEN_P(value));
    }
}

/* An argument by its kind only: string contents never go into the text. */
static void vesk_text_add_arg(vesk_text *text, zval *arg) {
    ZVAL_DEREF(arg);
    switch (Z_TYPE_P(arg)) {
        case IS_NULL:
            VESK_TEXT_ADD_LITERAL(text, "NULL, ");
            break;
        case IS_FALSE:
            VESK_TEXT_ADD_LITERAL(text, "false, ");
            break;
        case IS_TRUE:
            VESK_TEXT_ADD_LITERAL(text, "true, ");
            break;
        case IS_LONG:
            vesk_text_add_long(text, Z_LVAL_P(arg));
            VESK_TEXT_ADD_LITERAL(text, ", ");
            break;
        case IS_DOUBLE: {
            /* precision -1 asks PHP for the shortest exact form; 17 digits
             * are always exact. */
            int precision = EG(precision) < 0 ? 17 : (int)MIN(EG(precision), 100);
            char number[512];
            int length = snprintf(number, sizeof(number), "%.*G, ", precision, Z_DVAL_P(arg));
            if (length > 0) {
                vesk_text_add(text, number,
                              (size_t)length < sizeof(number) ? (size_t)length : sizeof(number) - 1);
            }
            break;
        }
        case IS_STRING:
            VESK_TEXT_ADD_LITERAL(text, "String, ");
            break;
        case IS_ARRAY:
            VESK_TEXT_ADD_LITERAL(text, "Array, ");
            break;
        case IS_OBJECT: {
            zend_string *name = Z_OBJCE_P(arg)->name;
            VESK_TEXT_ADD_LITERAL(text, "Object(");
            vesk_text_add(text, ZSTR_VAL(name), ZSTR_LEN(name));
            VESK_TEXT_ADD_LITERAL(text, "), ");
            break;
        }
        case IS_RESOURCE:
            VESK_TEXT_ADD_LITERAL(text, "Resource id #");
            vesk_text_add_long(text, (zend_long)Z_RES_HANDLE_P(arg));
            VESK_TEXT_ADD_LITERAL(text, ", ");
            break;
        default:
            break; /* undefined: nothing */
    }
}

static void vesk_text_add_frame(vesk_text *text, zval *frame_zv, int number) {
    HashTable *frame = vesk_frame_table(frame_zv);
    if (frame == NULL) {
        VESK_TEXT_ADD_LITERAL(text, "[invalid frame]\n");
        return;
    }
    VESK_TEXT_ADD_LITERAL(text, "#");
    vesk_text_add_long(text, number);
    VESK_TEXT_ADD_LITERAL(text, " ");

    zval *file = vesk_frame_find(frame, ZEND_STR_FILE);
    if (file != NULL && Z_TYPE_P(file) == IS_STRING) {
        zval *line = vesk_frame_find(frame, ZEND_STR_LINE);
        vesk_text_add(text, Z_STRVAL_P(file), Z_STRLEN_P(file));
        VESK_TEXT_ADD_LITERAL(text, "(");
        vesk_text_add_long(text, line != NULL && Z_TYPE_P(line) == IS_LONG ? Z_LVAL_P(line) : 0);
        VESK_TEXT_ADD_LITERAL(text, "): ");
    } else {
        VESK_TEXT_ADD_LITERAL(text, "[internal function]: ");
    }
    vesk_text_add_string_field(text, frame, ZEND_STR_CLASS);
    vesk_text_add_string_field(text, frame, ZEND_STR_TYPE);
    vesk_text_add_string_field(text, frame, ZEND_STR_FUNCTION);

    VESK_TEXT_ADD_LITERAL(text, "(");
    zval *args = vesk_frame_find(frame, ZEND_STR_ARGS);
    if (args != NULL && Z_TYPE_P(args) == IS_ARRAY) {
        size_t before = text->length;
        zval *arg;
        ZEND_HASH_FOREACH_VAL(Z_ARRVAL_P(args), arg) {
            vesk_text_add_arg(text, arg);
        }
        ZEND_HASH_FOREACH_END();
        if (text->length >= before + 2) {
            text->length -= 2; /* the last ", " */
        }
    }
    VESK_TEXT_ADD_LITERAL(text, ")\n");
}

char *vesk_make_backtrace(int limit, size_t *length, zval *frames) {
    vesk_text text = {NULL, 0, 0};
    int number = 0;
    if (limit <= 0) {
        limit = 99999;
    }
    vesk_text_reserve(&text, 1024);
    if (frames != NULL) {
        ZVAL_DEREF(frames);
    }
    if (frames != NULL && Z_TYPE_P(frames) == IS_ARRAY) {
        zval *frame;
        ZEND_HASH_FOREACH_VAL(Z_ARRVAL_P(frames), frame) {
            if (limit == 0) {
                break;
            }
            limit--;
            int valid = vesk_frame_table(frame) != NULL;
            vesk_text_add_frame(&text, frame, number);
            if (valid) {
                number++;
            }
        }
        ZEND_HASH_FOREACH_END();
    }
    if (limit > 0) {
        VESK_TEXT_ADD_LITERAL(&text, "#");
        vesk_text_add_long(&text, number);
        VESK_TEXT_ADD_LITERAL(&text, " {main}");
    }
    text.data[text.length] = '\0';
    if (length != NULL) {
        *length = text.length;
    }
    return text.data;
}

/* Frames of the running code, the function running now first, with their
 * arguments and without objects. At most `limit` frames (0: all). */
static int vesk_fetch_frames(zval *frames, int limit) {
    if (EG(current_execute_data) == NULL) {
        ZVAL_UNDEF(frames);
        return 0;
    }
    zend_fetch_debug_backtrace(frames, 0, 0, limit);
    if (Z_TYPE_P(frames) != IS_ARRAY) {
        zval_ptr_dtor(frames);
        ZVAL_UNDEF(frames);
        return 0;
    }
    return 1;
}

char *vesk_get_backtrace(int limit, size_t *length) {
    zval frames;
    if (limit <= 0) {
        limit = 99999;
    }
    /* Frames past the limit would not be looked at, and their absence
     * leaves the limit used up all the same: no need to fetch them. */
    if (!vesk_fetch_frames(&frames, limit)) {
        return NULL;
    }
    char *text = vesk_make_backtrace(limit, length, &frames);
    zval_ptr_dtor(&frames);
    return text;
}

/* The table as a request-heap document, or null when an exception is
 * pending. */
static char *vesk_table_to_document(HashTable *table, size_t *length) {
    vesk_php_mongo_buffer buffer;
    vesk_php_mongo_buffer_init(&buffer);
    if (vesk_zval_to_bson(&buffer, table, IS_ARRAY) < 0) {
        vesk_php_mongo_buffer_free(&buffer);
        return NULL;
    }
    if (length != NULL) {
        *length = (size_t)(buffer.cursor - buffer.start);
    }
    return buffer.start;
}

char *vesk_get_backtrace_bson(size_t *length, zval *frames_out) {
    zval frames;
    if (frames_out != NULL) {
        ZVAL_UNDEF(frames_out);
    }
    if (!vesk_fetch_frames(&frames, PHP_VESK_BACKTRACE_LIMIT)) {
        return NULL;
    }
    char *document = vesk_table_to_document(Z_ARRVAL(frames), length);
    if (frames_out != NULL) {
        ZVAL_COPY_VALUE(frames_out, &frames);
    } else {
        zval_ptr_dtor(&frames);
    }
    return document;
}

char *vesk_get_args_bson(size_t *length, zval *frames) {
    zval fetched;
    char *document = NULL;
    if (frames == NULL) {
        /* Only frame 0 is looked at. */
        if (!vesk_fetch_frames(&fetched, 1)) {
            return NULL;
        }
        frames = &fetched;
    } else {
        ZVAL_UNDEF(&fetched);
        ZVAL_DEREF(frames);
    }
    if (Z_TYPE_P(frames) == IS_ARRAY) {
        zval *frame = zend_hash_index_find(Z_ARRVAL_P(frames), 0);
        HashTable *table = frame != NULL ? vesk_frame_table(frame) : NULL;
        zval *args = table != NULL ? vesk_frame_find(table, ZEND_STR_ARGS) : NULL;
        if (args != NULL && Z_TYPE_P(args) == IS_ARRAY) {
            document = vesk_table_to_document(Z_ARRVAL_P(args), length);
        }
    }
    zval_ptr_dtor(&fetched);
    return document;
}
