// Span aggregation: spans in, measurements and histograms out (histograms
// read back through the log codec), the transaction-name limit per
// interval, the hand-over per interval, request threads pushing while the
// metric thread aggregates, and the reporter's table entries end to end.
#include <gtest/gtest.h>
#include <stdlib.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "corvidine/span_aggregator.h"
#include "corvidine/ssl_reporter.h"
#include "ring_buffer.h"
#include "ssl_reporter.h"
#include "support/harness.h"

namespace {

using namespace corvidine;

struct Span {
    bool http;
    const char *service, *transaction;
    long duration;
    int status;
    const char *method;
    int error;
};
struct ExpectedMeasurement {
    Tags tags;
    int count;
    double sum;
};
struct ExpectedHistogram {
    std::string key;
    Tags tags;
    int64_t count;
    long max;  // largest counted duration
};
struct Case {
    const char *name;
    std::vector<Span> spans;
    std::vector<ExpectedMeasurement> measurements;
    std::vector<ExpectedHistogram> histograms;
};

std::shared_ptr<SpanMessage> message(const Span &s) {
    if (s.http)
        return std::make_shared<HttpSpanMessage>(s.service, s.transaction, s.duration, s.status, s.method,
                                                 s.error);
    return std::make_shared<SpanMessage>(s.service, s.transaction, s.duration);
}

const Tags T(std::initializer_list<std::pair<const std::string, std::string>> l) {
    return Tags(l);
}

const std::vector<Case> kCases = {
    {"two plain spans of one transaction",
     {{false, "shop", "/a", 100, 0, nullptr, 0}, {false, "shop", "/a", 250, 0, nullptr, 0}},
     {{T({{"TransactionName", "/a"}}), 2, 350}},
     {{"shop&", T({{"SN", "shop"}}), 2, 250},
      {"shop&/a", T({{"SN", "shop"}, {"TransactionName", "/a"}}), 2, 250}}},
    {"unknown only in the service histogram",
     {{false, "shop", "unknown", 40, 0, nullptr, 0}},
     {{T({{"TransactionName", "unknown"}}), 1, 40}},
     {{"shop&", T({{"SN", "shop"}}), 1, 40}}},
    {"no name: the service histogram, counted once",
     {{false, "shop", nullptr, 60, 0, nullptr, 0}},
     {{T({{"TransactionName", ""}}), 1, 60}},
     {{"shop&", T({{"SN", "shop"}}), 1, 60}}},
    {"http: method and status apart, errors counted on their own",
     {{true, "shop", "/b", 10, 200, "GET", 0}, {true, "shop", "/b", 30, 500, "GET", 1}},
     {{T({{"SN", "shop"}, {"TransactionName", "/b"}}), 2, 40},
      {T({{"SN", "shop"}, {"TransactionName", "/b"}, {"HttpMethod", "GET"}}), 2, 40},
      {T({{"SN", "shop"}, {"TransactionName", "/b"}, {"HttpStatus", "200"}}), 1, 10},
      {T({{"SN", "shop"}, {"TransactionName", "/b"}, {"HttpStatus", "500"}}), 1, 30},
      {T({{"SN", "shop"}, {"TransactionName", "/b"}, {"Errors", "true"}}), 1, 30}},
     {{"shop&", T({{"SN", "shop"}}), 2, 30},
      {"shop&/b", T({{"SN", "shop"}, {"TransactionName", "/b"}}), 2, 30}}},
    {"http without service or method: no SN, empty method tag",
     {{true, nullptr, "/c", 7, 404, nullptr, 0}},
     {{T({{"TransactionName", "/c"}}), 1, 7},
      {T({{"TransactionName", "/c"}, {"HttpMethod", ""}}), 1, 7},
      {T({{"TransactionName", "/c"}, {"HttpStatus", "404"}}), 1, 7}},
     {{"&", T({}), 1, 7}, {"&/c", T({{"TransactionName", "/c"}}), 1, 7}}},
    {"beyond one hour: measured, not in the histograms",
     {{false, "s", "/d", 3600000001L, 0, nullptr, 0}, {false, "s", "/d", 3600000000L, 0, nullptr, 0}},
     {{T({{"TransactionName", "/d"}}), 2, 7200000001.0}},
     {{"s&", T({{"SN", "s"}}), 1, 3600000000L},
      {"s&/d", T({{"SN", "s"}, {"TransactionName", "/d"}}), 1, 3600000000L}}},
    {"services apart, plain measurement without SN merges them",
     {{false, "a", "/e", 5, 0, nullptr, 0}, {false, "b", "/e", 6, 0, nullptr, 0}},
     {{T({{"TransactionName", "/e"}}), 2, 11}},
     {{"a&", T({{"SN", "a"}}), 1, 5},
      {"a&/e", T({{"SN", "a"}, {"TransactionName", "/e"}}), 1, 5},
      {"b&", T({{"SN", "b"}}), 1, 6},
      {"b&/e", T({{"SN", "b"}, {"TransactionName", "/e"}}), 1, 6}}},
};

// The histogram as a reader of the message sees it: through the log codec.
void expectHistogram(const Histogram &h, const ExpectedHistogram &want) {
    std::string text = h.encode();
    ASSERT_FALSE(text.empty());
    std::unique_ptr<Histogram> back = Histogram::decode(text.c_str(), static_cast<int>(text.size()));
    ASSERT_TRUE(back && back->hdr());
    EXPECT_EQ(want.count, back->hdr()->total_count);
    EXPECT_EQ(hdr_highest_equivalent_value(back->hdr(), want.max), hdr_max(back->hdr()));
    EXPECT_EQ(want.tags, h.getTags());
}

TEST(SpanAggregation, SpansGiveMeasurementsAndHistograms) {
    for (const Case &c : kCases) {
        SCOPED_TRACE(c.name);
        SpanAggregator agg;
        for (const Span &s : c.spans) agg.process(*message(s));
        MeasurementMap measurements = agg.takeMeasurements();
        ASSERT_EQ(c.measurements.size(), measurements.size());
        for (const ExpectedMeasurement &want : c.measurements) {
            bool found = false;
            for (const auto &m : measurements) {
                if (m.second->getTags() != want.tags) continue;
                found = true;
                EXPECT_EQ("TransactionResponseTime", m.second->getName());
                EXPECT_EQ(want.count, m.second->getCount());
                EXPECT_DOUBLE_EQ(want.sum, m.second->getSum());
                EXPECT_TRUE(m.second->reportSum());
            }
            EXPECT_TRUE(found) << "no measurement with " << want.tags.size() << " tags, count " << want.count;
        }
        HistogramMap histograms = agg.takeHistograms();
        ASSERT_EQ(c.histograms.size(), histograms.size());
        for (const ExpectedHistogram &want : c.histograms) {
            SCOPED_TRACE(want.key);
            ASSERT_EQ(1u, histograms.count(want.key));
            expectHistogram(*histograms[want.key], want);
        }
    }
}

TEST(SpanAggregation, MeasurementKeysSeparateNameSumFlagAndTags) {
    MeasurementMap m;
    recordMeasurement(m, "n", T({{"a", "1"}, {"b", "2"}}), 1.5, 2, true);
    recordMeasurement(m, "n", T({{"a", "1"}, {"b", "2"}}), 2.5, 1, true);
    recordMeasurement(m, "n", T({{"a", "1"}, {"b", "2"}}), 4, 1, false);
    recordMeasurement(m, "n", T({{"a", "1:b"}}), 1, 1, true);
    ASSERT_EQ(3u, m.size());
    EXPECT_EQ(3, m["n&1&a:1&b:2&"]->getCount());
    EXPECT_DOUBLE_EQ(4.0, m["n&1&a:1&b:2&"]->getSum());
    EXPECT_FALSE(m["n&0&a:1&b:2&"]->reportSum());
    EXPECT_EQ(1u, m.count("n&1&a:1:b&"));
}

TEST(SpanAggregation, TakingHandsOverTheIntervalAndStartsAfresh) {
    SpanAggregator agg;
    agg.process(HttpSpanMessage("s", "/x", 10, 200, "GET", 0));
    EXPECT_EQ(3u, agg.takeMeasurements().size());
    EXPECT_EQ(2u, agg.takeHistograms().size());
    EXPECT_TRUE(agg.measurements().empty());
    EXPECT_TRUE(agg.histograms().empty());
    agg.process(SpanMessage("s", "/x", 10));
    ASSERT_EQ(1u, agg.measurements().size());
    EXPECT_EQ(1, agg.measurements().begin()->second->getCount());
    EXPECT_EQ(1, agg.histograms().at("s&/x")->hdr()->total_count);
}

TEST(SpanAggregation, PrecisionIsHeldInRangeAndUsedForNewHistograms) {
    const struct { int set, stored; } cases[] = {{0, 1}, {-3, 1}, {1, 1}, {3, 3}, {5, 5}, {9, 5}};
    for (const auto &c : cases) {
        SpanAggregator agg;
        agg.setHistogramPrecision(c.set);
        EXPECT_EQ(c.stored, agg.getHistogramPrecision());
        agg.process(SpanMessage("s", "/p", 123));
        std::string text = agg.histograms().at("s&/p")->encode();
        auto back = Histogram::decode(text.c_str(), static_cast<int>(text.size()));
        ASSERT_TRUE(back);
        EXPECT_EQ(c.stored, back->hdr()->significant_figures);
    }
}

TEST(TransactionLimit, KeysAndTheLimitPerInterval) {
    const struct {
        const char *service, *name, *key;
    } keys[] = {{"s", "t", "s&t"},
                {nullptr, "t", "t"},
                {"s", nullptr, "s&"},
                {nullptr, nullptr, ""},
                {"", "t", "&t"}};
    for (const auto &k : keys) EXPECT_EQ(k.key, transactionKey(k.service, k.name));

    TransactionLimit limit;
    const struct {
        const char *key;
        bool within;
    } first[] = {{"s&a", true}, {"s&b", true}, {"s&c", false}, {"s&a", true}, {"t&a", false}, {"s&b", true}};
    for (const auto &step : first) EXPECT_EQ(step.within, limit.isWithinLimit(step.key, 2)) << step.key;
    EXPECT_TRUE(limit.startInterval());  // a name was turned away
    EXPECT_EQ(0u, limit.size());
    EXPECT_TRUE(limit.isWithinLimit("s&c", 2));
    EXPECT_FALSE(limit.startInterval());
    EXPECT_FALSE(limit.isWithinLimit("s&a", 0));
}

// Request threads check names and push spans while the metric thread drains
// the queue into the aggregates, as in the reporter.
TEST(SpanAggregation, ConcurrentProducersAndTheAggregatingThread) {
    constexpr int kThreads = 4, kSpans = 500, kNames = 5, kMax = 10;
    auto queue = std::make_unique<RingBuffer<SpanMessage, kThreads * kSpans + 1>>(kThreads * kSpans + 1);
    SpanAggregator agg;
    std::vector<std::set<std::string>> accepted(kThreads);
    std::vector<std::thread> producers;
    for (int t = 0; t < kThreads; t++) {
        producers.emplace_back([&, t] {
            for (int i = 0; i < kSpans; i++) {
                std::string name = "/t" + std::to_string(t) + "/" + std::to_string(i % kNames);
                if (agg.limit().isWithinLimit(transactionKey("s", name.c_str()), kMax))
                    accepted[t].insert(name);
                else
                    name = "other";
                queue->push(std::make_shared<HttpSpanMessage>("s", name.c_str(), 1 + i, 200, "GET", i % 2));
            }
        });
    }
    int taken = 0;
    std::thread consumer([&] {
        while (taken < kThreads * kSpans) {
            auto span = queue->pop(std::chrono::steady_clock::now() + std::chrono::milliseconds(20));
            if (span) {
                agg.process(*span);
                taken++;
            }
        }
    });
    for (auto &p : producers) p.join();
    consumer.join();
    EXPECT_EQ(0u, queue->overflowed());

    size_t names = 0;
    for (const auto &s : accepted) names += s.size();
    EXPECT_EQ(static_cast<size_t>(kMax), names);
    EXPECT_TRUE(agg.limit().startInterval());
    // The service histogram saw every span; the base HTTP measurements add up
    // to all spans, the error ones to half of them.
    EXPECT_EQ(kThreads * kSpans, agg.histograms().at("s&")->hdr()->total_count);
    int base = 0, errors = 0;
    for (const auto &m : agg.measurements()) {
        const Tags &tags = m.second->getTags();
        if (tags.size() == 2) base += m.second->getCount();
        if (tags.count("Errors")) errors += m.second->getCount();
    }
    EXPECT_EQ(kThreads * kSpans, base);
    EXPECT_EQ(kThreads * kSpans / 2, errors);
}

// The reporter's table: options to the limit and precision, the request
// thread's entries, and the metric thread draining the span queue into the
// aggregates even with no Collector (a closed port on loopback).
TEST(SpanAggregation, ReporterTableLimitsQueuesAndAggregates) {
    setenv("CORVIDINE_CLOUD_METADATA", "off", 1);
    for (int traceMetrics : {1, 0}) {
        SCOPED_TRACE(traceMetrics);
        vesk_init_options_t o = corvidine_test::init_options("ssl", "127.0.0.1:1");
        o.max_transactions = 2;
        o.histogram_precision = 4;
        o.trace_metrics = traceMetrics;
        o.max_flush_wait_time = 0;
        vesk_reporter_t table;
        ASSERT_EQ(0, vesk_reporter_init_ssl(&table, &o));
        auto *r = static_cast<vesk_ssl_reporter *>(vesk_reporter_get_context(&table));
        EXPECT_EQ(0, table.is_winthin_limit(nullptr, "s", "/a"));
        EXPECT_EQ(1, table.is_winthin_limit(r, "s", "/a"));
        EXPECT_EQ(1, table.is_winthin_limit(r, nullptr, "/b"));
        EXPECT_EQ(0, table.is_winthin_limit(r, "s", "/c"));
        EXPECT_EQ(1, table.is_winthin_limit(r, "s", "/a"));
        EXPECT_EQ(4, r->getHistogramPrecision());

        table.send_http_span(r, "s", "/a", 100, 500, "POST", 1);
        table.send_span(r, "s", "", 50);
        EXPECT_EQ(traceMetrics ? 2u : 0u, r->spanQueue.total());
        auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
        while (r->spanQueue.count() > 0 && std::chrono::steady_clock::now() < deadline)
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        r->disconnect();  // the metric thread has ended: its maps may be read
        const HistogramMap &h = r->spans.histograms();
        if (traceMetrics) {
            ASSERT_EQ(2u, h.size());
            EXPECT_EQ(2, h.at("s&")->hdr()->total_count);
            EXPECT_EQ(4, h.at("s&")->hdr()->significant_figures);
            EXPECT_EQ(1, h.at("s&/a")->hdr()->total_count);
            EXPECT_EQ(5u, r->spans.measurements().size());  // 4 of the HTTP span, 1 of the plain one
        } else {
            EXPECT_TRUE(h.empty());
        }
        EXPECT_EQ(1, table.destroy(r));
    }
}

}  // namespace
