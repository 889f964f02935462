// Span aggregation: measurements, histograms (decoded back), the name limit, threads, the reporter's table.
#include <gtest/gtest.h>
#include <stdlib.h>

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

struct Span { bool http; const char *service, *transaction; long duration; int status; const char *method; int error; };
// key: a histogram's map key; tags as "k:v&…"; sumOrMax: a measurement's sum, a histogram's largest value.
struct Expected { std::string key, tags; int64_t count; double sumOrMax; };
struct Case { const char *name; std::vector<Span> spans; std::vector<Expected> measurements, histograms; };

std::shared_ptr<SpanMessage> message(const Span &s) {
    if (s.http)
        return std::make_shared<HttpSpanMessage>(s.service, s.transaction, s.duration, s.status, s.method,
                                                 s.error);
    return std::make_shared<SpanMessage>(s.service, s.transaction, s.duration);
}

std::string str(const Tags &tags) {
    std::string out;
    for (const auto &t : tags) out += t.first + ":" + t.second + "&";
    return out;
}

const std::string kSnB = "SN:shop&TransactionName:/b&";
const std::vector<Case> kCases = {
    {"two plain spans of one transaction", {{false, "shop", "/a", 100, 0, nullptr, 0}, {false, "shop", "/a", 250, 0, nullptr, 0}},
     {{"", "TransactionName:/a&", 2, 350}}, {{"shop&", "SN:shop&", 2, 250}, {"shop&/a", "SN:shop&TransactionName:/a&", 2, 250}}},
    {"unknown only in the service histogram", {{false, "shop", "unknown", 40, 0, nullptr, 0}},
     {{"", "TransactionName:unknown&", 1, 40}}, {{"shop&", "SN:shop&", 1, 40}}},
    {"no name: the service histogram, counted once", {{false, "shop", nullptr, 60, 0, nullptr, 0}},
     {{"", "TransactionName:&", 1, 60}}, {{"shop&", "SN:shop&", 1, 60}}},
    {"http: method and status apart, errors on their own", {{true, "shop", "/b", 10, 200, "GET", 0}, {true, "shop", "/b", 30, 500, "GET", 1}},
     {{"", kSnB, 2, 40}, {"", "HttpMethod:GET&" + kSnB, 2, 40}, {"", "HttpStatus:200&" + kSnB, 1, 10},
      {"", "HttpStatus:500&" + kSnB, 1, 30}, {"", "Errors:true&" + kSnB, 1, 30}},
     {{"shop&", "SN:shop&", 2, 30}, {"shop&/b", kSnB, 2, 30}}},
    {"http without service or method", {{true, nullptr, "/c", 7, 404, nullptr, 0}},
     {{"", "TransactionName:/c&", 1, 7}, {"", "HttpMethod:&TransactionName:/c&", 1, 7}, {"", "HttpStatus:404&TransactionName:/c&", 1, 7}},
     {{"&", "", 1, 7}, {"&/c", "TransactionName:/c&", 1, 7}}},
    {"beyond one hour: measured, not in the histograms", {{false, "s", "/d", 3600000001L, 0, nullptr, 0}, {false, "s", "/d", 3600000000L, 0, nullptr, 0}},
     {{"", "TransactionName:/d&", 2, 7200000001.0}}, {{"s&", "SN:s&", 1, 3600000000.0}, {"s&/d", "SN:s&TransactionName:/d&", 1, 3600000000.0}}},
};

TEST(SpanAggregation, SpansGiveMeasurementsAndHistograms) {
    for (const Case &c : kCases) {
        SCOPED_TRACE(c.name);
        SpanAggregator agg;
        for (const Span &s : c.spans) agg.process(*message(s));
        MeasurementMap measurements = agg.takeMeasurements();
        HistogramMap histograms = agg.takeHistograms();
        EXPECT_TRUE(agg.measurements().empty() && agg.histograms().empty());  // the interval was handed over
        ASSERT_EQ(c.measurements.size(), measurements.size());
        for (const Expected &want : c.measurements) {
            auto it = measurements.find("TransactionResponseTime&1&" + want.tags);
            ASSERT_NE(measurements.end(), it) << want.tags;
            EXPECT_EQ(want.tags, str(it->second->getTags()));
            EXPECT_TRUE(it->second->reportSum());
            EXPECT_EQ(want.count, it->second->getCount());
            EXPECT_DOUBLE_EQ(want.sumOrMax, it->second->getSum());
        }
        ASSERT_EQ(c.histograms.size(), histograms.size());
        for (const Expected &want : c.histograms) {
            ASSERT_EQ(1u, histograms.count(want.key)) << want.key;
            const Histogram &h = *histograms[want.key];
            EXPECT_EQ(want.tags, str(h.getTags()));
            std::string text = h.encode();
            auto back = Histogram::decode(text.c_str(), static_cast<int>(text.size()));
            ASSERT_TRUE(back && back->hdr()) << want.key;
            EXPECT_EQ(want.count, back->hdr()->total_count);
            EXPECT_EQ(hdr_highest_equivalent_value(back->hdr(), static_cast<int64_t>(want.sumOrMax)),
                      hdr_max(back->hdr()));
        }
    }
    MeasurementMap m;  // the sum flag keeps counters apart from summaries
    recordMeasurement(m, "n", Tags{{"a", "1"}}, 4, 2, false);
    recordMeasurement(m, "n", Tags{{"a", "1"}}, 4, 1, true);
    EXPECT_EQ(2, m.at("n&0&a:1&")->getCount());
    EXPECT_FALSE(m.at("n&0&a:1&")->reportSum());
}

