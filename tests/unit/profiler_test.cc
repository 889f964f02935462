// Profiler core: spans from snapshots (read back with python3-bson), the bounded queue, the clock, a fork.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "corvidine/metadata.h"
#include "corvidine/profile_spans.h"
#include "corvidine/profiler.h"
#include "support/harness.h"

using corvidine_test::CaptureReporter;
using corvidine_test::decode_bson;
using vesk_profiler::Record;
using vesk_profiler::SpanAssembler;

namespace {

constexpr int64_t kInterval = 20000;
constexpr int64_t kBase = 1700000000000000;

vesk_metadata_t trace(uint8_t seed) {
    vesk_metadata_t md = corvidine_test::sampled_metadata();
    md.task_id[0] = seed;
    return md;
}

// A snapshot of `stack`, written outermost first ("main>a>b": b innermost).
Record snapshot(const vesk_metadata_t &md, uint64_t sequence, int64_t timestamp, const std::string &stack) {
    std::vector<std::string> names;
    size_t start = 0;
    for (size_t end; (end = stack.find('>', start)) != std::string::npos; start = end + 1)
        names.push_back(stack.substr(start, end - start));
    names.push_back(stack.substr(start));
    Record s(vesk_profiler_snapshot_new(sequence, &md));
    s->timestamp = timestamp;
    for (auto name = names.rbegin(); name != names.rend(); ++name)
        vesk_profiler_snapshot_add_frame(s.get(), VESK_PROFILER_FRAME_USER, name->data(), name->size(), nullptr, 0,
                                         "/app.php", 8, 7);
    return s;
}

Record end_of_span(const vesk_metadata_t &md, uint64_t sequence, int64_t timestamp) {
    Record s(vesk_profiler_snapshot_new(sequence, &md));
    s->record_type = vesk_profiler::kEndOfSpan, s->timestamp = timestamp, s->interval = kInterval;
    s->service_name = "shop";
    return s;
}

// The documents of a span, decoded: one JSON line each.
std::vector<std::string> decoded(const std::vector<std::string> &documents) {
    std::string bytes;
    for (const std::string &d : documents) bytes += d;
    return documents.empty() ? std::vector<std::string>{} : decode_bson(bytes);
}

// The decoded value of key in a JSON document line: its [type, value] text.
std::string value_of(const std::string &doc, const std::string &key) {
    std::string marker = "[\"" + key + "\", ";
    size_t at = doc.find(marker);
    if (at == std::string::npos) return "absent";
    size_t begin = at + marker.size(), depth = 0, i = begin;
    for (; i < doc.size(); i++) {
        if (doc[i] == '[') depth++;
        if (doc[i] == ']' && --depth == 0) break;
    }
    return doc.substr(begin, i + 1 - begin);
}

std::string ints(const std::vector<int64_t> &values) {
    std::string s = "[\"array\", [";
    for (size_t i = 0; i < values.size(); i++)
        s += (i ? ", " : "") + std::string("[\"int64\", ") + std::to_string(values[i]) + "]";
    return s + "]]";
}

// Names of the frames in NewFrames, innermost first, as "a,b,".
std::string new_frames(const std::string &doc) {
    std::string frames = value_of(doc, "NewFrames"), names;
    for (size_t at = 0; (at = frames.find("[\"M\", [\"string\", \"", at)) != std::string::npos;) {
        at += 18;
        names += frames.substr(at, frames.find('"', at) - at) + ",";
    }
    return names;
}

class SpanTest : public ::testing::Test {
protected:
    CaptureReporter reporter_;  // the library started, for the events' ids
    SpanAssembler spans_;
    vesk_metadata_t md_ = trace(1);
};

TEST_F(SpanTest, EqualSnapshotsBecomeOmittedTicksOfTheExit) {
    for (uint64_t seq = 1; seq <= 3; seq++)
        EXPECT_TRUE(spans_.add(snapshot(md_, seq, kBase + (seq - 1) * kInterval, "main>loop")).empty());
    auto docs = decoded(spans_.add(end_of_span(md_, 4, kBase + 3 * kInterval + 500)));
    ASSERT_EQ(3u, docs.size());
    EXPECT_EQ("[\"string\", \"entry\"]", value_of(docs[0], "Label"));
    EXPECT_EQ("[\"int64\", 20]", value_of(docs[0], "Interval"));
    EXPECT_EQ("[\"string\", \"shop\"]", value_of(docs[0], "SN"));
    EXPECT_EQ("loop,main,", new_frames(docs[1]));
    EXPECT_EQ("absent", value_of(docs[1], "SnapshotsOmitted"));
    EXPECT_EQ("[\"string\", \"exit\"]", value_of(docs[2], "Label"));
    EXPECT_EQ(ints({kBase + kInterval, kBase + 2 * kInterval}), value_of(docs[2], "SnapshotsOmitted"));
    EXPECT_EQ(0u, spans_.open_spans());
}

TEST_F(SpanTest, OnlyFramesBelowTheSharedPartAreSentAndEventsFormAChain) {
    spans_.add(snapshot(md_, 1, kBase, "main>x>y>z>w>a1>a2"));
    spans_.add(snapshot(md_, 3, kBase + 2 * kInterval, "main>x>y>z>w>b1"));
    auto docs = decoded(spans_.add(end_of_span(md_, 4, kBase + 3 * kInterval)));
    ASSERT_EQ(4u, docs.size());
    EXPECT_EQ("a2,a1,w,z,y,x,main,", new_frames(docs[1]));
    EXPECT_EQ("b1,", new_frames(docs[2]));
    EXPECT_EQ("[\"int64\", 2]", value_of(docs[2], "FramesExited"));
    EXPECT_EQ("[\"int64\", 6]", value_of(docs[2], "FramesCount"));
    EXPECT_EQ(ints({kBase + kInterval}), value_of(docs[2], "SnapshotsOmitted"));
    // Entry without an edge; every later event points at the one before.
    EXPECT_EQ("absent", value_of(docs[0], "Edge"));
    for (size_t i = 1; i < docs.size(); i++) {
        std::string previous = value_of(docs[i - 1], "X-Trace");
        EXPECT_EQ("[\"string\", \"" + previous.substr(54, 16) + "\"]", value_of(docs[i], "Edge")) << i;
    }
}

TEST_F(SpanTest, TimesArePulledOntoTheGrid) {
    struct Case {
        const char *name;
        std::vector<std::pair<uint64_t, int64_t>> snapshots;  // sequence, offset from kBase
        std::pair<uint64_t, int64_t> end;
        std::vector<int64_t> expected;  // info times, then the exit's, as offsets
    } cases[] = {
        {"a snapshot late by more than half an interval", {{1, 0}, {3, 2 * kInterval + 15000}}, {4, 4 * kInterval},
         {0, 2 * kInterval, 3 * kInterval}},
        {"late by less stays", {{1, 0}, {3, 2 * kInterval + 9000}}, {4, 4 * kInterval},
         {0, 2 * kInterval + 9000, 3 * kInterval + 9000}},
        {"the last snapshot after the end is cut to it", {{1, 0}, {2, 30000}}, {2, 25000}, {0, 25000, 25000}},
        {"a request shorter than one interval ends one tick later at most", {{1, 0}}, {1, 90000},
         {0, kInterval}},
    };
    for (const Case &c : cases) {
        SpanAssembler spans;
        std::string stack = "main";
        for (auto [seq, offset] : c.snapshots) spans.add(snapshot(md_, seq, kBase + offset, stack += ">f"));
        auto docs = decoded(spans.add(end_of_span(md_, c.end.first, kBase + c.end.second)));
        ASSERT_EQ(c.expected.size() + 1, docs.size()) << c.name;
        for (size_t i = 0; i < c.expected.size(); i++)
            EXPECT_EQ("[\"int64\", " + std::to_string(kBase + c.expected[i]) + "]",
                      value_of(docs[i + 1], "Timestamp_u"))
                << c.name << " event " << i + 1;
    }
}

TEST_F(SpanTest, SpansWithoutSnapshotsAndBeyondTheLimitSendNothing) {
    EXPECT_TRUE(decoded(spans_.add(end_of_span(md_, 1, kBase))).empty());
    std::vector<vesk_metadata_t> traces;
    for (uint8_t i = 0; i <= vesk_profiler::kMaxSpans; i++) {
        traces.push_back(trace(static_cast<uint8_t>(10 + i)));
        spans_.add(snapshot(traces.back(), 1, kBase, "main>f"));
    }
    EXPECT_EQ(vesk_profiler::kMaxSpans, spans_.open_spans());
    EXPECT_TRUE(spans_.add(end_of_span(traces.back(), 2, kBase + kInterval)).empty());  // its snapshot was dropped
    EXPECT_EQ(3u, decoded(spans_.add(end_of_span(traces.front(), 2, kBase + kInterval))).size());
}

TEST_F(SpanTest, AFullSpanKeepsItsLastSnapshotAndClosesAtIt) {
    for (uint64_t seq = 1; seq <= vesk_profiler::kSpanCapacity + 5; seq++)
        spans_.add(snapshot(md_, seq, kBase + (seq - 1) * kInterval, seq == vesk_profiler::kSpanCapacity ? "main" : "main>f"));
    auto docs = decoded(spans_.add(end_of_span(md_, 4000, kBase + 4000 * kInterval)));
    // Entry, the first snapshot, the 3000th (a different stack), exit.
    ASSERT_EQ(4u, docs.size());
    EXPECT_EQ("[\"int64\", 1]", value_of(docs[2], "FramesExited"));
    EXPECT_EQ("absent", value_of(docs[3], "SnapshotsOmitted"));
    EXPECT_EQ("[\"int64\", " + std::to_string(kBase + 4000 * kInterval) + "]", value_of(docs[3], "Timestamp_u"));
}

TEST_F(SpanTest, ADeepStackKeepsItsOutermostFramesAndItsDepth) {
    std::string stack = "main";
    for (int i = 1; i < 250; i++) stack += ">f" + std::to_string(i);
    Record s = snapshot(md_, 1, kBase, stack);
    EXPECT_EQ(250u, vesk_profiler_snapshot_frame_total(s.get()));
    spans_.add(std::move(s));
    auto docs = decoded(spans_.add(end_of_span(md_, 2, kBase + kInterval)));
    ASSERT_EQ(3u, docs.size());
    EXPECT_EQ("[\"int64\", 250]", value_of(docs[1], "FramesCount"));
    std::string names = new_frames(docs[1]);
    EXPECT_EQ(0u, names.find("f199,f198,")) << names;
    EXPECT_EQ(names.size() - 9, names.find(",f1,main,")) << names;
}

std::mutex g_gate_mutex;
std::condition_variable g_gate_cv;
bool g_gate_open = false, g_at_gate = false;
std::vector<std::string> g_sent;

ssize_t gated_send(void *, int channel, const char *data, size_t len) {
    std::unique_lock<std::mutex> lock(g_gate_mutex);
    g_at_gate = true;
    g_gate_cv.notify_all();
    g_gate_cv.wait(lock, [] { return g_gate_open; });
    if (channel == 2) g_sent.emplace_back(data, len);
    return static_cast<ssize_t>(len);
}

TEST(ProfilerQueue, AFullQueueDropsSnapshotsAtOnceButNeverTheEndOfASpan) {
    CaptureReporter reporter;
    reporter.table.send = gated_send;
    vesk_metadata_t blocker = trace(1), md = trace(2);
    EXPECT_EQ(-1, vesk_profiler_report_snapshot(snapshot(md, 1, kBase, "main").release()));  // no thread yet
    ASSERT_EQ(0, vesk_profiler_start());
    // The thread gets stuck sending the first span's documents.
    ASSERT_EQ(0, vesk_profiler_report_snapshot(snapshot(blocker, 1, kBase, "main").release()));
    ASSERT_EQ(0, vesk_profiler_notify_done(&blocker, 2, nullptr, kInterval));
    {
        std::unique_lock<std::mutex> lock(g_gate_mutex);
        g_gate_cv.wait(lock, [] { return g_at_gate; });
    }
    int queued = 0, dropped = 0;
    auto start = std::chrono::steady_clock::now();
    for (uint64_t seq = 1; seq <= VESK_PROFILER_QUEUE_CAPACITY + 10; seq++)
        (vesk_profiler_report_snapshot(snapshot(md, seq, kBase + (seq - 1) * kInterval, "main>f").release()) == 0
             ? queued
             : dropped)++;
    EXPECT_EQ(VESK_PROFILER_QUEUE_CAPACITY, queued);
    EXPECT_EQ(10, dropped);
    EXPECT_EQ(0, vesk_profiler_ready());
    EXPECT_EQ(0, vesk_profiler_notify_done(&md, VESK_PROFILER_QUEUE_CAPACITY + 11, "svc", kInterval));
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(10));  // nothing waited at the gate
    {
        std::lock_guard<std::mutex> lock(g_gate_mutex);
        g_gate_open = true;
    }
    g_gate_cv.notify_all();
    vesk_profiler_terminate();  // sends what is queued first
    EXPECT_EQ(0, vesk_profiler_ready());
    // Entry, info, exit; then entry, first snapshot, the 3000th (the last a span keeps), exit.
    auto docs = decoded(g_sent);
    ASSERT_EQ(7u, docs.size());
    EXPECT_EQ("[\"string\", \"svc\"]", value_of(docs[6], "SN"));
}

