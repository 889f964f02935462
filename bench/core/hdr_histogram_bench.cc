// HDR histograms: a record per span on the metric thread, an encode per
// histogram and metrics interval.
#include <benchmark/benchmark.h>
#include <stdlib.h>
#include <string.h>

#include <random>
#include <vector>

#include "corvidine/hdr_histogram.h"
#include "corvidine/hdr_log.h"

namespace {

hdr_histogram *make(int figures) {
    hdr_histogram *h = nullptr;
    if (hdr_init(HDR_LOWEST_TRACKABLE_VALUE, HDR_HIGHEST_TRACKABLE_VALUE, figures, &h) != 0) abort();
    return h;
}

// Response times spread over the whole range, mostly below a second.
void BM_HdrRecordValue(benchmark::State &state) {
    hdr_histogram *h = make(static_cast<int>(state.range(0)));
    std::mt19937_64 rng(1);
    std::vector<int64_t> values(4096);
    for (int64_t &v : values) v = static_cast<int64_t>(rng() % (uint64_t{1} << (rng() % 31)));
    size_t i = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(hdr_record_value(h, values[i++ & 4095]));
    }
    hdr_close(h);
}
BENCHMARK(BM_HdrRecordValue)->Arg(2)->Arg(5);

// Encodes h on every iteration, reports the encoding's length, frees h.
void encodeLoop(benchmark::State &state, hdr_histogram *h) {
    size_t length = 0;
    for (auto _ : state) {
        char *text = nullptr;
        if (hdr_log_encode(h, &text) != 0) abort();
        length = strlen(text);
        free(text);
    }
    state.counters["base64_bytes"] = static_cast<double>(length);
    hdr_close(h);
}

// Every slot of a precision-5 histogram holds a count (about 2 million slots).
void BM_HdrEncodeFullPrecision5(benchmark::State &state) {
    hdr_histogram *h = make(5);
    std::mt19937_64 rng(2);
    for (int32_t i = 0; i < h->counts_len; ++i) {
        int64_t v = hdr_value_at_index(h, i);
        if (v > h->highest_trackable_value) break;
        for (int64_t n = 1 + static_cast<int64_t>(rng() % 3); n > 0; --n) hdr_record_value(h, v);
    }
    encodeLoop(state, h);
}
BENCHMARK(BM_HdrEncodeFullPrecision5)->Unit(benchmark::kMillisecond);

// What an interval of one transaction usually holds: 1000 spans, precision 2.
void BM_HdrEncodeTypicalPrecision2(benchmark::State &state) {
    hdr_histogram *h = make(2);
    std::mt19937_64 rng(3);
    for (int i = 0; i < 1000; ++i) hdr_record_value(h, 2000 + static_cast<int64_t>(rng() % 400000));
    encodeLoop(state, h);
}
BENCHMARK(BM_HdrEncodeTypicalPrecision2);

}  // namespace
