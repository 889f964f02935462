// The tracing decision: an ordinary request, one with a signature to check,
// and eight threads at once. Heap allocations during the timed loops are
// counted and reported as the counter "allocs_per_decision".
#include <benchmark/benchmark.h>
#include <openssl/evp.h>
#include <openssl/hmac.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include <atomic>
#include <new>
#include <string>

#include "corvidine/settings.h"
#include "corvidine/startup.h"
#include "corvidine/tracing_decisions.h"

// ---- Allocation counting -------------------------------------------------
// malloc and friends are replaced for this binary and forward to glibc's own
// entry points; calls are counted only while a benchmark asks. operator new
// comes through malloc. Sanitizer builds keep their own allocator.
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__) && defined(__GLIBC__)
#define CORVIDINE_COUNT_ALLOCS 1
namespace {
std::atomic<bool> g_counting{false};
std::atomic<long> g_allocs{0};
inline void note_alloc() {
    if (g_counting.load(std::memory_order_relaxed)) g_allocs.fetch_add(1, std::memory_order_relaxed);
}
}  // namespace
extern "C" {
void *__libc_malloc(size_t);
void *__libc_calloc(size_t, size_t);
void *__libc_realloc(void *, size_t);
void __libc_free(void *);
void *malloc(size_t n) {
    note_alloc();
    return __libc_malloc(n);
}
void *calloc(size_t n, size_t size) {
    note_alloc();
    return __libc_calloc(n, size);
}
void *realloc(void *p, size_t n) {
    note_alloc();
    return __libc_realloc(p, n);
}
void free(void *p) {
    __libc_free(p);
}
}
#endif

namespace {

void start_counting() {
#ifdef CORVIDINE_COUNT_ALLOCS
    g_allocs = 0;
    g_counting = true;
#endif
}
void stop_counting(benchmark::State &state, long decisions) {
#ifdef CORVIDINE_COUNT_ALLOCS
    g_counting = false;
    state.counters["allocs_per_decision"] =
        decisions > 0 ? static_cast<double>(g_allocs.load()) / static_cast<double>(decisions) : 0.0;
    state.counters["allocs_total"] = static_cast<double>(g_allocs.load());
#else
    (void)state;
    (void)decisions;
#endif
}

int always(void *) {
    return 1;
}
vesk_reporter_t g_bench_reporter;

// A reporter that is always ready, unless one that is ready is there already.
void ensure_reporter() {
    if (vesk_reporter_is_ready(nullptr) == 0) return;
    if (vesk_reporter_get() != nullptr) _vesk_destroy_reporter(nullptr);
    memset(&g_bench_reporter, 0, sizeof(g_bench_reporter));
    g_bench_reporter.context = &g_bench_reporter;
    g_bench_reporter.event_ready = always;
    g_bench_reporter.get_server_response = always;
    _vesk_reporter_register(&g_bench_reporter);
}

const char kKey[] = "k3Tq7XwPbnR2vLyd9HsA";

// A default record that always samples, buckets that never run dry, and a
// few services so the entry lookup is not trivially the first.
bool setup_table() {
    ensure_reporter();
    if (vesk_reporter_is_ready(nullptr) != 0) return false;
    vesk_settings_init_local();
    _vesk_settings_reset();
    vesk_settings_cfg_init(vesk_settings_cfg_get());
    const double caps[3] = {1e12, 1e12, 1e12}, rates[3] = {1e12, 1e12, 1e12};
    if (vesk_settings_add("", 2, 1000000, 0x14, 1, 60, caps, rates, kKey, 0) != 0) return false;
    for (int i = 0; i < 8; ++i) vesk_settings_entry_layer_get(("other-service-" + std::to_string(i)).c_str());
    return true;
}

vesk_tracing_decisions_in_t ordinary_in() {
    vesk_tracing_decisions_in_t in;
    memset(&in, 0, sizeof(in));
    in.version = 2;
    in.service_name = "shop-frontend";
    in.custom_sample_rate = -1;
    in.custom_tracing_mode = -1;
    in.custom_trigger_mode = -1;
    return in;
}

void BM_DecisionOrdinary(benchmark::State &state) {
    if (!setup_table()) {
        state.SkipWithError("no reporter or settings");
        return;
    }
    vesk_tracing_decisions_in_t in = ordinary_in();
    vesk_tracing_decisions_out_t out;
    memset(&out, 0, sizeof(out));
    vesk_tracing_decisions(&in, &out);  // first call creates the entry and resolves settings
    long sampled = 0;
    start_counting();
    for (auto _ : state) {
        vesk_tracing_decisions(&in, &out);
        sampled += out.do_sample;
    }
    stop_counting(state, static_cast<long>(state.iterations()));
    if (sampled != static_cast<long>(state.iterations())) state.SkipWithError("not every decision sampled");
}
BENCHMARK(BM_DecisionOrdinary)->Repetitions(10)->ReportAggregatesOnly(true);

void BM_DecisionWithSignature(benchmark::State &state) {
    if (!setup_table()) {
        state.SkipWithError("no reporter or settings");
        return;
    }
    char options[96];
    long now = static_cast<long>(time(nullptr));
    snprintf(options, sizeof(options), "trigger-trace;ts=%ld", now);
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    HMAC(EVP_sha1(), kKey, static_cast<int>(strlen(kKey)), reinterpret_cast<unsigned char *>(options),
         strlen(options), digest, &length);
    char signature[41];
    for (unsigned i = 0; i < 20; ++i) snprintf(signature + 2 * i, 3, "%02x", digest[i]);

    vesk_tracing_decisions_in_t in = ordinary_in();
    in.request_type = 1;
    in.header_options = options;
    in.header_signature = signature;
    in.header_timestamp = now;
    vesk_tracing_decisions_out_t out;
    memset(&out, 0, sizeof(out));
    vesk_tracing_decisions(&in, &out);
    if (out.auth_status != 0) {
        state.SkipWithError("signature refused");
        return;
    }
    start_counting();
    for (auto _ : state) {
        benchmark::DoNotOptimize(vesk_tracing_decisions(&in, &out));
    }
    stop_counting(state, static_cast<long>(state.iterations()));
}
BENCHMARK(BM_DecisionWithSignature)->Repetitions(5)->ReportAggregatesOnly(true);

// The same ordinary decision from 1 and from 8 threads at once, all on one
// service and one bucket; compare items_per_second.
void BM_DecisionThreads(benchmark::State &state) {
    if (state.thread_index() == 0 && !setup_table()) {
        state.SkipWithError("no reporter or settings");
        return;
    }
    vesk_tracing_decisions_in_t in = ordinary_in();
    vesk_tracing_decisions_out_t out;
    memset(&out, 0, sizeof(out));
    for (auto _ : state) {
        benchmark::DoNotOptimize(vesk_tracing_decisions(&in, &out));
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_DecisionThreads)->Threads(1)->Threads(8)->UseRealTime();

}  // namespace