TEST(ProfilerClock, StoppedClocksNeverTouchTheirTargetAgain) {
    constexpr int kThreads = 8;
    std::vector<std::thread> threads;
    std::atomic<int> failures{0};
    for (int t = 0; t < kThreads; t++) {
        threads.emplace_back([&failures] {
            for (int round = 0; round < 5; round++) {
                auto *target = new std::atomic<int>(0);
                vesk_profiler_clock *clock = vesk_profiler_clock_start(
                    1000, [](void *p) { static_cast<std::atomic<int> *>(p)->fetch_add(1); }, target);
                if (clock == nullptr) {
                    failures++;
                    delete target;
                    return;
                }
                while (target->load() < 2) std::this_thread::sleep_for(std::chrono::microseconds(200));
                if (vesk_profiler_clock_tick(clock) < 3) failures++;  // 1 at start, then one per raise
                vesk_profiler_clock_stop(clock);
                delete target;  // a raise after stop would touch freed memory
            }
        });
    }
    for (auto &t : threads) t.join();
    EXPECT_EQ(0, failures.load());
    EXPECT_EQ(0, vesk_profiler_clocks_wait(5000));  // every stopped clock's thread ends
}

TEST(ProfilerFork, AChildStartsItsOwnThreadAndLetsInheritedClocksGo) {
#if defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "ThreadSanitizer cannot start threads after a multi-threaded fork";
#endif
    CaptureReporter reporter;
    std::atomic<int> raised{0};
    vesk_profiler_clock *clock = vesk_profiler_clock_start(
        1000, [](void *p) { static_cast<std::atomic<int> *>(p)->fetch_add(1); }, &raised);
    ASSERT_NE(nullptr, clock);
    ASSERT_EQ(0, vesk_profiler_start());
    pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        alarm(20);  // a hang fails the test instead of blocking it
        int failures = 0;
        if (vesk_profiler_ready()) failures |= 1;  // the parent's thread is not here
        vesk_profiler_clock_stop(clock);             // its thread is gone: freed at once
        if (vesk_profiler_start() != 0 || !vesk_profiler_ready()) failures |= 2;
        vesk_metadata_t md = trace(3);
        if (vesk_profiler_report_snapshot(snapshot(md, 1, kBase, "main").release()) != 0) failures |= 4;
        if (vesk_profiler_notify_done(&md, 2, nullptr, kInterval) != 0) failures |= 8;
        vesk_profiler_terminate();
        _exit(failures);
    }
    int status = 0;
    ASSERT_EQ(child, waitpid(child, &status, 0));
    EXPECT_TRUE(WIFEXITED(status)) << status;
    EXPECT_EQ(0, WEXITSTATUS(status));
    EXPECT_EQ(1, vesk_profiler_ready());  // the parent's thread still runs
    vesk_profiler_clock_stop(clock);
    vesk_profiler_terminate();
}

}  // namespace
