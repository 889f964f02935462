#include "tls_socket.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <stdio.h>

#include <system_error>

#include <openssl/err.h>
#include <openssl/ssl.h>
#include <openssl/x509v3.h>
#include <thrift/TOutput.h>

#include "access_manager.h"
#include "corvidine/debug_log.h"

namespace corvidine {

using apache::thrift::GlobalOutput;
using apache::thrift::transport::AccessManager;
using apache::thrift::transport::SSLContext;
using apache::thrift::transport::TSSLException;
using apache::thrift::transport::TSSLSocket;
using apache::thrift::transport::TTransportException;

namespace {

// Thrift prints its own complaints (a failed connect, a failed shutdown) to
// stderr by default, which is the application's; they belong in our log.
void thriftLogging(const char *message) {
    VESK_DEBUG_LOG(VESK_DEBUG_MODULE_REPORTER_SSL, VESK_DEBUG_LOW, "Thrift internal message: %s", message);
}

bool isAddress(const std::string &host) {
    unsigned char buf[sizeof(struct in6_addr)];
    return inet_pton(AF_INET, host.c_str(), buf) == 1 || inet_pton(AF_INET6, host.c_str(), buf) == 1;
}

}  // namespace

VeskSSLSocket::VeskSSLSocket(std::shared_ptr<SSLContext> ctx, const std::string &host, int port)
    : TSSLSocket(std::move(ctx), host, port) {}

VeskSSLSocket::VeskSSLSocket(std::shared_ptr<SSLContext> ctx, THRIFT_SOCKET socket)
    : TSSLSocket(std::move(ctx), socket) {}

VeskSSLSocket::VeskSSLSocket(std::shared_ptr<SSLContext> ctx) : TSSLSocket(std::move(ctx)) {}

// The base destructor would run the base close(), which may wait for the
// peer's close_notify; ours shuts down once and leaves nothing for it to do.
VeskSSLSocket::~VeskSSLSocket() {
    if (ssl_ != nullptr) shutdownTls();
    TSocket::close();
}

void VeskSSLSocket::open() {
    // The base keeps a "handshake done" mark that close() cannot reset, so
    // a second open could skip the handshake: connect makes a new socket.
    if (opened_) throw TTransportException(TTransportException::BAD_ARGS, "Collector socket reopened");
    opened_ = true;
    TSSLSocket::open();           // TCP, bounded by the connect timeout
    initializeHandshakeParams();  // the TLS session on this descriptor
    // The certificate must name the host we asked for: OpenSSL checks it
    // during the handshake, as an address or as a DNS name.
    const std::string host = getHost();
    X509_VERIFY_PARAM *param = SSL_get0_param(ssl_);
    X509_VERIFY_PARAM_set_hostflags(param, X509_CHECK_FLAG_NO_PARTIAL_WILDCARDS);
    int named = isAddress(host) ? X509_VERIFY_PARAM_set1_ip_asc(param, host.c_str())
                                : X509_VERIFY_PARAM_set1_host(param, host.c_str(), 0);
    if (named != 1) throw TSSLException("cannot check the certificate's names against '" + host + "'");
    try {
        initializeHandshake();
    } catch (const TTransportException &) {
        long verified = SSL_get_verify_result(ssl_);
        if (verified != X509_V_OK) {
            ERR_clear_error();
            throw TSSLException("certificate of '" + host + "' refused: " + X509_verify_cert_error_string(verified));
        }
        throw;
    }
}

void VeskSSLSocket::close() {
    shutdownTls();
    TSocket::close();
}

void VeskSSLSocket::forget() {
    ssl_ = nullptr;                  // left to the parent process
    socket_ = THRIFT_INVALID_SOCKET;  // already closed by the caller
}

void VeskSSLSocket::shutdownTls() {
    if (ssl_ == nullptr) {
        VESK_DEBUG_LOG(VESK_DEBUG_MODULE_REPORTER_SSL, VESK_DEBUG_LOW,
                       "Ignoring attempt to close closed SSL connection.");
        return;
    }
    VESK_DEBUG_LOG(VESK_DEBUG_MODULE_REPORTER_SSL, VESK_DEBUG_MEDIUM, "Shutting down SSL...");
    // A session whose handshake failed has nothing to shut down.
    if (SSL_is_init_finished(ssl_)) {
        ERR_clear_error();
        if (SSL_shutdown(ssl_) < 0) {
            int errnoCopy = errno;
            GlobalOutput(("SSL_shutdown: " + buildErrors(errnoCopy)).c_str());
        }
    }
    SSL_free(ssl_);
    ssl_ = nullptr;
    ERR_clear_error();
    VESK_DEBUG_LOG(VESK_DEBUG_MODULE_REPORTER_SSL, VESK_DEBUG_LOW, "Closed SSL connection.");
}

std::string VeskSSLSocket::buildErrors(int errnoCopy) {
    std::string errors;
    errors.reserve(512);
    unsigned long code;
    while ((code = ERR_get_error()) != 0) {
        if (!errors.empty()) errors += "; ";
        const char *reason = ERR_reason_error_string(code);
        if (reason != nullptr) {
            errors += reason;
        } else {
            char text[48];
            snprintf(text, sizeof text, "SSL error # %lu", code);
            errors += text;
        }
    }
    if (errors.empty() && errnoCopy != 0) errors = std::generic_category().message(errnoCopy);
    if (errors.empty()) errors = "error code: " + std::to_string(errnoCopy);
    return errors;
}

VeskSSLSocketFactory::VeskSSLSocketFactory() : TSSLSocketFactory(apache::thrift::transport::SSLTLS) {
    GlobalOutput.setOutputFunction(thriftLogging);
    // TLS 1.2 at least, and TLS 1.3 where the Collector offers it.
    SSL_CTX_set_min_proto_version(ctx_->get(), TLS1_2_VERSION);
    server(false);
    access(std::make_shared<VeskSSLAccessManager>());
    authenticate(true);
}

void VeskSSLSocketFactory::access(std::shared_ptr<AccessManager> manager) {
    accessManager_ = manager;
    TSSLSocketFactory::access(std::move(manager));
}

void VeskSSLSocketFactory::setup_(const std::shared_ptr<TSSLSocket> &socket) {
    socket->server(server());
    if (!accessManager_ && !server()) accessManager_ = std::make_shared<VeskSSLAccessManager>();
    socket->access(accessManager_);
}

std::shared_ptr<TSSLSocket> VeskSSLSocketFactory::createSocket() {
    auto socket = std::make_shared<VeskSSLSocket>(ctx_);
    setup_(socket);
    return socket;
}

std::shared_ptr<TSSLSocket> VeskSSLSocketFactory::createSocket(THRIFT_SOCKET descriptor) {
    auto socket = std::make_shared<VeskSSLSocket>(ctx_, descriptor);
    setup_(socket);
    return socket;
}

std::shared_ptr<TSSLSocket> VeskSSLSocketFactory::createSocket(const std::string &host, int port) {
    auto socket = std::make_shared<VeskSSLSocket>(ctx_, host, port);
    setup_(socket);
    return socket;
}

int VeskSSLSocketFactory::loadTrust(const std::string &configured, std::string &error) {
    const std::string path = configured.empty() ? kDefaultTrustedPath : configured;
    if (FILE *file = fopen(path.c_str(), "r")) {
        fclose(file);
        try {
            loadTrustedCertificates(path.c_str());
        } catch (const std::exception &e) {
            error = "Failed to load trusted certificates file '" + path + "': " + e.what();
            VESK_DEBUG_LOG_USAGE(VESK_DEBUG_MODULE_REPORTER_SSL, VESK_DEBUG_WARNING, "%s", error.c_str());
            return -1;
        }
        VESK_DEBUG_LOG(VESK_DEBUG_MODULE_REPORTER_SSL, VESK_DEBUG_LOW, "Trusting the certificates in '%s'",
                       path.c_str());
        return 0;
    }
    // No trust file of ours: the system's CAs, so that a publicly trusted
    // Collector certificate is accepted without any file.
    if (SSL_CTX_set_default_verify_paths(ctx_->get()) != 1) {
        error = "Failed to load the system's trusted certificates: " + VeskSSLSocket::buildErrors(0);
        VESK_DEBUG_LOG_USAGE(VESK_DEBUG_MODULE_REPORTER_SSL, VESK_DEBUG_WARNING, "%s", error.c_str());
        return -1;
    }
    VESK_DEBUG_LOG(VESK_DEBUG_MODULE_REPORTER_SSL, VESK_DEBUG_LOW,
                   "No trusted certificates file at '%s': trusting the system's certificate authorities",
                   path.c_str());
    return 0;
}

}  // namespace corvidine
