// Token buckets with lazy refill, and the replaceable wall clock.
#include "corvidine/token_bucket.h"

#include <sched.h>
#include <sys/time.h>
#include <time.h>

#include <atomic>
#include <cstdint>

namespace {

inline void cpu_relax() {
#if defined(__x86_64__) || defined(__i386__)
    __builtin_ia32_pause();
#endif
}

std::atomic<vesk_clock_fn> g_clock{nullptr};

// Buckets live in records laid out by others, with no room for a lock, so
// their locks sit here, picked by address. The critical section is a clock
// read and a few additions: spinning beats sleeping, and a waiter yields the
// core if the holder was preempted.
struct alignas(64) SpinLock {
    std::atomic<uint32_t> held{0};

    void lock() {
        unsigned spins = 0;
        while (held.exchange(1, std::memory_order_acquire) != 0) {
            while (held.load(std::memory_order_relaxed) != 0) {
                if (++spins < 64) {
                    cpu_relax();
                } else {
                    sched_yield();
                }
            }
        }
    }
    void unlock() { held.store(0, std::memory_order_release); }
};

constexpr unsigned kLockStripes = 16;
SpinLock g_bucket_locks[kLockStripes];

SpinLock &lock_of(const vesk_bucket_t *bucket) {
    uintptr_t slot = reinterpret_cast<uintptr_t>(bucket) / sizeof(vesk_bucket_t);
    return g_bucket_locks[slot % kLockStripes];
}

struct BucketGuard {
    explicit BucketGuard(const vesk_bucket_t *b) : lock(lock_of(b)) { lock.lock(); }
    ~BucketGuard() { lock.unlock(); }
    SpinLock &lock;
};

// Caller holds the bucket's lock.
void update_locked(vesk_bucket_t *b) {
    if (!(b->capacity > b->available)) return;  // full: last_check stays
    struct timeval now;
    _vesk_clock_gettimeofday(&now);
    int64_t delta =
        vesk_bucket_timedelta(b->last_check.tv_sec, b->last_check.tv_usec, now.tv_sec, now.tv_usec);
    if (delta <= 0) return;  // a clock step back neither drains nor refills
    double fresh = static_cast<double>(b->available) + static_cast<double>(delta) * b->rate_per_usec;
    if (fresh > b->capacity) {
        fresh = b->capacity > 0 ? b->capacity : 0;
    } else if (!(fresh > 0)) {
        fresh = 0;
    }
    b->available = static_cast<float>(fresh);
    b->last_check = now;
}

}  // namespace

extern "C" {

int64_t vesk_bucket_timedelta(long sec_from, long usec_from, long sec_to, long usec_to) {
    return static_cast<int64_t>(sec_to - sec_from) * 1000000 + usec_to - usec_from;
}

void vesk_bucket_update_available(vesk_bucket_t *bucket) {
    BucketGuard guard(bucket);
    update_locked(bucket);
}

int vesk_bucket_consume(vesk_bucket_t *bucket) {
    BucketGuard guard(bucket);
    update_locked(bucket);
    if (bucket->available >= 1.0f) {
        bucket->available -= 1.0f;
        return 1;
    }
    return 0;
}

void _vesk_bucket_set_limits(vesk_bucket_t *bucket, double capacity, double rate_per_usec) {
    BucketGuard guard(bucket);
    bucket->capacity = capacity;
    if (bucket->available > capacity || bucket->available == -1.0f)
        bucket->available = static_cast<float>(capacity);
    bucket->rate_per_usec = rate_per_usec;
}

void _vesk_clock_set(vesk_clock_fn fn) {
    g_clock.store(fn, std::memory_order_relaxed);
}

void _vesk_clock_gettimeofday(struct timeval *now) {
    vesk_clock_fn fn = g_clock.load(std::memory_order_relaxed);
    if (fn != nullptr) {
        fn(now);
    } else {
        gettimeofday(now, nullptr);
    }
}

time_t _vesk_clock_time(void) {
    vesk_clock_fn fn = g_clock.load(std::memory_order_relaxed);
    if (fn == nullptr) return time(nullptr);
    struct timeval now;
    fn(&now);
    return now.tv_sec;
}

}  // extern "C"
