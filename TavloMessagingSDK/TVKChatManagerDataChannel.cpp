// The data channel: aggregated counters and raw JSON data, sent and listed through the same
// machinery as messages, under their own message types.

#include "TavloMessagingSDK/TVKChatManager.hpp"
#include "TavloMessagingSDK/TVKChatMessage.hpp"
#include "TavloMessagingSDK/TVKMSGError.hpp"
#include "TavloMessagingSDK/TVKMSGUtility.hpp"

namespace tavlo {
namespace {

constexpr std::size_t kMaximumAggregatedKeyLength = 100;

/// Only an object or an array whose whole content can be written as JSON text travels as raw
/// data: no infinite or NaN number, no text that is not UTF-8.
bool isSendableRawData(const boost::json::value& rawData) {
    if (!rawData.is_object() && !rawData.is_array()) return false;
    return convertToJSONValueString(rawData).has_value();
}

}  // namespace

void TVKChatManager::sendAggregatedDataWithKey(const std::string& key,
                                               const std::shared_ptr<TVKChat>& chatroom,
                                               Success success, Failure failure) {
    const auto length = utf16Length(key);
    if (length < 1 || length > kMaximumAggregatedKeyLength) {
        reportRefusal(failure, TVKMSGLengthErrorWithMsgType(TVKChatMessageTypeAggregate));
        return;
    }
    sendMessage(boost::json::value(key), TVKChatMessageTypeAggregate, chatroom, std::move(success),
                std::move(failure));
}

void TVKChatManager::sendRawData(const boost::json::value& rawData,
                                 const std::shared_ptr<TVKChat>& chatroom, Success success,
                                 Failure failure) {
    if (!isSendableRawData(rawData)) {
        reportRefusal(failure, TVKMSGRawDataCannotBeConvertedToJson());
        return;
    }
    sendMessage(rawData, TVKChatMessageTypeRawData, chatroom, std::move(success),
                std::move(failure));
}

void TVKChatManager::getAggregatedDataForChatroom(
    const std::shared_ptr<TVKChat>& chatroom,
    const std::shared_ptr<TVKGetMessagesConfiguration>& configuration,
    AggregatedDataSuccess success, Failure failure) {
    getMessagesForChatroom(chatroom, TVKChatMessageTypeAggregate, configuration,
                           listingOf<TVKAggregatedDataList>(std::move(success)),
                           std::move(failure));
}

void TVKChatManager::getRawDataForChatroom(
    const std::shared_ptr<TVKChat>& chatroom,
    const std::shared_ptr<TVKGetMessagesConfiguration>& configuration, MessagesSuccess success,
    Failure failure) {
    getMessagesForChatroom(chatroom, TVKChatMessageTypeRawData, configuration,
                           listingOf<TVKChatMessages>(std::move(success)), std::move(failure));
}

}  // namespace tavlo
