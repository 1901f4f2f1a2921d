#include "TavloMessagingSDK/Internal/TVKChatEventAdapter.hpp"

namespace tavlo {

using namespace chat_event;

void TVKChatEventAdapter::chatroomConnected(const std::shared_ptr<TVKChat>& chat) {
    handle(chat, Connected{});
}
void TVKChatEventAdapter::chatroomDisconnected(const std::shared_ptr<TVKChat>& chat) {
    handle(chat, Disconnected{});
}
void TVKChatEventAdapter::chatroomFailToConnect(const std::shared_ptr<TVKChat>& chat,
                                                const TVKError& error) {
    handle(chat, FailToConnect{error});
}
void TVKChatEventAdapter::chatroomError(const std::shared_ptr<TVKChat>& chat,
                                        const TVKError& error) {
    handle(chat, Error{error});
}
void TVKChatEventAdapter::chatroomReconnecting(const std::shared_ptr<TVKChat>& chat,
                                               unsigned attempt, std::chrono::milliseconds delay) {
    handle(chat, Reconnecting{attempt, delay});
}
void TVKChatEventAdapter::chatroomMissedMessagesGap(const std::shared_ptr<TVKChat>& chat,
                                                    const TVKMissedMessagesGap& gap) {
    handle(chat, MissedMessagesGap{gap});
}
void TVKChatEventAdapter::chatroomInputModeChanged(const std::shared_ptr<TVKChat>& chat) {
    handle(chat, InputModeChanged{});
}
void TVKChatEventAdapter::chatroomUsersJoined(const std::shared_ptr<TVKChat>& chat,
                                              const TVKChatUsers& users) {
    handle(chat, UsersJoined{users});
}
void TVKChatEventAdapter::chatroomUsersUpdated(const std::shared_ptr<TVKChat>& chat,
                                               const TVKChatUsers& users) {
    handle(chat, UsersUpdated{users});
}
void TVKChatEventAdapter::chatroomUsersLeft(const std::shared_ptr<TVKChat>& chat,
                                            const TVKUserLabels& labels) {
    handle(chat, UsersLeft{labels});
}
void TVKChatEventAdapter::chatroomUserCount(const std::shared_ptr<TVKChat>& chat) {
    handle(chat, UserCount{});
}
void TVKChatEventAdapter::chatroomMessageAdded(const std::shared_ptr<TVKChat>& chat,
                                               const std::shared_ptr<TVKChatMessage>& message) {
    handle(chat, MessageAdded{message});
}
void TVKChatEventAdapter::chatroomAggregatedItemsAdded(const std::shared_ptr<TVKChat>& chat,
                                                       const TVKAggregatedItems& items) {
    handle(chat, AggregatedItemsAdded{items});
}
void TVKChatEventAdapter::chatroomRawDataAdded(const std::shared_ptr<TVKChat>& chat,
                                               const std::shared_ptr<TVKChatMessage>& message) {
    handle(chat, RawDataAdded{message});
}
void TVKChatEventAdapter::chatroomMessageRemoved(const std::shared_ptr<TVKChat>& chat,
                                                 const std::string& messageId) {
    handle(chat, MessageRemoved{messageId});
}
void TVKChatEventAdapter::chatroomMessageFlushed(const std::shared_ptr<TVKChat>& chat) {
    handle(chat, MessageFlushed{});
}
void TVKChatEventAdapter::chatroomPinnedMessageUpdated(
    const std::shared_ptr<TVKChat>& chat, const std::shared_ptr<TVKChatMessage>& message) {
    handle(chat, PinnedMessageUpdated{message});
}
void TVKChatEventAdapter::chatroomMetadataUpdated(const std::shared_ptr<TVKChat>& chat,
                                                  const TVKChatMetadataDictionary& metadata) {
    handle(chat, MetadataUpdated{metadata});
}

}  // namespace tavlo
