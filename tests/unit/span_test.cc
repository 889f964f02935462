// Transaction names, and spans handed to the current reporter.
#include "corvidine/span.h"

#include <gtest/gtest.h>
#include <string.h>

#include <memory>
#include <set>
#include <string>
#include <vector>

#include "corvidine/startup.h"

namespace {

// A reporter that remembers distinct names up to a limit, as the aggregation does, and records spans.
struct FakeReporter {
    size_t limit = 1000;
    int ready = 1;
    std::set<std::string> names;
    std::vector<std::string> limit_asks, spans;  // "service|name"; "service|name|duration[|status|method|error]"
    static int span(void *ctx, const std::string &text) {
        static_cast<FakeReporter *>(ctx)->spans.push_back(text);
        return 0;
    }

    vesk_reporter_t table() {
        vesk_reporter_t t;
        memset(&t, 0, sizeof(t));
        t.context = this;
        t.span_ready = [](void *ctx) { return static_cast<FakeReporter *>(ctx)->ready; };
        t.is_winthin_limit = [](void *ctx, const char *service, const char *name) {
            FakeReporter *r = static_cast<FakeReporter *>(ctx);
            r->limit_asks.push_back(std::string(service) + "|" + name);
            if (r->names.count(name) == 0 && r->names.size() >= r->limit) return 0;
            r->names.insert(name);
            return 1;
        };
        t.send_span = [](void *ctx, const char *service, const char *name, int64_t duration) {
            return span(ctx, std::string(service) + "|" + name + "|" + std::to_string(duration));
        };
        t.send_http_span = [](void *ctx, const char *service, const char *name, int64_t duration, int status,
                              const char *method, int error) {
            return span(ctx, std::string(service) + "|" + name + "|" + std::to_string(duration) + "|" +
                                 std::to_string(status) + "|" + method + "|" + std::to_string(error));
        };
        return t;
    }
};

vesk_span_params_t params(const char *url, const char *transaction = nullptr, const char *domain = nullptr) {
    vesk_span_params_t p;
    memset(&p, 0, sizeof(p));
    p.version = 2, p.service = "svc", p.url = url, p.transaction = transaction, p.domain = domain;
    p.duration = 1234, p.do_metrics = 1;
    return p;
}

// Names into a garbage-filled heap buffer of exactly `len` bytes (ASan sees overruns), terminated, as returned.
std::string name_of(const vesk_span_params_t &p, uint16_t len = 256, vesk_reporter_t *reporter = nullptr) {
    std::unique_ptr<char[]> buf(new char[len]);
    memset(buf.get(), 'X', len);
    int n = vesk_span_get_transaction_name(reporter, reporter ? reporter->context : nullptr, buf.get(), len, &p);
    EXPECT_EQ(buf[len - 1], '\0');
    EXPECT_EQ(static_cast<size_t>(n), strlen(buf.get()));
    EXPECT_LE(n, 255);
    return std::string(buf.get());
}

TEST(TransactionName, FromUrlDomainAndExplicitName) {
    const std::pair<const char *, const char *> urls[] = {
        {"/a/b/c?x=1", "/a/b"}, {"/?x=1", "/"}, {"http://host/x/y/z", "/x/y"}, {"https://host:8443/x", "/x"},
        {"host/x/y", "/x/y"}, {"/a/b?x=1#frag", "/a/b"}, {"/a/#frag", "/a"}, {"/#top", "/"},
        {"//a///b//c", "/a/b"},  // empty tokens between slashes are no segments
        {"///", "/"}, {"?x=1", "/"}, {"?x=1/a", "/a"},  // without a leading "/" the first token is the host
        {"http:", "/"}, {"https://", "/"}, {"http:///x", "/"}, {"http://host", "/"}, {"http://host/?a=/b", "/"},
    };
    for (const auto &c : urls) EXPECT_EQ(c.second, name_of(params(c.first))) << c.first;
    EXPECT_EQ("d.com/a/b", name_of(params("http://h/a/b/c", nullptr, "d.com")));
    EXPECT_EQ("d.com/t", name_of(params(nullptr, "t", "d.com")));
    EXPECT_EQ("Ctrl@act/x?y", name_of(params("/a/b", "Ctrl@act/x?y"))) << "taken as it stands";
    EXPECT_EQ("/a", name_of(params("/a", "", ""))) << "empty strings count as missing";
    EXPECT_EQ("unknown", name_of(params("", "", "")));
}

TEST(TransactionName, EveryCopyIsLimitedByTheRoomLeft) {
    const std::string t400(400, 't'), url = "/" + std::string(300, 's') + "/b",
                      two = "/" + std::string(200, 'a') + "/" + std::string(200, 'b') + "/c", d300(300, 'd');
    const struct {
        vesk_span_params_t p;
        uint16_t len;
        std::string name;
    } cases[] = {
        {params("/a/b"), 1, ""}, {params(nullptr, "t"), 1, ""}, {params("/abc"), 2, "/"},
        {params(nullptr), 4, "unk"}, {params("/abcdef/ghi"), 10, "/abcdef/g"},
        {params(nullptr, t400.c_str()), 300, std::string(255, 't')},  // never past 255
        {params(nullptr, t400.c_str()), 100, std::string(99, 't')},
        {params(url.c_str()), 300, "/" + std::string(254, 's')},
        {params(two.c_str()), 300, "/" + std::string(200, 'a') + "/" + std::string(53, 'b')},
        {params("/a", nullptr, "d.com"), 6, "d.com"}, {params(nullptr, "t", "d.com"), 6, "d.com"},
        {params("/a", nullptr, "d.com"), 7, "d.com/"},
        {params("/a", nullptr, d300.c_str()), 300, std::string(255, 'd')},
    };
    for (const auto &c : cases) EXPECT_EQ(c.name, name_of(c.p, c.len)) << c.len << " " << c.name;
    char buf[300];
    memset(buf, 'X', sizeof(buf));
    vesk_span_params_t p = params("/a");
    EXPECT_EQ(2, vesk_span_get_transaction_name(nullptr, nullptr, buf, sizeof(buf), &p));
    EXPECT_EQ(std::string(42, 'X') + '\0', std::string(buf + 257, 43)) << "the caller's bytes but the last";
}

TEST(TransactionName, LimitTurnsNewNamesIntoOther) {
    FakeReporter fake;
    fake.limit = 2;
    vesk_reporter_t table = fake.table();
    EXPECT_EQ("/a", name_of(params("/a"), 256, &table));
    EXPECT_EQ("/b", name_of(params("/b"), 256, &table));
    EXPECT_EQ("other", name_of(params("/c"), 256, &table));
    EXPECT_EQ("/a", name_of(params("/a/?x"), 256, &table)) << "known names stay";
    EXPECT_EQ("ot", name_of(params("/zz"), 3, &table)) << "the replacement is cut too";
    fake.limit_asks.clear();
    EXPECT_EQ("unknown", name_of(params(nullptr), 256, &table));
    EXPECT_EQ("other", name_of(params("/a", nullptr, "d.com"), 256, &table));
    EXPECT_EQ(std::vector<std::string>{"svc|d.com/a"}, fake.limit_asks) << "\"unknown\" never reaches it";
}

// The process starts with no reporter: an unknown name records it as set up.
TEST(SpanSend, ErrorCodesThenSpansWithNullStringsAsEmptyWhenMetricsAreWanted) {
    ASSERT_EQ(2, vesk_init_reporter("no-such-reporter", nullptr));
    char buf[256];
    vesk_span_params_t p = params("http://host/shop/cart/42?x=1"), v3 = p;
    v3.version = 3;
    EXPECT_EQ(VESK_SPAN_NO_PARAMS, vesk_span(buf, sizeof(buf), nullptr));
    EXPECT_EQ(VESK_SPAN_NO_BUFFER, vesk_http_span(buf, 0, &p));
    EXPECT_EQ(VESK_SPAN_BAD_VERSION, vesk_span(buf, sizeof(buf), &v3));
    EXPECT_EQ(VESK_SPAN_NO_REPORTER, vesk_http_span(buf, sizeof(buf), &p));
    FakeReporter fake;
    vesk_reporter_t table = fake.table();
    _vesk_reporter_register(&table);
    EXPECT_EQ(10, vesk_span(buf, sizeof(buf), &p));
    p.service = p.method = nullptr;
    p.status = 503;
    EXPECT_EQ(10, vesk_http_span(buf, sizeof(buf), &p));
    p.do_metrics = 0;
    EXPECT_EQ(10, vesk_http_span(buf, sizeof(buf), &p));
    EXPECT_EQ((std::vector<std::string>{"svc|/shop/cart|1234", "|/shop/cart|1234|503||0"}), fake.spans);
    fake.ready = 0;
    EXPECT_EQ(VESK_SPAN_NOT_READY, vesk_span(buf, sizeof(buf), &p));
    _vesk_destroy_reporter(&table);
}

}  // namespace
