#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>

#include "TavloMessagingSDK/TavloMessagingSDK.hpp"

namespace tavlo::chat {

/// The users and messages this client has seen (in events and listings), so commands can name
/// them the way a person would: a user by name, label or member id, a message by id or a piece
/// of its text. Filled from SDK callbacks, read by the command loop: locked.
class ChatDirectory {
  public:
    /// Kept messages; the oldest are dropped beyond this.
    static constexpr std::size_t kMessageLimit = 1000;

    /// Remembers users by label; a later record of the same label replaces the earlier one.
    void rememberUsers(const TVKChatUsers& users);
    /// Keeps messages in the order the service wrote them, whatever order they were seen in (a
    /// history page lists the newest first); one without a time stamp counts as the newest.
    void rememberMessage(const std::shared_ptr<TVKChatMessage>& message);

    /// A label ("12"), then the most recently seen user of that name, then of that member id.
    std::shared_ptr<TVKChatUser> findUser(std::string_view reference) const;
    /// An exact id, or else the newest message whose text contains `reference`.
    std::shared_ptr<TVKChatMessage> findMessage(std::string_view reference) const;

  private:
    /// Name and member id are copied when seen: the SDK may update a user record later on its
    /// own queue, and the command loop must not read it meanwhile.
    struct SeenUser {
        std::shared_ptr<TVKChatUser> user;
        std::string name;
        std::string memberId;
        std::uint64_t seenAt = 0;
    };
    std::shared_ptr<TVKChatUser> newestUserWhere(std::string SeenUser::*field,
                                                 std::string_view value) const;

    mutable std::mutex mutex_;
    std::uint64_t sightings_ = 0;
    std::map<std::int64_t, SeenUser> usersByLabel_;
    /// Oldest first, by the service's time stamp.
    std::deque<std::shared_ptr<TVKChatMessage>> messages_;
};

}  // namespace tavlo::chat
