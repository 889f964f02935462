// The local configuration record: values from PHP's configuration and the
// three live token buckets.
#include <pthread.h>
#include <stdlib.h>
#include <string.h>

#include "corvidine/debug_log.h"
#include "corvidine/settings.h"
#include "corvidine/token_bucket.h"

namespace {

pthread_rwlock_t cfg_mutex = PTHREAD_RWLOCK_INITIALIZER;
pthread_once_t g_cfg_once = PTHREAD_ONCE_INIT;
vesk_settings_cfg_t *g_cfg = nullptr;

void create_cfg() {
    // One per process, never freed: request threads keep pointers into it.
    vesk_settings_cfg_t *cfg = static_cast<vesk_settings_cfg_t *>(malloc(sizeof(vesk_settings_cfg_t)));
    if (cfg == nullptr) return;
    vesk_settings_cfg_init(cfg);
    __atomic_store_n(&g_cfg, cfg, __ATOMIC_RELEASE);
}

// The setters run on request threads while decisions read the same fields
// without the lock; each field is one atomic store.
inline void store_int(int *field, int value) {
    __atomic_store_n(field, value, __ATOMIC_RELAXED);
}

inline int load_int(const int *field) {
    return __atomic_load_n(field, __ATOMIC_RELAXED);
}

// 0 when the lock is held; otherwise logs and the caller changes nothing.
int take_cfg_lock() {
    int rc = pthread_rwlock_rdlock(&cfg_mutex);
    if (rc != 0)
        VESK_DEBUG_LOG_USAGE(VESK_DEBUG_MODULE_SETTINGS, VESK_DEBUG_ERROR, "Cannot acquire mutex: %s",
                             strerror(rc));
    return rc;
}

void set_mode(int *field, int mode, bool trigger) {
    if (mode < -1 || mode > 1) {
        if (trigger)
            VESK_DEBUG_LOG_USAGE(VESK_DEBUG_MODULE_SETTINGS, VESK_DEBUG_WARNING,
                                 "New trigger mode is invalid (%d).", mode);
        else
            VESK_DEBUG_LOG_USAGE(VESK_DEBUG_MODULE_SETTINGS, VESK_DEBUG_WARNING,
                                 "New tracing mode is invalid (%d).", mode);
        mode = -1;
    }
    store_int(field, mode);
}

void set_rate(int *field, int rate) {
    if (rate > VESK_SETTINGS_MAX_SAMPLE_RATE) {
        VESK_DEBUG_LOG_USAGE(VESK_DEBUG_MODULE_SETTINGS, VESK_DEBUG_WARNING,
                             "New sample rate %d greater than max value -- using max value %d", rate,
                             VESK_SETTINGS_MAX_SAMPLE_RATE);
        rate = VESK_SETTINGS_MAX_SAMPLE_RATE;
    } else if (rate < -1) {
        // -1 stays free to mean "unset".
        VESK_DEBUG_LOG_USAGE(VESK_DEBUG_MODULE_SETTINGS, VESK_DEBUG_WARNING,
                             "New sample rate %d lower than min value -- using min value %d", rate, 0);
        rate = 0;
    }
    store_int(field, rate);
}

}  // namespace

extern "C" {

void vesk_settings_cfg_init(vesk_settings_cfg_t *cfg) {
    memset(cfg, 0, sizeof(*cfg));
    cfg->tracing_mode = -1;
    cfg->sample_rate = -1;
    cfg->trigger_mode = -1;
    cfg->settings = nullptr;
    cfg->value = -1;
    cfg->flags = 0;
    cfg->timestamp = 0;
    cfg->no_settings_since = 0;
    struct timeval now;
    _vesk_clock_gettimeofday(&now);
    for (vesk_bucket_t &b : cfg->bucket) {
        b.available = -1.0f;  // never filled: the first refresh fills it
        b.capacity = 0.0;
        b.rate_per_usec = 0.0;
        b.last_check = now;
    }
}

vesk_settings_cfg_t *vesk_settings_cfg_get(void) {
    vesk_settings_cfg_t *cfg = __atomic_load_n(&g_cfg, __ATOMIC_ACQUIRE);
    if (cfg != nullptr) return cfg;
    if (take_cfg_lock() != 0) return nullptr;
    pthread_once(&g_cfg_once, create_cfg);
    pthread_rwlock_unlock(&cfg_mutex);
    return __atomic_load_n(&g_cfg, __ATOMIC_ACQUIRE);
}

void vesk_settings_mode_set(int mode) {
    vesk_settings_cfg_t *cfg = vesk_settings_cfg_get();
    // Request start writes the configured mode every time: the value it
    // already holds needs neither the lock nor a store.
    if (cfg == nullptr || (mode >= -1 && mode <= 1 && load_int(&cfg->tracing_mode) == mode)) return;
    if (take_cfg_lock() != 0) return;
    set_mode(&cfg->tracing_mode, mode, false);
    pthread_rwlock_unlock(&cfg_mutex);
}

void vesk_settings_trigger_set(int trigger) {
    vesk_settings_cfg_t *cfg = vesk_settings_cfg_get();
    if (cfg == nullptr || take_cfg_lock() != 0) return;
    set_mode(&cfg->trigger_mode, trigger, true);
    pthread_rwlock_unlock(&cfg_mutex);
}

void vesk_settings_rate_set(int rate) {
    vesk_settings_cfg_t *cfg = vesk_settings_cfg_get();
    // As for the mode: request start sets the configured rate every time.
    if (cfg == nullptr ||
        (rate >= -1 && rate <= VESK_SETTINGS_MAX_SAMPLE_RATE && load_int(&cfg->sample_rate) == rate))
        return;
    if (take_cfg_lock() != 0) return;
    set_rate(&cfg->sample_rate, rate);
    pthread_rwlock_unlock(&cfg_mutex);
}

void vesk_settings_set(int rate, int mode, int trigger) {
    vesk_settings_cfg_t *cfg = vesk_settings_cfg_get();
    if (cfg == nullptr || take_cfg_lock() != 0) return;
    set_rate(&cfg->sample_rate, rate);
    set_mode(&cfg->tracing_mode, mode, false);
    set_mode(&cfg->trigger_mode, trigger, true);
    pthread_rwlock_unlock(&cfg_mutex);
}

const char *vesk_tracing_mode_to_string(int mode) {
    switch (mode) {
        case 0:
            return "disabled";
        case 1:
            return "enabled";
        case -1:
            return "unset";
        default:
            return "undef";
    }
}

int _vesk_settings_cfg_read_lock(void) {
    return pthread_rwlock_rdlock(&cfg_mutex);
}
void _vesk_settings_cfg_read_unlock(void) {
    pthread_rwlock_unlock(&cfg_mutex);
}

}  // extern "C"
