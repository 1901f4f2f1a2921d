#include "PendingCall.hpp"

namespace tavlo::chat {

bool PendingCall::claim() {
    return !claimed_.exchange(true);
}

void PendingCall::finish(std::optional<TVKError> error, std::string summary) {
    std::lock_guard lock(mutex_);
    error_ = std::move(error);
    summary_ = std::move(summary);
    done_ = true;
    finished_.notify_all();
}

PendingCall::Outcome PendingCall::wait(std::chrono::milliseconds timeout,
                                       const std::atomic<bool>& interrupted) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    std::unique_lock lock(mutex_);
    while (!done_) {
        const bool expired = std::chrono::steady_clock::now() >= deadline;
        if ((expired || interrupted) && claim()) {
            return expired ? Outcome::timedOut : Outcome::interrupted;
        }
        finished_.wait_for(lock, std::chrono::milliseconds(50));
    }
    return error_ ? Outcome::failed : Outcome::succeeded;
}

}  // namespace tavlo::chat
