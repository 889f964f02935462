// The per-request tracing decision.
#include "corvidine/tracing_decisions.h"

#include <openssl/core_names.h>
#include <openssl/evp.h>
#include <openssl/params.h>
#include <string.h>

#include "corvidine/debug_log.h"
#include "corvidine/metadata.h"
#include "corvidine/random.h"
#include "corvidine/settings.h"
#include "corvidine/startup.h"
#include "corvidine/token_bucket.h"

namespace {

constexpr int kStartFlags = VESK_SETTINGS_FLAG_SAMPLE_START | VESK_SETTINGS_FLAG_SAMPLE_THROUGH_ALWAYS;
constexpr int kXtraceUnusable = -99;

template <typename T>
inline T load_relaxed(const T &field) {
    return __atomic_load_n(&field, __ATOMIC_RELAXED);
}
template <typename T>
inline void store_relaxed(T &field, T value) {
    __atomic_store_n(&field, value, __ATOMIC_RELAXED);
}
inline void bump(uint32_t &counter) {
    __atomic_fetch_add(&counter, 1u, __ATOMIC_RELAXED);
}

inline const char *name_or_empty(const char *s) {
    return s ? s : "";
}

// What the settings resolution hands on to the rest of the decision.
struct Resolved {
    vesk_settings_cfg_t *cfg = nullptr;
    vesk_settings_layer_entry_t *entry = nullptr;
    int rate = -1;
    int source = VESK_SAMPLE_SOURCE_UNSET;
    int flags = 0;
};

bool in_range(int v, int lo, int hi) {
    return v >= lo && v <= hi;
}

bool input_ok(const vesk_tracing_decisions_in_t *in) {
    return (in->version == 1 || in->version == 2) &&
           in_range(in->custom_sample_rate, -1, VESK_SETTINGS_MAX_SAMPLE_RATE) &&
           in_range(in->custom_tracing_mode, -1, 1) && in_range(in->custom_trigger_mode, -1, 1) &&
           in_range(in->request_type, -1, 1);
}

// Points the configuration at the record that `service_name` resolves to,
// and takes over its value, flags, timestamp and bucket limits. 0 with a
// record (even one that failed its test: the old copies then stay), -1 with
// none.
int refresh_layer_settings(vesk_settings_cfg_t *cfg, const char *service_name, vesk_settings_t **record_out) {
    *record_out = nullptr;
    if (load_relaxed(cfg->settings) == nullptr)
        store_relaxed(cfg->no_settings_since, (uint32_t)_vesk_clock_time());

    vesk_settings_t *record = vesk_settings_get_layer_sample_rate(service_name);

    int rc = _vesk_settings_cfg_read_lock();
    if (rc != 0) {
        VESK_DEBUG_LOG_USAGE(VESK_DEBUG_MODULE_SETTINGS, VESK_DEBUG_ERROR, "Cannot acquire mutex: %s",
                             strerror(rc));
        return -1;
    }
    if (record == nullptr) {
        store_relaxed(cfg->settings, static_cast<vesk_settings_t *>(nullptr));
        VESK_DEBUG_LOG(VESK_DEBUG_MODULE_SETTINGS, VESK_DEBUG_HIGH,
                       "_vesk_refresh_layer_settings(%s): No settings => -1", name_or_empty(service_name));
        _vesk_settings_cfg_read_unlock();
        return -1;
    }
    store_relaxed(cfg->settings, record);
    *record_out = record;

    // One consistent copy of the record, even while a merge rewrites it.
    unsigned value = 0, timestamp = 0;
    uint16_t flags = 0;
    double capacity[VESK_BUCKET_COUNT], rate[VESK_BUCKET_COUNT];
    int locked = _vesk_settings_read_lock();
    int test = vesk_settings_get_value(record, &value, &flags, &timestamp);
    if (test == 0) {
        memcpy(capacity, record->bucket_capacity, sizeof(capacity));
        memcpy(rate, record->bucket_rate, sizeof(rate));
    }
    if (locked == 0) _vesk_settings_read_unlock();
    if (test != 0) {
        _vesk_settings_cfg_read_unlock();
        return 0;
    }

    store_relaxed(cfg->value, static_cast<int>(value));
    store_relaxed(cfg->flags, flags);

    for (int i = 0; i < VESK_BUCKET_COUNT; ++i) {
        double c = capacity[i];
        if (!(c >= 0)) {
            VESK_DEBUG_LOG_USAGE(VESK_DEBUG_MODULE_SETTINGS, VESK_DEBUG_WARNING,
                                 "Invalid bucket capacity (%f) for bucket %d. Using %d.\n", c, i, 0);
            c = 0;
        }
        double r = rate[i];
        double per_usec;
        if (r >= 0) {
            per_usec = r / 1e6;
        } else {
            VESK_DEBUG_LOG_USAGE(VESK_DEBUG_MODULE_SETTINGS, VESK_DEBUG_WARNING,
                                 "Invalid bucket rate (%f) for bucket %d. Using %d.\n", r, i, 0);
            per_usec = 0;
        }
        _vesk_bucket_set_limits(&cfg->bucket[i], c, per_usec);
    }
    // Other threads skip their own refresh once they see this timestamp, so
    // it goes out only after the buckets are set: a consumer must never meet
    // a never-filled bucket, which an update would pin at 0.
    __atomic_store_n(&cfg->timestamp, static_cast<uint32_t>(timestamp), __ATOMIC_RELEASE);

    VESK_DEBUG_LOG(VESK_DEBUG_MODULE_SETTINGS, VESK_DEBUG_HIGH, "_vesk_refresh_layer_settings(%s): => 0",
                   name_or_empty(service_name));
    _vesk_settings_cfg_read_unlock();
    return 0;
}

// Local configuration over the remote record; fills `res` and the output's
// rate and source. 0, -2 (tracing disabled or no table), or 2 to 5.
int get_settings(const vesk_tracing_decisions_in_t *in, vesk_tracing_decisions_out_t *out, Resolved *res) {
    vesk_settings_cfg_t *cfg = vesk_settings_cfg_get();
    if (cfg == nullptr) {
        VESK_DEBUG_LOG(VESK_DEBUG_MODULE_SETTINGS, VESK_DEBUG_LOW,
                       "vesk_sample_layer: sample skipped - no settings configuration");
        return VESK_TRACING_DECISIONS_NO_CONFIG;
    }
    res->cfg = cfg;
    const int local_mode = load_relaxed(cfg->tracing_mode);
    const int local_rate = load_relaxed(cfg->sample_rate);
    const int local_trigger = load_relaxed(cfg->trigger_mode);

    int ready = vesk_reporter_is_ready(nullptr);
    if (ready != 0) {
        VESK_DEBUG_LOG(VESK_DEBUG_MODULE_SETTINGS, VESK_DEBUG_MEDIUM,
                       "vesk_sample_layer: sample skipped - reporter not ready");
        return ready;
    }

    vesk_settings_t *record = load_relaxed(cfg->settings);
    if (record == nullptr) refresh_layer_settings(cfg, in->service_name, &record);

    unsigned value = 0;
    uint16_t remote_flags = 0;
    bool current = false;
    if (record != nullptr) {
        unsigned timestamp = 0;
        current = vesk_settings_get_value(record, &value, &remote_flags, &timestamp) == 0 &&
                  timestamp == __atomic_load_n(&cfg->timestamp, __ATOMIC_ACQUIRE);
    }
    if (!current) {
        // The table changed since the last look (or never was looked at).
        if (refresh_layer_settings(cfg, in->service_name, &record) != 0) {
            VESK_DEBUG_LOG_USAGE(VESK_DEBUG_MODULE_SETTINGS, VESK_DEBUG_WARNING,
                                 "Sampling disabled for %s until valid settings are retrieved.",
                                 name_or_empty(in->service_name));
            out->sample_rate = -1;
            out->sample_source = VESK_SAMPLE_SOURCE_UNSET;
            return VESK_TRACING_DECISIONS_NO_SETTINGS;
        }
        value = static_cast<unsigned>(load_relaxed(cfg->value));
        remote_flags = load_relaxed(cfg->flags);
    }

    const int remote_source = load_relaxed(record->type) == VESK_SETTINGS_TYPE_DEFAULT_SAMPLE_RATE
                                  ? VESK_SAMPLE_SOURCE_DEFAULT
                                  : VESK_SAMPLE_SOURCE_LAYER;

    res->entry = vesk_settings_entry_layer_get(in->service_name);
    if (res->entry != nullptr) bump(res->entry->request_count);

    if (vesk_shm_base == nullptr) return VESK_TRACING_DECISIONS_TRACING_DISABLED;

    int rate, source;
    if (in->custom_sample_rate != -1) {
        rate = in->custom_sample_rate;
        source = VESK_SAMPLE_SOURCE_CUSTOM;
    } else if (local_rate != -1) {
        rate = local_rate;
        source = VESK_SAMPLE_SOURCE_LOCAL;
    } else {
        rate = static_cast<int>(value);
        source = remote_source;
    }

    constexpr int kModeOn = VESK_SETTINGS_FLAG_SAMPLE_START | VESK_SETTINGS_FLAG_SAMPLE_THROUGH_ALWAYS;
    int flags;
    if (in->custom_tracing_mode != -1) {
        flags = in->custom_tracing_mode == 1 ? kModeOn : 0;
    } else if (local_mode != -1) {
        flags = local_mode == 1 ? kModeOn : 0;
    } else {
        flags = remote_flags;
    }

    // Trigger trace is on unless somebody said off.
    bool trigger_on = in->custom_trigger_mode != -1 ? in->custom_trigger_mode != 0 : local_trigger != 0;
    if (trigger_on) {
        flags |= VESK_SETTINGS_FLAG_TRIGGER_TRACE;
    } else {
        flags &= ~VESK_SETTINGS_FLAG_TRIGGER_TRACE;
    }

    // The Collector's record caps the local rate and can only take flags away.
    if (remote_flags & VESK_SETTINGS_FLAG_OVERRIDE) {
        if (rate >= static_cast<int>(value)) {
            rate = static_cast<int>(value);
            source = remote_source;
        }
        flags &= remote_flags;
    }

    res->rate = rate;
    res->source = source;
    res->flags = flags;
    out->sample_rate = rate;
    out->sample_source = source;
    return (flags & kStartFlags) ? VESK_TRACING_DECISIONS_OK : VESK_TRACING_DECISIONS_TRACING_DISABLED;
}

EVP_MAC *hmac_algorithm() {
    // Fetched once: looking the algorithm up per request costs more than the MAC.
    static EVP_MAC *mac = EVP_MAC_fetch(nullptr, OSSL_MAC_NAME_HMAC, nullptr);
    return mac;
}

bool hmac_sha1(const char *key, const char *data, unsigned char digest[20]) {
    EVP_MAC *mac = hmac_algorithm();
    if (mac == nullptr) return false;
    EVP_MAC_CTX *ctx = EVP_MAC_CTX_new(mac);
    if (ctx == nullptr) return false;
    char digest_name[] = "SHA1";
    OSSL_PARAM params[] = {OSSL_PARAM_construct_utf8_string(OSSL_MAC_PARAM_DIGEST, digest_name, 0),
                           OSSL_PARAM_construct_end()};
    size_t length = 0;
    bool ok = EVP_MAC_init(ctx, reinterpret_cast<const unsigned char *>(key), strlen(key), params) == 1 &&
              EVP_MAC_update(ctx, reinterpret_cast<const unsigned char *>(data), strlen(data)) == 1 &&
              EVP_MAC_final(ctx, digest, &length, 20) == 1 && length == 20;
    EVP_MAC_CTX_free(ctx);
    return ok;
}

// Auth status of the request's signature; *good says the HMAC matched.
int verify_signature(const vesk_tracing_decisions_in_t *in, const vesk_settings_cfg_t *cfg, int *good) {
    *good = 0;
    if (in->header_signature == nullptr || in->header_signature[0] == '\0') return VESK_AUTH_NO_SIGNATURE;
    if (in->header_options == nullptr || in->header_options[0] == '\0') {
        VESK_DEBUG_LOG(VESK_DEBUG_MODULE_SETTINGS, VESK_DEBUG_HIGH, "vesk_sample_layer: invalid signature");
        return VESK_AUTH_BAD_SIGNATURE;
    }

    char key[VESK_SETTINGS_NAME_SIZE];
    key[0] = '\0';
    if (_vesk_settings_read_lock() == 0) {
        const vesk_settings_t *record = load_relaxed(cfg->settings);
        if (record != nullptr) {
            memcpy(key, record->signature_key, sizeof(key));
            key[sizeof(key) - 1] = '\0';
        }
        _vesk_settings_read_unlock();
    }
    if (key[0] == '\0') {
        VESK_DEBUG_LOG(VESK_DEBUG_MODULE_SETTINGS, VESK_DEBUG_HIGH,
                       "vesk_sample_layer: no key to verify signature");
        return VESK_AUTH_NO_SIGNATURE_KEY;
    }

    unsigned char digest[20];
    bool match = false;
    if (hmac_sha1(key, in->header_options, digest) && strlen(in->header_signature) == 40) {
        // Lower-case hex only, as the signer writes it.
        static const char kHex[] = "0123456789abcdef";
        const char *sig = in->header_signature;
        match = true;
        for (int i = 0; i < 20 && match; ++i)
            match = sig[2 * i] == kHex[digest[i] >> 4] && sig[2 * i + 1] == kHex[digest[i] & 0xF];
    }
    if (!match) {
        VESK_DEBUG_LOG(VESK_DEBUG_MODULE_SETTINGS, VESK_DEBUG_HIGH, "vesk_sample_layer: invalid signature");
        return VESK_AUTH_BAD_SIGNATURE;
    }
    *good = 1;

    long now = static_cast<long>(_vesk_clock_time());
    if (in->header_timestamp < now - VESK_SIGNATURE_WINDOW ||
        in->header_timestamp > now + VESK_SIGNATURE_WINDOW) {
        VESK_DEBUG_LOG(VESK_DEBUG_MODULE_SETTINGS, VESK_DEBUG_HIGH, "vesk_sample_layer: bad timestamp");
        return VESK_AUTH_BAD_TIMESTAMP;
    }
    return VESK_AUTH_OK;
}

// -99 no usable X-Trace, -1 not sampled, 0 sampled.
int check_xtrace(const char *xtrace) {
    if (xtrace == nullptr) return kXtraceUnusable;
    vesk_metadata_t md;
    vesk_metadata_init(&md);
    if (vesk_metadata_fromstr(&md, xtrace, strlen(xtrace)) != 0) {
        VESK_DEBUG_LOG(VESK_DEBUG_MODULE_SETTINGS, VESK_DEBUG_LOW,
                       "vesk_sample_layer: passed in x-trace seems invalid, ignoring");
        return kXtraceUnusable;
    }
    if (md.version != VESK_XTRACE_VERSION) {
        VESK_DEBUG_LOG(VESK_DEBUG_MODULE_SETTINGS, VESK_DEBUG_LOW,
                       "vesk_sample_layer: passed in x-trace has wrong version, ignoring");
        return kXtraceUnusable;
    }
    if (!vesk_metadata_is_sampled(&md)) {
        VESK_DEBUG_LOG(VESK_DEBUG_MODULE_SETTINGS, VESK_DEBUG_LOW,
                       "vesk_sample_layer: passed in x-trace indicates that request is not being sampled");
        return -1;
    }
    return 0;
}

int should_sample(vesk_settings_layer_entry_t *entry, int rate) {
    if (entry != nullptr) bump(entry->sample_count);
    int outcome;
    if (rate == VESK_SETTINGS_MAX_SAMPLE_RATE) {
        outcome = 1;
    } else {
        // Inclusive: a rate of 0 still passes on a draw of 0.
        outcome = rate >= vesk_rand_get_value() % VESK_SETTINGS_MAX_SAMPLE_RATE ? 1 : 0;
    }
    VESK_DEBUG_LOG(VESK_DEBUG_MODULE_SETTINGS, VESK_DEBUG_HIGH, "_vesk_should_sample(%d): => %d", rate,
                   outcome);
    return outcome;
}

void store_rate(vesk_settings_layer_entry_t *entry, const Resolved &res) {
    if (entry == nullptr) return;
    store_relaxed(entry->sample_rate, static_cast<uint32_t>(res.rate));
    store_relaxed(entry->sample_source, static_cast<uint32_t>(res.source));
}

int roll_dice(const Resolved &res, bool has_xtrace, int *do_sample) {
    vesk_settings_layer_entry_t *entry = res.entry;
    *do_sample = 0;
    if (has_xtrace) {
        if (res.flags & VESK_SETTINGS_FLAG_SAMPLE_THROUGH_ALWAYS) {
            *do_sample = 1;
            if (entry) bump(entry->through_count);
            store_rate(entry, res);
            if (entry) bump(entry->trace_count);
        } else if (res.flags & VESK_SETTINGS_FLAG_SAMPLE_THROUGH) {
            *do_sample = should_sample(entry, res.rate);
            store_rate(entry, res);
            if (*do_sample && entry) bump(entry->trace_count);
        } else {
            store_rate(entry, res);
        }
        return 0;
    }

    if ((res.flags & VESK_SETTINGS_FLAG_SAMPLE_THROUGH_ALWAYS) &&
        !(res.flags & VESK_SETTINGS_FLAG_SAMPLE_START) && entry)
        bump(entry->through_ignored_count);
    if (res.flags & VESK_SETTINGS_FLAG_SAMPLE_START) *do_sample = should_sample(entry, res.rate);
    // A service without an entry (all 124 taken) is not rate limited.
    if (entry == nullptr) return 0;

    store_rate(entry, res);
    if (*do_sample) {
        *do_sample = vesk_bucket_consume(&res.cfg->bucket[VESK_BUCKET_MAIN]);
        if (!*do_sample) {
            VESK_DEBUG_LOG(VESK_DEBUG_MODULE_SETTINGS, VESK_DEBUG_HIGH,
                           "vesk_sample_layer: not sampling request due to rate limiting");
            bump(entry->token_bucket_exhaustion_count);
        } else {
            VESK_DEBUG_LOG(VESK_DEBUG_MODULE_SETTINGS, VESK_DEBUG_HIGH,
                           "vesk_sample_layer: sampling request");
            bump(entry->trace_count);
        }
    }
    return 0;
}

int trigger_trace(const Resolved &res, int signature_good, int *do_sample) {
    *do_sample = 0;
    if (!(res.flags & VESK_SETTINGS_FLAG_TRIGGER_TRACE)) {
        VESK_DEBUG_LOG(VESK_DEBUG_MODULE_SETTINGS, VESK_DEBUG_HIGH,
                       "vesk_sample_layer: not trigger tracing request due to disabled config");
        return VESK_TRACING_DECISIONS_TRIGGER_DISABLED;
    }
    vesk_bucket_t *bucket = &res.cfg->bucket[signature_good ? VESK_BUCKET_RELAXED : VESK_BUCKET_STRICT];
    *do_sample = vesk_bucket_consume(bucket);
    if (*do_sample) {
        VESK_DEBUG_LOG(VESK_DEBUG_MODULE_SETTINGS, VESK_DEBUG_HIGH,
                       "vesk_sample_layer: trigger tracing request");
        if (res.entry) {
            bump(res.entry->triggered_count);
            bump(res.entry->trace_count);
        }
        return VESK_TRACING_DECISIONS_OK;
    }
    VESK_DEBUG_LOG(VESK_DEBUG_MODULE_SETTINGS, VESK_DEBUG_HIGH,
                   "vesk_sample_layer: not trigger tracing request due to rate limiting");
    return VESK_TRACING_DECISIONS_RATE_EXCEEDED;
}

}  // namespace

