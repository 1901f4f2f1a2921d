// The tests' way into the SDK's internals: the classes name `tavlo::testing::Access` as a
// friend, and only the tests define it.
#pragma once

#include <chrono>
#include <memory>
#include <optional>
#include <string>

#include "Dispatch/Internal/Scheduler.hpp"
#include "TavloMessagingSDK/Internal/TVKChatReport.hpp"
#include "TavloMessagingSDK/TVKChatManager.hpp"

namespace tavlo::testing {

struct Access {
    /// What a manager holds for one channel name (the chatroom name, "p#" in front for a
    /// personal chatroom).
    struct ChannelBookkeeping {
        bool registered = false;   // a chatroom object is held
        bool connected = false;    // reported connected and not yet disconnected
        bool hasDelegate = false;  // a delegate is registered and still alive
        std::optional<unsigned> retryAttemptCount;
        std::optional<TVKChatManager::Clock::time_point> inputAvailableDate;
    };
    static ChannelBookkeeping bookkeeping(const TVKChatManager& manager,
                                          const std::string& channel);

    /// Where the manager's chatrooms report to.
    static std::weak_ptr<TVKChatReportSink> reportSink(TVKChatManager& manager);
    /// Reports `report` of `chat` to the manager, as the chatroom would.
    static void report(TVKChatManager& manager, const std::shared_ptr<TVKChat>& chat,
                       TVKChatReport report);

    /// The pause before retry number `attempt` (from 0).
    static std::chrono::nanoseconds retryDelay(unsigned attempt);
    /// Puts the manager's time in the test's hands: the scheduler of its delays and the clock
    /// of its cooldowns (either unset: real time). Applies to chatrooms connected afterwards.
    static void setTime(TVKChatManager& manager, std::shared_ptr<dispatch::Scheduler> scheduler,
                        std::function<TVKChatManager::Clock::time_point()> clock = {});
};

}  // namespace tavlo::testing
