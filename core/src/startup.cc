// Library start-up, the registry of the current reporter, and shutdown.
#include "corvidine/startup.h"

#include <pthread.h>
#include <stdlib.h>
#include <string.h>
#include <sys/time.h>
#include <unistd.h>

#include <atomic>
#include <mutex>

#include "corvidine/bson.h"
#include "corvidine/context.h"
#include "corvidine/debug_log.h"
#include "corvidine/span.h"

namespace {

pthread_once_t g_init_once = PTHREAD_ONCE_INIT;
bool g_init_done = false;
std::mutex g_init_mutex;

vesk_reporter_t g_reporter;
vesk_reporter_t *g_cur_reporter = nullptr;
pid_t g_cur_reporter_pid = 0;
char *g_cur_reporter_protocol = nullptr;
vesk_init_options_t *g_cur_reporter_options = nullptr;
char g_hostname[VESK_HOSTNAME_SIZE];
vesk_internal_stats_t g_stats = {1, 0, 0, 0, 0, 0};

const char kVersionString[] = "7.0.1";

// The process id, asked of the kernel once per process: the fork checks run
// on every decision and every send. A fork clears it in the child.
std::atomic<pid_t> g_cached_pid{0};
pthread_once_t g_pid_once = PTHREAD_ONCE_INIT;

void forget_pid_in_child() { g_cached_pid.store(0, std::memory_order_relaxed); }
void register_pid_atfork() { pthread_atfork(nullptr, nullptr, forget_pid_in_child); }

pid_t current_pid() {
    pid_t pid = g_cached_pid.load(std::memory_order_relaxed);
    if (pid == 0) {
        pthread_once(&g_pid_once, register_pid_atfork);
        pid = getpid();
        g_cached_pid.store(pid, std::memory_order_relaxed);
    }
    return pid;
}

char *dup_or_null(const char *s) { return s ? strdup(s) : nullptr; }

void bson_error_handler(const char *message) {
    VESK_DEBUG_LOG(VESK_DEBUG_MODULE_LIB, VESK_DEBUG_LOW, "BSON error: %s", message);
}

void free_options(vesk_init_options_t *o) {
    if (o == nullptr) return;
    free(const_cast<char *>(o->hostname_alias));
    free(const_cast<char *>(o->log_file_path));
    free(const_cast<char *>(o->reporter));
    free(const_cast<char *>(o->host));
    free(const_cast<char *>(o->service_key));
    free(const_cast<char *>(o->trusted_path));
    free(o);
}

// A private deep copy; a missing service key becomes the placeholder key.
vesk_init_options_t *copy_options(const vesk_init_options_t *from) {
    vesk_init_options_t *o = static_cast<vesk_init_options_t *>(calloc(1, sizeof(*o)));
    if (o == nullptr) return nullptr;
    if (from != nullptr) {
        *o = *from;
    } else {
        o->version = VESK_INIT_OPTIONS_VERSION;
        vesk_init_options_set_defaults(o);
    }
    o->hostname_alias = dup_or_null(o->hostname_alias);
    o->log_file_path = dup_or_null(o->log_file_path);
    o->reporter = dup_or_null(o->reporter);
    o->host = dup_or_null(o->host);
    o->service_key = strdup(o->service_key ? o->service_key : VESK_MISSING_SERVICE_KEY);
    o->trusted_path = dup_or_null(o->trusted_path);
    return o;
}

void vesk_init_once() {
    vesk_context_init_key();
    vesk_debug_log_init();
    vesk_set_bson_err_handler(bson_error_handler);
    memset(g_hostname, 0, sizeof(g_hostname));
    if (gethostname(g_hostname, VESK_HOSTNAME_SIZE - 1) != 0) g_hostname[0] = '\0';
    g_hostname[VESK_HOSTNAME_SIZE - 1] = '\0';
    if (g_hostname[0] == '\0') {
        VESK_DEBUG_LOG_USAGE(VESK_DEBUG_MODULE_LIB, VESK_DEBUG_WARNING, "Failed to get hostname, using '?'");
        strcpy(g_hostname, "?");
    }
    memset(&g_reporter, 0, sizeof(g_reporter));
    if (atexit([] { vesk_shutdown(); }) != 0)
        VESK_DEBUG_LOG_USAGE(VESK_DEBUG_MODULE_LIB, VESK_DEBUG_WARNING, "Failed to register vesk_shutdown exit handler");
    g_init_done = true;
    VESK_DEBUG_LOG(VESK_DEBUG_MODULE_LIB, VESK_DEBUG_LOW, "Initialized VESK version %s", kVersionString);
}

void run_init_once() { pthread_once(&g_init_once, vesk_init_once); }

// The debug log's level and file come with the options, whatever the
// reporter, so that the reporter's own start is logged where asked.
void apply_log_options(const vesk_init_options_t *o) {
    int rc = 0;
    if (o->log_file_path != nullptr && o->log_file_path[0] != '\0') rc = vesk_debug_log_to_file(o->log_file_path);
    if (o->log_level >= -1) vesk_debug_log_level_set(VESK_DEBUG_MODULE_UNDEF, o->log_level);
    if (rc != 0)
        VESK_DEBUG_LOG(VESK_DEBUG_MODULE_LIB, VESK_DEBUG_ERROR, "Cannot open debug log file '%s': %s",
                       o->log_file_path, strerror(rc));
}

// Throws away a reporter inherited from another process and starts afresh.
void rebuild_if_forked() {
    if (g_cur_reporter_pid != current_pid()) {
        if (g_cur_reporter != nullptr) _vesk_destroy_reporter(g_cur_reporter);
        vesk_init(nullptr);
    }
}

}  // namespace

