// Placeholder for the Collector (SSL) reporter, which is not part of this
// build yet: selecting "ssl" fails cleanly with the no-table code and leaves
// the table untouched, so the registry ends up with no reporter.
#include "corvidine/debug_log.h"
#include "corvidine/local_reporters.h"

extern "C" int vesk_reporter_init_ssl(vesk_reporter_t *, const vesk_init_options_t *) {
    VESK_DEBUG_LOG(VESK_DEBUG_MODULE_REPORTER_SSL, VESK_DEBUG_ERROR,
                   "SSL reporter is not available in this build");
    return VESK_REPORTER_INIT_NO_TABLE;
}
