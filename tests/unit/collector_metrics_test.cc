// Metrics documents (read back by python3-bson) and custom metrics: interval arithmetic, array keys, cut lengths,
// resets between messages, custom metric limits, the queue gate, the batch bound.
#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "corvidine/custom_metrics.h"
#include "corvidine/metrics_message.h"
#include "corvidine/settings.h"
#include "ssl_reporter.h"
#include "support/harness.h"

using namespace corvidine;
using corvidine_test::decode_bson;
using corvidine_test::has;

namespace {
std::string message(SpanAggregator &spans) { return generateMetricsMessage(HostFacts{}, ReporterTotals{}, spans, 60); }
std::string field(const char *key, const char *type, const std::string &value) {
    return "[\"" + std::string(key) + "\", [\"" + type + "\", " + value + "]]";
}
}  // namespace

TEST(MetricsMessage, IntervalsFallOnTheClockAndArrayKeysKeepThreeDigits) {
    struct { int interval, second, expected; } cases[] = {{60, 0, 60}, {60, 59, 1}, {30, 45, 15}, {120, 5, 115},
                                                          {10, 0, 10}, {1, 33, 1},  {5, 7, 3},    {0, 30, 30}};
    for (const auto &c : cases) EXPECT_EQ(c.expected, getMetricsMsgNextInterval(c.interval, c.second)) << c.interval;
    struct { int index; const char *key; } keys[] = {{0, "0"}, {999, "999"}, {1000, "100"}, {12345, "123"}};
    char key[4];
    for (const auto &k : keys) {
        metricsArrayKey(k.index, key);
        EXPECT_STREQ(k.key, key);
    }
}

TEST(MetricsMessage, KeysCutLengthsAndWhatAMessageResets) {
    ASSERT_EQ(0, vesk_settings_init_local());
    vesk_settings_layer_entry_t *shop = vesk_settings_entry_layer_get("shop");
    ASSERT_NE(nullptr, shop);
    shop->request_count = 5;
    SpanAggregator spans;
    spans.limit().isWithinLimit("a", 1);
    spans.limit().isWithinLimit("b", 1);  // turned away: overflow
    spans.process(HttpSpanMessage("shop", "/a", 1200, 200, "GET", 0));
    std::vector<std::string> first = decode_bson(message(spans));
    ASSERT_EQ(1u, first.size());
    for (const std::string &part : {field("TransactionNameOverflow", "bool", "true"), field("MetricsFlushInterval", "int64", "60"),
                                    std::string("[\"name\", [\"string\", \"RequestCount\"]], [\"tags\", [\"document\", [[\"SN\", [\"string\", \"shop\"]]]]], [\"value\", [\"int32\", 5]]"),
                                    field("count", "int64", "1") + ", " + field("sum", "double", "1200.0"),
                                    field("name", "string", "\"NumSent\"") + ", " + field("value", "int64", "0")})
        EXPECT_TRUE(has(first[0], part)) << part << "\n" << first[0];
    std::string second = decode_bson(message(spans))[0];
    EXPECT_FALSE(has(second, "TransactionNameOverflow")) << "the overflow flag is reset";
    EXPECT_TRUE(has(second, "[\"histograms\", [\"array\", []]]")) << second;
    EXPECT_TRUE(has(second, "\"RequestCount\"]], [\"tags\", [\"document\", [[\"SN\", [\"string\", \"shop\"]]]]], [\"value\", [\"int32\", 0]]"));
    EXPECT_FALSE(has(second, "TransactionResponseTime")) << "aggregates are consumed";

    // Cut lengths: name 255, tag key 64, tag value 255; no sum for a counter.
    Measurement long_one(std::string(300, 'n'), Tags{{std::string(70, 'k'), std::string(300, 'v')}}, false);
    long_one.addCount(2);
    vesk_bson_buffer b;
    ASSERT_NE(nullptr, vesk_bson_buffer_init(&b));
    vesk_bson_append_start_array(&b, "m");
    int index = 0;
    addMeasurements(&b, &index, long_one);
    vesk_bson_append_finish_object(&b);
    vesk_bson_buffer_finish(&b);
    std::string cut = decode_bson(std::string(b.data, vesk_bson_buffer_size(&b)))[0];
    vesk_bson_buffer_destroy(&b);
    EXPECT_EQ(1, index);
    EXPECT_TRUE(has(cut, "\"" + std::string(255, 'n') + "\"]], [\"count\", [\"int64\", 2]], [\"tags\", [\"document\", [[\"" +
                             std::string(64, 'k') + "\", [\"string\", \"" + std::string(255, 'v') + "\"]]")) << cut;
}

