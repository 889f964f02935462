// A layer between the protocol and the zlib transport that caps how many
// (decompressed) bytes one reply may make us read. A Collector that sends a
// zlib bomb or endless containers then costs a dropped connection, not
// unbounded memory. The count starts again with every call we write.
//
// Threads: part of one connection, used by the thread that owns it.
#ifndef CORVIDINE_COLLECTOR_REPLY_LIMIT_TRANSPORT_H
#define CORVIDINE_COLLECTOR_REPLY_LIMIT_TRANSPORT_H

#include <algorithm>
#include <memory>
#include <string>

#include <thrift/transport/TTransportException.h>
#include <thrift/transport/TVirtualTransport.h>

namespace corvidine {

class ReplyLimitTransport : public apache::thrift::transport::TVirtualTransport<ReplyLimitTransport> {
public:
    ReplyLimitTransport(std::shared_ptr<apache::thrift::transport::TTransport> inner, uint32_t limit)
        : inner_(std::move(inner)), limit_(limit) {}

    bool isOpen() const override { return inner_->isOpen(); }
    bool peek() override { return inner_->peek(); }
    void open() override { inner_->open(); }
    void close() override { inner_->close(); }
    void flush() override { inner_->flush(); }
    uint32_t readEnd() override { return inner_->readEnd(); }
    uint32_t writeEnd() override { return inner_->writeEnd(); }

    uint32_t read(uint8_t *buf, uint32_t len) {
        if (readSinceWrite_ >= limit_)
            throw apache::thrift::transport::TTransportException(
                apache::thrift::transport::TTransportException::CORRUPTED_DATA,
                "Collector reply longer than " + std::to_string(limit_) + " bytes");
        uint32_t got = inner_->read(buf, std::min(len, limit_ - readSinceWrite_));
        readSinceWrite_ += got;
        return got;
    }

    void write(const uint8_t *buf, uint32_t len) {
        readSinceWrite_ = 0;
        inner_->write(buf, len);
    }

private:
    std::shared_ptr<apache::thrift::transport::TTransport> inner_;
    uint32_t limit_;
    uint32_t readSinceWrite_ = 0;
};

}  // namespace corvidine

#endif
