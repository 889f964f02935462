// Transaction names, and spans handed to the current reporter.
#include "corvidine/span.h"

#include <gtest/gtest.h>
#include <string.h>
#include <time.h>

#include <memory>
#include <set>
#include <string>
#include <vector>

#include "corvidine/startup.h"

namespace {

// A reporter that remembers distinct transaction names up to a limit, the way
// the metrics aggregation does, and records the spans it is handed.
struct FakeReporter {
    struct Span {
        std::string service, name, method;
        int64_t duration;
        int status, has_error;
        bool http;
    };

    size_t limit = 1000;
    int ready = 1;
    std::set<std::string> names;
    std::vector<std::string> limit_asks;  // "service|name" of each limit check
    std::vector<Span> spans;

    static FakeReporter *self(void *ctx) { return static_cast<FakeReporter *>(ctx); }
    static int span_ready(void *ctx) { return self(ctx)->ready; }
    static int within_limit(void *ctx, const char *service, const char *name) {
        FakeReporter *r = self(ctx);
        r->limit_asks.push_back(std::string(service) + "|" + name);
        if (r->names.count(name) != 0) return 1;
        if (r->names.size() >= r->limit) return 0;
        r->names.insert(name);
        return 1;
    }
    static int send_span(void *ctx, const char *service, const char *name, int64_t duration) {
        self(ctx)->spans.push_back({service, name, "", duration, 0, 0, false});
        return 0;
    }
    static int send_http_span(void *ctx, const char *service, const char *name, int64_t duration, int status,
                              const char *method, int has_error) {
        self(ctx)->spans.push_back({service, name, method, duration, status, has_error, true});
        return 0;
    }

