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

using namespace corvidine;

namespace {

struct DevCollector {
    pid_t pid = -1;
    int port = 0;
    std::string trusted;

    DevCollector() {
        char dir[] = "/tmp/collector-bench-XXXXXX";
        if (mkdtemp(dir) == nullptr) return;
        int out[2];
        if (pipe(out) != 0) return;
        pid = fork();
        if (pid == 0) {
            dup2(out[1], 1);
            close(out[0]);
            std::string script = std::string(CORVIDINE_SOURCE_DIR) + "/tools/collector/collector.py";
            execl("/usr/bin/python3", "python3", script.c_str(), "--dir", dir, "--quiet", (char *)nullptr);
            _exit(127);
        }
        close(out[1]);
        // First line: {"port": N, "trusted": "PATH"}
        FILE *f = fdopen(out[0], "r");
        char line[1024] = "";
        if (f && fgets(line, sizeof line, f)) {
            char path[900] = "";
            if (sscanf(line, "{\"port\": %d, \"trusted\": \"%899[^\"]\"}", &port, path) == 2) trusted = path;
        }
        if (f) fclose(f);
    }
    ~DevCollector() {
        if (pid > 0) {
            kill(pid, SIGTERM);
            waitpid(pid, nullptr, 0);
        }
    }
};

DevCollector &collector() {
    static DevCollector c;
    return c;
}

std::shared_ptr<CollectorConnector> connector() {
    auto factory = std::make_shared<VeskSSLSocketFactory>();
    std::string error;
    if (factory->loadTrust(collector().trusted, error) != 0) return nullptr;
    auto c = std::make_shared<CollectorConnector>(factory, "0123456789abcdef:bench");
    c->setSocketParams("localhost", collector().port);
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
