// X-Trace identifier record: binary and hexadecimal forms.
#include "corvidine/metadata.h"

#include <assert.h>
#include <string.h>

#include "corvidine/debug_log.h"
#include "corvidine/random.h"

namespace {

constexpr char kHexDigits[] = "0123456789ABCDEF";

// The two digits of every byte: one lookup per byte.
struct HexPairs {
    char pair[256][2];
    constexpr HexPairs() : pair() {
        for (int b = 0; b < 256; b++) {
            pair[b][0] = kHexDigits[b >> 4];
            pair[b][1] = kHexDigits[b & 0x0F];
        }
    }
};
constexpr HexPairs kHexPairs;

// Task length code 3 stands for 20 bytes, not 16.
const size_t kTaskLengths[4] = {4, 8, 12, 20};

// Nibble of each accepted character, -1 for the rest: 0x30..0x46 pass, with
// ':' to '@' let through at the values the arithmetic gives them.
struct HexTable {
    int8_t nibble[256];
    constexpr HexTable() : nibble() {
        for (int c = 0; c < 256; c++) nibble[c] = -1;
        for (int c = 0x30; c <= 0x46; c++) nibble[c] = static_cast<int8_t>(c <= 0x40 ? ((c - 0x30) & 0x0F) : (c - 0x37));
    }
};
constexpr HexTable kHexTable;

size_t packed_length(const vesk_metadata_t *md) { return md->task_len + md->op_len + 2; }

}  // namespace

extern "C" {

int vesk_metadata_init(vesk_metadata_t *md) {
    assert(md);
    memset(md, 0, sizeof(*md));
    md->version = VESK_XTRACE_VERSION;
    md->task_len = VESK_MAX_TASK_ID_LEN;
    md->op_len = VESK_MAX_OP_ID_LEN;
    VESK_DEBUG_LOG(VESK_DEBUG_MODULE_LIB, VESK_DEBUG_HIGH, "Initialized metadata @%p", (void *)md);
    return 0;
}

int vesk_metadata_destroy(vesk_metadata_t *md) {
    assert(md);
    VESK_DEBUG_LOG(VESK_DEBUG_MODULE_LIB, VESK_DEBUG_HIGH, "Destroyed metadata @%p", (void *)md);
    return 0;
}

int vesk_metadata_copy(vesk_metadata_t *to, const vesk_metadata_t *from) {
    assert(to);
    assert(from);
    *to = *from;
    VESK_DEBUG_LOG(VESK_DEBUG_MODULE_LIB, VESK_DEBUG_HIGH, "Copyied metadata from %p to %p", (const void *)from,
                   (void *)to);
    return 0;
}

int vesk_metadata_set_lengths(vesk_metadata_t *md, size_t task_len, size_t op_len) {
    assert(md);
    assert(task_len != 0);
    assert(op_len != 0);
    assert((op_len >> 2) <= 2);
    assert((task_len >> 2) <= 3 || task_len == 20);
    md->task_len = task_len;
    md->op_len = op_len;
    return 0;
}

int vesk_metadata_random(vesk_metadata_t *md) {
    assert(md);
    // task_id and op_id are adjacent: one fill sets both.
    static_assert(offsetof(vesk_metadata_t, op_id) == offsetof(vesk_metadata_t, task_id) + VESK_MAX_TASK_ID_LEN,
                  "task_id and op_id must be adjacent");
    return vesk_random_memory(md->task_id, VESK_MAX_TASK_ID_LEN + VESK_MAX_OP_ID_LEN);
}

int vesk_metadata_is_valid(const vesk_metadata_t *md) {
    assert(md);
    // Asked before every addition to an event: three loads, not a memcmp.
    static_assert(VESK_MAX_TASK_ID_LEN == 20, "the task id is read as 8 + 8 + 4 bytes");
    uint64_t head, middle;
    uint32_t tail;
    memcpy(&head, md->task_id, 8);
    memcpy(&middle, md->task_id + 8, 8);
    memcpy(&tail, md->task_id + 16, 4);
    return (head | middle | tail) != 0 ? 1 : 0;
}

int vesk_metadata_is_sampled(const vesk_metadata_t *md) {
    assert(md);
    return md->flags & VESK_XTRACE_FLAG_SAMPLED;
}

void vesk_btoh(const uint8_t *bytes, char *hex, size_t len) {
    assert(bytes);
    assert(hex);
    // Last byte first, so that hex may overlay bytes.
    for (size_t i = len; i-- > 0;) memcpy(hex + 2 * i, kHexPairs.pair[bytes[i]], 2);
}

int vesk_htob(const char *hex, size_t len, uint8_t *bytes) {
    assert(hex);
    assert(bytes);
    for (size_t i = 0; i + 1 < len; i += 2) {
        int high = kHexTable.nibble[static_cast<unsigned char>(hex[i])];
        int low = kHexTable.nibble[static_cast<unsigned char>(hex[i + 1])];
        if ((high | low) < 0) return -1;
        bytes[i / 2] = static_cast<uint8_t>(high << 4 | low);
    }
    return 0;
}

int vesk_metadata_tostr(const vesk_metadata_t *md, char *buf, size_t len) {
    assert(md);
    assert(buf);
    size_t result = packed_length(md);
    if (len < result) return -1;
    assert(2 * (unsigned)result < len);

    size_t task_code = (md->task_len >> 2) - 1;
    if (task_code == 4) task_code = 3;
    size_t op_code = (md->op_len >> 2) - 1;
    uint8_t *out = reinterpret_cast<uint8_t *>(buf);
    out[0] = static_cast<uint8_t>(md->version << 4 | op_code << 3 | task_code);
    memcpy(out + 1, md->task_id, md->task_len);
    memcpy(out + 1 + md->task_len, md->op_id, md->op_len);
    out[1 + md->task_len + md->op_len] = md->flags;

    vesk_btoh(out, buf, result);
    buf[2 * result] = '\0';
    return 0;
}

int vesk_metadata_fromstr(vesk_metadata_t *md, const char *buf, size_t len) {
    assert(md);
    assert(buf);
    if (len % 2 != 0 || len > 2 * VESK_MAX_METADATA_PACK_LEN + 1) return -1;
    if (len < 2) return -1;

    uint8_t packed[VESK_MAX_METADATA_PACK_LEN];
    if (vesk_htob(buf, len, packed) != 0) return -1;

    uint8_t header = packed[0];
    size_t task_len = kTaskLengths[header & 0x03];
    size_t op_len = (header & 0x08) ? 8 : 4;
    if (len / 2 != task_len + op_len + 2) return -1;

    md->version = header >> 4;
    md->task_len = task_len;
    md->op_len = op_len;
    memcpy(md->task_id, packed + 1, task_len);
    memcpy(md->op_id, packed + 1 + task_len, op_len);
    md->flags = packed[1 + task_len + op_len];
    return 0;
}

}  // extern "C"
