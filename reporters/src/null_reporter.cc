// The null reporter: takes every document and drops it, and installs a
// sample rate of 0 with OVERRIDE so that nothing is traced in the first place.
#include <stdlib.h>

#include "corvidine/debug_log.h"
#include "corvidine/local_reporters.h"
#include "corvidine/startup.h"
#include "corvidine/settings.h"

namespace {

ssize_t null_send(void *, int, const char *, size_t len) {
    return static_cast<ssize_t>(len);
}

int null_destroy(void *ctx) {
    free(ctx);
    return 0;
}

}  // namespace

extern "C" int vesk_reporter_init_null(vesk_reporter_t *reporter, const vesk_init_options_t *options) {
    if (reporter == nullptr) return VESK_REPORTER_INIT_NO_TABLE;
    _vesk_local_reporter_prepare(reporter, options);

    // Nothing to keep; the record exists only so the context word is non-null.
    int *record = static_cast<int *>(_vesk_local_record_alloc(sizeof(int)));
    if (record == nullptr) return VESK_REPORTER_INIT_NO_MEMORY;

    reporter->context = record;
    _vesk_local_reporter_fill_common(reporter);
    reporter->send = null_send;
    reporter->destroy = null_destroy;
    _vesk_reporter_register(reporter);

    const double none = 0;
    if (_vesk_local_settings_install(0, VESK_SETTINGS_FLAG_OVERRIDE, none, none, nullptr) != 0)
        VESK_DEBUG_LOG_USAGE(VESK_DEBUG_MODULE_REPORTER_SSL, VESK_DEBUG_WARNING,
                             "Failed to initialize settings for local operation.");
    return VESK_REPORTER_INIT_OK;
}
