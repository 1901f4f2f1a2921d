#pragma once

#include <chrono>
#include <optional>

#include "Dispatch/Internal/Scheduler.hpp"

namespace tavlo {

/// The schedule's longest pause: a service asking for more is still tried again after this long,
/// so that a chatroom never waits longer than the schedule itself would make it.
inline constexpr std::chrono::seconds kLongestRetryPause{32};

/// The pause before retry number `attemptCount` (from 0): the one the service asked for (its
/// Retry-After), capped at the longest pause, or else the schedule's own step.
dispatch::Duration retryPause(unsigned attemptCount,
                              std::optional<std::chrono::seconds> askedByService);

}  // namespace tavlo
