// UDP reporter against a real listener on loopback: one whole document per
// datagram, the 65507-byte cut, no listener, the default target, and targets
// that cannot be resolved or connected.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <string.h>
#include <unistd.h>

#include <optional>
#include <string>
#include <vector>

#include "corvidine/debug_log.h"
#include "corvidine/event.h"
#include "corvidine/local_reporters.h"
#include "corvidine/metadata.h"
#include "corvidine/settings.h"
#include "corvidine/startup.h"
#include "support/capture_reporter.h"
#include "support/reporter_helpers.h"

using corvidine_test::decode_bson;
using corvidine_test::LogCapture;
using corvidine_test::LogLine;
using corvidine_test::UdpListener;

namespace {

// A port with nobody listening on it.
uint16_t free_port() {
    UdpListener probe;
    return probe.port();
}

vesk_init_options_t udp_options(const char *host) {
    return corvidine_test::init_options("udp", host);
}

// A valid BSON document of exactly `size` bytes (size >= 22).
std::string document_of_size(size_t size, int32_t n = 1) {
    return corvidine_test::padded_document(n, size - 22);
}

class UdpReporterTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        // Start the library once so that its one-time set-up (which resets
        // the log's callback slots) is behind us, then leave no reporter.
        vesk_ensure_init();
        vesk_shutdown();
    }
    void SetUp() override {
        vesk_metadata_init(&md_);
        vesk_metadata_random(&md_);
        md_.flags = VESK_XTRACE_FLAG_SAMPLED;
        vesk_settings_delete(VESK_SETTINGS_TYPE_DEFAULT_SAMPLE_RATE, "");
    }
    void TearDown() override { vesk_shutdown(); }
    int send_event(int64_t seq) { return corvidine_test::send_event(&md_, "udp-test", seq); }
    vesk_metadata_t md_;
};

TEST_F(UdpReporterTest, DocumentsArriveWholeOnePerDatagram) {
    UdpListener listener;
    ASSERT_TRUE(listener.ok());
    std::string target = listener.target();
    vesk_init_options_t o = udp_options(target.c_str());
    LogCapture log;
    ASSERT_EQ(0, vesk_init(&o));
    const LogLine *ready = log.find("UDP reporter ready on " + target);
    ASSERT_NE(nullptr, ready);
    EXPECT_EQ(VESK_DEBUG_MODULE_LIB, ready->module);
    EXPECT_EQ(VESK_DEBUG_LOW, ready->level);

    for (int i = 0; i < 3; ++i) {
        int sent = send_event(i);
        ASSERT_GT(sent, 0);
        std::optional<std::string> datagram = listener.receive();
        ASSERT_TRUE(datagram.has_value());
        EXPECT_EQ(static_cast<size_t>(sent), datagram->size());
        std::vector<std::string> docs = decode_bson(*datagram);
        ASSERT_EQ(1u, docs.size());
        EXPECT_NE(std::string::npos, docs[0].find("[\"Seq\", [\"int64\", " + std::to_string(i) + "]]"))
            << docs[0];
    }
    // Status and profiling documents take the same road, byte for byte; the
    // largest datagram that fits is sent whole.
    std::string status = document_of_size(100, 7), largest = document_of_size(VESK_UDP_MAX_DATAGRAM, 8);
    ASSERT_EQ(static_cast<size_t>(VESK_UDP_MAX_DATAGRAM), largest.size());
    EXPECT_EQ(100, vesk_raw_send(VESK_SEND_STATUS, status.data(), status.size()));
    EXPECT_EQ(VESK_UDP_MAX_DATAGRAM, vesk_raw_send(VESK_SEND_PROFILING, largest.data(), largest.size()));
    EXPECT_EQ(status, listener.receive().value_or(""));
    EXPECT_EQ(largest, listener.receive().value_or(""));
    EXPECT_FALSE(listener.receive(100).has_value());
    EXPECT_FALSE(log.contains("Send failed"));
}

