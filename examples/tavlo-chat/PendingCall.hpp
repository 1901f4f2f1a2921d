#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <optional>
#include <string>

#include "TavloCoreSDK/TVKError.hpp"

namespace tavlo::chat {

/// One asynchronous SDK call the command loop waits for. The first of the SDK's callback and
/// the waiter's time-out settles it: a callback that arrives after the time-out neither prints
/// nor reports, so every command ends in exactly one "ok" or "error" line.
class PendingCall {
  public:
    enum class Outcome { succeeded, failed, timedOut, interrupted };

    /// Called by the SDK's callback before it prints anything; false when the call is already
    /// settled (the callback must then do nothing).
    bool claim();
    /// Ends a claimed call: success when `error` is empty. `summary` goes on the "ok" line.
    void finish(std::optional<TVKError> error = std::nullopt, std::string summary = "");

    /// Waits for the outcome. On time-out or interruption the call is settled as such, unless a
    /// callback claimed it first (then its outcome is awaited, it is already being printed).
    Outcome wait(std::chrono::milliseconds timeout, const std::atomic<bool>& interrupted);

    /// The failure, once the outcome is `failed`.
    const std::optional<TVKError>& error() const { return error_; }
    /// What the callback had to say about a success ("5 online").
    const std::string& summary() const { return summary_; }

  private:
    std::atomic<bool> claimed_{false};
    std::mutex mutex_;
    std::condition_variable finished_;
    bool done_ = false;
    std::optional<TVKError> error_;
    std::string summary_;
};

}  // namespace tavlo::chat