TEST(CustomMetrics, SummariesAddUpIncrementsCountAndTheLimitDropsNewKeys) {
    vesk_metric_tag_t tags[] = {{"region", "eu"}, {"", "no key"}, {"no value", ""}, {"region", "us"}};
    struct M { const char *service, *name; double value; int count, hostTag, summary; size_t tags; };
    struct Case { const char *what; int max; std::vector<M> in; std::vector<std::pair<std::string, std::string>> out; };
    std::vector<Case> cases = {
        {"summaries add up", 500, {{"s", "m", 1.5, 1, 0, 1, 0}, {"s", "m", 2.5, 2, 0, 1, 0}},
         {{"m&1&SN:s&", "count 3 sum 4.000000"}}},
        {"increment: no sum, its own measurement", 500, {{nullptr, "m", 0, 4, 1, 0, 4}, {nullptr, "m", 7, 1, 0, 1, 0}},
         {{"m&0&HostTag:true&region:us&", "count 4 no sum"}, {"m&1&", "count 1 sum 7.000000"}}},
        {"at the limit known keys count, new ones are dropped", 1,
         {{"s", "a", 1, 1, 0, 1, 0}, {"s", "b", 1, 1, 0, 1, 0}, {"s", "a", 1, 1, 0, 1, 0}},
         {{"a&1&SN:s&", "count 2 sum 2.000000"}}},
    };
    for (const Case &c : cases) {
        CustomMetrics metrics;
        for (const M &m : c.in)
            metrics.processCustomMetricMessage(
                CustomMetricMessage(m.service, m.name, m.value, m.count, m.hostTag, m.summary, tags, m.tags), c.max);
        std::vector<std::pair<std::string, std::string>> got;
        for (const auto &e : metrics.measurements()) {
            char text[64];
            snprintf(text, sizeof text, e.second->reportSum() ? "count %d sum %f" : "count %d no sum",
                     e.second->getCount(), e.second->getSum());
            got.emplace_back(e.first, text);
        }
        EXPECT_EQ(c.out, got) << c.what;
        std::string doc = decode_bson(metrics.generateCustomMetricsMessage(HostFacts{"alias", "", true, {"10.0.0.1"}}, 5))[0];
        EXPECT_TRUE(has(doc, "[[\"ConfiguredHostname\", [\"string\", \"alias\"]], [\"TID\"")) << doc;
        EXPECT_TRUE(has(doc, field("IPAddresses", "array", "[[\"string\", \"10.0.0.1\"]]") + ", [\"Timestamp_u\"")) << doc;
        EXPECT_TRUE(has(doc, field("MetricsFlushInterval", "int64", "5") + ", " + field("IsCustom", "bool", "true")));
        EXPECT_TRUE(metrics.empty()) << "the document consumes the measurements";
    }
    Tags parsed;
    parseTags(parsed, "a=1&=skipped&novalue&b=x%20y+z&a=2&c=%zz&d=");
    EXPECT_EQ((Tags{{"a", "2"}, {"b", "x y z"}, {"c", "%zz"}, {"d", ""}}), parsed);
}

