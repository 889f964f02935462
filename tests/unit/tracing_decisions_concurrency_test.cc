// Many threads deciding at once against one bucket: never more tokens than
// the bucket held plus what its rate refilled, and every counter adds up.
// Written to run clean under ThreadSanitizer too.
#include <gtest/gtest.h>
#include <string.h>
#include <sys/time.h>

#include <atomic>
#include <thread>
#include <vector>

#include "corvidine/settings.h"
#include "corvidine/token_bucket.h"
#include "corvidine/tracing_decisions.h"
#include "support/settings_fixture.h"

namespace {

const long kBase = 1700000000;
// A clock that moves one microsecond each time it is read, so the refill
// that the buckets may hand out is known exactly afterwards.
std::atomic<long> g_ticks{0};
void ticking_clock(struct timeval *tv) {
    long t = g_ticks.fetch_add(1);
    tv->tv_sec = kBase + t / 1000000;
    tv->tv_usec = t % 1000000;
}

class DecisionsConcurrency : public corvidine_test::SettingsFixture {
protected:
    void SetUp() override {
        g_ticks = 0;
        _vesk_clock_set(ticking_clock);
        fresh_settings();
    }
    void TearDown() override { _vesk_clock_set(nullptr); }

    // Runs `per_thread` decisions on each of `threads` threads; returns how
    // many were sampled.
    static long decide_everywhere(int threads, int per_thread, int request_type = 0) {
        std::atomic<long> sampled{0}, wrong{0};
        std::vector<std::thread> pool;
        for (int t = 0; t < threads; ++t) {
            pool.emplace_back([&] {
                vesk_tracing_decisions_in_t in = corvidine_test::decisions_in("svc", request_type);
                long mine = 0;
                for (int i = 0; i < per_thread; ++i) {
                    vesk_tracing_decisions_out_t out;
                    memset(&out, 0, sizeof(out));
                    int rc = vesk_tracing_decisions(&in, &out);
                    if (rc != 0 && rc != -4) wrong++;
                    mine += out.do_sample;
                }
                sampled += mine;
            });
        }
        for (std::thread &t : pool) t.join();
        EXPECT_EQ(0, wrong.load());
        return sampled.load();
    }
};

TEST_F(DecisionsConcurrency, BucketWithoutRefillGivesExactlyItsCapacity) {
    const double caps[3] = {50, 0, 0}, rates[3] = {0, 0, 0};
    ASSERT_EQ(0, vesk_settings_add("", 2, 1000000, 0x14, 100, 60, caps, rates, nullptr, 0));
    const int threads = 8, each = 2000;
    long sampled = decide_everywhere(threads, each);
    EXPECT_EQ(50, sampled);

    vesk_settings_layer_entry_t *e = vesk_settings_entry_layer_get("svc");
    const unsigned total = threads * each;
    EXPECT_EQ(total, e->request_count);
    EXPECT_EQ(total, e->sample_count);
    EXPECT_EQ(50u, e->trace_count);
    EXPECT_EQ(total - 50u, e->token_bucket_exhaustion_count);
}

TEST_F(DecisionsConcurrency, RefillNeverExceedsCapacityPlusRateTimesTime) {
    // 20 tokens, then 1000 per second: one per 1000 clock reads.
    const double caps[3] = {20, 0, 0}, rates[3] = {1000, 0, 0};
    ASSERT_EQ(0, vesk_settings_add("", 2, 1000000, 0x14, 100, 60, caps, rates, nullptr, 0));
    long start = g_ticks.load();
    long sampled = decide_everywhere(8, 5000);
    double elapsed_usec = static_cast<double>(g_ticks.load() - start);
    double bound = 20 + elapsed_usec * (1000 / 1e6);
    EXPECT_LE(sampled, bound + 1e-6) << "elapsed " << elapsed_usec << " us";
    EXPECT_GT(sampled, 20) << "the rate must have refilled some";
    EXPECT_EQ(static_cast<unsigned>(sampled), vesk_settings_entry_layer_get("svc")->trace_count);
}

TEST_F(DecisionsConcurrency, TriggerTracesShareTheStrictBucket) {
    const double caps[3] = {0, 0, 7}, rates[3] = {0, 0, 0};
    ASSERT_EQ(0, vesk_settings_add("", 2, 1000000, 0x34, 100, 60, caps, rates, nullptr, 0));
    EXPECT_EQ(7, decide_everywhere(8, 500, /*request_type=*/1));
    vesk_settings_layer_entry_t *e = vesk_settings_entry_layer_get("svc");
    EXPECT_EQ(7u, e->triggered_count);
    EXPECT_EQ(4000u, e->request_count);
}

TEST_F(DecisionsConcurrency, DecisionsRideThroughSettingsRewrites) {
    const double caps[3] = {1e9, 1e9, 1e9}, rates[3] = {0, 0, 0};
    ASSERT_EQ(0, vesk_settings_add("", 2, 1000000, 0x14, 100, 60, caps, rates, nullptr, 0));
    std::atomic<bool> stop{false};
    std::thread rewriter([&] {
        unsigned ts = 101;
        while (!stop.load()) {
            // New timestamps force refreshes; values and flags stay usable.
            ++ts;
            vesk_settings_update("", 2, 1000000, 0x14, ts, 60, caps, rates, (ts % 2) ? "a" : nullptr);
            vesk_settings_add("svc", 3, 1000000, 0x14, ts, 60, caps, rates, nullptr, 1);
            vesk_settings_delete(3, "svc");
        }
    });
    long sampled = decide_everywhere(4, 3000);
    stop = true;
    rewriter.join();
    // Every decision found usable settings and was sampled. The service's
    // record comes and goes, taking its entry's counters with it, so only
    // the sampled count is checked here.
    EXPECT_EQ(12000, sampled);
}

}  // namespace
