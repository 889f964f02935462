// The event thread: drains the event and profiling queues into batches and
// posts them, acting on every reply of the Collector.
#include <thread>

#include "corvidine/debug_log.h"
#include "corvidine/startup.h"
#include "ssl_reporter.h"

namespace corvidine {

namespace wire = ::collector::thrift;
using apache::thrift::TException;

#define EVENT_LOG(level, ...) VESK_DEBUG_LOG(VESK_DEBUG_MODULE_REPORTER_SSL, level, __VA_ARGS__)
#define EVENT_USAGE(level, ...) VESK_DEBUG_LOG_USAGE(VESK_DEBUG_MODULE_REPORTER_SSL, level, __VA_ARGS__)

namespace {

using Clock = vesk_ssl_reporter::Clock;

// Appends what `queue` holds (or, when empty, waits up to 500 ms for one
// element) unless the batch has reached `limitKb`. The byte total.
uint64_t getMessages(vesk_ssl_reporter::Queue &queue, BsonMessages &batch, int limitKb) {
    if (batch.bytes >= static_cast<uint64_t>(limitKb) * 1024) return batch.bytes;
    uint64_t n = queue.count();
    if (n == 0) n = 1;
    auto deadline = Clock::now() + std::chrono::milliseconds(kIdleSleepMs);
    for (uint64_t i = 0; i < n; i++) {
        std::shared_ptr<std::string> element = queue.pop(deadline);
        if (!element) continue;
        batch.bytes += element->size();
        batch.messages.push_back(std::move(*element));
    }
    return batch.bytes;
}

}  // namespace

// Defined here so that metric_sender.cc shares it.
uint64_t drainStatus(vesk_ssl_reporter::Queue &queue, BsonMessages &batch, int limitKb) {
    return getMessages(queue, batch, limitKb);
}

void vesk_ssl_reporter::eventSender() {
    EVENT_LOG(VESK_DEBUG_HIGH, "STARTING: eventSender SSL sending thread");
    for (int i = 0; i < 3; i++) pause(10);
    if (stopRequested()) return;  // a short-lived process: nothing was ever sent
    CollectorConnector &conn = connector();
    CollectorLink &link = conn.eventLink;
    hostIdentity.refreshHostId();
    auto nextPing = Clock::now() + std::chrono::seconds(kPingIntervalS);
    auto nextFlush = Clock::now();
    RetryState connectRetry, postRetry;
    int failedConnects = 0, redirects = 0;
    BsonMessages batch;

    while (!eventQueue.stopped() && !profilingQueue.stopped()) {
        auto now = Clock::now();
        auto wallNow = RetryClock::now();
        bool flushing = doFlushEvents_;
        bool idle = false;

        if (!eventConnected) {
            if (retryAllowed(connectRetry, wallNow)) {
                int fd = conn.connect(link);
                if (fd <= 0) {
                    if (connectRetry.active) {
                        if (failedConnects == kRetryMaxAttempts)
                            EVENT_USAGE(VESK_DEBUG_WARNING,
                                        "eventSender: Not able to connect to %s:%d after %d retries (Error %d). "
                                        "Please check firewall settings.",
                                        conn.host().c_str(), conn.port(), kRetryMaxAttempts, conn.getServerResponse());
                        failedConnects++;
                    } else {
                        failedConnects = 0;
                    }
                    connectRetry.attempts = 0;
                    setRetryDelay(connectRetry, "eventSender.connect", wallNow);
                } else {
                    connectRetry.active = false;
                    eventConnected = true;
                }
            }
            pause(kIdleSleepMs);
            continue;
        }

        bool skipToPing = false;
        if (!retryAllowed(postRetry, wallNow)) {
            idle = true;
            if (!flushing) skipToPing = true;
        }
        if (!skipToPing) {
            getMessages(eventQueue, batch, eventsFlushBatchSize);
            getMessages(profilingQueue, batch, eventsFlushBatchSize);
            now = Clock::now();
            bool limitReached = now > nextFlush || batch.bytes >= static_cast<uint64_t>(eventsFlushBatchSize) * 1024;
            if (batch.bytes == 0 || (!flushing && !limitReached)) {
                idle = true;
            } else {
                nextFlush = now + std::chrono::seconds(getEventsFlushInterval());
                wire::HostID id = hostIdentity.copy();
                int32_t n = static_cast<int32_t>(batch.messages.size());
                wire::ResultMessage reply;
                bool retry = false;
                try {
                    link.client->postEvents(reply, apiKey, batch.messages, wire::EncodingType::BSON, id);
                    switch (reply.result) {
                    case wire::ResultCode::OK:
                        EVENT_LOG(VESK_DEBUG_HIGH, "eventSender: Sent Event(s)");
                        sentCount += n;
                        vesk_internal_stats_collector_response_ok();
                        batch = BsonMessages();
                        postRetry.active = false;
                        redirects = 0;
                        break;
                    case wire::ResultCode::TRY_LATER:
                        EVENT_LOG(VESK_DEBUG_LOW, "eventSender: Server responded: Try later");
                        failedCount += n;
                        vesk_internal_stats_collector_response_try_later();
                        retry = true;
                        break;
                    case wire::ResultCode::LIMIT_EXCEEDED:
                        EVENT_LOG(VESK_DEBUG_LOW, "eventSender: Server responded: Limit exceeded");
                        failedCount += n;
                        vesk_internal_stats_collector_response_limit_exceeded();
                        retry = true;
                        break;
                    case wire::ResultCode::INVALID_API_KEY:
                        EVENT_USAGE(VESK_DEBUG_ERROR, "eventSender: Server responded: Invalid API key");
                        batch = BsonMessages();
                        eventQueue.stop();
                        break;
                    case wire::ResultCode::REDIRECT:
                        if (redirects >= kMaxRedirects) {
                            EVENT_USAGE(VESK_DEBUG_ERROR, "eventSender: Max redirects of %d exceeded", kMaxRedirects);
                            eventQueue.stop();
                            break;
                        }
                        eventConnected = false;
                        conn.setRedirectAddress(reply.arg);
                        redirects++;
                        connectRetry.active = false;
                        postRetry.active = false;
                        break;
                    default:
                        break;
                    }
                    if (retry && setRetryDelay(postRetry, "eventSender.postEvents", RetryClock::now()) != 0) {
                        EVENT_USAGE(VESK_DEBUG_ERROR,
                                    "eventSender.postEvents: Exceeded max number of retries (%d). Dropping message.",
                                    kRetryMaxAttempts);
                        batch = BsonMessages();
                    }
                } catch (const TException &e) {
                    EVENT_LOG(VESK_DEBUG_LOW, "eventSender: Connection error: %s", e.what());
                    eventConnected = false;
                    if (setRetryDelay(postRetry, "eventSender.postEvents", RetryClock::now()) != 0) {
                        EVENT_USAGE(VESK_DEBUG_ERROR,
                                    "eventSender.postEvents: Exceeded max number of retries (%d). Dropping message.",
                                    kRetryMaxAttempts);
                        batch = BsonMessages();
                    }
                    failedCount += batch.messages.size();
                }
                nextPing = Clock::now() + std::chrono::seconds(kPingIntervalS);
                idle = false;
            }
            if (flushing && eventQueue.count() == 0) {
                doFlushEvents_ = false;
                EVENT_LOG(VESK_DEBUG_LOW, "doFlushEvents_ set to false");
            }
            if (!eventConnected) {
                CollectorConnector::close(link.transport);
                pause(kIdleSleepMs);
                continue;
            }
        }
        if (Clock::now() >= nextPing) {
            try {
                wire::ResultMessage reply;
                link.client->ping(reply, apiKey);
            } catch (const TException &e) {
                EVENT_LOG(VESK_DEBUG_LOW, "eventSender: Ping error: %s", e.what());
                eventConnected = false;
            }
            nextPing = Clock::now() + std::chrono::seconds(kPingIntervalS);
        }
        if (idle) pause(kIdleSleepMs);
    }

    if (eventConnected && CollectorConnector::close(link.transport) == 0) eventConnected = false;
    EVENT_LOG(VESK_DEBUG_LOW,
              "eventSender: STOPPING: Message queue %lu/%lu: %lu in -> %lu sent + %lu dropped + %lu failed + %lu in-queue",
              static_cast<unsigned long>(getQueueLargest()), static_cast<unsigned long>(getQueueSize()),
              static_cast<unsigned long>(getQueuedCount()), static_cast<unsigned long>(getSentCount()),
              static_cast<unsigned long>(getOverflowedCount()), static_cast<unsigned long>(getFailedCount()),
              static_cast<unsigned long>(getQueueLength()));
}

}  // namespace corvidine
