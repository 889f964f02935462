// The Collector reporter without a Collector: bounded queues, option checks, the settings merge, pushed keys, host
// facts. Delivery to a Collector is checked through php-fpm in tests/integration.
#include <gtest/gtest.h>
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <thread>

#include "corvidine/settings.h"
#include "corvidine/ssl_reporter.h"
#include "corvidine/startup.h"
#include "host_id.h"
#include "ring_buffer.h"
#include "settings_manager.h"
#include "ssl_reporter.h"
#include "support/harness.h"

using namespace corvidine;
using corvidine_test::LogCapture;
namespace wire = ::collector::thrift;

namespace {

// Nothing of these tests leaves loopback: no cloud lookup, a closed port.
const bool kNoCloud = setenv("CORVIDINE_CLOUD_METADATA", "off", 1) == 0;

std::string raw(double d) { return std::string(reinterpret_cast<const char *>(&d), sizeof d); }
std::string raw(int32_t i) { return std::string(reinterpret_cast<const char *>(&i), sizeof i); }

wire::VeskSetting setting(int type, const std::string &layer, int64_t value, const std::string &flags = "SAMPLE_START",
                          int64_t ttl = 120) {
    wire::VeskSetting s;
    s.type = type, s.layer = layer, s.value = value, s.flags = flags, s.ttl = ttl;
    s.arguments = {{"BucketCapacity", raw(8.0)}, {"BucketRate", raw(2.0)}};
    return s;
}

// A temporary file holding text; the caller unlinks it.
std::string temp_file(const std::string &text) {
    char path[] = "/tmp/corvidine-test-XXXXXX";
    int fd = mkstemp(path);
    EXPECT_GE(fd, 0);
    EXPECT_EQ(static_cast<ssize_t>(text.size()), write(fd, text.data(), text.size()));
    close(fd);
    return path;
}

std::vector<vesk_settings_t> table(VeskSettingsManager2 &m) {
    std::vector<vesk_settings_t> out;
    EXPECT_EQ(0, m.getCurrentSettings(out));
    return out;
}

SslReporterConfig config(int bufferSize = 1000) {
    SslReporterConfig c;
    c.serviceKey = "token:service";
    c.bufferSize = bufferSize;
    c.flushMaxWaitTime = 0;
    return c;
}

}  // namespace

TEST(RingBuffer, BoundedOldestDroppedAndCounted) {
    RingBuffer<int, 10> q(2);  // one usable slot
    auto past = std::chrono::steady_clock::now();
    for (int i = 1; i <= 3; i++) q.push(std::make_shared<int>(i));
    EXPECT_EQ(1u, q.count());
    EXPECT_EQ(2u, q.overflowed());
    EXPECT_EQ(3u, q.total());
    EXPECT_EQ(3, *q.pop(past));
    EXPECT_EQ(nullptr, q.pop(past));

    RingBuffer<int, 10> big(1000);  // clamped to the slots there are
    EXPECT_EQ(10u, big.size());
    for (int i = 0; i < 12; i++) big.push(std::make_shared<int>(i));
    EXPECT_EQ(9u, big.largest());
    EXPECT_EQ(3, *big.pop(past));
    big.stop();
    big.push(std::make_shared<int>(99));  // still stored, never handed out
    EXPECT_EQ(nullptr, big.pop(past));
}

TEST(RingBuffer, PopWaitsForAProducer) {
    RingBuffer<int, 4> q(4);
    std::thread producer([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        q.push(std::make_shared<int>(7));
    });
    auto got = q.pop(std::chrono::steady_clock::now() + std::chrono::seconds(5));
    producer.join();
    ASSERT_NE(nullptr, got);
    EXPECT_EQ(7, *got);
}

TEST(RingBuffer, ManyProducersOneConsumerLoseNothingBelowTheBound) {
    RingBuffer<int, 10000> q(10000);
    std::vector<std::thread> producers;
    for (int t = 0; t < 4; t++)
        producers.emplace_back([&q] {
            for (int i = 0; i < 1000; i++) q.push(std::make_shared<int>(i));
        });
    int seen = 0;
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (seen < 4000 && std::chrono::steady_clock::now() < deadline)
        if (q.pop(std::chrono::steady_clock::now() + std::chrono::milliseconds(50))) seen++;
    for (auto &p : producers) p.join();
    EXPECT_EQ(4000, seen);
    EXPECT_EQ(0u, q.overflowed());
}

