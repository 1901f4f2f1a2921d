// What the application sees of a reconnection: the announcement of each attempt, and (when the
// setting is on) the messages missed meanwhile. The recovery itself is TVKMissedMessageRecovery.

#include "Dispatch/Internal/QueueConfinement.hpp"
#include "TavloMessagingSDK/Internal/TVKChatManagerForwarding.hpp"
#include "TavloMessagingSDK/Internal/TVKChatSession.hpp"
#include "TavloMessagingSDK/Internal/TVKMissedMessageRecovery.hpp"
#include "TavloMessagingSDK/TVKChatManager.hpp"
#include "TavloMessagingSDK/TVKChatMessage.hpp"
#include "TavloMessagingSDK/TVKChatUser.hpp"
#include "TavloMessagingSDK/TVKMSGError.hpp"

namespace tavlo {

void TVKChatManager::reportReconnecting(const std::shared_ptr<TVKChat>& chat,
                                        unsigned attemptsBefore, std::chrono::nanoseconds pause) {
    TAVLO_ASSERT_ON_QUEUE(queue_);
    const auto delay = std::chrono::duration_cast<std::chrono::milliseconds>(pause);
    forward(chat, chat_event::Reconnecting{attemptsBefore + 1, delay});
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
    using ChatPtr = TVKMissedMessageRecovery::ChatPtr;
    // The recovery lives as long as the manager, but its fetches may answer later: every path
    // back reaches the manager weakly.
    std::weak_ptr<TVKChatManager> weak = weak_from_this();
    TVKMissedMessageRecovery::Output output;
    output.event = [weak](const ChatPtr& chat, TVKChatEvent event) {
        auto self = weak.lock();
        if (!self) return;
        if (auto* gap = std::get_if<chat_event::MissedMessagesGap>(&event); gap && gap->gap.error) {
            gap->gap.error = TVKMSGError(*gap->gap.error);
        }
        self->forward(chat, std::move(event));
    };
    output.retry = [weak](unsigned attempt, std::optional<std::chrono::seconds> askedByService,
                          std::function<void()> task) {
        auto self = weak.lock();
        return self &&
               self->retry(std::move(task), attempt, TVKReconnectAttemptLimit, askedByService);
    };
    output.listPage = [](const ChatPtr& chat, const boost::json::object& query, auto success,
                         auto failure) {
        auto user = chat->currentUser();
        if (!user || !user->userToken()) return failure(TVKMSGNotConnectedError());
        sessionOf(chat)->listMessagesWithUserToken(
            *user->userToken(), query,
            [success](const TVKMessageListing& listing) {
                const auto* messages = std::get_if<TVKChatMessages>(&listing);
                success(messages ? *messages : TVKChatMessages{});
            },
            failure);
    };
    output.caughtUp = [weak](const ChatPtr& chat) {
        // Sends held during the reconnection go out after the messages missed meanwhile.
        if (auto self = weak.lock()) self->sendNextHeld(chat->originalChatroomName());
    };
    missedMessages_->enable(std::move(output));
}

}  // namespace tavlo
