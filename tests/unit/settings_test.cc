// The settings table: byte layout, add/update/delete with reuse, lookups,
// record tests, layer entries and their metric writers, the local
// configuration, and the readiness wait.
#include <gtest/gtest.h>
#include <stdint.h>
#include <string.h>
#include <time.h>

#include <atomic>
#include <chrono>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "corvidine/bson.h"
#include "corvidine/debug_log.h"
#include "corvidine/settings.h"
#include "corvidine/token_bucket.h"
#include "support/capture_reporter.h"
#include "support/settings_fixture.h"

namespace {

// Messages of the settings module, captured through a log callback.
struct LogCapture {
    struct Line {
        int level;
        std::string text;
    };
    std::mutex mu;
    std::vector<Line> lines;

    static void callback(void *ctx, int module, int level, const char *, int, const char *message) {
        if (module != VESK_DEBUG_MODULE_SETTINGS) return;
        LogCapture *self = static_cast<LogCapture *>(ctx);
        std::lock_guard<std::mutex> lock(self->mu);
        self->lines.push_back({level, message});
    }
    void start() {
        vesk_debug_log_to_stream(nullptr);
        vesk_debug_log_level_set(0, VESK_DEBUG_HIGH);
        vesk_debug_log_add(&LogCapture::callback, this, VESK_DEBUG_HIGH);
    }
    void stop() {
        vesk_debug_log_remove(&LogCapture::callback, this);
        vesk_debug_log_level_set(0, VESK_DEBUG_INFO);
    }
    // Level of the first line equal to `text`, or -1.
    int level_of(const std::string &text) {
        std::lock_guard<std::mutex> lock(mu);
        for (const Line &l : lines)
            if (l.text == text) return l.level;
        return -1;
    }
    void clear() {
        std::lock_guard<std::mutex> lock(mu);
        lines.clear();
    }
};

// A fixed wall clock the table's delete timestamps read.
std::atomic<long> g_now_sec{1700000000};
void fixed_clock(struct timeval *tv) {
    tv->tv_sec = g_now_sec.load();
    tv->tv_usec = 0;
}

const double kCaps[3] = {10.5, 20.25, 30.125};
const double kRates[3] = {1.5, 2.5, 3.5};

// Reads a little-endian-native value at a byte offset of the block, without
// going through the record structs whose layout is under test.
template <typename T>
T at(size_t offset) {
    T v;
    memcpy(&v, vesk_shm_base + offset, sizeof(T));
    return v;
}
std::string str_at(size_t offset) {
    return std::string(vesk_shm_base + offset);
}

size_t record_offset(int i) {
    return 8 + static_cast<size_t>(i) * 584;
}
size_t entry_offset(int i) {
    return 72424 + static_cast<size_t>(i) * 296;
}

int add_layer(const std::string &name, unsigned timestamp = 100, unsigned value = 5000, int flags = 0x04) {
    return vesk_settings_add(name.c_str(), VESK_SETTINGS_TYPE_LAYER_SAMPLE_RATE, value, flags, timestamp, 60,
                             kCaps, kRates, "key", 0);
}

int add_default(unsigned timestamp = 100, unsigned value = 1000000, int flags = 0x14) {
    return vesk_settings_add("", VESK_SETTINGS_TYPE_DEFAULT_SAMPLE_RATE, value, flags, timestamp, 60, kCaps,
                             kRates, nullptr, 0);
}

enum class BlockKind { Local, Outside };

char *g_local_block = nullptr;
alignas(64) char g_outside_block[VESK_SETTINGS_SIZE];

// Every table case runs on the process's own block (name index in use) and on
// a block from outside (names compared one by one).
class SettingsTable : public ::testing::TestWithParam<BlockKind> {
protected:
    void SetUp() override {
        if (g_local_block == nullptr) {
            ASSERT_EQ(0, vesk_settings_init_local());
            g_local_block = vesk_shm_base;
        }
        if (GetParam() == BlockKind::Local) {
            _vesk_settings_set_shmaddr(g_local_block);
            _vesk_settings_reset();
        } else {
            memset(g_outside_block, 0, sizeof(g_outside_block));
            vesk_settings_header_t h = {VESK_SETTINGS_MAGIC, VESK_SETTINGS_VERSION, 0, 0};
            memcpy(g_outside_block, &h, sizeof(h));
            _vesk_settings_set_shmaddr(g_outside_block);
        }
        _vesk_clock_set(fixed_clock);
        log.start();
    }
    void TearDown() override {
        log.stop();
        _vesk_clock_set(nullptr);
        _vesk_settings_set_shmaddr(g_local_block);
    }
    LogCapture log;
};

INSTANTIATE_TEST_SUITE_P(Blocks, SettingsTable, ::testing::Values(BlockKind::Local, BlockKind::Outside),
                         [](const ::testing::TestParamInfo<BlockKind> &info) {
                             return info.param == BlockKind::Local ? std::string("Local")
                                                                   : std::string("Outside");
                         });

TEST_P(SettingsTable, BytesLieAtTheirOffsets) {
    ASSERT_EQ(0, add_default(111, 250000, 0x16));
    ASSERT_EQ(0, vesk_settings_add("svc", 3, 42, 0x24, 222, 333, kCaps, kRates, "sekrit", 0));
    vesk_settings_layer_entry_t *e0 = vesk_settings_entry_layer_get("first");
    vesk_settings_layer_entry_t *e1 = vesk_settings_entry_layer_get("second");
    ASSERT_NE(nullptr, e1);
    __atomic_fetch_add(&e1->trace_count, 7u, __ATOMIC_RELAXED);

    // Header: "ksev", version 1, flags 0, two records.
    EXPECT_EQ(0, memcmp(vesk_shm_base, "ksev", 4));
    EXPECT_EQ(1, at<uint16_t>(4));
    EXPECT_EQ(0, at<uint8_t>(6));
    EXPECT_EQ(2, at<uint8_t>(7));

    size_t r = record_offset(1);
    EXPECT_EQ(0, memcmp(vesk_shm_base + r, "ksev", 4));
    EXPECT_EQ(222u, at<uint32_t>(r + 4));
    EXPECT_EQ(3, at<uint16_t>(r + 8));
    EXPECT_EQ(0x24, at<uint16_t>(r + 10));
    EXPECT_EQ(42u, at<uint32_t>(r + 12));
    EXPECT_EQ(333u, at<uint32_t>(r + 16));
    EXPECT_EQ(0u, at<uint32_t>(r + 20));
    EXPECT_EQ("svc", str_at(r + 24));
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(kCaps[i], at<double>(r + 280 + 8 * i));
        EXPECT_EQ(kRates[i], at<double>(r + 304 + 8 * i));
    }
    EXPECT_EQ("sekrit", str_at(r + 328));
    EXPECT_EQ(111u, at<uint32_t>(record_offset(0) + 4));
    EXPECT_EQ("", str_at(record_offset(0) + 328));  // null key: none

