// Per-call latencies of a multi-threaded benchmark: each thread times its
// own calls and hands them over once; thread 0 reports p50/p99 of all.
#pragma once

#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <mutex>
#include <thread>
#include <vector>

class LatencySamples {
public:
    // Thread 0, before the timed loop (the loop's start is a barrier).
    void clear() {
        std::lock_guard<std::mutex> lock(mutex_);
        all_.clear();
    }
    // Every thread, after its timed loop.
    void add(const std::vector<int64_t> &mine) {
        std::lock_guard<std::mutex> lock(mutex_);
        all_.insert(all_.end(), mine.begin(), mine.end());
    }
    // Thread 0: waits until every thread has added its samples, then sets
    // the counters p50_ns and p99_ns.
    void report(benchmark::State &state) {
        const size_t expected = static_cast<size_t>(state.iterations()) * state.threads();
        while (true) {
            {
                std::lock_guard<std::mutex> lock(mutex_);
                if (all_.size() >= expected) break;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        std::lock_guard<std::mutex> lock(mutex_);
        std::sort(all_.begin(), all_.end());
        state.counters["p50_ns"] = static_cast<double>(all_[all_.size() / 2]);
        state.counters["p99_ns"] = static_cast<double>(all_[all_.size() * 99 / 100]);
    }

private:
    std::mutex mutex_;
    std::vector<int64_t> all_;
};
