// vesk_reporter_init_ssl (options checked, reporter made and published in
// the table) and the table's slots, which forward to vesk_ssl_reporter.
#include <openssl/pem.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include <new>

#include "corvidine/debug_log.h"
#include "corvidine/settings.h"
#include "corvidine/ssl_reporter.h"
#include "corvidine/startup.h"
#include "ssl_reporter.h"

using corvidine::vesk_ssl_reporter;

#define INIT_WARN(...) VESK_DEBUG_LOG_USAGE(VESK_DEBUG_MODULE_REPORTER_SSL, VESK_DEBUG_WARNING, __VA_ARGS__)

namespace {

// -1: not given, the default silently; other negatives: the default with
// `message`. A macro, so that each option has its own usage counter.
#define CHECKED(value, fallback, message)      \
    [&]() -> int {                             \
        int v_ = (value);                      \
        if (v_ == -1) return (fallback);       \
        if (v_ < -1) {                         \
            INIT_WARN(message, v_, (fallback)); \
            return (fallback);                 \
        }                                      \
        return v_;                             \
    }()

// A trust file that exists must hold a certificate (code 9); reading it
// here is cheap. Loading it, or the system store, happens on the senders.
bool trustFileUsable(const std::string &configured, std::string &path) {
    path = configured.empty() ? corvidine::kDefaultTrustedPath : configured;
    FILE *f = fopen(path.c_str(), "r");
    if (f == nullptr) return true;
    X509 *cert = PEM_read_X509(f, nullptr, nullptr, nullptr);
    fclose(f);
    if (cert == nullptr) return false;
    X509_free(cert);
    return true;
}

vesk_ssl_reporter *self(void *ctx) { return static_cast<vesk_ssl_reporter *>(ctx); }

int event_ready(void *ctx) { return ctx == nullptr || self(ctx)->isEventQueueReady(); }
int profiling_ready(void *ctx) { return ctx == nullptr || self(ctx)->isProfilingQueueReady(); }
int status_ready(void *ctx) { return ctx == nullptr || self(ctx)->isStatusQueueReady(); }
int span_ready(void *ctx) { return ctx == nullptr || self(ctx)->isSpanQueueReady(); }
int custom_metric_ready(void *ctx) { return ctx == nullptr || self(ctx)->isCustomMetricQueueReady(); }
int is_within_limit(void *ctx, const char *service, const char *transaction) {
    return ctx != nullptr && self(ctx)->isSpanWithinLimit(corvidine::transactionKey(service, transaction));
}

ssize_t send(void *ctx, int channel, const char *data, size_t length) {
    if (ctx == nullptr || data == nullptr) {
        VESK_DEBUG_LOG(VESK_DEBUG_MODULE_REPORTER_SSL, VESK_DEBUG_HIGH, "Unable to send - invalid parameters");
        return -1;
    }
    return self(ctx)->send(channel, data, length);
}

int send_span(void *ctx, const char *service, const char *transaction, int64_t duration) {
    if (ctx == nullptr) return 0;
    return self(ctx)->sendSpan(corvidine::SPAN_PLAIN, service, transaction, duration, 0, nullptr, 0);
}

int send_http_span(void *ctx, const char *service, const char *transaction, int64_t duration, int status,
                   const char *method, int has_error) {
    if (ctx == nullptr) return 0;
    return self(ctx)->sendSpan(corvidine::SPAN_HTTP, service, transaction, duration, status, method, has_error);
}

int add_custom_metric(void *ctx, const char *name, double value, int count, int host_tag, const char *service_name,
                      int summary, const vesk_metric_tag_t *tags, size_t tag_count) {
    if (ctx == nullptr || name == nullptr) return 0;
    return self(ctx)->addCustomMetric(name, value, count, host_tag, service_name, summary, tags, tag_count);
}

int get_server_response(void *ctx) { return ctx == nullptr ? 0 : self(ctx)->getServerResponse(); }
int get_profiling_interval(void *ctx) { return ctx == nullptr ? -1 : self(ctx)->getProfilingInterval(); }

}  // namespace

extern "C" int vesk_reporter_ssl_destroy(void *ctx) {
    if (ctx == nullptr) return 0;
    vesk_ssl_reporter *r = self(ctx);
    VESK_DEBUG_LOG(VESK_DEBUG_MODULE_REPORTER_SSL, VESK_DEBUG_HIGH, "STOPPING: Deleting SSL reporter");
    if (getpid() != r->getPid()) {
        // A forked child: the threads are the parent's; close the inherited
        // descriptors and leave the object alone.
        if (r->closeSockets() != 0) INIT_WARN("Could not close sockets");
        return 1;
    }
    vesk_reporter_extended_t *ext = r->extended;
    int limit = r->getFlushMaxWaitTime();
    if (limit > 0 && !r->flush(limit))
        VESK_DEBUG_LOG_USAGE(VESK_DEBUG_MODULE_REPORTER_SSL, VESK_DEBUG_ERROR,
                             "Failed to flush data before timeout of %d ms reached!", limit);
    delete r;
    free(ext);
    return 1;
}

namespace {
int destroy_slot(void *ctx) { return vesk_reporter_ssl_destroy(ctx); }
}  // namespace

