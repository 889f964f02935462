// The unit tests' harness: a capturing reporter, python3-bson decoding, a log capture, a hand-set clock, files.
#pragma once

#include <gtest/gtest.h>
#include <stdint.h>

#include <mutex>
#include <string>
#include <vector>

#include "corvidine/metadata.h"
#include "corvidine/reporter.h"
#include "corvidine/startup.h"
#include "corvidine/tracing_decisions.h"

namespace corvidine_test {

// Starts the library with the null reporter (this process owns the registry), then keeps every document.
class CaptureReporter {
public:
    CaptureReporter();
    ~CaptureReporter();
    std::vector<std::pair<int, std::string>> documents;  // channel, bytes
    long send_result = -1;                                // what send returns; -1: the whole length
    vesk_reporter_t table{};
};

// One JSON line per document, each a list of [key, [type, value]] in order.
std::vector<std::string> decode_bson(const std::string &bytes);
bool has(const std::string &text, const std::string &part);
std::string make_temp_dir();
std::string read_file(const std::string &path);
std::vector<std::string> list_dir(const std::string &dir);  // sorted

// Every debug-log line while it lives.
class LogCapture {
public:
    LogCapture();
    ~LogCapture();
    int level_of(const std::string &message);  // of the first line equal to it, or -1
    bool contains(const std::string &part);

private:
    static void collect(void *ctx, int module, int level, const char *, int, const char *message);
    std::mutex mu_;
    std::vector<std::pair<int, std::string>> lines_;
    int saved_level_;
};

// The clock of buckets and settings, set by hand while it lives.
struct FixedClock {
    explicit FixedClock(long sec = 1700000000);
    ~FixedClock();
    static void set(long sec, long usec = 0);
    static long sec();
};

vesk_init_options_t init_options(const char *reporter = nullptr, const char *host = nullptr);
vesk_metadata_t sampled_metadata();
std::string xtrace_of(const vesk_metadata_t &md);
// An event with Layer and Seq through the registry: what vesk_event_send returns.
int send_event(vesk_metadata_t *md, const char *layer, int64_t seq);
// A valid BSON document {"n": n, "pad": <pad bytes>}, 22 + pad bytes long.
std::string padded_document(int32_t n, size_t pad);

// Base of the fixtures that decide or wait on the settings: a capturing reporter for the whole suite.
class SettingsFixture : public ::testing::Test {
protected:
    static void SetUpTestSuite() { reporter = new CaptureReporter(); }
    static void TearDownTestSuite() { delete reporter; }
    // The process's own table, emptied, and the configuration at its defaults.
    static void fresh_settings(bool configuration = true);
    static CaptureReporter *reporter;
};

// Base of fixtures that start the library themselves: one-time set-up done, no reporter or default record.
class LibraryFixture : public ::testing::Test {
protected:
    static void SetUpTestSuite();
    void SetUp() override;
    void TearDown() override { vesk_shutdown(); }
};

// Decision input for a service: nothing custom, no headers.
vesk_tracing_decisions_in_t decisions_in(const char *service, int request_type = 0);

}  // namespace corvidine_test
