#include "TavloMessagingSDK/TVKChatEvent.hpp"

namespace tavlo {

namespace {

// The delegate operation of each record, and nothing else: one line per event kind.
struct Delivery {
    TVKChatEventDelegate& delegate;
    const std::shared_ptr<TVKChat>& chat;

    void operator()(const chat_event::Connected&) const { delegate.chatroomConnected(chat); }
    void operator()(const chat_event::Disconnected&) const { delegate.chatroomDisconnected(chat); }
    void operator()(const chat_event::FailToConnect& e) const {
        delegate.chatroomFailToConnect(chat, e.error);
    }
    void operator()(const chat_event::Error& e) const { delegate.chatroomError(chat, e.error); }
    void operator()(const chat_event::Reconnecting& e) const {
        delegate.chatroomReconnecting(chat, e.attempt, e.delay);
    }
    void operator()(const chat_event::MissedMessagesGap& e) const {
        delegate.chatroomMissedMessagesGap(chat, e.gap);
    }
    void operator()(const chat_event::InputModeChanged&) const {
        delegate.chatroomInputModeChanged(chat);
    }
    void operator()(const chat_event::UsersJoined& e) const {
        delegate.chatroomUsersJoined(chat, e.users);
    }
    void operator()(const chat_event::UsersUpdated& e) const {
        delegate.chatroomUsersUpdated(chat, e.users);
    }
    void operator()(const chat_event::UsersLeft& e) const {
        delegate.chatroomUsersLeft(chat, e.labels);
    }
    void operator()(const chat_event::UserCount&) const { delegate.chatroomUserCount(chat); }
    void operator()(const chat_event::MessageAdded& e) const {
        delegate.chatroomMessageAdded(chat, e.message);
    }
    void operator()(const chat_event::AggregatedItemsAdded& e) const {
        delegate.chatroomAggregatedItemsAdded(chat, e.items);
    }
    void operator()(const chat_event::RawDataAdded& e) const {
        delegate.chatroomRawDataAdded(chat, e.message);
    }
    void operator()(const chat_event::MessageRemoved& e) const {
        delegate.chatroomMessageRemoved(chat, e.messageId);
    }
    void operator()(const chat_event::MessageFlushed&) const {
        delegate.chatroomMessageFlushed(chat);
    }
    void operator()(const chat_event::PinnedMessageUpdated& e) const {
        delegate.chatroomPinnedMessageUpdated(chat, e.message);
    }
    void operator()(const chat_event::MetadataUpdated& e) const {
        delegate.chatroomMetadataUpdated(chat, e.metadata);
    }
};

}  // namespace

void deliver(TVKChatEventDelegate& delegate, const std::shared_ptr<TVKChat>& chat,
             const TVKChatEvent& event) {
    std::visit(Delivery{delegate, chat}, event);
}

}  // namespace tavlo