    EXPECT_EQ(vesk_shm_base + entry_offset(0), reinterpret_cast<char *>(e0));
    EXPECT_EQ(vesk_shm_base + entry_offset(1), reinterpret_cast<char *>(e1));
    EXPECT_EQ("second", str_at(entry_offset(1)));
    EXPECT_EQ(7u, at<uint32_t>(entry_offset(1) + 264));
    EXPECT_EQ(1, at<uint8_t>(entry_offset(1) + 292));

    uint32_t magic = 0;
    uint16_t version = 0;
    uint8_t flags = 9, num = 0;
    EXPECT_EQ(reinterpret_cast<vesk_settings_t *>(vesk_shm_base + 8),
              vesk_settings_inspect(&magic, &version, &flags, &num));
    EXPECT_EQ(static_cast<uint32_t>(VESK_SETTINGS_MAGIC), magic);
    EXPECT_EQ(1, version);
    EXPECT_EQ(0, flags);
    EXPECT_EQ(2, num);
    EXPECT_NE(nullptr, vesk_settings_inspect(nullptr, nullptr, nullptr, nullptr));
    EXPECT_EQ(1, vesk_settings_get_version());

    // Nothing written past the layer entries.
    for (size_t i = VESK_SETTINGS_LAYERS_END; i < VESK_SETTINGS_SIZE; ++i)
        ASSERT_EQ(0, vesk_shm_base[i]) << "byte " << i;
}

