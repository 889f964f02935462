#include "support/reporter_helpers.h"

#include <arpa/inet.h>
#include <dirent.h>
#include <netinet/in.h>
#include <poll.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <sstream>

#include "corvidine/bson.h"
#include "corvidine/debug_log.h"
#include "corvidine/event.h"

namespace corvidine_test {

vesk_init_options_t init_options(const char *reporter, const char *host) {
    vesk_init_options_t o;
    o.version = VESK_INIT_OPTIONS_VERSION;
    vesk_init_options_set_defaults(&o);
    o.reporter = reporter;
    o.host = host;
    return o;
}

int send_event(vesk_metadata_t *md, const char *layer, int64_t seq) {
    vesk_event_t evt;
    if (vesk_metadata_create_event(md, &evt) != 0) return -999;
    vesk_event_add_info(&evt, "Layer", layer);
    vesk_event_add_info_int64(&evt, "Seq", seq);
    int rc = vesk_event_send(VESK_SEND_EVENT, &evt, md);
    vesk_event_destroy(&evt);
    return rc;
}

LogCapture::LogCapture() {
    saved_level_ = vesk_debug_log_level_get();
    vesk_debug_log_level_set(VESK_DEBUG_MODULE_UNDEF, VESK_DEBUG_HIGH);
    vesk_debug_log_add(&LogCapture::collect, this, VESK_DEBUG_HIGH);
}

LogCapture::~LogCapture() {
    vesk_debug_log_remove(&LogCapture::collect, this);
    vesk_debug_log_level_set(VESK_DEBUG_MODULE_UNDEF, saved_level_);
}

const LogLine *LogCapture::find(const std::string &message) const {
    std::lock_guard<std::mutex> lock(mutex_);
    for (const LogLine &line : lines_)
        if (line.message == message) return &line;
    return nullptr;
}

bool LogCapture::contains(const std::string &part) const {
    std::lock_guard<std::mutex> lock(mutex_);
    for (const LogLine &line : lines_)
        if (line.message.find(part) != std::string::npos) return true;
    return false;
}

void LogCapture::collect(void *ctx, int module, int level, const char *, int, const char *message) {
    LogCapture *self = static_cast<LogCapture *>(ctx);
    std::lock_guard<std::mutex> lock(self->mutex_);
    self->lines_.push_back({module, level, message});
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

std::string read_file(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream s;
    s << in.rdbuf();
    return s.str();
}

std::vector<std::string> list_dir(const std::string &dir) {
    std::vector<std::string> names;
    DIR *d = opendir(dir.c_str());
    if (d == nullptr) return names;
    while (struct dirent *e = readdir(d))
        if (strcmp(e->d_name, ".") != 0 && strcmp(e->d_name, "..") != 0) names.push_back(e->d_name);
    closedir(d);
    std::sort(names.begin(), names.end());
    return names;
}

UdpListener::UdpListener(uint16_t port) {
    fd_ = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    int big = 1 << 20;
    setsockopt(fd_, SOL_SOCKET, SO_RCVBUF, &big, sizeof(big));
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(port);
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (bind(fd_, reinterpret_cast<sockaddr *>(&addr), sizeof(addr)) != 0) {
        close(fd_);
        fd_ = -1;
        return;
    }
    socklen_t len = sizeof(addr);
    getsockname(fd_, reinterpret_cast<sockaddr *>(&addr), &len);
    port_ = ntohs(addr.sin_port);
}

UdpListener::~UdpListener() {
    if (fd_ >= 0) close(fd_);
}

std::optional<std::string> UdpListener::receive(int timeout_ms) {
    pollfd p{fd_, POLLIN, 0};
    if (poll(&p, 1, timeout_ms) != 1) return std::nullopt;
    std::string buf(100000, '\0');
    ssize_t n = recv(fd_, &buf[0], buf.size(), MSG_TRUNC);
    if (n < 0) return std::nullopt;
    buf.resize(static_cast<size_t>(n));
    return buf;
}

}  // namespace corvidine_test
