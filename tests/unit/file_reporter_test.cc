// File reporter on the real file system: contents, the path rule, single-file mode, open failures, close.
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "corvidine/debug_log.h"
#include "corvidine/event.h"
#include "corvidine/local_reporters.h"
#include "corvidine/settings.h"
#include "support/harness.h"

using namespace corvidine_test;

namespace {

class FileReporterTest : public corvidine_test::LibraryFixture {
protected:
    void TearDown() override {
        vesk_shutdown();
        EXPECT_EQ(0, system(("rm -rf '" + dir_ + "'").c_str()));
    }
    vesk_init_options_t options(const std::string &path) {
        path_ = path;
        return init_options("file", path_.empty() ? nullptr : path_.c_str());
    }
    std::string dir_ = make_temp_dir(), path_;
    vesk_metadata_t md_ = sampled_metadata();
};

TEST_F(FileReporterTest, EventsAndRawDocumentsLandConcatenatedAndDecodeInOrder) {
    vesk_init_options_t o = options(dir_ + "/trace.bson");
    ASSERT_EQ(0, vesk_init(&o));
    size_t total = 0;
    for (int i = 0; i < 3; ++i) total += static_cast<size_t>(send_event(&md_, "file-test", i));
    std::string status = padded_document(41, 10), profiling = padded_document(42, 3000);
    EXPECT_EQ(static_cast<int>(status.size()), vesk_raw_send(VESK_SEND_STATUS, status.data(), status.size()));
    EXPECT_EQ(static_cast<int>(profiling.size()), vesk_raw_send(VESK_SEND_PROFILING, profiling.data(), profiling.size()));
    std::string bytes = read_file(path_);
    ASSERT_EQ(total + status.size() + profiling.size(), bytes.size());
    EXPECT_EQ(status + profiling, bytes.substr(total)) << "no framing of our own";
    std::vector<std::string> docs = decode_bson(bytes);
    ASSERT_EQ(5u, docs.size());
    for (int i = 0; i < 3; ++i) EXPECT_TRUE(has(docs[i], "[\"Seq\", [\"int64\", " + std::to_string(i) + "]]"));
    EXPECT_EQ(std::vector<std::string>{"trace.bson"}, list_dir(dir_)) << "an extension: no process id";
}

TEST_F(FileReporterTest, ProcessIdIsAppendedWhenNoExtensionFollowsTheLastSeparator) {
    ASSERT_EQ(0, mkdir((dir_ + "/a.b").c_str(), 0755));
    char cwd[4096];
    ASSERT_NE(nullptr, getcwd(cwd, sizeof(cwd)));
    ASSERT_EQ(0, chdir(dir_.c_str()));
    std::string pid = std::to_string(getpid());
    const std::pair<std::string, std::string> cases[] = {
        {dir_ + "/a.b/c", dir_ + "/a.b/c" + pid},  // the dot belongs to a directory
        {"trace.bson", dir_ + "/trace.bson"},      // no separator at all: kept as given
        {"noext", dir_ + "/noext" + pid},
        {"a.b\\c", dir_ + "/a.b\\c" + pid},  // a backslash separates when there is no slash
        {"", std::string(VESK_FILE_DEFAULT_PATH) + pid},
    };
    std::string doc = padded_document(1, 0);
    for (const auto &c : cases) {
        SCOPED_TRACE(c.first);
        unlink(c.second.c_str());
        vesk_init_options_t o = options(c.first);
        ASSERT_EQ(0, vesk_init(&o));
        EXPECT_EQ(static_cast<int>(doc.size()), vesk_raw_send(VESK_SEND_EVENT, doc.data(), doc.size()));
        vesk_shutdown();
        EXPECT_EQ(doc, read_file(c.second));
    }
    unlink(cases[4].second.c_str());
    ASSERT_EQ(0, chdir(cwd));
}

TEST_F(FileReporterTest, UnopenablePathFailsCleanlyWithALoggedError) {
    LogCapture log;
    vesk_init_options_t o = options(dir_ + "/no/such/dir/trace.bson");
    EXPECT_EQ(VESK_REPORTER_INIT_FILE_OPEN, vesk_init(&o));
    EXPECT_EQ(VESK_DEBUG_ERROR, log.level_of("Failed to open log file '" + path_ + "' - ignored (rc=2)"));
    EXPECT_EQ(VESK_SEND_NO_REPORTER, vesk_raw_send(VESK_SEND_EVENT, "\x05\0\0\0\0", 5));
    vesk_reporter_t table, cleared;
    memset(&table, 0xAB, sizeof(table));
    memset(&cleared, 0, sizeof(cleared));
    EXPECT_EQ(VESK_REPORTER_INIT_FILE_OPEN, vesk_reporter_init_file(&table, &o));
    EXPECT_EQ(0, memcmp(&cleared, &table, sizeof(table))) << "the table is left cleared";
    vesk_init_options_t lo = options(dir_ + "/" + std::string(2000, 'p'));
    EXPECT_EQ(VESK_REPORTER_INIT_FILE_OPEN, vesk_reporter_init_file(&table, &lo)) << "cut, not overrun";
}

TEST_F(FileReporterTest, SingleFileModeWritesOneFilePerDocument) {
    vesk_init_options_t o = options(dir_ + "/doc.bson");
    o.file_single = 1;
    ASSERT_EQ(0, vesk_init(&o));
    EXPECT_TRUE(list_dir(dir_).empty()) << "nothing is opened ahead of time";
    std::string sent;
    for (int i = 0; i < 3; ++i, usleep(2000)) {  // distinct microsecond stamps
        std::string doc = padded_document(i, static_cast<size_t>(i) * 100);
        ASSERT_EQ(static_cast<int>(doc.size()), vesk_raw_send(VESK_SEND_EVENT, doc.data(), doc.size()));
        sent += doc;
    }
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    std::string got;
    for (const std::string &name : list_dir(dir_)) {  // same digit count: sorted by stamp
        unsigned long long stamp = std::stoull(name.substr(strlen("doc.bson-")));
        EXPECT_LT(now.tv_sec * 1000000ULL + now.tv_nsec / 1000 - stamp, 60ULL * 1000000) << "monotonic microseconds";
        got += read_file(dir_ + "/" + name);
    }
    EXPECT_EQ(sent, got);
}

TEST_F(FileReporterTest, LocalSettingsFromTheBucketOptionsAndCloseOnDestroy) {
    vesk_init_options_t o = options(dir_ + "/slots.bson");
    o.token_bucket_capacity = 7;
    vesk_reporter_t table;
    ASSERT_EQ(0, vesk_reporter_init_file(&table, &o));
    EXPECT_NE(&table, vesk_reporter_get()) << "registration is left to the start-up code";
    const vesk_settings_t *s = vesk_settings_get(VESK_SETTINGS_TYPE_DEFAULT_SAMPLE_RATE, "");
    ASSERT_NE(nullptr, s);
    EXPECT_EQ(1000000u, s->value);
    EXPECT_EQ(7.0, s->bucket_capacity[VESK_BUCKET_STRICT]);
    int fd = static_cast<vesk_file_descriptor *>(table.context)->fd;
    EXPECT_EQ(0, table.destroy(table.context));
    EXPECT_EQ(-1, fcntl(fd, F_GETFD)) << "the kept descriptor is closed";
}

}  // namespace
