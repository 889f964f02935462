// Metrics documents and custom metrics (documents read back by python3-bson): interval arithmetic, array keys, cut
// lengths, what a message resets, custom metric limits and document, the queue gate, the batch bound, producers.
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
std::string doc(SpanAggregator &spans) { return decode_bson(generateMetricsMessage({}, {}, spans, 60))[0]; }
std::string typed(const std::string &key, const std::string &type, const std::string &value) {
    return "[\"" + key + "\", [\"" + type + "\", " + value + "]]";
}
SslReporterConfig config(int bufferSize) {
    SslReporterConfig c;
    c.serviceKey = "token:service";
    c.flushMaxWaitTime = 0;
    c.bufferSize = bufferSize;
    return c;
}
}  // namespace

TEST(MetricsMessage, IntervalsArrayKeysCutLengthsAndResets) {
    struct { int interval, second, expected; } cases[] = {{60, 0, 60}, {60, 59, 1}, {30, 45, 15}, {120, 5, 115}, {1, 33, 1}, {5, 7, 3}};
    for (const auto &c : cases) EXPECT_EQ(c.expected, getMetricsMsgNextInterval(c.interval, c.second)) << c.interval;
    struct { int index; const char *key; } keys[] = {{0, "0"}, {999, "999"}, {1000, "100"}, {12345, "123"}};
    char key[4];
    for (const auto &k : keys) {
        metricsArrayKey(k.index, key);
        EXPECT_STREQ(k.key, key);
    }

    ASSERT_EQ(0, vesk_settings_init_local());
    vesk_settings_entry_layer_get("shop")->request_count = 5;
    SpanAggregator spans;
    spans.limit().isWithinLimit("a", 1);
    spans.limit().isWithinLimit("b", 1);  // turned away
    spans.process(HttpSpanMessage("shop", std::string(300, 't').c_str(), 1200, 200, "GET", 0));
    const std::string shopCount = "\"RequestCount\"]], [\"tags\", [\"document\", [[\"SN\", [\"string\", \"shop\"]]]]], ";
    std::string first = doc(spans), second = doc(spans);
    EXPECT_TRUE(has(first, typed("TransactionNameOverflow", "bool", "true") + ", [\"measurements\"")) << first;
    EXPECT_TRUE(has(first, shopCount + typed("value", "int32", "5"))) << first;
    EXPECT_TRUE(has(first, typed("count", "int64", "1") + ", " + typed("sum", "double", "1200.0")));
    EXPECT_TRUE(has(first, "\"" + std::string(255, 't') + "\"]]")) << "tag values cut to 255";
    EXPECT_FALSE(has(first, std::string(256, 't')));
    // The next message: no overflow, counts from zero, no aggregates left.
    EXPECT_FALSE(has(second, "TransactionNameOverflow"));
    EXPECT_TRUE(has(second, shopCount + typed("value", "int32", "0"))) << second;
    EXPECT_TRUE(has(second, typed("histograms", "array", "[]")) && !has(second, "TransactionResponseTime"));

    // Names to 255, tag keys to 64; a counter has no sum.
    Measurement m(std::string(300, 'n'), Tags{{std::string(70, 'k'), "v"}}, false);
    vesk_bson_buffer b;
    vesk_bson_buffer_init(&b);
    int index = 0;
    addMeasurements(&b, &index, m);
    const char *bytes = vesk_bson_buffer_finish(&b);
    std::string cut = decode_bson(std::string(bytes, vesk_bson_buffer_size(&b)))[0];
    vesk_bson_buffer_destroy(&b);
    EXPECT_TRUE(has(cut, "\"" + std::string(255, 'n') + "\"]], " + typed("count", "int64", "0") +
                             ", [\"tags\", [\"document\", [[\"" + std::string(64, 'k') + "\", ")) << cut;
}

