// The UDP reporter: each document goes out as one datagram on a connected
// socket to a local listener; nothing is queued and nothing is retried.
#include <assert.h>
#include <errno.h>
#include <netdb.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>

#include "corvidine/debug_log.h"
#include "corvidine/local_reporters.h"
#include "corvidine/startup.h"
#include "corvidine/settings.h"

namespace {

struct UdpTarget {
    std::string host = VESK_UDP_DEFAULT_HOST;
    std::string port = VESK_UDP_DEFAULT_PORT;
};

// "host:port". A value without a colon is ignored (the default target), and
// an empty part keeps its default rather than asking the resolver for "".
UdpTarget parse_target(const char *value) {
    UdpTarget target;
    if (value == nullptr) return target;
    const char *colon = strchr(value, ':');
    if (colon == nullptr) return target;
    if (colon > value) target.host.assign(value, static_cast<size_t>(colon - value));
    const char *port = colon + 1;
    size_t port_len = strcspn(port, ":");
    if (port_len > 0) target.port.assign(port, port_len);
    return target;
}

// The first resolved IPv4 address that a datagram socket connects to, or -1.
int connect_first(const struct addrinfo *addresses) {
    for (const struct addrinfo *a = addresses; a != nullptr; a = a->ai_next) {
        int fd = socket(a->ai_family, a->ai_socktype | SOCK_CLOEXEC, a->ai_protocol);
        if (fd < 0) continue;
        if (connect(fd, a->ai_addr, a->ai_addrlen) == 0) return fd;
        close(fd);
    }
    return -1;
}

// Linux reports twice the buffer it was given; make room for a datagram of
// the largest size we send.
void ensure_send_buffer(int fd) {
    int size = 0;
    socklen_t size_len = sizeof(size);
    if (getsockopt(fd, SOL_SOCKET, SO_SNDBUF, &size, &size_len) != 0) return;
    if (size / 2 < VESK_UDP_MAX_DATAGRAM) {
        int wanted = VESK_UDP_MAX_DATAGRAM;
        setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &wanted, sizeof(wanted));
    }
}

ssize_t udp_send(void *ctx, int /*channel*/, const char *data, size_t len) {
    assert(ctx != nullptr && data != nullptr);
    if (ctx == nullptr || data == nullptr) return -1;
    const vesk_udp_descriptor *udp = static_cast<const vesk_udp_descriptor *>(ctx);
    size_t cut = len < VESK_UDP_MAX_DATAGRAM ? len : VESK_UDP_MAX_DATAGRAM;
    ssize_t n = send(udp->socket, data, cut, 0);
    // A refusal reports an earlier datagram that found no listener: the agent
    // runs before its listener does, and that is not this document's failure.
    if (n < 0 && errno == ECONNREFUSED) return static_cast<ssize_t>(cut);
    return n;
}

int udp_destroy(void *ctx) {
    vesk_udp_descriptor *udp = static_cast<vesk_udp_descriptor *>(ctx);
    if (udp == nullptr) return 0;
    int rc = close(udp->socket);
    free(udp);
    return rc;
}

}  // namespace

extern "C" int vesk_reporter_init_udp(vesk_reporter_t *reporter, const vesk_init_options_t *options) {
    if (reporter == nullptr) {
        VESK_DEBUG_LOG_USAGE(VESK_DEBUG_MODULE_LIB, VESK_DEBUG_ERROR, "NULL reporter passed in");
        return VESK_REPORTER_INIT_NO_TABLE;
    }
    _vesk_local_reporter_prepare(reporter, options);

    UdpTarget target = parse_target(options ? options->host : nullptr);
    const char *host = target.host.c_str();
    const char *port = target.port.c_str();

    struct addrinfo hints;
    memset(&hints, 0, sizeof(hints));
    hints.ai_family = AF_INET;
    hints.ai_socktype = SOCK_DGRAM;
    struct addrinfo *addresses = nullptr;
    if (getaddrinfo(host, port, &hints, &addresses) != 0 || addresses == nullptr) {
        if (addresses != nullptr) freeaddrinfo(addresses);
        VESK_DEBUG_LOG_USAGE(VESK_DEBUG_MODULE_LIB, VESK_DEBUG_WARNING,
                             "UDP reporter initialization failed - No UDP support for %s:%s", host, port);
        return VESK_REPORTER_INIT_NO_ADDRESS;
    }
    int fd = connect_first(addresses);
    freeaddrinfo(addresses);
    if (fd < 0) {
        VESK_DEBUG_LOG_USAGE(VESK_DEBUG_MODULE_LIB, VESK_DEBUG_WARNING,
                             "UDP reporter initialization failed - Unable to open UDP connection to %s:%s",
                             host, port);
        return VESK_REPORTER_INIT_NO_SOCKET;
    }
    ensure_send_buffer(fd);

    vesk_udp_descriptor *udp = static_cast<vesk_udp_descriptor *>(_vesk_local_record_alloc(sizeof(*udp)));
    if (udp == nullptr) {
        close(fd);
        VESK_DEBUG_LOG_USAGE(VESK_DEBUG_MODULE_LIB, VESK_DEBUG_WARNING,
                             "UDP reporter initialization failed - memory allocation error");
        return VESK_REPORTER_INIT_NO_MEMORY;
    }
    udp->socket = fd;
    VESK_DEBUG_LOG(VESK_DEBUG_MODULE_LIB, VESK_DEBUG_LOW, "UDP reporter ready on %s:%s", host, port);

    reporter->context = udp;
    _vesk_local_reporter_fill_common(reporter);
    reporter->send = udp_send;
    reporter->destroy = udp_destroy;
    _vesk_reporter_register(reporter);

    if (_vesk_local_settings_install(
            VESK_SETTINGS_MAX_SAMPLE_RATE,
            VESK_SETTINGS_FLAG_SAMPLE_START | VESK_SETTINGS_FLAG_SAMPLE_THROUGH_ALWAYS,
            _vesk_local_bucket_option(options ? options->token_bucket_capacity : -1),
            _vesk_local_bucket_option(options ? options->token_bucket_rate : -1),
            VESK_LOCAL_SIGNATURE_KEY) != 0)
        VESK_DEBUG_LOG_USAGE(VESK_DEBUG_MODULE_REPORTER_SSL, VESK_DEBUG_WARNING,
                             "Failed to initialize settings for local operation.");
    return VESK_REPORTER_INIT_OK;
}
