// Sends made while a chatroom reconnects: held in order (TVKHeldSends), sent one after the other
// once the chatroom is connected again and its missed messages are out, failed together when the
// reconnection is given up or the chatroom disconnected.

#include "TavloCoreSDK/Internal/TVKLogLine.hpp"
#include "TavloMessagingSDK/Internal/TVKHeldSends.hpp"
#include "TavloMessagingSDK/TVKChatManager.hpp"
#include "TavloMessagingSDK/TVKChatUser.hpp"
#include "TavloMessagingSDK/TVKMSGError.hpp"

namespace tavlo {

void TVKChatManager::setHoldsSendsWhileReconnecting(bool holds) {
    queue_->sync([&] { holdsSends_ = holds; });
}

bool TVKChatManager::holdsSendsWhileReconnecting() const {
    bool holds = false;
    queue_->sync([&] { holds = holdsSends_; });
    return holds;
}

bool TVKChatManager::holdsSendTo(const std::shared_ptr<TVKChat>& chat) const {
    if (!chat) return false;
    const auto channel = chat->originalChatroomName();
    if (!chats_.count(channel)) return false;
    // Turning holding off lets what is held go out as usual; only new sends are no longer held.
    if (heldSends_->isBusy(channel)) return true;
    return holdsSends_ && reconnectingChannels_.count(channel) && connectedChannels_.count(channel);
}

void TVKChatManager::sendNextHeld(const std::string& channel) {
    auto found = chats_.find(channel);
    if (found == chats_.end()) return;
    // Lost again meanwhile: the rest waits for the next connection.
    auto user = connectedUser(found->second, false);
    if (!user) return;
    auto taken = heldSends_->takeNext(channel);
    if (!taken) return;
    TAVLO_LOG(debug, "manager", channel, ": sending a held ", taken->send.msgType, " message");
    std::weak_ptr<TVKChatManager> weak = weak_from_this();
    auto answered = [weak, channel, ticket = taken->ticket] {
        auto self = weak.lock();
        if (!self) return;
        self->heldSends_->answered(channel, ticket);
        self->sendNextHeld(channel);
    };
    sendNow(*user, channel, taken->send.message, taken->send.msgType,
            std::move(taken->send.success), std::move(taken->send.failure), std::move(answered));
}

void TVKChatManager::failHeldSends(const std::string& channel, const TVKError& error) {
    auto held = heldSends_->takeAll(channel);
    if (held.empty()) return;
    TAVLO_LOG(info, "manager", channel, ": ", held.size(), " held sends fail");
    for (auto& send : held) {
        if (send.failure) send.failure(error);
    }
}

}  // namespace tavlo
