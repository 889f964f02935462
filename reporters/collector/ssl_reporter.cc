#include "ssl_reporter.h"

#include <string.h>
#include <unistd.h>

#include "corvidine/debug_log.h"
#include "corvidine/startup.h"

namespace corvidine {

#define SSL_LOG(level, ...) VESK_DEBUG_LOG(VESK_DEBUG_MODULE_REPORTER_SSL, level, __VA_ARGS__)

namespace {
uint64_t bigQueueSize(int bufferSize) { return static_cast<uint64_t>(bufferSize) * 10; }
}  // namespace

void parseCollectorAddress(const char *text, std::string &host, int &port) {
    port = 443;
    host.clear();
    if (text == nullptr || text[0] == '\0') return;
    const char *start = strstr(text, "://");
    start = start ? start + 3 : text;
    const char *end = strchr(start, ':');
    bool hasPort = end != nullptr;
    if (!end) end = strchr(start, '/');
    if (!end) end = strchr(start, '?');
    if (!end) end = start + strlen(start);
    size_t length = static_cast<size_t>(end - start);
    host.assign(start, length > 99 ? 99 : length);
    int parsed;
    if (hasPort && sscanf(end, ":%d", &parsed) == 1) port = parsed;
}

std::string displayServiceKey(const std::string &key) {
    if (key.size() <= 20) return key;
    size_t colon = key.rfind(':');
    if (colon == std::string::npos || colon < 8) return key.substr(0, 4) + "...";
    return key.substr(0, 4) + "..." + key.substr(colon - 4);
}

vesk_ssl_reporter::vesk_ssl_reporter(std::shared_ptr<VeskSSLSocketFactory> factory, const SslReporterConfig &c)
    : eventQueue(bigQueueSize(c.bufferSize)),
      profilingQueue(bigQueueSize(c.bufferSize)),
      statusQueue(static_cast<uint64_t>(c.bufferSize)),
      spanQueue(static_cast<uint64_t>(c.bufferSize)),
      customMetricQueue(static_cast<uint64_t>(c.bufferSize)),
      factory_(std::move(factory)),
      settingsManager(std::make_shared<VeskSettingsManager2>()),
      pid(getpid()),
      hostIdentity(c.ec2MetadataTimeout),
      apiKey(c.serviceKey),
      hostnameAlias(c.hostnameAlias),
      trustedPath_(c.trustedPath),
      maxTransactions(c.maxTransactions),
      eventsFlushInterval(c.eventsFlushInterval),
      eventsFlushBatchSize(c.eventsFlushBatchSize),
      maxTransactionsDefault(c.maxTransactions),
      eventsFlushIntervalDefault(c.eventsFlushInterval),
      flushMaxWaitTime(c.flushMaxWaitTime),
      timeouts_(c.timeouts) {
    eventThread = std::thread(&vesk_ssl_reporter::eventSender, this);
    try {
        metricThread = std::thread(&vesk_ssl_reporter::metricSender, this);
    } catch (...) {
        disconnect();
        throw;
    }
}

vesk_ssl_reporter::~vesk_ssl_reporter() {
    SSL_LOG(VESK_DEBUG_HIGH, "STOPPING: SSL Reporter destructor entered");
    disconnect();
}

CollectorConnector &vesk_ssl_reporter::connector() {
    std::call_once(connectorOnce_, [this] {
        // Made here, on a sender thread, because OpenSSL's set-up and the
        // system trust store cost milliseconds a request must not wait for.
        if (!factory_) {
            factory_ = std::make_shared<VeskSSLSocketFactory>();
            std::string error;
            if (factory_->loadTrust(trustedPath_, error) != 0)
                SSL_LOG(VESK_DEBUG_LOW, "Trust set-up failed, connections will be refused: %s", error.c_str());
        }
        connector_ = std::make_unique<CollectorConnector>(factory_, apiKey, timeouts_);
        std::lock_guard<std::mutex> lock(targetMutex_);
        connector_->setSocketParams(host_, port_);
        connectorReady_ = connector_.get();
    });
    return *connector_;
}

void vesk_ssl_reporter::setSocketParams(const std::string &host, int port) {
    std::lock_guard<std::mutex> lock(targetMutex_);
    host_ = host;
    port_ = port;
    if (CollectorConnector *c = connectorReady_.load()) c->setSocketParams(host, port);
}

int vesk_ssl_reporter::getServerResponse() const {
    CollectorConnector *c = connectorReady_.load();
    return c ? c->getServerResponse() : kServerNoReply;
}

ssize_t vesk_ssl_reporter::send(int channel, const char *data, size_t length) {
    if (length > kMaxDocumentBytes) length = kMaxDocumentBytes;
    Queue *queue = channel == 0 ? &eventQueue : channel == 1 ? &statusQueue : channel == 2 ? &profilingQueue : nullptr;
    if (queue == nullptr) return 0;
    queue->push(std::make_shared<std::string>(data, length));
    return static_cast<ssize_t>(length);
}

int vesk_ssl_reporter::sendSpan(int type, const char *service, const char *transaction, int64_t duration,
                                int status, const char *method, int hasError) {
    if (spansDisabled) return 0;
    if (transaction != nullptr && transaction[0] == '\0') transaction = nullptr;
    if (type == SPAN_PLAIN)
        spanQueue.push(std::make_shared<SpanMessage>(service, transaction, duration));
    else if (type == SPAN_HTTP)
        spanQueue.push(std::make_shared<HttpSpanMessage>(service, transaction, duration, status, method, hasError));
    return 0;
}

bool vesk_ssl_reporter::addCustomMetric(const char *name, double value, int count, int hostTag, const char *service,
                                        int isSummary, const vesk_metric_tag_t *tags, size_t tagCount) {
    size_t limit = customMetricTagLimit(hostTag != 0);
    if (tagCount > limit) {
        VESK_DEBUG_LOG_USAGE(VESK_DEBUG_MODULE_REPORTER_SSL, VESK_DEBUG_ERROR,
                             "addCustomMetric: exceeded limit of %d tags per measurement, ignoring measurement.",
                             static_cast<int>(limit));
        return false;
    }
    if (threadsStop) {
        customMetricQueueReady_ = false;
        return false;
    }
    // Refused, not dropped from the front, while nearly full.
    if (!customMetricQueueAdmits(customMetricQueueReady_, customMetricQueue.count(), customMetricQueue.size() - 1))
        return false;
    customMetricQueue.push(
        std::make_shared<CustomMetricMessage>(service, name, value, count, hostTag, isSummary, tags, tagCount));
    return true;
}

HostFacts vesk_ssl_reporter::hostFacts() {
    HostFacts facts;
    facts.configuredHostname = hostnameAlias;
    facts.distro = hostIdentity.getDistro();
    facts.haveIPAddresses = HostIdentity::getIPAddresses(facts.ipAddresses);
    return facts;
}

std::string vesk_ssl_reporter::generateMetricsMessage(const HostFacts &facts) {
    ReporterTotals totals;
    totals.numSent = static_cast<int64_t>(getSentCount());
    totals.numOverflowed = static_cast<int64_t>(getOverflowedCount());
    totals.numFailed = static_cast<int64_t>(getFailedCount());
    totals.totalEvents = static_cast<int64_t>(getQueuedCount());
    totals.queueLargest = static_cast<int64_t>(getQueueLargest());
    return corvidine::generateMetricsMessage(facts, totals, spans, metricsFlushInterval.load());
}

std::string vesk_ssl_reporter::generateCustomMetricsMessage(const HostFacts &facts) {
    return customMetrics.generateCustomMetricsMessage(facts, metricsFlushInterval.load());
}

template <typename Q>
bool vesk_ssl_reporter::isReady(Q &queue, std::atomic<bool> &flag, const char *name) {
    if (queue.stopped()) {
        flag = false;
        return false;
    }
    uint64_t count = queue.count(), limit = queue.size() - 1;
    uint64_t free = limit - count;
    if (!flag) {
        if (free <= 1) return false;
        SSL_LOG(VESK_DEBUG_LOW, "%s: Send queue ready at %lu/%lu", name, static_cast<unsigned long>(count),
                static_cast<unsigned long>(limit));
        flag = true;
        return true;
    }
    if (free > 1) return true;
    SSL_LOG(VESK_DEBUG_LOW, "%s: Send queue limit reached at %lu/%lu", name, static_cast<unsigned long>(count),
            static_cast<unsigned long>(limit));
    flag = false;
    return false;
}

template bool vesk_ssl_reporter::isReady(Queue &, std::atomic<bool> &, const char *);
template bool vesk_ssl_reporter::isReady(RingBuffer<SpanMessage, kQueueSlots> &, std::atomic<bool> &, const char *);
template bool vesk_ssl_reporter::isReady(RingBuffer<CustomMetricMessage, kQueueSlots> &, std::atomic<bool> &,
                                         const char *);

bool vesk_ssl_reporter::isEventQueueReady() {
    vesk_internal_stats_set_event_queue_free(static_cast<uint32_t>(eventQueue.size() - 1 - eventQueue.count()));
    return isReady(eventQueue, eventReady_, "Events");
}

int vesk_ssl_reporter::getProfilingInterval() {
    std::lock_guard<std::mutex> lock(profilingIntervalMutex_);
    return profilingInterval;
}

int vesk_ssl_reporter::getEventsFlushInterval() {
    std::lock_guard<std::mutex> lock(eventsFlushIntervalMutex_);
    return eventsFlushInterval;
}

bool vesk_ssl_reporter::flush(int limitMs) {
    if (getpid() == pid) {
        doFlushEvents_ = true;
        doFlushMetrics_ = true;
    }
    auto deadline = Clock::now() + std::chrono::milliseconds(limitMs);
    while (Clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
        if (!doFlushEvents_ && !doFlushMetrics_) return true;
    }
    return !doFlushEvents_ && !doFlushMetrics_;
}

void vesk_ssl_reporter::pause(int ms) {
    std::unique_lock<std::mutex> lock(pauseMutex_);
    pauseCondition_.wait_for(lock, std::chrono::milliseconds(ms), [this] { return stopping_; });
}

bool vesk_ssl_reporter::stopRequested() {
    std::lock_guard<std::mutex> lock(pauseMutex_);
    return stopping_;
}

void vesk_ssl_reporter::disconnect() {
    eventQueue.stop();
    profilingQueue.stop();
    statusQueue.stop();
    threadsStop = true;
    {
        std::lock_guard<std::mutex> lock(pauseMutex_);
        stopping_ = true;
    }
    pauseCondition_.notify_all();
    for (std::thread *t : {&eventThread, &metricThread}) {
        if (!t->joinable()) continue;
        if (t->get_id() == std::this_thread::get_id()) {
            SSL_LOG(VESK_DEBUG_LOW, "thread: trying joining itself");
            t->detach();
            continue;
        }
        t->join();
    }
    SSL_LOG(VESK_DEBUG_LOW, "STOPPING: SSL Reporter sender thread terminated");
}

int vesk_ssl_reporter::closeSockets() {
    CollectorConnector *c = connectorReady_.load();
    return c ? c->closeSockets() : 0;
}

void vesk_ssl_reporter::processRemoteConfig(const std::map<std::string, std::string> &arguments) {
    metricsFlushInterval = 60;
    maxCustomMetrics = 500;
    {
        std::lock_guard<std::mutex> lock(profilingIntervalMutex_);
        profilingInterval = -1;
    }
    maxTransactions = maxTransactionsDefault;
    {
        std::lock_guard<std::mutex> lock(eventsFlushIntervalMutex_);
        eventsFlushInterval = eventsFlushIntervalDefault;
    }
    // A value is the 4 raw bytes of an int in host order; shorter: absent.
    auto read = [&arguments](const char *key, int &out) {
        std::string raw;
        if (!VeskSettingsManager2::getSettingArgumentValue(arguments, key, &raw) || raw.size() < 4) return false;
        int32_t v;
        memcpy(&v, raw.data(), 4);
        out = v;
        SSL_LOG(VESK_DEBUG_HIGH, "processRemoteConfig: Collector pushed down value for %s: %d", key, out);
        return true;
    };
    int v;
    if (read("MetricsFlushInterval", v)) {
        if (v > 0 && (60 % v == 0 || v % 60 == 0))
            metricsFlushInterval = v;
        else
            VESK_DEBUG_LOG_USAGE(VESK_DEBUG_MODULE_REPORTER_SSL, VESK_DEBUG_ERROR,
                                 "processRemoteConfig: Collector pushed down an invalid metrics flush interval: %d. "
                                 "Using default of %d",
                                 v, 60);
    }
    if (read("MaxTransactions", v)) maxTransactions = v;
    if (read("MaxCustomMetrics", v)) maxCustomMetrics = v;
    if (read("EventsFlushInterval", v)) {
        std::lock_guard<std::mutex> lock(eventsFlushIntervalMutex_);
        eventsFlushInterval = v;
    }
    if (read("ProfilingInterval", v)) {
        std::lock_guard<std::mutex> lock(profilingIntervalMutex_);
        profilingInterval = v;
    }
}

void vesk_ssl_reporter::copyHostId(::collector::thrift::HostID &out) { out = hostIdentity.copy(); }

}  // namespace corvidine
