// The tracing decision, table-driven and grouped by path: dice, through,
// trigger, errors; then refresh behaviour, the dice's statistics, bad input
// and the message texts. Signatures have a file of their own.
#include <gtest/gtest.h>
#include <string.h>
#include <sys/time.h>

#include <mutex>
#include <random>
#include <string>
#include <vector>

#include "corvidine/debug_log.h"
#include "corvidine/settings.h"
#include "corvidine/token_bucket.h"
#include "corvidine/tracing_decisions.h"
#include "support/settings_fixture.h"

namespace {

const char kSampled[] = "2B0123456789ABCDEF0123456789ABCDEF0123456789ABCDEF0123456701";
const char kNotSampled[] = "2B0123456789ABCDEF0123456789ABCDEF0123456789ABCDEF0123456700";
const char kVersion1[] = "1B0123456789ABCDEF0123456789ABCDEF0123456789ABCDEF0123456701";
const char kLowerCase[] = "2b0123456789abcdef0123456789abcdef0123456789abcdef0123456701";

long g_now_sec = 1700000000;
void fixed_clock(struct timeval *tv) {
    tv->tv_sec = g_now_sec;
    tv->tv_usec = 0;
}

struct LogCapture {
    std::mutex mu;
    std::vector<std::string> lines;
    static void callback(void *ctx, int, int, const char *, int, const char *message) {
        LogCapture *self = static_cast<LogCapture *>(ctx);
        std::lock_guard<std::mutex> lock(self->mu);
        self->lines.push_back(message);
    }
    bool has(const std::string &text) {
        std::lock_guard<std::mutex> lock(mu);
        for (const std::string &l : lines)
            if (l == text) return true;
        return false;
    }
};

int ready_yes(void *) {
    return 1;
}
int ready_no(void *) {
    return 0;
}

// The remote record; type 0 means none.
struct R {
    int type = 2;
    unsigned value = 1000000;
    int flags = 0x14;
    double caps[3] = {100, 100, 100};
    double rates[3] = {0, 0, 0};
};
// The local configuration.
struct L {
    int mode = -1, rate = -1, trigger = -1;
};
enum class XT { None, Sampled, NotSampled, Version1, LowerCase };
// The request.
struct I {
    XT xt = XT::None;
    int custom_rate = -1, custom_mode = -1, custom_trigger = -1, request_type = 0;
};
constexpr unsigned kAny = ~0u;

// Expected output. do_sample -1: any.
struct E {
    int ret, do_sample, do_metrics, decision_type, sample_rate, sample_source;
};
// Expected counters of the service's layer entry.
struct C {
    unsigned request, sample, trace, through, through_ignored, triggered, exhausted;
};
struct Case {
    const char *name;
    R remote;
    L local;
    I in;
    E want;
    C counts;
};

class Decisions : public corvidine_test::SettingsFixture {
protected:
    void SetUp() override {
        _vesk_clock_set(fixed_clock);  // before the buckets take their creation time
        cfg = vesk_settings_cfg_get();
        ASSERT_NE(nullptr, cfg);
        fresh_settings();
        vesk_debug_log_to_stream(nullptr);
        vesk_debug_log_level_set(0, VESK_DEBUG_HIGH);
        vesk_debug_log_add(&LogCapture::callback, &log, VESK_DEBUG_HIGH);
    }
    void TearDown() override {
        vesk_debug_log_remove(&LogCapture::callback, &log);
        vesk_debug_log_level_set(0, VESK_DEBUG_INFO);
        _vesk_clock_set(nullptr);
        reporter->table()->event_ready = ready_yes;
        reporter->table()->context = reporter;
    }

    static void add_record(const R &r, unsigned timestamp = 100, const char *layer = "svc") {
        if (r.type == 0) return;
        ASSERT_EQ(0, vesk_settings_add(r.type == 2 ? "" : layer, r.type, r.value, r.flags, timestamp, 60,
                                       r.caps, r.rates, nullptr, 0));
    }

    static vesk_tracing_decisions_in_t make_in(const I &i, const char *service = "svc") {
        vesk_tracing_decisions_in_t in = corvidine_test::decisions_in(service, i.request_type);
        switch (i.xt) {
            case XT::None:
                in.in_xtrace = nullptr;
                break;
            case XT::Sampled:
                in.in_xtrace = kSampled;
                break;
            case XT::NotSampled:
                in.in_xtrace = kNotSampled;
                break;
            case XT::Version1:
                in.in_xtrace = kVersion1;
                break;
            case XT::LowerCase:
                in.in_xtrace = kLowerCase;
                break;
        }
        in.custom_sample_rate = i.custom_rate;
        in.custom_tracing_mode = i.custom_mode;
        in.custom_trigger_mode = i.custom_trigger;
        return in;
    }