TEST_P(SettingsTable, LookupsFindLiveRecordsByTypeAndLayer) {
    EXPECT_EQ(nullptr, vesk_settings_get(2, ""));
    EXPECT_EQ(nullptr, vesk_settings_get_layer_sample_rate("missing"));
    ASSERT_EQ(0, add_layer("alpha"));
    EXPECT_EQ(nullptr, vesk_settings_get_layer_sample_rate("missing")) << "a layer record is no default";
    ASSERT_EQ(0, add_default());
    ASSERT_EQ(0, add_layer("beta"));

    vesk_settings_t *def = vesk_settings_get(2, "");
    vesk_settings_t *alpha = vesk_settings_get(3, "alpha");
    vesk_settings_t *beta = vesk_settings_get(3, "beta");
    ASSERT_NE(nullptr, def);
    ASSERT_NE(nullptr, alpha);
    ASSERT_NE(nullptr, beta);
    EXPECT_STREQ("beta", beta->layer);
    EXPECT_EQ(nullptr, vesk_settings_get(3, "alph"));
    EXPECT_EQ(nullptr, vesk_settings_get(3, "alphaX"));
    EXPECT_EQ(nullptr, vesk_settings_get(2, "alpha"));
    EXPECT_EQ(alpha, vesk_settings_get(3, nullptr)) << "null layer: first of the type";

    EXPECT_EQ(alpha, vesk_settings_get_layer_sample_rate("alpha"));
    EXPECT_EQ(def, vesk_settings_get_layer_sample_rate("missing"));
    EXPECT_EQ(def, vesk_settings_get_layer_sample_rate(nullptr));
    EXPECT_EQ(def, vesk_settings_get_layer_sample_rate(""));

    // One record per (type, layer); the same name under another type is fine.
    EXPECT_EQ(-2, add_layer("alpha"));
    EXPECT_EQ(-2, add_default());
    EXPECT_EQ(0, vesk_settings_add("alpha", 2, 1, 0, 1, 1, kCaps, kRates, nullptr, 0));
}

TEST_P(SettingsTable, NamesAreCutAt255Characters) {
    std::string exact(255, 'n');
    std::string longer = std::string(255, 'm') + "tail";
    std::string long_key(300, 'k');
    ASSERT_EQ(0, add_layer(exact));
    ASSERT_EQ(0, vesk_settings_add(longer.c_str(), 3, 1, 0, 1, 1, kCaps, kRates, long_key.c_str(), 0));
    vesk_settings_t *r = vesk_settings_get(3, exact.c_str());
    ASSERT_NE(nullptr, r);
    EXPECT_EQ(exact, std::string(r->layer));
    vesk_settings_t *cut = vesk_settings_get(3, longer.substr(0, 255).c_str());
    ASSERT_NE(nullptr, cut);
    EXPECT_EQ(longer.substr(0, 255), std::string(cut->layer));
    EXPECT_EQ(std::string(255, 'k'), std::string(cut->signature_key));

    // Entry names too: a longer service name shares its 255-character prefix's entry.
    vesk_settings_layer_entry_t *e = vesk_settings_entry_layer_get(longer.c_str());
    ASSERT_NE(nullptr, e);
    EXPECT_EQ(255u, strlen(e->name));
    EXPECT_EQ(e, vesk_settings_entry_layer_get(longer.substr(0, 255).c_str()));
    EXPECT_EQ(e, vesk_settings_entry_layer_get((longer + "more").c_str()));
}

TEST_P(SettingsTable, FullTableRefusesAndReusesTheOldestDeletedPlace) {
    for (int i = 0; i < VESK_SETTINGS_MAX_RECORDS; ++i) ASSERT_EQ(0, add_layer("s" + std::to_string(i))) << i;
    EXPECT_EQ(-2, add_layer("extra")) << "no place left";
    EXPECT_EQ(VESK_SETTINGS_MAX_RECORDS, at<uint8_t>(7));

    // Delete three; 90 is deleted first (older timestamp) but lies after 40.
    g_now_sec = 5000;
    ASSERT_EQ(0, vesk_settings_delete(3, "s90"));
    g_now_sec = 6000;
    ASSERT_EQ(0, vesk_settings_delete(3, "s40"));
    ASSERT_EQ(0, vesk_settings_delete(3, "s10"));

    ASSERT_EQ(0, add_layer("new1"));
    EXPECT_EQ("new1", str_at(record_offset(90) + 24)) << "oldest deleted place first";
    EXPECT_EQ(VESK_SETTINGS_MAX_RECORDS, at<uint8_t>(7)) << "num_settings never changes on reuse";
    ASSERT_EQ(0, add_layer("new2"));
    EXPECT_EQ("new2", str_at(record_offset(10) + 24)) << "of equal timestamps the first wins";
    ASSERT_EQ(0, add_layer("new3"));
    EXPECT_EQ("new3", str_at(record_offset(40) + 24));
    EXPECT_EQ(-2, add_layer("new4"));

    // A reused place carries nothing of the deleted record.
    vesk_settings_t *r = vesk_settings_get(3, "new1");
    ASSERT_NE(nullptr, r);
    EXPECT_EQ(100u, r->timestamp);
    EXPECT_EQ(0x04, r->flags);
    EXPECT_EQ(nullptr, vesk_settings_get(3, "s90"));
}

