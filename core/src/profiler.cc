// Snapshots, the queue between request threads and the profiler thread, and
// that thread (profiler.h).
#include "corvidine/profiler.h"

#include <pthread.h>
#include <string.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <unistd.h>

#include <condition_variable>
#include <deque>
#include <mutex>
#include <new>

#include "corvidine/debug_log.h"
#include "corvidine/event.h"
#include "corvidine/profile_spans.h"
#include "corvidine/startup.h"

using vesk_profiler::Record;

namespace {

int64_t now_us() {
    struct timeval tv;
    gettimeofday(&tv, nullptr);
    return static_cast<int64_t>(tv.tv_sec) * 1000000 + tv.tv_usec;
}

std::optional<std::string> copy_or_none(const char *text, size_t len) {
    if (text == nullptr) return std::nullopt;
    return std::string(text, len);
}

// Everything the request threads share with the profiler thread, under
// `mutex`. `thread_pid` says which process the thread runs in: a forked
// child has none until it starts its own.
struct ProfilerState {
    std::mutex mutex;
    std::condition_variable wake;
    std::deque<Record> queue;
    size_t snapshots_queued = 0;  // end records do not count against the capacity
    bool terminating = false;
    pid_t thread_pid = 0;
    pthread_t thread{};
};

// Never destroyed: the thread may outlive static destruction at exit.
ProfilerState &state() {
    static ProfilerState *s = new ProfilerState;
    return *s;
}

bool running_here(const ProfilerState &s) { return s.thread_pid != 0 && s.thread_pid == vesk_current_pid(); }

void send_documents(const std::vector<std::string> &documents) {
    for (const std::string &doc : documents) vesk_raw_send(VESK_SEND_PROFILING, doc.data(), doc.size());
}

// Takes records until told to stop, and then until the queue is empty, so
// that a span ended just before shutdown is still sent.
void *profiler_main(void *) {
    ProfilerState &s = state();
    vesk_profiler::SpanAssembler assembler;
    for (;;) {
        Record record;
        {
            std::unique_lock<std::mutex> lock(s.mutex);
            s.wake.wait(lock, [&] { return !s.queue.empty() || s.terminating; });
            if (s.queue.empty()) break;
            record = std::move(s.queue.front());
            s.queue.pop_front();
            if (record->record_type != vesk_profiler::kEndOfSpan) s.snapshots_queued--;
        }
        send_documents(assembler.add(std::move(record)));
    }
    if (assembler.open_spans() > 0)
        VESK_DEBUG_LOG(VESK_DEBUG_MODULE_LIB, VESK_DEBUG_LOW, "Profiler stops with %zu unfinished spans",
                       assembler.open_spans());
    return nullptr;
}

bool enqueue(Record record, bool bounded) {
    ProfilerState &s = state();
    std::lock_guard<std::mutex> lock(s.mutex);
    if (!running_here(s) || s.terminating) return false;
    if (bounded) {
        if (s.snapshots_queued >= VESK_PROFILER_QUEUE_CAPACITY) return false;
        s.snapshots_queued++;
    }
    s.queue.push_back(std::move(record));
    s.wake.notify_one();
    return true;
}

// A fork copies the queue in a consistent state (the lock is held across
// it); the child owns none of its records' spans, and no profiler thread.
void before_fork() { state().mutex.lock(); }
void after_fork_parent() { state().mutex.unlock(); }
void after_fork_child() {
    ProfilerState &s = state();
    s.queue.clear();
    s.snapshots_queued = 0;
    s.thread_pid = 0;
    s.terminating = false;
    s.mutex.unlock();
}
pthread_once_t g_atfork_once = PTHREAD_ONCE_INIT;
void register_atfork() { pthread_atfork(before_fork, after_fork_parent, after_fork_child); }

}  // namespace

extern "C" {

vesk_profiler_snapshot *vesk_profiler_snapshot_new(uint64_t sequence, const vesk_metadata_t *context) {
    vesk_profiler_snapshot *s = new (std::nothrow) vesk_profiler_snapshot;
    if (s == nullptr) return nullptr;
    if (context != nullptr) vesk_metadata_copy(&s->context, context);
    s->sequence = sequence;
    s->timestamp = now_us();
    s->tid = static_cast<int64_t>(syscall(SYS_gettid));
    return s;
}

void vesk_profiler_snapshot_add_frame(vesk_profiler_snapshot *snapshot, int frame_type, const char *method,
                                      size_t method_len, const char *class_name, size_t class_len,
                                      const char *file, size_t file_len, int32_t line) {
    snapshot->frames_count++;
    // Frames come innermost first: a full ring drops its innermost frame.
    if (snapshot->frames.size() >= VESK_PROFILER_MAX_FRAMES) snapshot->frames.pop_front();
    vesk_profiler::Frame frame;
    frame.type = static_cast<uint8_t>(frame_type);
    frame.method = copy_or_none(method, method_len);
    frame.class_name = copy_or_none(class_name, class_len);
    frame.file = copy_or_none(file, file_len);
    frame.line = line > 0 ? line : 0;
    snapshot->frames.push_back(std::move(frame));
}

void vesk_profiler_snapshot_count_frames(vesk_profiler_snapshot *snapshot, uint64_t count) {
    snapshot->frames_count += count;
}

size_t vesk_profiler_snapshot_frame_total(const vesk_profiler_snapshot *snapshot) {
    return static_cast<size_t>(snapshot->frames_count);
}

void vesk_profiler_snapshot_free(vesk_profiler_snapshot *snapshot) { delete snapshot; }

int vesk_profiler_start(void) {
    ProfilerState &s = state();
    pthread_once(&g_atfork_once, register_atfork);
    std::lock_guard<std::mutex> lock(s.mutex);
    if (running_here(s)) return 0;
    s.terminating = false;
    if (pthread_create(&s.thread, nullptr, profiler_main, nullptr) != 0) {
        VESK_DEBUG_LOG_USAGE(VESK_DEBUG_MODULE_LIB, VESK_DEBUG_ERROR, "Cannot start the profiler thread");
        return -1;
    }
    s.thread_pid = vesk_current_pid();
    return 0;
}

int vesk_profiler_ready(void) {
    ProfilerState &s = state();
    std::lock_guard<std::mutex> lock(s.mutex);
    return running_here(s) && !s.terminating && s.snapshots_queued < VESK_PROFILER_QUEUE_CAPACITY;
}

int vesk_profiler_report_snapshot(vesk_profiler_snapshot *snapshot) {
    if (snapshot == nullptr) return -1;
    Record record(snapshot);
    record->record_type = vesk_profiler::kSnapshot;
    return enqueue(std::move(record), true) ? 0 : -1;
}

int vesk_profiler_notify_done(const vesk_metadata_t *parent, uint64_t sequence, const char *service_name,
                              int64_t interval_us) {
    Record record(vesk_profiler_snapshot_new(sequence, parent));
    if (!record) return -1;
    record->record_type = vesk_profiler::kEndOfSpan;
    if (service_name != nullptr) record->service_name = std::string(service_name);
    record->interval = interval_us;
    return enqueue(std::move(record), false) ? 0 : -1;
}

void vesk_profiler_terminate(void) {
    ProfilerState &s = state();
    pthread_t thread;
    {
        std::lock_guard<std::mutex> lock(s.mutex);
        if (!running_here(s)) return;
        s.terminating = true;
        s.wake.notify_one();
        thread = s.thread;
    }
    pthread_join(thread, nullptr);
    std::lock_guard<std::mutex> lock(s.mutex);
    s.thread_pid = 0;
    s.terminating = false;
}

}  // extern "C"
