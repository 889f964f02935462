// File reporter against the real file system: what lands in the file, the
// output path rule, single-file mode, open failures and the local settings.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <regex>
#include <string>
#include <vector>

#include "corvidine/debug_log.h"
#include "corvidine/event.h"
#include "corvidine/local_reporters.h"
#include "corvidine/metadata.h"
#include "corvidine/settings.h"
#include "corvidine/startup.h"
#include "support/capture_reporter.h"
#include "support/reporter_helpers.h"

using corvidine_test::decode_bson;
using corvidine_test::list_dir;
using corvidine_test::LogCapture;
using corvidine_test::LogLine;
using corvidine_test::make_temp_dir;
using corvidine_test::padded_document;
using corvidine_test::read_file;
using corvidine_test::send_event;

namespace {

vesk_init_options_t file_options(const char *host) {
    return corvidine_test::init_options("file", host);
}

bool exists(const std::string &path) {
    struct stat st;
    return stat(path.c_str(), &st) == 0;
}

void remove_tree(const std::string &path) {
    std::string cmd = "rm -rf '" + path + "'";
    if (system(cmd.c_str()) != 0) ADD_FAILURE() << "cannot remove " << path;
}

// Top-level keys of a decoded document, in order (the documents here hold no
// sub-documents).
std::vector<std::string> keys_of(const std::string &decoded) {
    std::vector<std::string> keys;
    static const std::regex pair("\\[\"([^\"]+)\", \\[\"[a-z0-9]+\", ");
    for (std::sregex_iterator it(decoded.begin(), decoded.end(), pair), end; it != end; ++it)
        keys.push_back((*it)[1]);
    return keys;
}

class FileReporterTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        // Start the library once so that its one-time set-up (which resets
        // the log's callback slots) is behind us, then leave no reporter.
        vesk_ensure_init();
        vesk_shutdown();
    }
    void SetUp() override {
        dir_ = make_temp_dir();
        vesk_metadata_init(&md_);
        vesk_metadata_random(&md_);
        md_.flags = VESK_XTRACE_FLAG_SAMPLED;
        // Each test installs its own default record.
        vesk_settings_delete(VESK_SETTINGS_TYPE_DEFAULT_SAMPLE_RATE, "");
    }
    void TearDown() override {
        vesk_shutdown();
        remove_tree(dir_);
    }
    std::string pid() const { return std::to_string(getpid()); }
    std::string dir_;
    vesk_metadata_t md_;
};

TEST_F(FileReporterTest, EventsLandConcatenatedAndDecodeInOrder) {
    std::string path = dir_ + "/trace.bson";
    vesk_init_options_t o = file_options(path.c_str());
    ASSERT_EQ(0, vesk_init(&o));

    size_t total = 0;
    for (int i = 0; i < 3; ++i) {
        int sent = send_event(&md_, "file-test", i);
        ASSERT_GT(sent, 0);
        total += static_cast<size_t>(sent);
    }
    // Raw documents go through byte for byte, on any channel.
    std::string status = padded_document(41, 10), profiling = padded_document(42, 3000);
    EXPECT_EQ(static_cast<int>(status.size()), vesk_raw_send(VESK_SEND_STATUS, status.data(), status.size()));
    EXPECT_EQ(static_cast<int>(profiling.size()),
              vesk_raw_send(VESK_SEND_PROFILING, profiling.data(), profiling.size()));

    std::string bytes = read_file(path);
    ASSERT_EQ(total + status.size() + profiling.size(), bytes.size());
    EXPECT_EQ(status + profiling, bytes.substr(total));  // no framing of our own

    std::vector<std::string> docs = decode_bson(bytes);
    ASSERT_EQ(5u, docs.size());
    const std::vector<std::string> expected_keys = {"_V",  "X-Trace", "Edge",        "Layer",
                                                    "Seq", "TID",     "Timestamp_u", "Hostname"};
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(expected_keys, keys_of(docs[i])) << docs[i];
        EXPECT_NE(std::string::npos, docs[i].find("[\"Layer\", [\"string\", \"file-test\"]]"));
        EXPECT_NE(std::string::npos, docs[i].find("[\"Seq\", [\"int64\", " + std::to_string(i) + "]]"))
            << docs[i];
    }
    EXPECT_NE(std::string::npos, docs[3].find("[\"n\", [\"int32\", 41]]"));
    EXPECT_NE(std::string::npos, docs[4].find("[\"n\", [\"int32\", 42]]"));
    // The path has an extension: no process id behind it.
    EXPECT_EQ(std::vector<std::string>{"trace.bson"}, list_dir(dir_));
}

