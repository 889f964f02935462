// Entry points kept for callers linked against older builds. Reporters are
// now set up by vesk_init_reporter; these only make sure the library runs.
#include <stdint.h>
#include <string.h>

#include "corvidine/event.h"
#include "corvidine/local_reporters.h"
#include "corvidine/startup.h"

namespace {

int clear_and_start(vesk_reporter_t *reporter) {
    if (reporter == nullptr) return -1;
    memset(reporter, 0, sizeof(*reporter));
    vesk_ensure_init();
    return 0;
}

}  // namespace

extern "C" {

int vesk_reporter_udp_init(vesk_reporter_t *reporter, const char *, const char *) {
    return clear_and_start(reporter);
}

int vesk_reporter_udp_init_str(vesk_reporter_t *reporter, const char *) {
    return clear_and_start(reporter);
}

int vesk_reporter_ssl_init(vesk_reporter_t *reporter, const char *) {
    return clear_and_start(reporter);
}

ssize_t vesk_reporter_udp_send(void *, const char *data, size_t length) {
    return static_cast<ssize_t>(static_cast<int32_t>(vesk_raw_send(VESK_SEND_EVENT, data, length)));
}

int vesk_reporter_destroy(vesk_reporter_t *) {
    return 0;
}

}  // extern "C"