TEST(TransactionLimit, KeysAndTheLimitPerInterval) {
    const struct {
        const char *service, *name, *key;
    } keys[] = {{"s", "t", "s&t"}, {nullptr, "t", "t"}, {"s", nullptr, "s&"}, {nullptr, nullptr, ""}};
    for (const auto &k : keys) EXPECT_EQ(k.key, transactionKey(k.service, k.name));

    TransactionLimit limit;
    const struct {
        const char *key;
        bool within;
    } steps[] = {{"s&a", true}, {"s&b", true}, {"s&c", false}, {"s&a", true}, {"t&a", false}};
    for (const auto &step : steps) EXPECT_EQ(step.within, limit.isWithinLimit(step.key, 2)) << step.key;
    EXPECT_TRUE(limit.startInterval());  // a name was turned away
    EXPECT_TRUE(limit.isWithinLimit("s&c", 2));
    EXPECT_FALSE(limit.startInterval());
    EXPECT_FALSE(limit.isWithinLimit("s&a", 0));
}

// Request threads check names and push spans while the metric thread drains the queue, as in the reporter.
TEST(SpanAggregation, ConcurrentProducersAndTheAggregatingThread) {
    constexpr int kThreads = 4, kSpans = 500, kNames = 5, kMax = 10;
    auto queue = std::make_unique<RingBuffer<SpanMessage, kThreads * kSpans + 1>>(kThreads * kSpans + 1);
    SpanAggregator agg;
    std::vector<std::set<std::string>> accepted(kThreads);
    std::vector<std::thread> producers;
    for (int t = 0; t < kThreads; t++)
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
    std::thread consumer([&] {
        for (int taken = 0; taken < kThreads * kSpans;) {
            auto span = queue->pop(std::chrono::steady_clock::now() + std::chrono::milliseconds(20));
            if (span) agg.process(*span), taken++;
        }
    });
    for (auto &p : producers) p.join();
    consumer.join();
    size_t names = 0;
    for (const auto &s : accepted) names += s.size();
    EXPECT_EQ(static_cast<size_t>(kMax), names);
    EXPECT_EQ(kThreads * kSpans, agg.histograms().at("s&")->hdr()->total_count);
    int base = 0, errors = 0;
    for (const auto &m : agg.measurements()) {
        if (m.second->getTags().size() == 2) base += m.second->getCount();
        if (m.second->getTags().count("Errors")) errors += m.second->getCount();
    }
    EXPECT_EQ(kThreads * kSpans, base);
    EXPECT_EQ(kThreads * kSpans / 2, errors);
}

// The reporter's table end to end, its metric thread aggregating with no Collector (a closed loopback port).
TEST(SpanAggregation, ReporterTableLimitsQueuesAndAggregates) {
    setenv("CORVIDINE_CLOUD_METADATA", "off", 1);
    for (int traceMetrics : {1, 0}) {
        SCOPED_TRACE(traceMetrics);
        vesk_init_options_t o = corvidine_test::init_options("ssl", "127.0.0.1:1");
        o.max_transactions = 2;
        o.histogram_precision = 9;  // held at 5
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

        table.send_http_span(r, "s", "/a", 100, 500, "POST", 1);
        table.send_span(r, "s", "", 50);
        EXPECT_EQ(traceMetrics ? 2u : 0u, r->spanQueue.total());
        auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
        while (r->spanQueue.count() > 0 && std::chrono::steady_clock::now() < deadline)
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        r->disconnect();  // the metric thread has ended: its maps may be read
        const HistogramMap &h = r->spans.histograms();
        ASSERT_EQ(traceMetrics ? 2u : 0u, h.size());
        if (traceMetrics) {
            EXPECT_EQ(2, h.at("s&")->hdr()->total_count);
            EXPECT_EQ(5, h.at("s&")->hdr()->significant_figures);
            EXPECT_EQ(1, h.at("s&/a")->hdr()->total_count);
            EXPECT_EQ(5u, r->spans.measurements().size());  // 4 of the HTTP span, 1 of the plain one
        }
        EXPECT_EQ(1, table.destroy(r));
    }
    SpanAggregator low;
    low.setHistogramPrecision(0);
    EXPECT_EQ(1, low.getHistogramPrecision());
}

}  // namespace
