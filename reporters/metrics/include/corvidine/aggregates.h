// The two aggregates a metrics message carries: a Measurement (a count and a
// sum under a name and a tag set) and a Histogram of response times under a
// tag set. Both live on the metric thread only and have no lock.
#ifndef CORVIDINE_AGGREGATES_H
#define CORVIDINE_AGGREGATES_H

#include <map>
#include <memory>
#include <string>

#include "corvidine/hdr_histogram.h"

namespace corvidine {

using Tags = std::map<std::string, std::string>;

class Measurement {
public:
    Measurement(std::string name, const Tags &tags, bool reportSum)
        : name(std::move(name)), tags(tags), reportSum_(reportSum) {}

    const std::string &getName() const { return name; }
    const Tags &getTags() const { return tags; }
    void addCount(int n) { count += n; }
    int getCount() const { return count; }
    void addValue(double value) { sum += value; }
    double getSum() const { return sum; }
    // False for counters: the message then leaves the sum out.
    bool reportSum() const { return reportSum_; }

private:
    std::string name;
    Tags tags;
    int count = 0;
    double sum = 0;
    bool reportSum_;
};

// Response times in microseconds, 1 µs to one hour, at 1..5 significant
// figures. Values beyond one hour are not counted.
class Histogram {
public:
    Histogram(const Tags &tags, int precision);
    // Takes ownership of `h` (may be null: then nothing is counted).
    explicit Histogram(hdr_histogram *h) : histogram(h) {}
    ~Histogram() { hdr_close(histogram); }
    Histogram(const Histogram &) = delete;
    Histogram &operator=(const Histogram &) = delete;

    const Tags &getTags() const { return tags; }
    // False when the value is not counted (out of range, or no histogram).
    bool recordValue(long value) { return histogram != nullptr && hdr_record_value(histogram, value); }
    void reset() {
        if (histogram) hdr_reset(histogram);
    }
    // The log encoding (base64 text); empty if it cannot be made.
    std::string encode() const;
    // A new histogram from a log encoding; null for text that is not one.
    static std::unique_ptr<Histogram> decode(const char *text, int length);
    // Null only when memory ran out at construction.
    const hdr_histogram *hdr() const { return histogram; }

private:
    hdr_histogram *histogram = nullptr;
    Tags tags;
};

// Both keyed as recordMeasurement / recordHistogram build their keys, so that
// iteration gives the message its order.
using MeasurementMap = std::map<std::string, std::unique_ptr<Measurement>>;
using HistogramMap = std::map<std::string, std::unique_ptr<Histogram>>;

// The map key of a measurement: name "&" ("1"|"0") "&" then each tag as
// key ":" value "&" in tag order.
std::string measurementKey(const std::string &name, const Tags &tags, bool reportSum);

// Adds `count` and `value` to the measurement of this name, tag set and
// reportSum (keyed by measurementKey), made on first use.
void recordMeasurement(MeasurementMap &measurements, const std::string &name, const Tags &tags, double value,
                       int count, bool reportSum);

// Counts `duration` in the histogram of service "&" transaction, made on first
// use with the tags SN and TransactionName (each only if not empty).
void recordHistogram(HistogramMap &histograms, const std::string &service, const std::string &transaction,
                     long duration, int precision);

}  // namespace corvidine

#endif
