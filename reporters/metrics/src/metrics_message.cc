#include "corvidine/metrics_message.h"

#include <stdio.h>
#include <stdlib.h>
#include <sys/syscall.h>
#include <sys/sysinfo.h>
#include <sys/time.h>
#include <sys/utsname.h>
#include <time.h>
#include <unistd.h>

#include "corvidine/settings.h"

namespace corvidine {

namespace {

const char kResponseTime[] = "TransactionResponseTime";

void appendCut(vesk_bson_buffer *b, const char *key, const std::string &value, size_t max) {
    vesk_bson_append_string_n(b, key, value.data(), value.size() < max ? value.size() : max);
}

void appendTags(vesk_bson_buffer *b, const Tags &tags) {
    if (tags.empty()) return;
    vesk_bson_append_start_object(b, "tags");
    for (const auto &tag : tags) {
        std::string key = tag.first.substr(0, kMetricTagKeyMax);
        appendCut(b, key.c_str(), tag.second, kMetricTagValueMax);
    }
    vesk_bson_append_finish_object(b);
}

void startElement(vesk_bson_buffer *b, int *index) {
    char key[4];
    metricsArrayKey(*index, key);
    vesk_bson_append_start_object(b, key);
}

void finishElement(vesk_bson_buffer *b, int *index) {
    vesk_bson_append_finish_object(b);
    ++*index;
}

int64_t nowMicros() {
    struct timeval tv;
    gettimeofday(&tv, nullptr);
    return static_cast<int64_t>(tv.tv_sec) * 1000000 + tv.tv_usec;
}

// Resident pages from /proc/self/statm in bytes; -1 when unreadable.
int64_t processRam() {
    FILE *f = fopen("/proc/self/statm", "r");
    if (f == nullptr) return -1;
    unsigned long size = 0, resident = 0;
    int fields = fscanf(f, "%lu %lu", &size, &resident);
    fclose(f);
    if (fields != 2) return -1;
    return static_cast<int64_t>(resident) * sysconf(_SC_PAGESIZE);
}

void appendReporterValues(vesk_bson_buffer *b, int *index, const ReporterTotals &t) {
    addMetricsValueLong(b, index, "NumSent", t.numSent);
    addMetricsValueLong(b, index, "NumOverflowed", t.numOverflowed);
    addMetricsValueLong(b, index, "NumFailed", t.numFailed);
    addMetricsValueLong(b, index, "TotalEvents", t.totalEvents);
    addMetricsValueLong(b, index, "QueueLargest", t.queueLargest);
    double load[1];
    if (getloadavg(load, 1) == 1) addMetricsValueDouble(b, index, "Load1", load[0]);
    struct sysinfo info;
    if (sysinfo(&info) == 0) {
        addMetricsValueLong(b, index, "TotalRAM", static_cast<int64_t>(info.totalram));
        addMetricsValueLong(b, index, "FreeRAM", static_cast<int64_t>(info.freeram));
    }
    int64_t ram = processRam();
    if (ram >= 0) addMetricsValueLong(b, index, "ProcessRAM", ram);
}

}  // namespace

int getMetricsMsgNextInterval(int interval, int secondOfMinute) {
    if (interval <= 0) interval = kDefaultMetricsFlushInterval;
    if (interval > 60) return interval - secondOfMinute;
    return interval - (secondOfMinute % interval);
}

int getMetricsMsgNextInterval(int interval) {
    time_t now = time(nullptr);
    struct tm utc;
    gmtime_r(&now, &utc);
    return getMetricsMsgNextInterval(interval, utc.tm_sec % 60);  // a leap second counts as 59
}

void metricsArrayKey(int index, char key[4]) {
    snprintf(key, 4, "%d", index);
}

void addMetricsValueString(vesk_bson_buffer *b, int *index, const char *name, const char *value) {
    startElement(b, index);
    vesk_bson_append_string(b, "name", name);
    vesk_bson_append_string(b, "value", value);
    finishElement(b, index);
}

void addMetricsValueLong(vesk_bson_buffer *b, int *index, const char *name, int64_t value) {
    startElement(b, index);
    vesk_bson_append_string(b, "name", name);
    vesk_bson_append_long(b, "value", value);
    finishElement(b, index);
}

void addMetricsValueDouble(vesk_bson_buffer *b, int *index, const char *name, double value) {
    startElement(b, index);
    vesk_bson_append_string(b, "name", name);
    vesk_bson_append_double(b, "value", value);
    finishElement(b, index);
}

void addMeasurements(vesk_bson_buffer *b, int *index, const Measurement &m) {
    startElement(b, index);
    appendCut(b, "name", m.getName(), kMetricNameMax);
    vesk_bson_append_long(b, "count", m.getCount());
    if (m.reportSum()) vesk_bson_append_double(b, "sum", m.getSum());
    appendTags(b, m.getTags());
    finishElement(b, index);
}

void addHistogram(vesk_bson_buffer *b, int *index, const char *value, const Tags &tags) {
    startElement(b, index);
    vesk_bson_append_string(b, "name", kResponseTime);
    vesk_bson_append_string(b, "value", value);
    appendTags(b, tags);
    finishElement(b, index);
}

void appendMetricsHead(vesk_bson_buffer *b, const HostFacts &host, bool full, int interval) {
    if (!host.configuredHostname.empty())
        vesk_bson_append_string(b, "ConfiguredHostname", host.configuredHostname.c_str());
    if (full) vesk_bson_append_string(b, "Distro", host.distro.c_str());
    vesk_bson_append_long(b, "TID", static_cast<int64_t>(syscall(SYS_gettid)));
    struct utsname names;
    if (full && uname(&names) == 0) {
        vesk_bson_append_string(b, "UnameSysName", names.sysname);
        vesk_bson_append_string(b, "UnameVersion", names.version);
    }
    if (host.haveIPAddresses) {
        vesk_bson_append_start_array(b, "IPAddresses");
        char key[4];
        for (size_t i = 0; i < host.ipAddresses.size(); i++) {
            metricsArrayKey(static_cast<int>(i), key);
            vesk_bson_append_string(b, key, host.ipAddresses[i].c_str());
        }
        vesk_bson_append_finish_object(b);
    }
    vesk_bson_append_long(b, "Timestamp_u", nowMicros());
    vesk_bson_append_long(b, "MetricsFlushInterval", interval);
}

std::string finishMetricsDocument(vesk_bson_buffer *b) {
    std::string result;
    if (const char *data = vesk_bson_buffer_finish(b)) result.assign(data, vesk_bson_buffer_size(b));
    vesk_bson_buffer_destroy(b);
    return result;
}

std::string generateMetricsMessage(const HostFacts &host, const ReporterTotals &totals, SpanAggregator &spans,
                                   int interval) {
    vesk_bson_buffer b;
    if (vesk_bson_buffer_init(&b) == nullptr) return std::string();
    appendMetricsHead(&b, host, true, interval);
    // From here on, names count for the next interval.
    if (spans.limit().startInterval()) vesk_bson_append_bool(&b, "TransactionNameOverflow", 1);

    vesk_bson_append_start_array(&b, "measurements");
    int index = 0;
    vesk_settings_append_request_count(&b, &index);
    vesk_settings_append_token_bucket_exhaustion_count(&b, &index);
    vesk_settings_append_trace_count(&b, &index);
    vesk_settings_append_sample_count(&b, &index);
    vesk_settings_append_through_count(&b, &index);
    vesk_settings_append_through_ignored_count(&b, &index);
    vesk_settings_append_triggered_count(&b, &index);
    vesk_settings_append_sample_rate(&b, &index);
    vesk_settings_append_sample_source(&b, &index);
    appendReporterValues(&b, &index, totals);
    for (const auto &entry : spans.takeMeasurements()) addMeasurements(&b, &index, *entry.second);
    vesk_bson_append_finish_object(&b);

    vesk_bson_append_start_array(&b, "histograms");
    index = 0;
    for (const auto &entry : spans.takeHistograms()) {
        std::string encoded = entry.second->encode();
        if (!encoded.empty()) addHistogram(&b, &index, encoded.c_str(), entry.second->getTags());
    }
    vesk_bson_append_finish_object(&b);

    return finishMetricsDocument(&b);
}

}  // namespace corvidine
