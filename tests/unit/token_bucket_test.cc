// Token buckets against a clock the test steps by hand, so every refill is
// checked to the token.
#include <gtest/gtest.h>

#include "corvidine/token_bucket.h"
#include "support/harness.h"

namespace {

using Clock = corvidine_test::FixedClock;

// A bucket as a refresh leaves it; rate in tokens per second.
vesk_bucket_t make(float available, double capacity, double per_second, long sec = 1000) {
    vesk_bucket_t b;
    b.available = available;
    b.capacity = capacity;
    b.rate_per_usec = per_second / 1e6;
    b.last_check.tv_sec = sec;
    b.last_check.tv_usec = 0;
    return b;
}

TEST(TokenBucket, TimedeltaIsInMicrosecondsWithoutWrapping) {
    EXPECT_EQ(1, vesk_bucket_timedelta(5, 999999, 6, 0));
    EXPECT_EQ(-1500000, vesk_bucket_timedelta(12, 0, 10, 500000));
    EXPECT_EQ(int64_t{4000} * 1000000, vesk_bucket_timedelta(0, 0, 4000, 0));
}

TEST(TokenBucket, FullBucketKeepsLastCheckSoTheWholeSpellCounts) {
    Clock clock(1005);
    vesk_bucket_t b = make(10.0f, 10, 1.0, 1000);
    // The first token leaves last_check at 1000; the next refill counts all
    // 5 s since then (capped), so five tokens at 1005 leave 6, not 5.
    for (int i = 0; i < 5; ++i) ASSERT_EQ(1, vesk_bucket_consume(&b));
    EXPECT_EQ(6.0f, b.available);
    Clock::set(1007);
    vesk_bucket_update_available(&b);
    EXPECT_EQ(8.0f, b.available);
}

TEST(TokenBucket, ClockSteppingBackNeitherDrainsNorRefills) {
    Clock clock(990);
    vesk_bucket_t b = make(0.25f, 10, 1000.0, 1000);
    vesk_bucket_update_available(&b);
    EXPECT_EQ(0.25f, b.available);
    EXPECT_EQ(1000, b.last_check.tv_sec) << "kept, so time must pass it again";
    Clock::set(1000, 750);
    EXPECT_EQ(1, vesk_bucket_consume(&b));
}

TEST(TokenBucket, SmallEmptyAndUnrefilledCapacities) {
    Clock clock(5000);
    vesk_bucket_t b = make(0.0f, 0.99, 1000.0);
    EXPECT_EQ(0, vesk_bucket_consume(&b)) << "below one token, however long it waits";
    b = make(-1.0f, 0, 0);
    EXPECT_EQ(0, vesk_bucket_consume(&b));
    EXPECT_EQ(0.0f, b.available) << "the never-filled mark refills to 0";
    b = make(2.0f, 2, 0);
    EXPECT_EQ(1, vesk_bucket_consume(&b));
    Clock::set(9999);
    EXPECT_EQ(1, vesk_bucket_consume(&b));
    EXPECT_EQ(0, vesk_bucket_consume(&b)) << "rate 0: what is there is all there will be";
}

}  // namespace
