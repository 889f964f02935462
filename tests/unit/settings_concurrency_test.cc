// Several threads add, update, delete and read settings while others bump
// layer counters and the metric writer reads and resets them. No count may
// be lost or doubled. Written to run clean under ThreadSanitizer too.
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

const double kCaps[3] = {10, 10, 10};
const double kRates[3] = {1, 1, 1};

TEST(SettingsConcurrency, WritersReadersAndCountersAgree) {
    ASSERT_EQ(0, vesk_settings_init_local());
    _vesk_settings_reset();
    ASSERT_EQ(0, vesk_settings_add("", 2, 500000, 0x14, 1, 60, kCaps, kRates, "k", 0));
    const int kCounterNames = 4;
    for (int j = 0; j < kCounterNames; ++j)
        ASSERT_NE(nullptr, vesk_settings_entry_layer_get(("c" + std::to_string(j)).c_str()));

    const int kWriters = 2, kReaders = 2, kBumpers = 3;
    const int kWriterRounds = 3000, kBumps = 20000;
    std::atomic<bool> bumping_done{false};
    std::atomic<long> bad_values{0}, reader_loops{0};
    std::vector<std::thread> threads;

    for (int t = 0; t < kWriters; ++t) {
        threads.emplace_back([t] {
            for (int i = 0; i < kWriterRounds; ++i) {
                std::string name = "w" + std::to_string(t) + "-" + std::to_string(i % 20);
                unsigned ts = static_cast<unsigned>(i);
                switch (i % 3) {
                    case 0:
                        vesk_settings_add(name.c_str(), 3, i % 1000001, 0x04, ts, 60, kCaps, kRates, "key",
                                          i % 2);
                        break;
                    case 1:
                        vesk_settings_update(name.c_str(), 3, 1000000, 0x0C, ts, 60, kCaps, kRates, nullptr);
                        break;
                    default:
                        vesk_settings_delete(3, name.c_str());
                }
            }
        });
    }
    for (int t = 0; t < kReaders; ++t) {
        threads.emplace_back([&, t] {
            int i = 0;
            while (!bumping_done.load()) {
                std::string name = "w" + std::to_string(i % 2) + "-" + std::to_string((i + t) % 20);
                vesk_settings_t *r = vesk_settings_get_layer_sample_rate(name.c_str());
                unsigned value = 0;
                uint16_t flags = 0;
                int rc = vesk_settings_get_value(r, &value, &flags, nullptr);
                // A record under rewrite may read as invalid, never as garbage.
                if (rc == 0 && value > 1000000) bad_values++;
                if (rc != 0 && rc != -1 && rc != -2) bad_values++;
                if (vesk_settings_get(2, "") == nullptr) bad_values++;  // the default is never touched
                // Entries of records being deleted come and go.
                vesk_settings_layer_entry_t *e = vesk_settings_entry_layer_get(name.c_str());
                if (e) __atomic_fetch_add(&e->sample_count, 1u, __ATOMIC_RELAXED);
                ++i;
                reader_loops++;
            }
        });
    }
    std::vector<std::thread> bumpers;
    for (int t = 0; t < kBumpers; ++t) {
        bumpers.emplace_back([t] {
            for (int i = 0; i < kBumps; ++i) {
                std::string name = "c" + std::to_string((i + t) % kCounterNames);
                vesk_settings_layer_entry_t *e = vesk_settings_entry_layer_get(name.c_str());
                ASSERT_NE(nullptr, e);
                __atomic_fetch_add(&e->request_count, 1u, __ATOMIC_RELAXED);
            }
        });
    }
    // The metric thread: reads and resets while the bumps go on.
    std::string documents;
    std::thread metric([&] {
        auto one_document = [&] {
            vesk_bson_buffer b;
            if (vesk_bson_buffer_init(&b) == nullptr) return;
            vesk_bson_append_start_array(&b, "m");
            int index = 0;
            vesk_settings_append_request_count(&b, &index);
            vesk_bson_append_finish_object(&b);
            if (vesk_bson_buffer_finish(&b)) documents.append(b.data, vesk_bson_buffer_size(&b));
            vesk_bson_buffer_destroy(&b);
        };
        while (!bumping_done.load()) {
            one_document();
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
        }
        one_document();  // what came after the last read
    });

    for (std::thread &t : bumpers) t.join();
    bumping_done = true;
    metric.join();
    for (std::thread &t : threads) t.join();

    EXPECT_EQ(0, bad_values.load());
    EXPECT_GT(reader_loops.load(), 0);

    // Every bump shows up exactly once across the documents.
    std::vector<std::string> lines = corvidine_test::decode_bson(documents);
    ASSERT_GE(lines.size(), 2u);
    std::regex element(
        "\\[\"SN\", \\[\"string\", \"(c\\d)\"\\]\\]\\]\\]\\], \\[\"value\", \\[\"int32\", (\\d+)\\]\\]");
    long total = 0;
    for (const std::string &line : lines)
        for (auto m = std::sregex_iterator(line.begin(), line.end(), element); m != std::sregex_iterator();
             ++m)
            total += std::stol((*m)[2]);
    EXPECT_EQ(static_cast<long>(kBumpers) * kBumps, total);
    for (int j = 0; j < kCounterNames; ++j)
        EXPECT_EQ(0u, vesk_settings_entry_layer_get(("c" + std::to_string(j)).c_str())->request_count);

    // The table holds at most one live record per name, and its count is sane.
    uint8_t num = 0;
    vesk_settings_t *recs = vesk_settings_inspect(nullptr, nullptr, nullptr, &num);
    ASSERT_NE(nullptr, recs);
    EXPECT_LE(num, VESK_SETTINGS_MAX_RECORDS);
    for (int i = 0; i < num; ++i) {
        if (recs[i].flags & VESK_SETTINGS_FLAG_INVALID) continue;
        for (int k = i + 1; k < num; ++k) {
            if (recs[k].flags & VESK_SETTINGS_FLAG_INVALID) continue;
            EXPECT_FALSE(recs[i].type == recs[k].type && std::string(recs[i].layer) == recs[k].layer)
                << "duplicate " << recs[i].layer;
        }
    }
}

}  // namespace
