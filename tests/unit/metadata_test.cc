// Identifiers: string and binary forms, header codes, acceptance rules, the per-thread context.
#include <string.h>

#include <thread>

#include "corvidine/context.h"
#include "support/harness.h"

using corvidine_test::xtrace_of;

namespace {

vesk_metadata_t fresh() {
    vesk_metadata_t md;
    vesk_metadata_init(&md);
    return md;
}

bool same(const vesk_metadata_t &a, const vesk_metadata_t &b) {
    return a.version == b.version && a.task_len == b.task_len && a.op_len == b.op_len && a.flags == b.flags &&
           memcmp(a.task_id, b.task_id, a.task_len) == 0 && memcmp(a.op_id, b.op_id, a.op_len) == 0;
}

TEST(Metadata, EveryLengthCombinationRoundTrips) {
    vesk_metadata_t zero = fresh();
    EXPECT_EQ("2B" + std::string(56, '0') + "00", xtrace_of(zero));
    EXPECT_FALSE(vesk_metadata_is_valid(&zero));
    char small[29];
    EXPECT_EQ(-1, vesk_metadata_tostr(&zero, small, sizeof(small)));
    const size_t task_lens[] = {4, 8, 12, 20}, op_lens[] = {4, 8};
    for (size_t t = 0; t < 4; t++) {
        for (size_t o = 0; o < 2; o++) {
            vesk_metadata_t md = fresh();
            vesk_metadata_random(&md);
            md.flags = static_cast<uint8_t>(t * 0x40 + o);
            vesk_metadata_set_lengths(&md, task_lens[t], op_lens[o]);
            std::string s = xtrace_of(md);
            ASSERT_EQ(2 * (task_lens[t] + op_lens[o] + 2), s.size());
            unsigned header = std::stoul(s.substr(0, 2), nullptr, 16);
            EXPECT_EQ(0x20u | (o << 3) | t, header & 0xFBu) << s;
            vesk_metadata_t back = fresh();
            ASSERT_EQ(0, vesk_metadata_fromstr(&back, s.c_str(), s.size())) << s;
            EXPECT_TRUE(same(md, back)) << s;
            EXPECT_EQ(o == 1, vesk_metadata_is_sampled(&back)) << s;
        }
    }
}

TEST(Metadata, MalformedStringsAreRefusedAndLeaveTheRecordAlone) {
    std::string good = xtrace_of(corvidine_test::sampled_metadata());
    std::string lower = good, bad_char = good;
    for (char &c : lower) c = static_cast<char>(tolower(c));
    bad_char[10] = 'G';
    vesk_metadata_t target = fresh();
    for (const std::string &s : {lower, good.substr(0, 59), std::string(1026, 'A'), good + "AB", std::string(), bad_char})
        EXPECT_EQ(-1, vesk_metadata_fromstr(&target, s.c_str(), s.size())) << s;
    EXPECT_FALSE(vesk_metadata_is_valid(&target));
    std::string v1 = "1B" + std::string(56, '7') + "01";  // other versions parse here
    EXPECT_EQ(0, vesk_metadata_fromstr(&target, v1.c_str(), v1.size()));
    EXPECT_EQ(1, target.version);
}

TEST(Context, PerThreadAndUntouchedByAFailedParse) {
    vesk_metadata_t md = corvidine_test::sampled_metadata();
    vesk_context_set(&md);
    EXPECT_EQ(-1, vesk_context_set_fromstr("2bxyz", 5));
    EXPECT_TRUE(same(md, *vesk_context_get()));
    bool other_valid = true;
    std::thread([&] { other_valid = vesk_context_is_valid(); }).join();
    EXPECT_FALSE(other_valid);
    vesk_context_clear();
    EXPECT_FALSE(vesk_context_is_valid());
    EXPECT_FALSE(vesk_context_is_sampled());
}

}  // namespace
