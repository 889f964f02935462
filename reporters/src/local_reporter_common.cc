// What the null, file and UDP reporters have in common: the table slots that
// behave alike, and the one default settings record each installs so that the
// tracing decision has a rule without a Collector.
#include <stdlib.h>
#include <string.h>

#include "corvidine/debug_log.h"
#include "corvidine/local_reporters.h"
#include "corvidine/startup.h"
#include "corvidine/settings.h"

namespace {

int always_ready(void *) {
    return 1;
}
int within_limit(void *, const char *, const char *) {
    return 1;
}
int drop_span(void *, const char *, const char *, int64_t) {
    return 0;
}
int drop_http_span(void *, const char *, const char *, int64_t, int, const char *, int) {
    return 0;
}
int drop_custom_metric(void *, const char *, double, int, int, const char *, int, const vesk_metric_tag_t *,
                       size_t) {
    return 0;
}
int server_response_ok(void *) {
    return VESK_SERVER_RESPONSE_OK;
}
int profiling_interval(void *) {
    return VESK_LOCAL_PROFILING_INTERVAL;
}

}  // namespace

extern "C" {

void _vesk_local_reporter_prepare(vesk_reporter_t *reporter, const vesk_init_options_t *options) {
    memset(reporter, 0, sizeof(*reporter));
    vesk_ensure_init();
    // -2 means "not given"; -1 and up is a level to apply everywhere.
    if (options != nullptr && options->log_level >= -1)
        vesk_debug_log_level_set(VESK_DEBUG_MODULE_UNDEF, options->log_level);
}

void _vesk_local_reporter_fill_common(vesk_reporter_t *reporter) {
    reporter->event_ready = always_ready;
    reporter->profiling_ready = always_ready;
    reporter->status_ready = always_ready;
    reporter->span_ready = always_ready;
    reporter->is_winthin_limit = within_limit;
    reporter->custom_metric_ready = always_ready;
    reporter->send_span = drop_span;
    reporter->send_http_span = drop_http_span;
    reporter->add_custom_metric = drop_custom_metric;
    reporter->get_server_response = server_response_ok;
    reporter->get_profiling_interval = profiling_interval;
}

int _vesk_local_settings_install(unsigned value, int flags, double capacity, double rate, const char *key) {
    int rc = vesk_settings_init_local();
    const double capacities[VESK_BUCKET_COUNT] = {capacity, capacity, capacity};
    const double rates[VESK_BUCKET_COUNT] = {rate, rate, rate};
    // An existing default record (a reporter rebuilt in this process) is kept:
    // add refuses duplicates.
    vesk_settings_add("", VESK_SETTINGS_TYPE_DEFAULT_SAMPLE_RATE, value, flags, 0, VESK_LOCAL_SETTINGS_TTL,
                      capacities, rates, key ? key : "", 0);
    return rc;
}

void *_vesk_local_record_alloc(size_t size) {
    return calloc(1, size < sizeof(uint64_t) ? sizeof(uint64_t) : size);
}

double _vesk_local_bucket_option(int value) {
    return value < 0 ? VESK_LOCAL_BUCKET_DEFAULT : value;
}

}  // extern "C"
