/*
 * Profiling spans: what the profiler thread makes of the records it takes
 * from the queue (profiler.h). Snapshots are sorted into spans, one per
 * trace; the end-of-span record of a trace closes its span, which is then
 * compressed (a snapshot equal to the one before is left out and shows up
 * only as a gap in the sequence numbers; of the others only the frames that
 * differ from the previous snapshot are kept), its times are pulled onto the
 * clock's grid, and it becomes a chain of BSON events: entry, one info per
 * snapshot kept, exit.
 *
 * C++ only, one thread: the profiler thread (and unit tests). No locks.
 */
#ifndef CORVIDINE_PROFILE_SPANS_H
#define CORVIDINE_PROFILE_SPANS_H

#include <stdint.h>

#include <array>
#include <deque>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "corvidine/metadata.h"
#include "corvidine/profiler.h"

namespace vesk_profiler {

enum RecordType : uint8_t {
    kSnapshot = 1,
    kLastSnapshot = 2,  // the last snapshot a full span keeps
    kEndOfSpan = 3,
};

struct Frame {
    std::optional<std::string> method, class_name, file;
    int32_t line = 0;  // 0: unknown
    uint8_t type = VESK_PROFILER_FRAME_INTERNAL;
    uint64_t hash = 0;  // of the path from the outermost frame down to this one
};

// Snapshots a span keeps; later ones are dropped until its end record.
constexpr size_t kSpanCapacity = 3000;
// Spans open at once; records of further traces are dropped.
constexpr size_t kMaxSpans = 10;

}  // namespace vesk_profiler

// A snapshot, or (record_type 3) the end of a span. Sequence numbers, times
// and counts are 64-bit: a long-running worker would wrap 32-bit ticks and
// products of ticks and intervals.
struct vesk_profiler_snapshot {
    uint8_t record_type = vesk_profiler::kSnapshot;
    int64_t tid = 0;
    vesk_metadata_t context{};  // the request's context (end record: the span's parent)
    uint64_t sequence = 0;
    int64_t timestamp = 0;  // microseconds since the epoch
    uint64_t hash = 0;
    std::deque<vesk_profiler::Frame> frames;  // innermost first
    uint64_t frames_exited = 0;
    uint64_t frames_count = 0;  // depth of the stack, also frames not kept
    std::optional<std::string> service_name;  // end record only
    int64_t interval = 0;                       // microseconds, end record only
};

namespace vesk_profiler {

using Record = std::unique_ptr<vesk_profiler_snapshot>;

class SpanAssembler {
public:
    // Takes a record. When it ends a span, returns that span's documents in
    // the order to send them (none for a span without snapshots).
    std::vector<std::string> add(Record record);
    size_t open_spans() const;
    void clear();

private:
    using Span = std::vector<Record>;
    Span *span_for(const vesk_profiler_snapshot &record);
    std::array<Span, kMaxSpans> spans_;
};

}  // namespace vesk_profiler

#endif
