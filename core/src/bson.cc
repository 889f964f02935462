// Append-only BSON writer; lengths of sub-documents are patched in place.
#include "corvidine/bson.h"
#include "corvidine/utf8.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

namespace {

vesk_bson_err_handler g_err_handler = nullptr;

void bson_error(const char *message) {
    if (g_err_handler == nullptr) {
        fprintf(stderr, "error: %s\n", message);
        exit(-5);
    }
    g_err_handler(message);
}

int32_t used(const vesk_bson_buffer *b) { return static_cast<int32_t>(b->cur - b->data); }

// BSON numbers are little-endian: on such a host one store writes them.
#if defined(__BYTE_ORDER__) && __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__
void put_int32(char *at, int32_t v) { memcpy(at, &v, sizeof(v)); }

void put_int64(char *at, int64_t v) { memcpy(at, &v, sizeof(v)); }
#else
void put_int32(char *at, int32_t v) {
    uint32_t u = static_cast<uint32_t>(v);
    at[0] = static_cast<char>(u & 0xFF);
    at[1] = static_cast<char>((u >> 8) & 0xFF);
    at[2] = static_cast<char>((u >> 16) & 0xFF);
    at[3] = static_cast<char>((u >> 24) & 0xFF);
}

void put_int64(char *at, int64_t v) {
    uint64_t u = static_cast<uint64_t>(v);
    for (int i = 0; i < 8; i++) at[i] = static_cast<char>((u >> (8 * i)) & 0xFF);
}
#endif

// The slow part of ensure_room: finished buffers and growth.
bool grow(vesk_bson_buffer *b, size_t needed) {
    if (b->finished) {
        if (b->data == nullptr) bson_error("trying to append to finished buffer");
        return false;
    }
    size_t n = static_cast<size_t>(b->capacity) + needed;
    size_t new_capacity = n / 2 + n;
    if (new_capacity > 0x7FFFFFFF) {
        bson_error("realloc() failed");
        return false;
    }
    int32_t offset = used(b);
    char *grown = static_cast<char *>(realloc(b->data, new_capacity));
    if (grown == nullptr) {
        bson_error("realloc() failed");
        return false;
    }
    b->data = grown;
    b->cur = grown + offset;
    b->capacity = static_cast<int32_t>(new_capacity);
    return true;
}

// Makes room for `needed` more bytes: grows to one and a half times
// (capacity + needed). false when the buffer is finished or memory fails.
// Inline: every addition asks, and almost always there is room.
inline bool ensure_room(vesk_bson_buffer *b, size_t needed) {
    if (__builtin_expect(!b->finished && static_cast<size_t>(used(b)) + needed <= static_cast<size_t>(b->capacity), 1))
        return true;
    return grow(b, needed);
}

// Keys and strings must be UTF-8, or a strict reader refuses the whole
// document: bytes that are not part of a valid sequence become '?' where
// they were copied to. `at` has room for len + 1 bytes (the NUL that follows).
void repair_utf8(char *at, size_t len) {
    // Nearly every key and string is ASCII: eight bytes at a time say so.
    uint64_t high = 0;
    size_t i = 0;
    for (uint64_t word; i + 8 <= len; i += 8) {
        memcpy(&word, at + i, 8);
        high |= word;
    }
    for (; i < len; i++) high |= static_cast<unsigned char>(at[i]);
    if ((high & 0x8080808080808080ULL) == 0) return;
    if (vesk_utf8_valid_prefix(at, len) != len) vesk_utf8_sanitize(at, len, at);
}

// Type byte and key; room for `payload` more bytes is ensured first.
bool append_head(vesk_bson_buffer *b, char type, const char *key, size_t payload) {
    size_t key_len = strlen(key) + 1;
    if (!ensure_room(b, 1 + key_len + payload)) return false;
    *b->cur++ = type;
    memcpy(b->cur, key, key_len);
    repair_utf8(b->cur, key_len - 1);
    b->cur += key_len;
    return true;
}

vesk_bson_buffer *append_string_bytes(vesk_bson_buffer *b, const char *key, const char *value, size_t len) {
    if (len + 1 > 0x7FFFFFFF || !append_head(b, 0x02, key, 4 + len + 1)) return nullptr;
    put_int32(b->cur, static_cast<int32_t>(len + 1));
    b->cur += 4;
    memcpy(b->cur, value, len);
    repair_utf8(b->cur, len);
    b->cur += len;
    *b->cur++ = '\0';
    return b;
}

vesk_bson_buffer *start_container(vesk_bson_buffer *b, char type, const char *key) {
    if (!append_head(b, type, key, 4)) return nullptr;
    b->stack[b->stack_depth++] = used(b);
    put_int32(b->cur, 0);
    b->cur += 4;
    return b;
}

}  // namespace