    vesk_reporter_t table() {
        vesk_reporter_t t;
        memset(&t, 0, sizeof(t));
        t.context = this;
        t.span_ready = span_ready;
        t.is_winthin_limit = within_limit;
        t.send_span = send_span;
        t.send_http_span = send_http_span;
        return t;
    }
};

vesk_span_params_t params(const char *url, const char *transaction = nullptr, const char *domain = nullptr) {
    vesk_span_params_t p;
    memset(&p, 0, sizeof(p));
    p.version = 2;
    p.service = "svc";
    p.url = url;
    p.transaction = transaction;
    p.domain = domain;
    p.duration = 1234;
    p.do_metrics = 1;
    return p;
}

// Runs the name rules on a heap buffer of exactly `len` bytes (so that ASan
// sees any write past it), pre-filled with garbage, and checks that the
// result is terminated and its length is the returned one.
std::string name_of(const vesk_span_params_t &p, uint16_t len = 256, vesk_reporter_t *reporter = nullptr) {
    std::unique_ptr<char[]> buf(new char[len]);
    memset(buf.get(), 'X', len);
    int n =
        vesk_span_get_transaction_name(reporter, reporter ? reporter->context : nullptr, buf.get(), len, &p);
    EXPECT_EQ(buf[len - 1], '\0');
    EXPECT_EQ(static_cast<size_t>(n), strlen(buf.get()));
    EXPECT_LE(n, 255);
    EXPECT_LE(n, len - 1);
    return std::string(buf.get());
}

struct UrlCase {
    const char *url;
    const char *name;
};

TEST(TransactionName, FromUrl) {
    const UrlCase cases[] = {
        {"/a/b/c?x=1", "/a/b"},
        {"/a?x=1", "/a"},
        {"/?x=1", "/"},
        {"/", "/"},
        {"http://host/x/y/z", "/x/y"},
        {"https://host:8443/x", "/x"},
        {"host/x/y", "/x/y"},
        {"/index.php", "/index.php"},
        {"/a/b?x=1#frag", "/a/b"},
        {"/a/b#frag", "/a/b"},
        {"/a/#frag", "/a"},
        {"/a/?q=1", "/a"},
        {"/#top", "/"},
        // Empty tokens between slashes do not count as segments.
        {"//a///b//c", "/a/b"},
        {"///", "/"},
        // "?" first: without a leading "/" the first token is the host.
        {"?x=1", "/"},
        {"?x=1/a", "/a"},
        // Scheme without a host, or with nothing behind it.
        {"http:", "/"},
        {"https://", "/"},
        {"http:///x", "/"},
        {"http://host", "/"},
        {"http://host/?a=/b", "/"},
    };
    for (const UrlCase &c : cases) EXPECT_EQ(name_of(params(c.url)), c.name) << "url " << c.url;
}

TEST(TransactionName, DomainExplicitNameAndFallbacks) {
    EXPECT_EQ(name_of(params("/a/b", nullptr, "d.com")), "d.com/a/b");
    EXPECT_EQ(name_of(params("http://h/a/b/c", nullptr, "d.com")), "d.com/a/b");
    EXPECT_EQ(name_of(params("/?x=1", nullptr, "d.com")), "d.com/");
    EXPECT_EQ(name_of(params(nullptr, "t", "d.com")), "d.com/t");
    // An explicit name beats the URL and is taken as it stands.
    EXPECT_EQ(name_of(params("/a/b", "Ctrl@act/x?y")), "Ctrl@act/x?y");
    // Empty strings count as missing.
    EXPECT_EQ(name_of(params("/a", "", "")), "/a");
    EXPECT_EQ(name_of(params(nullptr, nullptr, nullptr)), "unknown");
    EXPECT_EQ(name_of(params("", "", "")), "unknown");
}

TEST(TransactionName, BufferSizes) {
    // len 1: room 0, whatever the input.
    EXPECT_EQ(name_of(params("/a/b"), 1), "");
    EXPECT_EQ(name_of(params(nullptr, "t"), 1), "");
    EXPECT_EQ(name_of(params(nullptr), 1), "");
    // Every copy is limited by what room is left.
    EXPECT_EQ(name_of(params("/abc"), 2), "/");
    EXPECT_EQ(name_of(params(nullptr), 4), "unk");
    EXPECT_EQ(name_of(params("/abcdef/ghi"), 10), "/abcdef/g");

    // The name never exceeds 255 characters, even with a larger buffer.
    const std::string long_name(400, 't');
    EXPECT_EQ(name_of(params(nullptr, long_name.c_str()), 300), std::string(255, 't'));
    EXPECT_EQ(name_of(params(nullptr, long_name.c_str()), 256), std::string(255, 't'));
    EXPECT_EQ(name_of(params(nullptr, long_name.c_str()), 100), std::string(99, 't'));
    const std::string long_url = "/" + std::string(300, 's') + "/b";
    EXPECT_EQ(name_of(params(long_url.c_str()), 300), "/" + std::string(254, 's'));
    const std::string two_long = "/" + std::string(200, 'a') + "/" + std::string(200, 'b') + "/c";
    EXPECT_EQ(name_of(params(two_long.c_str()), 300),
              "/" + std::string(200, 'a') + "/" + std::string(53, 'b'));

    // A domain that fills the room leaves no place for "/" or anything else.
    EXPECT_EQ(name_of(params("/a", nullptr, "d.com"), 6), "d.com");
    EXPECT_EQ(name_of(params(nullptr, "t", "d.com"), 6), "d.com");
    EXPECT_EQ(name_of(params("/a", nullptr, "d.com"), 7), "d.com/");
    EXPECT_EQ(name_of(params("/a", nullptr, "d.com"), 8), "d.com/a");
    const std::string long_domain(300, 'd');
    EXPECT_EQ(name_of(params("/a", nullptr, long_domain.c_str()), 300), std::string(255, 'd'));

    // Bytes beyond room + 1 are the caller's, apart from the final NUL.
    char buf[300];
    memset(buf, 'X', sizeof(buf));
    vesk_span_params_t p = params("/a");
    EXPECT_EQ(vesk_span_get_transaction_name(nullptr, nullptr, buf, sizeof(buf), &p), 2);
    EXPECT_EQ(buf[256], 'X');
    EXPECT_EQ(buf[298], 'X');
    EXPECT_EQ(buf[299], '\0');
}

TEST(TransactionName, LimitTurnsNewNamesIntoOther) {
    FakeReporter fake;
    fake.limit = 2;
    vesk_reporter_t table = fake.table();

    EXPECT_EQ(name_of(params("/a"), 256, &table), "/a");
    EXPECT_EQ(name_of(params("/b"), 256, &table), "/b");
    EXPECT_EQ(name_of(params("/c"), 256, &table), "other");
    const std::string long_name(250, 'n');
    EXPECT_EQ(name_of(params(nullptr, long_name.c_str()), 256, &table), "other");
    // Known names stay what they are.
    EXPECT_EQ(name_of(params("/a/?x"), 256, &table), "/a");
    EXPECT_EQ(name_of(params("http://h/b"), 256, &table), "/b");
    // The replacement is cut to the room like any other copy.
    EXPECT_EQ(name_of(params("/zz"), 3, &table), "ot");

    // The reporter is asked with the service and the final name; "unknown"
    // never reaches it.
    fake.limit_asks.clear();
    EXPECT_EQ(name_of(params(nullptr), 256, &table), "unknown");
    EXPECT_TRUE(fake.limit_asks.empty());
    EXPECT_EQ(name_of(params("/a", nullptr, "d.com"), 256, &table), "other");
    ASSERT_EQ(fake.limit_asks.size(), 1u);
    EXPECT_EQ(fake.limit_asks[0], "svc|d.com/a");
    EXPECT_EQ(fake.names, (std::set<std::string>{"/a", "/b"}));
}

// vesk_span and vesk_http_span go through the registry of the current
// reporter. The process starts with none: an unknown reporter name records
// this process as set up, without a reporter.
class SpanSend : public ::testing::Test {
protected:
    static void SetUpTestSuite() { ASSERT_EQ(vesk_init_reporter("no-such-reporter", nullptr), 2); }

