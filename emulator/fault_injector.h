// Decides, request by request, which injected fault applies.
#pragma once

#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include "emulator/emulator.h"

namespace wdc::emu {

// What to do with one request: at most one failing fault, plus added latency.
struct FaultDecision {
  std::optional<FaultRule> fault;  // never kLatency
  uint32_t latencyMs = 0;
};

// Holds the rules in the order they were added. Thread-safe.
class FaultInjector {
 public:
  explicit FaultInjector(uint64_t seed) : random_(seed) {}

  void add(FaultRule rule);
  void clear();
  // Draws for each matching rule in order; a scripted rule used up by this request retires.
  // kReset rules only match list_folder/continue. `wildcard` false: "*" rules do not match
  // (for the per-entry pseudo-routes of batch commits).
  FaultDecision decide(std::string_view route, bool wildcard = true);
  // How many requests (or batch entries) each kind of fault has answered so far, by label:
  // "429 (Retry-After)", "429 (no Retry-After)", "500", "drop", "429w on batch entries", ...
  std::map<std::string, uint64_t> appliedCounts() const;

 private:
  struct Slot {
    FaultRule rule;
    uint64_t remaining;  // UINT64_MAX: unlimited
  };
  mutable std::mutex mutex_;
  std::mt19937_64 random_;                   // guarded by mutex_
  std::vector<Slot> slots_;                  // guarded by mutex_
  std::map<std::string, uint64_t> applied_;  // guarded by mutex_
};

}  // namespace wdc::emu
