// Helpers of the tests that start the library with a real reporter: options,
// events, what the reporters log, the files they write and a UDP listener.
#pragma once

#include <stdint.h>

#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "corvidine/metadata.h"
#include "corvidine/startup.h"

namespace corvidine_test {

// Default options with this reporter and host (null: none given).
vesk_init_options_t init_options(const char *reporter = nullptr, const char *host = nullptr);

// Sends one event with a Layer and a sequence number through the registry;
// what vesk_event_send returns, or -999 when no event could be made.
int send_event(vesk_metadata_t *md, const char *layer, int64_t seq);

struct LogLine {
    int module;
    int level;
    std::string message;
};

// Collects every debug-log line at every level while it lives, through the
// log's callback slots.
class LogCapture {
public:
    LogCapture();
    ~LogCapture();
    LogCapture(const LogCapture &) = delete;
    LogCapture &operator=(const LogCapture &) = delete;
    // The first line equal to `message`, or null.
    const LogLine *find(const std::string &message) const;
    bool contains(const std::string &part) const;
    void clear() {
        std::lock_guard<std::mutex> lock(mutex_);
        lines_.clear();
    }

private:
    static void collect(void *ctx, int module, int level, const char *, int, const char *message);
    mutable std::mutex mutex_;  // reporters' threads log too
    std::vector<LogLine> lines_;
    int saved_level_;
};

// A valid BSON document {"n": n, "pad": <pad bytes>}, 22 + pad bytes long.
std::string padded_document(int32_t n, size_t pad);

std::string read_file(const std::string &path);

// The names in a directory, sorted; empty when it cannot be read.
std::vector<std::string> list_dir(const std::string &dir);

// A datagram socket bound on 127.0.0.1; port 0 picks a free one.
class UdpListener {
public:
    explicit UdpListener(uint16_t port = 0);
    ~UdpListener();
    UdpListener(const UdpListener &) = delete;
    UdpListener &operator=(const UdpListener &) = delete;
    bool ok() const { return fd_ >= 0; }
    uint16_t port() const { return port_; }
    std::string target() const { return "127.0.0.1:" + std::to_string(port_); }
    // One datagram in full (MSG_TRUNC would show a larger one), or nothing
    // after the timeout.
    std::optional<std::string> receive(int timeout_ms = 2000);

private:
    int fd_ = -1;
    uint16_t port_ = 0;
};

}  // namespace corvidine_test
