// Log encoding of HDR histograms: V2 counts, zlib, base64 (format in hdr_log.h).
#include "corvidine/hdr_log.h"

#include <stdlib.h>
#include <string.h>
#include <zlib.h>

#include <string>
#include <vector>

namespace {

constexpr size_t kHeaderSize = 40;     // V2 encoding header
constexpr size_t kMaxCountBytes = 9;   // longest zigzag LEB128 number
constexpr int32_t kCookieBaseMask = ~0xf0;  // the cookie's word-size nibble varies between writers

const char kBase64[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

void put_be(std::vector<unsigned char> &out, uint64_t v, int bytes) {
    for (int i = bytes - 1; i >= 0; --i) out.push_back(static_cast<unsigned char>(v >> (8 * i)));
}

uint64_t get_be(const unsigned char *p, int bytes) {
    uint64_t v = 0;
    for (int i = 0; i < bytes; ++i) v = (v << 8) | p[i];
    return v;
}

// Zigzag, then 7 bits a byte with a continuation bit; the ninth byte holds 8.
void put_zigzag(std::vector<unsigned char> &out, int64_t value) {
    uint64_t v = (static_cast<uint64_t>(value) << 1) ^ static_cast<uint64_t>(value >> 63);
    for (int i = 0; i < 8; ++i) {
        if ((v >> 7) == 0) {
            out.push_back(static_cast<unsigned char>(v));
            return;
        }
        out.push_back(static_cast<unsigned char>((v & 0x7f) | 0x80));
        v >>= 7;
    }
    out.push_back(static_cast<unsigned char>(v));
}

// Reads one number at *pos; false when the payload ends inside it.
bool get_zigzag(const unsigned char *p, size_t len, size_t *pos, int64_t *value) {
    uint64_t v = 0;
    int i = 0;
    for (;; ++i) {
        if (*pos >= len) return false;
        unsigned char b = p[(*pos)++];
        if (i == 8) {
            v |= static_cast<uint64_t>(b) << 56;
            break;
        }
        v |= static_cast<uint64_t>(b & 0x7f) << (7 * i);
        if ((b & 0x80) == 0) break;
    }
    *value = static_cast<int64_t>((v >> 1) ^ (~(v & 1) + 1));
    return true;
}

std::string base64_encode(const unsigned char *p, size_t len) {
    std::string out;
    out.reserve((len + 2) / 3 * 4);
    size_t i = 0;
    for (; i + 2 < len; i += 3) {
        uint32_t n = (p[i] << 16) | (p[i + 1] << 8) | p[i + 2];
        for (int s = 18; s >= 0; s -= 6) out += kBase64[(n >> s) & 63];
    }
    if (i < len) {
        uint32_t n = p[i] << 16 | (i + 1 < len ? p[i + 1] << 8 : 0);
        out += kBase64[(n >> 18) & 63];
        out += kBase64[(n >> 12) & 63];
        out += i + 1 < len ? kBase64[(n >> 6) & 63] : '=';
        out += '=';
    }
    return out;
}

int base64_value(unsigned char c) {
    if (c >= 'A' && c <= 'Z') return c - 'A';
    if (c >= 'a' && c <= 'z') return c - 'a' + 26;
    if (c >= '0' && c <= '9') return c - '0' + 52;
    if (c == '+') return 62;
    if (c == '/') return 63;
    return -1;
}

bool base64_decode(const char *text, size_t len, std::vector<unsigned char> &out) {
    if (len % 4 != 0) return false;
    out.reserve(len / 4 * 3);
    for (size_t i = 0; i < len; i += 4) {
        const bool last = i + 4 == len;
        int v[4];
        int pad = 0;
        for (int k = 0; k < 4; ++k) {
            unsigned char c = static_cast<unsigned char>(text[i + k]);
            if (c == '=' && last && k >= 2 && (k == 3 || text[i + 3] == '=')) {
                v[k] = 0;
                ++pad;
                continue;
            }
            v[k] = base64_value(c);
            if (v[k] < 0 || pad > 0) return false;
        }
        uint32_t n = (v[0] << 18) | (v[1] << 12) | (v[2] << 6) | v[3];
        out.push_back(static_cast<unsigned char>(n >> 16));
        if (pad < 2) out.push_back(static_cast<unsigned char>(n >> 8));
        if (pad < 1) out.push_back(static_cast<unsigned char>(n));
    }
    return true;
}

// Inflates exactly `want` more bytes into out; false when the stream breaks
// or ends before them.
bool inflate_exactly(z_stream *zs, unsigned char *out, size_t want) {
    zs->next_out = out;
    zs->avail_out = static_cast<uInt>(want);
    while (zs->avail_out > 0) {
        int rc = inflate(zs, Z_NO_FLUSH);
        if (rc == Z_STREAM_END) return zs->avail_out == 0;
        if (rc != Z_OK) return false;
        if (zs->avail_in == 0 && zs->avail_out > 0) return false;
    }
    return true;
}

// Counts from the payload into h; recomputes total, min and max.
int read_counts(hdr_histogram *h, const unsigned char *p, size_t len) {
    size_t pos = 0;
    int64_t index = 0, total = 0;
    int32_t first = -1, last = -1;
    while (pos < len) {
        int64_t v;
        if (!get_zigzag(p, len, &pos, &v)) return HDR_LOG_INVALID_PAYLOAD;
        if (v < 0) {  // a run of -v zero counts
            if (v == INT64_MIN || -v > h->counts_len - index) return HDR_LOG_INVALID_PAYLOAD;
            index += -v;
            continue;
        }
        if (index >= h->counts_len || v > INT64_MAX - total) return HDR_LOG_INVALID_PAYLOAD;
        if (v > 0) {
            if (first < 0) first = static_cast<int32_t>(index);
            last = static_cast<int32_t>(index);
        }
        h->counts[index++] = v;
        total += v;
    }
    h->total_count = total;
    if (total > 0) {
        h->min_value = hdr_value_at_index(h, first);
        h->max_value = hdr_highest_equivalent_value(h, hdr_value_at_index(h, last));
    }
    return 0;
}

}  // namespace

extern "C" {

int hdr_log_encode(const hdr_histogram *h, char **encoded) {
    // Counts through the largest recorded value's slot (slot 0 when empty).
    const int32_t limit = hdr_counts_index_for(h, h->max_value) + 1;
    std::vector<unsigned char> raw;
    raw.reserve(kHeaderSize + static_cast<size_t>(limit) * 2);
    put_be(raw, HDR_V2_ENCODING_COOKIE, 4);
    put_be(raw, 0, 4);  // payload length, filled in below
    put_be(raw, 0, 4);  // normalizing index offset
    put_be(raw, static_cast<uint32_t>(h->significant_figures), 4);
    put_be(raw, static_cast<uint64_t>(h->lowest_trackable_value), 8);
    put_be(raw, static_cast<uint64_t>(h->highest_trackable_value), 8);
    double ratio = 1.0;
    uint64_t ratio_bits;
    memcpy(&ratio_bits, &ratio, sizeof(ratio_bits));
    put_be(raw, ratio_bits, 8);
    for (int32_t i = 0; i < limit;) {
        int64_t count = h->counts[i++];
        if (count == 0) {
            int64_t zeros = 1;
            while (i < limit && h->counts[i] == 0) {
                ++zeros;
                ++i;
            }
            put_zigzag(raw, zeros > 1 ? -zeros : 0);
        } else {
            put_zigzag(raw, count);
        }
    }
    const uint32_t payload = static_cast<uint32_t>(raw.size() - kHeaderSize);
    for (int k = 0; k < 4; ++k) raw[4 + k] = static_cast<unsigned char>(payload >> (24 - 8 * k));

    // The counts are already dense varints with zero runs: the fastest level
    // costs a few percent in size and is many times quicker on full histograms.
    uLongf zlen = compressBound(static_cast<uLong>(raw.size()));
    std::vector<unsigned char> packed(8 + zlen);
    if (compress2(packed.data() + 8, &zlen, raw.data(), static_cast<uLong>(raw.size()), Z_BEST_SPEED) != Z_OK)
        return HDR_LOG_DEFLATE_FAILED;
    packed.resize(8 + zlen);
    for (int k = 0; k < 4; ++k) {
        packed[k] = static_cast<unsigned char>(static_cast<uint32_t>(HDR_V2_COMPRESSED_COOKIE) >> (24 - 8 * k));
        packed[4 + k] = static_cast<unsigned char>(static_cast<uint32_t>(zlen) >> (24 - 8 * k));
    }
    std::string text = base64_encode(packed.data(), packed.size());
    char *out = static_cast<char *>(malloc(text.size() + 1));
    if (out == nullptr) return HDR_LOG_NO_MEMORY;
    memcpy(out, text.c_str(), text.size() + 1);
    *encoded = out;
    return 0;
}

int hdr_log_decode(hdr_histogram **histogram, const char *base64_histogram, size_t base64_len) {
    if (histogram == nullptr || base64_histogram == nullptr) return HDR_LOG_INVALID_BASE64;
    std::vector<unsigned char> packed;
    if (!base64_decode(base64_histogram, base64_len, packed)) return HDR_LOG_INVALID_BASE64;
    if (packed.size() < 8 || (static_cast<int32_t>(get_be(packed.data(), 4)) & kCookieBaseMask) !=
                                 (HDR_V2_COMPRESSED_COOKIE & kCookieBaseMask))
        return HDR_LOG_COMPRESSED_COOKIE;
    const uint64_t zlen = get_be(packed.data() + 4, 4);
    if (zlen > packed.size() - 8) return HDR_LOG_COMPRESSED_COOKIE;

    z_stream zs;
    memset(&zs, 0, sizeof(zs));
    if (inflateInit(&zs) != Z_OK) return HDR_LOG_NO_MEMORY;
    zs.next_in = packed.data() + 8;
    zs.avail_in = static_cast<uInt>(zlen);
    unsigned char header[kHeaderSize];
    int rc = 0;
    hdr_histogram *h = nullptr;
    std::vector<unsigned char> payload;
    if (!inflate_exactly(&zs, header, 4)) {
        rc = HDR_LOG_INFLATE_FAILED;
    } else if ((static_cast<int32_t>(get_be(header, 4)) & kCookieBaseMask) !=
               (HDR_V2_ENCODING_COOKIE & kCookieBaseMask)) {
        rc = HDR_LOG_ENCODING_COOKIE;
    } else if (!inflate_exactly(&zs, header + 4, kHeaderSize - 4)) {
        rc = HDR_LOG_INFLATE_FAILED;
    } else {
        const uint64_t payload_len = get_be(header + 4, 4);
        const uint32_t normalizing_offset = static_cast<uint32_t>(get_be(header + 8, 4));
        const int32_t figures = static_cast<int32_t>(get_be(header + 12, 4));
        const int64_t lowest = static_cast<int64_t>(get_be(header + 16, 8));
        const int64_t highest = static_cast<int64_t>(get_be(header + 24, 8));
        if (normalizing_offset != 0 || hdr_init(lowest, highest, figures, &h) != 0) {
            rc = HDR_LOG_UNSUPPORTED_HEADER;
        } else if (payload_len > static_cast<uint64_t>(h->counts_len) * kMaxCountBytes) {
            rc = HDR_LOG_INVALID_PAYLOAD;
        } else {
            payload.resize(payload_len);
            if (!inflate_exactly(&zs, payload.data(), payload.size()))
                rc = HDR_LOG_INFLATE_FAILED;
            else
                rc = read_counts(h, payload.data(), payload.size());
        }
    }
    inflateEnd(&zs);
    if (rc != 0) {
        hdr_close(h);
        return rc;
    }
    *histogram = h;
    return 0;
}

const char *hdr_log_strerror(int code) {
    switch (code) {
    case 0: return "success";
    case HDR_LOG_INVALID_BASE64: return "not padded standard base64";
    case HDR_LOG_COMPRESSED_COOKIE: return "not a compressed V2 histogram";
    case HDR_LOG_ENCODING_COOKIE: return "compressed data is not a V2 histogram encoding";
    case HDR_LOG_INFLATE_FAILED: return "zlib stream broken or cut short";
    case HDR_LOG_DEFLATE_FAILED: return "zlib could not compress";
    case HDR_LOG_UNSUPPORTED_HEADER: return "histogram parameters not supported";
    case HDR_LOG_INVALID_PAYLOAD: return "counts cut short, beyond the histogram, or overflowing";
    case HDR_LOG_NO_MEMORY: return "out of memory";
    default: return "unknown histogram codec error";
    }
}

}  // extern "C"
