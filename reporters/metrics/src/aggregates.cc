#include "corvidine/aggregates.h"

#include <stdlib.h>

#include "corvidine/hdr_log.h"

namespace corvidine {

Histogram::Histogram(const Tags &tags, int precision) : tags(tags) {
    if (hdr_init(HDR_LOWEST_TRACKABLE_VALUE, HDR_HIGHEST_TRACKABLE_VALUE, precision, &histogram) != 0)
        histogram = nullptr;
}

std::string Histogram::encode() const {
    char *text = nullptr;
    if (histogram == nullptr || hdr_log_encode(histogram, &text) != 0) return std::string();
    std::string result(text);
    free(text);
    return result;
}

std::unique_ptr<Histogram> Histogram::decode(const char *text, int length) {
    hdr_histogram *h = nullptr;
    if (text == nullptr || length < 0 || hdr_log_decode(&h, text, static_cast<size_t>(length)) != 0)
        return nullptr;
    return std::make_unique<Histogram>(h);
}

std::string measurementKey(const std::string &name, const Tags &tags, bool reportSum) {
    std::string key;
    key.reserve(64);
    key.append(name).append(reportSum ? "&1&" : "&0&");
    for (const auto &tag : tags) key.append(tag.first).append(1, ':').append(tag.second).append(1, '&');
    return key;
}

void recordMeasurement(MeasurementMap &measurements, const std::string &name, const Tags &tags, double value,
                       int count, bool reportSum) {
    auto &slot = measurements[measurementKey(name, tags, reportSum)];
    if (!slot) slot = std::make_unique<Measurement>(name, tags, reportSum);
    slot->addCount(count);
    slot->addValue(value);
}

void recordHistogram(HistogramMap &histograms, const std::string &service, const std::string &transaction,
                     long duration, int precision) {
    auto &slot = histograms[service + "&" + transaction];
    if (!slot) {
        Tags tags;
        if (!service.empty()) tags["SN"] = service;
        if (!transaction.empty()) tags["TransactionName"] = transaction;
        slot = std::make_unique<Histogram>(tags, precision);
    }
    slot->recordValue(duration);
}

}  // namespace corvidine