TEST_F(UdpReporterTest, OversizedDocumentIsCutAndCountedAsFailed) {
    UdpListener listener;
    ASSERT_TRUE(listener.ok());
    std::string target = listener.target();
    vesk_init_options_t o = udp_options(target.c_str());
    ASSERT_EQ(0, vesk_init(&o));

    std::string doc = document_of_size(70000);
    ASSERT_EQ(70000u, doc.size());
    LogCapture log;
    EXPECT_EQ(VESK_UDP_MAX_DATAGRAM, vesk_raw_send(VESK_SEND_EVENT, doc.data(), doc.size()));
    EXPECT_TRUE(log.find("Send failed - reporter returned 65507") != nullptr);
    std::optional<std::string> datagram = listener.receive();
    ASSERT_TRUE(datagram.has_value());
    EXPECT_EQ(static_cast<size_t>(VESK_UDP_MAX_DATAGRAM), datagram->size());
    EXPECT_EQ(doc.substr(0, VESK_UDP_MAX_DATAGRAM), *datagram);
}

TEST_F(UdpReporterTest, NoListenerCountsAsDelivered) {
    std::string target = "127.0.0.1:" + std::to_string(free_port());
    vesk_init_options_t o = udp_options(target.c_str());
    ASSERT_EQ(0, vesk_init(&o));
    LogCapture log;
    std::string doc = document_of_size(300);
    // The refusal of one datagram shows up on the next send: several sends
    // with time for it to arrive cover both the plain and the refused path.
    for (int i = 0; i < 4; ++i) {
        EXPECT_EQ(300, vesk_raw_send(VESK_SEND_EVENT, doc.data(), doc.size())) << "send " << i;
        usleep(5000);
    }
    std::string big = document_of_size(70000);
    EXPECT_EQ(VESK_UDP_MAX_DATAGRAM, vesk_raw_send(VESK_SEND_EVENT, big.data(), big.size()));
    usleep(5000);
    EXPECT_EQ(VESK_UDP_MAX_DATAGRAM, vesk_raw_send(VESK_SEND_EVENT, big.data(), big.size()));
    EXPECT_EQ(0, vesk_reporter_is_ready(nullptr));
}

TEST_F(UdpReporterTest, TargetWithoutColonOrHostPartMeansTheDefault) {
    UdpListener listener(7831);
    if (!listener.ok()) GTEST_SKIP() << "127.0.0.1:7831 is taken on this machine";
    for (const char *host : {static_cast<const char *>(nullptr), "", "localhost", "example.invalid", ":"}) {
        SCOPED_TRACE(host ? host : "(null)");
        vesk_init_options_t o = udp_options(host);
        ASSERT_EQ(0, vesk_init(&o));
        std::string doc = document_of_size(64);
        EXPECT_EQ(64, vesk_raw_send(VESK_SEND_EVENT, doc.data(), doc.size()));
        EXPECT_EQ(doc, listener.receive().value_or("")) << "nothing arrived on 127.0.0.1:7831";
        vesk_shutdown();
    }
}

TEST_F(UdpReporterTest, HostAndPortPartsAreTakenApart) {
    UdpListener listener;
    ASSERT_TRUE(listener.ok());
    std::string port = std::to_string(listener.port());
    for (const std::string &host : {"localhost:" + port, ":" + port, "127.0.0.1:" + port + ":ignored"}) {
        SCOPED_TRACE(host);
        vesk_init_options_t o = udp_options(host.c_str());
        ASSERT_EQ(0, vesk_init(&o));
        std::string doc = document_of_size(40);
        EXPECT_EQ(40, vesk_raw_send(VESK_SEND_EVENT, doc.data(), doc.size()));
        EXPECT_EQ(doc, listener.receive().value_or(""));
        vesk_shutdown();
    }
}

TEST_F(UdpReporterTest, UnresolvableTargetFailsWithNoAddress) {
    struct Case {
        const char *host;
        const char *shown;
    };
    const Case cases[] = {
        {"no-such-host.invalid:7831", "no-such-host.invalid:7831"},
        {"127.0.0.1:no-such-service-here", "127.0.0.1:no-such-service-here"},
    };
    int expected_level = VESK_DEBUG_WARNING;
    for (const Case &c : cases) {
        SCOPED_TRACE(c.host);
        vesk_init_options_t o = udp_options(c.host);
        LogCapture log;
        EXPECT_EQ(VESK_REPORTER_INIT_NO_ADDRESS, vesk_init(&o));
        const LogLine *line =
            log.find(std::string("UDP reporter initialization failed - No UDP support for ") + c.shown);
        ASSERT_NE(nullptr, line);
        EXPECT_EQ(VESK_DEBUG_MODULE_LIB, line->module);
        EXPECT_EQ(expected_level, line->level);
        expected_level = VESK_DEBUG_MEDIUM;  // the same place again
        EXPECT_EQ(VESK_SEND_NO_REPORTER, vesk_raw_send(VESK_SEND_EVENT, "\x05\0\0\0\0", 5));
        EXPECT_EQ(nullptr, vesk_settings_get(VESK_SETTINGS_TYPE_DEFAULT_SAMPLE_RATE, ""));
        vesk_shutdown();
    }
}

