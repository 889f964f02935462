// Tracing decisions by path, errors, refreshes, dice, bad input, signatures, buckets, threads (TSan too).
#include <stdio.h>
#include <string.h>

#include <atomic>
#include <thread>

#include "corvidine/settings.h"
#include "corvidine/token_bucket.h"
#include "support/harness.h"

namespace {

const std::string kSampled = "2B0123456789ABCDEF0123456789ABCDEF0123456789ABCDEF0123456701";
const std::string kNotSampled = kSampled.substr(0, 58) + "00";
const std::string kVersion1 = "1" + kSampled.substr(1);
const std::string kGarbage = "ZZ" + kSampled.substr(2);  // does not parse: as if absent

int ready_yes(void *) { return 1; }
int ready_no(void *) { return 0; }

// The remote record (type 0: none), the local configuration, the request.
struct R {
    int type = 2, flags = 0x14;
    unsigned value = 1000000;
    double caps[3] = {100, 100, 100};
    const char *key = nullptr;
};
struct L { int mode = -1, rate = -1, trigger = -1; };
struct I {
    const std::string *xtrace = nullptr;
    int custom_rate = -1, custom_mode = -1, custom_trigger = -1, request_type = 0;
    const char *options = nullptr, *signature = nullptr;
    long timestamp = 0;
};
constexpr unsigned kAny = ~0u;
// Want: ret, do_sample (-1: any), do_metrics, decision_type, rate, source; counts: request, sample, trace (kAny:
// as sampled), through, through_ignored, triggered, exhausted.
using E = std::vector<int>;
using C = std::vector<unsigned>;
struct Case { const char *name; R remote; L local; I in; E want; C counts; };

R rec(unsigned value, int flags, int type = 2) { R r; r.type = type, r.value = value, r.flags = flags; return r; }
R caps(double main, double relaxed, double strict, R r = R{}) {
    r.caps[0] = main, r.caps[1] = relaxed, r.caps[2] = strict;
    return r;
}
const I kTrigger{nullptr, -1, -1, -1, 1};

class Decisions : public corvidine_test::SettingsFixture {
protected:
    void SetUp() override { fresh_settings(); }  // after the clock: buckets take their creation time
    void TearDown() override { reporter->table.event_ready = ready_yes, reporter->table.context = reporter; }
    static void add_record(const R &r, unsigned timestamp = 100) {
        const double rates[3] = {0, 0, 0};
        if (r.type == 0) return;
        ASSERT_EQ(0, vesk_settings_add(r.type == 2 ? "" : "svc", r.type, r.value, r.flags, timestamp, 60, r.caps,
                                       rates, r.key, 0));
    }
    int decide(const I &i, vesk_tracing_decisions_out_t *out, const char *service = "svc") {
        vesk_tracing_decisions_in_t in = corvidine_test::decisions_in(service, i.request_type);
        in.in_xtrace = i.xtrace ? i.xtrace->c_str() : nullptr;
        in.custom_sample_rate = i.custom_rate, in.custom_tracing_mode = i.custom_mode;
        in.custom_trigger_mode = i.custom_trigger, in.header_options = i.options;
        in.header_signature = i.signature, in.header_timestamp = i.timestamp;
        memset(out, 0, sizeof(*out));
        out->version = 2;
        out->decision_type = out->auth_status = 77;  // must be overwritten
        return vesk_tracing_decisions(&in, out);
    }
    void run_cases(const std::vector<Case> &cases) {
        for (const Case &c : cases) {
            SCOPED_TRACE(c.name);
            fresh_settings();
            add_record(c.remote);
            vesk_settings_set(c.local.rate, c.local.mode, c.local.trigger);
            vesk_tracing_decisions_out_t out;
            int ret = decide(c.in, &out);
            EXPECT_EQ(c.want, (E{ret, c.want[1] == -1 ? -1 : out.do_sample, out.do_metrics, out.decision_type,
                                 out.sample_rate, out.sample_source}));
            EXPECT_EQ(VESK_AUTH_NO_SIGNATURE, out.auth_status);
            EXPECT_STREQ(vesk_get_tracing_decisions_message(ret), out.status_message);
            vesk_settings_layer_entry_t *e = vesk_settings_entry_layer_get("svc");
            C want = c.counts;
            if (want[2] == kAny) want[2] = static_cast<unsigned>(out.do_sample);
            EXPECT_EQ(want, (C{e->request_count, e->sample_count, e->trace_count, e->through_count,
                               e->through_ignored_count, e->triggered_count, e->token_bucket_exhaustion_count}));
        }
    }
    corvidine_test::FixedClock clock;
    corvidine_test::LogCapture log;
    vesk_settings_cfg_t *cfg = vesk_settings_cfg_get();
};

// Rates of 1000000 and flags without SAMPLE_START keep the dice out of the outcome (it has its own test).
// clang-format off
TEST_F(Decisions, DicePath) {
    run_cases({
        {"default record", R{}, L{}, I{}, E{0, 1, 1, 0, 1000000, 6}, C{1, 1, 1, 0, 0, 0, 0}},
        {"layer record wins", rec(1000000, 0x14, 3), L{}, I{}, E{0, 1, 1, 0, 1000000, 3}, C{1, 1, 1, 0, 0, 0, 0}},
        {"custom rate first", rec(0, 0x14), L{1, 5}, I{nullptr, 1000000}, E{0, 1, 1, 0, 1000000, 7}, C{1, 1, 1, 0, 0, 0, 0}},
        {"then local rate", rec(0, 0x14), L{-1, 1000000}, I{}, E{0, 1, 1, 0, 1000000, 1}, C{1, 1, 1, 0, 0, 0, 0}},
        {"OVERRIDE caps local", rec(500000, 0x16), L{-1, 1000000}, I{}, E{0, -1, 1, 0, 500000, 6}, C{1, 1, kAny, 0, 0, 0, 0}},
        {"OVERRIDE of a layer", rec(500000, 0x16, 3), L{-1, 1000000}, I{}, E{0, -1, 1, 0, 500000, 3}, C{1, 1, kAny, 0, 0, 0, 0}},
        {"OVERRIDE, lower local", rec(500000, 0x16), L{-1, 100000}, I{}, E{0, -1, 1, 0, 100000, 1}, C{1, 1, kAny, 0, 0, 0, 0}},
        {"OVERRIDE flags over local mode", rec(1000000, 0x12), L{1}, I{}, E{0, 0, 1, 0, 1000000, 6}, C{1, 0, 0, 0, 1, 0, 0}},
        {"THROUGH_ALWAYS alone", rec(1000000, 0x10), L{}, I{}, E{0, 0, 1, 0, 1000000, 6}, C{1, 0, 0, 0, 1, 0, 0}},
        {"under one token", caps(0.9, 100, 100), L{}, I{}, E{0, 0, 1, 0, 1000000, 6}, C{1, 1, 0, 0, 0, 0, 1}},
        {"remote flags 0", rec(1000000, 0), L{}, I{}, E{-2, 0, 0, -1, 1000000, 6}, C{1, 0, 0, 0, 0, 0, 0}},
        {"local mode 0", R{}, L{0}, I{}, E{-2, 0, 0, -1, 1000000, 6}, C{1, 0, 0, 0, 0, 0, 0}},
        {"local mode 1, remote 0", rec(1000000, 0), L{1}, I{}, E{0, 1, 1, 0, 1000000, 6}, C{1, 1, 1, 0, 0, 0, 0}},
        {"custom mode 0, local 1", R{}, L{1}, I{nullptr, -1, 0}, E{-2, 0, 0, -1, 1000000, 6}, C{1, 0, 0, 0, 0, 0, 0}},
        {"SAMPLE_THROUGH alone", rec(1000000, 0x08), L{}, I{}, E{-2, 0, 0, -1, 1000000, 6}, C{1, 0, 0, 0, 0, 0, 0}},
    });
}

TEST_F(Decisions, ThroughPath) {
    run_cases({
        {"THROUGH_ALWAYS: no dice or bucket", caps(0, 0, 0), L{}, I{&kSampled}, E{0, 1, 1, 0, 1000000, 6}, C{1, 0, 1, 1, 0, 0, 0}},
        {"SAMPLE_THROUGH: dice", caps(0, 0, 0, rec(1000000, 0x0C)), L{}, I{&kSampled}, E{0, 1, 1, 0, 1000000, 6}, C{1, 1, 1, 0, 0, 0, 0}},
        {"neither flag", rec(1000000, 0x04), L{}, I{&kSampled}, E{0, 0, 1, 0, 1000000, 6}, C{1, 0, 0, 0, 0, 0, 0}},
        {"not sampled", R{}, L{}, I{&kNotSampled}, E{-1, 0, 1, 0, 1000000, 6}, C{1, 0, 0, 0, 0, 0, 0}},
        {"version 1 is absent", R{}, L{}, I{&kVersion1}, E{0, 1, 1, 0, 1000000, 6}, C{1, 1, 1, 0, 0, 0, 0}},
        {"garbage is absent", R{}, L{}, I{&kGarbage}, E{0, 1, 1, 0, 1000000, 6}, C{1, 1, 1, 0, 0, 0, 0}},
        {"trigger, garbage", R{}, L{}, I{&kGarbage, -1, -1, -1, 1}, E{0, 1, 1, 1, 0, 0}, C{1, 0, 1, 0, 0, 1, 0}},
        {"trigger, sampled", R{}, L{}, I{&kSampled, -1, -1, -1, 1}, E{0, 1, 1, 0, 1000000, 6}, C{1, 0, 1, 1, 0, 0, 0}},
        {"trigger, not sampled", R{}, L{}, I{&kNotSampled, -1, -1, -1, 1}, E{-1, 0, 1, 0, 1000000, 6}, C{1, 0, 0, 0, 0, 0, 0}},
    });
}

TEST_F(Decisions, TriggerPath) {
    run_cases({
        {"strict bucket", caps(0, 0, 1), L{}, kTrigger, E{0, 1, 1, 1, 0, 0}, C{1, 0, 1, 0, 0, 1, 0}},
        {"strict bucket empty", caps(100, 100, 0), L{}, kTrigger, E{-4, 0, 1, -1, 0, 0}, C{1, 0, 0, 0, 0, 0, 0}},
        {"local trigger 0", R{}, L{-1, -1, 0}, kTrigger, E{-3, 0, 1, -1, 0, 0}, C{1, 0, 0, 0, 0, 0, 0}},
        {"custom 0, local 1", R{}, L{-1, -1, 1}, I{nullptr, -1, -1, 0, 1}, E{-3, 0, 1, -1, 0, 0}, C{1, 0, 0, 0, 0, 0, 0}},
        {"OVERRIDE, no TRIGGER_TRACE", rec(1000000, 0x16), L{}, kTrigger, E{-3, 0, 1, -1, 0, 0}, C{1, 0, 0, 0, 0, 0, 0}},
        {"OVERRIDE and TRIGGER_TRACE", rec(1000000, 0x36), L{}, kTrigger, E{0, 1, 1, 1, 0, 0}, C{1, 0, 1, 0, 0, 1, 0}},
        {"tracing disabled first", rec(1000000, 0x20), L{}, kTrigger, E{-2, 0, 0, -1, 1000000, 6}, C{1, 0, 0, 0, 0, 0, 0}},
    });
}
// clang-format on

TEST_F(Decisions, ErrorPath) {
    vesk_tracing_decisions_out_t out;
    EXPECT_EQ(4, decide(I{}, &out)) << "no usable settings record";
    EXPECT_EQ((E{-1, 2, 0}), (E{out.sample_rate, out.sample_source, out.do_metrics}));
    EXPECT_TRUE(log.contains("Sampling disabled for svc until valid settings are retrieved."));
    EXPECT_EQ(static_cast<uint32_t>(corvidine_test::FixedClock::sec()), cfg->no_settings_since);

    add_record(R{});
    reporter->table.context = nullptr;  // reporter gone: a signature is "not checked"
    vesk_tracing_decisions_in_t in = corvidine_test::decisions_in("svc");
    in.header_signature = "abc";
    EXPECT_EQ(3, vesk_tracing_decisions(&in, &out));
    EXPECT_STREQ("reporter-not-ready", out.status_message);
    EXPECT_STREQ("not-checked", out.auth_message);
    reporter->table.context = reporter;
    reporter->table.event_ready = ready_no;
    EXPECT_EQ(5, decide(I{}, &out));
    EXPECT_STREQ("send-queue-full", out.status_message);
    reporter->table.event_ready = ready_yes;
    EXPECT_EQ(0u, vesk_settings_entry_layer_get("svc")->request_count) << "none of them counted";
    ASSERT_EQ(0, decide(I{}, &out));
    char *base = vesk_shm_base;
    _vesk_settings_set_shmaddr(nullptr);  // table detached after settings were resolved
    EXPECT_EQ(-2, decide(I{}, &out));
    EXPECT_EQ(0, out.do_metrics);
    _vesk_settings_set_shmaddr(base);
}

TEST_F(Decisions, RefreshFollowsTimestampsAndRefillsBucketsOnlyThen) {
    add_record(caps(2, 0, 0));
    vesk_tracing_decisions_out_t out;
    auto sampled = [&] {
        EXPECT_EQ(0, decide(I{}, &out));
        return out.do_sample;
    };
    EXPECT_EQ(1, sampled()) << "capacity 2, rate 0: two tokens";
    EXPECT_EQ(1, sampled());
    EXPECT_EQ(0, sampled());
    const double caps5[3] = {5, 5, 5}, rates[3] = {0, 0, 0}, rates2[3] = {2, 0, 0};
    ASSERT_EQ(0, vesk_settings_update("", 2, 1000000, 0x14, 100, 60, caps5, rates, nullptr));
    EXPECT_EQ(0, sampled()) << "same timestamp: buckets untouched";
    ASSERT_EQ(0, vesk_settings_update("", 2, 1000000, 0, 100, 60, caps5, rates, nullptr));
    EXPECT_EQ(-2, decide(I{}, &out)) << "but flags are read straight from the record";
    // A new timestamp: a raised capacity is no new burst; the rate refills.
    ASSERT_EQ(0, vesk_settings_update("", 2, 1000000, 0x14, 101, 60, caps5, rates2, nullptr));
    EXPECT_EQ(0, sampled());
    corvidine_test::FixedClock::set(corvidine_test::FixedClock::sec() + 1);
    EXPECT_EQ(1, sampled());
    EXPECT_EQ(1, sampled());
    EXPECT_EQ(0, sampled());
    vesk_settings_get(2, "")->value = 2000000;  // fails its test, with a new timestamp
    vesk_settings_get(2, "")->timestamp = 200;
    EXPECT_EQ(0, decide(I{}, &out)) << "the last good copies stay";
    EXPECT_EQ(101u, cfg->timestamp);
}

TEST_F(Decisions, LayerChangeReachesTheDecisionOnlyThroughTheDefaultTimestamp) {
    add_record(R{});
    vesk_tracing_decisions_out_t out;
    auto source = [&] {
        EXPECT_EQ(0, decide(I{}, &out));
        return out.sample_source;
    };
    EXPECT_EQ(6, source());
    const double c[3] = {100, 100, 100}, rates[3] = {0, 0, 0};
    ASSERT_EQ(0, vesk_settings_add("svc", 3, 1000000, 0x14, 150, 60, c, rates, nullptr, 0));
    EXPECT_EQ(6, source()) << "added quietly: the cached default is current";
    ASSERT_EQ(0, vesk_settings_add("other", 3, 1000000, 0x14, 160, 60, c, rates, nullptr, 1));
    EXPECT_EQ(3, source());
    ASSERT_EQ(0, vesk_settings_delete(3, "svc"));
    EXPECT_EQ(6, source());
    EXPECT_EQ(0, decide(I{}, &out, nullptr)) << "a null service takes the default entry";
    EXPECT_EQ(1u, vesk_settings_entry_layer_get("")->request_count);
}

TEST_F(Decisions, DiceFollowsTheRateInclusively) {
    add_record(caps(1e9, 100, 100));
    vesk_tracing_decisions_out_t out;
    const int n = 40000;
    int hits = 0;
    for (int i = 0; i < n; ++i) {
        ASSERT_EQ(0, decide(I{nullptr, 250000}, &out));
        hits += out.do_sample;
    }
    EXPECT_NEAR(0.25, static_cast<double>(hits) / n, 0.015);
    vesk_settings_layer_entry_t *e = vesk_settings_entry_layer_get("svc");
    EXPECT_EQ(static_cast<unsigned>(hits), e->trace_count);
    EXPECT_EQ(7u, e->sample_source);
    hits = 0;
    for (int i = 0; i < 20000; ++i) hits += (decide(I{nullptr, 0}, &out), out.do_sample);
    EXPECT_LE(hits, 2) << "rate 0 passes only on a draw of exactly 0";
}

TEST_F(Decisions, OutOfRangeInputIsRefusedWithoutTouchingTheOutput) {
    add_record(R{});
    using In = vesk_tracing_decisions_in_t;
    const std::pair<int In::*, int> spoil[] = {{&In::version, 0}, {&In::version, 3}, {&In::custom_sample_rate, -2},
                                               {&In::custom_sample_rate, 1000001}, {&In::custom_tracing_mode, 2},
                                               {&In::custom_trigger_mode, -2}, {&In::request_type, 2}, {nullptr, 0}};
    for (auto s : spoil) {
        In in = corvidine_test::decisions_in("svc");
        if (s.first) in.*s.first = s.second;
        vesk_tracing_decisions_out_t out, before;
        memset(&out, 0x5A, sizeof(out));
        before = out;
        EXPECT_EQ(6, vesk_tracing_decisions(s.first ? &in : nullptr, &out));  // null: no input at all
        EXPECT_STREQ("internal-error-bad-argument", out.status_message);
        out.status_message = before.status_message;
        EXPECT_EQ(0, memcmp(&before, &out, sizeof(out))) << "only status_message may change";
    }
    vesk_tracing_decisions_in_t in = corvidine_test::decisions_in("svc");
    EXPECT_EQ(1, vesk_tracing_decisions(&in, nullptr));
    EXPECT_EQ(0u, vesk_settings_entry_layer_get("svc")->request_count) << "refused before anything counted";
}

// ---- Signatures ----------------------------------------------------------

const long kNow = 1700000000;
const char kKey[] = "k3Tq7XwPbnR2vLyd9HsA";

// Lower-case hex HMAC-SHA1 of `data` (no quotes in it) under `key` (alphanumeric), from `openssl dgst`.
std::string openssl_hmac(const std::string &key, const std::string &data) {
    std::string output;
    if (FILE *p = popen(("printf %s '" + data + "' | openssl dgst -sha1 -hmac " + key).c_str(), "r")) {
        for (int c; (c = fgetc(p)) != EOF;) output.push_back(static_cast<char>(c));
        EXPECT_EQ(0, pclose(p)) << output;
    }
    size_t eq = output.rfind("= ");  // "HMAC-SHA1(stdin)= <40 hex digits>"
    EXPECT_NE(std::string::npos, eq) << output;
    return eq == std::string::npos ? "" : output.substr(eq + 2, 40);
}

TEST_F(Decisions, SignaturesAtTheirEdges) {  // the integration tests have the plain cases
    const std::string options = "trigger-trace;ts=1700000000;custom-key=value";
    const std::string good = openssl_hmac(kKey, options), wrong_key = openssl_hmac("wrongKey123", options);
    const char *o = options.c_str();
    struct Case {
        const char *name, *key, *options;
        std::string signature;
        long ts;
        int request_type, ret, auth, do_sample, decision_type;
    } cases[] = {
        {"good, now", kKey, o, good, kNow, 1, 0, 0, 1, 1},
        {"good, 300 s ahead", kKey, o, good, kNow + 300, 1, 0, 0, 1, 1},
        {"good, 300 s behind", kKey, o, good, kNow - 300, 1, 0, 0, 1, 1},
        {"good, 301 s ahead", kKey, o, good, kNow + 301, 1, -5, 3, 0, -1},
        {"good, 301 s behind", kKey, o, good, kNow - 301, 1, -5, 3, 0, -1},
        {"good, no timestamp", kKey, o, good, 0, 1, -5, 3, 0, -1},
        {"wrong key", kKey, o, wrong_key, kNow, 1, -5, 2, 0, -1},
        {"one digit short", kKey, o, good.substr(0, 39), kNow, 1, -5, 2, 0, -1},
        {"one digit more", kKey, o, good + "0", kNow, 1, -5, 2, 0, -1},
        {"no options text", kKey, nullptr, good, kNow, 1, -5, 2, 0, -1},
        {"empty options text", kKey, "", good, kNow, 1, -5, 2, 0, -1},
        {"record has no key", nullptr, o, good, kNow, 1, -5, 1, 0, -1},
        {"good on an ordinary request", kKey, o, good, kNow, 0, 0, 0, 1, 0},
        {"bad on an ordinary request", kKey, o, wrong_key, kNow, 0, -5, 2, 0, -1},
        {"empty signature is none", kKey, o, "", kNow, 1, 0, -1, 1, 1},
    };
    const char *auth_text[] = {"ok", "no-signature-key", "bad-signature", "bad-timestamp"};
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        fresh_settings();
        R r;
        r.key = c.key;
        add_record(r);
        vesk_tracing_decisions_out_t out;
        int ret = decide(I{nullptr, -1, -1, -1, c.request_type, c.options, c.signature.c_str(), c.ts}, &out);
        EXPECT_EQ((E{c.ret, c.auth, c.do_sample, c.decision_type}), (E{ret, out.auth_status, out.do_sample, out.decision_type}));
        EXPECT_STREQ(c.auth >= 0 ? auth_text[c.auth] : "", out.auth_message);
        if (ret == -5) {
            EXPECT_EQ(0u, vesk_settings_entry_layer_get("svc")->triggered_count) << "refused: no trigger";
        }
    }
}

