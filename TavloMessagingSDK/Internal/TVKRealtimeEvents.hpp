// The realtime events a chatroom listens to, each decoded and checked once, where its payload
// arrives: one table entry per event the service sends, from its name to the record the
// chatroom applies. What a malformed payload does is decided here and nowhere else: it is
// dropped, without a report.
#pragma once

#include <array>
#include <boost/json/value.hpp>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <variant>

#include "TavloMessagingSDK/TVKChat.hpp"
#include "TavloMessagingSDK/TVKChatEvent.hpp"

namespace tavlo {

/// The events that change a chatroom's state without carrying an application record of their
/// own (the application hears the change as a record without payload, or not at all).
namespace chat_wire {
/// The service confirmed the subscription.
struct Subscribed {};
/// "chat_write_mode": taken when `chatId` reads as the chatroom's id.
struct WriteModeChanged {
    boost::json::value chatId;
    std::optional<std::string> mode;
};
/// "user_count": the counts as numbers (other values unset).
struct CountsChanged {
    std::optional<std::int64_t> members;
    std::optional<std::int64_t> guests;
};
/// "message_input_interval": taken when `chatId` is the very value of the chatroom's profile.
struct InputIntervalChanged {
    boost::json::value chatId;
    std::optional<double> interval;
};
}  // namespace chat_wire

/// One realtime event, decoded.
using TVKRealtimeEvent =
    std::variant<chat_wire::Subscribed, chat_wire::WriteModeChanged, chat_wire::CountsChanged,
                 chat_wire::InputIntervalChanged, chat_event::MessageAdded,
                 chat_event::RawDataAdded, chat_event::AggregatedItemsAdded,
                 chat_event::UsersJoined, chat_event::UsersUpdated, chat_event::UsersLeft,
                 chat_event::MessageRemoved, chat_event::MessageFlushed,
                 chat_event::PinnedMessageUpdated, chat_event::MetadataUpdated>;

/// Decodes an event's first argument (nullptr when it has none); nullopt drops the event.
/// `stickers` (the chatroom's sticker sets, or null) make a message whose whole text names a
/// sticker a sticker message.
using TVKRealtimeEventDecoder = std::optional<TVKRealtimeEvent> (*)(
    const boost::json::value* item, const TVKChatStickers* stickers);

struct TVKRealtimeEventKind {
    std::string_view name;
    TVKRealtimeEventDecoder decode;
};

/// Every realtime event a chatroom listens to, by the name the service sends.
extern const std::array<TVKRealtimeEventKind, 14> kTVKRealtimeEvents;

/// The decoded event `name`; nullopt for a malformed payload or an unknown name.
std::optional<TVKRealtimeEvent> decodeRealtimeEvent(std::string_view name,
                                                    const boost::json::value* item,
                                                    const TVKChatStickers* stickers = nullptr);

/// A message of `json`, as a sticker message when its whole text names a sticker of `stickers`;
/// nullptr when the record refuses the object.
std::shared_ptr<TVKChatMessage> classifiedMessage(const boost::json::object& json,
                                                  const TVKChatStickers* stickers);

}  // namespace tavlo
