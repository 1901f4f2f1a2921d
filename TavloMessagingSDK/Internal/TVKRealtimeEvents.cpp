#include "TavloMessagingSDK/Internal/TVKRealtimeEvents.hpp"

#include <cmath>

#include "TavloMessagingSDK/TVKChatUser.hpp"
#include "TavloMessagingSDK/Internal/TVKChatInternal.hpp"
#include "TavloMessagingSDK/TVKAggregatedData.hpp"
#include "TavloMessagingSDK/TVKChatMessage.hpp"

namespace tavlo {

namespace json = boost::json;
using chat_internal::recordOf;
using chat_internal::recordsOf;

namespace {

using Decoded = std::optional<TVKRealtimeEvent>;

const json::object* asObject(const json::value* item) {
    return item ? item->if_object() : nullptr;
}

const json::array* asArray(const json::value* item) {
    return item ? item->if_array() : nullptr;
}

/// The member `key` of the item's object, present (a JSON null counts) or null.
const json::value* member(const json::value* item, std::string_view key) {
    const json::object* object = asObject(item);
    return object ? object->if_contains(key) : nullptr;
}

/// A count as the service sent it: integers as they are, other numbers cut to whole ones.
std::optional<std::int64_t> countFromJSON(const json::value& value) {
    if (value.is_int64()) return value.get_int64();
    if (value.is_uint64()) return static_cast<std::int64_t>(value.get_uint64());
    if (value.is_double()) {
        const double number = value.get_double();
        constexpr double limit = 9223372036854775808.0;  // 2^63
        if (std::isfinite(number) && number > -limit && number < limit) {
            return static_cast<std::int64_t>(number);
        }
    }
    return std::nullopt;
}

std::optional<double> numberFromJSON(const json::value& value) {
    if (value.is_number()) return value.to_number<double>();
    return std::nullopt;
}

std::optional<std::string> stringFromJSON(const json::value& value) {
    if (const auto* text = value.if_string()) return std::string(*text);
    return std::nullopt;
}

// --- One decoder per event ---------------------------------------------------------------------

Decoded subscribed(const json::value*, const TVKChatStickers*) {
    return chat_wire::Subscribed{};
}

Decoded writeMode(const json::value* item, const TVKChatStickers*) {
    const json::value* chatId = member(item, "chatId");
    const json::value* mode = member(item, "chatWriteMode");
    if (!chatId || !mode) return std::nullopt;
    return chat_wire::WriteModeChanged{*chatId, stringFromJSON(*mode)};
}

Decoded counts(const json::value* item, const TVKChatStickers*) {
    const json::value* members = member(item, "memberCount");
    const json::value* guests = member(item, "guestCount");
    if (!members || !guests) return std::nullopt;
    return chat_wire::CountsChanged{countFromJSON(*members), countFromJSON(*guests)};
}

Decoded inputInterval(const json::value* item, const TVKChatStickers*) {
    const json::value* chatId = member(item, "chatId");
    const json::value* interval = member(item, "inputInterval");
    if (!chatId || !interval) return std::nullopt;
    return chat_wire::InputIntervalChanged{*chatId, numberFromJSON(*interval)};
}

Decoded message(const json::value* item, const TVKChatStickers* stickers) {
    const json::object* object = asObject(item);
    if (!object) return std::nullopt;
    return chat_event::MessageAdded{classifiedMessage(*object, stickers)};
}

Decoded rawData(const json::value* item, const TVKChatStickers*) {
    const json::object* object = asObject(item);
    if (!object) return std::nullopt;
    return chat_event::RawDataAdded{recordOf<TVKChatMessage>(*object)};
}

Decoded aggregated(const json::value* item, const TVKChatStickers*) {
    const json::value* value = member(item, "aggregated");
    const json::array* items = value ? value->if_array() : nullptr;
    if (!items) return std::nullopt;
    // A batch with an item that does not map still counts as a batch, an empty one.
    return chat_event::AggregatedItemsAdded{
        recordsOf<TVKAggregatedItem>(*items).value_or(TVKAggregatedItems{})};
}

/// The users of "user_add" and "user_update": every element a user, and at least one.
std::optional<TVKChatUsers> users(const json::value* item) {
    const json::array* list = asArray(item);
    auto users = list ? recordsOf<TVKChatUser>(*list) : std::nullopt;
    if (!users || users->empty()) return std::nullopt;
    return users;
}

Decoded usersJoined(const json::value* item, const TVKChatStickers*) {
    auto joined = users(item);
    if (!joined) return std::nullopt;
    return chat_event::UsersJoined{std::move(*joined)};
}

Decoded usersUpdated(const json::value* item, const TVKChatStickers*) {
    auto updated = users(item);
    if (!updated) return std::nullopt;
    return chat_event::UsersUpdated{std::move(*updated)};
}

Decoded usersLeft(const json::value* item, const TVKChatStickers*) {
    const json::array* list = asArray(item);
    if (!list) return std::nullopt;
    TVKUserLabels labels;
    labels.reserve(list->size());
    for (const json::value& user : *list) {
        const json::object* object = user.if_object();
        const json::value* label = object ? object->if_contains("label") : nullptr;
        auto number = label ? labelFromJSON(*label) : std::nullopt;
        // All or nothing, deliberately: a partial list would let the chat drop some of the users
        // who left and keep the rest, so a malformed event changes nothing at all.
        if (!number) return std::nullopt;
        labels.push_back(*number);
    }
    return chat_event::UsersLeft{std::move(labels)};
}

Decoded messageRemoved(const json::value* item, const TVKChatStickers*) {
    if (!item || !item->is_string()) return std::nullopt;
    return chat_event::MessageRemoved{std::string(item->get_string())};
}

Decoded messageFlushed(const json::value*, const TVKChatStickers*) {
    return chat_event::MessageFlushed{};
}

Decoded pinnedMessage(const json::value* item, const TVKChatStickers*) {
    const json::value* value = member(item, "pinnedMsg");
    const json::object* pinned = value ? value->if_object() : nullptr;
    if (!pinned) return std::nullopt;
    // The service unpins by sending an empty object.
    return chat_event::PinnedMessageUpdated{pinned->empty() ? nullptr
                                                            : recordOf<TVKChatMessage>(*pinned)};
}

Decoded metadata(const json::value* item, const TVKChatStickers*) {
    const json::array* list = asArray(item);
    if (!list) return std::nullopt;
    auto entries = chat_internal::metadataDictionary(*list);
    // Nothing the application may read: nothing to tell.
    if (entries.empty()) return std::nullopt;
    return chat_event::MetadataUpdated{std::move(entries)};
}

}  // namespace

const std::array<TVKRealtimeEventKind, 14> kTVKRealtimeEvents = {{
    {"subscribed", subscribed},
    {"chat_write_mode", writeMode},
    {"user_count", counts},
    {"message_input_interval", inputInterval},
    {"message", message},
    {"raw_data", rawData},
    {"agg_data", aggregated},
    {"user_add", usersJoined},
    {"user_update", usersUpdated},
    {"user_remove", usersLeft},
    {"message_remove", messageRemoved},
    {"message_flush", messageFlushed},
    {"pinned_message", pinnedMessage},
    {"meta", metadata},
}};

std::optional<TVKRealtimeEvent> decodeRealtimeEvent(std::string_view name, const json::value* item,
                                                    const TVKChatStickers* stickers) {
    for (const auto& kind : kTVKRealtimeEvents) {
        if (kind.name == name) return kind.decode(item, stickers);
    }
    return std::nullopt;
}

std::shared_ptr<TVKChatMessage> classifiedMessage(const json::object& json,
                                                  const TVKChatStickers* stickers) {
    if (stickers) {
        if (const auto text = json_read::string(json, "text")) {
            for (const auto& stickerSet : *stickers) {
                if (auto url = stickerSet->stickerURLWithText(*text)) {
                    return TVKChatMessage::withJSON(json::value(json), std::move(*url));
                }
            }
        }
    }
    return recordOf<TVKChatMessage>(json);
}

}  // namespace tavlo