extern "C" int vesk_reporter_init_ssl(vesk_reporter_t *reporter, const vesk_init_options_t *options) {
    vesk_init_options_t defaults;
    if (options == nullptr) {
        defaults.version = VESK_INIT_OPTIONS_VERSION;
        vesk_init_options_set_defaults(&defaults);
        options = &defaults;
    }
    corvidine::SslReporterConfig c;
    c.bufferSize = CHECKED(options->buffer_size, 1000, "Buffer size '%d' not valid - using default %d");
    c.maxTransactions = CHECKED(options->max_transactions, 200, "Max transaction '%d' not valid - using default %d");
    c.flushMaxWaitTime =
        CHECKED(options->max_flush_wait_time, 5000, "Flush max wait time '%d' not valid - using default %d");
    c.eventsFlushInterval =
        CHECKED(options->events_flush_interval, 2, "Events flush interval '%d' not valid - using default %d");
    c.eventsFlushBatchSize =
        CHECKED(options->events_flush_batch_size, 2000, "Events flush batch size '%d' not valid - using default %d");
    c.ec2MetadataTimeout =
        CHECKED(options->ec2_metadata_timeout, 1000, "EC2 metadata timeout '%d' not valid - using default %d");
    if (c.ec2MetadataTimeout > 3000) {
        INIT_WARN("EC2 metadata timeout '%d' exceeds max value of 3000 - using default %d", c.ec2MetadataTimeout, 1000);
        c.ec2MetadataTimeout = 1000;
    }
    int precision = options->histogram_precision < 0 ? 2 : options->histogram_precision;
    c.serviceKey = options->service_key ? options->service_key : VESK_MISSING_SERVICE_KEY;
    c.trustedPath = options->trusted_path ? options->trusted_path : "";
    c.hostnameAlias = options->hostname_alias ? options->hostname_alias : "";
    std::string host;
    int port;
    corvidine::parseCollectorAddress(options->host, host, port);
    if (host.empty()) host = VESK_DEFAULT_COLLECTOR_HOST;
    const char *logPath = options->log_file_path ? options->log_file_path : "";

    memset(reporter, 0, sizeof(*reporter));
    vesk_ensure_init();
    if (options->log_level >= -1) vesk_debug_log_level_set(VESK_DEBUG_MODULE_UNDEF, options->log_level);
    if (logPath[0] != '\0' && vesk_debug_log_to_file(logPath) != 0)
        INIT_WARN("Failed to open diagnostic log file '%s' -> errno=%d(%s)", logPath, errno, strerror(errno));
    VESK_DEBUG_LOG_USAGE(VESK_DEBUG_MODULE_REPORTER_SSL, VESK_DEBUG_INFO,
                         ">> SSL Reporter using host='%s' port='%d' log='%s' clientid='%s' buf=%d maxTransactions='%d' "
                         "flushMaxWaitTime='%d' eventsFlushInterval='%d' eventsFlushBatchSize='%d'",
                         host.c_str(), port, logPath, corvidine::displayServiceKey(c.serviceKey).c_str(), c.bufferSize,
                         c.maxTransactions, c.flushMaxWaitTime, c.eventsFlushInterval, c.eventsFlushBatchSize);
    srand(static_cast<unsigned>(getpid()) ^ static_cast<unsigned>(time(nullptr)));
    // A write to a Collector that has gone must fail, not end the process.
    signal(SIGPIPE, SIG_IGN);
    corvidine::cloudMetadataAddress();  // read the environment before any fork
    if (vesk_settings_init_local() != 0) INIT_WARN("Failed to initialize settings for local operation.");

    std::string trustPath;
    if (!trustFileUsable(c.trustedPath, trustPath)) {
        INIT_WARN("Failed to load trusted certificates file at '%s'", trustPath.c_str());
        return VESK_SSL_INIT_TRUST;
    }
    vesk_ssl_reporter *r = nullptr;
    try {
        r = new vesk_ssl_reporter(nullptr, c);
    } catch (const std::exception &e) {
        INIT_WARN("Failed to create an SSL reporter - %s", e.what());
        return VESK_SSL_INIT_REPORTER;
    } catch (...) {
        INIT_WARN("Failed to create an SSL reporter - reporter init failed");
        return VESK_SSL_INIT_REPORTER;
    }
    r->setSocketParams(host, port);
    r->disableSpan(options->trace_metrics == 0);
    r->setHistogramPrecision(precision);

    auto *ext = static_cast<vesk_reporter_extended_t *>(calloc(1, sizeof(vesk_reporter_extended_t)));
    if (ext == nullptr) {
        INIT_WARN("Failed to create an extended reporter structure for SSL - reporter init failed");
        delete r;
        return VESK_SSL_INIT_NO_MEMORY;
    }
    ext->magic = VESK_REPORTER_EXTENDED_MAGIC;
    ext->version = 1;
    ext->size = 32;
    ext->name = const_cast<char *>("ssl");
    ext->reporter = r;
    r->extended = ext;
    reporter->context = ext;
    reporter->event_ready = event_ready;
    reporter->profiling_ready = profiling_ready;
    reporter->status_ready = status_ready;
    reporter->span_ready = span_ready;
    reporter->is_winthin_limit = is_within_limit;
    reporter->custom_metric_ready = custom_metric_ready;
    reporter->send = send;
    reporter->send_span = send_span;
    reporter->send_http_span = send_http_span;
    reporter->add_custom_metric = add_custom_metric;
    reporter->destroy = destroy_slot;
    reporter->get_server_response = get_server_response;
    reporter->get_profiling_interval = get_profiling_interval;
    return 0;
}

extern "C" void vesk_reporter_register_ssl(void) { vesk_reporter_entry_register("ssl", vesk_reporter_init_ssl); }
