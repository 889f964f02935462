// The clock of a profiled request: a detached thread that counts ticks on a
// fixed grid and asks the request's thread, through its raise function, to
// take a snapshot at its next safe point (profiler.h).
#include "corvidine/profiler.h"

#include <pthread.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <new>

#include "corvidine/debug_log.h"

using Clock = std::chrono::steady_clock;

struct vesk_profiler_clock {
    // Starts at 1, above the request's last sampled tick (0): the first
    // snapshot is due at once. 64-bit, so a worker's long request never wraps.
    std::atomic<uint64_t> tick{1};
    std::chrono::microseconds interval{0};
    // Under registry().mutex: the request's side and the clock's.
    void (*raise)(void *) = nullptr;
    void *target = nullptr;
    bool stop = false;
    bool nudged = false;  // raise once more now, without a tick
    bool orphan = false;  // its thread is gone (a forked child)
    std::condition_variable wake;
    vesk_profiler_clock *prev = nullptr, *next = nullptr;  // clocks with a thread
};

namespace {

// One lock for all clocks: a tick holds it for one store, so the clocks of
// many request threads do not contend, and a fork can take it to find every
// clock in a known state.
struct Registry {
    std::mutex mutex;
    std::condition_variable gone;           // a clock thread ended
    vesk_profiler_clock *clocks = nullptr;  // clocks with a thread
};

// Never destroyed: a clock thread may still be ending while the process
// runs its exit handlers.
Registry &registry() {
    static Registry *r = new Registry;
    return *r;
}

void link(vesk_profiler_clock *c) {
    c->next = registry().clocks;
    if (registry().clocks) registry().clocks->prev = c;
    registry().clocks = c;
}

void unlink(vesk_profiler_clock *c) {
    if (c->prev) c->prev->next = c->next;
    if (c->next) c->next->prev = c->prev;
    if (registry().clocks == c) registry().clocks = c->next;
    c->prev = c->next = nullptr;
}

// Ticks keep to the grid start + k * interval. When the next place on the
// grid has already passed (the thread was not scheduled), that tick is given
// at once and the grid starts again from there: missed ticks are not made up
// in a burst.
void *clock_main(void *arg) {
    vesk_profiler_clock *c = static_cast<vesk_profiler_clock *>(arg);
    std::unique_lock<std::mutex> lock(registry().mutex);
    Clock::time_point deadline = Clock::now();
    bool started = false;
    while (!c->stop) {
        if (started) {
            c->tick.fetch_add(1, std::memory_order_relaxed);
            if (c->target != nullptr) c->raise(c->target);
        }
        started = true;
        deadline += c->interval;
        Clock::time_point now = Clock::now();
        if (deadline < now) deadline = now + std::chrono::microseconds(1);
        while (c->wake.wait_until(lock, deadline, [c] { return c->stop || c->nudged; }) && !c->stop) {
            c->nudged = false;
            if (c->target != nullptr) c->raise(c->target);
        }
    }
    unlink(c);
    delete c;
    registry().gone.notify_all();
    return nullptr;
}

void before_fork() { registry().mutex.lock(); }
void after_fork_parent() { registry().mutex.unlock(); }
// The child has none of the clock threads: their clocks stand still, and
// their requests free them at stop.
void after_fork_child() {
    for (vesk_profiler_clock *c = registry().clocks; c != nullptr;) {
        vesk_profiler_clock *next = c->next;
        c->orphan = true;
        c->prev = c->next = nullptr;
        c = next;
    }
    registry().clocks = nullptr;
    registry().mutex.unlock();
}
pthread_once_t g_atfork_once = PTHREAD_ONCE_INIT;
void register_atfork() { pthread_atfork(before_fork, after_fork_parent, after_fork_child); }

}  // namespace

extern "C" {

vesk_profiler_clock *vesk_profiler_clock_start(int64_t interval_us, void (*raise)(void *target), void *target) {
    if (interval_us <= 0 || raise == nullptr) return nullptr;
    pthread_once(&g_atfork_once, register_atfork);
    vesk_profiler_clock *c = new (std::nothrow) vesk_profiler_clock;
    if (c == nullptr) return nullptr;
    c->interval = std::chrono::microseconds(interval_us);
    c->raise = raise;
    c->target = target;

    pthread_attr_t attr;
    pthread_attr_init(&attr);
    pthread_attr_setdetachstate(&attr, PTHREAD_CREATE_DETACHED);
    // It only waits; glibc takes the static TLS of the process out of this.
    pthread_attr_setstacksize(&attr, 256 * 1024);
    pthread_t thread;
    std::lock_guard<std::mutex> lock(registry().mutex);
    int rc = pthread_create(&thread, &attr, clock_main, c);
    pthread_attr_destroy(&attr);
    if (rc != 0) {
        VESK_DEBUG_LOG_USAGE(VESK_DEBUG_MODULE_LIB, VESK_DEBUG_ERROR, "Cannot start the profiler clock (%d)", rc);
        delete c;
        return nullptr;
    }
    link(c);
    return c;
}

void vesk_profiler_clock_nudge(vesk_profiler_clock *clock) {
    std::lock_guard<std::mutex> lock(registry().mutex);
    if (clock->orphan || clock->stop) return;
    clock->nudged = true;
    clock->wake.notify_one();
}

int vesk_profiler_clocks_wait(long timeout_ms) {
    std::unique_lock<std::mutex> lock(registry().mutex);
    return registry().gone.wait_for(lock, std::chrono::milliseconds(timeout_ms), [] { return registry().clocks == nullptr; })
               ? 0
               : -1;
}

uint64_t vesk_profiler_clock_tick(const vesk_profiler_clock *clock) {
    return clock->tick.load(std::memory_order_relaxed);
}

void vesk_profiler_clock_stop(vesk_profiler_clock *clock) {
    if (clock == nullptr) return;
    std::lock_guard<std::mutex> lock(registry().mutex);
    if (clock->orphan) {
        // Its condition variable still counts the parent's waiting thread,
        // and destroying it would wait for that thread forever: the memory
        // is given back without running the destructor.
        ::operator delete(static_cast<void *>(clock));
        return;
    }
    clock->stop = true;
    clock->target = nullptr;
    clock->raise = nullptr;
    clock->wake.notify_one();
}

}  // extern "C"