TEST(SslReporterOptions, CollectorAddressAndDisplayKey) {
    struct { const char *text, *host; int port; } addresses[] = {
        {"https://collector-host:1234/path", "collector-host", 1234},
        {"collector-host:80?x=1", "collector-host", 80},
        {"collector-host", "collector-host", 443},
        {"collector-host/x", "collector-host", 443},
        {"collector-host:abc", "collector-host", 443},
        {"", "", 443},
    };
    for (const auto &a : addresses) {
        std::string host;
        int port = 0;
        parseCollectorAddress(a.text, host, port);
        EXPECT_EQ(a.host, host) << a.text;
        EXPECT_EQ(a.port, port) << a.text;
    }
    std::string host;
    int port;
    parseCollectorAddress(std::string(150, 'h').c_str(), host, port);
    EXPECT_EQ(99u, host.size());

    EXPECT_EQ("abcd...wxyz:service", displayServiceKey("abcdefghijklmnopqrstuvwxyz:service"));
    EXPECT_EQ("short:key", displayServiceKey("short:key"));
    EXPECT_EQ("abcd...", displayServiceKey("abcdefghijklmnopqrstuvwxyz"));
    EXPECT_EQ("abc:...", displayServiceKey("abc:defghijklmnopqrstuvwxyz"));
}

TEST(SslReporterOptions, ChecksQueueSizesAndReturnCodes) {
    ASSERT_TRUE(kNoCloud);
    vesk_ensure_init();  // its one-time set-up resets the log's callbacks
    LogCapture log;
    struct { int bufferSize; uint64_t events, status; } sizes[] = {{-1, 10000, 1000}, {0, 2, 2}, {1, 10, 2}, {5000, 10000, 5000}, {-7, 10000, 1000}};
    for (const auto &s : sizes) {
        vesk_init_options_t o = corvidine_test::init_options("ssl", "127.0.0.1:1");
        o.buffer_size = s.bufferSize;
        o.max_flush_wait_time = 0;
        o.ec2_metadata_timeout = 3001;
        vesk_reporter_t table;
        ASSERT_EQ(0, vesk_reporter_init_ssl(&table, &o));
        auto *r = static_cast<vesk_ssl_reporter *>(vesk_reporter_get_context(&table));
        EXPECT_EQ(s.events, r->eventQueue.size());
        EXPECT_EQ(s.events, r->profilingQueue.size());
        EXPECT_EQ(s.status, r->statusQueue.size());
        EXPECT_EQ(s.status, r->spanQueue.size());
        EXPECT_EQ(s.events > 2, table.event_ready(r) != 0);  // a queue of 2 is never ready
        EXPECT_EQ(1, table.destroy(r));
    }
    EXPECT_TRUE(log.contains("Buffer size '-7' not valid - using default 1000"));
    EXPECT_TRUE(log.contains("EC2 metadata timeout '3001' exceeds max value of 3000 - using default 1000"));

    // A trust file that holds no certificate refuses the reporter, and no thread is left behind.
    const std::string path = temp_file("junk\n");
    vesk_init_options_t o = corvidine_test::init_options("ssl", "127.0.0.1:1");
    o.trusted_path = path.c_str();
    vesk_reporter_t table;
    EXPECT_EQ(VESK_SSL_INIT_TRUST, vesk_reporter_init_ssl(&table, &o));
    EXPECT_EQ(nullptr, table.context);
    unlink(path.c_str());
}

TEST(SslReporter, QueuesRefuseBeforeOverflowAndFlushGivesUpWithoutCollector) {
    SslReporterConfig c = config(1);  // event queues of 10 slots
    vesk_ssl_reporter r(nullptr, c);
    r.setSocketParams("127.0.0.1", 1);
    int accepted = 0;
    for (int i = 0; i < 20; i++) {
        if (!r.isEventQueueReady()) break;
        EXPECT_EQ(3, r.send(0, "abc", 3));
        accepted++;
    }
    EXPECT_EQ(8, accepted);  // refuses with one free slot left
    EXPECT_EQ(0u, r.getOverflowedCount());
    std::string big(70000, 'x');
    EXPECT_EQ(static_cast<ssize_t>(kMaxDocumentBytes), r.send(1, big.data(), big.size()));
    EXPECT_EQ(0, r.send(7, "abc", 3));
    auto start = std::chrono::steady_clock::now();
    EXPECT_FALSE(r.flush(400));
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(400));
}

