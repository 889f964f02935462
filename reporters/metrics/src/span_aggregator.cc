#include "corvidine/span_aggregator.h"

namespace corvidine {

namespace {
const char kResponseTime[] = "TransactionResponseTime";
}

void SpanAggregator::process(const SpanMessage &span) {
    if (auto http = dynamic_cast<const HttpSpanMessage *>(&span))
        processHttpSpanMessage(*http);
    else
        processSpanMessage(span);
}

void SpanAggregator::recordHistograms(const SpanMessage &span) {
    int precision = precision_.load();
    recordHistogram(histograms_, span.getServiceName(), "", span.getDuration(), precision);
    // No name is the service histogram itself: counted once, not twice.
    if (!span.getTransaction().empty() && span.getTransaction() != "unknown")
        recordHistogram(histograms_, span.getServiceName(), span.getTransaction(), span.getDuration(),
                        precision);
}

void SpanAggregator::processSpanMessage(const SpanMessage &span) {
    recordHistograms(span);
    processMeasurements(span.getTransaction(), span.getDuration());
}

void SpanAggregator::processHttpSpanMessage(const HttpSpanMessage &span) {
    recordHistograms(span);
    processHttpMeasurements(span.getTransaction(), span);
}

void SpanAggregator::processMeasurements(const std::string &transaction, long duration) {
    recordMeasurement(measurements_, kResponseTime, Tags{{"TransactionName", transaction}},
                      static_cast<double>(duration), 1, true);
}

void SpanAggregator::processHttpMeasurements(const std::string &transaction, const HttpSpanMessage &span) {
    Tags tags;
    if (!span.getServiceName().empty()) tags["SN"] = span.getServiceName();
    tags["TransactionName"] = transaction;
    double value = static_cast<double>(span.getDuration());
    recordMeasurement(measurements_, kResponseTime, tags, value, 1, true);

    Tags withMethod = tags;
    withMethod["HttpMethod"] = span.getMethod();
    recordMeasurement(measurements_, kResponseTime, withMethod, value, 1, true);

    Tags withStatus = tags;
    withStatus["HttpStatus"] = std::to_string(span.getStatus());
    recordMeasurement(measurements_, kResponseTime, withStatus, value, 1, true);

    if (span.hasError()) {
        tags["Errors"] = "true";
        recordMeasurement(measurements_, kResponseTime, tags, value, 1, true);
    }
}

}  // namespace corvidine
