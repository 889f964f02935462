// Test-only reporter that keeps every document it is handed, and a bridge to
// the independent BSON decoder.
#pragma once

#include <string>
#include <vector>

#include "corvidine/reporter.h"

namespace corvidine_test {

struct CapturedDocument {
    int channel;
    std::string bytes;
};

// Starts the library with the null reporter (so this process owns the
// registry) and puts a capturing table in its place.
class CaptureReporter {
public:
    CaptureReporter();
    ~CaptureReporter();
    const std::vector<CapturedDocument> &documents() const { return documents_; }
    void clear() { documents_.clear(); }
    // What send returns: -1 means "the whole length".
    void set_send_result(long result) { send_result_ = result; }
    vesk_reporter_t *table() { return &table_; }

private:
    static ssize_t send(void *ctx, int channel, const char *data, size_t len);
    vesk_reporter_t table_{};
    std::vector<CapturedDocument> documents_;
    long send_result_ = -1;
};

// Decodes BSON bytes with python3-bson; one JSON line per document, each
// document a list of [key, [type, value]] pairs in document order.
std::vector<std::string> decode_bson(const std::string &bytes);

// Path of a file inside the source tree.
std::string source_path(const std::string &relative);

// A fresh empty directory under /tmp, removed by the caller if wanted.
std::string make_temp_dir();

}  // namespace corvidine_test
