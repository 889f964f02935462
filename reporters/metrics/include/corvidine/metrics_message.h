// The metrics message: one BSON document per metrics interval with the
// layer counters of the settings table, the reporter's running totals, host
// and process facts, and the interval's span measurements and response-time
// histograms. Building it consumes the aggregates and resets the per-interval
// counters; a message the sender cannot deliver is not put back.
//
// Document keys, in order: ConfiguredHostname (if set), Distro, TID,
// UnameSysName, UnameVersion (if uname works), IPAddresses (if the interface
// list could be read), Timestamp_u, MetricsFlushInterval,
// TransactionNameOverflow (only when the limit turned a name away),
// measurements, histograms. Array elements are keyed by their index in
// decimal cut to three characters ("0".."999", then "100" for 1000, ...).
//
// Interface facts need sockets, which stay out of this library: the caller
// gathers them into HostFacts.
//
// Threads: the metric thread only (it owns the aggregates).
#ifndef CORVIDINE_METRICS_MESSAGE_H
#define CORVIDINE_METRICS_MESSAGE_H

#include <stdint.h>

#include <string>
#include <vector>

#include "corvidine/aggregates.h"
#include "corvidine/bson.h"
#include "corvidine/span_aggregator.h"

namespace corvidine {

constexpr size_t kMetricNameMax = 255;
constexpr size_t kMetricTagKeyMax = 64;
constexpr size_t kMetricTagValueMax = 255;
constexpr int kDefaultMetricsFlushInterval = 60;  // seconds

struct HostFacts {
    std::string configuredHostname;  // hostname_alias; left out when empty
    std::string distro;
    bool haveIPAddresses = false;  // false: getifaddrs failed, the key is left out
    std::vector<std::string> ipAddresses;
};

// The event sender's running totals (never reset by a message).
struct ReporterTotals {
    int64_t numSent = 0;
    int64_t numOverflowed = 0;
    int64_t numFailed = 0;
    int64_t totalEvents = 0;
    int64_t queueLargest = 0;
};

// Seconds until the next message so that messages fall on the wall clock:
// interval - (second % interval), a whole interval at the boundary itself.
// For intervals above 60 (multiples of 60): interval - second.
int getMetricsMsgNextInterval(int interval, int secondOfMinute);
int getMetricsMsgNextInterval(int interval);  // at the current UTC second

// Array element key of `index` into `key` (4 bytes).
void metricsArrayKey(int index, char key[4]);

// One { name, value } element into the open array; *index moves on.
void addMetricsValueString(vesk_bson_buffer *b, int *index, const char *name, const char *value);
void addMetricsValueLong(vesk_bson_buffer *b, int *index, const char *name, int64_t value);
void addMetricsValueDouble(vesk_bson_buffer *b, int *index, const char *name, double value);
// { name, count, sum (only if reportSum), tags (only if any) }, cut to the
// lengths above.
void addMeasurements(vesk_bson_buffer *b, int *index, const Measurement &m);
// { name "TransactionResponseTime", value (the encoded histogram), tags }.
void addHistogram(vesk_bson_buffer *b, int *index, const char *value, const Tags &tags);

// The common head of both metrics documents up to Timestamp_u (with
// Distro and Uname* only when `full`), then MetricsFlushInterval.
void appendMetricsHead(vesk_bson_buffer *b, const HostFacts &host, bool full, int interval);

// Finishes and destroys the buffer; the document's bytes, or an empty string
// when it could not be finished (the caller then sends nothing).
std::string finishMetricsDocument(vesk_bson_buffer *b);

// The document bytes; empty (aggregates left in place) when no buffer can be
// made, or empty after them when it cannot be finished.
std::string generateMetricsMessage(const HostFacts &host, const ReporterTotals &totals, SpanAggregator &spans,
                                   int interval);

}  // namespace corvidine

#endif
