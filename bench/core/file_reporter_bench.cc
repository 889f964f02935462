// File reporter throughput, in documents per second, through vesk_raw_send:
// the persistent file with its fsync per document, and one file per document.
#include <benchmark/benchmark.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <string>

#include "corvidine/bson.h"
#include "corvidine/debug_log.h"
#include "corvidine/event.h"
#include "corvidine/local_reporters.h"
#include "corvidine/startup.h"

namespace {

// A document of the size of a typical entry event.
std::string sample_document() {
    vesk_bson_buffer b;
    vesk_bson_buffer_init(&b);
    vesk_bson_append_string(&b, "_V", "1");
    vesk_bson_append_string(&b, "X-Trace", std::string(60, 'A').c_str());
    vesk_bson_append_string(&b, "Layer", "php");
    vesk_bson_append_string(&b, "Label", "entry");
    vesk_bson_append_string(&b, "URL", "/index.php?page=benchmark");
    vesk_bson_append_long(&b, "TID", 1234);
    vesk_bson_append_long(&b, "Timestamp_u", 1700000000000000LL);
    vesk_bson_append_string(&b, "Hostname", "bench-host");
    const char *data = vesk_bson_buffer_finish(&b);  // before the size: finishing adds the last byte
    std::string doc(data, vesk_bson_buffer_size(&b));
    vesk_bson_buffer_destroy(&b);
    return doc;
}

void run_file_reporter(benchmark::State &state, int single) {
    char tmpl[] = "/tmp/corvidine-bench-XXXXXX";
    const char *dir = mkdtemp(tmpl);
    if (dir == nullptr) {
        state.SkipWithError("cannot make a temporary directory");
        return;
    }
    std::string path = std::string(dir) + "/trace.bson";
    vesk_init_options_t o;
    o.version = VESK_INIT_OPTIONS_VERSION;
    vesk_init_options_set_defaults(&o);
    o.reporter = "file";
    o.host = path.c_str();
    o.file_single = single;
    o.log_level = VESK_DEBUG_ERROR;
    vesk_shutdown();
    if (vesk_init(&o) != 0) {
        state.SkipWithError("file reporter did not start");
        return;
    }
    std::string doc = sample_document();
    for (auto _ : state) {
        if (vesk_raw_send(VESK_SEND_EVENT, doc.data(), doc.size()) != static_cast<int>(doc.size())) {
            state.SkipWithError("send failed");
            break;
        }
    }
    state.SetItemsProcessed(state.iterations());
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(doc.size()));
    vesk_shutdown();
    std::string cleanup = std::string("rm -rf '") + dir + "'";
    if (system(cleanup.c_str()) != 0) state.SkipWithError("cannot remove the output");
}

void BM_FileReporterPersistentFsync(benchmark::State &state) {
    run_file_reporter(state, 0);
}
void BM_FileReporterSingleFile(benchmark::State &state) {
    run_file_reporter(state, 1);
}

}  // namespace

BENCHMARK(BM_FileReporterPersistentFsync)->UseRealTime();
BENCHMARK(BM_FileReporterSingleFile)->UseRealTime();