TEST_P(SettingsTable, DeleteInvalidatesKeepsStringsAndClearsTheEntry) {
    ASSERT_EQ(0, add_default());
    ASSERT_EQ(0, add_layer("gone", 100, 777));
    ASSERT_EQ(0, add_layer("kept"));
    vesk_settings_layer_entry_t *gone_entry = vesk_settings_entry_layer_get("gone");
    vesk_settings_layer_entry_t *kept_entry = vesk_settings_entry_layer_get("kept");
    __atomic_fetch_add(&gone_entry->request_count, 5u, __ATOMIC_RELAXED);
    __atomic_fetch_add(&kept_entry->request_count, 6u, __ATOMIC_RELAXED);

    vesk_settings_t *r = vesk_settings_get(3, "gone");
    g_now_sec = 1234567;
    ASSERT_EQ(0, vesk_settings_delete(3, "gone"));
    EXPECT_EQ(0, r->type);
    EXPECT_EQ(VESK_SETTINGS_FLAG_INVALID, r->flags);
    EXPECT_EQ(1234567u, r->timestamp);
    EXPECT_EQ(777u, r->value);
    EXPECT_STREQ("gone", r->layer);
    EXPECT_STREQ("key", r->signature_key);
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(0.0, r->bucket_capacity[i]);
        EXPECT_EQ(0.0, r->bucket_rate[i]);
    }
    EXPECT_EQ(nullptr, vesk_settings_get(3, "gone"));
    EXPECT_EQ(-2, vesk_settings_delete(3, "gone"));
    EXPECT_EQ(-2, vesk_settings_delete(3, "never"));

    // Its counters went with it; the other service's stayed.
    EXPECT_EQ(0, gone_entry->in_use);
    EXPECT_EQ(0u, gone_entry->request_count);
    EXPECT_EQ('\0', gone_entry->name[0]);
    EXPECT_EQ(6u, kept_entry->request_count);

    // A deleted default is not found, and the layer lookup has no fallback.
    ASSERT_EQ(0, vesk_settings_delete(2, ""));
    EXPECT_EQ(nullptr, vesk_settings_get(2, ""));
    EXPECT_EQ(nullptr, vesk_settings_get_layer_sample_rate("missing"));
    EXPECT_EQ(0, add_default()) << "a deleted record does not block a new one";
}

TEST_P(SettingsTable, UpdateRewritesInPlaceAndKeepsKeyOnNull) {
    ASSERT_EQ(0, add_layer("svc"));
    vesk_settings_t *r = vesk_settings_get(3, "svc");
    const double caps[3] = {1, 2, 3}, rates[3] = {4, 5, 6};
    ASSERT_EQ(0, vesk_settings_update("svc", 3, 99, 0x0A, 555, 66, caps, rates, nullptr));
    EXPECT_EQ(r, vesk_settings_get(3, "svc")) << "records never move";
    EXPECT_EQ(99u, r->value);
    EXPECT_EQ(0x0A, r->flags);
    EXPECT_EQ(555u, r->timestamp);
    EXPECT_EQ(66u, r->ttl);
    EXPECT_EQ(3.0, r->bucket_capacity[2]);
    EXPECT_EQ(4.0, r->bucket_rate[0]);
    EXPECT_STREQ("key", r->signature_key);
    ASSERT_EQ(0, vesk_settings_update("svc", 3, 1, 0, 1, 1, caps, rates, "k2"));
    EXPECT_STREQ("k2", r->signature_key);
    EXPECT_EQ(-2, vesk_settings_update("other", 3, 1, 0, 1, 1, caps, rates, nullptr));
    EXPECT_EQ(-2, vesk_settings_update("svc", 2, 1, 0, 1, 1, caps, rates, nullptr));
}

TEST_P(SettingsTable, LayerAddTouchesTheDefaultTimestampOnlyWhenAsked) {
    ASSERT_EQ(0, add_default(100));
    vesk_settings_t *def = vesk_settings_get(2, "");
    ASSERT_EQ(0, vesk_settings_add("a", 3, 1, 0, 200, 1, kCaps, kRates, nullptr, 0));
    EXPECT_EQ(100u, def->timestamp);
    ASSERT_EQ(0, vesk_settings_add("b", 3, 1, 0, 300, 1, kCaps, kRates, nullptr, 1));
    EXPECT_EQ(300u, def->timestamp);
    ASSERT_EQ(0, vesk_settings_add("c", 2, 1, 0, 400, 1, kCaps, kRates, nullptr, 1));
    EXPECT_EQ(300u, def->timestamp) << "a type-2 add leaves the default alone";
}

