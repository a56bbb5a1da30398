// A window on the shared rate-limit cooldown for audits: the fault soak compares every request the
// emulator saw with the cooldowns the library had noted when it was sent.
#pragma once

#include <chrono>
#include <functional>

namespace wdc::detail {

// Called each time a rate limit moves the cooldown's deadline later, with the moment it was
// noted and the new deadline, both on the Env's uptime clock. Runs under the cooldown's lock on
// the thread that noted it: keep it short and do not call back into the policy.
using CooldownObserver =
    std::function<void(std::chrono::nanoseconds notedAt, std::chrono::nanoseconds deadline)>;

// Replaces the observer (an empty one turns it off). Thread-safe.
void setCooldownObserver(CooldownObserver observer);

}  // namespace wdc::detail