TEST(CustomMetrics, TagLimitQueueGateAndMetricsBatchBound) {
    SslReporterConfig c;
    c.serviceKey = "token:service";
    c.flushMaxWaitTime = 0;
    vesk_ssl_reporter r(nullptr, c);
    r.setSocketParams("127.0.0.1", 1);
    std::vector<std::string> keys(50, "k");
    std::vector<vesk_metric_tag_t> tags;
    for (size_t i = 0; i < keys.size(); i++) keys[i] += std::to_string(i);
    for (const std::string &k : keys) tags.push_back({k.c_str(), "v"});
    struct { size_t tags; int hostTag; bool accepted; } limits[] = {{50, 0, true}, {50, 1, false}, {49, 1, true}, {51, 0, false}};
    corvidine_test::LogCapture log;
    for (const auto &l : limits)
        EXPECT_EQ(l.accepted, r.addCustomMetric("m", 1, 1, l.hostTag, "s", 1, tags.data(), l.tags)) << l.tags << l.hostTag;
    EXPECT_TRUE(log.contains("addCustomMetric: exceeded limit of 49 tags per measurement, ignoring measurement."));

    // The gate: (queue fill, max, ready before) -> admitted, message at the edge.
    struct { unsigned long n, max; bool before, admitted; const char *logged; } gate[] = {
        {0, 9, false, true, "Custom Metrics queue ready at 0/9"}, {7, 9, true, true, nullptr},
        {8, 9, true, false, "Custom Metrics queue limit reached at 8/9"}, {9, 9, false, false, nullptr},
        {3, 9, false, true, "Custom Metrics queue ready at 3/9"}};
    for (const auto &g : gate) {
        corvidine_test::LogCapture edge;
        std::atomic<bool> ready{g.before};
        EXPECT_EQ(g.admitted, customMetricQueueAdmits(ready, g.n, g.max)) << g.n;
        EXPECT_EQ(g.admitted, ready.load());
        EXPECT_EQ(g.logged != nullptr, edge.contains("Custom Metrics queue")) << g.n;
        if (g.logged) {
            EXPECT_TRUE(edge.contains(g.logged)) << g.logged;
        }
    }
    BsonMessages batch;
    for (int i = 0; i < 150; i++) appendMetricsMessage(batch, std::to_string(i));
    appendMetricsMessage(batch, "");
    ASSERT_EQ(kMaxMetricsBatch, batch.messages.size());
    EXPECT_EQ("50", batch.messages.front());
    EXPECT_EQ("149", batch.messages.back());
}

TEST(CustomMetrics, ProducersAgainstTheMetricThread) {
    SslReporterConfig c;
    c.serviceKey = "token:service";
    c.flushMaxWaitTime = 0;
    c.bufferSize = 64;
    vesk_ssl_reporter r(nullptr, c);
    r.setSocketParams("127.0.0.1", 1);
    r.processRemoteConfig({{"MetricsFlushInterval", std::string("\x10\x0e\0\0", 4)}});  // 3600: no message meanwhile
    std::atomic<int> accepted{0};
    std::vector<std::thread> producers;
    for (int t = 0; t < 4; t++)
        producers.emplace_back([&] {
            for (int i = 0; i < 2000; i++) accepted += r.addCustomMetric("m", 1, 1, 0, "s", 1, nullptr, 0);
        });
    for (auto &p : producers) p.join();
    r.disconnect();
    // Every accepted metric is in the aggregate or still queued (or, in a race of producers at the gate, pushed
    // out by a later one); the refused ones are nowhere.
    int aggregated = r.customMetrics.empty() ? 0 : r.customMetrics.measurements().begin()->second->getCount();
    EXPECT_GT(accepted.load(), 0);
    EXPECT_LT(accepted.load(), 8000);
    EXPECT_EQ(accepted.load(), aggregated + static_cast<int>(r.customMetricQueue.count() + r.customMetricQueue.overflowed()));
}
