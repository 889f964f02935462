// Debug log: filtering, callback slots, targets, usage counters.
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include "corvidine/debug_log.h"
#include "support/harness.h"

namespace {

void collect(void *ctx, int, int level, const char *source, int line, const char *message) {
    static_cast<std::vector<std::string> *>(ctx)->push_back(std::to_string(level) + " " + (source ? source : "") +
                                                            ":" + std::to_string(line) + " " + message);
}

class DebugLogTest : public ::testing::Test {
protected:
    void SetUp() override {
        vesk_debug_log_init();
        vesk_maximum_log_level = VESK_DEBUG_INFO;
        ASSERT_EQ(0, vesk_debug_log_to_stream(file_));
    }
    void TearDown() override {
        vesk_debug_log_to_stream(stderr);
        fclose(file_);
        vesk_maximum_log_level = VESK_DEBUG_INFO;
    }
    FILE *file_ = tmpfile();
};

TEST_F(DebugLogTest, CallbackSlots) {
    std::vector<std::string> a, b, c, d;
    EXPECT_EQ(0, vesk_debug_log_add(collect, &a, VESK_DEBUG_WARNING));
    EXPECT_EQ(0, vesk_debug_log_add(collect, &b, VESK_DEBUG_HIGH));
    auto other = [](void *ctx, int m, int l, const char *s, int n, const char *msg) { collect(ctx, m, l, s, n, msg); };
    EXPECT_EQ(0, vesk_debug_log_add(other, &c, VESK_DEBUG_HIGH));
    EXPECT_EQ(-1, vesk_debug_log_add(collect, &d, VESK_DEBUG_HIGH)) << "all three taken";
    EXPECT_EQ(-1, vesk_debug_log_add(nullptr, &d, VESK_DEBUG_HIGH));
    vesk_debug_logger(VESK_DEBUG_MODULE_LIB, VESK_DEBUG_INFO, "src", 1, "info message");
    vesk_debug_logger(VESK_DEBUG_MODULE_LIB, VESK_DEBUG_LOW, "src", 1, "above the maximum");
    EXPECT_TRUE(a.empty()) << "a warn-level slot gets no info message";
    EXPECT_EQ(std::vector<std::string>{"3 src:1 info message"}, b);
    EXPECT_EQ(1, vesk_debug_log_add(collect, &a, VESK_DEBUG_INFO)) << "same context: only the level changes";
    vesk_debug_logger(VESK_DEBUG_MODULE_LIB, VESK_DEBUG_INFO, "src", 2, "again");
    EXPECT_EQ(1u, a.size());
    vesk_debug_logger(VESK_DEBUG_MODULE_LIB, VESK_DEBUG_ERROR, "s", 1, "%s", std::string(5000, 'm').c_str());
    EXPECT_LE(a.back().size() - strlen("1 s:1 "), static_cast<size_t>(VESK_DEBUG_MESSAGE_SIZE)) << "cut";
    EXPECT_EQ(0, vesk_debug_log_remove(collect, &b));
    EXPECT_EQ(-1, vesk_debug_log_remove(collect, &b));
    EXPECT_EQ(0, vesk_debug_log_add(collect, &d, VESK_DEBUG_HIGH));
}

TEST_F(DebugLogTest, FileTargetThenNoStream) {
    std::string dir = corvidine_test::make_temp_dir(), path = dir + "/log";
    ASSERT_EQ(0, vesk_debug_log_to_file(path.c_str()));
    vesk_debug_logger(VESK_DEBUG_MODULE_LIB, VESK_DEBUG_ERROR, "f", 1, "to the file");
    ASSERT_EQ(0, vesk_debug_log_to_file(""));
    vesk_debug_logger(VESK_DEBUG_MODULE_LIB, VESK_DEBUG_ERROR, "f", 2, "to nowhere");
    std::string text = corvidine_test::read_file(path);
    EXPECT_TRUE(corvidine_test::has(text, "to the file") && !corvidine_test::has(text, "to nowhere")) << text;
    EXPECT_NE(0, vesk_debug_log_to_file((dir + "/no/such/log").c_str()));
    unlink(path.c_str());
    rmdir(dir.c_str());
}

TEST_F(DebugLogTest, UsageCounterLogsFirstAtBaseLevelThenMedium) {
    std::vector<std::string> seen;
    vesk_debug_log_level_set(VESK_DEBUG_MODULE_LIB, VESK_DEBUG_MEDIUM);
    vesk_debug_log_add(collect, &seen, VESK_DEBUG_HIGH);
    for (int i = 0; i < 2; i++) VESK_DEBUG_LOG_USAGE(VESK_DEBUG_MODULE_LIB, VESK_DEBUG_ERROR, "repeated %d", i);
    ASSERT_EQ(2u, seen.size());
    EXPECT_EQ(std::to_string(VESK_DEBUG_ERROR), seen[0].substr(0, 1));
    EXPECT_EQ(std::to_string(VESK_DEBUG_MEDIUM), seen[1].substr(0, 1));
    char text[256] = {0};
    rewind(file_);
    EXPECT_TRUE(fread(text, 1, sizeof(text) - 1, file_) > 0 && strstr(text, "Changing log detail level from 3 (info) to 5 (medium)"));
}

}  // namespace
