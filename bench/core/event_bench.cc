// Core hot paths: building an event, identifier round trips, suppressed logs.
#include <benchmark/benchmark.h>

#include "corvidine/debug_log.h"
#include "corvidine/event.h"
#include "corvidine/metadata.h"

namespace {

void BM_EventBuildAndFinish(benchmark::State &state) {
    vesk_metadata_t md;
    vesk_metadata_init(&md);
    vesk_metadata_random(&md);
    for (auto _ : state) {
        vesk_event_t evt;
        vesk_metadata_create_event(&md, &evt);  // _V, X-Trace, Edge
        vesk_event_add_info(&evt, "Layer", "php");
        vesk_event_add_info(&evt, "Label", "entry");
        vesk_event_add_info(&evt, "URL", "/index.php?page=1");
        vesk_event_add_info(&evt, "Method", "GET");
        vesk_event_add_info_int64(&evt, "Status", 200);
        vesk_event_add_info_int64(&evt, "SampleRate", 1000000);
        vesk_event_add_info_int64(&evt, "SampleSource", 1);
        vesk_event_add_info_int64(&evt, "Count", 8);
        benchmark::DoNotOptimize(vesk_bson_buffer_finish(&evt.buffer));
        vesk_event_destroy(&evt);
    }
}
BENCHMARK(BM_EventBuildAndFinish)->Repetitions(5)->ReportAggregatesOnly(true);

void BM_MetadataRoundTrip(benchmark::State &state) {
    vesk_metadata_t md, back;
    vesk_metadata_init(&md);
    vesk_metadata_random(&md);
    vesk_metadata_init(&back);
    char buf[VESK_MAX_METADATA_STRING_LEN];
    vesk_metadata_tostr(&md, buf, sizeof(buf));
    for (auto _ : state) {
        vesk_metadata_fromstr(&back, buf, 60);
        vesk_metadata_tostr(&back, buf, sizeof(buf));
        benchmark::DoNotOptimize(buf);
    }
}
BENCHMARK(BM_MetadataRoundTrip)->Repetitions(5)->ReportAggregatesOnly(true);

void BM_DebugLogSuppressed(benchmark::State &state) {
    vesk_maximum_log_level = VESK_DEBUG_INFO;
    int i = 0;
    for (auto _ : state) {
        VESK_DEBUG_LOG(VESK_DEBUG_MODULE_LIB, VESK_DEBUG_HIGH, "never shown %d", i++);
        benchmark::ClobberMemory();
    }
}
BENCHMARK(BM_DebugLogSuppressed)->Repetitions(5)->ReportAggregatesOnly(true);

}  // namespace