TEST_P(SettingsTable, GetValueTestsInOrderWithItsMessages) {
    unsigned value = 7;
    uint16_t flags = 7;
    unsigned ts = 7;
    EXPECT_EQ(-2, vesk_settings_get_value(nullptr, &value, &flags, &ts));

    ASSERT_EQ(0, vesk_settings_add("v", 3, 1000000, 0x14, 321, 1, kCaps, kRates, nullptr, 0));
    vesk_settings_t *r = vesk_settings_get(3, "v");
    EXPECT_EQ(0, vesk_settings_get_value(r, &value, &flags, &ts));
    EXPECT_EQ(1000000u, value);
    EXPECT_EQ(0x14, flags);
    EXPECT_EQ(321u, ts);
    EXPECT_EQ(VESK_DEBUG_HIGH, log.level_of("vesk_settings_get_value: flags=14 value=1000000 => 0"));
    value = 0;
    EXPECT_EQ(0, vesk_settings_get_value(r, &value, nullptr, nullptr)) << "flags and timestamp are optional";
    EXPECT_EQ(1000000u, value);

    // A torn or foreign record; value above the maximum; invalid flag. The
    // magic test comes first, then the flag, then the value.
    vesk_settings_t copy = *r;
    value = 7;
    copy.value = 1000001;
    EXPECT_EQ(-2, vesk_settings_get_value(&copy, &value, nullptr, nullptr));
    EXPECT_EQ(7u, value) << "nothing written on failure";
    EXPECT_EQ(VESK_DEBUG_MEDIUM, log.level_of("vesk_settings_get_value: Invalid value 1000001 => -2"));
    copy.flags |= VESK_SETTINGS_FLAG_INVALID;
    EXPECT_EQ(-1, vesk_settings_get_value(&copy, &value, nullptr, nullptr));
    EXPECT_EQ(VESK_DEBUG_MEDIUM, log.level_of("vesk_settings_get_value: Flagged invalid => -1"));
    copy.magic = 0xDEADBEEF;
    EXPECT_EQ(-2, vesk_settings_get_value(&copy, &value, nullptr, nullptr));
    EXPECT_EQ(VESK_DEBUG_MEDIUM, log.level_of("vesk_settings_get_value: Invalid magic 0xDEADBEEF => -2"));
    EXPECT_EQ(7u, value);
}

TEST_P(SettingsTable, LayerEntriesAreFoundOrTakenUntilAllAreUsed) {
    vesk_settings_layer_entry_t *def = vesk_settings_entry_layer_get(nullptr);
    ASSERT_NE(nullptr, def);
    EXPECT_EQ(def, vesk_settings_entry_layer_get("")) << "null is the default entry";
    EXPECT_EQ(1, def->in_use);
    std::vector<vesk_settings_layer_entry_t *> seen{def};
    for (int i = 1; i < VESK_SETTINGS_MAX_LAYERS; ++i) {
        vesk_settings_layer_entry_t *e = vesk_settings_entry_layer_get(("svc" + std::to_string(i)).c_str());
        ASSERT_NE(nullptr, e) << i;
        seen.push_back(e);
    }
    for (int i = 1; i < VESK_SETTINGS_MAX_LAYERS; ++i)
        EXPECT_EQ(seen[i], vesk_settings_entry_layer_get(("svc" + std::to_string(i)).c_str())) << i;
    for (size_t i = 0; i < seen.size(); ++i)
        for (size_t j = i + 1; j < seen.size(); ++j) ASSERT_NE(seen[i], seen[j]);

    log.clear();
    EXPECT_EQ(nullptr, vesk_settings_entry_layer_get("one-too-many"));
    // Error the first time in the process, medium after (usage counter).
    int level =
        log.level_of("Failed to allocate a bucket - rate limiting inoperative for service one-too-many\n");
    EXPECT_TRUE(level == VESK_DEBUG_ERROR || level == VESK_DEBUG_MEDIUM) << level;

    // Clearing the region frees every entry.
    EXPECT_EQ(0, vesk_settings_wr_init());
    for (int i = 0; i < VESK_SETTINGS_MAX_LAYERS; ++i) ASSERT_EQ(0, at<uint8_t>(entry_offset(i) + 292));
    EXPECT_NE(nullptr, vesk_settings_entry_layer_get("one-too-many"));
    EXPECT_EQ(1, at<uint8_t>(entry_offset(0) + 292)) << "the first free entry is taken";
    EXPECT_EQ("one-too-many", str_at(entry_offset(0)));
}

