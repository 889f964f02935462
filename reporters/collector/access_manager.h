// Who may answer as the Collector: after the handshake has checked the
// certificate chain, Thrift asks the access manager about the peer and the
// names its certificate carries.
//
// We do not authorize a peer by its chain alone: the certificate must name
// the host we connected to (a DNS name for a host name, an IP address for an
// address). OpenSSL already checks that during the handshake (see
// tls_socket.cc); this manager repeats it on the names Thrift hands over, so
// that a peer is never allowed without a name of ours.
//
// Threads: stateless; one manager serves both sender threads.
#ifndef CORVIDINE_COLLECTOR_ACCESS_MANAGER_H
#define CORVIDINE_COLLECTOR_ACCESS_MANAGER_H

#include <string>

#include <thrift/transport/TSSLSocket.h>

namespace corvidine {

// True when certificate DNS name `name` (of `size` bytes) covers `host`:
// equal ignoring case, or a wildcard "*.rest" whose star stands for the
// whole first label of `host` and whose rest has two labels or more. An IP
// address as `host` never matches a DNS name.
bool certificateNameMatches(const std::string &host, const char *name, int size);

class VeskSSLAccessManager : public apache::thrift::transport::AccessManager {
public:
    // The peer's address alone never decides: SKIP, so its names are looked at.
    Decision verify(const sockaddr_storage &sa) noexcept override;
    // A DNS name (subjectAltName or common name): ALLOW when it names `host`.
    Decision verify(const std::string &host, const char *name, int size) noexcept override;
    // An IP address from the certificate: ALLOW when it is the peer's address.
    Decision verify(const sockaddr_storage &sa, const char *data, int size) noexcept override;
};

}  // namespace corvidine

#endif