    void install() {
        table_ = fake_.table();
        _vesk_reporter_register(&table_);
        ASSERT_EQ(vesk_reporter_get(), &table_);
    }
    void TearDown() override {
        if (vesk_reporter_get() == &table_) _vesk_destroy_reporter(&table_);
    }

    FakeReporter fake_;
    vesk_reporter_t table_;
    char buf_[256];
};

TEST_F(SpanSend, ErrorCodesInOrder) {
    vesk_span_params_t p = params("/a");
    EXPECT_EQ(vesk_span(buf_, sizeof(buf_), nullptr), VESK_SPAN_NO_PARAMS);
    EXPECT_EQ(vesk_http_span(nullptr, sizeof(buf_), nullptr), VESK_SPAN_NO_PARAMS);
    EXPECT_EQ(vesk_span(nullptr, sizeof(buf_), &p), VESK_SPAN_NO_BUFFER);
    EXPECT_EQ(vesk_http_span(buf_, 0, &p), VESK_SPAN_NO_BUFFER);
    p.version = 3;
    EXPECT_EQ(vesk_span(buf_, sizeof(buf_), &p), VESK_SPAN_BAD_VERSION);
    p.version = 0;
    EXPECT_EQ(vesk_http_span(buf_, sizeof(buf_), &p), VESK_SPAN_BAD_VERSION);
    p.version = 2;
    ASSERT_EQ(vesk_reporter_get(), nullptr);
    EXPECT_EQ(vesk_span(buf_, sizeof(buf_), &p), VESK_SPAN_NO_REPORTER);
    EXPECT_EQ(vesk_http_span(buf_, sizeof(buf_), &p), VESK_SPAN_NO_REPORTER);

    install();
    fake_.ready = 0;
    EXPECT_EQ(vesk_span(buf_, sizeof(buf_), &p), VESK_SPAN_NOT_READY);
    EXPECT_EQ(vesk_http_span(buf_, sizeof(buf_), &p), VESK_SPAN_NOT_READY);
    table_.span_ready = nullptr;  // a table without the slot is not ready either
    EXPECT_EQ(vesk_span(buf_, sizeof(buf_), &p), VESK_SPAN_NOT_READY);
    table_.span_ready = FakeReporter::span_ready;
    fake_.ready = 1;
    p.version = 3;
    EXPECT_EQ(vesk_span(buf_, sizeof(buf_), &p), VESK_SPAN_BAD_VERSION);
    EXPECT_TRUE(fake_.spans.empty());
    EXPECT_TRUE(fake_.limit_asks.empty());
}

TEST_F(SpanSend, SendsPlainAndHttpSpans) {
    install();
    vesk_span_params_t p = params("http://host/shop/cart/42?x=1");
    p.duration = 987654321L;
    EXPECT_EQ(vesk_span(buf_, sizeof(buf_), &p), 10);
    EXPECT_STREQ(buf_, "/shop/cart");

    p.url = "/api";
    p.status = 503;
    p.method = "POST";
    p.has_error = 1;
    EXPECT_EQ(vesk_http_span(buf_, sizeof(buf_), &p), 4);

    ASSERT_EQ(fake_.spans.size(), 2u);
    const FakeReporter::Span &s = fake_.spans[0];
    EXPECT_FALSE(s.http);
    EXPECT_EQ(s.service, "svc");
    EXPECT_EQ(s.name, "/shop/cart");
    EXPECT_EQ(s.duration, 987654321);
    const FakeReporter::Span &h = fake_.spans[1];
    EXPECT_TRUE(h.http);
    EXPECT_EQ(h.name, "/api");
    EXPECT_EQ(h.status, 503);
    EXPECT_EQ(h.method, "POST");
    EXPECT_EQ(h.has_error, 1);
    EXPECT_EQ(h.duration, 987654321);
}

TEST_F(SpanSend, DoMetricsReadOnlyFromVersion2) {
    install();
    vesk_span_params_t p = params("/a/b");
    p.do_metrics = 0;
    EXPECT_EQ(vesk_span(buf_, sizeof(buf_), &p), 4);
    EXPECT_STREQ(buf_, "/a/b");
    EXPECT_EQ(vesk_http_span(buf_, sizeof(buf_), &p), 4);
    EXPECT_TRUE(fake_.spans.empty());

    p.version = 1;  // the field is not read
    EXPECT_EQ(vesk_span(buf_, sizeof(buf_), &p), 4);
    EXPECT_EQ(vesk_http_span(buf_, sizeof(buf_), &p), 4);
    EXPECT_EQ(fake_.spans.size(), 2u);
}

TEST_F(SpanSend, SpansPastTheLimitLandOnOther) {
    install();
    fake_.limit = 1;
    vesk_span_params_t p = params("/first");
    EXPECT_EQ(vesk_span(buf_, sizeof(buf_), &p), 6);
    p.url = "/second";
    EXPECT_EQ(vesk_span(buf_, sizeof(buf_), &p), 5);
    EXPECT_STREQ(buf_, "other");
    ASSERT_EQ(fake_.spans.size(), 2u);
    EXPECT_EQ(fake_.spans[1].name, "other");
}

TEST_F(SpanSend, NullStringsReachTheReporterAsEmpty) {
    install();
    vesk_span_params_t p = params("/a");
    p.service = nullptr;
    p.method = nullptr;
    EXPECT_EQ(vesk_http_span(buf_, sizeof(buf_), &p), 2);
    ASSERT_EQ(fake_.spans.size(), 1u);
    EXPECT_EQ(fake_.spans[0].service, "");
    EXPECT_EQ(fake_.spans[0].method, "");
    EXPECT_EQ(fake_.limit_asks, std::vector<std::string>{"|/a"});
}

long usec_now() {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return ts.tv_sec * 1000000L + ts.tv_nsec / 1000;
}

TEST(SpanClock, MonotonicMicroseconds) {
    long before = usec_now();
    long start = vesk_span_start();
    long stop = vesk_span_stop();
    long after = usec_now();
    EXPECT_LE(before, start);
    EXPECT_LE(start, stop);
    EXPECT_LE(stop, after);
}

}  // namespace
