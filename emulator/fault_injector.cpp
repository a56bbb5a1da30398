#include "emulator/fault_injector.h"

#include <algorithm>
#include <limits>

namespace wdc::emu {
namespace {

std::string label(const FaultRule& rule, bool entry) {
  std::string text(faultKindName(rule.kind));
  if (rule.kind == FaultKind::kTooManyRequests || rule.kind == FaultKind::kTooManyWriteOperations) {
    if (!rule.argument || rule.placement == RetryAfterPlacement::kNone) {
      text += " (no Retry-After)";
    } else if (rule.placement == RetryAfterPlacement::kHeaderOnly) {
      text += " (Retry-After header only)";
    } else if (rule.placement == RetryAfterPlacement::kBodyOnly) {
      text += " (retry_after in body only)";
    } else {
      text += " (Retry-After)";
    }
  }
  return entry ? text + " on batch entries" : text;
}

}  // namespace

void FaultInjector::add(FaultRule rule) {
  std::lock_guard lock(mutex_);
  const uint64_t remaining = rule.count.value_or(std::numeric_limits<uint64_t>::max());
  slots_.push_back(Slot{std::move(rule), remaining});
}

void FaultInjector::clear() {
  std::lock_guard lock(mutex_);
  slots_.clear();
}

FaultDecision FaultInjector::decide(std::string_view route, bool wildcard) {
  FaultDecision decision;
  std::lock_guard lock(mutex_);
  for (Slot& slot : slots_) {
    if (slot.remaining == 0) continue;
    const FaultRule& rule = slot.rule;
    if (rule.route == "*" ? !wildcard : rule.route != route) continue;
    if (rule.kind == FaultKind::kReset && route != "files/list_folder/continue") continue;
    if (decision.fault && rule.kind != FaultKind::kLatency) continue;
    if (rule.probability < 1.0) {
      // A draw per matching rule keeps a seeded run reproducible whatever the outcome.
      const double draw = std::uniform_real_distribution<double>(0.0, 1.0)(random_);
      if (draw >= rule.probability) continue;
    }
    if (slot.remaining != std::numeric_limits<uint64_t>::max()) --slot.remaining;
    if (rule.kind == FaultKind::kLatency) {
      decision.latencyMs += rule.argument.value_or(0);
    } else {
      decision.fault = rule;
      ++applied_[label(rule, !wildcard)];
    }
  }
  std::erase_if(slots_, [](const Slot& slot) { return slot.remaining == 0; });
  return decision;
}

std::map<std::string, uint64_t> FaultInjector::appliedCounts() const {
  std::lock_guard lock(mutex_);
  return applied_;
}

}  // namespace wdc::emu
