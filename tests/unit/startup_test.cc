// Start-up and registry: reporter choice, one start per process, old options, key cleaning, null reporter.
#include <unistd.h>

#include "corvidine/event.h"
#include "corvidine/local_reporters.h"
#include "corvidine/settings.h"
#include "support/harness.h"

using corvidine_test::init_options;

namespace {

using StartupTest = corvidine_test::LibraryFixture;

TEST_F(StartupTest, OldOptionVersionsAreRefusedAndNothingStarts) {
    vesk_init_options_t old{};
    old.version = 6;
    EXPECT_EQ(1, vesk_init_options_set_defaults(&old));
    EXPECT_EQ(1, vesk_init(&old));
    EXPECT_EQ(0, vesk_reporter_pid());
}

TEST_F(StartupTest, OneStartPerProcessUntilShutdown) {
    vesk_init_options_t o = init_options("null");
    char key[] = "secret-token:My App!";
    o.service_key = key;
    ASSERT_EQ(0, vesk_init(&o));
    EXPECT_STREQ("secret-token:my-app", vesk_init_options_get()->service_key) << "the kept copy is cleaned";
    EXPECT_STREQ("secret-token:My App!", key) << "the caller's string is left alone";
    vesk_reporter_t *first = vesk_reporter_get();
    o.reporter = "file";
    EXPECT_EQ(-1, vesk_init(&o));
    EXPECT_EQ(first, vesk_reporter_get());
    vesk_shutdown();
    EXPECT_EQ(0, vesk_reporter_pid());
    EXPECT_EQ(nullptr, vesk_init_options_get());
    o.reporter = "nonsense";
    EXPECT_EQ(0, vesk_init_reporter("null", &o)) << "the protocol argument beats the option";
    EXPECT_EQ(getpid(), vesk_reporter_pid());
}

// "ssl" is not linked into the core's tests: unknown until registered, like "SSL" (names are exact).
TEST_F(StartupTest, UnknownReporterNamesLeaveNoReporter) {
    for (const char *name : {"SSL", "ssl"}) {
        vesk_init_options_t o = init_options(name);
        EXPECT_EQ(2, vesk_init(&o));
        EXPECT_EQ(3, vesk_reporter_is_ready(nullptr));
        EXPECT_EQ(VESK_SEND_NO_REPORTER, vesk_raw_send(VESK_SEND_EVENT, "abc", 3));
        EXPECT_EQ(getpid(), vesk_reporter_pid()) << "not tried again in this process";
        vesk_shutdown();
    }
    EXPECT_NE(0, vesk_init(nullptr)) << "no options: \"ssl\", which cannot start here";
}

TEST_F(StartupTest, NullReporterTurnsSamplingOffAndTakesEverything) {
    vesk_init_options_t o = init_options("null");
    ASSERT_EQ(0, vesk_init(&o));
    unsigned value = 12345;
    uint16_t flags = 0;
    ASSERT_EQ(0, vesk_settings_get_value(vesk_settings_get(VESK_SETTINGS_TYPE_DEFAULT_SAMPLE_RATE, ""), &value,
                                         &flags, nullptr));
    EXPECT_EQ(0u, value);
    EXPECT_EQ(VESK_SETTINGS_FLAG_OVERRIDE, flags);
    vesk_metadata_t md = corvidine_test::sampled_metadata();
    EXPECT_GT(corvidine_test::send_event(&md, "null-test", 1), 0);
    EXPECT_EQ(0, vesk_reporter_is_ready(nullptr));
    vesk_reporter_t other;
    ASSERT_EQ(0, vesk_reporter_init_null(&other, nullptr));
    EXPECT_NE(&other, vesk_reporter_get()) << "a second reporter does not replace the current one";
    other.destroy(other.context);
    vesk_shutdown();
    vesk_reporter_t own;
    ASSERT_EQ(0, vesk_reporter_init_null(&own, nullptr));
    EXPECT_EQ(3, vesk_raw_send(VESK_SEND_EVENT, "abc", 3)) << "with none current it becomes current";
    EXPECT_EQ(0, _vesk_destroy_reporter(&own));
}

int g_registered_inits = 0;
int count_init(vesk_reporter_t *table, const vesk_init_options_t *options) {
    g_registered_inits++;
    return vesk_reporter_init_null(table, options);
}

TEST_F(StartupTest, RegisteredReportersAreChosenByName) {
    ASSERT_EQ(0, vesk_reporter_entry_register("counting", count_init));
    vesk_init_options_t o = init_options("counting");
    EXPECT_EQ(0, vesk_init(&o));
    EXPECT_EQ(1, g_registered_inits);
    EXPECT_EQ(3, vesk_raw_send(VESK_SEND_EVENT, "abc", 3));
    EXPECT_EQ(nullptr, vesk_reporter_entry_find("Counting"));
    EXPECT_EQ(-1, vesk_reporter_entry_register(nullptr, count_init));
}

}  // namespace