TEST(SslReporter, KeysPushedWithTheSettings) {
    SslReporterConfig c = config();
    c.maxTransactions = 77;
    c.eventsFlushInterval = 3;
    vesk_ssl_reporter r(nullptr, c);
    struct { int32_t flushInterval, expected; } intervals[] = {{1, 1}, {5, 5}, {30, 30}, {120, 120}, {7, 60}, {90, 60}, {0, 60}, {-60, 60}};
    for (const auto &i : intervals) {
        r.processRemoteConfig({{"MetricsFlushInterval", raw(i.flushInterval)}});
        EXPECT_EQ(i.expected, r.getMetricsFlushInterval()) << i.flushInterval;
    }
    r.processRemoteConfig({{"MaxTransactions", raw(int32_t(5))},
                           {"EventsFlushInterval", raw(int32_t(9))},
                           {"ProfilingInterval", raw(int32_t(10))},
                           {"MaxCustomMetrics", std::string("\x01\x00", 2)}});  // too short: absent
    EXPECT_EQ(5, r.getMaxTransactions());
    EXPECT_EQ(9, r.getEventsFlushInterval());
    EXPECT_EQ(10, r.getProfilingInterval());
    EXPECT_EQ(500, r.getMaxCustomMetrics());
    r.processRemoteConfig({});  // keys no longer pushed fall back
    EXPECT_EQ(77, r.getMaxTransactions());
    EXPECT_EQ(3, r.getEventsFlushInterval());
    EXPECT_EQ(-1, r.getProfilingInterval());
}

class SettingsMerge : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(0, vesk_settings_init_local());
        manager.open();
    }
    VeskSettingsManager2 manager;
    std::map<std::string, std::string> args;
};

TEST_F(SettingsMerge, AddsRewritesDeletesAndKeepsTheFirstDuplicate) {
    manager.update({setting(2, "", 300000), setting(3, "svc-a", 10), setting(3, "svc-b", 20)}, args);
    EXPECT_EQ(3u, table(manager).size());
    EXPECT_EQ(raw(8.0), args["BucketCapacity"]);

    LogCapture log;
    // svc-a kept with a new value, svc-b deleted, svc-c added twice.
    manager.update({setting(2, "", 300000), setting(3, "svc-a", 11), setting(3, "svc-c", 30), setting(3, "svc-c", 31)},
                   args);
    auto now = table(manager);
    ASSERT_EQ(3u, now.size());
    EXPECT_EQ(nullptr, vesk_settings_get(3, "svc-b"));
    ASSERT_NE(nullptr, vesk_settings_get(3, "svc-a"));
    EXPECT_EQ(11u, vesk_settings_get(3, "svc-a")->value);
    EXPECT_EQ(30u, vesk_settings_get(3, "svc-c")->value);
    EXPECT_TRUE(log.contains("received multiple settings of type 0003 layer svc-c"));

    manager.update({}, args);  // an empty answer changes nothing
    EXPECT_EQ(3u, table(manager).size());
    manager.update({setting(2, "", 5)}, args);  // only a default record: layers go
    EXPECT_EQ(1u, table(manager).size());
}

TEST_F(SettingsMerge, BadValuesAreCorrectedBeforeTheyAreStored) {
    wire::VeskSetting s = setting(2, "", 2000000, "SAMPLE_START,FOO,TRIGGER_TRACE");
    s.arguments["BucketCapacity"] = raw(-3.0);
    s.arguments["BucketRate"] = "\x01\x02";  // shorter than a double: missing
    s.arguments["SignatureKey"] = std::string(300, 'k');
    vesk_settings_t out;
    VeskSettingsManager2::setting_scribe2vesk(s, out);
    EXPECT_EQ(1000000u, out.value);
    EXPECT_EQ(0x24, out.flags);
    EXPECT_EQ(0.0, out.bucket_capacity[0]);
    EXPECT_EQ(0.0, out.bucket_rate[0]);
    EXPECT_EQ(255u, strlen(out.signature_key));
    s.value = -5;
    VeskSettingsManager2::setting_scribe2vesk(s, out);
    EXPECT_EQ(0u, out.value);
    EXPECT_EQ(0, flags_str2bin(""));
    EXPECT_EQ(0x1e, flags_str2bin("OVERRIDE,SAMPLE_START,SAMPLE_THROUGH,SAMPLE_THROUGH_ALWAYS"));
}

