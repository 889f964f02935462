// The limit on distinct transaction names per metrics interval. Asked on
// every request (a hash set under one short lock); a name beyond the limit
// is reported as "other" by the caller, so its traffic still lands on one
// aggregate. The metric thread starts a new interval when it builds the
// metrics message.
//
// Threads: isWithinLimit from request threads, startInterval from the
// metric thread; one mutex guards the set and the overflow flag.
#ifndef CORVIDINE_TRANSACTION_LIMIT_H
#define CORVIDINE_TRANSACTION_LIMIT_H

#include <mutex>
#include <string>
#include <unordered_set>

namespace corvidine {

// service "&" name; a null part is left out, the "&" going with the service.
std::string transactionKey(const char *service, const char *name);

class TransactionLimit {
public:
    // True for a key already seen this interval, or a new one while fewer
    // than maxTransactions are known; false (and the overflow flag) else.
    bool isWithinLimit(const std::string &key, int maxTransactions);
    // Forgets this interval's names; returns whether one was turned away.
    bool startInterval();
    size_t size();

private:
    std::mutex mutex_;
    std::unordered_set<std::string> transactions_;
    bool overflow_ = false;
};

}  // namespace corvidine

#endif
