// Round trips to the local Collector (tools/collector, Python) on
// loopback: a whole connect (TCP, TLS handshake with name check, ping), and
// postEvents of one batch on an open connection. The Python server is
// likely the slower side: read these as an upper bound of our cost.
#include <benchmark/benchmark.h>

#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "connector.h"
#include "dev_collector.h"

using namespace corvidine;

namespace {

std::shared_ptr<CollectorConnector> connector() {
    auto factory = std::make_shared<VeskSSLSocketFactory>();
    std::string error;
    if (factory->loadTrust(devCollector().trusted, error) != 0) return nullptr;
    auto c = std::make_shared<CollectorConnector>(factory, "0123456789abcdef:bench");
    c->setSocketParams("localhost", devCollector().port);
    return c;
}

void BM_ConnectHandshakePing(benchmark::State &state) {
    auto c = connector();
    if (!c) return state.SkipWithError("no test Collector");
    for (auto _ : state) {
        if (c->connect(c->eventLink) <= 0) return state.SkipWithError("connect failed");
    }
}
BENCHMARK(BM_ConnectHandshakePing)->Unit(benchmark::kMillisecond);

// One batch of `range(0)` documents of 1 KB each per call.
void BM_PostEvents(benchmark::State &state) {
    auto c = connector();
    if (!c || c->connect(c->eventLink) <= 0) return state.SkipWithError("no test Collector");
    std::vector<std::string> batch(static_cast<size_t>(state.range(0)), std::string(1024, 'e'));
    ::collector::thrift::HostID identity;
    identity.hostname = "bench-host";
    ::collector::thrift::ResultMessage reply;
    for (auto _ : state) c->eventLink.client->postEvents(reply, "0123456789abcdef:bench", batch,
                                                        ::collector::thrift::EncodingType::BSON, identity);
    state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_PostEvents)->Arg(1)->Arg(100)->Unit(benchmark::kMicrosecond);

}  // namespace
