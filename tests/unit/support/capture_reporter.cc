#include "support/capture_reporter.h"

#include <gtest/gtest.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <fstream>

#include "corvidine/startup.h"

namespace corvidine_test {

namespace {
int ready(void *) { return 1; }
int server_ok(void *) { return 1; }
int destroy(void *) { return 0; }
}  // namespace

CaptureReporter::CaptureReporter() {
    vesk_init_options_t options;
    options.version = VESK_INIT_OPTIONS_VERSION;
    vesk_init_options_set_defaults(&options);
    options.reporter = "null";
    vesk_init(&options);
    _vesk_destroy_reporter(nullptr);
    table_.context = this;
    table_.event_ready = ready;
    table_.profiling_ready = ready;
    table_.status_ready = ready;
    table_.span_ready = ready;
    table_.send = &CaptureReporter::send;
    table_.destroy = destroy;
    table_.get_server_response = server_ok;
    _vesk_reporter_register(&table_);
}

CaptureReporter::~CaptureReporter() { _vesk_destroy_reporter(&table_); }

ssize_t CaptureReporter::send(void *ctx, int channel, const char *data, size_t len) {
    CaptureReporter *self = static_cast<CaptureReporter *>(ctx);
    self->documents_.push_back({channel, std::string(data, len)});
    return self->send_result_ < 0 ? static_cast<ssize_t>(len) : self->send_result_;
}

std::string source_path(const std::string &relative) {
    const char *root = getenv("CORVIDINE_SOURCE_DIR");
#ifdef CORVIDINE_SOURCE_DIR
    if (root == nullptr) root = CORVIDINE_SOURCE_DIR;
#endif
    return std::string(root ? root : ".") + "/" + relative;
}

std::string make_temp_dir() {
    char tmpl[] = "/tmp/corvidine-test-XXXXXX";
    const char *dir = mkdtemp(tmpl);
    return dir ? dir : "/tmp";
}

std::vector<std::string> decode_bson(const std::string &bytes) {
    std::string dir = make_temp_dir();
    std::string in = dir + "/docs.bson";
    {
        std::ofstream out(in, std::ios::binary);
        out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    }
    std::string cmd = "/usr/bin/python3 " + source_path("tests/support/bson_tools.py") + " json " + in;
    std::vector<std::string> lines;
    FILE *p = popen(cmd.c_str(), "r");
    if (p == nullptr) {
        ADD_FAILURE() << "cannot run " << cmd;
        return lines;
    }
    std::string line;
    int c;
    while ((c = fgetc(p)) != EOF) {
        if (c == '\n') {
            lines.push_back(line);
            line.clear();
        } else {
            line.push_back(static_cast<char>(c));
        }
    }
    int status = pclose(p);
    EXPECT_EQ(0, status) << "decoder failed: " << (lines.empty() ? "" : lines.back());
    unlink(in.c_str());
    rmdir(dir.c_str());
    return lines;
}

}  // namespace corvidine_test
