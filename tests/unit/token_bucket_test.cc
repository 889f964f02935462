// Token buckets against a clock the test steps by hand, so every refill is
// checked to the token.
#include <gtest/gtest.h>
#include <sys/time.h>

#include "corvidine/settings.h"
#include "corvidine/token_bucket.h"

namespace {

struct timeval g_now;
int g_clock_reads = 0;

void test_clock(struct timeval *tv) {
    ++g_clock_reads;
    *tv = g_now;
}

void set_now(long sec, long usec) {
    g_now.tv_sec = sec;
    g_now.tv_usec = usec;
}

class TokenBucket : public ::testing::Test {
protected:
    void SetUp() override {
        set_now(1000, 0);
        g_clock_reads = 0;
        _vesk_clock_set(test_clock);
    }
    void TearDown() override { _vesk_clock_set(nullptr); }

    // A bucket as a refresh leaves it; rate in tokens per second.
    static vesk_bucket_t make(float available, double capacity, double per_second, long sec = 1000,
                              long usec = 0) {
        vesk_bucket_t b;
        b.available = available;
        b.capacity = capacity;
        b.rate_per_usec = per_second / 1e6;
        b.last_check.tv_sec = sec;
        b.last_check.tv_usec = usec;
        return b;
    }
};

TEST_F(TokenBucket, TimedeltaIsInMicroseconds) {
    EXPECT_EQ(0, vesk_bucket_timedelta(5, 7, 5, 7));
    EXPECT_EQ(1, vesk_bucket_timedelta(5, 999999, 6, 0));
    EXPECT_EQ(2500000, vesk_bucket_timedelta(10, 250000, 12, 750000));
    EXPECT_EQ(-1500000, vesk_bucket_timedelta(12, 0, 10, 500000));
    // Seconds well past 2^31 microseconds do not wrap.
    EXPECT_EQ(int64_t{4000} * 1000000, vesk_bucket_timedelta(0, 0, 4000, 0));
}

TEST_F(TokenBucket, RefillAddsElapsedTimesRate) {
    vesk_bucket_t b = make(0.5f, 10, 1.0);
    set_now(1000, 499999);
    vesk_bucket_update_available(&b);
    EXPECT_LT(b.available, 1.0f);
    EXPECT_EQ(0, vesk_bucket_consume(&b)) << "just short of a whole token";

    vesk_bucket_t c = make(0.5f, 10, 1.0);
    set_now(1000, 500000);
    EXPECT_EQ(1, vesk_bucket_consume(&c)) << "0.5 + 500000 us at 1/s is one token";
    EXPECT_EQ(0.0f, c.available);
    EXPECT_EQ(1000, c.last_check.tv_sec);
    EXPECT_EQ(500000, c.last_check.tv_usec);

    // Rates per second are turned into per-microsecond steps without drift.
    vesk_bucket_t d = make(0.0f, 1000, 250.0);
    set_now(1004, 0);
    vesk_bucket_update_available(&d);
    EXPECT_EQ(1000.0f, d.available);
    vesk_bucket_t e = make(0.0f, 1000, 250.0);
    set_now(1001, 200000);
    vesk_bucket_update_available(&e);
    EXPECT_FLOAT_EQ(300.0f, e.available);
}

TEST_F(TokenBucket, RefillIsCappedAtCapacity) {
    vesk_bucket_t b = make(3.0f, 5, 100.0);
    set_now(2000, 0);
    vesk_bucket_update_available(&b);
    EXPECT_EQ(5.0f, b.available);
    for (int i = 0; i < 5; ++i) EXPECT_EQ(1, vesk_bucket_consume(&b)) << i;
    EXPECT_EQ(0, vesk_bucket_consume(&b));
}

TEST_F(TokenBucket, FullBucketKeepsLastCheckSoTheWholeSpellCounts) {
    vesk_bucket_t b = make(10.0f, 10, 1.0, 1000, 0);
    set_now(1005, 0);
    g_clock_reads = 0;
    vesk_bucket_update_available(&b);
    EXPECT_EQ(0, g_clock_reads) << "a full bucket does not read the clock";
    EXPECT_EQ(1000, b.last_check.tv_sec);

    // The first token comes from the full bucket and leaves last_check at
    // 1000; the second refill then counts all 5 s since 1000 (capped), so
    // five tokens at 1005 leave 6, not 5.
    for (int i = 0; i < 5; ++i) ASSERT_EQ(1, vesk_bucket_consume(&b));
    EXPECT_EQ(6.0f, b.available);
    EXPECT_EQ(1005, b.last_check.tv_sec);
    set_now(1007, 0);
    vesk_bucket_update_available(&b);
    EXPECT_EQ(8.0f, b.available);
}

TEST_F(TokenBucket, ClockSteppingBackNeitherDrainsNorRefills) {
    vesk_bucket_t b = make(0.25f, 10, 1000.0, 1000, 0);
    set_now(990, 0);
    vesk_bucket_update_available(&b);
    EXPECT_EQ(0.25f, b.available);
    EXPECT_EQ(1000, b.last_check.tv_sec) << "last_check is kept, so time must pass it again";
    set_now(1000, 0);
    EXPECT_EQ(0, vesk_bucket_consume(&b)) << "no time passed";
    set_now(1000, 750);
    EXPECT_EQ(1, vesk_bucket_consume(&b));
    EXPECT_FLOAT_EQ(0.0f, b.available);
}

TEST_F(TokenBucket, SmallAndEmptyCapacities) {
    // Below one token: never gives one, however long it waits.
    vesk_bucket_t b = make(0.0f, 0.99, 1000.0);
    set_now(5000, 0);
    EXPECT_EQ(0, vesk_bucket_consume(&b));
    EXPECT_FLOAT_EQ(0.99f, b.available);

    // Capacity 0 and the never-filled mark: refills to 0, not to -1.
    vesk_bucket_t z = make(-1.0f, 0, 0);
    EXPECT_EQ(0, vesk_bucket_consume(&z));
    EXPECT_EQ(0.0f, z.available);

    // A rate of 0: what is there is all there will be.
    vesk_bucket_t r = make(2.0f, 2, 0);
    EXPECT_EQ(1, vesk_bucket_consume(&r));
    set_now(9000, 0);
    EXPECT_EQ(1, vesk_bucket_consume(&r));
    set_now(9999, 0);
    EXPECT_EQ(0, vesk_bucket_consume(&r));
    EXPECT_EQ(0.0f, r.available);
}

TEST_F(TokenBucket, AvailableIsAFloat) {
    // 2^24 + 1 tokens cannot be held in a float: one is lost in storing.
    vesk_bucket_t b = make(16777216.0f, 1e9, 1.0, 1000, 0);
    set_now(1001, 0);
    vesk_bucket_update_available(&b);
    EXPECT_EQ(16777216.0f, b.available);
    EXPECT_EQ(1001, b.last_check.tv_sec) << "the time was still taken";
}

TEST_F(TokenBucket, SetLimitsFillsCutsButNeverAdds) {
    vesk_bucket_t b = make(-1.0f, 0, 0);
    _vesk_bucket_set_limits(&b, 8, 2e-6);
    EXPECT_EQ(8.0f, b.available) << "a never-filled bucket starts full";
    EXPECT_EQ(8.0, b.capacity);
    EXPECT_EQ(2e-6, b.rate_per_usec);

    b.available = 6.0f;
    _vesk_bucket_set_limits(&b, 3, 0);
    EXPECT_EQ(3.0f, b.available) << "a lowered capacity cuts what is held";
    _vesk_bucket_set_limits(&b, 50, 0);
    EXPECT_EQ(3.0f, b.available) << "a raised capacity adds nothing at once";
    EXPECT_EQ(50.0, b.capacity);

    vesk_bucket_t z = make(-1.0f, 0, 0);
    _vesk_bucket_set_limits(&z, 0, 0);
    EXPECT_EQ(0.0f, z.available);
}

}  // namespace