TEST_F(SettingsMerge, ExpiredRecordsAreDeleted) {
    manager.update({setting(2, "", 100, "", 0), setting(3, "long", 1, "", 3600)}, args);
    manager.deleteTimedOut(static_cast<int64_t>(time(nullptr)));
    auto left = table(manager);
    ASSERT_EQ(1u, left.size());
    EXPECT_STREQ("long", left[0].layer);
}

TEST(HostId, ContainerIdAndRefreshInterval) {
    const std::string id(64, 'a'), bad = std::string(63, 'a') + "g";
    struct { std::string lines, expected; } cases[] = {
        {"12:cpu:/docker/" + id + "\n", id},
        {"1:name=x:/kubepods/pod1/" + bad + "\n", ""},
        {"1:x:/kubepods/" + bad + "\n2:y:/ecs/task/" + id + "\n", id},
        {"0::/user.slice/" + id + "\n", ""},
    };
    for (const auto &c : cases) {
        const std::string path = temp_file(c.lines);
        EXPECT_EQ(c.expected, containerIdFromCgroup(path.c_str())) << c.lines;
        unlink(path.c_str());
    }
    int next = getRefreshHostIdNextInterval();
    EXPECT_GE(next, 1);
    EXPECT_LE(next, 60);
    EXPECT_EQ("", cloudMetadataAddress());  // the tests turned the lookup off
}

// A metadata stub on loopback: answers, never answers, or is not there.
TEST(HostId, MetadataFetchKeepsItsTimeouts) {
    int listener = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ASSERT_EQ(0, bind(listener, reinterpret_cast<sockaddr *>(&a), sizeof a));
    ASSERT_EQ(0, listen(listener, 4));
    socklen_t len = sizeof a;
    getsockname(listener, reinterpret_cast<sockaddr *>(&a), &len);
    const std::string address = "127.0.0.1:" + std::to_string(ntohs(a.sin_port));
    struct {
        const char *reply;  // null: accept and stay silent
        std::string expected;
    } cases[] = {
        {"HTTP/1.1 200 OK\r\nContent-Length: 12\r\n\r\ni-0abc\ndef\n", "i-0abcdef"},
        {"HTTP/1.1 404 Not Found\r\n\r\nnope", ""},
        {nullptr, ""},
    };
    for (const auto &c : cases) {
        std::thread server([&] {
            int conn = accept(listener, nullptr, nullptr);
            char buf[1024];
            ssize_t n = recv(conn, buf, sizeof buf - 1, 0);
            buf[n > 0 ? n : 0] = 0;
            EXPECT_NE(nullptr, strstr(buf, "GET /latest/meta-data/instance-id HTTP/1.0"));
            if (c.reply) send(conn, c.reply, strlen(c.reply), 0);
            else std::this_thread::sleep_for(std::chrono::milliseconds(700));
            close(conn);
        });
        auto start = std::chrono::steady_clock::now();
        EXPECT_EQ(c.expected, httpGetLines(address, "/latest/meta-data/instance-id", 1000, 500));
        EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(690));
        server.join();
    }
    close(listener);
    EXPECT_EQ("", httpGetLines(address, "/x", 300, 300));  // nobody listens now
    EXPECT_EQ("", httpGetLines("not-an-address:80", "/x", 300, 300));  // never a name lookup
}

// A forked child inherits the reporter without its threads: destroy there only closes the inherited sockets.
TEST(SslReporter, DestroyInAForkedChildOnlyClosesSockets) {
    vesk_init_options_t o = corvidine_test::init_options("ssl", "127.0.0.1:1");
    o.max_flush_wait_time = 1000;
    vesk_reporter_t table;
    ASSERT_EQ(0, vesk_reporter_init_ssl(&table, &o));
    void *r = vesk_reporter_get_context(&table);
    static_cast<vesk_ssl_reporter *>(r)->send(0, "abc", 3);
    pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        auto start = std::chrono::steady_clock::now();
        int rc = table.destroy(r);
        bool quick = std::chrono::steady_clock::now() - start < std::chrono::milliseconds(150);
        _exit(rc == 1 && quick ? 0 : 1);
    }
    int status = 0;
    ASSERT_EQ(child, waitpid(child, &status, 0));
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
    EXPECT_EQ(1, table.destroy(r));  // the parent's: flushes (in vain here), joins, frees
    EXPECT_EQ(0, table.destroy(nullptr));
}
