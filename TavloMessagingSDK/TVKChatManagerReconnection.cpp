// What the application sees of a reconnection: the announcement of each attempt, and (when the
// setting is on) the messages missed meanwhile. The recovery itself is TVKMissedMessageRecovery.

#include "TavloMessagingSDK/TVKChatManager.hpp"
#include "TavloMessagingSDK/TVKChatMessage.hpp"
#include "TavloMessagingSDK/TVKChatUser.hpp"
#include "TavloMessagingSDK/TVKMSGError.hpp"
#include "TavloMessagingSDK/Internal/TVKChatManagerForwarding.hpp"
#include "TavloMessagingSDK/Internal/TVKMissedMessageRecovery.hpp"

namespace tavlo {

void TVKChatManager::reportReconnecting(const std::shared_ptr<TVKChat>& chat,
                                        unsigned attemptsBefore) {
    const auto delay =
        std::chrono::duration_cast<std::chrono::milliseconds>(retryDelayForAttempt(attemptsBefore));
    forward(chat, [attempt = attemptsBefore + 1, delay](TVKChatEventDelegate& delegate,
                                                        const std::shared_ptr<TVKChat>& chat) {
        delegate.chatroomReconnecting(chat, attempt, delay);
    });
}

void TVKChatManager::setRecoversMissedMessages(bool recovers) {
    queue_->sync([&] {
        if (recovers == missedMessages_->enabled()) return;
        if (recovers) {
            enableMissedMessageRecovery();
        } else {
            missedMessages_->disable();
        }
    });
}

bool TVKChatManager::recoversMissedMessages() const {
    bool recovers = false;
    queue_->sync([&] { recovers = missedMessages_->enabled(); });
    return recovers;
}

void TVKChatManager::enableMissedMessageRecovery() {
    using Kind = TVKMissedMessageRecovery::Kind;
    using ChatPtr = TVKMissedMessageRecovery::ChatPtr;
    // The recovery lives as long as the manager, but its fetches may answer later: every path
    // back reaches the manager weakly.
    std::weak_ptr<TVKChatManager> weak = weak_from_this();
    TVKMissedMessageRecovery::Output output;
    output.message = [weak](const ChatPtr& chat, const std::shared_ptr<TVKChatMessage>& message,
                            Kind kind) {
        auto self = weak.lock();
        if (!self) return;
        self->forward(chat, [message, kind](TVKChatEventDelegate& delegate, const ChatPtr& chat) {
            if (kind == Kind::raw) {
                delegate.chatroomRawDataAdded(chat, message);
            } else {
                delegate.chatroomMessageAdded(chat, message);
            }
        });
    };
    output.removal = [weak](const ChatPtr& chat, const std::string& messageId) {
        auto self = weak.lock();
        if (!self) return;
        self->forward(chat, [messageId](TVKChatEventDelegate& delegate, const ChatPtr& chat) {
            delegate.chatroomMessageRemoved(chat, messageId);
        });
    };
    output.gap = [weak](const ChatPtr& chat, TVKMissedMessagesGap gap) {
        auto self = weak.lock();
        if (!self) return;
        if (gap.error) gap.error = TVKMSGError(*gap.error);
        self->forward(chat, [gap](TVKChatEventDelegate& delegate, const ChatPtr& chat) {
            delegate.chatroomMissedMessagesGap(chat, gap);
        });
    };
    output.retry = [weak](unsigned attempt, std::function<void()> task) {
        auto self = weak.lock();
        return self && self->retry(std::move(task), attempt, TVKReconnectAttemptLimit);
    };
    output.listPage = [](const ChatPtr& chat, const boost::json::object& query, auto success,
                         auto failure) {
        auto user = chat->currentUser();
        if (!user || !user->userToken()) return failure(TVKMSGNotConnectedError());
        chat->listMessagesWithUserToken(
            *user->userToken(), query,
            [success](const TVKMessageListing& listing) {
                const auto* messages = std::get_if<TVKChatMessages>(&listing);
                success(messages ? *messages : TVKChatMessages{});
            },
            failure);
    };
    missedMessages_->enable(std::move(output));
}

}  // namespace tavlo
