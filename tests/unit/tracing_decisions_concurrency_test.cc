// Many threads deciding at once against one bucket: never more tokens than
// the bucket held plus what its rate refilled, and every counter adds up.
// Written to run clean under ThreadSanitizer too.
#include <gtest/gtest.h>
#include <string.h>

#include <atomic>
#include <thread>
#include <vector>

#include "corvidine/settings.h"
#include "corvidine/token_bucket.h"
#include "corvidine/tracing_decisions.h"
#include "support/harness.h"

namespace {

// A clock that moves one microsecond each time it is read, so the refill the
// buckets may hand out is known exactly afterwards.
std::atomic<long> g_ticks{0};
void ticking_clock(struct timeval *tv) {
    long t = g_ticks.fetch_add(1);
    tv->tv_sec = 1700000000 + t / 1000000;
    tv->tv_usec = t % 1000000;
}

class DecisionsConcurrency : public corvidine_test::SettingsFixture {
protected:
    void SetUp() override { _vesk_clock_set(ticking_clock); }
    void TearDown() override { _vesk_clock_set(nullptr); }
    static void start(double main, double strict, double rate, int flags = 0x14) {
        fresh_settings();
        const double caps[3] = {main, 0, strict}, rates[3] = {rate, 0, 0};
        ASSERT_EQ(0, vesk_settings_add("", 2, 1000000, flags, 100, 60, caps, rates, nullptr, 0));
    }
    // `per_thread` decisions on each of `threads` threads; how many were sampled.
    static long decide_everywhere(int threads, int per_thread, int request_type = 0) {
        std::atomic<long> sampled{0}, wrong{0};
        std::vector<std::thread> pool;
        for (int t = 0; t < threads; ++t) {
            pool.emplace_back([&] {
                vesk_tracing_decisions_in_t in = corvidine_test::decisions_in("svc", request_type);
                for (int i = 0; i < per_thread; ++i) {
                    vesk_tracing_decisions_out_t out;
                    memset(&out, 0, sizeof(out));
                    int rc = vesk_tracing_decisions(&in, &out);
                    if (rc != 0 && rc != -4) wrong++;
                    sampled += out.do_sample;
                }
            });
        }
        for (std::thread &t : pool) t.join();
        EXPECT_EQ(0, wrong.load());
        return sampled.load();
    }
};

TEST_F(DecisionsConcurrency, BucketWithoutRefillGivesExactlyItsCapacity) {
    start(50, 0, 0);
    EXPECT_EQ(50, decide_everywhere(8, 2000));
    vesk_settings_layer_entry_t *e = vesk_settings_entry_layer_get("svc");
    EXPECT_EQ(16000u, e->request_count);
    EXPECT_EQ(16000u, e->sample_count);
    EXPECT_EQ(50u, e->trace_count);
    EXPECT_EQ(16000u - 50u, e->token_bucket_exhaustion_count);
}

TEST_F(DecisionsConcurrency, RefillNeverExceedsCapacityPlusRateTimesTime) {
    start(20, 0, 1000);  // 20 tokens, then one per 1000 clock reads
    long t0 = g_ticks.load();
    long sampled = decide_everywhere(8, 5000);
    double bound = 20 + static_cast<double>(g_ticks.load() - t0) * (1000 / 1e6);
    EXPECT_LE(sampled, bound + 1e-6);
    EXPECT_GT(sampled, 20) << "the rate must have refilled some";
    EXPECT_EQ(static_cast<unsigned>(sampled), vesk_settings_entry_layer_get("svc")->trace_count);
}

TEST_F(DecisionsConcurrency, TriggerTracesShareTheStrictBucket) {
    start(0, 7, 0, 0x34);
    EXPECT_EQ(7, decide_everywhere(8, 500, /*request_type=*/1));
    EXPECT_EQ(7u, vesk_settings_entry_layer_get("svc")->triggered_count);
}

TEST_F(DecisionsConcurrency, DecisionsRideThroughSettingsRewrites) {
    start(1e9, 1e9, 0);
    const double caps[3] = {1e9, 1e9, 1e9}, rates[3] = {0, 0, 0};
    std::atomic<bool> stop{false};
    std::thread rewriter([&] {
        for (unsigned ts = 101; !stop.load(); ++ts) {  // new timestamps force refreshes
            vesk_settings_update("", 2, 1000000, 0x14, ts, 60, caps, rates, (ts % 2) ? "a" : nullptr);
            vesk_settings_add("svc", 3, 1000000, 0x14, ts, 60, caps, rates, nullptr, 1);
            vesk_settings_delete(3, "svc");
        }
    });
    long sampled = decide_everywhere(4, 3000);
    stop = true;
    rewriter.join();
    EXPECT_EQ(12000, sampled) << "every decision found usable settings";
}

}  // namespace
