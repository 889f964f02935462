// The Collector reporter: what a request thread pays to hand over one
// document (the push path, with 1 and 8 producers; median and p99 per
// call), how many events a second the event thread serializes, compresses
// and delivers to the local test Collector, and how many bytes one event
// takes after Thrift framing and zlib (before TLS records).
#include <benchmark/benchmark.h>
#include <stdlib.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <mutex>
#include <random>
#include <thread>
#include <vector>

#include <thrift/protocol/TBinaryProtocol.h>
#include <thrift/transport/TBufferTransports.h>
#include <thrift/transport/TZlibTransport.h>

#include "corvidine/bson.h"
#include "corvidine/ssl_reporter.h"
#include "corvidine/startup.h"
#include "dev_collector.h"
#include "latency_samples.h"
#include "ssl_reporter.h"

using namespace corvidine;
using Clock = std::chrono::steady_clock;

namespace {

const bool kNoCloud = setenv("CORVIDINE_CLOUD_METADATA", "off", 1) == 0;

// An entry event of a typical PHP request, as the core writes it.
std::string sampleEvent(int n) {
    vesk_bson_buffer b;
    vesk_bson_buffer_init(&b);
    vesk_bson_append_string(&b, "_V", "1");
    // Task and op ids are random in real traces: they are what zlib cannot shrink.
    static std::mt19937_64 random(12345);
    char xtrace[61];
    snprintf(xtrace, sizeof xtrace, "2B%016llX%016llX%08X%016llX01", (unsigned long long)random(),
             (unsigned long long)random(), (unsigned)random(), (unsigned long long)random());
    vesk_bson_append_string(&b, "X-Trace", xtrace);
    vesk_bson_append_string(&b, "Label", "entry");
    vesk_bson_append_string(&b, "Layer", "PHP");
    vesk_bson_append_string(&b, "URL", "/shop/cart/items?page=2&sort=price");
    vesk_bson_append_string(&b, "HTTP-Host", "shop.example.com");
    vesk_bson_append_string(&b, "Method", "GET");
    vesk_bson_append_string(&b, "ClientIP", "10.1.2.3");
    vesk_bson_append_int(&b, "SampleSource", 6);
    vesk_bson_append_int(&b, "SampleRate", 1000000);
    vesk_bson_append_long(&b, "Timestamp_u", 1795432652050003LL + n * 7919LL);
    vesk_bson_append_string(&b, "Hostname", "web-7");
    char *data = vesk_bson_buffer_finish(&b);
    std::string out(data, vesk_bson_buffer_size(&b));
    vesk_bson_buffer_destroy(&b);
    return out;
}

SslReporterConfig benchConfig() {
    SslReporterConfig c;
    c.serviceKey = "0123456789abcdef:bench";
    c.flushMaxWaitTime = 0;
    return c;
}

// Push path: the reporter is not connected (closed port), so a drain thread
// of the benchmark keeps the queue from overflowing.
void BM_PushPath(benchmark::State &state) {
    static vesk_ssl_reporter *reporter;
    static std::thread drain;
    static std::atomic<bool> draining;
    static LatencySamples samples;
    if (state.thread_index() == 0) {
        reporter = new vesk_ssl_reporter(nullptr, benchConfig());
        reporter->setSocketParams("127.0.0.1", 1);
        draining = true;
        drain = std::thread([] {
            while (draining) reporter->eventQueue.pop(Clock::now() + std::chrono::milliseconds(10));
        });
        samples.clear();
    }
    const std::string doc = sampleEvent(1);
    std::vector<int64_t> mine;
    mine.reserve(1 << 20);
    for (auto _ : state) {
        auto t0 = Clock::now();
        reporter->send(0, doc.data(), doc.size());
        mine.push_back(std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now() - t0).count());
    }
    samples.add(mine);
    state.SetItemsProcessed(state.iterations());
    if (state.thread_index() == 0) {
        samples.report(state);
        state.counters["dropped"] = static_cast<double>(reporter->getOverflowedCount());
        draining = false;
        drain.join();
        delete reporter;
    }
}
BENCHMARK(BM_PushPath)->Threads(1)->Threads(8)->UseRealTime();

// Delivery: documents pushed as fast as the queue's ready test allows; the
// event thread posts them in batches. Events a second, end to end.
void BM_DeliveredToLocalCollector(benchmark::State &state) {
    if (devCollector().port == 0) return state.SkipWithError("no test Collector");
    SslReporterConfig c = benchConfig();
    c.trustedPath = devCollector().trusted;
    c.eventsFlushBatchSize = 256;  // KB per post
    vesk_ssl_reporter reporter(nullptr, c);
    reporter.setSocketParams("localhost", devCollector().port);
    const std::string doc = sampleEvent(2);
    const uint64_t perRound = 20000;
    for (auto _ : state) {
        uint64_t target = reporter.getSentCount() + perRound;
        for (uint64_t i = 0; i < perRound;) {
            if (reporter.isEventQueueReady()) {
                reporter.send(0, doc.data(), doc.size());
                i++;
            } else {
                std::this_thread::sleep_for(std::chrono::microseconds(200));
            }
        }
        reporter.flush(60000);
        while (reporter.getSentCount() < target) std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    state.SetItemsProcessed(state.iterations() * perRound);
    state.counters["event_bytes"] = static_cast<double>(doc.size());
}
BENCHMARK(BM_DeliveredToLocalCollector)->Unit(benchmark::kMillisecond)->Iterations(2)->UseRealTime();

// Bytes per event on the wire: one postEvents call of `batch` documents
// through the same protocol stack as a connection (binary protocol over
// zlib at its default level), written into memory.
void BM_WireBytesPerEvent(benchmark::State &state) {
    using namespace apache::thrift;
    const int batch = static_cast<int>(state.range(0));
    std::vector<std::string> docs;
    for (int i = 0; i < batch; i++) docs.push_back(sampleEvent(i));
    double perEvent = 0;
    for (auto _ : state) {
        auto memory = std::make_shared<transport::TMemoryBuffer>();
        auto zlib = std::make_shared<transport::TZlibTransport>(memory, 128, 1024, 128, 1024, Z_DEFAULT_COMPRESSION);
        ::collector::thrift::CollectorClient client(std::make_shared<protocol::TBinaryProtocol>(zlib));
        ::collector::thrift::HostID id;
        id.__set_hostname("web-7");
        id.__set_pid(4242);
        client.send_postEvents("0123456789abcdef:bench", docs, ::collector::thrift::EncodingType::BSON, id);
        perEvent = static_cast<double>(memory->available_read()) / batch;
    }
    state.counters["wire_bytes_per_event"] = perEvent;
    state.counters["bson_bytes_per_event"] = static_cast<double>(docs[0].size());
}
BENCHMARK(BM_WireBytesPerEvent)->Arg(1)->Arg(100)->Arg(1000)->Unit(benchmark::kMicrosecond);

}  // namespace
