#include "retry.h"

#include "corvidine/debug_log.h"

namespace corvidine {

int setRetryDelay(RetryState &state, const char *name, RetryClock::time_point now) {
    if (!state.active) {
        state.attempts = 1;
        state.delayMs = kRetryFirstDelayMs;
        state.active = true;
    }
    if (state.attempts > kRetryMaxAttempts) {
        state.active = false;
        return -1;
    }
    VESK_DEBUG_LOG(VESK_DEBUG_MODULE_REPORTER_SSL, VESK_DEBUG_LOW, "%s: Retry in %d seconds", name ? name : "",
                   static_cast<int>(state.delayMs / 1000));
    state.next = now + std::chrono::milliseconds(state.delayMs);
    // Integer arithmetic: 1125 * 1.5 = 1687.5 is cut to 1687.
    state.delayMs = state.delayMs * 3 / 2;
    if (state.delayMs > kRetryMaxDelayMs) state.delayMs = kRetryMaxDelayMs;
    state.attempts++;
    return 0;
}

}  // namespace corvidine
