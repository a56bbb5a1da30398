// What every device of a soak has meant the store to hold: each record ever created, the
// version its owner last gave it, and which records some device deleted. After a round the
// store and every device must match it exactly. Also collects what the devices saw go wrong.
#pragma once

#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "tools/soak/record_model.h"

namespace wdc::soak {

class Ledger {
 public:
  // The owner created or edited `record` (at record.version).
  void wrote(const Record& record);
  // Some device deleted the record `uid`.
  void deleted(const std::string& uid);
  // A broken promise seen during sync (a corrupted download, a completion run twice, ...).
  void anomaly(std::string what);

  [[nodiscard]] std::map<std::string, Record> records() const;  // uid -> latest owner version
  [[nodiscard]] std::set<std::string> deletedUids() const;
  [[nodiscard]] std::vector<std::string> anomalies() const;
  [[nodiscard]] std::optional<Record> find(const std::string& uid) const;

 private:
  mutable std::mutex mutex_;
  std::map<std::string, Record> records_;
  std::set<std::string> deleted_;
  std::vector<std::string> anomalies_;
};

}  // namespace wdc::soak
