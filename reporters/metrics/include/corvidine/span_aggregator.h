// Folds finished spans into the measurements and response-time histograms
// of one metrics interval, per service and transaction.
//
// Per span: one histogram for the service, one for service and transaction
// (not for "unknown" or no name), and "TransactionResponseTime" measurements: for a
// plain span one tagged TransactionName; for an HTTP span SN (if any) and
// TransactionName, the same plus HttpMethod, the same plus HttpStatus, and
// with an error the same plus Errors "true". Method and status never share a
// measurement, so each can be summed over the other.
//
// Interval: the metrics message reads the maps through takeMeasurements /
// takeHistograms, which hand them over and leave the aggregator empty, and
// calls limit().startInterval() so that names count afresh.
//
// Threads: everything but limit() and setHistogramPrecision belongs to the
// metric thread and has no lock. limit() is shared with request threads
// (see transaction_limit.h).
#ifndef CORVIDINE_SPAN_AGGREGATOR_H
#define CORVIDINE_SPAN_AGGREGATOR_H

#include <atomic>
#include <string>

#include "corvidine/aggregates.h"
#include "corvidine/span_message.h"
#include "corvidine/transaction_limit.h"

namespace corvidine {

class SpanAggregator {
public:
    // Any thread: held in 1..5, default 2; applies to histograms made later.
    void setHistogramPrecision(int precision) {
        precision_ = precision < 1 ? 1 : (precision > 5 ? 5 : precision);
    }
    int getHistogramPrecision() const { return precision_.load(); }

    TransactionLimit &limit() { return limit_; }

    // Metric thread.
    void process(const SpanMessage &span);  // picks one of the two below
    void processSpanMessage(const SpanMessage &span);
    void processHttpSpanMessage(const HttpSpanMessage &span);

    const MeasurementMap &measurements() const { return measurements_; }
    const HistogramMap &histograms() const { return histograms_; }
    MeasurementMap takeMeasurements() {
        MeasurementMap taken;
        taken.swap(measurements_);
        return taken;
    }
    HistogramMap takeHistograms() {
        HistogramMap taken;
        taken.swap(histograms_);
        return taken;
    }

private:
    void recordHistograms(const SpanMessage &span);
    void processMeasurements(const std::string &transaction, long duration);
    void processHttpMeasurements(const std::string &transaction, const HttpSpanMessage &span);

    std::atomic<int> precision_{2};
    TransactionLimit limit_;
    MeasurementMap measurements_;
    HistogramMap histograms_;
};

}  // namespace corvidine

#endif
