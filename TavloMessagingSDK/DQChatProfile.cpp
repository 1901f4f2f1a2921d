#include "TavloMessagingSDK/DQChatProfile.hpp"

namespace tavlo {

bool DQChatProfile::mapJSON(const boost::json::object& json) {
    // The service names the chatroom's id "id".
    chatId_ = json_read::string(json, "id");
    channelCode_ = json_read::string(json, "channelCode");
    chatWriteMode_ = json_read::string(json, "chatWriteMode");
    inputInterval_ = json_read::number(json, "inputInterval");
    createdDate_ = json_read::string(json, "createdDate");
    memberCount_ = json_read::int64(json, "memberCount");
    guestCount_ = json_read::int64(json, "guestCount");
    return true;
}

}  // namespace tavlo
