// The metric thread: spans and custom metrics into their aggregates, the
// metrics messages on the clock-aligned interval, status documents,
// settings from the Collector, the expiry of settings, the host identity.
// Paced by a 500 ms sleep and timers.
#include <time.h>
#include <unistd.h>

#include <thread>

#include "corvidine/debug_log.h"
#include "ssl_reporter.h"

namespace corvidine {

namespace wire = ::collector::thrift;
using apache::thrift::TException;

#define METRIC_LOG(level, ...) VESK_DEBUG_LOG(VESK_DEBUG_MODULE_REPORTER_SSL, level, __VA_ARGS__)
#define METRIC_USAGE(level, ...) VESK_DEBUG_LOG_USAGE(VESK_DEBUG_MODULE_REPORTER_SSL, level, __VA_ARGS__)

uint64_t drainStatus(vesk_ssl_reporter::Queue &queue, BsonMessages &batch, int limitKb);

class MetricSenderState {
public:
    using Clock = vesk_ssl_reporter::Clock;
    Clock::time_point nextSettings, nextTimeoutCheck, nextPing, nextHostRefresh, nextMetrics;
    BsonMessages metricsBatch, statusBatch;
    RetryState connectRetry, settingsRetry, metricsRetry, statusRetry;
    int failedConnects = 0;
    int redirects = 0;
    int flushPasses = 0;
    int scheduledInterval = 0;  // the interval nextMetrics was set with
};

bool vesk_ssl_reporter::handleMetricReply(MetricSenderState &st, const wire::ResultMessage &reply,
                                          BsonMessages &batch, RetryState &retry, bool isStatus) {
    bool again = false;
    switch (reply.result) {
    case wire::ResultCode::OK:
        if (isStatus) METRIC_LOG(VESK_DEBUG_HIGH, "metricSender: Sent Status");
        batch = BsonMessages();
        retry.active = false;
        st.redirects = 0;
        break;
    case wire::ResultCode::TRY_LATER:
        METRIC_LOG(VESK_DEBUG_LOW, "metricSender: Server responded: Try later");
        again = true;
        break;
    case wire::ResultCode::LIMIT_EXCEEDED:
        METRIC_LOG(VESK_DEBUG_LOW, "metricSender: Server responded: Limit exceeded");
        again = true;
        break;
    case wire::ResultCode::INVALID_API_KEY:
        METRIC_USAGE(VESK_DEBUG_ERROR, "metricSender: Server responded: Invalid API key");
        batch = BsonMessages();
        threadsStop = true;
        break;
    case wire::ResultCode::REDIRECT:
        if (st.redirects >= kMaxRedirects) {
            METRIC_USAGE(VESK_DEBUG_ERROR, "metricSender: Max redirects of %d exceeded", kMaxRedirects);
            threadsStop = true;
            break;
        }
        metricConnected = false;
        connector().setRedirectAddress(reply.arg);
        st.redirects++;
        st.connectRetry.active = false;
        retry.active = false;
        break;
    default:
        break;
    }
    return again;
}

void vesk_ssl_reporter::settingsStep(MetricSenderState &st, Clock::time_point now) {
    CollectorLink &link = connector().metricLink;
    METRIC_LOG(VESK_DEBUG_HIGH, "metricSender: Requesting settings update...");
    wire::HostID id;
    char name[65] = {0};
    gethostname(name, 64);
    id.__set_hostname(name);
    try {
        wire::SettingsResult result;
        link.client->getSettings(result, apiKey, id, "2");
        switch (result.result) {
        case wire::ResultCode::OK: {
            METRIC_LOG(VESK_DEBUG_HIGH, "metricSender: Processed settings update");
            std::map<std::string, std::string> arguments;
            settingsManager->update(result.settings, arguments);
            processRemoteConfig(arguments);
            st.settingsRetry.active = false;
            st.redirects = 0;
            break;
        }
        case wire::ResultCode::TRY_LATER:
        case wire::ResultCode::LIMIT_EXCEEDED:
            METRIC_LOG(VESK_DEBUG_LOW, result.result == wire::ResultCode::TRY_LATER
                                           ? "metricSender: Server responded: Try later"
                                           : "metricSender: Server responded: Limit exceeded");
            setRetryDelay(st.settingsRetry, "metricSender.getSettings", RetryClock::now());
            st.settingsRetry.attempts = 0;  // settings are asked for as long as it takes
            break;
        case wire::ResultCode::INVALID_API_KEY:
            METRIC_USAGE(VESK_DEBUG_ERROR, "metricSender: Server responded: Invalid API key");
            threadsStop = true;
            break;
        case wire::ResultCode::REDIRECT:
            if (st.redirects >= kMaxRedirects) {
                METRIC_USAGE(VESK_DEBUG_ERROR, "metricSender: Max redirects of %d exceeded", kMaxRedirects);
                threadsStop = true;
                break;
            }
            metricConnected = false;
            connector().setRedirectAddress(result.arg);
            st.connectRetry.active = false;
            st.settingsRetry.active = false;
            st.redirects++;
            break;
        default:
            break;
        }
    } catch (const TException &e) {
        METRIC_LOG(VESK_DEBUG_LOW, "metricSender: Error getting settings update: %s", e.what());
        setRetryDelay(st.settingsRetry, "metricSender.getSettings", RetryClock::now());
        st.settingsRetry.attempts = 0;
        metricConnected = false;
    }
    if (metricConnected && !st.settingsRetry.active) {
        st.nextPing = now + std::chrono::seconds(kPingIntervalS);
        st.nextSettings = now + std::chrono::seconds(kSettingsIntervalS);
    }
}

void appendMetricsMessage(BsonMessages &batch, std::string message) {
    if (message.empty()) return;
    batch.bytes += message.size();
    batch.messages.push_back(std::move(message));
    if (batch.messages.size() > kMaxMetricsBatch) {
        batch.bytes -= batch.messages.front().size();
        batch.messages.erase(batch.messages.begin());
    }
}

// One post of the metrics or the status batch and the handling of its reply:
// the two calls differ only in the method and in their batch and retry state.
void vesk_ssl_reporter::postBatch(MetricSenderState &st, Clock::time_point now, bool status) {
    BsonMessages &batch = status ? st.statusBatch : st.metricsBatch;
    RetryState &retry = status ? st.statusRetry : st.metricsRetry;
    const char *method = status ? "postStatus" : "postMetrics";
    const char *name = status ? "metricSender.postStatus" : "metricSender.postMetrics";
    CollectorLink &link = connector().metricLink;
    try {
        wire::ResultMessage reply;
        wire::HostID id = hostIdentity.copy();
        if (status)
            link.client->postStatus(reply, apiKey, batch.messages, wire::EncodingType::BSON, id);
        else
            link.client->postMetrics(reply, apiKey, batch.messages, wire::EncodingType::BSON, id);
        if (handleMetricReply(st, reply, batch, retry, status) &&
            setRetryDelay(retry, name, RetryClock::now()) != 0) {
            METRIC_USAGE(VESK_DEBUG_ERROR, "%s: Exceeded max number of retries (%d). Dropping message.", name,
                         kRetryMaxAttempts);
            batch = BsonMessages();
        }
    } catch (const TException &e) {
        METRIC_LOG(VESK_DEBUG_LOW, "metricSender: Error during %s(): %s", method, e.what());
        metricConnected = false;
        if (setRetryDelay(retry, name, RetryClock::now()) != 0) batch = BsonMessages();
    }
    st.nextPing = now + std::chrono::seconds(kPingIntervalS);
}

void vesk_ssl_reporter::metricSender() {
    METRIC_LOG(VESK_DEBUG_HIGH, "STARTING: metricSender SSL sending thread");
    for (int i = 0; i < 3; i++) pause(10);
    if (stopRequested()) return;  // a short-lived process: nothing was ever sent
    CollectorConnector &conn = connector();
    CollectorLink &link = conn.metricLink;
    MetricSenderState st;
    auto start = Clock::now();
    st.nextSettings = start;
    st.nextTimeoutCheck = start + std::chrono::seconds(kTimeoutCheckIntervalS);
    st.nextPing = start + std::chrono::seconds(kPingIntervalS);
    st.nextHostRefresh = start;
    st.scheduledInterval = metricsFlushInterval.load();
    st.nextMetrics = start + std::chrono::seconds(getMetricsMsgNextInterval(st.scheduledInterval));

    while (!threadsStop) {
        auto now = Clock::now();
        auto wallNow = RetryClock::now();
        if (!metricConnected && retryAllowed(st.connectRetry, wallNow)) {
            int fd = conn.connect(link);
            if (fd <= 0) {
                if (st.connectRetry.active) {
                    if (st.failedConnects == kRetryMaxAttempts)
                        METRIC_USAGE(VESK_DEBUG_WARNING,
                                     "metricSender: Not able to connect to %s:%d after %d retries (Error %d). Please "
                                     "check firewall settings.",
                                     conn.host().c_str(), conn.port(), kRetryMaxAttempts, conn.getServerResponse());
                    st.failedConnects++;
                } else {
                    st.failedConnects = 0;
                }
                st.connectRetry.attempts = 0;
                setRetryDelay(st.connectRetry, "metricSender.connect", wallNow);
            } else {
                st.connectRetry.active = false;
                metricConnected = true;
            }
        }
        if (metricConnected && !threadsStop && retryAllowed(st.settingsRetry, wallNow) && now >= st.nextSettings)
            settingsStep(st, now);

        // Spans and custom metrics: taken without waiting, a snapshot of the
        // count, so a steady stream cannot hold the pass here. They go into
        // this interval's aggregates, whether connected or not.
        for (uint64_t n = spanQueue.count(); n > 0; n--) {
            std::shared_ptr<SpanMessage> span = spanQueue.pop(now);
            if (span) spans.process(*span);
        }
        for (uint64_t n = customMetricQueue.count(); n > 0; n--) {
            std::shared_ptr<CustomMetricMessage> metric = customMetricQueue.pop(now);
            if (metric) customMetrics.processCustomMetricMessage(*metric, maxCustomMetrics.load());
        }

        if (doFlushMetrics_) st.flushPasses++;
        if (now >= st.nextHostRefresh) {
            st.nextHostRefresh = Clock::now() + std::chrono::seconds(getRefreshHostIdNextInterval());
            hostIdentity.refreshHostId();
        }
        // An interval the Collector has just changed counts from its own
        // next boundary, not from the end of the old interval (up to a
        // minute away).
        if (st.scheduledInterval != metricsFlushInterval.load()) {
            st.scheduledInterval = metricsFlushInterval.load();
            st.nextMetrics = Clock::now() + std::chrono::seconds(getMetricsMsgNextInterval(st.scheduledInterval));
        }
        // Messages are made while the Collector is away too: up to a batch
        // of them wait for it, the oldest going first.
        if (now >= st.nextMetrics || st.flushPasses == 1) {
            st.scheduledInterval = metricsFlushInterval.load();
            st.nextMetrics = Clock::now() + std::chrono::seconds(getMetricsMsgNextInterval(st.scheduledInterval));
            HostFacts facts = hostFacts();
            appendMetricsMessage(st.metricsBatch, generateMetricsMessage(facts));
            if (!customMetrics.empty()) appendMetricsMessage(st.metricsBatch, generateCustomMetricsMessage(facts));
        }

        if (metricConnected) {
            bool metricsWait = !retryAllowed(st.metricsRetry, wallNow) && st.flushPasses == 0;
            if (!metricsWait && !st.metricsBatch.messages.empty()) postBatch(st, now, false);
            bool statusWaits = !retryAllowed(st.statusRetry, wallNow) && st.flushPasses == 0;
            bool statusWaiting = st.statusBatch.bytes > 0 || statusQueue.count() > 0;
            if (!statusWaits && !threadsStop && metricConnected && statusWaiting &&
                drainStatus(statusQueue, st.statusBatch, 100) > 0)
                postBatch(st, now, true);
            if (st.flushPasses != 0 && statusQueue.count() == 0) {
                doFlushMetrics_ = false;
                METRIC_LOG(VESK_DEBUG_LOW, "doFlushMetrics_ set to false");
                st.flushPasses = 0;
            }
            if (metricConnected && now >= st.nextPing) {
                try {
                    wire::ResultMessage reply;
                    link.client->ping(reply, apiKey);
                } catch (const TException &e) {
                    METRIC_LOG(VESK_DEBUG_LOW, "metricSender: Ping error: %s", e.what());
                    metricConnected = false;
                }
                st.nextPing = now + std::chrono::seconds(kPingIntervalS);
            }
            if (!metricConnected) CollectorConnector::close(link.transport);
        }
        if (now >= st.nextTimeoutCheck) {
            st.nextTimeoutCheck = Clock::now() + std::chrono::seconds(kTimeoutCheckIntervalS);
            settingsManager->deleteTimedOut(static_cast<int64_t>(time(nullptr)));
        }
        pause(kIdleSleepMs);
    }
    if (metricConnected && CollectorConnector::close(link.transport) == 0) metricConnected = false;
    METRIC_LOG(VESK_DEBUG_LOW, "metricSender: STOPPING");
}

}  // namespace corvidine
