#pragma once

#include "TavloCoreSDK/TVKExport.hpp"

#include <chrono>
#include <memory>
#include <string>
#include <variant>

#include "TavloCoreSDK/TVKError.hpp"
#include "TavloMessagingSDK/TVKChatEventDelegate.hpp"

namespace tavlo {

/// What happens in a chatroom, as values: one record per operation of `TVKChatEventDelegate`,
/// holding that operation's arguments except the chatroom. An application that would rather
/// receive events as data (a stream, a queue of its own, a test that records them) uses these;
/// `deliver` turns a record back into the delegate call.
namespace chat_event {

/// `TVKChatEventDelegate::chatroomConnected`: connected and subscribed (again after a
/// reconnection).
struct Connected {};
/// `chatroomDisconnected`: the chatroom's last event.
struct Disconnected {};
/// `chatroomFailToConnect`: a chatroom that never connected gave up.
struct FailToConnect {
    TVKError error;
};
/// `chatroomError`: the chatroom could not be set up, or could not be reconnected.
struct Error {
    TVKError error;
};
/// `chatroomReconnecting`: reconnection attempt `attempt` (from 1) starts after `delay`.
struct Reconnecting {
    unsigned attempt = 0;
    std::chrono::milliseconds delay{0};
};
/// `chatroomMissedMessagesGap`: messages missed while disconnected that will not be delivered.
struct MissedMessagesGap {
    TVKMissedMessagesGap gap;
};
/// `chatroomInputModeChanged`: `TVKChat::mode` changed.
struct InputModeChanged {};
/// `chatroomUsersJoined`: users came online.
struct UsersJoined {
    TVKChatUsers users;
};
/// `chatroomUsersUpdated`: users changed (role, name, ...).
struct UsersUpdated {
    TVKChatUsers users;
};
/// `chatroomUsersLeft`: users went offline, by label.
struct UsersLeft {
    TVKUserLabels labels;
};
/// `chatroomUserCount`: `TVKChat::userCount` changed.
struct UserCount {};
/// `chatroomMessageAdded`: a new (or recovered) message.
struct MessageAdded {
    std::shared_ptr<TVKChatMessage> message;
};
/// `chatroomAggregatedItemsAdded`: increments of aggregated counters.
struct AggregatedItemsAdded {
    TVKAggregatedItems items;
};
/// `chatroomRawDataAdded`: raw data someone sent with `sendRawData`.
struct RawDataAdded {
    std::shared_ptr<TVKChatMessage> message;
};
/// `chatroomMessageRemoved`: a message was removed.
struct MessageRemoved {
    std::string messageId;
};
/// `chatroomMessageFlushed`: every message was removed.
struct MessageFlushed {};
/// `chatroomPinnedMessageUpdated`: the pinned message; nullptr when nothing is pinned any more.
struct PinnedMessageUpdated {
    std::shared_ptr<TVKChatMessage> message;
};
/// `chatroomMetadataUpdated`: metadata entries the service broadcast, by key.
struct MetadataUpdated {
    TVKChatMetadataDictionary metadata;
};

}  // namespace chat_event

/// One event of a chatroom: exactly one of the records above. Handle it with `std::visit`, or
/// with `std::get_if` for the few kinds you care about.
using TVKChatEvent =
    std::variant<chat_event::Connected, chat_event::Disconnected, chat_event::FailToConnect,
                 chat_event::Error, chat_event::Reconnecting, chat_event::MissedMessagesGap,
                 chat_event::InputModeChanged, chat_event::UsersJoined, chat_event::UsersUpdated,
                 chat_event::UsersLeft, chat_event::UserCount, chat_event::MessageAdded,
                 chat_event::AggregatedItemsAdded, chat_event::RawDataAdded,
                 chat_event::MessageRemoved, chat_event::MessageFlushed,
                 chat_event::PinnedMessageUpdated, chat_event::MetadataUpdated>;

/// Calls the operation of `delegate` that `event` stands for, with `chat` and the record's
/// fields: `deliver(d, chat, chat_event::MessageAdded{m})` calls
/// `d.chatroomMessageAdded(chat, m)`. The SDK calls its delegates through this function, so a
/// record replayed here reaches the application exactly as the live event would have.
TAVLO_EXPORT void deliver(TVKChatEventDelegate& delegate, const std::shared_ptr<TVKChat>& chat,
                          const TVKChatEvent& event);

}  // namespace tavlo
