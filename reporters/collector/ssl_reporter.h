// The Collector reporter: request threads queue serialized documents, two
// sender threads deliver them.
//
//   request threads -> eventQueue/profilingQueue -> event sender (postEvents)
//                   -> statusQueue, spanQueue, customMetricQueue
//                                                -> metric sender (span and
//                                                   custom metric aggregation,
//                                                   metrics messages, settings,
//                                                   status, host identity)
//
// Threads: the constructor starts both senders; send/sendSpan/the ready
// tests run on request threads and never touch the network; eventSender
// runs on the event thread (event_sender.cc), metricSender on the metric
// thread (metric_sender.cc); flush and the destructor on whatever thread
// ends the reporter. In a forked child the object exists without threads:
// only closeSockets may be called there (see vesk_reporter_ssl_destroy).
#ifndef CORVIDINE_COLLECTOR_SSL_REPORTER_H
#define CORVIDINE_COLLECTOR_SSL_REPORTER_H

#include <sys/types.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "Collector.h"
#include "connector.h"
#include "corvidine/custom_metrics.h"
#include "corvidine/metrics_message.h"
#include "corvidine/reporter.h"
#include "corvidine/span_aggregator.h"
#include "host_id.h"
#include "retry.h"
#include "ring_buffer.h"
#include "settings_manager.h"
#include "tls_socket.h"

namespace corvidine {

constexpr size_t kQueueSlots = 10000;
constexpr size_t kMaxDocumentBytes = 65507;
constexpr int kMaxRedirects = 20;
constexpr int kIdleSleepMs = 500;
constexpr int kPingIntervalS = 20;
constexpr int kSettingsIntervalS = 30;
constexpr int kTimeoutCheckIntervalS = 10;
constexpr size_t kMaxMetricsBatch = 100;  // metrics messages held while the Collector is away

enum SpanType { SPAN_PLAIN = 0, SPAN_HTTP = 1 };

// A batch of documents for one post.
struct BsonMessages {
    std::vector<std::string> messages;
    uint64_t bytes = 0;
};

// Adds a metrics message to the batch that waits for the Collector; beyond
// kMaxMetricsBatch the oldest goes, so a long outage keeps the latest. An
// empty message (one that could not be built) is not added.
void appendMetricsMessage(BsonMessages &batch, std::string message);

// The options after their checks (vesk_reporter_init_ssl).
struct SslReporterConfig {
    std::string serviceKey;
    std::string trustedPath;
    std::string hostnameAlias;
    int maxTransactions = 200;
    int flushMaxWaitTime = 5000;      // ms
    int eventsFlushInterval = 2;      // s
    int eventsFlushBatchSize = 2000;  // KB
    int ec2MetadataTimeout = 1000;    // ms
    int bufferSize = 1000;
    CollectorTimeouts timeouts;
};

class vesk_ssl_reporter {
public:
    using Clock = std::chrono::steady_clock;
    using Queue = RingBuffer<std::string, kQueueSlots>;

    // `factory` may be null: the first sender thread that needs it then
    // builds the TLS factory and loads the trust (so that start-up stays
    // cheap). Starts both sender threads.
    vesk_ssl_reporter(std::shared_ptr<VeskSSLSocketFactory> factory, const SslReporterConfig &config);
    ~vesk_ssl_reporter();

    // Request threads.
    ssize_t send(int channel, const char *data, size_t length);
    // Queues a SpanMessage (SPAN_PLAIN) or HttpSpanMessage (SPAN_HTTP) for
    // the metric thread; nothing else happens on the request thread.
    int sendSpan(int type, const char *service, const char *transaction, int64_t duration, int status,
                 const char *method, int hasError);
    // The transaction-name limit of this interval; key from transactionKey.
    bool isSpanWithinLimit(const std::string &key) {
        return spans.limit().isWithinLimit(key, maxTransactions.load());
    }
    // Queues a custom metric for the metric thread. False over the tag limit,
    // while stopping, or while the queue is (nearly) full: then the metric is
    // refused rather than an older one dropped.
    bool addCustomMetric(const char *name, double value, int count, int hostTag, const char *service, int isSummary,
                         const vesk_metric_tag_t *tags, size_t tagCount);
    bool isEventQueueReady();
    bool isProfilingQueueReady() { return isReady(profilingQueue, profilingReady_, "Profiling"); }
    bool isStatusQueueReady() { return isReady(statusQueue, statusReady_, "Status"); }
    bool isSpanQueueReady() { return isReady(spanQueue, spanReady_, "Span"); }
    bool isCustomMetricQueueReady() { return isReady(customMetricQueue, customMetricReady_, "CustomMetrics"); }
    int getServerResponse() const;
    int getProfilingInterval();

    // The thread that ends the reporter.
    void setSocketParams(const std::string &host, int port);
    bool flush(int limitMs);
    void disconnect();
    // A forked child: close the inherited descriptors, nothing else.
    int closeSockets();

