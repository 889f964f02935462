#include "support/harness.h"

#include <dirent.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <fstream>
#include <sstream>

#include "corvidine/bson.h"
#include "corvidine/debug_log.h"
#include "corvidine/event.h"
#include "corvidine/settings.h"
#include "corvidine/token_bucket.h"

namespace corvidine_test {

CaptureReporter::CaptureReporter() {
    vesk_init_options_t options = init_options("null");
    vesk_init(&options);
    _vesk_destroy_reporter(nullptr);
    table.context = this;
    table.event_ready = table.profiling_ready = table.status_ready = table.span_ready = [](void *) { return 1; };
    table.get_server_response = [](void *) { return VESK_SERVER_RESPONSE_OK; };
    table.destroy = [](void *) { return 0; };
    table.send = [](void *ctx, int channel, const char *data, size_t len) -> ssize_t {
        CaptureReporter *self = static_cast<CaptureReporter *>(ctx);
        self->documents.emplace_back(channel, std::string(data, len));
        return self->send_result < 0 ? static_cast<ssize_t>(len) : self->send_result;
    };
    _vesk_reporter_register(&table);
}

CaptureReporter::~CaptureReporter() { _vesk_destroy_reporter(&table); }

std::string make_temp_dir() {
    char tmpl[] = "/tmp/corvidine-test-XXXXXX";
    const char *dir = mkdtemp(tmpl);
    return dir ? dir : "/tmp";
}

std::string read_file(const std::string &path) {
    std::stringstream s;
    s << std::ifstream(path, std::ios::binary).rdbuf();
    return s.str();
}

std::vector<std::string> list_dir(const std::string &dir) {
    std::vector<std::string> names;
    if (DIR *d = opendir(dir.c_str())) {
        while (struct dirent *e = readdir(d))
            if (strcmp(e->d_name, ".") != 0 && strcmp(e->d_name, "..") != 0) names.push_back(e->d_name);
        closedir(d);
    }
    std::sort(names.begin(), names.end());
    return names;
}

std::vector<std::string> decode_bson(const std::string &bytes) {
    std::string dir = make_temp_dir(), in = dir + "/docs.bson", out;
    std::ofstream(in, std::ios::binary).write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    const char *root = getenv("CORVIDINE_SOURCE_DIR");
    std::string cmd = "/usr/bin/python3 " + std::string(root ? root : CORVIDINE_SOURCE_DIR) + "/tools/bson_tools.py json " + in;
    FILE *p = popen(cmd.c_str(), "r");
    for (int c; p && (c = fgetc(p)) != EOF;) out.push_back(static_cast<char>(c));
    EXPECT_EQ(0, p ? pclose(p) : -1) << "decoder failed: " << out;
    unlink(in.c_str());
    rmdir(dir.c_str());
    std::vector<std::string> lines;
    for (size_t at = 0, nl; (nl = out.find('\n', at)) != std::string::npos; at = nl + 1)
        lines.push_back(out.substr(at, nl - at));
    return lines;
}

bool has(const std::string &text, const std::string &part) { return text.find(part) != std::string::npos; }

// Quiet on stderr, every level captured.
LogCapture::LogCapture() {
    saved_level_ = vesk_debug_log_level_get();
    vesk_debug_log_to_stream(nullptr);
    vesk_debug_log_level_set(VESK_DEBUG_MODULE_UNDEF, VESK_DEBUG_HIGH);
    vesk_debug_log_add(&LogCapture::collect, this, VESK_DEBUG_HIGH);
}

LogCapture::~LogCapture() {
    vesk_debug_log_remove(&LogCapture::collect, this);
    vesk_debug_log_level_set(VESK_DEBUG_MODULE_UNDEF, saved_level_);
    vesk_debug_log_to_stream(stderr);
}

int LogCapture::level_of(const std::string &message) {
    std::lock_guard<std::mutex> lock(mu_);
    auto it = std::find_if(lines_.begin(), lines_.end(), [&](const auto &line) { return line.second == message; });
    return it == lines_.end() ? -1 : it->first;
}

bool LogCapture::contains(const std::string &part) {
    std::lock_guard<std::mutex> lock(mu_);
    return std::any_of(lines_.begin(), lines_.end(), [&](const auto &line) { return has(line.second, part); });
}

void LogCapture::collect(void *ctx, int, int level, const char *, int, const char *message) {
    LogCapture *self = static_cast<LogCapture *>(ctx);
    std::lock_guard<std::mutex> lock(self->mu_);
    self->lines_.emplace_back(level, message);
}

namespace {
std::atomic<long> g_sec{0}, g_usec{0};
}  // namespace

FixedClock::FixedClock(long sec) {
    set(sec);
    _vesk_clock_set([](struct timeval *tv) { tv->tv_sec = g_sec.load(), tv->tv_usec = g_usec.load(); });
}
FixedClock::~FixedClock() { _vesk_clock_set(nullptr); }
void FixedClock::set(long sec, long usec) { g_sec = sec, g_usec = usec; }
long FixedClock::sec() { return g_sec.load(); }

vesk_init_options_t init_options(const char *reporter, const char *host) {
    vesk_init_options_t o;
    o.version = VESK_INIT_OPTIONS_VERSION;
    vesk_init_options_set_defaults(&o);
    o.reporter = reporter;
    o.host = host;
    return o;
}

vesk_metadata_t sampled_metadata() {
    vesk_metadata_t md;
    vesk_metadata_init(&md);
    vesk_metadata_random(&md);
    md.flags = VESK_XTRACE_FLAG_SAMPLED;
    return md;
}

std::string xtrace_of(const vesk_metadata_t &md) {
    char buf[VESK_MAX_METADATA_STRING_LEN];
    EXPECT_EQ(0, vesk_metadata_tostr(&md, buf, sizeof(buf)));
    return buf;
}

int send_event(vesk_metadata_t *md, const char *layer, int64_t seq) {
    vesk_event_t evt;
    if (vesk_metadata_create_event(md, &evt) != 0) return -1;
    vesk_event_add_info(&evt, "Layer", layer);
    vesk_event_add_info_int64(&evt, "Seq", seq);
    int rc = vesk_event_send(VESK_SEND_EVENT, &evt, md);
    vesk_event_destroy(&evt);
    return rc;
}

std::string padded_document(int32_t n, size_t pad) {
    vesk_bson_buffer b;
    vesk_bson_buffer_init(&b);
    vesk_bson_append_int(&b, "n", n);
    vesk_bson_append_string(&b, "pad", std::string(pad, 'x').c_str());
    const char *data = vesk_bson_buffer_finish(&b);  // before the size: finishing adds the last byte
    std::string doc(data, vesk_bson_buffer_size(&b));
    vesk_bson_buffer_destroy(&b);
    return doc;
}

CaptureReporter *SettingsFixture::reporter = nullptr;

void SettingsFixture::fresh_settings(bool configuration) {
    ASSERT_EQ(0, vesk_settings_init_local());
    _vesk_settings_reset();
    if (configuration) vesk_settings_cfg_init(vesk_settings_cfg_get());
}

void LibraryFixture::SetUpTestSuite() {
    vesk_ensure_init();
    vesk_shutdown();
}
void LibraryFixture::SetUp() { vesk_settings_delete(VESK_SETTINGS_TYPE_DEFAULT_SAMPLE_RATE, ""); }

vesk_tracing_decisions_in_t decisions_in(const char *service, int request_type) {
    vesk_tracing_decisions_in_t in;
    memset(&in, 0, sizeof(in));
    in.version = 2;
    in.service_name = service;
    in.custom_sample_rate = in.custom_tracing_mode = in.custom_trigger_mode = -1;
    in.request_type = request_type;
    return in;
}

}  // namespace corvidine_test
