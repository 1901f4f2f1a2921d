#pragma once

#include "TavloCoreSDK/TVKExport.hpp"

#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "TavloCoreSDK/TVKError.hpp"
#include <optional>

namespace tavlo {

/// Messages of a chatroom that were sent while its connection was down and that the SDK could
/// not deliver after the reconnection (see `TVKChatManager::setRecoversMissedMessages`).
///
/// The bounds are the service's time stamps in milliseconds since 1970, inclusive, ready for
/// `TVKGetMessagesConfiguration::setOldestDate` / `setLatestDate`: listing that range fills the
/// gap. The range may start with messages the application already has (same millisecond as the
/// last one delivered); compare message ids.
struct TAVLO_EXPORT TVKMissedMessagesGap {
    enum Reason {
        /// More messages were missed than one recovery delivers (`kTVKMissedMessagesLimit`); the
        /// oldest ones were delivered, the rest of the range was skipped.
        kTooManyMessages = 0,
        /// The message list could not be fetched, even after retries; `error` says why.
        kFetchFailed = 1,
        /// The live events arriving while the missed messages were listed outgrew what is held
        /// meanwhile (`kTVKMissedMessagesHoldLimit`): the listing was given up, the range was
        /// skipped, and the held events follow.
        kLiveBacklog = 2,
    };

    Reason reason = kTooManyMessages;
    /// Start of the range not delivered.
    std::int64_t oldestDate = 0;
    /// End of the range; unset when it reaches up to the live messages that follow the event.
    std::optional<std::int64_t> latestDate;
    /// The last failure, for `kFetchFailed`.
    std::optional<TVKError> error;
};

/// At most this many missed messages are delivered after one reconnection; beyond it the
/// application receives `chatroomMissedMessagesGap` with `kTooManyMessages`.
inline constexpr unsigned kTVKMissedMessagesLimit = 1000;

/// At most this many live events of a chatroom wait while its missed messages are listed; one
/// more gives up the listing (`kLiveBacklog`), so a flood during a slow listing costs bounded
/// memory.
inline constexpr unsigned kTVKMissedMessagesHoldLimit = 5000;

}  // namespace tavlo


namespace tavlo {

class TVKChat;
class TVKChatUser;
class TVKChatMessage;
class TVKAggregatedItem;
class TVKChatMetadata;

using TVKChatUsers = std::vector<std::shared_ptr<TVKChatUser>>;
using TVKAggregatedItems = std::vector<std::shared_ptr<TVKAggregatedItem>>;
using TVKUserLabels = std::vector<std::int64_t>;
/// Metadata records by key.
using TVKChatMetadataDictionary = std::map<std::string, std::shared_ptr<TVKChatMetadata>>;

/// The application's view of a chatroom's life. Override the operations you need; the others do
/// nothing. The chat manager holds the delegate weakly: keep your own reference for as long as you
/// want events. When an event arrives, the chatroom's state already reflects it (counts, write
/// mode, pinned message, the current user's role).
///
/// Calls run one at a time on the manager's serial queue, or on the executor the application
/// chose with `TVKChatManager::setCallbackExecutor`. They never run on the thread that called
/// the manager's operation. Do not block in them.
class TAVLO_EXPORT TVKChatEventDelegate {
  public:
    virtual ~TVKChatEventDelegate() = default;

    /// The chatroom is connected and subscribed; again after a reconnection of its socket.
    virtual void chatroomConnected(const std::shared_ptr<TVKChat>&) {}
    /// The chatroom is disconnected; it is the chatroom's last event.
    virtual void chatroomDisconnected(const std::shared_ptr<TVKChat>&) {}
    /// A chatroom that never connected gave up (chatroom not found, retries spent, ...).
    virtual void chatroomFailToConnect(const std::shared_ptr<TVKChat>&, const TVKError&) {}
    /// The chatroom could not be set up, or a connected chatroom could not be reconnected.
    virtual void chatroomError(const std::shared_ptr<TVKChat>&, const TVKError&) {}
    /// The connection was lost (or timed out) and reconnection attempt `attempt` (from 1, at
    /// most `TVKReconnectAttemptLimit`) starts after `delay`; say "reconnecting..." until
    /// `chatroomConnected`. After the last failed attempt `chatroomError` or
    /// `chatroomFailToConnect` follows instead.
    virtual void chatroomReconnecting(const std::shared_ptr<TVKChat>&, unsigned /*attempt*/,
                                      std::chrono::milliseconds /*delay*/) {}
    /// With `TVKChatManager::setRecoversMissedMessages`: messages sent while the connection was
    /// down that will not be delivered (too many, or they could not be fetched). The gap's time
    /// range lists them with `getMessagesForChatroom`.
    virtual void chatroomMissedMessagesGap(const std::shared_ptr<TVKChat>&,
                                           const TVKMissedMessagesGap&) {}
    /// The write mode changed (`TVKChat::mode`).
    virtual void chatroomInputModeChanged(const std::shared_ptr<TVKChat>&) {}
    /// Users came online.
    virtual void chatroomUsersJoined(const std::shared_ptr<TVKChat>&, const TVKChatUsers&) {}
    /// Users changed (role, name, ...); the current user's new role is applied already.
    virtual void chatroomUsersUpdated(const std::shared_ptr<TVKChat>&, const TVKChatUsers&) {}
    /// Users went offline, by label.
    virtual void chatroomUsersLeft(const std::shared_ptr<TVKChat>&, const TVKUserLabels&) {}
    /// The user count changed (`TVKChat::userCount`).
    virtual void chatroomUserCount(const std::shared_ptr<TVKChat>&) {}
    /// A new message; a sticker message has `type()` kSticker and its `stickerURL()`. With
    /// missed-message recovery on, also a message recovered after a reconnection.
    virtual void chatroomMessageAdded(const std::shared_ptr<TVKChat>&,
                                      const std::shared_ptr<TVKChatMessage>&) {}
    /// Increments of aggregated counters (totals: `TVKChat::totalAggregatedItems`).
    virtual void chatroomAggregatedItemsAdded(const std::shared_ptr<TVKChat>&,
                                              const TVKAggregatedItems&) {}
    /// Raw data sent with `sendRawData` by someone in the chatroom.
    virtual void chatroomRawDataAdded(const std::shared_ptr<TVKChat>&,
                                      const std::shared_ptr<TVKChatMessage>&) {}
    /// A message was removed, by its id.
    virtual void chatroomMessageRemoved(const std::shared_ptr<TVKChat>&, const std::string&) {}
    /// Every message of the chatroom was removed.
    virtual void chatroomMessageFlushed(const std::shared_ptr<TVKChat>&) {}
    /// The pinned message changed; nullptr when nothing is pinned any more.
    virtual void chatroomPinnedMessageUpdated(const std::shared_ptr<TVKChat>&,
                                              const std::shared_ptr<TVKChatMessage>&) {}
    /// Metadata entries the service broadcast, by key.
    virtual void chatroomMetadataUpdated(const std::shared_ptr<TVKChat>&,
                                         const TVKChatMetadataDictionary&) {}
};

}  // namespace tavlo
