// Library start-up and registry: reporter choice, one start per process,
// old option versions, the service key's cleaning, versions.
#include <gtest/gtest.h>
#include <string.h>
#include <unistd.h>

#include "corvidine/event.h"
#include "corvidine/startup.h"
#include "support/harness.h"

using corvidine_test::init_options;

namespace {

class StartupTest : public ::testing::Test {
protected:
    void TearDown() override { vesk_shutdown(); }
};

TEST_F(StartupTest, OldOptionVersionsAreRefusedAndNothingStarts) {
    vesk_init_options_t old;
    memset(&old, 0, sizeof(old));
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
    EXPECT_STREQ("null", vesk_init_options_get()->reporter);
    vesk_shutdown();
    EXPECT_EQ(0, vesk_reporter_pid());
    EXPECT_EQ(nullptr, vesk_init_options_get());
    o.reporter = "nonsense";
    EXPECT_EQ(0, vesk_init_reporter("null", &o)) << "the protocol argument beats the option";
    EXPECT_EQ(getpid(), vesk_reporter_pid());
}

TEST_F(StartupTest, UnknownReporterNamesLeaveNoReporter) {
    vesk_init_options_t o = init_options("SSL");  // names are exact
    EXPECT_EQ(2, vesk_init(&o));
    EXPECT_EQ(3, vesk_reporter_is_ready(nullptr));
    EXPECT_EQ(VESK_SEND_NO_REPORTER, vesk_raw_send(VESK_SEND_EVENT, "abc", 3));
    EXPECT_EQ(getpid(), vesk_reporter_pid()) << "not tried again in this process";
    vesk_shutdown();
    EXPECT_NE(0, vesk_init(nullptr)) << "no options: \"ssl\", which cannot start here";
    EXPECT_STREQ(VESK_MISSING_SERVICE_KEY, vesk_init_options_get()->service_key);
}

TEST_F(StartupTest, ExtendedContextIsUnwrapped) {
    corvidine_test::CaptureReporter capture;
    vesk_reporter_t *table = capture.table();
    void *plain = table->context;
    EXPECT_EQ(plain, vesk_reporter_get_context(table));
    EXPECT_EQ(nullptr, vesk_reporter_get_extended(table));
    int inner = 0;
    vesk_reporter_extended_t ext = {VESK_REPORTER_EXTENDED_MAGIC, 1, 32, nullptr, &inner};
    table->context = &ext;
    EXPECT_EQ(&inner, vesk_reporter_get_context(table));
    EXPECT_EQ(&ext, vesk_reporter_get_extended(table));
    table->context = plain;
}

TEST(Versions, CheckVersion) {
    EXPECT_STREQ("7.0.1", vesk_config_get_version_string());
    const int cases[][3] = {{7, 0, 1}, {7, 1, 0}, {6, 9, 1}, {8, 0, 0}};
    for (const auto &c : cases) EXPECT_EQ(c[2], vesk_config_check_version(c[0], c[1])) << c[0] << "." << c[1];
}

}  // namespace
