#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <optional>
#include <string>
#include <unordered_set>

namespace tavlo {

class TVKChatMessage;

/// How far a chatroom's messages have reached the application: the time of the newest message
/// delivered, and the ids of the most recent deliveries, so that a message arriving twice (live
/// and in a recovered page) is recognised. Times are the service's, never the device clock.
class TVKMessageCursor {
  public:
    /// How many recent ids are remembered; far more than one recovery plus the live messages
    /// held meanwhile.
    static constexpr std::size_t kRememberedIds = 4096;

    /// The service's time of a message in milliseconds since 1970; 0 when it has none.
    static std::int64_t timeOf(const TVKChatMessage& message);

    /// True when a message with this id has been delivered already. Messages without an id are
    /// never duplicates: there is nothing to compare them by.
    bool wasDelivered(const TVKChatMessage& message) const;
    /// Notes a delivery: remembers the id and moves the time forward (never back).
    void delivered(const TVKChatMessage& message);
    /// Moves the time forward to `time` without a delivery (the newest message at connection).
    void advanceTo(std::int64_t time);

    /// The newest delivered time; unset before anything is known.
    const std::optional<std::int64_t>& time() const { return time_; }

  private:
    std::optional<std::int64_t> time_;
    std::deque<std::string> order_;
    std::unordered_set<std::string> ids_;
};

}  // namespace tavlo
