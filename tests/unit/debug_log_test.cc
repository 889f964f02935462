// Debug log: filtering, callbacks, targets, line format and usage counters.
#include <gtest/gtest.h>
#include <stdio.h>
#include <unistd.h>

#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "corvidine/debug_log.h"

namespace {

struct Seen {
    int module, level, line;
    std::string source, message;
};

void collect(void *ctx, int module, int level, const char *source, int line, const char *message) {
    static_cast<std::vector<Seen> *>(ctx)->push_back({module, level, line, source ? source : "", message});
}
void other_collect(void *ctx, int module, int level, const char *source, int line, const char *message) {
    collect(ctx, module, level, source, line, message);
}

class DebugLogTest : public ::testing::Test {
protected:
    void SetUp() override {
        vesk_debug_log_init();
        vesk_maximum_log_level = VESK_DEBUG_INFO;
        file_ = tmpfile();
        ASSERT_EQ(0, vesk_debug_log_to_stream(file_));
    }
    void TearDown() override {
        vesk_debug_log_to_stream(stderr);
        fclose(file_);
        vesk_maximum_log_level = VESK_DEBUG_INFO;
    }
    std::string stream_text() {
        fflush(file_);
        rewind(file_);
        std::string out;
        int c;
        while ((c = fgetc(file_)) != EOF) out.push_back(static_cast<char>(c));
        return out;
    }
    FILE *file_ = nullptr;
};

TEST_F(DebugLogTest, LineFormat) {
    vesk_debug_logger(VESK_DEBUG_MODULE_SETTINGS, VESK_DEBUG_WARNING, "settings", 42, "value %d", 7);
    std::string line = stream_text();
    // "[Mon Nov 23 00:09:41 2026] value 7 [settings:42] [Corvidine-settings-warn p#<pid>.<tid>]\n"
    ASSERT_GT(line.size(), 27u);
    EXPECT_EQ('[', line[0]);
    EXPECT_EQ("] value 7 [settings:42] [Corvidine-settings-warn p#" + std::to_string(getpid()) + "." +
                  std::to_string(gettid()) + "]\n",
              line.substr(25));
}

TEST_F(DebugLogTest, LevelAboveMaximumReachesNobody) {
    std::vector<Seen> seen;
    ASSERT_EQ(0, vesk_debug_log_add(collect, &seen, VESK_DEBUG_HIGH));
    VESK_DEBUG_LOG(VESK_DEBUG_MODULE_LIB, VESK_DEBUG_LOW, "hidden");
    VESK_DEBUG_LOG(VESK_DEBUG_MODULE_LIB, VESK_DEBUG_INFO, "shown");
    EXPECT_EQ(1u, seen.size());
    EXPECT_EQ(std::string::npos, stream_text().find("hidden"));
    EXPECT_NE(std::string::npos, stream_text().find("shown"));
}

TEST_F(DebugLogTest, CallbackSlots) {
    std::vector<Seen> a, b, c, d;
    EXPECT_EQ(0, vesk_debug_log_add(collect, &a, VESK_DEBUG_WARNING));
    EXPECT_EQ(0, vesk_debug_log_add(collect, &b, VESK_DEBUG_HIGH));
    EXPECT_EQ(0, vesk_debug_log_add(other_collect, &c, VESK_DEBUG_HIGH));
    EXPECT_EQ(-1, vesk_debug_log_add(collect, &d, VESK_DEBUG_HIGH));  // all three taken
    EXPECT_EQ(-1, vesk_debug_log_add(nullptr, &d, VESK_DEBUG_HIGH));
    // A warn-level slot gets no info message, though the stream shows it.
    vesk_debug_logger(VESK_DEBUG_MODULE_LIB, VESK_DEBUG_INFO, "src", 1, "info message");
    EXPECT_TRUE(a.empty());
    ASSERT_EQ(1u, b.size());
    EXPECT_EQ("info message", b[0].message);
    EXPECT_EQ("src", b[0].source);
    EXPECT_EQ(1, b[0].line);
    // Re-adding with the same context only changes the level.
    EXPECT_EQ(1, vesk_debug_log_add(collect, &a, VESK_DEBUG_INFO));
    vesk_debug_logger(VESK_DEBUG_MODULE_LIB, VESK_DEBUG_INFO, "src", 2, "again");
    EXPECT_EQ(1u, a.size());
    EXPECT_EQ(0, vesk_debug_log_remove(collect, &b));
    EXPECT_EQ(-1, vesk_debug_log_remove(collect, &b));
    EXPECT_EQ(0, vesk_debug_log_add(collect, &d, VESK_DEBUG_HIGH));
}

TEST_F(DebugLogTest, FileTargetAndNoStream) {
    char path[] = "/tmp/corvidine-log-XXXXXX";
    int fd = mkstemp(path);
    ASSERT_GE(fd, 0);
    close(fd);
    ASSERT_EQ(0, vesk_debug_log_to_file(path));
    EXPECT_EQ(0, vesk_debug_log_to_file(path));  // same path: nothing changes
    vesk_debug_logger(VESK_DEBUG_MODULE_LIB, VESK_DEBUG_ERROR, "f", 1, "to the file");
    std::vector<Seen> seen;
    vesk_debug_log_add(collect, &seen, VESK_DEBUG_HIGH);
    ASSERT_EQ(0, vesk_debug_log_to_file(""));
    vesk_debug_logger(VESK_DEBUG_MODULE_LIB, VESK_DEBUG_ERROR, "f", 2, "callbacks only");
    ASSERT_EQ(1u, seen.size());
    EXPECT_EQ("callbacks only", seen[0].message);
    std::ifstream in(path);
    std::stringstream text;
    text << in.rdbuf();
    EXPECT_NE(std::string::npos, text.str().find("to the file"));
    EXPECT_EQ(std::string::npos, text.str().find("callbacks only"));
    EXPECT_NE(0, vesk_debug_log_to_file("/nonexistent-dir/x/log"));
    unlink(path);
}

TEST_F(DebugLogTest, UsageCounterLogsOnceAtBaseLevel) {
    std::vector<Seen> seen;
    vesk_debug_log_add(collect, &seen, VESK_DEBUG_HIGH);
    for (int i = 0; i < 3; i++) VESK_DEBUG_LOG_USAGE(VESK_DEBUG_MODULE_LIB, VESK_DEBUG_ERROR, "repeated %d", i);
    ASSERT_EQ(1u, seen.size());
    EXPECT_EQ(VESK_DEBUG_ERROR, seen[0].level);
    vesk_debug_log_level_set(VESK_DEBUG_MODULE_LIB, VESK_DEBUG_MEDIUM);
    seen.clear();
    for (int i = 0; i < 2; i++) VESK_DEBUG_LOG_USAGE(VESK_DEBUG_MODULE_LIB, VESK_DEBUG_ERROR, "repeated %d", i);
    // Not the same site as above: a fresh counter, first at error, then medium.
    ASSERT_EQ(2u, seen.size());
    EXPECT_EQ(VESK_DEBUG_ERROR, seen[0].level);
    EXPECT_EQ(VESK_DEBUG_MEDIUM, seen[1].level);
    int counter = 5;
    EXPECT_EQ(VESK_DEBUG_MEDIUM, vesk_debug_usage_level(&counter, VESK_DEBUG_WARNING));
}

TEST_F(DebugLogTest, LevelChangeIsAnnouncedAndNamesFallBack) {
    vesk_debug_log_level_set(VESK_DEBUG_MODULE_LIB, VESK_DEBUG_ERROR);
    vesk_debug_log_level_set(VESK_DEBUG_MODULE_LIB, VESK_DEBUG_INFO);
    EXPECT_NE(std::string::npos, stream_text().find("Changing log detail level from 1 (error) to 3 (info)"));
    EXPECT_STREQ("MOD#12", vesk_debug_module_name(12));
    EXPECT_STREQ("9", vesk_debug_log_level_name(9));
    EXPECT_STREQ("UDP_reporter", vesk_debug_module_name(VESK_DEBUG_MODULE_REPORTER_UDP));
    EXPECT_EQ(VESK_DEBUG_INFO, vesk_debug_log_level_get());
}

TEST_F(DebugLogTest, OverlongMessageIsCutNotOverrun) {
    std::string big(5000, 'm');
    vesk_debug_logger(VESK_DEBUG_MODULE_LIB, VESK_DEBUG_ERROR, "s", 1, "%s", big.c_str());
    std::string text = stream_text();
    EXPECT_LE(text.size(), static_cast<size_t>(VESK_DEBUG_MESSAGE_SIZE));
    EXPECT_EQ('\n', text.back());
}

}  // namespace
