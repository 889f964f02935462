// The null reporter (takes and drops everything, turns sampling off), the
// placeholder for the Collector reporter, and the older entry points.
#include <gtest/gtest.h>
#include <string.h>

#include <string>

#include "corvidine/event.h"
#include "corvidine/local_reporters.h"
#include "corvidine/settings.h"
#include "corvidine/startup.h"
#include "support/harness.h"

namespace {

class NullReporterTest : public ::testing::Test {
protected:
    // The library's one-time set-up (which resets the log's callback slots)
    // behind us, and no reporter.
    static void SetUpTestSuite() {
        vesk_ensure_init();
        vesk_shutdown();
    }
    void TearDown() override { vesk_shutdown(); }
};

TEST_F(NullReporterTest, InstallsRateZeroWithOverrideAndTakesEverything) {
    vesk_init_options_t o = corvidine_test::init_options("null");
    ASSERT_EQ(0, vesk_init(&o));
    unsigned value = 12345;
    uint16_t flags = 0;
    ASSERT_EQ(0, vesk_settings_get_value(vesk_settings_get(VESK_SETTINGS_TYPE_DEFAULT_SAMPLE_RATE, ""), &value,
                                         &flags, nullptr));
    EXPECT_EQ(0u, value);
    EXPECT_EQ(VESK_SETTINGS_FLAG_OVERRIDE, flags);
    for (int channel : {VESK_SEND_EVENT, VESK_SEND_STATUS, VESK_SEND_PROFILING})
        EXPECT_EQ(1000 + channel, vesk_raw_send(channel, std::string(1000 + channel, 'z').data(), 1000 + channel));
    vesk_metadata_t md = corvidine_test::sampled_metadata();
    EXPECT_GT(corvidine_test::send_event(&md, "null-test", 1), 0);
    EXPECT_EQ(0, vesk_reporter_is_ready(nullptr));
    EXPECT_EQ(VESK_SERVER_RESPONSE_OK, vesk_is_ready(0));
}

TEST_F(NullReporterTest, RegistersItselfOnlyWhenNoReporterIsCurrent) {
    EXPECT_EQ(VESK_REPORTER_INIT_NO_TABLE, vesk_reporter_init_null(nullptr, nullptr));
    vesk_init_options_t o = corvidine_test::init_options("null");
    ASSERT_EQ(0, vesk_init(&o));
    vesk_reporter_t *current = vesk_reporter_get();
    vesk_reporter_t other, own;
    {
        corvidine_test::LogCapture log;
        ASSERT_EQ(0, vesk_reporter_init_null(&other, nullptr));
        EXPECT_TRUE(log.contains("Attempt to register a new reporter ignored"));
    }
    EXPECT_EQ(current, vesk_reporter_get());
    other.destroy(other.context);
    // Older entry points leave the current one alone.
    EXPECT_EQ(0, vesk_reporter_destroy(current));
    EXPECT_EQ(5, vesk_reporter_udp_send(nullptr, "hello", 5));
    vesk_shutdown();
    ASSERT_EQ(0, vesk_reporter_init_null(&own, nullptr));
    EXPECT_EQ(3, vesk_raw_send(VESK_SEND_EVENT, "abc", 3)) << "with none current the table becomes current";
    EXPECT_EQ(0, _vesk_destroy_reporter(&own));
    EXPECT_EQ(VESK_SEND_NO_REPORTER, vesk_reporter_udp_send(nullptr, "hello", 5));
}

TEST_F(NullReporterTest, SslSelectionFailsCleanlyUntilTheCollectorReporterExists) {
    corvidine_test::LogCapture log;
    vesk_init_options_t o = corvidine_test::init_options("ssl");
    EXPECT_EQ(VESK_REPORTER_INIT_NO_TABLE, vesk_init(&o));
    EXPECT_TRUE(log.contains("SSL reporter is not available in this build"));
    EXPECT_EQ(VESK_SEND_NO_REPORTER, vesk_raw_send(VESK_SEND_EVENT, "abc", 3));
    vesk_reporter_t table, cleared;
    memset(&table, 0x33, sizeof(table));
    memset(&cleared, 0, sizeof(cleared));
    EXPECT_EQ(0, vesk_reporter_udp_init_str(&table, "127.0.0.1:7831")) << "an older entry point: clears only";
    EXPECT_EQ(0, memcmp(&cleared, &table, sizeof(table)));
}

}  // namespace
