// The backoff both Collector senders use between failed attempts: connects,
// posts and settings requests each keep a RetryState of their own.
//
// Waits in milliseconds: 500, 750, 1125, 1687, 2530, 3795, 5692, 8538,
// 12807, 19210, 28815, 43222, then 60000 up to the 20th attempt; the 21st
// call says the retries are used up.
//
// Threads: a RetryState belongs to the sender thread that owns it. The clock
// is passed in, so the series can be checked without waiting.
#ifndef CORVIDINE_COLLECTOR_RETRY_H
#define CORVIDINE_COLLECTOR_RETRY_H

#include <chrono>
#include <cstdint>

namespace corvidine {

using RetryClock = std::chrono::system_clock;

struct RetryState {
    bool active = false;
    int64_t delayMs = 0;
    int32_t attempts = 0;
    RetryClock::time_point next{};  // no new attempt before this time
};

constexpr int32_t kRetryMaxAttempts = 20;
constexpr int64_t kRetryFirstDelayMs = 500;
constexpr int64_t kRetryMaxDelayMs = 60000;

// Schedules the next attempt at `now` plus the current delay and grows the
// delay by half. Returns 0 (wait until state.next, then retry), or -1 when
// the attempts are used up (the state is then inactive again). `name` is
// for the log line.
int setRetryDelay(RetryState &state, const char *name, RetryClock::time_point now);

// True when the state lets an attempt happen at `now`: inactive, or its
// time has come.
inline bool retryAllowed(const RetryState &state, RetryClock::time_point now) {
    return !state.active || now >= state.next;
}

}  // namespace corvidine

#endif
