// UTF-8 validation by the well-formed byte sequences of Unicode's table 3-7.
#include "corvidine/utf8.h"

#include <stdint.h>
#include <string.h>

namespace {

// Length of the valid sequence at p (1..4), or 0 when the byte there does
// not start one.
size_t sequence_length(const unsigned char *p, size_t left) {
    unsigned char c = p[0];
    if (c < 0x80) return 1;
    auto cont = [&](size_t i, unsigned char lo = 0x80, unsigned char hi = 0xBF) {
        return i < left && p[i] >= lo && p[i] <= hi;
    };
    if (c >= 0xC2 && c <= 0xDF) return cont(1) ? 2 : 0;
    if (c == 0xE0) return cont(1, 0xA0) && cont(2) ? 3 : 0;
    if ((c >= 0xE1 && c <= 0xEC) || c == 0xEE || c == 0xEF) return cont(1) && cont(2) ? 3 : 0;
    if (c == 0xED) return cont(1, 0x80, 0x9F) && cont(2) ? 3 : 0;
    if (c == 0xF0) return cont(1, 0x90) && cont(2) && cont(3) ? 4 : 0;
    if (c >= 0xF1 && c <= 0xF3) return cont(1) && cont(2) && cont(3) ? 4 : 0;
    if (c == 0xF4) return cont(1, 0x80, 0x8F) && cont(2) && cont(3) ? 4 : 0;
    return 0;
}

}  // namespace

extern "C" {

size_t vesk_utf8_valid_prefix(const char *text, size_t len) {
    const unsigned char *p = reinterpret_cast<const unsigned char *>(text);
    size_t i = 0;
    while (i < len) {
        // Request data is mostly ASCII: eight bytes at a time while no byte
        // has its top bit set.
        while (i + 8 <= len) {
            uint64_t word;
            memcpy(&word, p + i, 8);
            if (word & 0x8080808080808080ULL) break;
            i += 8;
        }
        if (i >= len) break;
        if (p[i] < 0x80) {
            i++;
            continue;
        }
        size_t n = sequence_length(p + i, len - i);
        if (n == 0) return i;
        i += n;
    }
    return len;
}

size_t vesk_utf8_sanitize(const char *text, size_t len, char *out) {
    const unsigned char *p = reinterpret_cast<const unsigned char *>(text);
    size_t i = 0;
    while (i < len) {
        size_t n = sequence_length(p + i, len - i);
        if (n == 0) {
            out[i++] = '?';
            continue;
        }
        if (out != text) memcpy(out + i, p + i, n);
        i += n;
    }
    out[len] = '\0';
    return len;
}

size_t vesk_utf8_cut(const char *text, size_t len, size_t limit) {
    if (len <= limit) return len;
    const unsigned char *p = reinterpret_cast<const unsigned char *>(text);
    // Step back over at most three continuation bytes, so that the cut
    // falls before the lead byte of the character that would be split.
    size_t cut = limit;
    while (cut > 0 && limit - cut < 3 && (p[cut] & 0xC0) == 0x80) cut--;
    return (p[cut] & 0xC0) == 0x80 ? limit : cut;
}

}  // extern "C"
