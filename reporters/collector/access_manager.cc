#include "access_manager.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <string.h>
#include <strings.h>

#include "corvidine/debug_log.h"

namespace corvidine {

using Decision = apache::thrift::transport::AccessManager::Decision;

namespace {

bool isAddress(const std::string &host) {
    unsigned char buf[sizeof(struct in6_addr)];
    return inet_pton(AF_INET, host.c_str(), buf) == 1 || inet_pton(AF_INET6, host.c_str(), buf) == 1;
}

bool equalNoCase(const char *a, size_t alen, const char *b, size_t blen) {
    return alen == blen && strncasecmp(a, b, alen) == 0;
}

std::string hex(const void *data, int size) {
    static const char digits[] = "0123456789abcdef";
    std::string out;
    const unsigned char *p = static_cast<const unsigned char *>(data);
    for (int i = 0; i < size; i++) {
        out += digits[p[i] >> 4];
        out += digits[p[i] & 15];
    }
    return out;
}

}  // namespace

bool certificateNameMatches(const std::string &host, const char *name, int size) {
    if (name == nullptr || size <= 0 || host.empty() || isAddress(host)) return false;
    // A name with a NUL inside is forged to look like another.
    if (memchr(name, '\0', static_cast<size_t>(size)) != nullptr) return false;
    size_t hlen = host.size();
    if (host[hlen - 1] == '.') hlen--;  // "example.com." is "example.com"
    size_t nlen = static_cast<size_t>(size);
    if (nlen >= 2 && name[0] == '*' && name[1] == '.') {
        const char *rest = name + 1;  // ".example.com"
        size_t rlen = nlen - 1;
        // "*.com" would cover a whole top-level domain.
        if (memchr(rest + 1, '.', rlen - 1) == nullptr) return false;
        const char *dot = static_cast<const char *>(memchr(host.data(), '.', hlen));
        if (dot == nullptr || dot == host.data()) return false;
        return equalNoCase(dot, hlen - static_cast<size_t>(dot - host.data()), rest, rlen);
    }
    if (memchr(name, '*', nlen) != nullptr) return false;  // no partial wildcards
    return equalNoCase(host.data(), hlen, name, nlen);
}

Decision VeskSSLAccessManager::verify(const sockaddr_storage &) noexcept {
    return SKIP;
}

Decision VeskSSLAccessManager::verify(const std::string &host, const char *name, int size) noexcept {
    // SKIP, not DENY: the certificate's next name may still be the one.
    return certificateNameMatches(host, name, size) ? ALLOW : SKIP;
}

Decision VeskSSLAccessManager::verify(const sockaddr_storage &sa, const char *data, int size) noexcept {
    const void *peer = nullptr;
    int peerSize = 0;
    if (sa.ss_family == AF_INET) {
        peer = &reinterpret_cast<const sockaddr_in &>(sa).sin_addr;
        peerSize = 4;
    } else if (sa.ss_family == AF_INET6) {
        peer = &reinterpret_cast<const sockaddr_in6 &>(sa).sin6_addr;
        peerSize = 16;
    }
    if (peer != nullptr && data != nullptr && size == peerSize && memcmp(peer, data, size) == 0) return ALLOW;
    // To the debug log, never to the application's output.
    VESK_DEBUG_LOG(VESK_DEBUG_MODULE_REPORTER_SSL, VESK_DEBUG_LOW,
                   "VeskSSLAccessManager::verify: failed to match addr '%s' with '%s' of size=%d",
                   hex(peer, peerSize).c_str(), data ? hex(data, size > 0 ? size : 0).c_str() : "", size);
    return SKIP;
}

}  // namespace corvidine
