// Profiling spans: snapshots sorted into spans, compressed, put on the
// clock's grid and written as a chain of events (profile_spans.h).
#include "corvidine/profile_spans.h"

#include <stdio.h>
#include <string.h>

#include "corvidine/bson.h"
#include "corvidine/event.h"
#include "corvidine/startup.h"
#include "corvidine/utf8.h"

namespace vesk_profiler {
namespace {

constexpr uint64_t kHashSeed = 5381;

// djb2, over the characters as signed values.
uint64_t hash_string(uint64_t hash, const std::string &text) {
    for (char c : text) hash = hash * 33 + static_cast<uint64_t>(static_cast<int64_t>(static_cast<signed char>(c)));
    return hash;
}

uint64_t hash_int(uint64_t hash, int64_t value) { return hash * 33 + static_cast<uint64_t>(value); }

// From the outermost frame inwards, so that a frame's hash stands for the
// whole path down to it and one compare says two stacks agree that far.
void hash_snapshot(vesk_profiler_snapshot &snapshot) {
    uint64_t hash = kHashSeed;
    for (auto frame = snapshot.frames.rbegin(); frame != snapshot.frames.rend(); ++frame) {
        if (frame->method) hash = hash_string(hash, *frame->method);
        if (frame->class_name) hash = hash_string(hash, *frame->class_name);
        if (frame->file) hash = hash_string(hash, *frame->file);
        if (frame->line != 0) hash = hash_int(hash, frame->line);
        frame->hash = hash;
    }
    snapshot.hash = hash;
}

// A snapshot equal to the one before it is dropped (the gap in the sequence
// numbers tells of it); of the others only the frames below the part shared
// with the previous snapshot stay, and frames_exited says how many of the
// previous snapshot's frames are gone. Runs from the end, so that the
// previous snapshot is still whole when it is compared.
void optimize(std::vector<Record> &snapshots) {
    for (size_t i = snapshots.size(); i-- > 1;) {
        vesk_profiler_snapshot &cur = *snapshots[i];
        const vesk_profiler_snapshot &prev = *snapshots[i - 1];
        if (prev.hash == cur.hash && cur.record_type != kLastSnapshot) {
            snapshots.erase(snapshots.begin() + static_cast<std::ptrdiff_t>(i));
            continue;
        }
        size_t p = prev.frames.size(), c = cur.frames.size(), shared = 0;
        while (shared < p && shared < c && prev.frames[p - 1 - shared].hash == cur.frames[c - 1 - shared].hash)
            shared++;
        cur.frames_exited = p - shared;
        cur.frames.resize(c - shared);
    }
}

// Snapshots fall on function calls and loops, not on the grid: a time more
// than half an interval off its tick's place is moved there. The end is kept
// within the ticks that went by after the last snapshot.
void adjust_timestamps(std::vector<Record> &snapshots, vesk_profiler_snapshot &end) {
    const int64_t interval = end.interval;
    vesk_profiler_snapshot &first = *snapshots.front();
    vesk_profiler_snapshot &last = *snapshots.back();
    if (last.timestamp > end.timestamp) last.timestamp = end.timestamp;
    if (interval <= 0) return;
    for (size_t i = 1; i < snapshots.size(); i++) {
        vesk_profiler_snapshot &s = *snapshots[i];
        int64_t expected = static_cast<int64_t>(s.sequence - first.sequence) * interval + first.timestamp;
        int64_t off = expected - s.timestamp;
        if (off > interval / 2 || off < -(interval / 2)) s.timestamp = expected;
    }
    if (last.record_type == kLastSnapshot) return;
    if (end.sequence == last.sequence) end.sequence++;
    int64_t limit = static_cast<int64_t>(end.sequence - last.sequence) * interval;
    if (end.timestamp - last.timestamp > limit) end.timestamp = last.timestamp + limit;
}

void append_text(vesk_bson_buffer *b, const char *key, const std::string &text) {
    if (vesk_utf8_valid_prefix(text.data(), text.size()) == text.size()) {
        vesk_bson_append_string_n(b, key, text.data(), text.size());
        return;
    }
    std::string clean(text.size(), '?');
    size_t n = vesk_utf8_sanitize(text.data(), text.size(), &clean[0]);
    vesk_bson_append_string_n(b, key, clean.data(), n);
}

std::string op_id_hex(const vesk_metadata_t &md) {
    char hex[2 * VESK_MAX_OP_ID_LEN];
    vesk_btoh(md.op_id, hex, VESK_MAX_OP_ID_LEN);
    return std::string(hex, sizeof(hex));
}

// The ticks between two snapshots that no snapshot stands for, by their
// place on the grid after base; keys count from "1". Only times before
// `timestamp` are listed, and nothing at all for a gap below 2.
void add_omitted(vesk_bson_buffer *b, uint64_t sequence, uint64_t previous, int64_t base, int64_t timestamp,
                 int64_t interval) {
    if (previous < 1 || sequence < previous || sequence - previous < 2) return;
    uint64_t gap = sequence - previous;
    vesk_bson_append_start_array(b, "SnapshotsOmitted");
    for (uint64_t k = 1; k < gap; k++) {
        int64_t t = base + static_cast<int64_t>(k) * interval;
        if (t >= timestamp) break;  // later ones are later still
        char key[24];
        snprintf(key, sizeof(key), "%llu", static_cast<unsigned long long>(k));
        vesk_bson_append_long(b, key, t);
    }
    vesk_bson_append_finish_object(b);
}

void add_frames(vesk_bson_buffer *b, const vesk_profiler_snapshot &s) {
    vesk_bson_append_start_array(b, "NewFrames");
    size_t index = 0;
    for (const Frame &frame : s.frames) {
        char key[24];
        snprintf(key, sizeof(key), "%zu", index++);
        vesk_bson_append_start_object(b, key);
        if (frame.class_name) append_text(b, "C", *frame.class_name);
        if (frame.method) append_text(b, "M", *frame.method);
        if (frame.type == VESK_PROFILER_FRAME_USER) {
            if (frame.file) append_text(b, "F", *frame.file);
            if (frame.line != 0) vesk_bson_append_int(b, "L", frame.line);
        }
        vesk_bson_append_finish_object(b);
    }
    vesk_bson_append_finish_object(b);
}

// Events of one span, each linked to the one before through `chain`, which
// starts as the span's parent context and takes each event's op id.
class ChainWriter {
public:
    explicit ChainWriter(const vesk_metadata_t &parent) : chain_(parent) {}

