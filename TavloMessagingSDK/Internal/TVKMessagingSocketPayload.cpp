#include "TavloMessagingSDK/Internal/TVKMessagingSocketPayload.hpp"

#include "TavloMessagingSDK/DQChatUser.hpp"

namespace tavlo {
namespace socket_payload {

namespace json = boost::json;

std::optional<std::pair<json::value, json::value>> pair(const json::value* item,
                                                        std::string_view first,
                                                        std::string_view second) {
    const json::object* object = asObject(item);
    if (!object) return std::nullopt;
    const json::value* a = object->if_contains(first);
    const json::value* b = object->if_contains(second);
    if (!a || !b) return std::nullopt;
    return std::make_pair(*a, *b);
}

std::optional<std::vector<std::int64_t>> userLabels(const json::value* item) {
    const json::array* users = asArray(item);
    if (!users) return std::nullopt;
    std::vector<std::int64_t> labels;
    labels.reserve(users->size());
    for (const json::value& user : *users) {
        const json::object* object = user.if_object();
        const json::value* label = object ? object->if_contains("label") : nullptr;
        auto number = label ? labelFromJSON(*label) : std::nullopt;
        // All or nothing, deliberately: a partial list would let the chat drop some of the users
        // who left and keep the rest, so a malformed event changes nothing at all.
        if (!number) return std::nullopt;
        labels.push_back(*number);
    }
    return labels;
}

const json::array* aggregated(const json::value* item) {
    const json::object* object = asObject(item);
    const json::value* value = object ? object->if_contains("aggregated") : nullptr;
    return value ? value->if_array() : nullptr;
}

std::optional<const json::object*> pinnedMessage(const json::value* item) {
    const json::object* object = asObject(item);
    const json::value* value = object ? object->if_contains("pinnedMsg") : nullptr;
    const json::object* pinned = value ? value->if_object() : nullptr;
    if (!pinned) return std::nullopt;
    // The service unpins by sending an empty object.
    return pinned->empty() ? nullptr : pinned;
}

}  // namespace socket_payload

}  // namespace tavlo