TEST_F(FileReporterTest, ProcessIdIsAppendedWhenNoExtensionFollowsTheLastSeparator) {
    ASSERT_EQ(0, mkdir((dir_ + "/a.b").c_str(), 0755));
    char cwd[4096];
    ASSERT_NE(nullptr, getcwd(cwd, sizeof(cwd)));
    ASSERT_EQ(0, chdir(dir_.c_str()));

    struct Case {
        std::string host;
        std::string expected_file;
    };
    const std::vector<Case> cases = {
        {dir_ + "/a.b/c", dir_ + "/a.b/c" + pid()},  // the dot belongs to a directory
        {dir_ + "/plain", dir_ + "/plain" + pid()},
        {"trace.bson", dir_ + "/trace.bson"},  // no separator at all: kept as given
        {"noext", dir_ + "/noext" + pid()},
        {"a.b\\c", dir_ + "/a.b\\c" + pid()},  // a backslash separates when there is no slash
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.host);
        vesk_init_options_t o = file_options(c.host.c_str());
        ASSERT_EQ(0, vesk_init(&o));
        auto *record = static_cast<vesk_file_descriptor *>(vesk_reporter_get_context(nullptr));
        ASSERT_NE(nullptr, record);
        std::string doc = padded_document(1, 0);
        EXPECT_EQ(static_cast<int>(doc.size()), vesk_raw_send(VESK_SEND_EVENT, doc.data(), doc.size()));
        vesk_shutdown();
        EXPECT_EQ(doc, read_file(c.expected_file));
    }
    ASSERT_EQ(0, chdir(cwd));
}

TEST_F(FileReporterTest, DefaultPathIsTmpCorvidineWithTheProcessId) {
    std::string expected = std::string(VESK_FILE_DEFAULT_PATH) + pid();
    unlink(expected.c_str());
    vesk_init_options_t o = file_options(nullptr);
    ASSERT_EQ(0, vesk_init(&o));
    auto *record = static_cast<vesk_file_descriptor *>(vesk_reporter_get_context(nullptr));
    ASSERT_NE(nullptr, record);
    EXPECT_EQ(expected, record->path);
    EXPECT_TRUE(exists(expected));
    vesk_shutdown();
    unlink(expected.c_str());
}

TEST_F(FileReporterTest, UnopenablePathFailsCleanlyWithALoggedError) {
    std::string path = dir_ + "/no/such/dir/trace.bson";
    vesk_init_options_t o = file_options(path.c_str());
    {
        LogCapture log;
        EXPECT_EQ(VESK_REPORTER_INIT_FILE_OPEN, vesk_init(&o));
        const LogLine *line = log.find("Failed to open log file '" + path + "' - ignored (rc=2)");
        ASSERT_NE(nullptr, line);
        EXPECT_EQ(VESK_DEBUG_MODULE_REPORTER_FILE, line->module);
        EXPECT_EQ(VESK_DEBUG_ERROR, line->level);
        EXPECT_FALSE(log.contains("Reporter successfully initialized"));
    }
    // No reporter is left behind, and sends say so instead of crashing.
    EXPECT_EQ(VESK_SEND_NO_REPORTER, vesk_raw_send(VESK_SEND_EVENT, "\x05\0\0\0\0", 5));
    EXPECT_EQ(3, vesk_reporter_is_ready(nullptr));
    EXPECT_FALSE(exists(path));

    // Called directly, the table is left cleared and no settings record added;
    // a repeated failure at the same place is logged at medium.
    vesk_reporter_t table;
    memset(&table, 0xAB, sizeof(table));
    LogCapture log;
    EXPECT_EQ(VESK_REPORTER_INIT_FILE_OPEN, vesk_reporter_init_file(&table, &o));
    vesk_reporter_t cleared;
    memset(&cleared, 0, sizeof(cleared));
    EXPECT_EQ(0, memcmp(&cleared, &table, sizeof(table)));
    EXPECT_EQ(nullptr, vesk_settings_get(VESK_SETTINGS_TYPE_DEFAULT_SAMPLE_RATE, ""));
    const LogLine *again = log.find("Failed to open log file '" + path + "' - ignored (rc=2)");
    ASSERT_NE(nullptr, again);
    EXPECT_EQ(VESK_DEBUG_MEDIUM, again->level);

    // A path longer than the buffer is cut, not overrun.
    std::string long_path = dir_ + "/" + std::string(2000, 'p');
    vesk_init_options_t lo = file_options(long_path.c_str());
    EXPECT_EQ(VESK_REPORTER_INIT_FILE_OPEN, vesk_reporter_init_file(&table, &lo));
}

