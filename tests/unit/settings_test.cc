// Settings table, layer entries, metric writers, local configuration, readiness, threads (TSan too).
#include <string.h>

#include <atomic>
#include <chrono>
#include <regex>
#include <thread>

#include "corvidine/bson.h"
#include "corvidine/debug_log.h"
#include "corvidine/settings.h"
#include "support/harness.h"

using corvidine_test::has;

namespace {

const double kCaps[3] = {10.5, 20.25, 30.125};
const double kRates[3] = {1.5, 2.5, 3.5};

int add(const std::string &name, int type = 3, unsigned ts = 100, const char *key = "key", int touch = 0) {
    return vesk_settings_add(name.c_str(), type, type == 2 ? 1000000 : 5000, type == 2 ? 0x14 : 0x04, ts, 60,
                             kCaps, kRates, key, touch);
}

using Writer = void (*)(vesk_bson_buffer *, int *);
// One metric document {"m": [...]} of what the writers append (which resets their counts); "" on failure.
std::string metric_document(std::initializer_list<Writer> writers, int *index) {
    vesk_bson_buffer b;
    if (vesk_bson_buffer_init(&b) == nullptr) return "";
    vesk_bson_append_start_array(&b, "m");
    for (Writer write : writers) write(&b, index);
    vesk_bson_append_finish_object(&b);
    std::string out = vesk_bson_buffer_finish(&b) ? std::string(b.data, vesk_bson_buffer_size(&b)) : "";
    vesk_bson_buffer_destroy(&b);
    return out;
}

char *g_local_block = nullptr;
alignas(64) char g_outside_block[VESK_SETTINGS_SIZE];

// Every case runs on the process's own block (name index) and on an outside block (names compared).
class SettingsTable : public ::testing::TestWithParam<bool> {
protected:
    void SetUp() override {
        if (g_local_block == nullptr) {
            ASSERT_EQ(0, vesk_settings_init_local());
            g_local_block = vesk_shm_base;
        }
        if (GetParam()) {
            _vesk_settings_set_shmaddr(g_local_block);
            _vesk_settings_reset();
        } else {
            memset(g_outside_block, 0, sizeof(g_outside_block));
            vesk_settings_header_t h = {VESK_SETTINGS_MAGIC, VESK_SETTINGS_VERSION, 0, 0};
            memcpy(g_outside_block, &h, sizeof(h));
            _vesk_settings_set_shmaddr(g_outside_block);
        }
    }
    void TearDown() override { _vesk_settings_set_shmaddr(g_local_block); }
    corvidine_test::FixedClock clock;
    corvidine_test::LogCapture log;
};

INSTANTIATE_TEST_SUITE_P(Blocks, SettingsTable, ::testing::Bool(),
                         [](const auto &info) { return info.param ? "Local" : "Outside"; });

TEST_P(SettingsTable, LookupsFindLiveRecordsByTypeAndLayer) {
    EXPECT_EQ(nullptr, vesk_settings_get(2, ""));
    ASSERT_EQ(0, add("alpha"));
    EXPECT_EQ(nullptr, vesk_settings_get_layer_sample_rate("missing")) << "a layer record is no default";
    ASSERT_EQ(0, add("", 2));
    ASSERT_EQ(0, add("beta"));
    vesk_settings_t *def = vesk_settings_get(2, ""), *alpha = vesk_settings_get(3, "alpha");
    ASSERT_TRUE(def && alpha && vesk_settings_get(3, "beta"));
    for (const char *miss : {"alph", "alphaX"}) EXPECT_EQ(nullptr, vesk_settings_get(3, miss)) << miss;
    EXPECT_EQ(alpha, vesk_settings_get(3, nullptr)) << "null layer: first of the type";
    EXPECT_EQ(alpha, vesk_settings_get_layer_sample_rate("alpha"));
    for (const char *fallback : {"missing", "", static_cast<const char *>(nullptr)})
        EXPECT_EQ(def, vesk_settings_get_layer_sample_rate(fallback));
    // One record per (type, layer); the same name under another type is fine.
    EXPECT_EQ(-2, add("alpha"));
    EXPECT_EQ(-2, add("", 2));
    EXPECT_EQ(0, add("alpha", 2));
}

TEST_P(SettingsTable, FullTableRefusesAndReusesTheOldestDeletedPlace) {
    for (int i = 0; i < VESK_SETTINGS_MAX_RECORDS; ++i) ASSERT_EQ(0, add("s" + std::to_string(i))) << i;
    EXPECT_EQ(-2, add("extra"));
    vesk_settings_t *recs = vesk_settings_inspect(nullptr, nullptr, nullptr, nullptr);
    // 90 is deleted first (older timestamp) but lies after 40 and 10.
    corvidine_test::FixedClock::set(5000);
    ASSERT_EQ(0, vesk_settings_delete(3, "s90"));
    corvidine_test::FixedClock::set(6000);
    ASSERT_EQ(0, vesk_settings_delete(3, "s40"));
    ASSERT_EQ(0, vesk_settings_delete(3, "s10"));
    const std::pair<const char *, int> reuse[] = {{"new1", 90}, {"new2", 10}, {"new3", 40}};
    for (const auto &r : reuse) {
        ASSERT_EQ(0, add(r.first));
        EXPECT_EQ(&recs[r.second], vesk_settings_get(3, r.first)) << r.first;
    }
    EXPECT_EQ(-2, add("new4"));
    EXPECT_EQ(100u, recs[90].timestamp) << "a reused place carries nothing of the deleted record";
}

TEST_P(SettingsTable, DeleteInvalidatesAndClearsTheEntryUpdateRewritesInPlace) {
    ASSERT_EQ(0, add("", 2));
    ASSERT_EQ(0, add("gone"));
    vesk_settings_layer_entry_t *gone = vesk_settings_entry_layer_get("gone"), *kept = vesk_settings_entry_layer_get("kept");
    gone->request_count = 5;
    kept->request_count = 6;
    vesk_settings_t *r = vesk_settings_get(3, "gone");
    ASSERT_EQ(0, vesk_settings_delete(3, "gone"));
    EXPECT_EQ(VESK_SETTINGS_FLAG_INVALID, r->flags);
    EXPECT_EQ(nullptr, vesk_settings_get(3, "gone"));
    EXPECT_EQ(-2, vesk_settings_delete(3, "gone"));
    EXPECT_EQ(0, gone->in_use);
    EXPECT_EQ(0u, gone->request_count);
    EXPECT_EQ(6u, kept->request_count);
    ASSERT_EQ(0, vesk_settings_delete(2, ""));
    EXPECT_EQ(nullptr, vesk_settings_get_layer_sample_rate("missing"));
    EXPECT_EQ(0, add("", 2)) << "a deleted record does not block a new one";

    ASSERT_EQ(0, add("svc"));
    r = vesk_settings_get(3, "svc");
    const double caps[3] = {1, 2, 3}, rates[3] = {4, 5, 6};
    ASSERT_EQ(0, vesk_settings_update("svc", 3, 99, 0x0A, 555, 66, caps, rates, nullptr));
    EXPECT_EQ(r, vesk_settings_get(3, "svc")) << "records never move";
    EXPECT_EQ(555u, r->timestamp);
    EXPECT_STREQ("key", r->signature_key) << "a null key keeps the old one";
    EXPECT_EQ(-2, vesk_settings_update("other", 3, 1, 0, 1, 1, caps, rates, nullptr));
    EXPECT_EQ(-2, vesk_settings_update("svc", 2, 1, 0, 1, 1, caps, rates, nullptr));
}

TEST_P(SettingsTable, LayerEntriesAreFoundOrTakenUntilAllAreUsed) {
    vesk_settings_layer_entry_t *def = vesk_settings_entry_layer_get(nullptr);
    ASSERT_NE(nullptr, def);
    EXPECT_EQ(def, vesk_settings_entry_layer_get("")) << "null is the default entry";
    std::vector<vesk_settings_layer_entry_t *> seen{def};
    for (int i = 1; i < VESK_SETTINGS_MAX_LAYERS; ++i) {
        seen.push_back(vesk_settings_entry_layer_get(("svc" + std::to_string(i)).c_str()));
        ASSERT_NE(nullptr, seen.back()) << i;
    }
    for (int i = 1; i < VESK_SETTINGS_MAX_LAYERS; ++i)
        EXPECT_EQ(seen[i], vesk_settings_entry_layer_get(("svc" + std::to_string(i)).c_str())) << i;
    EXPECT_EQ(nullptr, vesk_settings_entry_layer_get("one-too-many"));
    EXPECT_TRUE(log.contains("Failed to allocate a bucket - rate limiting inoperative for service one-too-many"));
    EXPECT_EQ(0, vesk_settings_wr_init()) << "clearing the region frees every entry";
    EXPECT_EQ(def, vesk_settings_entry_layer_get("one-too-many")) << "the first free entry is taken";
}

TEST_P(SettingsTable, EverythingFailsSoftlyWithoutABlock) {
    _vesk_settings_set_shmaddr(nullptr);
    EXPECT_EQ(nullptr, vesk_settings_get(2, ""));
    EXPECT_EQ(-1, add("", 2));
    EXPECT_EQ(-2, vesk_settings_update("", 2, 1, 0, 1, 1, kCaps, kRates, nullptr));
    EXPECT_EQ(-2, vesk_settings_delete(2, ""));
    EXPECT_EQ(nullptr, vesk_settings_entry_layer_get("x"));
    EXPECT_EQ(nullptr, vesk_settings_inspect(nullptr, nullptr, nullptr, nullptr));
}

TEST_P(SettingsTable, CounterWritersEmitOneElementPerEntryAndResetTheCounts) {
    vesk_settings_layer_entry_t *def = vesk_settings_entry_layer_get(""), *svc = vesk_settings_entry_layer_get("shop");
    def->trace_count = 10;
    svc->trace_count = 11;
    svc->request_count = 0xFFFFFFFFu;  // goes out as int32
    svc->sample_rate = 107;
    int index = 998;  // keys past 999 are cut to three digits
    std::string bytes = metric_document(
        {vesk_settings_append_request_count, vesk_settings_append_token_bucket_exhaustion_count,
         vesk_settings_append_trace_count, vesk_settings_append_sample_count, vesk_settings_append_through_count,
         vesk_settings_append_through_ignored_count, vesk_settings_append_triggered_count,
         vesk_settings_append_sample_rate, vesk_settings_append_sample_source},
        &index);
    EXPECT_EQ(998 + 18, index);
    std::vector<std::string> docs = corvidine_test::decode_bson(bytes);
    ASSERT_EQ(1u, docs.size());
    const std::string &d = docs[0];
    auto element = [](const char *name, const char *tags, int value) {
        return std::string("[\"name\", [\"string\", \"") + name + "\"]], [\"tags\", [\"document\", [" + tags +
               "]]], [\"value\", [\"int32\", " + std::to_string(value) + "]]";
    };
    const char *shop = "[\"SN\", [\"string\", \"shop\"]]";
    EXPECT_TRUE(has(d, element("RequestCount", shop, -1))) << d;
    EXPECT_TRUE(has(d, element("TraceCount", "", 10))) << d;
    EXPECT_TRUE(has(d, element("SampleRate", shop, 107))) << d;
    EXPECT_TRUE(has(bytes, std::string("\x03" "100\0", 5))) << "key of element 1000";
    EXPECT_EQ(0u, svc->request_count + svc->trace_count + def->trace_count) << "counts start again from zero";
    EXPECT_EQ(107u, svc->sample_rate) << "the rate stays";
}

TEST(SettingsCfg, SettersClampOrRefuseOutOfRangeValues) {
    corvidine_test::LogCapture log;
    vesk_settings_cfg_t *cfg = vesk_settings_cfg_get();
    vesk_settings_cfg_init(cfg);
    const int rates[][2] = {{-1, -1}, {0, 0}, {1000000, 1000000}, {1000001, 1000000}, {-2, 0}, {INT32_MIN, 0}};
    for (const auto &r : rates) {
        vesk_settings_rate_set(r[0]);
        EXPECT_EQ(r[1], cfg->sample_rate) << r[0];
    }
    EXPECT_TRUE(log.contains("New sample rate 1000001 greater than max value -- using max value 1000000"));
    const int modes[][2] = {{1, 1}, {2, -1}, {0, 0}, {-5, -1}};
    for (const auto &m : modes) {
        vesk_settings_mode_set(m[0]);
        EXPECT_EQ(m[1], cfg->tracing_mode) << m[0];
        vesk_settings_trigger_set(m[0]);
        EXPECT_EQ(m[1], cfg->trigger_mode) << m[0];
    }
}

class SettingsReady : public corvidine_test::SettingsFixture {};

TEST_F(SettingsReady, WaitsForTheDefaultRecordThenAsksTheReporter) {
    fresh_settings(false);
    auto waited_ms = [](int wait, int answer = VESK_SERVER_RESPONSE_OK) {
        auto t0 = std::chrono::steady_clock::now();
        EXPECT_EQ(answer, vesk_is_ready(wait));
        return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - t0).count();
    };
    EXPECT_GE(waited_ms(60), 60) << "no default record: waits the whole time";
    // The wait must end after the record came, however the threads are scheduled.
    std::atomic<bool> added{false};
    std::thread adder([&added] {
        std::this_thread::sleep_for(std::chrono::milliseconds(30));
        added = true;
        add("", 2);
    });
    long waited = waited_ms(20000);
    bool came_first = added.load();
    adder.join();
    EXPECT_TRUE(came_first && waited < 10000) << waited << " ms: stopped once the record was there";
    reporter->table.get_server_response = [](void *) { return VESK_SERVER_RESPONSE_TRY_LATER; };
    waited_ms(1000, VESK_SERVER_RESPONSE_TRY_LATER);  // the reporter's answer is the answer
    reporter->table.get_server_response = [](void *) { return VESK_SERVER_RESPONSE_OK; };
}

