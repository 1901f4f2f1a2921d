#include "EventPrinter.hpp"

#include "Formatting.hpp"

namespace tavlo::chat {

EventPrinter::EventPrinter(Console& console, ChatDirectory& directory)
    : console_(console), directory_(directory) {}

void EventPrinter::event(const std::string& line) {
    console_.print("* " + line);
}

void EventPrinter::moveTo(ConnectionState state, const std::shared_ptr<TVKChat>& chat,
                          std::optional<TVKError> error) {
    std::lock_guard lock(mutex_);
    state_ = state;
    if (chat) chat_ = chat;
    if (error) failure_ = std::move(error);
    changed_.notify_all();
}

ConnectionState EventPrinter::waitWhile(ConnectionState from, std::chrono::milliseconds timeout,
                                        const std::atomic<bool>& interrupted) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    std::unique_lock lock(mutex_);
    while (state_ == from && !interrupted && std::chrono::steady_clock::now() < deadline) {
        changed_.wait_for(lock, std::chrono::milliseconds(50));
    }
    return state_;
}

std::string EventPrinter::counters() const {
    std::lock_guard lock(mutex_);
    return counters_;
}

std::shared_ptr<TVKChat> EventPrinter::chat() const {
    std::lock_guard lock(mutex_);
    return chat_;
}

std::optional<TVKError> EventPrinter::failure() const {
    std::lock_guard lock(mutex_);
    return failure_;
}

void EventPrinter::chatroomConnected(const std::shared_ptr<TVKChat>& chat) {
    event("connected to " + chat->chatroomName());
    {
        std::lock_guard lock(mutex_);
        counters_ = describeCounters(chat->totalAggregatedItems());
    }
    moveTo(ConnectionState::connected, chat);
}

void EventPrinter::chatroomDisconnected(const std::shared_ptr<TVKChat>& chat) {
    event("disconnected from " + chat->chatroomName());
    moveTo(ConnectionState::disconnected, chat);
}

void EventPrinter::chatroomFailToConnect(const std::shared_ptr<TVKChat>& chat,
                                         const TVKError& error) {
    event("could not connect: " + describeError(error));
    moveTo(ConnectionState::failed, chat, error);
}

void EventPrinter::chatroomError(const std::shared_ptr<TVKChat>& chat, const TVKError& error) {
    // A connected chatroom that could not be reconnected is gone: the manager forgot it.
    event("chatroom lost: " + describeError(error));
    moveTo(ConnectionState::failed, chat, error);
}

void EventPrinter::chatroomReconnecting(const std::shared_ptr<TVKChat>&, unsigned attempt,
                                        std::chrono::milliseconds delay) {
    event("connection lost; reconnecting (attempt " + std::to_string(attempt) + " in " +
          std::to_string(delay.count()) + " ms)");
}

void EventPrinter::chatroomMissedMessagesGap(const std::shared_ptr<TVKChat>&,
                                             const TVKMissedMessagesGap& gap) {
    if (gap.reason == TVKMissedMessagesGap::kFetchFailed) {
        event("messages missed while reconnecting could not be fetched" +
              (gap.error ? ": " + describeError(*gap.error) : std::string()));
    } else {
        event("more messages were missed than are recovered; the rest of the gap is skipped");
    }
}

void EventPrinter::chatroomInputModeChanged(const std::shared_ptr<TVKChat>& chat) {
    event("write mode is now " + writeModeName(chat->mode()));
}

void EventPrinter::chatroomUsersJoined(const std::shared_ptr<TVKChat>&, const TVKChatUsers& users) {
    directory_.rememberUsers(users);
    for (const auto& user : users) {
        if (user) event("joined: " + describeUser(*user));
    }
}

void EventPrinter::chatroomUsersUpdated(const std::shared_ptr<TVKChat>&,
                                        const TVKChatUsers& users) {
    directory_.rememberUsers(users);
    for (const auto& user : users) {
        if (user) event("updated: " + describeUser(*user));
    }
}

void EventPrinter::chatroomUsersLeft(const std::shared_ptr<TVKChat>&, const TVKUserLabels& labels) {
    for (auto label : labels) {
        const auto user = directory_.findUser(std::to_string(label));
        event("left: label " + std::to_string(label) + (user ? " (" + userName(*user) + ")" : ""));
    }
}

void EventPrinter::chatroomUserCount(const std::shared_ptr<TVKChat>& chat) {
    event("user count: " + std::to_string(chat->userCount()));
}

void EventPrinter::chatroomMessageAdded(const std::shared_ptr<TVKChat>&,
                                        const std::shared_ptr<TVKChatMessage>& message) {
    if (!message) return;
    directory_.rememberMessage(message);
    event("message " + describeMessage(*message));
}

void EventPrinter::chatroomAggregatedItemsAdded(const std::shared_ptr<TVKChat>& chat,
                                                const TVKAggregatedItems& items) {
    std::string raised;
    for (const auto& item : items) {
        if (!item) continue;
        if (!raised.empty()) raised += ", ";
        raised += item->key().value_or("?") + " +" + std::to_string(item->count().value_or(0));
    }
    const std::string totals = describeCounters(chat->totalAggregatedItems());
    {
        std::lock_guard lock(mutex_);
        counters_ = totals;
    }
    event("counters raised: " + raised + " (now " + totals + ")");
}

void EventPrinter::chatroomRawDataAdded(const std::shared_ptr<TVKChat>&,
                                        const std::shared_ptr<TVKChatMessage>& message) {
    if (!message) return;
    directory_.rememberMessage(message);
    event("raw data " + describeMessage(*message));
}

void EventPrinter::chatroomMessageRemoved(const std::shared_ptr<TVKChat>&,
                                          const std::string& messageId) {
    event("message removed: " + messageId);
}

void EventPrinter::chatroomMessageFlushed(const std::shared_ptr<TVKChat>&) {
    event("all messages removed");
}

void EventPrinter::chatroomPinnedMessageUpdated(const std::shared_ptr<TVKChat>&,
                                                const std::shared_ptr<TVKChatMessage>& message) {
    if (message) directory_.rememberMessage(message);
    event(message ? "pinned: " + describeMessage(*message) : std::string("pinned: nothing"));
}

void EventPrinter::chatroomMetadataUpdated(const std::shared_ptr<TVKChat>&,
                                           const TVKChatMetadataDictionary& metadata) {
    printMetadata(console_, "* metadata ", metadata);
}

void printMetadata(Console& console, const std::string& prefix,
                   const TVKChatMetadataDictionary& metadata) {
    for (const auto& [key, entry] : metadata) {
        const bool hasValue = entry && entry->value();
        console.print(prefix + key + " = " + (hasValue ? jsonText(*entry->value()) : "(none)"));
    }
}

}  // namespace tavlo::chat
