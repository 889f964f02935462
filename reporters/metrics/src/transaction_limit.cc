#include "corvidine/transaction_limit.h"

namespace corvidine {

std::string transactionKey(const char *service, const char *name) {
    std::string key;
    if (service) key.append(service).append(1, '&');
    if (name) key.append(name);
    return key;
}

bool TransactionLimit::isWithinLimit(const std::string &key, int maxTransactions) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (transactions_.count(key)) return true;
    if (transactions_.size() >= static_cast<size_t>(maxTransactions < 0 ? 0 : maxTransactions)) {
        overflow_ = true;
        return false;
    }
    transactions_.insert(key);
    return true;
}

bool TransactionLimit::startInterval() {
    std::lock_guard<std::mutex> lock(mutex_);
    bool overflowed = overflow_;
    overflow_ = false;
    transactions_.clear();
    return overflowed;
}

size_t TransactionLimit::size() {
    std::lock_guard<std::mutex> lock(mutex_);
    return transactions_.size();
}

}  // namespace corvidine