TEST_F(UdpReporterTest, UnconnectableTargetFailsWithNoSocket) {
    // Connecting a datagram socket to the broadcast address is refused
    // without SO_BROADCAST.
    vesk_init_options_t o = udp_options("255.255.255.255:7831");
    vesk_reporter_t table;
    memset(&table, 0x5A, sizeof(table));
    LogCapture log;
    EXPECT_EQ(VESK_REPORTER_INIT_NO_SOCKET, vesk_reporter_init_udp(&table, &o));
    const LogLine *line = log.find(
        "UDP reporter initialization failed - Unable to open UDP connection to 255.255.255.255:7831");
    ASSERT_NE(nullptr, line);
    EXPECT_EQ(VESK_DEBUG_MODULE_LIB, line->module);
    EXPECT_EQ(VESK_DEBUG_WARNING, line->level);
    vesk_reporter_t cleared;
    memset(&cleared, 0, sizeof(cleared));
    EXPECT_EQ(0, memcmp(&cleared, &table, sizeof(table)));
    EXPECT_EQ(VESK_REPORTER_INIT_NO_TABLE, vesk_reporter_init_udp(nullptr, &o));
    const LogLine *null_table = log.find("NULL reporter passed in");
    ASSERT_NE(nullptr, null_table);
    EXPECT_EQ(VESK_DEBUG_MODULE_LIB, null_table->module);
    EXPECT_EQ(VESK_DEBUG_ERROR, null_table->level);
}

TEST_F(UdpReporterTest, RegistersItselfInstallsSettingsAndClosesOnDestroy) {
    UdpListener listener;
    ASSERT_TRUE(listener.ok());
    std::string target = listener.target();
    vesk_init_options_t o = udp_options(target.c_str());
    o.token_bucket_rate = 12;

    vesk_shutdown();  // no current reporter: the table registers itself
    vesk_reporter_t table;
    ASSERT_EQ(0, vesk_reporter_init_udp(&table, &o));
    std::string doc = document_of_size(50);
    EXPECT_EQ(50, vesk_raw_send(VESK_SEND_EVENT, doc.data(), doc.size()));
    EXPECT_EQ(doc, listener.receive().value_or(""));
    // The older entry point goes the same way.
    EXPECT_EQ(50, vesk_reporter_udp_send(nullptr, doc.data(), doc.size()));
    EXPECT_EQ(doc, listener.receive().value_or(""));

    void *ctx = table.context;
    EXPECT_EQ(1, table.event_ready(ctx));
    EXPECT_EQ(1, table.is_winthin_limit(ctx, "a", "b"));
    EXPECT_EQ(0, table.send_span(ctx, "a", "b", 1));
    EXPECT_EQ(VESK_SERVER_RESPONSE_OK, table.get_server_response(ctx));
    EXPECT_EQ(20, table.get_profiling_interval(ctx));

    const vesk_settings_t *s = vesk_settings_get(VESK_SETTINGS_TYPE_DEFAULT_SAMPLE_RATE, "");
    ASSERT_NE(nullptr, s);
    EXPECT_EQ(1000000u, s->value);
    EXPECT_EQ(20, s->flags);
    EXPECT_EQ(99999999u, s->ttl);
    EXPECT_STREQ("k3Tq7XwPbnR2vLyd9HsA", s->signature_key);
    for (int i = 0; i < VESK_BUCKET_COUNT; ++i) {
        EXPECT_EQ(1000.0, s->bucket_capacity[i]);
        EXPECT_EQ(12.0, s->bucket_rate[i]);
    }

    int sock = static_cast<vesk_udp_descriptor *>(ctx)->socket;
    ASSERT_GE(fcntl(sock, F_GETFD), 0);
    EXPECT_EQ(0, _vesk_destroy_reporter(&table));
    EXPECT_EQ(-1, fcntl(sock, F_GETFD));
    EXPECT_EQ(VESK_SEND_NO_REPORTER, vesk_reporter_udp_send(nullptr, doc.data(), doc.size()));
}

}  // namespace
