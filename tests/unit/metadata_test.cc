// Identifiers: string and binary forms, header codes, acceptance rules, context.
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/wait.h>
#include <unistd.h>
#include <stdio.h>
#include <string.h>

#include <set>
#include <string>
#include <thread>

#include "corvidine/context.h"
#include "corvidine/digest.h"
#include "corvidine/metadata.h"
#include "corvidine/random.h"

namespace {

std::string to_string(const vesk_metadata_t &md) {
    char buf[VESK_MAX_METADATA_STRING_LEN];
    EXPECT_EQ(0, vesk_metadata_tostr(&md, buf, sizeof(buf)));
    return buf;
}

vesk_metadata_t fresh() {
    vesk_metadata_t md;
    vesk_metadata_init(&md);
    return md;
}

bool same(const vesk_metadata_t &a, const vesk_metadata_t &b) {
    return a.version == b.version && a.task_len == b.task_len && a.op_len == b.op_len && a.flags == b.flags &&
           memcmp(a.task_id, b.task_id, a.task_len) == 0 && memcmp(a.op_id, b.op_id, a.op_len) == 0;
}

TEST(MetadataString, FreshRecordPrintsZerosAndIsInvalid) {
    vesk_metadata_t md = fresh();
    EXPECT_EQ("2B" + std::string(56, '0') + "00", to_string(md));
    EXPECT_FALSE(vesk_metadata_is_valid(&md));
    EXPECT_FALSE(vesk_metadata_is_sampled(&md));
}

TEST(MetadataString, BufferTooSmallForBinaryFormIsRefused) {
    vesk_metadata_t md = fresh();
    char buf[64];
    EXPECT_EQ(-1, vesk_metadata_tostr(&md, buf, 29));
    EXPECT_EQ(0, vesk_metadata_tostr(&md, buf, 64));
    EXPECT_EQ(60u, strlen(buf));
}

TEST(MetadataString, RoundTripKeepsEveryField) {
    for (int flags : {0, 1, 0x81}) {
        vesk_metadata_t md = fresh();
        ASSERT_EQ(1, vesk_metadata_random(&md));
        md.flags = static_cast<uint8_t>(flags);
        std::string s = to_string(md);
        vesk_metadata_t back = fresh();
        ASSERT_EQ(0, vesk_metadata_fromstr(&back, s.c_str(), s.size()));
        EXPECT_TRUE(same(md, back)) << s;
        EXPECT_EQ(s, to_string(back));
    }
}

TEST(MetadataString, SampledFlagIsTheLastByte) {
    vesk_metadata_t md = fresh();
    vesk_metadata_random(&md);
    md.flags = 1;
    std::string s = to_string(md);
    EXPECT_EQ("01", s.substr(58));
    EXPECT_TRUE(vesk_metadata_is_sampled(&md));
}

// Every combination of task length code and op length code, both directions.
TEST(MetadataHeader, AllLengthCombinations) {
    const size_t task_lens[] = {4, 8, 12, 20};
    const size_t op_lens[] = {4, 8};
    for (size_t t = 0; t < 4; t++) {
        for (size_t o = 0; o < 2; o++) {
            vesk_metadata_t md = fresh();
            vesk_metadata_random(&md);
            vesk_metadata_set_lengths(&md, task_lens[t], op_lens[o]);
            std::string s = to_string(md);
            EXPECT_EQ(2 * (task_lens[t] + op_lens[o] + 2), s.size());
            unsigned header = std::stoul(s.substr(0, 2), nullptr, 16);
            EXPECT_EQ(2u, header >> 4);
            EXPECT_EQ(t, header & 3u);
            EXPECT_EQ(o, (header >> 3) & 1u);
            vesk_metadata_t back = fresh();
            ASSERT_EQ(0, vesk_metadata_fromstr(&back, s.c_str(), s.size())) << s;
            EXPECT_EQ(task_lens[t], back.task_len);
            EXPECT_EQ(op_lens[o], back.op_len);
            EXPECT_TRUE(same(md, back));
        }
    }
}

TEST(MetadataParse, HeaderDecidesTheLength) {
    vesk_metadata_t md = fresh();
    std::string s52 = "23" + std::string(48, 'A') + "01";  // op code 0: 20 + 4 + 2 bytes
    EXPECT_EQ(0, vesk_metadata_fromstr(&md, s52.c_str(), s52.size()));
    EXPECT_EQ(20u, md.task_len);
    EXPECT_EQ(4u, md.op_len);
    std::string s20 = "20" + std::string(16, '1') + "00";  // task 4 + op 4 + 2 bytes
    md = fresh();
    EXPECT_EQ(0, vesk_metadata_fromstr(&md, s20.c_str(), s20.size()));
    EXPECT_EQ(4u, md.task_len);
    EXPECT_EQ(4u, md.op_len);
}

TEST(MetadataParse, Rejections) {
    vesk_metadata_t md = fresh();
    vesk_metadata_random(&md);
    std::string good = to_string(md);
    vesk_metadata_t target = fresh();

    std::string lower = good;
    for (char &c : lower) c = static_cast<char>(tolower(c));
    ASSERT_NE(lower, good);
    EXPECT_EQ(-1, vesk_metadata_fromstr(&target, lower.c_str(), lower.size()));
    EXPECT_EQ(-1, vesk_metadata_fromstr(&target, good.c_str(), 59));  // odd length
    std::string huge(1026, 'A');
    EXPECT_EQ(-1, vesk_metadata_fromstr(&target, huge.c_str(), huge.size()));
    std::string longer = good + "AB";  // header says 30 bytes, 31 given
    EXPECT_EQ(-1, vesk_metadata_fromstr(&target, longer.c_str(), longer.size()));
    EXPECT_EQ(-1, vesk_metadata_fromstr(&target, good.c_str(), 0));
    std::string bad_char = good;
    bad_char[10] = 'G';
    EXPECT_EQ(-1, vesk_metadata_fromstr(&target, bad_char.c_str(), bad_char.size()));
    // None of the failures touched the record.
    EXPECT_FALSE(vesk_metadata_is_valid(&target));
}

TEST(MetadataParse, OtherVersionsParseHere) {
    vesk_metadata_t md = fresh();
    std::string s = "1B" + std::string(56, '7') + "01";
    EXPECT_EQ(0, vesk_metadata_fromstr(&md, s.c_str(), s.size()));
    EXPECT_EQ(1, md.version);
}

TEST(Hex, PunctuationBetweenDigitsAndLettersIsLetThrough) {
    uint8_t out[2] = {0, 0};
    EXPECT_EQ(0, vesk_htob(":@", 2, out));  // 0x3A -> 10, 0x40 -> 0
    EXPECT_EQ(0xA0, out[0]);
    EXPECT_EQ(-1, vesk_htob("a0", 2, out));
    EXPECT_EQ(-1, vesk_htob("/0", 2, out));
    EXPECT_EQ(0, vesk_htob("F", 1, out));  // no whole pair: nothing written
}

TEST(Hex, InPlaceExpansion) {
    char buf[9] = {'\x01', '\xAB', '\xFF', '\x00'};
    vesk_btoh(reinterpret_cast<uint8_t *>(buf), buf, 4);
    buf[8] = 0;
    EXPECT_STREQ("01ABFF00", buf);
}

TEST(MetadataRandom, KeepsFlagsAndFillsIds) {
    vesk_metadata_t md = fresh();
    md.flags = 1;
    vesk_metadata_random(&md);
    EXPECT_EQ(1, md.flags);
    EXPECT_TRUE(vesk_metadata_is_valid(&md));
    vesk_metadata_t other = fresh();
    vesk_metadata_random(&other);
    EXPECT_NE(0, memcmp(md.task_id, other.task_id, 20));
}

TEST(Context, ClearGivesAFreshRecord) {
    vesk_metadata_t md = fresh();
    vesk_metadata_random(&md);
    md.flags = 1;
    vesk_context_set(&md);
    EXPECT_TRUE(vesk_context_is_valid());
    EXPECT_TRUE(vesk_context_is_sampled());
    vesk_context_clear();
    EXPECT_FALSE(vesk_context_is_valid());
    EXPECT_FALSE(vesk_context_is_sampled());
}

TEST(Context, FailedParseLeavesContextAlone) {
    vesk_metadata_t md = fresh();
    vesk_metadata_random(&md);
    vesk_context_set(&md);
    EXPECT_EQ(-1, vesk_context_set_fromstr("2bxyz", 5));
    EXPECT_TRUE(same(md, *vesk_context_get()));
    std::string s = "2B" + std::string(56, 'C') + "01";
    EXPECT_EQ(0, vesk_context_set_fromstr(s.c_str(), s.size()));
    EXPECT_TRUE(vesk_context_is_sampled());
    vesk_context_clear();
}

TEST(Context, ThreadsHaveTheirOwn) {
    vesk_metadata_t md = fresh();
    vesk_metadata_random(&md);
    vesk_context_set(&md);
    bool other_valid = true;
    std::thread t([&] { other_valid = vesk_context_is_valid(); });
    t.join();
    EXPECT_FALSE(other_valid);
    EXPECT_TRUE(vesk_context_is_valid());
    vesk_context_clear();
}

TEST(RandValue, InRangeAndPerThread) {
    std::set<int> seen;
    for (int i = 0; i < 1000; i++) {
        int v = vesk_rand_get_value();
        ASSERT_GE(v, 0);
        seen.insert(v);
    }
    EXPECT_GT(seen.size(), 990u);
    int first_other = -1;
    std::thread t([&] { first_other = vesk_rand_get_value(); });
    t.join();
    EXPECT_GE(first_other, 0);
}

TEST(RumDigest, MatchesSha1sumOfPrefixedData) {
    const char data[] = "some user data";
    unsigned char digest[20];
    unsigned int len = 0;
    ASSERT_EQ(0, vesk_rum_create_digest(data, sizeof(data) - 1, digest, &len));
    ASSERT_EQ(20u, len);
    char hex[41];
    vesk_btoh(digest, hex, 20);
    hex[40] = 0;
    for (char &c : hex) c = static_cast<char>(tolower(c));
    FILE *p = popen("printf 'RUMsome user data' | sha1sum", "r");
    ASSERT_NE(nullptr, p);
    char expected[41] = {0};
    ASSERT_EQ(1, fscanf(p, "%40s", expected));
    pclose(p);
    EXPECT_STREQ(expected, hex);
}

}  // namespace

namespace {
// Identifiers drawn after a fork differ between parent and child.
TEST(RandomMemory, ForkedChildDoesNotRepeatTheParentsBytes) {
    uint8_t warm[8];
    vesk_random_op_id(warm);  // leaves bytes in this thread's pool
    int fds[2];
    ASSERT_EQ(0, pipe(fds));
    pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        uint8_t id[8];
        vesk_random_op_id(id);
        _exit(write(fds[1], id, 8) == 8 ? 0 : 1);
    }
    uint8_t parent_id[8], child_id[8];
    vesk_random_op_id(parent_id);
    ASSERT_EQ(8, read(fds[0], child_id, 8));
    waitpid(child, nullptr, 0);
    close(fds[0]);
    close(fds[1]);
    EXPECT_NE(0, memcmp(parent_id, child_id, 8));
}
}  // namespace
