// The bounded queue between request threads and a sender thread.
//
// A fixed array of slots (no allocation for the queue on push); one slot
// always stays empty, so a queue of size n holds n - 1 elements. A push
// into a full queue drops the oldest element and counts it: the newest data
// wins and a producer never waits.
//
// Threads: push, count and the statistics from any thread (request threads);
// pop from the one consumer (a sender thread); stop from the thread that
// ends the reporter. One mutex guards the fields, never held across I/O.
#ifndef CORVIDINE_COLLECTOR_RING_BUFFER_H
#define CORVIDINE_COLLECTOR_RING_BUFFER_H

#include <array>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>

#include "corvidine/debug_log.h"

namespace corvidine {

template <typename T, size_t Slots>
class RingBuffer {
public:
    // `size` slots in use, kept within 2 and Slots.
    explicit RingBuffer(uint64_t size) : size_(size < 2 ? 2 : (size > Slots ? Slots : size)) {
        VESK_DEBUG_LOG(VESK_DEBUG_MODULE_REPORTER_SSL, VESK_DEBUG_LOW, "Created Ringbuffer with size %lu",
                       static_cast<unsigned long>(size_));
    }
    ~RingBuffer() { VESK_DEBUG_LOG(VESK_DEBUG_MODULE_REPORTER_SSL, VESK_DEBUG_LOW, "Destroyed Ringbuffer"); }
    RingBuffer(const RingBuffer &) = delete;
    RingBuffer &operator=(const RingBuffer &) = delete;

    // Request threads. Never blocks on a full queue; still stores after stop.
    void push(std::shared_ptr<T> element) {
        bool wasEmpty;
        {
            std::lock_guard<std::mutex> lock(mutex_);
            wasEmpty = head_ == tail_;
            uint64_t next = (head_ + 1) % size_;
            if (next == tail_) {
                VESK_DEBUG_LOG(VESK_DEBUG_MODULE_REPORTER_SSL, VESK_DEBUG_LOW,
                               "RingBuffer.push() overflow - dropping element at %u", static_cast<unsigned>(tail_));
                slots_[tail_].reset();
                overflowed_++;
                tail_ = (tail_ + 1) % size_;
            }
            slots_[head_] = std::move(element);
            head_ = next;
            total_++;
            uint64_t n = countLocked();
            if (n > largest_) largest_ = n;
            VESK_DEBUG_LOG(VESK_DEBUG_MODULE_REPORTER_SSL, VESK_DEBUG_MEDIUM, "RingBuffer.push() Q:%lu/%u T:%lu",
                           static_cast<unsigned long>(n), static_cast<unsigned>(size_ - 1),
                           static_cast<unsigned long>(total_));
        }
        if (wasEmpty) condition_.notify_one();
    }

    // The consumer: the oldest element, waiting until `deadline` while the
    // queue is empty; empty after stop or at the deadline.
    template <typename Clock, typename Duration>
    std::shared_ptr<T> pop(std::chrono::time_point<Clock, Duration> deadline) {
        std::unique_lock<std::mutex> lock(mutex_);
        while (head_ == tail_) {
            if (stop_) return nullptr;
            if (Clock::now() >= deadline) break;
            condition_.wait_until(lock, deadline);
        }
        if (stop_ || head_ == tail_) return nullptr;
        std::shared_ptr<T> element = std::move(slots_[tail_]);
        tail_ = (tail_ + 1) % size_;
        VESK_DEBUG_LOG(VESK_DEBUG_MODULE_REPORTER_SSL, VESK_DEBUG_MEDIUM, "RingBuffer.pop() Q:%lu/%u T:%lu",
                       static_cast<unsigned long>(countLocked()), static_cast<unsigned>(size_ - 1),
                       static_cast<unsigned long>(total_));
        return element;
    }

    // Closes the queue and wakes its consumer.
    void stop() {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            stop_ = true;
        }
        condition_.notify_all();
    }

    bool stopped() const { return locked([this] { return stop_; }); }
    uint64_t count() const { return locked([this] { return countLocked(); }); }
    uint64_t size() const { return size_; }
    uint64_t largest() const { return locked([this] { return largest_; }); }
    uint64_t total() const { return locked([this] { return total_; }); }
    uint64_t overflowed() const { return locked([this] { return overflowed_; }); }

private:
    uint64_t countLocked() const { return (size_ + head_ - tail_) % size_; }
    template <typename F>
    auto locked(F f) const {
        std::lock_guard<std::mutex> lock(mutex_);
        return f();
    }

    std::condition_variable condition_;
    mutable std::mutex mutex_;
    const uint64_t size_;
    uint64_t largest_ = 0;
    uint64_t head_ = 0;
    uint64_t tail_ = 0;
    uint64_t total_ = 0;
    uint64_t overflowed_ = 0;
    bool stop_ = false;
    std::array<std::shared_ptr<T>, Slots> slots_;
};

}  // namespace corvidine

#endif
