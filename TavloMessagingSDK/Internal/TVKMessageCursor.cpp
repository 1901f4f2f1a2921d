#include "TavloMessagingSDK/Internal/TVKMessageCursor.hpp"

#include "TavloMessagingSDK/TVKChatMessage.hpp"
#include "TavloMessagingSDK/TVKMSGUtility.hpp"

namespace tavlo {

std::int64_t TVKMessageCursor::timeOf(const TVKChatMessage& message) {
    const auto& created = message.createdDate();
    return created ? static_cast<std::int64_t>(unixTimeValue(*created)) : 0;
}

bool TVKMessageCursor::wasDelivered(const TVKChatMessage& message) const {
    const auto& id = message.messageId();
    return id && ids_.count(*id) > 0;
}

void TVKMessageCursor::delivered(const TVKChatMessage& message) {
    // A message without a time stamp says nothing about how far the chatroom has reached.
    if (const auto time = timeOf(message); time > 0) advanceTo(time);
    const auto& id = message.messageId();
    if (!id || !ids_.insert(*id).second) return;
    order_.push_back(*id);
    if (order_.size() > kRememberedIds) {
        ids_.erase(order_.front());
        order_.pop_front();
    }
}

void TVKMessageCursor::advanceTo(std::int64_t time) {
    if (!time_ || time > *time_) time_ = time;
}

}  // namespace tavlo