TEST_F(FileReporterTest, NullTableIsRefused) {
    LogCapture log;
    vesk_init_options_t o = file_options((dir_ + "/x.bson").c_str());
    EXPECT_EQ(VESK_REPORTER_INIT_NO_TABLE, vesk_reporter_init_file(nullptr, &o));
    const LogLine *line = log.find("NULL reporter passed in");
    ASSERT_NE(nullptr, line);
    EXPECT_EQ(VESK_DEBUG_MODULE_REPORTER_FILE, line->module);
    EXPECT_EQ(VESK_DEBUG_ERROR, line->level);
    EXPECT_FALSE(exists(dir_ + "/x.bson"));
}

TEST_F(FileReporterTest, SingleFileModeWritesOneFilePerDocument) {
    std::string path = dir_ + "/doc.bson";
    vesk_init_options_t o = file_options(path.c_str());
    o.file_single = 1;
    ASSERT_EQ(0, vesk_init(&o));
    EXPECT_TRUE(list_dir(dir_).empty());  // nothing is opened ahead of time

    std::vector<std::string> sent;
    for (int i = 0; i < 3; ++i) {
        sent.push_back(padded_document(i, static_cast<size_t>(i) * 100));
        ASSERT_EQ(static_cast<int>(sent.back().size()),
                  vesk_raw_send(VESK_SEND_EVENT, sent.back().data(), sent.back().size()));
        usleep(2000);  // distinct microsecond stamps
    }
    std::vector<std::string> names = list_dir(dir_);
    ASSERT_EQ(3u, names.size());
    std::sort(names.begin(), names.end(), [](const std::string &a, const std::string &b) {
        return std::stoull(a.substr(a.rfind('-') + 1)) < std::stoull(b.substr(b.rfind('-') + 1));
    });
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    unsigned long long now_usec = now.tv_sec * 1000000ULL + now.tv_nsec / 1000;
    for (size_t i = 0; i < names.size(); ++i) {
        SCOPED_TRACE(names[i]);
        ASSERT_EQ(0u, names[i].rfind("doc.bson-", 0));
        unsigned long long stamp = std::stoull(names[i].substr(strlen("doc.bson-")));
        EXPECT_LE(stamp, now_usec);
        EXPECT_GT(stamp + 60ULL * 1000000, now_usec);  // a monotonic stamp in microseconds, not ns or s
        EXPECT_EQ(sent[i], read_file(dir_ + "/" + names[i]));
        EXPECT_EQ(1u, decode_bson(read_file(dir_ + "/" + names[i])).size());
    }
}

