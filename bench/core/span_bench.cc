// Transaction names: worked out on every request at request end.
#include <benchmark/benchmark.h>
#include <string.h>

#include "corvidine/span.h"

namespace {

int always_within(void *, const char *, const char *) {
    return 1;
}

void run_name(benchmark::State &state, const char *url, const char *domain) {
    vesk_reporter_t reporter;
    memset(&reporter, 0, sizeof(reporter));
    reporter.is_winthin_limit = always_within;
    vesk_span_params_t p;
    memset(&p, 0, sizeof(p));
    p.version = 2;
    p.service = "shop";
    p.url = url;
    p.domain = domain;
    char buf[256];
    for (auto _ : state) {
        int n = vesk_span_get_transaction_name(&reporter, nullptr, buf, sizeof(buf), &p);
        benchmark::DoNotOptimize(n);
        benchmark::ClobberMemory();
    }
}

void BM_TransactionNameFromUrl(benchmark::State &state) {
    run_name(state, "/api/v2/users/12345/orders?include=items&page=3#top", nullptr);
}
BENCHMARK(BM_TransactionNameFromUrl);

void BM_TransactionNameFromFullUrlWithDomain(benchmark::State &state) {
    run_name(state, "https://www.example.com/catalog/shoes/running?size=44", "www.example.com");
}
BENCHMARK(BM_TransactionNameFromFullUrlWithDomain);

}  // namespace