const int kCounters = 4, kBumpers = 3, kBumps = 20000;

vesk_settings_layer_entry_t *entry(const std::string &name) { return vesk_settings_entry_layer_get(name.c_str()); }

// One metric document of the request counts (which resets them).
void append_document(std::string *documents) {
    int index = 0;
    *documents += metric_document({vesk_settings_append_request_count}, &index);
}

// Settings rewritten and read, counters bumped and reset: no count lost or doubled, no garbage read.
TEST(SettingsConcurrency, WritersReadersAndCountersAgree) {
    ASSERT_EQ(0, vesk_settings_init_local());
    _vesk_settings_reset();
    ASSERT_EQ(0, vesk_settings_add("", 2, 500000, 0x14, 1, 60, kCaps, kRates, "k", 0));
    for (int j = 0; j < kCounters; ++j) ASSERT_NE(nullptr, entry("c" + std::to_string(j)));
    std::atomic<bool> done{false};
    std::atomic<long> bad{0}, reads{0};
    std::vector<std::thread> others, bumpers;
    for (int t = 0; t < 2; ++t) {
        others.emplace_back([t] {  // writers
            for (int i = 0; i < 3000; ++i) {
                std::string name = "w" + std::to_string(t) + "-" + std::to_string(i % 20);
                if (i % 3 == 0) vesk_settings_add(name.c_str(), 3, i % 1000001, 0x04, i, 60, kCaps, kRates, "key", i % 2);
                if (i % 3 == 1) vesk_settings_update(name.c_str(), 3, 1000000, 0x0C, i, 60, kCaps, kRates, nullptr);
                if (i % 3 == 2) vesk_settings_delete(3, name.c_str());
            }
        });
        others.emplace_back([&, t] {  // readers: a record under rewrite may read as invalid, never as garbage
            for (int i = 0; !done.load(); ++i, ++reads) {
                std::string name = "w" + std::to_string(i % 2) + "-" + std::to_string((i + t) % 20);
                unsigned value = 0;
                int rc = vesk_settings_get_value(vesk_settings_get_layer_sample_rate(name.c_str()), &value, nullptr, nullptr);
                if ((rc == 0 && value > 1000000) || rc < -2 || rc > 0 || vesk_settings_get(2, "") == nullptr) bad++;
                if (vesk_settings_layer_entry_t *e = entry(name)) __atomic_fetch_add(&e->sample_count, 1u, __ATOMIC_RELAXED);
            }
        });
    }
    for (int t = 0; t < kBumpers; ++t) {
        bumpers.emplace_back([t] {
            for (int i = 0; i < kBumps; ++i)
                __atomic_fetch_add(&entry("c" + std::to_string((i + t) % kCounters))->request_count, 1u, __ATOMIC_RELAXED);
        });
    }
    std::string documents;
    std::thread metric([&] {
        while (!done.load()) {
            append_document(&documents);
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
        }
        append_document(&documents);  // what came after the last read
    });
    for (std::thread &t : bumpers) t.join();
    done = true;
    metric.join();
    for (std::thread &t : others) t.join();
    EXPECT_EQ(0, bad.load());
    EXPECT_GT(reads.load(), 0);

    // Every bump shows up exactly once across the documents.
    std::regex element("\\[\"SN\", \\[\"string\", \"c\\d\"\\]\\]\\]\\]\\], \\[\"value\", \\[\"int32\", (\\d+)\\]\\]");
    long total = 0;
    for (const std::string &line : corvidine_test::decode_bson(documents))
        for (auto m = std::sregex_iterator(line.begin(), line.end(), element); m != std::sregex_iterator(); ++m)
            total += std::stol((*m)[1]);
    EXPECT_EQ(static_cast<long>(kBumpers) * kBumps, total);

    // At most one live record per (type, name).
    uint8_t num = 0;
    vesk_settings_t *recs = vesk_settings_inspect(nullptr, nullptr, nullptr, &num);
    ASSERT_NE(nullptr, recs);
    for (int i = 0; i < num; ++i)
        for (int k = i + 1; k < num; ++k)
            EXPECT_FALSE(!((recs[i].flags | recs[k].flags) & VESK_SETTINGS_FLAG_INVALID) &&
                         recs[i].type == recs[k].type && std::string(recs[i].layer) == recs[k].layer)
                << "duplicate " << recs[i].layer;
}

}  // namespace