extern "C" {

int vesk_init_options_set_defaults(vesk_init_options_t *o) {
    if (o->version < VESK_INIT_OPTIONS_VERSION) return 1;
    int version = o->version;
    memset(o, 0, sizeof(*o));
    o->version = version;
    o->log_level = -2;
    o->max_transactions = -1;
    o->max_flush_wait_time = -1;
    o->events_flush_interval = -1;
    o->events_flush_batch_size = -1;
    o->buffer_size = -1;
    o->trace_metrics = 1;
    o->histogram_precision = -1;
    o->token_bucket_capacity = -1;
    o->token_bucket_rate = -1;
    o->file_single = 0;
    o->ec2_metadata_timeout = -1;
    return 0;
}

int vesk_init(const vesk_init_options_t *options) {
    if (options != nullptr && options->version < VESK_INIT_OPTIONS_VERSION) return 1;
    return vesk_init_reporter(nullptr, options);
}

void vesk_ensure_init(void) {
    if (!g_init_done) vesk_init(nullptr);
}

int vesk_init_reporter(const char *protocol, const vesk_init_options_t *options) {
    run_init_once();
    std::lock_guard<std::mutex> lock(g_init_mutex);
    if (g_cur_reporter_pid == current_pid()) return -1;  // one reporter per process

    g_cur_reporter = nullptr;
    free(g_cur_reporter_protocol);
    g_cur_reporter_protocol = strdup(protocol ? protocol : "");

    if (options != nullptr) {
        vesk_init_options_t *copy = copy_options(options);
        if (copy != nullptr && options->service_key != nullptr && options->service_key[0] != '\0') {
            // Keep the cleaned service name in the kept options.
            char *key = const_cast<char *>(copy->service_key);
            int length = static_cast<int>(strlen(key));
            if (vesk_validate_transform_service_name(key, &length) >= 0) key[length] = '\0';
        }
        if (copy != nullptr) {
            free_options(g_cur_reporter_options);
            g_cur_reporter_options = copy;
        }
    }
    if (g_cur_reporter_options == nullptr) g_cur_reporter_options = copy_options(nullptr);
    if (g_cur_reporter_options != nullptr) apply_log_options(g_cur_reporter_options);

    if (g_reporter.destroy != nullptr || g_reporter.context != nullptr) _vesk_destroy_reporter(&g_reporter);

    const char *name = g_cur_reporter_protocol;
    if (name[0] == '\0' && g_cur_reporter_options != nullptr && g_cur_reporter_options->reporter != nullptr &&
        g_cur_reporter_options->reporter[0] != '\0')
        name = g_cur_reporter_options->reporter;
    if (name[0] == '\0') name = VESK_DEFAULT_REPORTER;

    const vesk_reporter_entry_t *entry = vesk_reporter_entry_find(name);
    if (entry == nullptr) {
        VESK_DEBUG_LOG_USAGE(VESK_DEBUG_MODULE_LIB, VESK_DEBUG_ERROR, "Invalid Vesk protocol '%s' in INI - aborting",
                             name);
        g_cur_reporter_pid = current_pid();
        return 2;
    }
    VESK_DEBUG_LOG(VESK_DEBUG_MODULE_LIB, VESK_DEBUG_LOW, "Initializing '%s' reporter", name);
    int result = entry->init(&g_reporter, g_cur_reporter_options);
    if (result == 0) {
        VESK_DEBUG_LOG(VESK_DEBUG_MODULE_LIB, VESK_DEBUG_MEDIUM, "Reporter successfully initialized");
        g_cur_reporter = &g_reporter;
        vesk_internal_stats_reporters_initialized_inc();
    }
    g_cur_reporter_pid = current_pid();
    return result;
}

vesk_reporter_t *vesk_reporter_get(void) {
    if (g_cur_reporter == nullptr || g_cur_reporter_pid != current_pid()) rebuild_if_forked();
    return g_cur_reporter;
}

int vesk_reporter_is_ready(vesk_reporter_t *reporter) {
    if (g_cur_reporter_pid != current_pid()) rebuild_if_forked();
    if (reporter == nullptr) reporter = g_cur_reporter;
    if (reporter == nullptr || reporter->context == nullptr) {
        VESK_DEBUG_LOG_USAGE(VESK_DEBUG_MODULE_LIB, VESK_DEBUG_WARNING, "No valid reporter found");
        return 3;
    }
    int ready = reporter->event_ready != nullptr && reporter->event_ready(vesk_reporter_get_context(reporter));
    VESK_DEBUG_LOG(VESK_DEBUG_MODULE_LIB, VESK_DEBUG_HIGH, "Reporter is %sready", ready ? "" : "not ");
    return ready ? 0 : 5;
}

int vesk_raw_send(int channel, const char *data, size_t len) {
    vesk_reporter_t *r = g_cur_reporter;
    if (r == nullptr) {
        VESK_DEBUG_LOG_USAGE(VESK_DEBUG_MODULE_LIB, VESK_DEBUG_ERROR, "Send failed - no reporter");
        return VESK_SEND_NO_REPORTER;
    }
    if (r->context == nullptr || r->send == nullptr) {
        VESK_DEBUG_LOG(VESK_DEBUG_MODULE_LIB, VESK_DEBUG_HIGH, "Send failed - reporter not initialized");
        return VESK_SEND_REPORTER_NOT_INITIALIZED;
    }
    int result = static_cast<int>(r->send(vesk_reporter_get_context(r), channel, data, len));
    if (result < static_cast<int32_t>(len))
        VESK_DEBUG_LOG_USAGE(VESK_DEBUG_MODULE_LIB, VESK_DEBUG_ERROR, "Send failed - reporter returned %d", result);
    return result;
}

int vesk_shutdown(void) {
    VESK_DEBUG_LOG(VESK_DEBUG_MODULE_LIB, VESK_DEBUG_LOW, "Vesk library shutting down...");
    {
        std::lock_guard<std::mutex> lock(g_init_mutex);
        if (g_reporter.destroy != nullptr) _vesk_destroy_reporter(&g_reporter);
        g_cur_reporter_pid = 0;
        g_cur_reporter = nullptr;
        memset(&g_reporter, 0, sizeof(g_reporter));
        free_options(g_cur_reporter_options);
        g_cur_reporter_options = nullptr;
        free(g_cur_reporter_protocol);
        g_cur_reporter_protocol = nullptr;
    }
    vesk_debug_log_flush();
    return 0;
}

void _vesk_reporter_register(vesk_reporter_t *reporter) {
    if (reporter == g_cur_reporter) return;
    if (g_cur_reporter == nullptr) {
        g_cur_reporter = reporter;
        return;
    }
    VESK_DEBUG_LOG(VESK_DEBUG_MODULE_LIB, VESK_DEBUG_LOW, "Attempt to register a new reporter ignored");
}

int _vesk_destroy_reporter(vesk_reporter_t *reporter) {
    if (reporter == nullptr) reporter = g_cur_reporter;
    if (reporter == nullptr) {
        VESK_DEBUG_LOG_USAGE(VESK_DEBUG_MODULE_LIB, VESK_DEBUG_WARNING,
                             "Attempt to destroy non-existent reporter - rejected");
        return -1;
    }
    VESK_DEBUG_LOG(VESK_DEBUG_MODULE_LIB, VESK_DEBUG_HIGH, "Destroying reporter");
    if (reporter->destroy != nullptr) reporter->destroy(vesk_reporter_get_context(reporter));
    VESK_DEBUG_LOG(VESK_DEBUG_MODULE_LIB, VESK_DEBUG_MEDIUM, "Destroyed reporter");
    reporter->context = nullptr;
    reporter->send = nullptr;
    reporter->destroy = nullptr;
    if (reporter == g_cur_reporter) g_cur_reporter = nullptr;
    vesk_internal_stats_reporters_initialized_dec();
    return 0;
}

vesk_reporter_extended_t *vesk_reporter_get_extended(vesk_reporter_t *reporter) {
    if (reporter == nullptr) reporter = g_cur_reporter;
    if (reporter == nullptr || reporter->context == nullptr) return nullptr;
    vesk_reporter_extended_t *ext = static_cast<vesk_reporter_extended_t *>(reporter->context);
    return ext->magic == VESK_REPORTER_EXTENDED_MAGIC ? ext : nullptr;
}

void *vesk_reporter_get_context(vesk_reporter_t *reporter) {
    if (reporter == nullptr) reporter = g_cur_reporter;
    if (reporter == nullptr) return nullptr;
    vesk_reporter_extended_t *ext = vesk_reporter_get_extended(reporter);
    return ext ? ext->reporter : reporter->context;
}

const vesk_init_options_t *vesk_init_options_get(void) { return g_cur_reporter_options; }

pid_t vesk_reporter_pid(void) { return g_cur_reporter_pid; }

pid_t vesk_current_pid(void) { return current_pid(); }

const char *vesk_hostname_get(void) { return g_hostname; }

int vesk_get_profiling_interval(void) {
    vesk_reporter_t *r = g_cur_reporter;
    if (r == nullptr || r->get_profiling_interval == nullptr) {
        VESK_DEBUG_LOG_USAGE(VESK_DEBUG_MODULE_LIB, VESK_DEBUG_ERROR, "No reporter found.");
        return -1;
    }
    void *ctx = vesk_reporter_get_context(r);
    if (r->span_ready == nullptr || !r->span_ready(ctx)) {
        VESK_DEBUG_LOG_USAGE(VESK_DEBUG_MODULE_LIB, VESK_DEBUG_ERROR, "Reporter not ready.");
        return -1;
    }
    return r->get_profiling_interval(ctx);
}

vesk_internal_stats_t *vesk_get_internal_stats(void) { return &g_stats; }
void vesk_internal_stats_reporters_initialized_inc(void) { g_stats.reporters_initialized++; }
void vesk_internal_stats_reporters_initialized_dec(void) { g_stats.reporters_initialized--; }
void vesk_internal_stats_set_event_queue_free(uint32_t value) { g_stats.event_queue_free = value; }
void vesk_internal_stats_collector_response_ok(void) { g_stats.collector_response_ok++; }
void vesk_internal_stats_collector_response_try_later(void) { g_stats.collector_response_try_later++; }
void vesk_internal_stats_collector_response_limit_exceeded(void) { g_stats.collector_response_limit_exceeded++; }

const char *vesk_config_get_version_string(void) { return kVersionString; }

int vesk_config_get_version(void) { return atoi(kVersionString); }

int vesk_config_get_revision(void) {
    const char *dot = strchr(kVersionString, '.');
    return dot ? atoi(dot + 1) : 0;
}

int vesk_config_check_version(int version, int revision) {
    int have = vesk_config_get_version();
    return have > version || (have == version && vesk_config_get_revision() >= revision) ? 1 : 0;
}

int vesk_gettimeofday(struct timeval *tv) { return gettimeofday(tv, nullptr); }

}  // extern "C"