TEST_P(SettingsTable, EverythingFailsSoftlyWithoutABlock) {
    _vesk_settings_set_shmaddr(nullptr);
    EXPECT_EQ(nullptr, vesk_settings_get(2, ""));
    EXPECT_EQ(-1, add_default());
    EXPECT_EQ(-2, vesk_settings_update("", 2, 1, 0, 1, 1, kCaps, kRates, nullptr));
    EXPECT_EQ(-2, vesk_settings_delete(2, ""));
    EXPECT_EQ(nullptr, vesk_settings_get_layer_sample_rate("x"));
    EXPECT_EQ(nullptr, vesk_settings_entry_layer_get("x"));
    EXPECT_EQ(nullptr, vesk_settings_inspect(nullptr, nullptr, nullptr, nullptr));
    EXPECT_EQ(0, vesk_settings_wr_init());
    vesk_bson_buffer b;
    ASSERT_NE(nullptr, vesk_bson_buffer_init(&b));
    int index = 3;
    vesk_settings_append_request_count(&b, &index);
    EXPECT_EQ(3, index);
    vesk_bson_buffer_destroy(&b);
}

// Splits one decoded document line into the elements of its array: each
// element's text runs from its opening to the next one.
// Decoded form: [["m", ["array", [["document", [["name", ...], ...]], ...]]]]
std::vector<std::string> elements_of(const std::string &line) {
    const std::string mark = "[\"document\", [[\"name\"";
    std::vector<std::string> out;
    size_t pos = line.find(mark);
    while (pos != std::string::npos) {
        size_t next = line.find(mark, pos + 1);
        out.push_back(line.substr(pos, next == std::string::npos ? std::string::npos : next - pos));
        pos = next;
    }
    return out;
}

TEST_P(SettingsTable, CounterWritersEmitOneElementPerEntryAndReset) {
    vesk_settings_layer_entry_t *def = vesk_settings_entry_layer_get("");
    vesk_settings_layer_entry_t *svc = vesk_settings_entry_layer_get("shop");
    uint32_t vesk_settings_layer_entry_t::*fields[] = {
        &vesk_settings_layer_entry_t::request_count,
        &vesk_settings_layer_entry_t::token_bucket_exhaustion_count,
        &vesk_settings_layer_entry_t::trace_count,
        &vesk_settings_layer_entry_t::sample_count,
        &vesk_settings_layer_entry_t::through_count,
        &vesk_settings_layer_entry_t::through_ignored_count,
        &vesk_settings_layer_entry_t::triggered_count,
        &vesk_settings_layer_entry_t::sample_rate,
        &vesk_settings_layer_entry_t::sample_source};
    for (int f = 0; f < 9; ++f) {
        def->*fields[f] = 10 + f;
        svc->*fields[f] = 100 + f;
    }
    svc->request_count = 0xFFFFFFFFu;  // goes out as int32

    vesk_bson_buffer b;
    ASSERT_NE(nullptr, vesk_bson_buffer_init(&b));
    vesk_bson_append_start_array(&b, "m");
    int index = 0;
    vesk_settings_append_request_count(&b, &index);
    vesk_settings_append_token_bucket_exhaustion_count(&b, &index);
    vesk_settings_append_trace_count(&b, &index);
    vesk_settings_append_sample_count(&b, &index);
    vesk_settings_append_through_count(&b, &index);
    vesk_settings_append_through_ignored_count(&b, &index);
    vesk_settings_append_triggered_count(&b, &index);
    vesk_settings_append_sample_rate(&b, &index);
    vesk_settings_append_sample_source(&b, &index);
    vesk_bson_append_finish_object(&b);
    ASSERT_NE(nullptr, vesk_bson_buffer_finish(&b));
    EXPECT_EQ(18, index);
    std::string bytes(b.data, vesk_bson_buffer_size(&b));
    vesk_bson_buffer_destroy(&b);

    std::vector<std::string> lines = corvidine_test::decode_bson(bytes);
    ASSERT_EQ(1u, lines.size());
    // Array keys are the running index.
    EXPECT_NE(std::string::npos, lines[0].find("[\"m\", [\"array\""));
    std::vector<std::string> el = elements_of(lines[0]);
    ASSERT_EQ(18u, el.size()) << lines[0];
    const char *names[] = {"RequestCount",      "TokenBucketExhaustionCount", "TraceCount",     "SampleCount",
                           "ThroughTraceCount", "ThroughIgnoredCount",        "TriggeredCount", "SampleRate",
                           "SampleSource"};
    for (int f = 0; f < 9; ++f) {
        const std::string &d = el[2 * f];
        const std::string &s = el[2 * f + 1];
        std::string name = std::string("[\"name\", [\"string\", \"") + names[f] + "\"]]";
        EXPECT_EQ(0u, d.find("[\"document\", "
                             "[" +
                             name))
            << d;
        EXPECT_EQ(0u, s.find("[\"document\", "
                             "[" +
                             name))
            << s;
        // The default entry has an empty tags document; a named one has SN.
        EXPECT_NE(std::string::npos, d.find("[\"tags\", [\"document\", []]]")) << d;
        EXPECT_NE(std::string::npos, s.find("[\"tags\", [\"document\", [[\"SN\", [\"string\", \"shop\"]]]]]"))
            << s;
        EXPECT_NE(std::string::npos, d.find("[\"value\", [\"int32\", " + std::to_string(10 + f) + "]")) << d;
        std::string sv = f == 0 ? "-1" : std::to_string(100 + f);
        EXPECT_NE(std::string::npos, s.find("[\"value\", [\"int32\", " + sv + "]")) << s;
    }
    // The seven counts start again from zero; rate and source stay.
    for (int f = 0; f < 7; ++f) {
        EXPECT_EQ(0u, def->*fields[f]) << names[f];
        EXPECT_EQ(0u, svc->*fields[f]) << names[f];
    }
    EXPECT_EQ(107u, svc->sample_rate);
    EXPECT_EQ(108u, svc->sample_source);
}

