// Spans: what a request thread pays at request end (the transaction-name
// limit check, then one allocation and one push into the span queue; median
// and p99 per call, with 1 and 4 producers while a consumer aggregates), and
// how many spans a second the metric thread folds into its aggregates.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "corvidine/span_aggregator.h"
#include "latency_samples.h"
#include "ssl_reporter.h"  // the span queue type

using namespace corvidine;
using Clock = std::chrono::steady_clock;

namespace {

// Transaction names as a shop's routes give them, 40 distinct.
std::vector<std::string> routeNames() {
    std::vector<std::string> names;
    const char *areas[] = {"/catalog", "/cart", "/checkout", "/account", "/api/v2/orders"};
    for (const char *a : areas)
        for (int i = 0; i < 8; i++) names.push_back(std::string(a) + "/item" + std::to_string(i));
    return names;
}

void BM_SpanPushOnRequestThread(benchmark::State &state) {
    static RingBuffer<SpanMessage, kQueueSlots> *queue;
    static SpanAggregator *aggregator;
    static std::thread consumer;
    static std::atomic<bool> consuming;
    static LatencySamples samples;
    if (state.thread_index() == 0) {
        queue = new RingBuffer<SpanMessage, kQueueSlots>(1000);  // the reporter's default buffer size
        aggregator = new SpanAggregator();
        consuming = true;
        consumer = std::thread([] {
            while (consuming) {
                auto span = queue->pop(Clock::now() + std::chrono::milliseconds(10));
                if (span) aggregator->process(*span);
            }
        });
        samples.clear();
    }
    const std::vector<std::string> names = routeNames();
    std::vector<int64_t> mine;
    mine.reserve(1 << 20);
    size_t n = static_cast<size_t>(state.thread_index());
    for (auto _ : state) {
        const std::string &name = names[n++ % names.size()];
        auto t0 = Clock::now();
        const char *transaction = aggregator->limit().isWithinLimit(transactionKey("shop", name.c_str()), 200)
                                      ? name.c_str()
                                      : "other";
        queue->push(std::make_shared<HttpSpanMessage>("shop", transaction, 1234, 200, "GET", 0));
        mine.push_back(std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now() - t0).count());
    }
    samples.add(mine);
    state.SetItemsProcessed(state.iterations());
    if (state.thread_index() == 0) {
        samples.report(state);
        state.counters["dropped"] = static_cast<double>(queue->overflowed());
        consuming = false;
        consumer.join();
        delete queue;
        delete aggregator;
    }
}
BENCHMARK(BM_SpanPushOnRequestThread)->Threads(1)->Threads(4)->UseRealTime();

// The metric thread's side: HTTP spans over 40 transactions, two methods and
// four statuses, one in ten with an error, folded into an interval's
// aggregates (two histogram records and three or four measurements
// per span). Spans a second.
void BM_AggregateHttpSpans(benchmark::State &state) {
    const std::vector<std::string> names = routeNames();
    const int statuses[] = {200, 200, 302, 404};
    std::vector<std::unique_ptr<HttpSpanMessage>> spans;
    for (int i = 0; i < 4000; i++)
        spans.push_back(std::make_unique<HttpSpanMessage>("shop", names[i % names.size()].c_str(),
                                                          200 + (i * 7919) % 90000, statuses[i % 4],
                                                          i % 3 ? "GET" : "POST", i % 10 == 0));
    SpanAggregator aggregator;
    for (auto _ : state) {
        for (const auto &s : spans) aggregator.process(*s);
    }
    state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(spans.size()));
    state.counters["measurements"] = static_cast<double>(aggregator.measurements().size());
    state.counters["histograms"] = static_cast<double>(aggregator.histograms().size());
}
BENCHMARK(BM_AggregateHttpSpans)->Unit(benchmark::kMicrosecond);

}  // namespace
