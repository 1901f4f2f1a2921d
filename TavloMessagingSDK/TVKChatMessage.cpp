#include "TavloMessagingSDK/TVKChatMessage.hpp"

#include "TavloMessagingSDK/TVKChatUser.hpp"
#include "TavloMessagingSDK/TVKMSGUtility.hpp"

namespace tavlo {

std::shared_ptr<TVKChatMessage> TVKChatMessage::withJSON(const boost::json::value& json,
                                                         std::string stickerURL) {
    auto message = DQDataObject::withJSON<TVKChatMessage>(json);
    if (!message) return nullptr;
    message->type_ = kSticker;
    message->stickerURL_ = std::move(stickerURL);
    return message;
}

bool TVKChatMessage::mapJSON(const boost::json::object& json) {
    text_ = json_read::string(json, "text");
    if (const auto* rawData = json_read::any(json, "rawData"); rawData && !rawData->is_null()) {
        rawData_ = *rawData;
    }
    createdDate_ = json_read::string(json, "createdDate");
    sourceType_ = json_read::string(json, "sourceType");
    if (const auto* creator = json_read::any(json, "creator")) {
        creator_ = DQDataObject::withJSON<TVKChatUser>(*creator);
    }
    category_ = json_read::string(json, "category");
    status_ = json_read::string(json, "status");
    creatorLabel_ = json_read::int64(json, "creatorLabel");
    parentName_ = json_read::string(json, "parentName");

    // The service's own keys win over same-named fields: the id is "id", the type is ours to set,
    // and "value" holds the text or the payload.
    type_ = kPlain;
    messageId_ = json_read::string(json, "id");
    if (const auto* value = json_read::any(json, "value")) mapValue(*value);
    return true;
}

void TVKChatMessage::mapValue(const boost::json::value& value) {
    if (value.is_object() || value.is_array()) {
        text_ = convertToJSONValueString(value);
        rawData_ = value;
    } else {
        text_ = value.is_string() ? std::optional<std::string>(value.get_string()) : std::nullopt;
    }
}

bool TVKChatMessage::isEqual(const TVKChatMessage& other) const {
    return other.messageId_.has_value() && messageId_ == other.messageId_;
}

std::size_t TVKChatMessage::hash() const {
    return messageId_ ? std::hash<std::string>{}(*messageId_) : 0;
}

}  // namespace tavlo