TEST_F(Decisions, SignatureKeyComesFromTheResolvedRecordAndMayBeLong) {
    std::string long_key;  // the longest a record keeps
    for (int i = 0; i < 255; ++i) long_key += "abcdefghijklmnopqrstuvwxyz0123456789"[i % 36];
    const std::string options = "trigger-trace;ts=1700000000;pd-keys=a:b";
    R def, layer = rec(1000000, 0x14, 3);
    def.key = kKey;
    layer.key = long_key.c_str();
    add_record(def);
    add_record(layer);
    vesk_tracing_decisions_out_t out;
    EXPECT_EQ(0, decide(I{nullptr, -1, -1, -1, 1, options.c_str(), openssl_hmac(long_key, options).c_str(), kNow}, &out));
    EXPECT_EQ(-5, decide(I{nullptr, -1, -1, -1, 1, options.c_str(), openssl_hmac(kKey, options).c_str(), kNow}, &out))
        << "not the default's key";
}

// ---- Token buckets, against a clock stepped by hand ----------------------

// A bucket as a refresh leaves it; rate in tokens per second.
vesk_bucket_t make(float available, double capacity, double per_second, long sec = 1000) {
    vesk_bucket_t b;
    b.available = available, b.capacity = capacity, b.rate_per_usec = per_second / 1e6;
    b.last_check.tv_sec = sec, b.last_check.tv_usec = 0;
    return b;
}

