// The null reporter (takes and drops everything, turns sampling off), the
// choice of a reporter by name, and the older entry points.
#include <gtest/gtest.h>
#include <string.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "corvidine/debug_log.h"
#include "corvidine/event.h"
#include "corvidine/local_reporters.h"
#include "corvidine/metadata.h"
#include "corvidine/settings.h"
#include "corvidine/startup.h"
#include "support/reporter_helpers.h"

using corvidine_test::init_options;

namespace {

std::vector<std::string> g_messages;
void collect(void *, int, int, const char *, int, const char *message) {
    g_messages.push_back(message);
}

bool logged(const std::string &message) {
    for (const std::string &m : g_messages)
        if (m == message) return true;
    return false;
}

class NullReporterTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        // Start the library once so that its one-time set-up (which resets
        // the log's callback slots) is behind us, then leave no reporter.
        vesk_ensure_init();
        vesk_shutdown();
    }
    void SetUp() override {
        saved_level_ = vesk_debug_log_level_get();
        g_messages.clear();
        vesk_debug_log_add(collect, nullptr, VESK_DEBUG_HIGH);
    }
    void TearDown() override {
        vesk_shutdown();
        vesk_debug_log_remove(collect, nullptr);
        vesk_debug_log_level_set(VESK_DEBUG_MODULE_UNDEF, saved_level_);
    }
    int saved_level_;
};

// Runs first in this process, so the record it checks is the null reporter's.
TEST_F(NullReporterTest, InstallsRateZeroWithOverride) {
    vesk_init_options_t o = init_options("null");
    ASSERT_EQ(0, vesk_init(&o));
    const vesk_settings_t *s = vesk_settings_get(VESK_SETTINGS_TYPE_DEFAULT_SAMPLE_RATE, "");
    ASSERT_NE(nullptr, s);
    unsigned value = 12345;
    uint16_t flags = 0;
    ASSERT_EQ(0, vesk_settings_get_value(s, &value, &flags, nullptr));
    EXPECT_EQ(0u, value);
    EXPECT_EQ(VESK_SETTINGS_FLAG_OVERRIDE, flags);
    EXPECT_EQ(0u, s->timestamp);
    EXPECT_EQ(99999999u, s->ttl);
    EXPECT_STREQ("", s->signature_key);
    for (int i = 0; i < VESK_BUCKET_COUNT; ++i) {
        EXPECT_EQ(0.0, s->bucket_capacity[i]);
        EXPECT_EQ(0.0, s->bucket_rate[i]);
    }
}

TEST_F(NullReporterTest, DropsEverythingAndReportsItTaken) {
    vesk_init_options_t o = init_options("null");
    o.log_level = VESK_DEBUG_HIGH;
    ASSERT_EQ(0, vesk_init(&o));
    EXPECT_EQ(VESK_DEBUG_HIGH, vesk_debug_log_level_get());
    vesk_reporter_t *r = vesk_reporter_get();
    ASSERT_NE(nullptr, r);
    void *ctx = vesk_reporter_get_context(r);
    ASSERT_NE(nullptr, ctx);

    for (int channel : {VESK_SEND_EVENT, VESK_SEND_STATUS, VESK_SEND_PROFILING}) {
        std::string data(1000 + channel, 'z');
        EXPECT_EQ(static_cast<int>(data.size()), vesk_raw_send(channel, data.data(), data.size()));
    }
    vesk_metadata_t md;
    vesk_metadata_init(&md);
    vesk_metadata_random(&md);
    md.flags = VESK_XTRACE_FLAG_SAMPLED;
    vesk_event_t evt;
    ASSERT_EQ(0, vesk_metadata_create_event(&md, &evt));
    vesk_event_add_info(&evt, "Layer", "null-test");
    int sent = vesk_event_send(VESK_SEND_EVENT, &evt, &md);
    vesk_event_destroy(&evt);
    EXPECT_GT(sent, 0);
    EXPECT_FALSE(logged("Send failed - reporter returned " + std::to_string(sent)));

    EXPECT_EQ(0, vesk_reporter_is_ready(nullptr));
    EXPECT_EQ(1, r->profiling_ready(ctx));
    EXPECT_EQ(1, r->status_ready(ctx));
    EXPECT_EQ(1, r->span_ready(ctx));
    EXPECT_EQ(1, r->custom_metric_ready(ctx));
    EXPECT_EQ(1, r->is_winthin_limit(ctx, "svc", "tx"));
    EXPECT_EQ(0, r->send_span(ctx, "svc", "tx", 10));
    EXPECT_EQ(0, r->send_http_span(ctx, "svc", "tx", 10, 500, "POST", 1));
    EXPECT_EQ(0, r->add_custom_metric(ctx, "m", 2.0, 1, 1, "svc", 1, nullptr, 0));
    EXPECT_EQ(VESK_SERVER_RESPONSE_OK, r->get_server_response(ctx));
    EXPECT_EQ(20, vesk_get_profiling_interval());
    EXPECT_EQ(VESK_SERVER_RESPONSE_OK, vesk_is_ready(0));
}

