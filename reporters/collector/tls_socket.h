// The TLS socket under every Collector connection, and the factory that
// makes one per connect.
//
// Security choices of ours (stricter or more useful than a plain TLS 1.2
// client):
//  - TLS 1.2 is the minimum; TLS 1.3 is allowed too.
//  - The peer must present a certificate that chains to a trusted CA AND
//    names the host we connect to (DNS name, or IP address when we connect
//    to an address). A redirect target must be named by its certificate too.
//  - Trust comes from the trust file when it exists; when it does not, from
//    the system's trust store (OpenSSL's default verify paths), so that a
//    Collector with a publicly trusted certificate just works.
//
// Threads: the factory and its SSL_CTX are set up once and then shared
// read-only by both sender threads; a socket belongs to one thread.
#ifndef CORVIDINE_COLLECTOR_TLS_SOCKET_H
#define CORVIDINE_COLLECTOR_TLS_SOCKET_H

#include <memory>
#include <string>

#include <thrift/transport/TSSLSocket.h>

namespace corvidine {

// Where the trust file is looked for when no path is configured.
constexpr const char *kDefaultTrustedPath = "/tmp/corvidine/trusted.pem";

class VeskSSLSocket : public apache::thrift::transport::TSSLSocket {
public:
    VeskSSLSocket(std::shared_ptr<apache::thrift::transport::SSLContext> ctx, const std::string &host, int port);
    VeskSSLSocket(std::shared_ptr<apache::thrift::transport::SSLContext> ctx, THRIFT_SOCKET socket);
    explicit VeskSSLSocket(std::shared_ptr<apache::thrift::transport::SSLContext> ctx);
    ~VeskSSLSocket() override;

    // TCP connect and the whole handshake, names checked; a refusal throws
    // TTransportException with the reason (e.g. "hostname mismatch").
    // A socket is opened once; connect makes a new one each time.
    void open() override;
    // One SSL_shutdown (we do not wait for the peer's), then the plain close.
    void close() override;
    // For a forked child after the descriptor was closed with close(2):
    // drop the TLS session and the descriptor without touching either, so
    // that destroying this object later sends nothing and closes nothing.
    void forget();

    // The OpenSSL error queue as text ("; "-separated), else strerror of
    // `errnoCopy`, else "error code: N". Empties the queue.
    static std::string buildErrors(int errnoCopy);

private:
    void shutdownTls();
    bool opened_ = false;
};

class VeskSSLSocketFactory : public apache::thrift::transport::TSSLSocketFactory {
public:
    // Client side, TLS 1.2 or newer, peer certificate required, the access
    // manager of access_manager.h; no client certificate, OpenSSL's default
    // ciphers. Routes Thrift's own messages to the debug log.
    VeskSSLSocketFactory();

    std::shared_ptr<apache::thrift::transport::TSSLSocket> createSocket() override;
    std::shared_ptr<apache::thrift::transport::TSSLSocket> createSocket(THRIFT_SOCKET socket) override;
    std::shared_ptr<apache::thrift::transport::TSSLSocket> createSocket(const std::string &host, int port) override;
    void access(std::shared_ptr<apache::thrift::transport::AccessManager> manager) override;

    // Loads the trust file at `path` (empty: kDefaultTrustedPath) when it can
    // be opened, else the system's trust store. Returns 0, or -1 with the
    // reason in `error` (a trust file that exists but holds no certificate).
    int loadTrust(const std::string &path, std::string &error);

    SSL_CTX *sslContext() { return ctx_->get(); }

private:
    void setup_(const std::shared_ptr<apache::thrift::transport::TSSLSocket> &socket);
    std::shared_ptr<apache::thrift::transport::AccessManager> accessManager_;
};

}  // namespace corvidine

#endif
