// Collector connection's pure parts: the retry series, certificate names, redirect texts.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>

#include "access_manager.h"
#include "connector.h"
#include "retry.h"

using namespace corvidine;

TEST(RetryDelay, WaitsFollowTheSeriesThenGiveUp) {
    const int64_t expected[] = {500,   750,   1125,  1687,  2530,  3795,  5692,  8538,  12807, 19210, 28815,
                                43222, 60000, 60000, 60000, 60000, 60000, 60000, 60000, 60000};
    RetryState state;
    RetryClock::time_point now = RetryClock::time_point() + std::chrono::hours(24 * 365 * 50);
    for (int64_t wait : expected) {
        ASSERT_EQ(setRetryDelay(state, "test", now), 0);
        EXPECT_EQ(std::chrono::duration_cast<std::chrono::milliseconds>(state.next - now).count(), wait);
        EXPECT_FALSE(retryAllowed(state, now));
        EXPECT_FALSE(retryAllowed(state, state.next - std::chrono::milliseconds(1)));
        EXPECT_TRUE(retryAllowed(state, state.next));
        now = state.next;
    }
    EXPECT_EQ(setRetryDelay(state, "test", now), -1);
    EXPECT_FALSE(state.active);
    ASSERT_EQ(setRetryDelay(state, "test", now), 0);  // the next failure starts the series again
    EXPECT_EQ(std::chrono::duration_cast<std::chrono::milliseconds>(state.next - now).count(), 500);
    RetryState reset;  // the connect loops reset the count: they never run out, and stay at the cap
    for (int i = 0; i < 40; i++) {
        reset.attempts = 0;
        ASSERT_EQ(setRetryDelay(reset, "connect", now), 0);
    }
    EXPECT_EQ(std::chrono::duration_cast<std::chrono::milliseconds>(reset.next - now).count(), 60000);
}

TEST(AccessManager, CertificateNamesMustNameTheHost) {
    const struct { const char *host, *name; bool match; } cases[] = {
        {"collector.example.com", "collector.example.com", true},
        {"Collector.Example.COM", "collector.example.com", true},
        {"collector.example.com.", "collector.example.com", true},
        {"collector.example.com", "other.example.com", false},
        {"collector.example.com", "*.example.com", true},
        {"a.collector.example.com", "*.example.com", false},
        {"example.com", "*.example.com", false},
        {"collector.com", "*.com", false},
        {"collector.example.com", "c*.example.com", false},
        {"collector.example.com", "*", false},
        {"127.0.0.1", "127.0.0.1", false},  // an address is matched as an address only
        {"::1", "::1", false},
        {"", "", false},
    };
    for (const auto &c : cases)
        EXPECT_EQ(certificateNameMatches(c.host, c.name, static_cast<int>(strlen(c.name))), c.match)
            << c.host << " vs " << c.name;
    // A NUL inside the name is a forgery of "collector.example.com".
    const char forged[] = "collector.example.com\0.evil.org";
    EXPECT_FALSE(certificateNameMatches("collector.example.com", forged, sizeof forged - 1));

    VeskSSLAccessManager manager;
    sockaddr_storage sa{};
    auto &in = reinterpret_cast<sockaddr_in &>(sa);
    in.sin_family = AF_INET;
    inet_pton(AF_INET, "127.0.0.1", &in.sin_addr);
    const unsigned char loopback[4] = {127, 0, 0, 1}, other[4] = {127, 0, 0, 2};
    EXPECT_EQ(manager.verify(sa), VeskSSLAccessManager::SKIP);  // the address alone never allows
    EXPECT_EQ(manager.verify(sa, reinterpret_cast<const char *>(loopback), 4), VeskSSLAccessManager::ALLOW);
    EXPECT_EQ(manager.verify(sa, reinterpret_cast<const char *>(other), 4), VeskSSLAccessManager::SKIP);
    EXPECT_EQ(manager.verify(sa, reinterpret_cast<const char *>(loopback), 16), VeskSSLAccessManager::SKIP);
    EXPECT_EQ(manager.verify("collector.example.com", "other.example.com", 17), VeskSSLAccessManager::SKIP);
}

TEST(Redirect, OnlyHostColonDigitsChangesTheTarget) {
    const struct { const char *text; bool applied; const char *host; int port; } cases[] = {
        {"collector2.example.com:4443", true, "collector2.example.com", 4443},
        {"10.0.0.7:443", true, "10.0.0.7", 443},
        {"nocolon", false, "start", 443},
        {"host:44x", false, "start", 443},
        {"host:", true, "host", 0},  // no range check: an empty port reads as 0
        {":443", true, "", 443},
    };
    for (const auto &c : cases) {
        CollectorConnector connector(nullptr, "key");
        connector.setSocketParams("start", 443);
        EXPECT_EQ(connector.setRedirectAddress(c.text) == 0, c.applied) << c.text;
        EXPECT_EQ(connector.host(), c.host) << c.text;
        EXPECT_EQ(connector.port(), c.port) << c.text;
    }
}
