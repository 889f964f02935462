// Connections to the Collector: one shared target (host and port, changed by
// redirects), one TLS socket factory, and a CollectorLink per sender thread
// holding that thread's transport stack, client and flags.
//
// A connection is, top to bottom: the generated CollectorClient, Thrift's
// binary protocol (strict write, lenient read), a reply size cap
// (reply_limit_transport.h), TZlibTransport (read buffers 128/1024 bytes,
// write buffers 128/1024, zlib's default level), and the TLS socket of
// tls_socket.h.
//
// Threads: connect() runs on both sender threads at once, each with its own
// link. The target and the last server response are guarded; no lock is
// held during network I/O. closeSockets() is for a forked child only.
// A write to a peer that has gone raises SIGPIPE: the process that uses
// these connections must ignore SIGPIPE (the Collector reporter's set-up
// is the place), so that the write fails with an error instead.
#ifndef CORVIDINE_COLLECTOR_CONNECTOR_H
#define CORVIDINE_COLLECTOR_CONNECTOR_H

#include <atomic>
#include <memory>
#include <mutex>
#include <string>

#include "Collector.h"
#include "tls_socket.h"

namespace corvidine {

// server_response: the class of the Collector's last answer to a ping.
enum ServerResponse {
    kServerNoReply = 0,
    kServerOk = 1,
    kServerTryLater = 2,
    kServerLimitExceeded = 3,
    kServerInvalidApiKey = 4,
    kServerConnectionError = 5,
};

// Socket timeouts in milliseconds; sending is given less time than the rest.
struct CollectorTimeouts {
    int connectMs = 10000;
    int sendMs = 3000;
    int recvMs = 10000;
};

// Bounds on what one reply may make us allocate.
constexpr int32_t kReplyStringLimit = 1 << 20;
constexpr int32_t kReplyContainerLimit = 100000;
constexpr uint32_t kReplyByteLimit = 16u << 20;

// One sender thread's connection. Touched only by that thread (and by
// closeSockets in a forked child).
struct CollectorLink {
    std::shared_ptr<apache::thrift::transport::TTransport> transport;
    std::shared_ptr<::collector::thrift::CollectorClient> client;
    std::shared_ptr<VeskSSLSocket> socket;
    int descriptor = 0;          // what the last connect returned
    bool everConnected = false;  // the next connect is a reconnect
    bool connected = false;
};

class CollectorConnector {
public:
    CollectorConnector(std::shared_ptr<VeskSSLSocketFactory> factory, std::string apiKey,
                       CollectorTimeouts timeouts = CollectorTimeouts());

    // One attempt: a new socket to the current target, the stack above it
    // (replacing the link's old one, which closes it), the handshake, and a
    // ping whose answer sets server_response. Returns the socket descriptor
    // (> 0), or -1 with server_response 5 (connection or ping error).
    int connect(CollectorLink &link);

    // Closes `transport` if it is open: 0, or -1 for a null pointer or a
    // failed close.
    static int close(const std::shared_ptr<apache::thrift::transport::TTransport> &transport);

    // In a forked child: closes both links' descriptors with close(2), with
    // no TLS shutdown (the sessions are the parent's), and makes the links
    // safe to destroy. Returns 0 or the first non-zero close(2) result.
    int closeSockets();

    void setSocketParams(const std::string &host, int port);
    // "host:port" from a REDIRECT answer. 0: the target is changed;
    // non-zero: the text is refused and the target stays.
    int setRedirectAddress(const std::string &address);

    int getServerResponse() const { return serverResponse_.load(); }
    std::string host() const;
    int port() const;

    // The two senders' links.
    CollectorLink eventLink;
    CollectorLink metricLink;

private:
    std::shared_ptr<VeskSSLSocketFactory> factory_;
    std::string apiKey_;
    CollectorTimeouts timeouts_;
    mutable std::mutex targetMutex_;
    std::string host_;
    int port_ = 0;
    std::atomic<int> serverResponse_{kServerNoReply};
};

}  // namespace corvidine

#endif
