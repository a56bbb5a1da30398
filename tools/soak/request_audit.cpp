#include "tools/soak/request_audit.h"

#include <fmt/format.h>

#include <algorithm>

#include "core/cooldown_observer.h"
#include "emulator/emulator.h"

namespace wdc::soak {
namespace {

bool isDownload(std::string_view route) {
  return route == "files/download" || route == "files/download_zip";
}

double seconds(std::chrono::nanoseconds d) { return std::chrono::duration<double>(d).count(); }

}  // namespace

RequestAudit::RequestAudit(std::chrono::nanoseconds inFlightMargin) : margin_(inFlightMargin) {}

RequestAudit::~RequestAudit() { detail::setCooldownObserver(nullptr); }

void RequestAudit::watch(emu::Emulator& emulator) {
  emulator.setArrivalObserver(
      [this](std::string_view route, bool, std::chrono::nanoseconds at) { arrived(route, at); });
  emulator.setDepartureObserver(
      [this](std::string_view route, std::chrono::nanoseconds) { departed(route); });
  detail::setCooldownObserver(
      [this](std::chrono::nanoseconds notedAt, std::chrono::nanoseconds deadline) {
        std::lock_guard lock(mutex_);
        cooldowns_.push_back(Cooldown{notedAt, deadline});
      });
}

void RequestAudit::arrived(std::string_view route, std::chrono::nanoseconds at) {
  std::lock_guard lock(mutex_);
  arrivals_.push_back(Arrival{std::string(route), at});
  if (isDownload(route)) peakDownloads_ = std::max(peakDownloads_, ++downloadsInFlight_);
}

void RequestAudit::departed(std::string_view route) {
  std::lock_guard lock(mutex_);
  if (isDownload(route) && downloadsInFlight_ > 0) --downloadsInFlight_;
}

RequestAuditFindings RequestAudit::findings() const {
  std::lock_guard lock(mutex_);
  RequestAuditFindings found;
  found.requests = arrivals_.size();
  found.cooldownsNoted = cooldowns_.size();
  found.peakDownloadsInFlight = peakDownloads_;

  std::vector<Cooldown> cooldowns = cooldowns_;
  std::sort(cooldowns.begin(), cooldowns.end(),
            [](const Cooldown& a, const Cooldown& b) { return a.notedAt < b.notedAt; });
  // latest[i]: the furthest deadline among cooldowns[0..i], so one binary search per arrival
  // tells whether any cooldown noted before it still ran.
  std::vector<std::chrono::nanoseconds> latest(cooldowns.size());
  for (size_t i = 0; i < cooldowns.size(); ++i) {
    latest[i] = i == 0 ? cooldowns[i].deadline : std::max(latest[i - 1], cooldowns[i].deadline);
  }
  auto lastNotedBy = [&](std::chrono::nanoseconds t) -> std::ptrdiff_t {
    auto end = std::upper_bound(
        cooldowns.begin(), cooldowns.end(), t,
        [](std::chrono::nanoseconds v, const Cooldown& c) { return v < c.notedAt; });
    return (end - cooldowns.begin()) - 1;
  };
  for (const Arrival& arrival : arrivals_) {
    const std::ptrdiff_t settled = lastNotedBy(arrival.at - margin_);
    if (settled >= 0 && latest[static_cast<size_t>(settled)] > arrival.at) {
      ++found.cooldownViolations;
      if (found.examples.size() < 5) {
        // The most recent note before the arrival says how late after it the request came.
        const std::ptrdiff_t last = lastNotedBy(arrival.at);
        found.examples.push_back(fmt::format(
            "{} arrived {:.3f} s after a cooldown was noted and {:.3f} s before one ended",
            arrival.route, seconds(arrival.at - cooldowns[static_cast<size_t>(last)].notedAt),
            seconds(latest[static_cast<size_t>(settled)] - arrival.at)));
      }
      continue;
    }
    const std::ptrdiff_t any = lastNotedBy(arrival.at);
    if (any >= 0 && latest[static_cast<size_t>(any)] > arrival.at) ++found.arrivedInMargin;
  }
  return found;
}

}  // namespace wdc::soak