TEST_F(NullReporterTest, RegistersItselfOnlyWhenNoReporterIsCurrent) {
    EXPECT_EQ(VESK_REPORTER_INIT_NO_TABLE, vesk_reporter_init_null(nullptr, nullptr));

    vesk_init_options_t o = init_options("null");
    ASSERT_EQ(0, vesk_init(&o));
    vesk_reporter_t *current = vesk_reporter_get();
    vesk_reporter_t other;
    vesk_debug_log_level_set(VESK_DEBUG_MODULE_UNDEF, VESK_DEBUG_HIGH);
    ASSERT_EQ(0, vesk_reporter_init_null(&other, nullptr));
    EXPECT_TRUE(logged("Attempt to register a new reporter ignored"));
    EXPECT_EQ(current, vesk_reporter_get());
    other.destroy(other.context);

    // With none current the table becomes current: sends reach it. (Asking
    // vesk_reporter_get here would start afresh, as shutdown forgot the pid.)
    vesk_shutdown();
    vesk_reporter_t own;
    ASSERT_EQ(0, vesk_reporter_init_null(&own, nullptr));
    EXPECT_EQ(3, vesk_raw_send(VESK_SEND_EVENT, "abc", 3));
    EXPECT_EQ(0, _vesk_destroy_reporter(&own));
    EXPECT_EQ(nullptr, own.context);
}

int g_registered_inits = 0;
int count_init(vesk_reporter_t *table, const vesk_init_options_t *options) {
    g_registered_inits++;
    return vesk_reporter_init_null(table, options);
}

// The Collector reporter is not linked into the core's tests: "ssl" is an
// unknown name until its room registers it; a registered name is chosen.
TEST_F(NullReporterTest, RegisteredReportersAreChosenByName) {
    vesk_init_options_t o = init_options("ssl");
    EXPECT_EQ(2, vesk_init(&o));
    EXPECT_EQ(VESK_SEND_NO_REPORTER, vesk_raw_send(VESK_SEND_EVENT, "abc", 3));
    vesk_shutdown();

    ASSERT_EQ(0, vesk_reporter_entry_register("counting", count_init));
    o = init_options("counting");
    EXPECT_EQ(0, vesk_init(&o));
    EXPECT_EQ(1, g_registered_inits);
    EXPECT_EQ(3, vesk_raw_send(VESK_SEND_EVENT, "abc", 3));
    EXPECT_EQ(nullptr, vesk_reporter_entry_find("Counting"));
    EXPECT_EQ(-1, vesk_reporter_entry_register(nullptr, count_init));
}

TEST_F(NullReporterTest, OlderEntryPointsOnlyClearTheTable) {
    vesk_reporter_t table;
    vesk_reporter_t cleared;
    memset(&cleared, 0, sizeof(cleared));

    memset(&table, 0x33, sizeof(table));
    EXPECT_EQ(0, vesk_reporter_udp_init(&table, "127.0.0.1", "7831"));
    EXPECT_EQ(0, memcmp(&cleared, &table, sizeof(table)));
    memset(&table, 0x33, sizeof(table));
    EXPECT_EQ(0, vesk_reporter_udp_init_str(&table, "127.0.0.1:7831"));
    EXPECT_EQ(0, memcmp(&cleared, &table, sizeof(table)));
    memset(&table, 0x33, sizeof(table));
    EXPECT_EQ(0, vesk_reporter_ssl_init(&table, nullptr));
    EXPECT_EQ(0, memcmp(&cleared, &table, sizeof(table)));
    EXPECT_EQ(-1, vesk_reporter_udp_init(nullptr, nullptr, nullptr));
    EXPECT_EQ(-1, vesk_reporter_udp_init_str(nullptr, nullptr));
    EXPECT_EQ(-1, vesk_reporter_ssl_init(nullptr, nullptr));

    vesk_init_options_t o = init_options("null");
    ASSERT_EQ(0, vesk_init(&o));
    vesk_reporter_t *current = vesk_reporter_get();
    EXPECT_EQ(0, vesk_reporter_destroy(current));
    EXPECT_EQ(current, vesk_reporter_get());  // still there
    EXPECT_EQ(5, vesk_reporter_udp_send(nullptr, "hello", 5));
    vesk_shutdown();
    EXPECT_EQ(VESK_SEND_NO_REPORTER, vesk_reporter_udp_send(nullptr, "hello", 5));
}

}  // namespace
