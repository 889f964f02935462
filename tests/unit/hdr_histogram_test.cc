// HDR histogram and its log encoding: random value sets at every precision against the sorted values, the bounds,
// the round trip, damaged encodings (readers we did not write check the encoding in tests/wire).
#include <gtest/gtest.h>
#include <zlib.h>

#include <errno.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "corvidine/hdr_histogram.h"
#include "corvidine/hdr_log.h"

namespace {

using Hist = std::unique_ptr<hdr_histogram, decltype(&hdr_close)>;

Hist make(int figures) {
    hdr_histogram *h = nullptr;
    EXPECT_EQ(0, hdr_init(HDR_LOWEST_TRACKABLE_VALUE, HDR_HIGHEST_TRACKABLE_VALUE, figures, &h));
    return Hist(h, hdr_close);
}

std::string encode(const hdr_histogram *h) {
    char *text = nullptr;
    EXPECT_EQ(0, hdr_log_encode(h, &text));
    std::string s = text ? text : "";
    free(text);
    return s;
}

Hist decode(const std::string &text, int *rc = nullptr) {
    hdr_histogram *h = nullptr;
    int r = hdr_log_decode(&h, text.data(), text.size());
    if (rc) *rc = r;
    else EXPECT_EQ(0, r) << hdr_log_strerror(r);
    return Hist(h, hdr_close);
}

// Response-time-like values over the whole range: mostly small, a long tail.
std::vector<int64_t> random_values(std::mt19937_64 &rng, size_t n) {
    std::vector<int64_t> v(n);
    for (int64_t &x : v) {
        int64_t top = int64_t{1} << (rng() % 32);
        x = static_cast<int64_t>(rng() % static_cast<uint64_t>(std::min<int64_t>(top, HDR_HIGHEST_TRACKABLE_VALUE) + 1));
    }
    return v;
}

int64_t pow10(int n) { return n > 0 ? 10 * pow10(n - 1) : 1; }

TEST(HdrHistogram, InitRefusesBadParameters) {
    struct { int64_t lowest, highest; int figures; } bad[] = {{0, 100, 2}, {1, 100, 0}, {1, 100, 6}, {10, 19, 2}, {-1, 100, 2}, {INT64_MAX / 2 + 1, INT64_MAX, 2}};
    for (const auto &b : bad) {
        hdr_histogram *h = nullptr;
        EXPECT_EQ(EINVAL, hdr_init(b.lowest, b.highest, b.figures, &h)) << b.lowest << " " << b.highest;
        EXPECT_EQ(nullptr, h);
    }
}

// Every value lands in a slot that holds it, no wider than the precision allows; min, max, total and percentiles
// agree with the sorted values.
TEST(HdrHistogram, RandomValueSetsAtEveryPrecision) {
    std::mt19937_64 rng(17);
    for (int figures = 1; figures <= 5; ++figures) {
        Hist h = make(figures);
        for (int round = 0; round < 4; ++round) {
            std::vector<int64_t> values = random_values(rng, round % 2 ? 5000 : 1 + rng() % 5000);
            hdr_reset(h.get());
            for (int64_t v : values) ASSERT_TRUE(hdr_record_value(h.get(), v));
            for (int64_t v : values) {
                int64_t lo = hdr_lowest_equivalent_value(h.get(), v), hi = hdr_highest_equivalent_value(h.get(), v);
                ASSERT_TRUE(lo <= v && v <= hi) << v;
                ASSERT_TRUE(hi == lo || (hi - lo + 1) * pow10(figures) <= lo) << "slot too wide at " << v;
                ASSERT_EQ(lo, hdr_value_at_index(h.get(), hdr_counts_index_for(h.get(), v)));
            }
            std::sort(values.begin(), values.end());
            const int64_t n = static_cast<int64_t>(values.size());
            EXPECT_EQ(n, h->total_count);
            EXPECT_EQ(hdr_lowest_equivalent_value(h.get(), values.front()), hdr_min(h.get()));
            EXPECT_EQ(hdr_highest_equivalent_value(h.get(), values.back()), hdr_max(h.get()));
            for (int64_t milli : {0, 1000, 28000, 50000, 90000, 99000, 99900, 100000}) {  // percent * 1000
                int64_t rank = std::max<int64_t>(1, (milli * n + 99999) / 100000);           // exact ceil
                EXPECT_EQ(hdr_highest_equivalent_value(h.get(), values[rank - 1]),
                          hdr_value_at_percentile(h.get(), milli / 1000.0))
                    << "p" << milli / 1000.0 << " n " << n;
            }
        }
    }
}

TEST(HdrHistogram, OnlyValuesWithinTheBoundsCount) {
    Hist h = make(2);
    const int64_t in[] = {0, 1, HDR_HIGHEST_TRACKABLE_VALUE};
    const int64_t out[] = {-1, INT64_MIN, HDR_HIGHEST_TRACKABLE_VALUE + 1, INT64_MAX};
    for (int64_t v : out) EXPECT_FALSE(hdr_record_value(h.get(), v)) << v;
    EXPECT_EQ(0, h->total_count);
    EXPECT_EQ(0, hdr_max(h.get()));
    for (int64_t v : in) EXPECT_TRUE(hdr_record_value(h.get(), v)) << v;
    EXPECT_EQ(3, h->total_count);
    EXPECT_EQ(0, hdr_min(h.get()));
    EXPECT_GE(hdr_max(h.get()), HDR_HIGHEST_TRACKABLE_VALUE);
}

// encode → decode → encode: same text, counts and queries; an emptied histogram encodes like a new one.
TEST(HdrHistogram, EncodingRoundTripsExactly) {
    std::mt19937_64 rng(5);
    for (int figures = 1; figures <= 5; ++figures) {
        Hist h = make(figures);
        const std::string empty = encode(h.get());
        for (size_t n : {size_t{0}, size_t{1}, size_t{3000}}) {
            hdr_reset(h.get());
            for (int64_t v : random_values(rng, n)) hdr_record_value(h.get(), v);
            if (n == 1) hdr_record_value(h.get(), HDR_HIGHEST_TRACKABLE_VALUE);
            const std::string text = encode(h.get());
            Hist back = decode(text);
            ASSERT_TRUE(back);
            EXPECT_EQ(text, encode(back.get()));
            EXPECT_EQ(0, memcmp(h->counts, back->counts, sizeof(int64_t) * h->counts_len));
            EXPECT_EQ(h->total_count, back->total_count);
            EXPECT_EQ(hdr_min(h.get()), hdr_min(back.get()));
            EXPECT_EQ(hdr_max(h.get()), hdr_max(back.get()));
            EXPECT_EQ(hdr_value_at_percentile(h.get(), 99), hdr_value_at_percentile(back.get(), 99));
        }
        hdr_reset(h.get());
        EXPECT_EQ(empty, encode(h.get()));
    }
}

// Raw bytes to padded base64, written here so that damaged records can be made.
std::string base64(const std::string &bytes) {
    static const char k[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string out;
    for (size_t i = 0; i < bytes.size(); i += 3) {
        uint32_t n = uint8_t(bytes[i]) << 16;
        if (i + 1 < bytes.size()) n |= uint8_t(bytes[i + 1]) << 8;
        if (i + 2 < bytes.size()) n |= uint8_t(bytes[i + 2]);
        for (size_t j = 0; j < 4; ++j) out += i + j <= bytes.size() ? k[(n >> (18 - 6 * j)) & 63] : '=';
    }
    return out;
}

std::string be32(uint32_t v) { return {char(v >> 24), char(v >> 16), char(v >> 8), char(v)}; }

// A compressed record of a V2 encoding with the given header fields and payload.
std::string record(uint32_t cookie, uint32_t payload_len, uint32_t figures, const std::string &payload,
                   uint32_t compressed_cookie = HDR_V2_COMPRESSED_COOKIE) {
    std::string raw = be32(cookie) + be32(payload_len) + be32(0) + be32(figures) + be32(0) + be32(1) + be32(0) +
                      be32(3600000000u) + be32(0x3ff00000) + be32(0) + payload;
    uLongf zlen = compressBound(raw.size());
    std::string z(zlen, '\0');
    EXPECT_EQ(Z_OK, compress2(reinterpret_cast<Bytef *>(&z[0]), &zlen, reinterpret_cast<const Bytef *>(raw.data()),
                              raw.size(), 6));
    z.resize(zlen);
    return base64(be32(compressed_cookie) + be32(zlen) + z);
}

// Damaged text never crashes or leaks; each kind of damage has its code.
TEST(HdrHistogram, DamagedEncodingsAreRefused) {
    Hist h = make(3);
    for (int64_t v : {1, 5, 70000, 9000000}) hdr_record_value(h.get(), v);
    const std::string good = encode(h.get());
    const std::string ok_payload("\x02\x7f\x04", 3);  // count 1, a run of 64 zeros, count 2
    ASSERT_TRUE(decode(record(HDR_V2_ENCODING_COOKIE, 3, 2, ok_payload)));
    struct { std::string text; int code; } cases[] = {
        {good.substr(0, good.size() - 1), HDR_LOG_INVALID_BASE64}, {"AAAA*AAA", HDR_LOG_INVALID_BASE64},
        {"AA=A", HDR_LOG_INVALID_BASE64}, {"", HDR_LOG_COMPRESSED_COOKIE},
        {record(HDR_V2_ENCODING_COOKIE, 3, 2, ok_payload, HDR_V2_ENCODING_COOKIE), HDR_LOG_COMPRESSED_COOKIE},
        {base64(be32(HDR_V2_COMPRESSED_COOKIE) + be32(4096) + "zzzz"), HDR_LOG_COMPRESSED_COOKIE},
        {base64(be32(HDR_V2_COMPRESSED_COOKIE) + be32(4) + "zzzz"), HDR_LOG_INFLATE_FAILED},
        {record(0x1c849301, 3, 2, ok_payload), HDR_LOG_ENCODING_COOKIE},
        {record(HDR_V2_ENCODING_COOKIE, 3, 7, ok_payload), HDR_LOG_UNSUPPORTED_HEADER},
        {record(HDR_V2_ENCODING_COOKIE, 9, 2, ok_payload), HDR_LOG_INFLATE_FAILED},
        {record(HDR_V2_ENCODING_COOKIE, 1, 2, "\x80"), HDR_LOG_INVALID_PAYLOAD},
        {record(HDR_V2_ENCODING_COOKIE, 4, 2, "\xff\xff\x03\x02"), HDR_LOG_INVALID_PAYLOAD},  // zeros past the end
    };
    for (const auto &c : cases) {
        int rc = 0;
        EXPECT_FALSE(decode(c.text, &rc)) << c.text;
        EXPECT_EQ(c.code, rc) << c.text << ": " << hdr_log_strerror(rc);
    }
    // Random damage: flipped bits and cuts anywhere.
    std::mt19937 rng(3);
    for (int round = 0; round < 3000; ++round) {
        std::string t = good;
        if (round % 2) t[rng() % t.size()] = "AZaz09+/="[rng() % 9];
        else t.resize((rng() % (t.size() / 4)) * 4);
        int rc = 0;
        Hist back = decode(t, &rc);
        EXPECT_TRUE((rc == 0) == static_cast<bool>(back));
        EXPECT_TRUE(rc == 0 || (rc <= -30001 && rc >= -30099)) << rc;
    }
}

}  // namespace