extern "C" {

vesk_bson_err_handler vesk_set_bson_err_handler(vesk_bson_err_handler handler) {
    vesk_bson_err_handler old = g_err_handler;
    g_err_handler = handler;
    return old;
}

vesk_bson_buffer *vesk_bson_buffer_init(vesk_bson_buffer *b) {
    memset(b, 0, sizeof(*b));
    b->data = static_cast<char *>(malloc(VESK_BSON_INITIAL_SIZE));
    if (b->data == nullptr) {
        b->finished = 1;
        bson_error("malloc() failed");
        return nullptr;
    }
    b->capacity = VESK_BSON_INITIAL_SIZE;
    put_int32(b->data, 0);  // the length is written by the finish
    b->cur = b->data + 4;
    return b;
}

char *vesk_bson_buffer_finish(vesk_bson_buffer *b) {
    if (!b->finished) {
        if (!ensure_room(b, 1)) return nullptr;
        *b->cur++ = '\0';
        put_int32(b->data, used(b));
        b->finished = 1;
    }
    return b->data;
}

void vesk_bson_buffer_destroy(vesk_bson_buffer *b) {
    free(b->data);
    b->data = nullptr;
    b->cur = nullptr;
    b->finished = 1;
}

size_t vesk_bson_buffer_size(const vesk_bson_buffer *b) {
    return b->data ? static_cast<size_t>(b->cur - b->data) : 0;
}

vesk_bson_buffer *vesk_bson_append_string(vesk_bson_buffer *b, const char *key, const char *value) {
    return append_string_bytes(b, key, value, strlen(value));
}

vesk_bson_buffer *vesk_bson_append_string_n(vesk_bson_buffer *b, const char *key, const char *value, size_t len) {
    return append_string_bytes(b, key, value, len);
}

vesk_bson_buffer *vesk_bson_append_int(vesk_bson_buffer *b, const char *key, int32_t value) {
    if (!append_head(b, 0x10, key, 4)) return nullptr;
    put_int32(b->cur, value);
    b->cur += 4;
    return b;
}

vesk_bson_buffer *vesk_bson_append_long(vesk_bson_buffer *b, const char *key, int64_t value) {
    if (!append_head(b, 0x12, key, 8)) return nullptr;
    put_int64(b->cur, value);
    b->cur += 8;
    return b;
}

vesk_bson_buffer *vesk_bson_append_double(vesk_bson_buffer *b, const char *key, double value) {
    if (!append_head(b, 0x01, key, 8)) return nullptr;
    int64_t bits;
    memcpy(&bits, &value, sizeof(bits));
    put_int64(b->cur, bits);
    b->cur += 8;
    return b;
}

vesk_bson_buffer *vesk_bson_append_bool(vesk_bson_buffer *b, const char *key, int value) {
    if (!append_head(b, 0x08, key, 1)) return nullptr;
    *b->cur++ = value ? 1 : 0;
    return b;
}

vesk_bson_buffer *vesk_bson_append_null(vesk_bson_buffer *b, const char *key) {
    return append_head(b, 0x0A, key, 0) ? b : nullptr;
}

vesk_bson_buffer *vesk_bson_append_binary(vesk_bson_buffer *b, const char *key, const void *value, size_t len) {
    if (len > 0x7FFFFFFF || !append_head(b, 0x05, key, 4 + 1 + len)) return nullptr;
    put_int32(b->cur, static_cast<int32_t>(len));
    b->cur += 4;
    *b->cur++ = 0;  // generic subtype
    if (len) memcpy(b->cur, value, len);
    b->cur += len;
    return b;
}

vesk_bson_buffer *vesk_bson_append_bson(vesk_bson_buffer *b, const char *key, const vesk_bson *value) {
    int32_t size = vesk_bson_size(value);
    if (size < 5 || !append_head(b, 0x03, key, static_cast<size_t>(size))) return nullptr;
    memcpy(b->cur, value->data, static_cast<size_t>(size));
    b->cur += size;
    return b;
}

vesk_bson_buffer *vesk_bson_append_start_object(vesk_bson_buffer *b, const char *key) {
    return start_container(b, 0x03, key);
}

vesk_bson_buffer *vesk_bson_append_start_array(vesk_bson_buffer *b, const char *key) {
    return start_container(b, 0x04, key);
}

vesk_bson_buffer *vesk_bson_append_finish_object(vesk_bson_buffer *b) {
    if (b->stack_depth <= 0 || !ensure_room(b, 1)) return nullptr;
    *b->cur++ = '\0';
    int32_t start = b->stack[--b->stack_depth];
    put_int32(b->data + start, used(b) - start);
    return b;
}

vesk_bson *vesk_bson_from_buffer(vesk_bson *out, const vesk_bson_buffer *b) {
    out->data = b->finished ? b->data : nullptr;
    out->owned = 0;
    return out;
}

int32_t vesk_bson_size(const vesk_bson *doc) {
    if (doc == nullptr || doc->data == nullptr) return 0;
    const unsigned char *p = reinterpret_cast<const unsigned char *>(doc->data);
    return static_cast<int32_t>(static_cast<uint32_t>(p[0]) | static_cast<uint32_t>(p[1]) << 8 |
                                static_cast<uint32_t>(p[2]) << 16 | static_cast<uint32_t>(p[3]) << 24);
}

void vesk_bson_destroy(vesk_bson *doc) {
    if (doc == nullptr) return;
    if (doc->owned) free(const_cast<char *>(doc->data));
    doc->data = nullptr;
    doc->owned = 0;
}

}  // extern "C"
