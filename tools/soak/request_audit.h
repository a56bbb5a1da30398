// Audits the emulator's request log against what the library promised: no request may start
// inside a rate-limit cooldown the library had noted, and at most 4 downloads (files/download and
// files/download_zip together) may be in flight at once.
#pragma once

#include <chrono>
#include <cstdint>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

namespace wdc::emu {
class Emulator;
}

namespace wdc::soak {

struct RequestAuditFindings {
  uint64_t requests = 0;
  uint64_t cooldownsNoted = 0;
  // Arrivals inside a noted cooldown but within the in-flight margin of its start: requests the
  // client had already sent when the cooldown was noted.
  uint64_t arrivedInMargin = 0;
  uint64_t cooldownViolations = 0;
  uint64_t peakDownloadsInFlight = 0;
  std::vector<std::string> examples;  // the first few violations, described
};

class RequestAudit {
 public:
  // `inFlightMargin`: how long after a cooldown is noted a request may still arrive because it
  // was sent before.
  explicit RequestAudit(std::chrono::nanoseconds inFlightMargin);
  ~RequestAudit();  // stops watching the library's cooldown
  RequestAudit(const RequestAudit&) = delete;
  RequestAudit& operator=(const RequestAudit&) = delete;

  // Observes `emulator`'s requests (call before it starts) and the library's cooldowns.
  void watch(emu::Emulator& emulator);

  [[nodiscard]] RequestAuditFindings findings() const;

 private:
  struct Arrival {
    std::string route;
    std::chrono::nanoseconds at;
  };
  struct Cooldown {
    std::chrono::nanoseconds notedAt;
    std::chrono::nanoseconds deadline;
  };

  void arrived(std::string_view route, std::chrono::nanoseconds at);
  void departed(std::string_view route);

  const std::chrono::nanoseconds margin_;
  mutable std::mutex mutex_;
  std::vector<Arrival> arrivals_;    // guarded by mutex_
  std::vector<Cooldown> cooldowns_;  // guarded by mutex_
  uint64_t downloadsInFlight_ = 0;   // guarded by mutex_
  uint64_t peakDownloads_ = 0;       // guarded by mutex_
};

}  // namespace wdc::soak
