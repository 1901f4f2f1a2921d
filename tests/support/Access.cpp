#include "tests/support/Access.hpp"

namespace tavlo::testing {

Access::ChannelBookkeeping Access::bookkeeping(const TVKChatManager& manager,
                                               const std::string& channel) {
    ChannelBookkeeping held;
    manager.queue_->sync([&] {
        held.registered = manager.chats_.count(channel) > 0;
        held.connected = manager.connectedChannels_.count(channel) > 0;
        held.hasDelegate = manager.delegateForChannel(channel) != nullptr;
        if (auto found = manager.retryAttemptCounts_.find(channel);
            found != manager.retryAttemptCounts_.end()) {
            held.retryAttemptCount = found->second;
        }
        if (auto found = manager.inputAvailableDates_.find(channel);
            found != manager.inputAvailableDates_.end()) {
            held.inputAvailableDate = found->second;
        }
    });
    return held;
}

std::weak_ptr<TVKChatReportSink> Access::reportSink(TVKChatManager& manager) {
    return manager.reportSink();
}

void Access::report(TVKChatManager& manager, const std::shared_ptr<TVKChat>& chat,
                    TVKChatReport report) {
    if (auto sink = manager.reportSink().lock()) sink->chatReported(chat, std::move(report));
}

std::chrono::nanoseconds Access::retryDelay(unsigned attempt) {
    return TVKChatManager::retryDelayForAttempt(attempt);
}

void Access::setTime(TVKChatManager& manager, std::shared_ptr<dispatch::Scheduler> scheduler,
                     std::function<TVKChatManager::Clock::time_point()> clock) {
    manager.queue_->sync([&] {
        manager.time_ = TVKChatManager::TimeSource{std::move(scheduler), std::move(clock)};
    });
}

}  // namespace tavlo::testing