TEST(TokenBucket, FullBucketKeepsLastCheckSoTheWholeSpellCounts) {
    corvidine_test::FixedClock clock(1005);
    vesk_bucket_t b = make(10.0f, 10, 1.0, 1000);  // a full bucket's first token keeps last_check: 5 s refill
    for (int i = 0; i < 5; ++i) ASSERT_EQ(1, vesk_bucket_consume(&b));
    EXPECT_EQ(6.0f, b.available);
    clock.set(1007);
    vesk_bucket_update_available(&b);
    EXPECT_EQ(8.0f, b.available);
}

TEST(TokenBucket, ClockSteppingBackNeitherDrainsNorRefills) {
    corvidine_test::FixedClock clock(990);
    vesk_bucket_t b = make(0.25f, 10, 1000.0, 1000);
    vesk_bucket_update_available(&b);
    EXPECT_EQ(0.25f, b.available);
    EXPECT_EQ(1000, b.last_check.tv_sec) << "kept, so time must pass it again";
    clock.set(1000, 750);
    EXPECT_EQ(1, vesk_bucket_consume(&b));
}

// ---- Many threads ----------------------------------------------------------

// A clock that moves one microsecond per read, so the refill the buckets may hand out is known exactly.
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

TEST_F(DecisionsConcurrency, BucketsWithoutRefillGiveExactlyTheirCapacity) {
    start(50, 0, 0);
    EXPECT_EQ(50, decide_everywhere(8, 2000));
    vesk_settings_layer_entry_t *e = vesk_settings_entry_layer_get("svc");
    EXPECT_EQ((C{16000, 16000, 50, 16000 - 50}),
              (C{e->request_count, e->sample_count, e->trace_count, e->token_bucket_exhaustion_count}));
    start(0, 7, 0, 0x34);  // trigger traces share the strict bucket
    EXPECT_EQ(7, decide_everywhere(8, 500, /*request_type=*/1));
    EXPECT_EQ(7u, vesk_settings_entry_layer_get("svc")->triggered_count);
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
