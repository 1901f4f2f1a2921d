#include "TavloMessagingSDK/TVKChatMetadata.hpp"

namespace tavlo {

namespace {

constexpr const char* kChatScope = "chat";

// A flag reads as true the way a boolean does: true itself, or a number other than zero.
bool isTrue(const boost::json::value& flag) {
    if (flag.is_bool()) return flag.get_bool();
    if (flag.is_int64()) return flag.get_int64() != 0;
    if (flag.is_uint64()) return flag.get_uint64() != 0;
    if (flag.is_double()) return flag.get_double() != 0;
    return false;
}

}  // namespace

bool TVKChatMetadata::mapJSON(const boost::json::object& json) {
    if (const auto* reserved = json_read::any(json, "reserved"); reserved && isTrue(*reserved)) {
        return false;
    }
    if (const auto* scope = json_read::any(json, "scope")) {
        const auto* text = scope->if_string();
        if (!text || *text != kChatScope) return false;
    }
    key_ = json_read::string(json, "key");
    if (const auto* value = json_read::any(json, "value")) value_ = *value;
    return true;
}

TVKChatMetadata::Dictionary TVKChatMetadata::dictionaryWithArrayOfJSON(
    const boost::json::value& list) {
    if (const auto* array = list.if_array()) return dictionaryWithArrayOfJSON(*array);
    return {};
}

TVKChatMetadata::Dictionary TVKChatMetadata::dictionaryWithArrayOfJSON(
    const boost::json::array& list) {
    Dictionary dictionary;
    for (const auto& element : list) {
        auto entry = withJSON<TVKChatMetadata>(element);
        if (!entry || !entry->key_) continue;
        dictionary.insert_or_assign(*entry->key_, entry);
    }
    return dictionary;
}

}  // namespace tavlo
