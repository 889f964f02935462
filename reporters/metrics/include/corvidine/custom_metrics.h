// Custom metrics: values the application records (a summary: value and
// count; an increment: a count only). A request thread builds one
// CustomMetricMessage and queues it; the metric thread folds it into this
// interval's measurements and writes them as a document of their own, keyed
// like span measurements (so a summary and an increment of one name are two
// measurements).
//
// Limits: at most 50 tags per metric, 49 with the host tag (which takes a
// place); at most maxCustomMetrics distinct measurements per interval: a new
// one beyond that is dropped, known ones go on counting.
//
// Document keys, in order: ConfiguredHostname (if set), TID, IPAddresses (if
// known), Timestamp_u, MetricsFlushInterval, IsCustom (true), measurements.
//
// Threads: CustomMetricMessage is made on request threads; CustomMetrics
// belongs to the metric thread and has no lock.
#ifndef CORVIDINE_CUSTOM_METRICS_H
#define CORVIDINE_CUSTOM_METRICS_H

#include <stddef.h>

#include <atomic>
#include <string>

#include "corvidine/aggregates.h"
#include "corvidine/metrics_message.h"
#include "corvidine/reporter.h"

namespace corvidine {

constexpr size_t kMaxCustomMetricTags = 50;
constexpr int kDefaultMaxCustomMetrics = 500;

// Tags allowed on one metric: 50, or 49 when the host tag is on.
inline size_t customMetricTagLimit(bool hostTag) {
    return hostTag ? kMaxCustomMetricTags - 1 : kMaxCustomMetricTags;
}

// Whether a custom metric may go into a queue holding `n` of at most `max`:
// not while fewer than 2 places are left. `ready` remembers the last answer,
// so that "Custom Metrics queue limit reached" and "Custom Metrics queue
// ready" are logged once at each edge (and ready once at the start).
bool customMetricQueueAdmits(std::atomic<bool> &ready, unsigned long n, unsigned long max);

class CustomMetricMessage {
public:
    // Null strings are stored empty; tags with an empty key or value are left
    // out, a repeated key keeps its last value.
    CustomMetricMessage(const char *service, const char *name, double value, int count, int hostTag,
                        int isSummary, const vesk_metric_tag_t *tags, size_t tagCount);
    virtual ~CustomMetricMessage() = default;

    const std::string &getServiceName() const { return serviceName; }
    const std::string &getName() const { return name; }
    double getValue() const { return value; }
    int getCount() const { return count; }
    bool includeHostTag() const { return hostTag; }
    bool isSummaryMetric() const { return summaryMetric; }
    const Tags &getTags() const { return tags; }

private:
    std::string serviceName;
    std::string name;
    double value;
    int count;
    bool hostTag;
    bool summaryMetric;
    Tags tags;
};

// "k1=v1&k2=v2" into `tags`, keys and values URL-decoded; a pair without "="
// or with an empty key is skipped, a later pair overrides an earlier one.
void parseTags(Tags &tags, const std::string &text);

class CustomMetrics {
public:
    // Adds SN (the service, if any) and HostTag "true" (if asked) to the
    // message's tags and records it. False when the metric was dropped at
    // the limit.
    bool processCustomMetricMessage(const CustomMetricMessage &m, int maxCustomMetrics);
    bool empty() const { return measurements_.empty(); }
    size_t size() const { return measurements_.size(); }
    const MeasurementMap &measurements() const { return measurements_; }
    // The document; the measurements are consumed (empty string, and the
    // measurements kept, when no buffer can be made).
    std::string generateCustomMetricsMessage(const HostFacts &host, int interval);

private:
    MeasurementMap measurements_;
};

}  // namespace corvidine

#endif
