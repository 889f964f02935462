// Threads add, update, delete and read settings while others bump layer
// counters and the metric writer reads and resets them: no count is lost or
// doubled, no reader sees garbage. Written to run clean under ThreadSanitizer.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "corvidine/bson.h"
#include "corvidine/settings.h"
#include "support/harness.h"

namespace {

const double kCaps[3] = {10, 10, 10}, kRates[3] = {1, 1, 1};
const int kCounters = 4, kBumpers = 3, kBumps = 20000;

vesk_settings_layer_entry_t *entry(const std::string &name) { return vesk_settings_entry_layer_get(name.c_str()); }

// One metric document of the request counts (which resets them).
void append_document(std::string *documents) {
    vesk_bson_buffer b;
    if (vesk_bson_buffer_init(&b) == nullptr) return;
    vesk_bson_append_start_array(&b, "m");
    int index = 0;
    vesk_settings_append_request_count(&b, &index);
    vesk_bson_append_finish_object(&b);
    if (vesk_bson_buffer_finish(&b)) documents->append(b.data, vesk_bson_buffer_size(&b));
    vesk_bson_buffer_destroy(&b);
}

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