extern "C" {

int vesk_tracing_decisions(const vesk_tracing_decisions_in_t *in, vesk_tracing_decisions_out_t *out) {
    if (out == nullptr) return VESK_TRACING_DECISIONS_NULL_OUT;
    if (in == nullptr || !input_ok(in)) {
        out->status_message = vesk_get_tracing_decisions_message(VESK_TRACING_DECISIONS_BAD_ARG);
        return VESK_TRACING_DECISIONS_BAD_ARG;
    }

    out->do_sample = 0;
    out->do_metrics = 1;
    out->sample_rate = -1;
    out->sample_source = VESK_SAMPLE_SOURCE_UNSET;

    Resolved res;
    int status = get_settings(in, out, &res);

    int signature_good = 0;
    if (status == 0) {
        out->auth_status = verify_signature(in, res.cfg, &signature_good);
    } else {
        out->auth_status = in->header_signature != nullptr ? VESK_AUTH_NOT_CHECKED : VESK_AUTH_NO_SIGNATURE;
    }
    out->auth_message = vesk_get_tracing_decisions_auth_message(out->auth_status);

    bool decided = false;
    if (out->auth_status > 0) {
        status = VESK_TRACING_DECISIONS_AUTH_FAILED;
    } else if (status == 0) {
        int x = check_xtrace(in->in_xtrace);
        if (x != kXtraceUnusable) out->decision_type = 0;
        if (x == -1) {
            status = VESK_TRACING_DECISIONS_XTRACE_NOT_SAMPLED;
        } else if (in->request_type == 1 && x == kXtraceUnusable) {
            out->sample_rate = 0;
            out->sample_source = VESK_SAMPLE_SOURCE_NONE;
            status = trigger_trace(res, signature_good, &out->do_sample);
            out->decision_type = 1;
        } else {
            status = roll_dice(res, x == 0, &out->do_sample);
            out->decision_type = 0;
        }
        decided = status == 0 || status == VESK_TRACING_DECISIONS_XTRACE_NOT_SAMPLED;
    }
    if (!decided) {
        out->do_sample = 0;
        out->decision_type = -1;
    }

    if (!(res.flags & kStartFlags)) out->do_metrics = 0;
    out->status_message = vesk_get_tracing_decisions_message(status);
    return status;
}

const char *vesk_get_tracing_decisions_message(int code) {
    switch (code) {
        case -5:
            return "auth-failed";
        case -4:
            return "rate-exceeded";
        case -3:
            return "trigger-tracing-disabled";
        case -2:
            return "tracing-disabled";
        case -1:
        case 0:
            return "ok";
        case 1:
            return "internal-error-no-output-structure";
        case 2:
            return "internal-error-no-default-config";
        case 3:
            return "reporter-not-ready";
        case 4:
            return "settings-not-available";
        case 5:
            return "send-queue-full";
        case 6:
            return "internal-error-bad-argument";
        default:
            return "unknown-status-code";
    }
}

const char *vesk_get_tracing_decisions_auth_message(int code) {
    switch (code) {
        case -2:
            return "not-checked";
        case -1:
            return "";
        case 0:
            return "ok";
        case 1:
            return "no-signature-key";
        case 2:
            return "bad-signature";
        case 3:
            return "bad-timestamp";
        default:
            return "unknown-status-code";
    }
}

}  // extern "C"
