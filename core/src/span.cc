// Spans and transaction names.
#include "corvidine/span.h"

#include <string.h>
#include <time.h>

#include <algorithm>

#include "corvidine/debug_log.h"
#include "corvidine/startup.h"

namespace {

// Appends into the caller's buffer without ever passing `room` characters,
// and keeps what it wrote NUL-terminated.
class NameWriter {
public:
    NameWriter(char *buf, size_t room) : buf_(buf), room_(room) { clear(); }

    void clear() {
        buf_[0] = '\0';
        used_ = 0;
    }
    void append(const char *s, size_t n) {
        size_t k = std::min(n, room_ - used_);
        memcpy(buf_ + used_, s, k);
        used_ += k;
        buf_[used_] = '\0';
    }
    void append(const char *s) { append(s, strlen(s)); }
    bool empty() const { return used_ == 0; }

private:
    char *buf_;
    size_t room_;
    size_t used_ = 0;
};

bool is_set(const char *s) {
    return s != nullptr && s[0] != '\0';
}
const char *or_empty(const char *s) {
    return s != nullptr ? s : "";
}

bool is_scheme(const char *tok, size_t n) {
    return (n == 5 && memcmp(tok, "http:", 5) == 0) || (n == 6 && memcmp(tok, "https:", 6) == 0);
}

// Yields the next non-empty "/"-separated token of a URL, walking `p` on.
// Works on the caller's string without writing to it.
bool next_token(const char *&p, const char *&tok, size_t &n) {
    while (*p == '/') ++p;
    if (*p == '\0') return false;
    tok = p;
    while (*p != '\0' && *p != '/') ++p;
    n = static_cast<size_t>(p - tok);
    return true;
}

// The name from a URL: at most two path segments, each behind a "/". A URL
// that does not start with "/" is taken to begin with a host (after an
// optional scheme), which is not part of the name.
void name_from_url(NameWriter &w, const char *url, bool after_domain) {
    const char *p = url;
    const char *tok = nullptr;
    size_t n = 0;
    if (url[0] != '/') {
        bool have;
        do {
            have = next_token(p, tok, n);
        } while (have && is_scheme(tok, n));
        if (!have) return;  // no host at all: nothing left to name
        // `tok` is the host; skip it.
    }
    for (int segments = 0; segments < 2 && next_token(p, tok, n); ++segments) {
        const char *cut = static_cast<const char *>(memchr(tok, '?', n));
        if (cut == nullptr) cut = static_cast<const char *>(memchr(tok, '#', n));
        if (cut != nullptr) {
            if (cut == tok) break;  // query or fragment where a segment would be
            n = static_cast<size_t>(cut - tok);
        }
        // The domain already ends in its own "/".
        if (segments > 0 || !after_domain) w.append("/", 1);
        w.append(tok, n);
    }
}

int span_send(char *buffer, uint16_t len, const vesk_span_params_t *params, bool http) {
    if (params == nullptr) return VESK_SPAN_NO_PARAMS;
    // A zero-length buffer cannot even hold the terminator.
    if (buffer == nullptr || len == 0) return VESK_SPAN_NO_BUFFER;
    if (params->version != 1 && params->version != 2) return VESK_SPAN_BAD_VERSION;

    vesk_reporter_t *reporter = vesk_reporter_get();
    if (reporter == nullptr) {
        VESK_DEBUG_LOG_USAGE(VESK_DEBUG_MODULE_LIB, VESK_DEBUG_ERROR, "No reporter found.");
        return VESK_SPAN_NO_REPORTER;
    }
    void *context = vesk_reporter_get_context(reporter);
    if (reporter->span_ready == nullptr || !reporter->span_ready(context)) {
        VESK_DEBUG_LOG_USAGE(VESK_DEBUG_MODULE_LIB, VESK_DEBUG_ERROR, "Reporter not ready.");
        return VESK_SPAN_NOT_READY;
    }

    int length = vesk_span_get_transaction_name(reporter, context, buffer, len, params);
    if (params->version > 1 && params->do_metrics == 0) return length;

    // A failing reporter step only drops this span. Reporters get strings,
    // never null pointers.
    const char *service = or_empty(params->service);
    if (http) {
        if (reporter->send_http_span != nullptr)
            reporter->send_http_span(context, service, buffer, params->duration, params->status,
                                     or_empty(params->method), params->has_error);
    } else if (reporter->send_span != nullptr) {
        reporter->send_span(context, service, buffer, params->duration);
    }
    return length;
}

long monotonic_usec() {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<long>(ts.tv_sec) * 1000000L + ts.tv_nsec / 1000;
}

}  // namespace

extern "C" {

int vesk_span_get_transaction_name(vesk_reporter_t *reporter, void *context, char *buffer, uint16_t len,
                                   const vesk_span_params_t *params) {
    if (buffer == nullptr || len == 0 || params == nullptr) return 0;
    const size_t room = std::min<size_t>(len - 1, VESK_TRANSACTION_NAME_MAX);
    buffer[len - 1] = '\0';  // whatever the name, the buffer ends terminated
    NameWriter w(buffer, room);

    const bool has_domain = is_set(params->domain);
    if (has_domain) {
        VESK_DEBUG_LOG(VESK_DEBUG_MODULE_LIB, VESK_DEBUG_HIGH, "Prepending domain '%s' to transaction name",
                       params->domain);
        w.append(params->domain);
        w.append("/", 1);
    }

    if (is_set(params->transaction)) {
        VESK_DEBUG_LOG(VESK_DEBUG_MODULE_LIB, VESK_DEBUG_HIGH, "Using transaction name '%s'",
                       params->transaction);
        w.append(params->transaction);
    } else {
        if (is_set(params->url)) {
            VESK_DEBUG_LOG(VESK_DEBUG_MODULE_LIB, VESK_DEBUG_HIGH, "Parsing transaction name from Url '%s'",
                           params->url);
            name_from_url(w, params->url, has_domain);
            if (w.empty()) w.append("/", 1);
        }
        if (w.empty()) {
            // Nothing to go by; such names are not counted against the limit.
            w.append(VESK_SPAN_NAME_UNKNOWN);
            return static_cast<int>(strlen(buffer));
        }
    }

    if (reporter != nullptr && reporter->is_winthin_limit != nullptr &&
        !reporter->is_winthin_limit(context, or_empty(params->service), buffer)) {
        // Past the limit of distinct names: new ones share one aggregate.
        w.clear();
        w.append(VESK_SPAN_NAME_OTHER);
    }

    buffer[len - 1] = '\0';
    return static_cast<int>(strlen(buffer));
}

int vesk_span(char *buffer, uint16_t len, const vesk_span_params_t *params) {
    return span_send(buffer, len, params, false);
}

int vesk_http_span(char *buffer, uint16_t len, const vesk_span_params_t *params) {
    return span_send(buffer, len, params, true);
}

long vesk_span_start(void) {
    return monotonic_usec();
}

long vesk_span_stop(void) {
    return monotonic_usec();
}

}  // extern "C"