    static vesk_tracing_decisions_out_t fresh_out() {
        vesk_tracing_decisions_out_t out;
        memset(&out, 0, sizeof(out));
        out.version = 2;
        out.decision_type = 77;  // must be overwritten
        out.auth_status = 77;
        return out;
    }

    void run_cases(const std::vector<Case> &cases) {
        for (const Case &c : cases) {
            SCOPED_TRACE(c.name);
            _vesk_settings_reset();
            vesk_settings_cfg_init(cfg);
            add_record(c.remote);
            vesk_settings_set(c.local.rate, c.local.mode, c.local.trigger);

            vesk_tracing_decisions_in_t in = make_in(c.in);
            vesk_tracing_decisions_out_t out = fresh_out();
            int ret = vesk_tracing_decisions(&in, &out);
            EXPECT_EQ(c.want.ret, ret);
            if (c.want.do_sample != -1) {
                EXPECT_EQ(c.want.do_sample, out.do_sample);
            }
            EXPECT_EQ(c.want.do_metrics, out.do_metrics);
            EXPECT_EQ(c.want.decision_type, out.decision_type);
            EXPECT_EQ(c.want.sample_rate, out.sample_rate);
            EXPECT_EQ(c.want.sample_source, out.sample_source);
            EXPECT_EQ(2, out.version);
            EXPECT_EQ(VESK_AUTH_NO_SIGNATURE, out.auth_status);
            EXPECT_STREQ("", out.auth_message);
            EXPECT_STREQ(vesk_get_tracing_decisions_message(ret), out.status_message);

            vesk_settings_layer_entry_t *e = vesk_settings_entry_layer_get("svc");
            ASSERT_NE(nullptr, e);
            EXPECT_EQ(c.counts.request, e->request_count) << "request_count";
            EXPECT_EQ(c.counts.sample, e->sample_count) << "sample_count";
            // Where the dice decides, a trace is counted exactly when sampled.
            unsigned want_trace =
                c.counts.trace == kAny ? static_cast<unsigned>(out.do_sample) : c.counts.trace;
            EXPECT_EQ(want_trace, e->trace_count) << "trace_count";
            EXPECT_EQ(c.counts.through, e->through_count) << "through_count";
            EXPECT_EQ(c.counts.through_ignored, e->through_ignored_count) << "through_ignored_count";
            EXPECT_EQ(c.counts.triggered, e->triggered_count) << "triggered_count";
            EXPECT_EQ(c.counts.exhausted, e->token_bucket_exhaustion_count)
                << "token_bucket_exhaustion_count";
        }
    }

    int decide(const I &i, vesk_tracing_decisions_out_t *out, const char *service = "svc") {
        vesk_tracing_decisions_in_t in = make_in(i, service);
        *out = fresh_out();
        return vesk_tracing_decisions(&in, out);
    }