TEST_P(SettingsTable, CounterWriterKeysPastNineHundredNinetyNine) {
    vesk_settings_entry_layer_get("a");
    vesk_bson_buffer b;
    ASSERT_NE(nullptr, vesk_bson_buffer_init(&b));
    vesk_bson_append_start_array(&b, "m");
    int index = 1234;
    vesk_settings_append_sample_rate(&b, &index);
    vesk_bson_append_finish_object(&b);
    ASSERT_NE(nullptr, vesk_bson_buffer_finish(&b));
    EXPECT_EQ(1235, index);
    // Raw key check: the element key is the index cut to three digits.
    std::string bytes(b.data, vesk_bson_buffer_size(&b));
    vesk_bson_buffer_destroy(&b);
    EXPECT_NE(std::string::npos, bytes.find(std::string("\x03"
                                                        "123\0",
                                                        5)));
    EXPECT_EQ(1u, corvidine_test::decode_bson(bytes).size());
}

// ---- Local configuration -------------------------------------------------

class SettingsCfg : public ::testing::Test {
protected:
    void SetUp() override {
        cfg = vesk_settings_cfg_get();
        ASSERT_NE(nullptr, cfg);
        vesk_settings_cfg_init(cfg);
        log.start();
    }
    void TearDown() override { log.stop(); }
    vesk_settings_cfg_t *cfg = nullptr;
    LogCapture log;
};

TEST_F(SettingsCfg, StartsUnsetWithNeverFilledBuckets) {
    EXPECT_EQ(cfg, vesk_settings_cfg_get()) << "one per process";
    EXPECT_EQ(-1, cfg->tracing_mode);
    EXPECT_EQ(-1, cfg->sample_rate);
    EXPECT_EQ(-1, cfg->trigger_mode);
    EXPECT_EQ(nullptr, cfg->settings);
    EXPECT_EQ(-1, cfg->value);
    EXPECT_EQ(0, cfg->flags);
    EXPECT_EQ(0u, cfg->timestamp);
    EXPECT_EQ(0u, cfg->no_settings_since);
    struct timeval now;
    gettimeofday(&now, nullptr);
    for (const vesk_bucket_t &b : cfg->bucket) {
        EXPECT_EQ(-1.0f, b.available);
        EXPECT_EQ(0.0, b.capacity);
        EXPECT_EQ(0.0, b.rate_per_usec);
        EXPECT_LE(now.tv_sec - b.last_check.tv_sec, 5) << "creation time";
    }
}

