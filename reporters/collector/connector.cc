#include "connector.h"

#include <errno.h>
#include <stdlib.h>
#include <unistd.h>

#include <thrift/protocol/TBinaryProtocol.h>
#include <thrift/transport/TZlibTransport.h>

#include "corvidine/debug_log.h"
#include "reply_limit_transport.h"

namespace corvidine {

using apache::thrift::TException;
using apache::thrift::protocol::TBinaryProtocol;
using apache::thrift::transport::TTransport;
using apache::thrift::transport::TTransportException;
using apache::thrift::transport::TZlibTransport;
namespace wire = ::collector::thrift;

#define CONNECT_LOG(...) VESK_DEBUG_LOG(VESK_DEBUG_MODULE_REPORTER_SSL, VESK_DEBUG_LOW, __VA_ARGS__)

CollectorConnector::CollectorConnector(std::shared_ptr<VeskSSLSocketFactory> factory, std::string apiKey,
                                       CollectorTimeouts timeouts)
    : factory_(std::move(factory)), apiKey_(std::move(apiKey)), timeouts_(timeouts) {}

int CollectorConnector::connect(CollectorLink &link) {
    if (!factory_) return -1;
    if (link.everConnected) {
        CONNECT_LOG("connect: Lost connection -- attempting reconnect...");
        link.everConnected = false;
    } else {
        CONNECT_LOG("connect: Attempting to connect...");
    }
    link.connected = false;
    try {
        std::shared_ptr<apache::thrift::transport::TSSLSocket> created;
        {
            // The newest target: a redirect seen by the other thread counts.
            std::lock_guard<std::mutex> lock(targetMutex_);
            created = factory_->createSocket(host_, port_);
        }
        auto socket = std::dynamic_pointer_cast<VeskSSLSocket>(created);
        if (!socket) throw std::runtime_error("the socket factory made a foreign socket");
        socket->setConnTimeout(timeouts_.connectMs);
        socket->setSendTimeout(timeouts_.sendMs);
        socket->setRecvTimeout(timeouts_.recvMs);

        auto zlib = std::make_shared<TZlibTransport>(socket, 128, 1024, 128, 1024, Z_DEFAULT_COMPRESSION);
        auto top = std::make_shared<ReplyLimitTransport>(zlib, kReplyByteLimit);
        // Strict write, lenient read; the limits bound what a reply may
        // make us allocate.
        auto protocol = std::make_shared<TBinaryProtocol>(top, kReplyStringLimit, kReplyContainerLimit, false, true);
        link.transport = top;
        link.client = std::make_shared<wire::CollectorClient>(protocol);
        link.socket = socket;
        link.descriptor = 0;

        try {
            link.transport->open();
        } catch (const TTransportException &e) {
            CONNECT_LOG("connect: Vesk SSL Reporter failed to connect: %s", e.what());
            serverResponse_ = kServerConnectionError;
            return -1;
        }
        link.connected = true;
        link.everConnected = true;
        link.descriptor = socket->getSocketFD();
        CONNECT_LOG("connect: Vesk SSL Reporter connection (re)established");

        wire::ResultMessage reply;
        try {
            link.client->ping(reply, apiKey_);
        } catch (const TException &e) {
            CONNECT_LOG("connect: Ping error: %s", e.what());
            serverResponse_ = kServerConnectionError;
            link.connected = false;
            return -1;
        }
        // Whatever the answer, the connection stays up: the posts decide.
        switch (reply.result) {
        case wire::ResultCode::OK: serverResponse_ = kServerOk; break;
        case wire::ResultCode::TRY_LATER: serverResponse_ = kServerTryLater; break;
        case wire::ResultCode::INVALID_API_KEY: serverResponse_ = kServerInvalidApiKey; break;
        case wire::ResultCode::LIMIT_EXCEEDED: serverResponse_ = kServerLimitExceeded; break;
        default: break;  // REDIRECT and unknown codes leave it as it was
        }
        return link.descriptor;
    } catch (const std::exception &e) {
        CONNECT_LOG("connect: Failed to connect to the collector: %s", e.what());
    } catch (...) {
        CONNECT_LOG("connect: Failed to connect to the collector.");
    }
    link.connected = false;
    return -1;
}

int CollectorConnector::close(const std::shared_ptr<TTransport> &transport) {
    if (!transport) return -1;
    try {
        if (transport->isOpen()) transport->close();
    } catch (const TException &e) {
        CONNECT_LOG("close: Failed to close SSL connection: %s", e.what());
        return -1;
    }
    return 0;
}

int CollectorConnector::closeSockets() {
    int result = 0;
    for (CollectorLink *link : {&eventLink, &metricLink}) {
        if (link->descriptor > 0) {
            int rc = ::close(link->descriptor);
            if (rc != 0 && result == 0) result = rc;
            link->descriptor = 0;
        }
        if (link->socket) link->socket->forget();
        link->connected = false;
    }
    return result;
}

void CollectorConnector::setSocketParams(const std::string &host, int port) {
    std::lock_guard<std::mutex> lock(targetMutex_);
    host_ = host;
    port_ = port;
}

int CollectorConnector::setRedirectAddress(const std::string &address) {
    size_t colon = address.find(':');
    if (colon == std::string::npos) {
        VESK_DEBUG_LOG(VESK_DEBUG_MODULE_REPORTER_SSL, VESK_DEBUG_LOW, "setRedirectAddress: invalid redirect address: %s",
                       address.c_str());
        return 1;
    }
    const std::string portText = address.substr(colon + 1);
    char *end = nullptr;
    errno = 0;
    long port = strtol(portText.c_str(), &end, 10);
    // Anything after the digits refuses the text; an empty port reads as 0.
    if (*end != '\0' || errno == ERANGE || port > INT32_MAX || port < INT32_MIN) {
        VESK_DEBUG_LOG(VESK_DEBUG_MODULE_REPORTER_SSL, VESK_DEBUG_LOW, "setRedirectAddress: invalid port: %s",
                       portText.c_str());
        return -1;
    }
    VESK_DEBUG_LOG(VESK_DEBUG_MODULE_REPORTER_SSL, VESK_DEBUG_HIGH, "setRedirectAddress: setting redirect address to %s",
                   address.c_str());
    setSocketParams(address.substr(0, colon), static_cast<int>(port));
    return 0;
}

std::string CollectorConnector::host() const {
    std::lock_guard<std::mutex> lock(targetMutex_);
    return host_;
}

int CollectorConnector::port() const {
    std::lock_guard<std::mutex> lock(targetMutex_);
    return port_;
}

}  // namespace corvidine
