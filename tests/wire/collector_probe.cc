// Drives one Collector connection step by step for collector_check.py (one line per step on stdout, debug log on
// stderr): collector_probe HOST PORT TRUSTFILE APIKEY [recv=MS] STEP... with steps connect, connect-both (both links
// at once), ping, postEvents|postMetrics|postStatus:HEX,HEX.., getSettings, redirect, close, fork-closeSockets, maxrss.
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "connector.h"
#include "corvidine/debug_log.h"

using namespace corvidine;
namespace wire = ::collector::thrift;

static std::string unhex(const std::string &text) {
    std::string out;
    for (size_t i = 0; i + 1 < text.size(); i += 2) out += static_cast<char>(std::stoi(text.substr(i, 2), nullptr, 16));
    return out;
}

static std::string hex(const std::string &bytes) {
    std::string out;
    for (unsigned char c : bytes) out += {"0123456789abcdef"[c >> 4], "0123456789abcdef"[c & 15]};
    return out;
}

static std::vector<std::string> documents(const std::string &list) {
    std::vector<std::string> out;
    std::istringstream in(list);
    for (std::string item; std::getline(in, item, ',');) out.push_back(unhex(item));
    return out;
}

int main(int argc, char **argv) {
    if (argc < 5) {
        fprintf(stderr, "usage: %s HOST PORT TRUSTFILE APIKEY [recv=MS] STEP...\n", argv[0]);
        return 2;
    }
    signal(SIGPIPE, SIG_IGN);  // a peer's close shows as a write error
    setvbuf(stdout, nullptr, _IOLBF, 0);
    vesk_debug_log_level_set(VESK_DEBUG_MODULE_REPORTER_SSL, VESK_DEBUG_LOW);

    auto factory = std::make_shared<VeskSSLSocketFactory>();
    std::string error;
    if (factory->loadTrust(argv[3], error) != 0) {
        printf("trust failed: %s\n", error.c_str());
        return 0;
    }
    int first = 5;
    CollectorTimeouts timeouts;
    if (argc > 5 && strncmp(argv[5], "recv=", 5) == 0) {
        timeouts.recvMs = atoi(argv[5] + 5);
        first = 6;
    }
    CollectorConnector connector(factory, argv[4], timeouts);
    connector.setSocketParams(argv[1], atoi(argv[2]));
    CollectorLink &link = connector.eventLink;

    wire::HostID identity;
    identity.hostname = "probe-host";
    identity.pid = static_cast<int32_t>(getpid());
    identity.macAddresses = {"02:00:00:00:00:01"};
    std::string lastArg;

    for (int i = first; i < argc; i++) {
        std::string step = argv[i];
        std::string name = step.substr(0, step.find(':'));
        try {
            if (name == "connect") {
                int fd = connector.connect(link);
                printf("connect %s response=%d\n", fd > 0 ? "ok" : "failed", connector.getServerResponse());
            } else if (name == "connect-both") {
                int fds[2] = {0, 0};
                std::thread metric([&] { fds[1] = connector.connect(connector.metricLink); });
                fds[0] = connector.connect(link);
                metric.join();
                printf("connect-both event=%s metric=%s\n", fds[0] > 0 ? "ok" : "failed", fds[1] > 0 ? "ok" : "failed");
            } else if (name == "ping") {
                wire::ResultMessage reply;
                link.client->ping(reply, argv[4]);
                lastArg = reply.arg;
                printf("ping result=%d arg=%s\n", static_cast<int>(reply.result), reply.arg.c_str());
            } else if (name == "postEvents" || name == "postMetrics" || name == "postStatus") {
                std::vector<std::string> docs = documents(step.size() > name.size() ? step.substr(name.size() + 1) : "");
                wire::ResultMessage reply;
                if (name == "postEvents") link.client->postEvents(reply, argv[4], docs, wire::EncodingType::BSON, identity);
                if (name == "postMetrics") link.client->postMetrics(reply, argv[4], docs, wire::EncodingType::BSON, identity);
                if (name == "postStatus") link.client->postStatus(reply, argv[4], docs, wire::EncodingType::BSON, identity);
                lastArg = reply.arg;
                printf("%s result=%d arg=%s\n", name.c_str(), static_cast<int>(reply.result), reply.arg.c_str());
            } else if (name == "getSettings") {
                wire::HostID fresh;
                fresh.hostname = "probe-host";
                wire::SettingsResult reply;
                link.client->getSettings(reply, argv[4], fresh, "2");
                lastArg = reply.arg;
                printf("getSettings result=%d arg=%s settings=%zu\n", static_cast<int>(reply.result), reply.arg.c_str(),
                       reply.settings.size());
                for (const auto &s : reply.settings) {
                    printf("setting type=%d flags=%s timestamp=%lld value=%lld layer=%s ttl=%lld", static_cast<int>(s.type),
                           s.flags.c_str(), static_cast<long long>(s.timestamp), static_cast<long long>(s.value),
                           s.layer.c_str(), static_cast<long long>(s.ttl));
                    for (const auto &kv : s.arguments) printf(" %s=%s", kv.first.c_str(), hex(kv.second).c_str());
                    printf("\n");
                }
            } else if (name == "redirect") {
                int rc = connector.setRedirectAddress(lastArg);
                printf("redirect rc=%d target=%s:%d\n", rc, connector.host().c_str(), connector.port());
            } else if (name == "close") {
                printf("close rc=%d\n", CollectorConnector::close(link.transport));
            } else if (name == "fork-closeSockets") {
                fflush(stdout);
                pid_t child = fork();
                if (child == 0) {
                    printf("child closeSockets rc=%d\n", connector.closeSockets());
                    fflush(stdout);
                    _exit(0);
                }
                int status = 0;
                waitpid(child, &status, 0);
                printf("child exit=%d\n", WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status));
            } else if (name == "maxrss") {
                struct rusage usage;
                getrusage(RUSAGE_SELF, &usage);
                printf("maxrss_kb=%ld\n", usage.ru_maxrss);
            } else {
                printf("unknown step %s\n", step.c_str());
                return 2;
            }
        } catch (const std::exception &e) {
            printf("%s error: %s\n", name.c_str(), e.what());
            link.connected = false;
        }
    }
    return 0;
}