TEST(CustomMetrics, AggregationLimitsAndDocument) {
    vesk_metric_tag_t tags[] = {{"region", "eu"}, {"", "no key"}, {"no value", ""}, {"region", "us"}};
    struct M { const char *service, *name; double value; int count, hostTag, summary; size_t tags; };
    struct Case { int max; std::vector<M> in; std::vector<std::pair<std::string, std::string>> out; };
    std::vector<Case> cases = {
        {500, {{"s", "m", 1.5, 1, 0, 1, 0}, {"s", "m", 2.5, 2, 0, 1, 0}}, {{"m&1&SN:s&", "3 4.0"}}},
        {500, {{nullptr, "m", 0, 4, 1, 0, 4}, {nullptr, "m", 7, 1, 0, 1, 0}},
         {{"m&0&HostTag:true&region:us&", "4 -"}, {"m&1&", "1 7.0"}}},
        {1, {{"s", "a", 1, 1, 0, 1, 0}, {"s", "b", 1, 1, 0, 1, 0}, {"s", "a", 1, 1, 0, 1, 0}}, {{"a&1&SN:s&", "2 2.0"}}},
    };
    for (const Case &c : cases) {
        CustomMetrics metrics;
        for (const M &m : c.in)
            metrics.processCustomMetricMessage({m.service, m.name, m.value, m.count, m.hostTag, m.summary, tags, m.tags}, c.max);
        std::vector<std::pair<std::string, std::string>> got;
        for (const auto &e : metrics.measurements())
            got.emplace_back(e.first, std::to_string(e.second->getCount()) + " " +
                                          (e.second->reportSum() ? std::to_string(e.second->getSum()).substr(0, 3) : "-"));
        EXPECT_EQ(c.out, got);
        std::string d = decode_bson(metrics.generateCustomMetricsMessage({"alias", "", true, {"10.0.0.1"}}, 5))[0];
        EXPECT_TRUE(has(d, "[[\"ConfiguredHostname\", [\"string\", \"alias\"]], [\"TID\"")) << d;
        EXPECT_TRUE(has(d, typed("IPAddresses", "array", "[[\"string\", \"10.0.0.1\"]]") + ", [\"Timestamp_u\""));
        EXPECT_TRUE(has(d, typed("MetricsFlushInterval", "int64", "5") + ", " + typed("IsCustom", "bool", "true")));
        EXPECT_TRUE(metrics.empty()) << "the document consumes the measurements";
    }
    Tags parsed;
    parseTags(parsed, "a=1&=skipped&novalue&b=x%20y+z&a=2&c=%zz&d=");
    EXPECT_EQ((Tags{{"a", "2"}, {"b", "x y z"}, {"c", "%zz"}, {"d", ""}}), parsed);
}

TEST(CustomMetrics, TagLimit) {
    corvidine_test::LogCapture log;  // before the reporter's threads, which read the log level
    vesk_ssl_reporter r(nullptr, config(1000));
    r.setSocketParams("127.0.0.1", 1);
    std::vector<std::string> keys;
    std::vector<vesk_metric_tag_t> tags;
    for (int i = 0; i < 51; i++) keys.push_back("k" + std::to_string(i));
    for (const std::string &k : keys) tags.push_back({k.c_str(), "v"});
    struct { size_t tags; int hostTag; bool accepted; } limits[] = {{50, 0, true}, {50, 1, false}, {49, 1, true}, {51, 0, false}};
    for (const auto &l : limits)
        EXPECT_EQ(l.accepted, r.addCustomMetric("m", 1, 1, l.hostTag, "s", 1, tags.data(), l.tags)) << l.tags;
    EXPECT_TRUE(log.contains("addCustomMetric: exceeded limit of 49 tags per measurement, ignoring measurement."));
}

TEST(CustomMetrics, QueueGateAndMetricsBatchBound) {
    // (fill, max, ready before) -> admitted, and the message at an edge.
    struct { unsigned long n, max; bool before, admitted; const char *logged; } gate[] = {
        {0, 9, false, true, "Custom Metrics queue ready at 0/9"}, {7, 9, true, true, nullptr},
        {8, 9, true, false, "Custom Metrics queue limit reached at 8/9"}, {9, 9, false, false, nullptr}};
    for (const auto &g : gate) {
        corvidine_test::LogCapture edge;
        std::atomic<bool> ready{g.before};
        EXPECT_EQ(g.admitted, customMetricQueueAdmits(ready, g.n, g.max)) << g.n;
        EXPECT_EQ(g.logged != nullptr, edge.contains("Custom Metrics queue")) << g.n;
        EXPECT_TRUE(g.logged == nullptr || edge.contains(g.logged)) << g.n;
    }
    BsonMessages batch;
    for (int i = 0; i < 150; i++) appendMetricsMessage(batch, std::to_string(i));
    appendMetricsMessage(batch, "");
    EXPECT_EQ((std::vector<std::string>{"50", "149"}), (std::vector<std::string>{batch.messages.front(), batch.messages.back()}));
    EXPECT_EQ(kMaxMetricsBatch, batch.messages.size());
}

TEST(CustomMetrics, ProducersAgainstTheMetricThread) {
    vesk_ssl_reporter r(nullptr, config(64));
    r.setSocketParams("127.0.0.1", 1);
    r.processRemoteConfig({{"MetricsFlushInterval", std::string("\x10\x0e\0\0", 4)}});  // 3600 s: no message meanwhile
    std::atomic<int> accepted{0};
    std::vector<std::thread> producers;
    for (int t = 0; t < 4; t++)
        producers.emplace_back([&] {
            for (int i = 0; i < 2000; i++) accepted += r.addCustomMetric("m", 1, 1, 0, "s", 1, nullptr, 0);
        });
    for (auto &p : producers) p.join();
    r.disconnect();
    // Accepted ones are aggregated or still queued (or pushed out by a producer that passed the gate at the same
    // moment); the queue refused the rest.
    int aggregated = r.customMetrics.empty() ? 0 : r.customMetrics.measurements().begin()->second->getCount();
    EXPECT_LT(accepted.load(), 8000);
    EXPECT_EQ(accepted.load(), aggregated + static_cast<int>(r.customMetricQueue.count() + r.customMetricQueue.overflowed()));
}
