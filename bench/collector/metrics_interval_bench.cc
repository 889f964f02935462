// The metric thread's work for one metrics interval (a minute at the default
// interval): fold the interval's spans and custom metrics into their
// aggregates, then build the metrics message and the custom metrics message.
// Load: 1,000 distinct transactions of one service, 10 HTTP spans each, and
// 50 custom metrics recorded 20 times each. One iteration is one interval, so
// its CPU time is the thread's CPU per minute at that load. Baseline in the
// same run: a quiet interval (no spans, no custom metrics), whose message
// still carries the host and reporter values.
//
// Counters: message bytes, the number of measurements and histograms the
// interval held and the histograms' count arrays in bytes; with the transaction limit (200 by default, 1,000 when the
// Collector raises it) the names beyond it land on "other", which bounds the
// memory an interval can hold.
#include <benchmark/benchmark.h>

#include <string>
#include <vector>

#include "corvidine/custom_metrics.h"
#include "corvidine/metrics_message.h"
#include "corvidine/span_aggregator.h"

using namespace corvidine;

namespace {

constexpr int kTransactions = 1000;
constexpr int kSpansPerTransaction = 10;
constexpr int kCustomMetrics = 50;
constexpr int kCustomRecordings = 20;

const std::vector<std::string> &names() {
    static const std::vector<std::string> all = [] {
        std::vector<std::string> v;
        for (int i = 0; i < kTransactions; i++) v.push_back("/api/v2/resource" + std::to_string(i) + "/show");
        return v;
    }();
    return all;
}

HostFacts facts() {
    HostFacts h;
    h.configuredHostname = "bench-host";
    h.distro = "Debian 12";
    h.haveIPAddresses = true;
    h.ipAddresses = {"192.0.2.10", "2001:db8::10"};
    return h;
}

// One interval at transaction limit `limit` (0: a quiet interval).
void runInterval(benchmark::State &state, int limit) {
    SpanAggregator spans;
    CustomMetrics custom;
    const HostFacts host = facts();
    vesk_metric_tag_t tags[] = {{"region", "eu-west"}, {"tier", "web"}};
    size_t bytes = 0, measurements = 0, histograms = 0, histogramBytes = 0;
    for (auto _ : state) {
        for (int round = 0; limit > 0 && round < kSpansPerTransaction; round++) {
            for (const std::string &name : names()) {
                // What the request thread decides before it queues the span.
                const char *transaction =
                    spans.limit().isWithinLimit(transactionKey("shop", name.c_str()), limit) ? name.c_str() : "other";
                spans.process(HttpSpanMessage("shop", transaction, 1000 + round * 37, round % 5 ? 200 : 500,
                                              round % 2 ? "GET" : "POST", round % 5 == 0));
            }
        }
        for (int r = 0; limit > 0 && r < kCustomRecordings; r++)
            for (int m = 0; m < kCustomMetrics; m++) {
                std::string name = "custom.metric." + std::to_string(m);
                custom.processCustomMetricMessage(
                    CustomMetricMessage("shop", name.c_str(), 1.5 * r, 1, r % 2, m % 3 != 0, tags, 2),
                    kDefaultMaxCustomMetrics);
            }
        measurements = spans.measurements().size() + custom.size();
        histograms = spans.histograms().size();
        histogramBytes = 0;
        for (const auto &h : spans.histograms())
            histogramBytes += static_cast<size_t>(h.second->hdr()->counts_len) * sizeof(int64_t);
        std::string message = generateMetricsMessage(host, ReporterTotals{}, spans, 60);
        bytes = message.size();
        if (!custom.empty()) bytes += custom.generateCustomMetricsMessage(host, 60).size();
        benchmark::DoNotOptimize(message.data());
    }
    state.counters["message_bytes"] = static_cast<double>(bytes);
    state.counters["measurements"] = static_cast<double>(measurements);
    state.counters["histograms"] = static_cast<double>(histograms);
    state.counters["histogram_bytes"] = static_cast<double>(histogramBytes);  // what the interval held at its end
    state.counters["spans"] = limit > 0 ? kTransactions * kSpansPerTransaction : 0;
}

void BM_MetricsIntervalQuiet(benchmark::State &state) { runInterval(state, 0); }
void BM_MetricsInterval1000Transactions(benchmark::State &state) { runInterval(state, static_cast<int>(state.range(0))); }

}  // namespace

BENCHMARK(BM_MetricsIntervalQuiet)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_MetricsInterval1000Transactions)->Arg(200)->Arg(1000)->Unit(benchmark::kMillisecond);