    void disableSpan(bool disabled) { spansDisabled = disabled; }
    void setHistogramPrecision(int precision) { spans.setHistogramPrecision(precision); }
    uint64_t getQueuedCount() const { return eventQueue.total(); }
    uint64_t getSentCount() const { return sentCount.load(); }
    uint64_t getFailedCount() const { return failedCount.load(); }
    uint64_t getOverflowedCount() const { return eventQueue.overflowed(); }
    uint64_t getQueueLength() const { return eventQueue.count(); }
    uint64_t getQueueLargest() const { return eventQueue.largest(); }
    uint64_t getQueueSize() const { return eventQueue.size(); }
    int getFlushMaxWaitTime() const { return flushMaxWaitTime; }
    pid_t getPid() const { return pid; }
    int getHistogramPrecision() const { return spans.getHistogramPrecision(); }
    int getEventsFlushInterval();
    int getMaxTransactions() const { return maxTransactions.load(); }
    int getMetricsFlushInterval() const { return metricsFlushInterval.load(); }
    int getMaxCustomMetrics() const { return maxCustomMetrics.load(); }
    bool eventSenderStopped() const { return eventQueue.stopped(); }
    bool metricSenderStopped() const { return threadsStop.load(); }

    // Metric thread: applies the keys the Collector pushes with its settings.
    void processRemoteConfig(const std::map<std::string, std::string> &arguments);
    // Metric thread: this interval's documents (metrics_message.h,
    // custom_metrics.h) with this host's facts, gathered once for both
    // (hostFacts); they consume the aggregates.
    HostFacts hostFacts();
    std::string generateMetricsMessage(const HostFacts &facts);
    std::string generateCustomMetricsMessage(const HostFacts &facts);

    // The table's extended record, freed with the reporter.
    vesk_reporter_extended_t *extended = nullptr;

    Queue eventQueue;
    Queue profilingQueue;
    Queue statusQueue;
    RingBuffer<SpanMessage, kQueueSlots> spanQueue;
    RingBuffer<CustomMetricMessage, kQueueSlots> customMetricQueue;
    // Span aggregates of the current metrics interval: the maps belong to
    // the metric thread, the transaction limit is shared (span_aggregator.h).
    SpanAggregator spans;
    // Custom metrics of the current interval: metric thread only.
    CustomMetrics customMetrics;

private:
    template <typename Q>
    bool isReady(Q &queue, std::atomic<bool> &flag, const char *name);
    // Sender threads: the connector, made on first use.
    CollectorConnector &connector();
    void eventSender();
    void metricSender();
    void settingsStep(class MetricSenderState &state, Clock::time_point now);
    // True when the call is to be retried (the batch stays).
    bool handleMetricReply(class MetricSenderState &state, const ::collector::thrift::ResultMessage &reply,
                           BsonMessages &batch, RetryState &retry, bool isStatus);
    void postBatch(class MetricSenderState &state, Clock::time_point now, bool status);
    void copyHostId(::collector::thrift::HostID &out);
    // Sender threads: a sleep that disconnect cuts short, so that a process
    // does not wait out a sender's idle pause when it ends.
    void pause(int ms);
    // True once disconnect has begun: a sender that has not touched the
    // network yet then ends without building its TLS set-up.
    bool stopRequested();

    std::shared_ptr<VeskSSLSocketFactory> factory_;
    std::once_flag connectorOnce_;
    std::unique_ptr<CollectorConnector> connector_;
    std::atomic<CollectorConnector *> connectorReady_{nullptr};
    std::mutex targetMutex_;
    std::string host_;
    int port_ = 0;

    std::shared_ptr<VeskSettingsManager2> settingsManager;
    std::mutex eventsFlushIntervalMutex_;
    std::mutex profilingIntervalMutex_;
    const pid_t pid;
    HostIdentity hostIdentity;
    const std::string apiKey;
    const std::string hostnameAlias;
    const std::string trustedPath_;
    std::atomic<uint64_t> sentCount{0};
    std::atomic<uint64_t> failedCount{0};
    std::atomic<bool> eventReady_{false}, profilingReady_{false}, statusReady_{false}, spanReady_{false},
        customMetricReady_{false}, customMetricQueueReady_{false};
    std::atomic<bool> spansDisabled{false};
    std::atomic<bool> threadsStop{false};
    std::atomic<int> metricsFlushInterval{60};
    std::atomic<int> maxTransactions;
    std::atomic<int> maxCustomMetrics{500};
    int eventsFlushInterval;
    const int eventsFlushBatchSize;
    int profilingInterval = -1;
    const int maxTransactionsDefault;
    const int eventsFlushIntervalDefault;
    const int flushMaxWaitTime;
    std::atomic<bool> doFlushEvents_{false};
    std::atomic<bool> doFlushMetrics_{false};
    std::atomic<bool> eventConnected{false};
    std::atomic<bool> metricConnected{false};
    const CollectorTimeouts timeouts_;
    std::mutex pauseMutex_;
    std::condition_variable pauseCondition_;
    bool stopping_ = false;  // under pauseMutex_
    std::thread eventThread;
    std::thread metricThread;
};

// "host[:port]" with an optional scheme and path: the host (at most 99
// characters) and the port, 443 unless a readable one is given.
void parseCollectorAddress(const char *text, std::string &host, int &port);
// The service key for the log: token shortened to its first and last 4
// characters around "...", the ":service" part kept.
std::string displayServiceKey(const std::string &key);

}  // namespace corvidine

#endif
