// Library start-up and registry: reporter choice, one start per process,
// versions, and the rebuild in a forked child.
#include <gtest/gtest.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <sstream>
#include <string>

#include "corvidine/context.h"
#include "corvidine/event.h"
#include "corvidine/startup.h"
#include "support/capture_reporter.h"

namespace {

vesk_init_options_t defaults() {
    vesk_init_options_t o;
    o.version = VESK_INIT_OPTIONS_VERSION;
    vesk_init_options_set_defaults(&o);
    return o;
}

class StartupTest : public ::testing::Test {
protected:
    void TearDown() override { vesk_shutdown(); }
};

TEST_F(StartupTest, OptionDefaultsAndOldVersions) {
    vesk_init_options_t o = defaults();
    EXPECT_EQ(-2, o.log_level);
    EXPECT_EQ(1, o.trace_metrics);
    EXPECT_EQ(-1, o.token_bucket_capacity);
    EXPECT_EQ(nullptr, o.reporter);
    vesk_init_options_t old;
    memset(&old, 0, sizeof(old));
    old.version = 6;
    EXPECT_EQ(1, vesk_init_options_set_defaults(&old));
    EXPECT_EQ(1, vesk_init(&old));
    EXPECT_EQ(0, vesk_reporter_pid());  // nothing started
}

TEST_F(StartupTest, SecondStartInOneProcessIsRefused) {
    vesk_init_options_t o = defaults();
    o.reporter = "null";
    ASSERT_EQ(0, vesk_init(&o));
    vesk_reporter_t *first = vesk_reporter_get();
    ASSERT_NE(nullptr, first);
    o.reporter = "file";
    EXPECT_EQ(-1, vesk_init(&o));
    EXPECT_EQ(first, vesk_reporter_get());
    EXPECT_STREQ("null", vesk_init_options_get()->reporter);
    EXPECT_EQ(0, vesk_reporter_is_ready(nullptr));
}

TEST_F(StartupTest, ReporterNamesAreExact) {
    vesk_init_options_t o = defaults();
    o.reporter = "SSL";
    EXPECT_EQ(2, vesk_init(&o));
    EXPECT_EQ(3, vesk_reporter_is_ready(nullptr));
    EXPECT_EQ(VESK_SEND_NO_REPORTER, vesk_raw_send(VESK_SEND_EVENT, "abc", 3));
    EXPECT_EQ(getpid(), vesk_reporter_pid());  // not tried again in this process
}

TEST_F(StartupTest, NoOptionsMeansDefaultsAndThePlaceholderKey) {
    EXPECT_NE(0, vesk_init(nullptr));  // "ssl" is chosen and is not linked in here
    ASSERT_NE(nullptr, vesk_init_options_get());
    EXPECT_STREQ(VESK_MISSING_SERVICE_KEY, vesk_init_options_get()->service_key);
    EXPECT_EQ(nullptr, vesk_init_options_get()->reporter);
}

TEST_F(StartupTest, ServiceKeyIsCleanedInTheKeptCopy) {
    vesk_init_options_t o = defaults();
    o.reporter = "null";
    char key[] = "secret-token:My App!";
    o.service_key = key;
    ASSERT_EQ(0, vesk_init(&o));
    EXPECT_STREQ("secret-token:my-app", vesk_init_options_get()->service_key);
    EXPECT_STREQ("secret-token:My App!", key);  // the caller's string is left alone
}

TEST_F(StartupTest, ProtocolArgumentBeatsTheOption) {
    vesk_init_options_t o = defaults();
    o.reporter = "nonsense";
    ASSERT_EQ(0, vesk_init_reporter("null", &o));
    EXPECT_NE(nullptr, vesk_reporter_get());
}

TEST_F(StartupTest, ShutdownLetsTheNextUseStartAgain) {
    vesk_init_options_t o = defaults();
    o.reporter = "null";
    ASSERT_EQ(0, vesk_init(&o));
    vesk_shutdown();
    EXPECT_EQ(0, vesk_reporter_pid());
    EXPECT_EQ(nullptr, vesk_init_options_get());
    EXPECT_EQ(0, vesk_init(&o));
    EXPECT_EQ(getpid(), vesk_reporter_pid());
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
    EXPECT_EQ(7, vesk_config_get_version());
    EXPECT_EQ(0, vesk_config_get_revision());
    EXPECT_EQ(1, vesk_config_check_version(7, 0));
    EXPECT_EQ(0, vesk_config_check_version(7, 1));
    EXPECT_EQ(1, vesk_config_check_version(6, 9));
    EXPECT_EQ(0, vesk_config_check_version(8, 0));
}

// A child inherits the registry but not the process id: its first send
// builds a reporter of its own from the kept options.
TEST_F(StartupTest, ForkedChildRebuildsItsReporter) {
    std::string dir = corvidine_test::make_temp_dir();
    std::string base = dir + "/trace";  // no extension: the pid is appended
    vesk_init_options_t o = defaults();
    o.reporter = "file";
    o.host = base.c_str();
    ASSERT_EQ(0, vesk_init(&o));

    vesk_metadata_t md;
    vesk_metadata_init(&md);
    vesk_metadata_random(&md);
    {
        // A send before the fork leaves this thread's cached thread id behind.
        vesk_event_t evt;
        vesk_metadata_create_event(&md, &evt);
        vesk_event_send(VESK_SEND_EVENT, &evt, &md);
        vesk_event_destroy(&evt);
    }
    pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        vesk_event_t evt;
        vesk_metadata_create_event(&md, &evt);
        vesk_event_add_info(&evt, "Who", "child");
        int rc = vesk_event_send(VESK_SEND_EVENT, &evt, &md);
        _exit(rc > 0 && vesk_reporter_pid() == getpid() ? 0 : 1);
    }
    int status = 0;
    waitpid(child, &status, 0);
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(0, WEXITSTATUS(status));

    vesk_event_t evt;
    vesk_metadata_create_event(&md, &evt);
    vesk_event_add_info(&evt, "Who", "parent");
    EXPECT_GT(vesk_event_send(VESK_SEND_EVENT, &evt, &md), 0);
    vesk_event_destroy(&evt);

    auto read = [](const std::string &path) {
        std::ifstream in(path, std::ios::binary);
        std::stringstream s;
        s << in.rdbuf();
        return s.str();
    };
    auto child_docs = corvidine_test::decode_bson(read(base + std::to_string(child)));
    auto parent_docs = corvidine_test::decode_bson(read(base + std::to_string(getpid())));
    ASSERT_EQ(1u, child_docs.size());
    ASSERT_EQ(2u, parent_docs.size());
    EXPECT_NE(std::string::npos, child_docs[0].find("\"child\""));
    // The child's main thread has the child's id, not the parent's thread id.
    EXPECT_NE(std::string::npos, child_docs[0].find("[\"TID\", [\"int64\", " + std::to_string(child) + "]]"))
        << child_docs[0];
    EXPECT_NE(std::string::npos, parent_docs[1].find("\"parent\""));
}

}  // namespace