    vesk_settings_cfg_t *cfg = nullptr;
    LogCapture log;
};

R layer_record(unsigned value, int flags) {
    R r;
    r.type = 3;
    r.value = value;
    r.flags = flags;
    return r;
}
R with_caps(R r, double main, double relaxed, double strict) {
    r.caps[0] = main;
    r.caps[1] = relaxed;
    r.caps[2] = strict;
    return r;
}
R default_record(unsigned value, int flags) {
    R r;
    r.value = value;
    r.flags = flags;
    return r;
}

// Rates of 1000000 and flags without SAMPLE_START keep the dice out of the
// outcome; the dice's randomness has its own test below.
TEST_F(Decisions, DicePath) {
    run_cases({
        {"default record samples a new trace", R{}, L{}, I{}, E{0, 1, 1, 0, 1000000, 6},
         C{1, 1, 1, 0, 0, 0, 0}},
        {"layer record wins over default", layer_record(1000000, 0x14), L{}, I{}, E{0, 1, 1, 0, 1000000, 3},
         C{1, 1, 1, 0, 0, 0, 0}},
        {"custom rate beats local and remote", default_record(0, 0x14), L{1, 5}, I{XT::None, 1000000},
         E{0, 1, 1, 0, 1000000, 7}, C{1, 1, 1, 0, 0, 0, 0}},
        {"local rate beats remote without OVERRIDE", default_record(0, 0x14), L{-1, 1000000}, I{},
         E{0, 1, 1, 0, 1000000, 1}, C{1, 1, 1, 0, 0, 0, 0}},
        {"OVERRIDE caps a higher local rate", default_record(500000, 0x16), L{-1, 1000000}, I{},
         E{0, -1, 1, 0, 500000, 6}, C{1, 1, kAny, 0, 0, 0, 0}},
        {"OVERRIDE of a layer caps with source 3", layer_record(500000, 0x16), L{-1, 1000000}, I{},
         E{0, -1, 1, 0, 500000, 3}, C{1, 1, kAny, 0, 0, 0, 0}},
        {"OVERRIDE at an equal rate takes the remote source", default_record(500000, 0x16), L{-1, 500000},
         I{}, E{0, -1, 1, 0, 500000, 6}, C{1, 1, kAny, 0, 0, 0, 0}},
        {"OVERRIDE keeps a lower local rate", default_record(500000, 0x16), L{-1, 100000}, I{},
         E{0, -1, 1, 0, 100000, 1}, C{1, 1, kAny, 0, 0, 0, 0}},
        {"OVERRIDE caps even the custom rate", default_record(400000, 0x16), L{}, I{XT::None, 1000000},
         E{0, -1, 1, 0, 400000, 6}, C{1, 1, kAny, 0, 0, 0, 0}},
        {"OVERRIDE takes flags away from local mode", default_record(1000000, 0x12), L{1}, I{},
         E{0, 0, 1, 0, 1000000, 6}, C{1, 0, 0, 0, 1, 0, 0}},
        {"THROUGH_ALWAYS alone: start request ignored", default_record(1000000, 0x10), L{}, I{},
         E{0, 0, 1, 0, 1000000, 6}, C{1, 0, 0, 0, 1, 0, 0}},
        {"main bucket empty: dice yes, no token", with_caps(R{}, 0, 100, 100), L{}, I{},
         E{0, 0, 1, 0, 1000000, 6}, C{1, 1, 0, 0, 0, 0, 1}},
        {"main bucket below one token", with_caps(R{}, 0.9, 100, 100), L{}, I{}, E{0, 0, 1, 0, 1000000, 6},
         C{1, 1, 0, 0, 0, 0, 1}},
        {"remote flags 0: tracing disabled", default_record(1000000, 0), L{}, I{},
         E{-2, 0, 0, -1, 1000000, 6}, C{1, 0, 0, 0, 0, 0, 0}},
        {"local mode 0 disables", R{}, L{0}, I{}, E{-2, 0, 0, -1, 1000000, 6}, C{1, 0, 0, 0, 0, 0, 0}},
        {"local mode 1 enables over remote 0", default_record(1000000, 0), L{1}, I{},
         E{0, 1, 1, 0, 1000000, 6}, C{1, 1, 1, 0, 0, 0, 0}},
        {"custom mode 0 beats local 1", R{}, L{1}, I{XT::None, -1, 0}, E{-2, 0, 0, -1, 1000000, 6},
         C{1, 0, 0, 0, 0, 0, 0}},
        {"custom mode 1 beats local 0", R{}, L{0}, I{XT::None, -1, 1}, E{0, 1, 1, 0, 1000000, 6},
         C{1, 1, 1, 0, 0, 0, 0}},
        {"SAMPLE_THROUGH alone does not start traces", default_record(1000000, 0x08), L{}, I{},
         E{-2, 0, 0, -1, 1000000, 6}, C{1, 0, 0, 0, 0, 0, 0}},
    });
}

TEST_F(Decisions, ThroughPath) {
    run_cases({
        {"THROUGH_ALWAYS continues without dice or bucket", with_caps(R{}, 0, 0, 0), L{}, I{XT::Sampled},
         E{0, 1, 1, 0, 1000000, 6}, C{1, 0, 1, 1, 0, 0, 0}},
        {"SAMPLE_THROUGH rolls the dice, no bucket", with_caps(default_record(1000000, 0x0C), 0, 0, 0), L{},
         I{XT::Sampled}, E{0, 1, 1, 0, 1000000, 6}, C{1, 1, 1, 0, 0, 0, 0}},
        {"neither through flag: not continued", default_record(1000000, 0x04), L{}, I{XT::Sampled},
         E{0, 0, 1, 0, 1000000, 6}, C{1, 0, 0, 0, 0, 0, 0}},
        {"incoming not sampled", R{}, L{}, I{XT::NotSampled}, E{-1, 0, 1, 0, 1000000, 6},
         C{1, 0, 0, 0, 0, 0, 0}},
        {"wrong version counts as absent", R{}, L{}, I{XT::Version1}, E{0, 1, 1, 0, 1000000, 6},
         C{1, 1, 1, 0, 0, 0, 0}},
        {"lower-case hex counts as absent", R{}, L{}, I{XT::LowerCase}, E{0, 1, 1, 0, 1000000, 6},
         C{1, 1, 1, 0, 0, 0, 0}},
        {"trigger request with sampled X-Trace is ordinary", R{}, L{}, I{XT::Sampled, -1, -1, -1, 1},
         E{0, 1, 1, 0, 1000000, 6}, C{1, 0, 1, 1, 0, 0, 0}},
        {"trigger request with unsampled X-Trace", R{}, L{}, I{XT::NotSampled, -1, -1, -1, 1},
         E{-1, 0, 1, 0, 1000000, 6}, C{1, 0, 0, 0, 0, 0, 0}},
        {"not sampled while tracing disabled", default_record(1000000, 0), L{}, I{XT::NotSampled},
         E{-2, 0, 0, -1, 1000000, 6}, C{1, 0, 0, 0, 0, 0, 0}},
    });
}

TEST_F(Decisions, TriggerPath) {
    run_cases({
        {"no signature takes the strict bucket", with_caps(R{}, 0, 0, 1), L{}, I{XT::None, -1, -1, -1, 1},
         E{0, 1, 1, 1, 0, 0}, C{1, 0, 1, 0, 0, 1, 0}},
        {"strict bucket empty", with_caps(R{}, 100, 100, 0), L{}, I{XT::None, -1, -1, -1, 1},
         E{-4, 0, 1, -1, 0, 0}, C{1, 0, 0, 0, 0, 0, 0}},
        {"local trigger 0 disables", R{}, L{-1, -1, 0}, I{XT::None, -1, -1, -1, 1}, E{-3, 0, 1, -1, 0, 0},
         C{1, 0, 0, 0, 0, 0, 0}},
        {"custom trigger 0 beats local", R{}, L{-1, -1, 1}, I{XT::None, -1, -1, 0, 1}, E{-3, 0, 1, -1, 0, 0},
         C{1, 0, 0, 0, 0, 0, 0}},
        {"custom trigger 1 beats local 0", R{}, L{-1, -1, 0}, I{XT::None, -1, -1, 1, 1}, E{0, 1, 1, 1, 0, 0},
         C{1, 0, 1, 0, 0, 1, 0}},
        {"remote without TRIGGER_TRACE still triggers", default_record(1000000, 0x14), L{},
         I{XT::None, -1, -1, -1, 1}, E{0, 1, 1, 1, 0, 0}, C{1, 0, 1, 0, 0, 1, 0}},
        {"OVERRIDE without TRIGGER_TRACE takes it away", default_record(1000000, 0x16), L{},
         I{XT::None, -1, -1, -1, 1}, E{-3, 0, 1, -1, 0, 0}, C{1, 0, 0, 0, 0, 0, 0}},
        {"OVERRIDE with TRIGGER_TRACE keeps it", default_record(1000000, 0x36), L{},
         I{XT::None, -1, -1, -1, 1}, E{0, 1, 1, 1, 0, 0}, C{1, 0, 1, 0, 0, 1, 0}},
        {"tracing disabled stops before trigger", default_record(1000000, 0x20), L{},
         I{XT::None, -1, -1, -1, 1}, E{-2, 0, 0, -1, 1000000, 6}, C{1, 0, 0, 0, 0, 0, 0}},
        {"request_type -1 is ordinary", R{}, L{}, I{XT::None, -1, -1, -1, -1}, E{0, 1, 1, 0, 1000000, 6},
         C{1, 1, 1, 0, 0, 0, 0}},
    });
}

TEST_F(Decisions, ErrorPath) {
    vesk_tracing_decisions_out_t out;

    // No usable settings record at all.
    log.lines.clear();
    EXPECT_EQ(4, decide(I{}, &out));
    EXPECT_STREQ("settings-not-available", out.status_message);
    EXPECT_EQ(-1, out.sample_rate);
    EXPECT_EQ(2, out.sample_source);
    EXPECT_EQ(0, out.do_sample);
    EXPECT_EQ(0, out.do_metrics);
    EXPECT_EQ(-1, out.decision_type);
    EXPECT_EQ(-1, out.auth_status);
    EXPECT_TRUE(log.has("Sampling disabled for svc until valid settings are retrieved."));
    EXPECT_TRUE(log.has("_vesk_refresh_layer_settings(svc): No settings => -1"));
    EXPECT_EQ(static_cast<uint32_t>(g_now_sec), cfg->no_settings_since);
    // Nothing counted: the decision stopped before the layer entry.
    EXPECT_EQ(0u, vesk_settings_entry_layer_get("svc")->request_count);

    // Reporter gone, then not ready for events. A signature that came is "not checked".
    add_record(R{});
    reporter->table()->context = nullptr;
    vesk_tracing_decisions_in_t in = make_in(I{});
    in.header_signature = "abc";
    out = fresh_out();
    EXPECT_EQ(3, vesk_tracing_decisions(&in, &out));
    EXPECT_STREQ("reporter-not-ready", out.status_message);
    EXPECT_EQ(-2, out.auth_status);
    EXPECT_STREQ("not-checked", out.auth_message);
    EXPECT_EQ(-1, out.decision_type);
    EXPECT_EQ(0, out.do_metrics);
    EXPECT_EQ(-1, out.sample_rate);
    reporter->table()->context = reporter;

    reporter->table()->event_ready = ready_no;
    EXPECT_EQ(5, decide(I{}, &out));
    EXPECT_STREQ("send-queue-full", out.status_message);
    EXPECT_EQ(-1, out.auth_status);
    EXPECT_EQ(0, out.do_sample);
    reporter->table()->event_ready = ready_yes;

    // Table detached after settings were resolved: tracing disabled.
    EXPECT_EQ(0, decide(I{}, &out));
    char *base = vesk_shm_base;
    _vesk_settings_set_shmaddr(nullptr);
    EXPECT_EQ(-2, decide(I{}, &out));
    EXPECT_EQ(0, out.do_metrics) << "effective flags were never worked out";
    EXPECT_EQ(-1, out.decision_type);
    _vesk_settings_set_shmaddr(base);
}

TEST_F(Decisions, BrokenRecordKeepsTheLastGoodCopies) {
    add_record(R{});
    vesk_tracing_decisions_out_t out;
    ASSERT_EQ(0, decide(I{}, &out));
    ASSERT_EQ(1, out.do_sample);

    // A record that fails its test (value out of range) with a new timestamp:
    // the refresh keeps the previous value and flags.
    vesk_settings_t *r = vesk_settings_get(2, "");
    r->value = 2000000;
    r->timestamp = 200;
    EXPECT_EQ(0, decide(I{}, &out));
    EXPECT_EQ(1, out.do_sample);
    EXPECT_EQ(1000000, out.sample_rate);
    EXPECT_EQ(100u, cfg->timestamp) << "copies untouched";

    // From a fresh configuration the same record gives no usable flags.
    vesk_settings_cfg_init(cfg);
    EXPECT_EQ(-2, decide(I{}, &out));
    EXPECT_EQ(0, out.do_metrics);
}

TEST_F(Decisions, RefreshFollowsTimestampsAndRefillsBucketsOnlyThen) {
    R r = with_caps(R{}, 2, 0, 0);
    add_record(r);
    vesk_tracing_decisions_out_t out;
    auto sampled = [&] {
        EXPECT_EQ(0, decide(I{}, &out));
        return out.do_sample;
    };
    // Capacity 2, rate 0: exactly two tokens, then the bucket says no.
    EXPECT_EQ(1, sampled());
    EXPECT_EQ(1, sampled());
    EXPECT_EQ(0, sampled());
    vesk_settings_layer_entry_t *e = vesk_settings_entry_layer_get("svc");
    EXPECT_EQ(1u, e->token_bucket_exhaustion_count);
    EXPECT_EQ(2u, e->trace_count);

    // Same timestamp: value and flags are read from the record as they are,
    // but the buckets are not touched.
    const double caps[3] = {5, 5, 5}, rates[3] = {0, 0, 0};
    ASSERT_EQ(0, vesk_settings_update("", 2, 1000000, 0x14, 100, 60, caps, rates, nullptr));
    EXPECT_EQ(0, sampled());
    ASSERT_EQ(0, vesk_settings_update("", 2, 1000000, 0, 100, 60, caps, rates, nullptr));
    EXPECT_EQ(-2, decide(I{}, &out)) << "flags taken straight from the record";
    ASSERT_EQ(0, vesk_settings_update("", 2, 1000000, 0x14, 100, 60, caps, rates, nullptr));

    // A new timestamp refreshes: capacity 5 over an empty bucket adds nothing
    // at once (a raised capacity is no new burst), and the rate starts the refill.
    const double rates2[3] = {2, 0, 0};
    ASSERT_EQ(0, vesk_settings_update("", 2, 1000000, 0x14, 101, 60, caps, rates2, nullptr));
    EXPECT_EQ(0, sampled());
    EXPECT_EQ(5.0, cfg->bucket[0].capacity);
    EXPECT_DOUBLE_EQ(2e-6, cfg->bucket[0].rate_per_usec);
    g_now_sec += 1;  // two tokens per second
    EXPECT_EQ(1, sampled());
    EXPECT_EQ(1, sampled());
    EXPECT_EQ(0, sampled());
    g_now_sec -= 1;
}

TEST_F(Decisions, NegativeBucketLimitsBecomeZeroWithAWarning) {
    R r;
    r.caps[1] = -5;
    r.rates[2] = -0.5;
    add_record(r);
    vesk_tracing_decisions_out_t out;
    EXPECT_EQ(0, decide(I{}, &out));
    EXPECT_EQ(0.0, cfg->bucket[1].capacity);
    EXPECT_EQ(0.0f, cfg->bucket[1].available);
    EXPECT_EQ(0.0, cfg->bucket[2].rate_per_usec);
    EXPECT_TRUE(log.has("Invalid bucket capacity (-5.000000) for bucket 1. Using 0.\n"));
    EXPECT_TRUE(log.has("Invalid bucket rate (-0.500000) for bucket 2. Using 0.\n"));
    EXPECT_TRUE(log.has("_vesk_refresh_layer_settings(svc): => 0"));
}

TEST_F(Decisions, LayerChangeReachesTheDecisionOnlyThroughTheDefaultTimestamp) {
    add_record(R{});
    vesk_tracing_decisions_out_t out;
    ASSERT_EQ(0, decide(I{}, &out));
    EXPECT_EQ(6, out.sample_source);

    // A layer record added quietly is not seen: the cached default is current.
    const double caps[3] = {100, 100, 100}, rates[3] = {0, 0, 0};
    ASSERT_EQ(0, vesk_settings_add("svc", 3, 1000000, 0x14, 150, 60, caps, rates, nullptr, 0));
    ASSERT_EQ(0, decide(I{}, &out));
    EXPECT_EQ(6, out.sample_source);
    // Added with touch_default, it is.
    ASSERT_EQ(0, vesk_settings_add("other", 3, 1000000, 0x14, 160, 60, caps, rates, nullptr, 1));
    ASSERT_EQ(0, decide(I{}, &out));
    EXPECT_EQ(3, out.sample_source);

    // Deleting the layer record falls back to the default.
    ASSERT_EQ(0, vesk_settings_delete(3, "svc"));
    ASSERT_EQ(0, decide(I{}, &out));
    EXPECT_EQ(6, out.sample_source);
}

TEST_F(Decisions, ServiceBeyondTheLastEntryIsDecidedWithoutCounters) {
    add_record(with_caps(R{}, 0, 0, 0));  // empty main bucket
    for (int i = 0; i < VESK_SETTINGS_MAX_LAYERS; ++i)
        ASSERT_NE(nullptr, vesk_settings_entry_layer_get(("filler" + std::to_string(i)).c_str()));
    vesk_tracing_decisions_out_t out;
    EXPECT_EQ(0, decide(I{}, &out, "latecomer"));
    EXPECT_EQ(1, out.do_sample) << "no entry: no bucket is consulted";
    EXPECT_EQ(nullptr, vesk_settings_entry_layer_get("latecomer"));
    for (int i = 0; i < VESK_SETTINGS_MAX_LAYERS; ++i) {
        vesk_settings_layer_entry_t *e =
            vesk_settings_entry_layer_get(("filler" + std::to_string(i)).c_str());
        ASSERT_EQ(0u, e->request_count + e->sample_count + e->trace_count)
            << "counted in someone else's entry";
    }
    // Trigger trace still works through its bucket's answer.
    EXPECT_EQ(-4, decide(I{XT::None, -1, -1, -1, 1}, &out, "latecomer"));
}

TEST_F(Decisions, NullServiceUsesTheDefaultEntryAndRecord) {
    add_record(R{});
    add_record(layer_record(0, 0));
    vesk_tracing_decisions_out_t out;
    EXPECT_EQ(0, decide(I{}, &out, nullptr));
    EXPECT_EQ(6, out.sample_source);
    EXPECT_EQ(1u, vesk_settings_entry_layer_get("")->request_count);
}

TEST_F(Decisions, DiceFollowsTheRateInclusively) {
    R r;
    r.caps[0] = 1e9;
    add_record(r);
    vesk_tracing_decisions_out_t out;
    const int n = 40000;
    int hits = 0;
    for (int i = 0; i < n; ++i) {
        ASSERT_EQ(0, decide(I{XT::None, 250000}, &out));
        hits += out.do_sample;
    }
    EXPECT_NEAR(0.25, static_cast<double>(hits) / n, 0.015);
    vesk_settings_layer_entry_t *e = vesk_settings_entry_layer_get("svc");
    EXPECT_EQ(static_cast<unsigned>(n), e->sample_count);
    EXPECT_EQ(static_cast<unsigned>(hits), e->trace_count);
    EXPECT_EQ(250000u, e->sample_rate);
    EXPECT_EQ(7u, e->sample_source);

    // Rate 0 passes only on a draw of exactly 0: almost never.
    hits = 0;
    for (int i = 0; i < 20000; ++i) {
        decide(I{XT::None, 0}, &out);
        hits += out.do_sample;
    }
    EXPECT_LE(hits, 2);
}

// ---- Bad input -------------------------------------------------------------

TEST_F(Decisions, OutOfRangeInputIsRefusedWithoutTouchingTheOutput) {
    add_record(R{});
    struct Bad {
        const char *name;
        void (*spoil)(vesk_tracing_decisions_in_t *);
    } bad[] = {
        {"version 0", [](vesk_tracing_decisions_in_t *in) { in->version = 0; }},
        {"version 3", [](vesk_tracing_decisions_in_t *in) { in->version = 3; }},
        {"custom rate -2", [](vesk_tracing_decisions_in_t *in) { in->custom_sample_rate = -2; }},
        {"custom rate 1000001", [](vesk_tracing_decisions_in_t *in) { in->custom_sample_rate = 1000001; }},
        {"custom mode 2", [](vesk_tracing_decisions_in_t *in) { in->custom_tracing_mode = 2; }},
        {"custom mode -2", [](vesk_tracing_decisions_in_t *in) { in->custom_tracing_mode = -2; }},
        {"custom trigger 2", [](vesk_tracing_decisions_in_t *in) { in->custom_trigger_mode = 2; }},
        {"request type 2", [](vesk_tracing_decisions_in_t *in) { in->request_type = 2; }},
        {"request type -2", [](vesk_tracing_decisions_in_t *in) { in->request_type = -2; }},
    };
    for (const Bad &b : bad) {
        SCOPED_TRACE(b.name);
        vesk_tracing_decisions_in_t in = make_in(I{});
        b.spoil(&in);
        vesk_tracing_decisions_out_t out, before;
        memset(&out, 0x5A, sizeof(out));
        before = out;
        EXPECT_EQ(6, vesk_tracing_decisions(&in, &out));
        EXPECT_STREQ("internal-error-bad-argument", out.status_message);
        out.status_message = before.status_message;
        EXPECT_EQ(0, memcmp(&before, &out, sizeof(out))) << "only status_message may change";
    }
    EXPECT_EQ(0u, vesk_settings_entry_layer_get("svc")->request_count) << "refused before anything counted";

    // Edges of the ranges are fine.
    vesk_tracing_decisions_in_t in = make_in(I{XT::None, 0, -1, -1, -1});
    in.version = 1;
    vesk_tracing_decisions_out_t out = fresh_out();
    EXPECT_EQ(0, vesk_tracing_decisions(&in, &out));
}

TEST_F(Decisions, NullRecordsAreRefusedNotFollowed) {
    vesk_tracing_decisions_out_t out;
    memset(&out, 0x5A, sizeof(out));
    vesk_tracing_decisions_out_t before = out;
    EXPECT_EQ(6, vesk_tracing_decisions(nullptr, &out));
    EXPECT_STREQ("internal-error-bad-argument", out.status_message);
    out.status_message = before.status_message;
    EXPECT_EQ(0, memcmp(&before, &out, sizeof(out)));

    vesk_tracing_decisions_in_t in = make_in(I{});
    EXPECT_EQ(1, vesk_tracing_decisions(&in, nullptr));
    EXPECT_EQ(1, vesk_tracing_decisions(nullptr, nullptr));
}

TEST_F(Decisions, GarbageXTraceIsTreatedAsAbsent) {
    add_record(with_caps(R{}, 1e9, 1e9, 1e9));
    std::vector<std::string> garbage = {
        "",
        "2B",
        std::string(kSampled) + "00",         // longer than its header says
        std::string(kSampled).substr(0, 59),  // odd length
        std::string(kSampled).substr(0, 58),  // shorter than its header says
        "ZZ0123456789ABCDEF0123456789ABCDEF0123456789ABCDEF0123456701",
        std::string(2000, 'A'),     // beyond the longest string form
        std::string(1 << 20, '2'),  // a megabyte
        kLowerCase,
        kVersion1,
        "2B0000000000000000000000000000000000000000000000000000000001 ",
    };
    std::mt19937 rng(12345);
    for (int i = 0; i < 200; ++i) {
        std::string s(1 + rng() % 300, '\0');
        for (char &c : s) c = static_cast<char>(1 + rng() % 255);  // any byte but NUL
        garbage.push_back(s);
    }
    for (size_t g = 0; g < garbage.size(); ++g) {
        SCOPED_TRACE("garbage #" + std::to_string(g));
        vesk_tracing_decisions_in_t in = make_in(I{});
        in.in_xtrace = garbage[g].c_str();
        vesk_tracing_decisions_out_t out = fresh_out();
        ASSERT_EQ(0, vesk_tracing_decisions(&in, &out));
        EXPECT_EQ(1, out.do_sample) << "a new trace may start";
        EXPECT_EQ(0, out.decision_type);

        // As a trigger-trace request it goes down the trigger path.
        in.request_type = 1;
        out = fresh_out();
        ASSERT_EQ(0, vesk_tracing_decisions(&in, &out));
        EXPECT_EQ(1, out.decision_type);
    }
    EXPECT_TRUE(log.has("vesk_sample_layer: passed in x-trace seems invalid, ignoring"));
    EXPECT_TRUE(log.has("vesk_sample_layer: passed in x-trace has wrong version, ignoring"));
    vesk_tracing_decisions_out_t out;
    decide(I{XT::NotSampled}, &out);
    EXPECT_TRUE(log.has("vesk_sample_layer: passed in x-trace indicates that request is not being sampled"));
}

TEST_F(Decisions, RequestCountCoversDisabledTracingButNotEarlyFailures) {
    add_record(default_record(1000000, 0));
    vesk_tracing_decisions_out_t out;
    for (int i = 0; i < 3; ++i) EXPECT_EQ(-2, decide(I{}, &out));
    reporter->table()->event_ready = ready_no;
    EXPECT_EQ(5, decide(I{}, &out));
    reporter->table()->event_ready = ready_yes;
    EXPECT_EQ(3u, vesk_settings_entry_layer_get("svc")->request_count);
}

// ---- Texts -----------------------------------------------------------------

TEST(DecisionTexts, EveryCodeHasItsText) {
    const std::pair<int, const char *> status[] = {
        {-5, "auth-failed"},
        {-4, "rate-exceeded"},
        {-3, "trigger-tracing-disabled"},
        {-2, "tracing-disabled"},
        {-1, "ok"},
        {0, "ok"},
        {1, "internal-error-no-output-structure"},
        {2, "internal-error-no-default-config"},
        {3, "reporter-not-ready"},
        {4, "settings-not-available"},
        {5, "send-queue-full"},
        {6, "internal-error-bad-argument"},
        {7, "unknown-status-code"},
        {-6, "unknown-status-code"},
        {-99, "unknown-status-code"},
    };
    for (const auto &s : status)
        EXPECT_STREQ(s.second, vesk_get_tracing_decisions_message(s.first)) << s.first;
    const std::pair<int, const char *> auth[] = {
        {-2, "not-checked"},
        {-1, ""},
        {0, "ok"},
        {1, "no-signature-key"},
        {2, "bad-signature"},
        {3, "bad-timestamp"},
        {4, "unknown-status-code"},
        {-3, "unknown-status-code"},
    };
    for (const auto &a : auth)
        EXPECT_STREQ(a.second, vesk_get_tracing_decisions_auth_message(a.first)) << a.first;
}

}  // namespace