    bool begin(const char *label) {
        if (vesk_event_init(&event_, &chain_, nullptr) != 0) return false;
        vesk_event_add_info(&event_, "Label", label);
        vesk_event_add_info(&event_, "Spec", "profiling");
        return true;
    }
    vesk_event_t *event() { return &event_; }
    vesk_bson_buffer *bson() { return &event_.buffer; }
    void edge() { vesk_event_add_edge(&event_, &chain_); }

    void finish(std::vector<std::string> &out) {
        memcpy(chain_.op_id, event_.metadata.op_id, VESK_MAX_OP_ID_LEN);
        const char *data = vesk_bson_buffer_finish(&event_.buffer);
        if (data != nullptr) {
            int32_t size;
            memcpy(&size, data, sizeof(size));
            out.emplace_back(data, static_cast<size_t>(size));
        }
        vesk_event_destroy(&event_);
    }

private:
    vesk_metadata_t chain_;
    vesk_event_t event_{};
};

std::vector<std::string> write_span(const std::vector<Record> &snapshots, const vesk_profiler_snapshot &end) {
    std::vector<std::string> out;
    ChainWriter w(end.context);
    const char *service = end.service_name ? end.service_name->c_str() : nullptr;
    const vesk_profiler_snapshot &first = *snapshots.front();

    if (!w.begin("entry")) return out;
    vesk_event_add_info(w.event(), "Language", "PHP");
    vesk_event_add_info_int64(w.event(), "Interval", end.interval / 1000);
    vesk_event_add_info(w.event(), "SpanRef", op_id_hex(first.context).c_str());
    if (service) vesk_event_add_info(w.event(), "SN", service);
    vesk_event_add_info_int64(w.event(), "Timestamp_u", first.timestamp);
    w.finish(out);

    const int64_t pid = vesk_current_pid();
    for (size_t i = 0; i < snapshots.size(); i++) {
        const vesk_profiler_snapshot &s = *snapshots[i];
        if (!w.begin("info")) return out;
        vesk_event_add_info_int64(w.event(), "PID", pid);
        vesk_event_add_info_int64(w.event(), "TID", s.tid);
        vesk_event_add_info_int64(w.event(), "Timestamp_u", s.timestamp);
        vesk_event_add_info_int64(w.event(), "FramesCount", static_cast<int64_t>(s.frames_count));
        vesk_event_add_info_int64(w.event(), "FramesExited", static_cast<int64_t>(s.frames_exited));
        if (i > 0) {
            const vesk_profiler_snapshot &prev = *snapshots[i - 1];
            add_omitted(w.bson(), s.sequence, prev.sequence, prev.timestamp, s.timestamp, end.interval);
        }
        add_frames(w.bson(), s);
        vesk_event_add_info(w.event(), "ContextOpID", op_id_hex(s.context).c_str());
        if (service) vesk_event_add_info(w.event(), "SN", service);
        w.edge();
        w.finish(out);
    }

    const vesk_profiler_snapshot &last = *snapshots.back();
    if (!w.begin("exit")) return out;
    if (last.record_type != kLastSnapshot)
        add_omitted(w.bson(), end.sequence, last.sequence, last.timestamp, end.timestamp, end.interval);
    if (service) vesk_event_add_info(w.event(), "SN", service);
    w.edge();
    vesk_event_add_info_int64(w.event(), "Timestamp_u", end.timestamp);
    w.finish(out);
    return out;
}

bool same_trace(const vesk_profiler_snapshot &a, const vesk_profiler_snapshot &b) {
    return memcmp(a.context.task_id, b.context.task_id, VESK_MAX_TASK_ID_LEN) == 0;
}

}  // namespace

// A span is known by the whole task id of its trace, so two traces never
// share one.
SpanAssembler::Span *SpanAssembler::span_for(const vesk_profiler_snapshot &record) {
    for (Span &span : spans_)
        if (!span.empty() && same_trace(*span.front(), record)) return &span;
    for (Span &span : spans_)
        if (span.empty()) return &span;
    return nullptr;
}

std::vector<std::string> SpanAssembler::add(Record record) {
    Span *span = span_for(*record);
    if (span == nullptr) return {};  // too many traces at once: dropped
    const bool ends = record->record_type == kEndOfSpan;
    if (!ends) {
        if (span->size() >= kSpanCapacity) return {};
        hash_snapshot(*record);
        if (span->size() + 1 == kSpanCapacity) record->record_type = kLastSnapshot;
    }
    span->push_back(std::move(record));
    if (!ends) return {};

    Record end = std::move(span->back());
    span->pop_back();
    std::vector<std::string> documents;
    if (!span->empty()) {
        optimize(*span);
        adjust_timestamps(*span, *end);
        documents = write_span(*span, *end);
    }
    span->clear();
    return documents;
}

size_t SpanAssembler::open_spans() const {
    size_t n = 0;
    for (const Span &span : spans_) n += span.empty() ? 0 : 1;
    return n;
}

void SpanAssembler::clear() {
    for (Span &span : spans_) span.clear();
}

}  // namespace vesk_profiler
