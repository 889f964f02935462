#include "corvidine/custom_metrics.h"

#include <ctype.h>

#include "corvidine/debug_log.h"

namespace corvidine {

namespace {

int hexValue(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
    return c >= 'a' && c <= 'f' ? c - 'a' + 10 : -1;
}

// "+" is a space and "%XY" a byte; a "%" without two hex digits stays as it is.
std::string urldecode(const std::string &text) {
    std::string out;
    out.reserve(text.size());
    for (size_t i = 0; i < text.size(); i++) {
        char c = text[i];
        if (c == '+') {
            out += ' ';
        } else if (c == '%' && i + 2 < text.size() && hexValue(text[i + 1]) >= 0 &&
                   hexValue(text[i + 2]) >= 0) {
            out += static_cast<char>(hexValue(text[i + 1]) * 16 + hexValue(text[i + 2]));
            i += 2;
        } else {
            out += c;
        }
    }
    return out;
}

}  // namespace

bool customMetricQueueAdmits(std::atomic<bool> &ready, unsigned long n, unsigned long max) {
    bool full = n + 2 > max;
    if (ready.load() == !full) return !full;
    ready = !full;
    VESK_DEBUG_LOG(VESK_DEBUG_MODULE_REPORTER_SSL, VESK_DEBUG_LOW,
                   full ? "Custom Metrics queue limit reached at %lu/%lu" : "Custom Metrics queue ready at %lu/%lu", n,
                   max);
    return !full;
}

CustomMetricMessage::CustomMetricMessage(const char *service, const char *name, double value, int count,
                                         int hostTag, int isSummary, const vesk_metric_tag_t *tags,
                                         size_t tagCount)
    : serviceName(service ? service : ""),
      name(name ? name : ""),
      value(value),
      count(count),
      hostTag(hostTag != 0),
      summaryMetric(isSummary != 0) {
    for (size_t i = 0; tags != nullptr && i < tagCount; i++) {
        const char *k = tags[i].key, *v = tags[i].value;
        if (k != nullptr && v != nullptr && k[0] != '\0' && v[0] != '\0') this->tags[k] = v;
    }
}

void parseTags(Tags &tags, const std::string &text) {
    size_t start = 0;
    while (start < text.size()) {
        size_t end = text.find('&', start);
        if (end == std::string::npos) end = text.size();
        std::string pair = text.substr(start, end - start);
        size_t eq = pair.find('=');
        if (eq != std::string::npos && eq != 0)
            tags[urldecode(pair.substr(0, eq))] = urldecode(pair.substr(eq + 1));
        start = end + 1;
    }
}

bool CustomMetrics::processCustomMetricMessage(const CustomMetricMessage &m, int maxCustomMetrics) {
    Tags tags = m.getTags();
    if (!m.getServiceName().empty()) tags["SN"] = m.getServiceName();
    if (m.includeHostTag()) tags["HostTag"] = "true";
    if (maxCustomMetrics < 0) maxCustomMetrics = 0;
    if (measurements_.size() >= static_cast<size_t>(maxCustomMetrics) &&
        measurements_.count(measurementKey(m.getName(), tags, m.isSummaryMetric())) == 0)
        return false;
    recordMeasurement(measurements_, m.getName(), tags, m.getValue(), m.getCount(), m.isSummaryMetric());
    return true;
}

std::string CustomMetrics::generateCustomMetricsMessage(const HostFacts &host, int interval) {
    vesk_bson_buffer b;
    if (vesk_bson_buffer_init(&b) == nullptr) return std::string();
    appendMetricsHead(&b, host, false, interval);
    vesk_bson_append_bool(&b, "IsCustom", 1);
    vesk_bson_append_start_array(&b, "measurements");
    int index = 0;
    MeasurementMap taken;
    taken.swap(measurements_);
    for (const auto &entry : taken) addMeasurements(&b, &index, *entry.second);
    vesk_bson_append_finish_object(&b);
    return finishMetricsDocument(&b);
}

}  // namespace corvidine