TEST_F(SettingsCfg, RateSetterClampsButKeepsMinusOneAsUnset) {
    struct Case {
        int in, stored;
        const char *message;
    } cases[] = {
        {-1, -1, nullptr},
        {0, 0, nullptr},
        {1000000, 1000000, nullptr},
        {1000001, 1000000, "New sample rate 1000001 greater than max value -- using max value 1000000"},
        {-2, 0, "New sample rate -2 lower than min value -- using min value 0"},
        {-2147483647 - 1, 0, nullptr},
    };
    for (const Case &c : cases) {
        log.clear();
        vesk_settings_rate_set(c.in);
        EXPECT_EQ(c.stored, cfg->sample_rate) << c.in;
        if (c.message) {
            EXPECT_NE(-1, log.level_of(c.message)) << c.in;
        }
    }
}

TEST_F(SettingsCfg, ModeAndTriggerSettersRefuseValuesOutsideTheRange) {
    vesk_settings_mode_set(1);
    EXPECT_EQ(1, cfg->tracing_mode);
    vesk_settings_mode_set(2);
    EXPECT_EQ(-1, cfg->tracing_mode);
    EXPECT_NE(-1, log.level_of("New tracing mode is invalid (2)."));
    vesk_settings_mode_set(0);
    EXPECT_EQ(0, cfg->tracing_mode);
    vesk_settings_mode_set(-5);
    EXPECT_EQ(-1, cfg->tracing_mode);

    vesk_settings_trigger_set(0);
    EXPECT_EQ(0, cfg->trigger_mode);
    vesk_settings_trigger_set(7);
    EXPECT_EQ(-1, cfg->trigger_mode);
    EXPECT_NE(-1, log.level_of("New trigger mode is invalid (7)."));

    vesk_settings_set(5000, 1, 0);
    EXPECT_EQ(5000, cfg->sample_rate);
    EXPECT_EQ(1, cfg->tracing_mode);
    EXPECT_EQ(0, cfg->trigger_mode);
    vesk_settings_set(2000000, 3, -2);
    EXPECT_EQ(1000000, cfg->sample_rate);
    EXPECT_EQ(-1, cfg->tracing_mode);
    EXPECT_EQ(-1, cfg->trigger_mode);

    EXPECT_STREQ("disabled", vesk_tracing_mode_to_string(0));
    EXPECT_STREQ("enabled", vesk_tracing_mode_to_string(1));
    EXPECT_STREQ("unset", vesk_tracing_mode_to_string(-1));
    EXPECT_STREQ("undef", vesk_tracing_mode_to_string(2));
    EXPECT_STREQ("undef", vesk_tracing_mode_to_string(-2));
}

TEST_F(SettingsCfg, UsageCounterDemotesRepeatedWarnings) {
    vesk_settings_rate_set(1000002);
    vesk_settings_rate_set(1000003);
    // The first one may have been logged by another case; the later one is medium.
    EXPECT_EQ(VESK_DEBUG_MEDIUM,
              log.level_of("New sample rate 1000003 greater than max value -- using max value 1000000"));
}

// ---- Readiness -------------------------------------------------------------

class SettingsReady : public corvidine_test::SettingsFixture {
protected:
    void SetUp() override { fresh_table(); }
};

long elapsed_ms(std::chrono::steady_clock::time_point since) {
    return static_cast<long>(
        std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - since)
            .count());
}

TEST_F(SettingsReady, WaitsForTheDefaultRecordThenAsksTheReporter) {
    auto t0 = std::chrono::steady_clock::now();
    EXPECT_EQ(VESK_SERVER_RESPONSE_OK, vesk_is_ready(0)) << "0 does not wait";

    t0 = std::chrono::steady_clock::now();
    EXPECT_EQ(VESK_SERVER_RESPONSE_OK, vesk_is_ready(60));
    EXPECT_GE(elapsed_ms(t0), 60) << "no default record: waits the whole time";

    // A record arriving during the wait ends it early.
    std::thread adder([] {
        std::this_thread::sleep_for(std::chrono::milliseconds(30));
        add_default();
    });
    t0 = std::chrono::steady_clock::now();
    EXPECT_EQ(VESK_SERVER_RESPONSE_OK, vesk_is_ready(20000));
    long waited = elapsed_ms(t0);
    adder.join();
    EXPECT_GE(waited, 25);
    EXPECT_LT(waited, 10000) << "stopped once the record was there";

    // Whatever the reporter says is the answer.
    reporter->table()->get_server_response = [](void *) { return VESK_SERVER_RESPONSE_TRY_LATER; };
    EXPECT_EQ(VESK_SERVER_RESPONSE_TRY_LATER, vesk_is_ready(1000));
    reporter->table()->get_server_response = [](void *) { return VESK_SERVER_RESPONSE_OK; };
}

}  // namespace
