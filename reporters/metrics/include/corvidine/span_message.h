// A finished request's span on its way from the request thread to the
// metric thread: built once on the request thread (one allocation, wrapped in
// a shared pointer for the span queue) and read once by the aggregator.
#ifndef CORVIDINE_SPAN_MESSAGE_H
#define CORVIDINE_SPAN_MESSAGE_H

#include <string>

namespace corvidine {

// A null string given to a constructor is stored empty.
class SpanMessage {
public:
    SpanMessage(const char *service, const char *transaction, long duration)
        : serviceName(service ? service : ""),
          transaction(transaction ? transaction : ""),
          duration(duration) {}
    virtual ~SpanMessage() = default;

    const std::string &getServiceName() const { return serviceName; }
    const std::string &getTransaction() const { return transaction; }
    long getDuration() const { return duration; }  // microseconds
    void setServiceName(const std::string &name) { serviceName = name; }
    void setTransaction(const std::string &name) { transaction = name; }

private:
    std::string serviceName;
    std::string transaction;
    long duration;
};

class HttpSpanMessage : public SpanMessage {
public:
    HttpSpanMessage(const char *service, const char *transaction, long duration, int status,
                    const char *method, int hasError)
        : SpanMessage(service, transaction, duration),
          status(status),
          method(method ? method : ""),
          error(hasError != 0) {}

    int getStatus() const { return status; }
    const std::string &getMethod() const { return method; }
    bool hasError() const { return error; }

private:
    int status;
    std::string method;
    bool error;
};

}  // namespace corvidine

#endif
