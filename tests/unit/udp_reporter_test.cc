// UDP reporter against a loopback listener: datagrams, the 65507-byte cut, bad or unreachable targets.
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <optional>

#include "corvidine/debug_log.h"
#include "corvidine/event.h"
#include "corvidine/local_reporters.h"
#include "support/harness.h"

using namespace corvidine_test;

namespace {

// A datagram socket bound on 127.0.0.1; port 0 picks a free one.
class UdpListener {
public:
    explicit UdpListener(uint16_t port = 0) : fd_(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
        int big = 1 << 20;
        setsockopt(fd_, SOL_SOCKET, SO_RCVBUF, &big, sizeof(big));
        sockaddr_in addr{AF_INET, htons(port), {htonl(INADDR_LOOPBACK)}, {}};
        socklen_t len = sizeof(addr);
        bind(fd_, reinterpret_cast<sockaddr *>(&addr), len);
        getsockname(fd_, reinterpret_cast<sockaddr *>(&addr), &len);
        port_ = ntohs(addr.sin_port);
    }
    ~UdpListener() { close(fd_); }
    uint16_t port() const { return port_; }
    std::string target() const { return "127.0.0.1:" + std::to_string(port_); }
    // One whole datagram (MSG_TRUNC: its true size), or nothing after the timeout.
    std::optional<std::string> receive(int timeout_ms = 2000) {
        pollfd p{fd_, POLLIN, 0};
        std::string buf(100000, '\0');
        ssize_t n = poll(&p, 1, timeout_ms) == 1 ? recv(fd_, &buf[0], buf.size(), MSG_TRUNC) : -1;
        if (n < 0) return std::nullopt;
        buf.resize(static_cast<size_t>(n));
        return buf;
    }

private:
    int fd_;
    uint16_t port_ = 0;
};

class UdpReporterTest : public corvidine_test::LibraryFixture {
protected:
    int start(const std::string &target) {
        target_ = target;
        vesk_init_options_t o = init_options("udp", target_.c_str());
        return vesk_init(&o);
    }
    int raw(const std::string &doc) { return vesk_raw_send(VESK_SEND_EVENT, doc.data(), doc.size()); }
    std::string target_;
    UdpListener listener_;
};

TEST_F(UdpReporterTest, DocumentsArriveWholeOnePerDatagramAndOversizedOnesAreCut) {
    LogCapture log;
    ASSERT_EQ(0, start(listener_.target()));
    EXPECT_EQ(VESK_DEBUG_LOW, log.level_of("UDP reporter ready on " + target_));
    vesk_metadata_t md = sampled_metadata();
    for (int i = 0; i < 3; ++i) {
        int sent = send_event(&md, "udp-test", i);
        std::string datagram = listener_.receive().value_or("");
        EXPECT_EQ(static_cast<size_t>(sent), datagram.size());
        EXPECT_TRUE(has(decode_bson(datagram).at(0), "[\"Seq\", [\"int64\", " + std::to_string(i) + "]]"));
    }
    std::string largest = padded_document(8, VESK_UDP_MAX_DATAGRAM - 22), over = padded_document(9, 70000 - 22);
    EXPECT_EQ(VESK_UDP_MAX_DATAGRAM, vesk_raw_send(VESK_SEND_PROFILING, largest.data(), largest.size()));
    EXPECT_EQ(largest, listener_.receive().value_or(""));
    EXPECT_FALSE(log.contains("Send failed"));
    EXPECT_EQ(VESK_UDP_MAX_DATAGRAM, raw(over));
    EXPECT_TRUE(log.contains("Send failed - reporter returned 65507"));
    EXPECT_EQ(over.substr(0, VESK_UDP_MAX_DATAGRAM), listener_.receive().value_or(""));
}

TEST_F(UdpReporterTest, NoListenerCountsAsDelivered) {
    uint16_t port = UdpListener().port();  // nobody listens there any more
    ASSERT_EQ(0, start("127.0.0.1:" + std::to_string(port)));
    for (int i = 0; i < 4; ++i, usleep(5000)) EXPECT_EQ(300, raw(padded_document(1, 278))) << i;  // refusals show late
    EXPECT_EQ(VESK_UDP_MAX_DATAGRAM, raw(padded_document(1, 70000)));
    EXPECT_EQ(0, vesk_reporter_is_ready(nullptr));
}

TEST_F(UdpReporterTest, TargetParts) {
    std::string port = std::to_string(listener_.port());
    for (const std::string &host : {"localhost:" + port, ":" + port, "127.0.0.1:" + port + ":ignored"}) {
        ASSERT_EQ(0, start(host)) << host;
        EXPECT_EQ(40, raw(padded_document(1, 18)));
        EXPECT_EQ(padded_document(1, 18), listener_.receive().value_or("")) << host;
        vesk_shutdown();
    }
}

TEST_F(UdpReporterTest, UnresolvableOrUnconnectableTargetsFailCleanly) {
    // An empty label fails inside the resolver: no query leaves the machine.
    for (const char *host : {"no-such..host:7831", "127.0.0.1:no-such-service-here"}) {
        LogCapture log;
        EXPECT_EQ(VESK_REPORTER_INIT_NO_ADDRESS, start(host));
        EXPECT_TRUE(log.contains(std::string("UDP reporter initialization failed - No UDP support for ") + host));
        EXPECT_EQ(VESK_SEND_NO_REPORTER, raw(padded_document(1, 0)));
        vesk_shutdown();
    }
    // Connecting a datagram socket to the broadcast address is refused without SO_BROADCAST.
    vesk_init_options_t o = init_options("udp", "255.255.255.255:7831");
    vesk_reporter_t table, cleared;
    memset(&table, 0x5A, sizeof(table));
    memset(&cleared, 0, sizeof(cleared));
    EXPECT_EQ(VESK_REPORTER_INIT_NO_SOCKET, vesk_reporter_init_udp(&table, &o));
    EXPECT_EQ(0, memcmp(&cleared, &table, sizeof(table)));
    EXPECT_EQ(VESK_REPORTER_INIT_NO_TABLE, vesk_reporter_init_udp(nullptr, &o));
}

TEST_F(UdpReporterTest, RegistersItselfAndClosesOnDestroy) {
    vesk_init_options_t o = init_options("udp", (target_ = listener_.target()).c_str());
    vesk_reporter_t table;
    ASSERT_EQ(0, vesk_reporter_init_udp(&table, &o));
    std::string doc = padded_document(1, 28);
    EXPECT_EQ(50, vesk_reporter_udp_send(nullptr, doc.data(), doc.size())) << "the older entry point";
    EXPECT_EQ(doc, listener_.receive().value_or(""));
    int sock = static_cast<vesk_udp_descriptor *>(table.context)->socket;
    EXPECT_EQ(0, _vesk_destroy_reporter(&table));
    EXPECT_EQ(-1, fcntl(sock, F_GETFD));
    EXPECT_EQ(VESK_SEND_NO_REPORTER, vesk_reporter_udp_send(nullptr, doc.data(), doc.size()));
}

}  // namespace