TEST_F(FileReporterTest, SlotsLocalSettingsAndDestroy) {
    std::string path = dir_ + "/slots.bson";
    vesk_init_options_t o = file_options(path.c_str());
    o.token_bucket_capacity = 7;
    o.token_bucket_rate = 3;
    o.log_level = VESK_DEBUG_WARNING;
    int saved_level = vesk_debug_log_level_get();

    vesk_reporter_t table;
    ASSERT_EQ(0, vesk_reporter_init_file(&table, &o));
    EXPECT_EQ(VESK_DEBUG_WARNING, vesk_debug_log_level_get());
    vesk_debug_log_level_set(VESK_DEBUG_MODULE_UNDEF, saved_level);
    // The file reporter leaves registration to the start-up code.
    EXPECT_NE(&table, vesk_reporter_get());

    void *ctx = table.context;
    EXPECT_EQ(1, table.event_ready(ctx));
    EXPECT_EQ(1, table.profiling_ready(ctx));
    EXPECT_EQ(1, table.status_ready(ctx));
    EXPECT_EQ(1, table.span_ready(ctx));
    EXPECT_EQ(1, table.custom_metric_ready(ctx));
    EXPECT_EQ(1, table.is_winthin_limit(ctx, "svc", "tx"));
    EXPECT_EQ(0, table.send_span(ctx, "svc", "tx", 5));
    EXPECT_EQ(0, table.send_http_span(ctx, "svc", "tx", 5, 200, "GET", 0));
    EXPECT_EQ(0, table.add_custom_metric(ctx, "m", 1.0, 1, 0, "svc", 0, nullptr, 0));
    EXPECT_EQ(VESK_SERVER_RESPONSE_OK, table.get_server_response(ctx));
    EXPECT_EQ(20, table.get_profiling_interval(ctx));
    EXPECT_TRUE(read_file(path).empty());  // spans and metrics leave nothing

    const vesk_settings_t *s = vesk_settings_get(VESK_SETTINGS_TYPE_DEFAULT_SAMPLE_RATE, "");
    ASSERT_NE(nullptr, s);
    EXPECT_EQ(1000000u, s->value);
    EXPECT_EQ(VESK_SETTINGS_FLAG_SAMPLE_START | VESK_SETTINGS_FLAG_SAMPLE_THROUGH_ALWAYS, s->flags);
    EXPECT_EQ(20, s->flags);
    EXPECT_EQ(0u, s->timestamp);
    EXPECT_EQ(99999999u, s->ttl);
    EXPECT_STREQ("", s->layer);
    EXPECT_STREQ("k3Tq7XwPbnR2vLyd9HsA", s->signature_key);
    for (int i = 0; i < VESK_BUCKET_COUNT; ++i) {
        EXPECT_EQ(7.0, s->bucket_capacity[i]);
        EXPECT_EQ(3.0, s->bucket_rate[i]);
    }

    int fd = static_cast<vesk_file_descriptor *>(ctx)->fd;
    ASSERT_GE(fcntl(fd, F_GETFD), 0);
    EXPECT_EQ(0, table.destroy(ctx));
    EXPECT_EQ(-1, fcntl(fd, F_GETFD));  // the kept descriptor is closed

    // Unset bucket options mean 1000.
    vesk_settings_delete(VESK_SETTINGS_TYPE_DEFAULT_SAMPLE_RATE, "");
    vesk_init_options_t d = file_options(path.c_str());
    ASSERT_EQ(0, vesk_reporter_init_file(&table, &d));
    s = vesk_settings_get(VESK_SETTINGS_TYPE_DEFAULT_SAMPLE_RATE, "");
    ASSERT_NE(nullptr, s);
    EXPECT_EQ(1000.0, s->bucket_capacity[VESK_BUCKET_STRICT]);
    EXPECT_EQ(1000.0, s->bucket_rate[VESK_BUCKET_MAIN]);
    table.destroy(table.context);
}

TEST_F(FileReporterTest, ReadyMessageNamesThePath) {
    std::string path = dir_ + "/ready.bson";
    vesk_init_options_t o = file_options(path.c_str());
    LogCapture log;
    ASSERT_EQ(0, vesk_init(&o));
    const LogLine *line = log.find("Reporter appending messages to log file '" + path + "'");
    ASSERT_NE(nullptr, line);
    EXPECT_EQ(VESK_DEBUG_MODULE_REPORTER_FILE, line->module);
    EXPECT_EQ(VESK_DEBUG_LOW, line->level);
}

}  // namespace
