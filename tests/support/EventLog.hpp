// A delegate that records what an application heard, in order, by name, for tests that wait
// for the events they expect.
#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "TavloMessagingSDK/Internal/TVKChatEventAdapter.hpp"

namespace tavlo::test {

/// Names: "connected", "disconnected", "failToConnect", "error", "reconnecting", "gap",
/// "inputMode", "usersJoined", "usersUpdated", "usersLeft", "userCount", "message:TEXT",
/// "aggregated", "raw", "removed ID", "flushed", "pinned", "metadata".
class EventLog : public TVKChatEventAdapter {
  public:
    explicit EventLog(std::chrono::milliseconds waitLimit = std::chrono::seconds(30))
        : waitLimit_(waitLimit) {}

    /// Waits until the event has come `times` times (at most `limit`, else the log's own).
    bool waitFor(const std::string& name, std::size_t times = 1,
                 std::optional<std::chrono::milliseconds> limit = std::nullopt);
    std::size_t count(const std::string& name) const;
    /// The texts of the messages heard, in order.
    std::vector<std::string> messages() const;
    /// The error of the last `chatroomFailToConnect` or `chatroomError`.
    std::optional<TVKError> report() const;
    /// The chatroom of the last event.
    std::shared_ptr<TVKChat> chat() const;

  protected:
    void handle(const std::shared_ptr<TVKChat>& chat, TVKChatEvent event) override;

  private:
    std::size_t countLocked(const std::string& name) const;

    const std::chrono::milliseconds waitLimit_;
    mutable std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<std::string> heard_;
    std::optional<TVKError> report_;
    std::shared_ptr<TVKChat> chat_;
};

}  // namespace tavlo::test
