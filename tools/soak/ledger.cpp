#include "tools/soak/ledger.h"

namespace wdc::soak {

void Ledger::wrote(const Record& record) {
  std::lock_guard lock(mutex_);
  records_[record.uid] = record;
}

void Ledger::deleted(const std::string& uid) {
  std::lock_guard lock(mutex_);
  deleted_.insert(uid);
}

void Ledger::anomaly(std::string what) {
  std::lock_guard lock(mutex_);
  anomalies_.push_back(std::move(what));
}

std::map<std::string, Record> Ledger::records() const {
  std::lock_guard lock(mutex_);
  return records_;
}

std::set<std::string> Ledger::deletedUids() const {
  std::lock_guard lock(mutex_);
  return deleted_;
}

std::vector<std::string> Ledger::anomalies() const {
  std::lock_guard lock(mutex_);
  return anomalies_;
}

std::optional<Record> Ledger::find(const std::string& uid) const {
  std::lock_guard lock(mutex_);
  auto found = records_.find(uid);
  if (found == records_.end()) return std::nullopt;
  return found->second;
}

}  // namespace wdc::soak
