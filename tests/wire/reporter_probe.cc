// The whole Collector reporter in a small process, for metrics_check.py: reporter_probe HOST:PORT TRUSTFILE STEP...
// with steps span:SERVICE:NAME:MICROS:STATUS:METHOD:ERROR[xN], summary:NAME:VALUE:COUNT:HOSTTAG:SERVICE[:K=V..][xN],
// increment:NAME:COUNT:HOSTTAG:SERVICE[:K=V..][xN], sleep:MS, shutdown. One line per step with its result on stdout.
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <sstream>
#include <string>
#include <vector>

#include "corvidine/custom_metric.h"
#include "corvidine/ssl_reporter.h"
#include "corvidine/startup.h"

static std::vector<std::string> split(const std::string &text, char at) {
    std::vector<std::string> out;
    std::istringstream in(text);
    for (std::string item; std::getline(in, item, at);) out.push_back(item);
    return out;
}

int main(int argc, char **argv) {
    if (argc < 3) {
        fprintf(stderr, "usage: %s HOST:PORT TRUSTFILE STEP...\n", argv[0]);
        return 2;
    }
    setvbuf(stdout, nullptr, _IOLBF, 0);
    vesk_reporter_register_ssl();
    vesk_init_options_t options;
    options.version = VESK_INIT_OPTIONS_VERSION;
    vesk_init_options_set_defaults(&options);
    options.reporter = "ssl";
    options.host = argv[1];
    options.trusted_path = argv[2];
    options.service_key = "0123456789abcdef:probe-service";
    options.hostname_alias = "probe-alias";
    options.max_flush_wait_time = 3000;
    if (getenv("PROBE_LOG_LEVEL")) options.log_level = atoi(getenv("PROBE_LOG_LEVEL"));
    printf("init %d\n", vesk_init(&options));

    for (int i = 3; i < argc; i++) {
        std::string step = argv[i];
        int times = 1;
        size_t x = step.rfind('x');
        if (x != std::string::npos && x + 1 < step.size() && strspn(step.c_str() + x + 1, "0123456789") == step.size() - x - 1) {
            times = atoi(step.c_str() + x + 1);
            step.resize(x);
        }
        std::vector<std::string> f = split(step, ':');
        int ok = 0;
        for (int n = 0; n < times; n++) {
            if (f[0] == "span" && f.size() == 7) {
                vesk_reporter_t *r = vesk_reporter_get();
                ok += r->send_http_span(vesk_reporter_get_context(r), f[1].c_str(), f[2].c_str(), atol(f[3].c_str()),
                                        atoi(f[4].c_str()), f[5].c_str(), atoi(f[6].c_str())) == 0;
            } else if ((f[0] == "summary" && f.size() >= 6) || (f[0] == "increment" && f.size() >= 5)) {
                bool summary = f[0] == "summary";
                size_t first = summary ? 6 : 5;
                std::vector<std::string> kv;
                std::vector<vesk_metric_tag_t> tags;
                for (size_t t = first; t < f.size(); t++) kv.push_back(f[t]);
                for (std::string &pair : kv) {
                    size_t eq = pair.find('=');
                    pair[eq] = '\0';
                    tags.push_back({pair.c_str(), pair.c_str() + eq + 1});
                }
                const char *service = f[summary ? 5 : 4].empty() ? nullptr : f[summary ? 5 : 4].c_str();
                ok += summary ? vesk_custom_metric_summary(f[1].c_str(), atof(f[2].c_str()), atoi(f[3].c_str()),
                                                           atoi(f[4].c_str()), service, tags.data(), tags.size())
                              : vesk_custom_metric_increment(f[1].c_str(), atoi(f[2].c_str()), atoi(f[3].c_str()),
                                                             service, tags.data(), tags.size());
            } else if (f[0] == "sleep") {
                usleep(static_cast<useconds_t>(atoi(f[1].c_str())) * 1000);
                ok = 1;
            } else if (f[0] == "shutdown") {
                ok = vesk_shutdown();
            } else {
                printf("unknown step %s\n", argv[i]);
                return 2;
            }
        }
        printf("%s %d\n", f[0].c_str(), ok);
    }
    return 0;
}
