// What the manager does with each report of its chatrooms: keep its registries in step, then
// pass the event on to the application's delegate of that chatroom (payload unchanged, chatroom
// first). Chatrooms report on the manager's queue; a report from anywhere else waits for it.
// A report made on the queue runs then and there, without a task or a wait of its own: under a
// flood they come by the hundred thousand per second.

#include <mutex>

#include "TavloCoreSDK/Internal/TVKLogLine.hpp"
#include "TavloMessagingSDK/Internal/TVKChatManagerForwarding.hpp"
#include "TavloMessagingSDK/Internal/TVKMessagingError.hpp"
#include "TavloMessagingSDK/Internal/TVKMissedMessageRecovery.hpp"
#include "TavloMessagingSDK/TVKChatManager.hpp"
#include "TavloMessagingSDK/TVKChatUser.hpp"

namespace tavlo {

namespace {

// Runs `body` on the queue: at once when the calling thread already holds it (every report of a
// chatroom does), else waiting for it.
template <class Body>
void onQueue(dispatch::SerialQueue& queue, Body&& body) {
    if (queue.isCurrent()) {
        body();
    } else {
        queue.sync(std::forward<Body>(body));
    }
}

}  // namespace

void TVKChatManager::chatConnected(const std::shared_ptr<TVKChat>& chat) {
    onQueue(*queue_, [&] {
        if (!chat) return;
        if (!isRegistered(chat)) {
            // An attempt that was under way when the chatroom was disconnected or given up
            // ends here: nobody is waiting for it, so its connection is closed again.
            chat->closeWithoutFarewell();
            return;
        }
        if (auto user = chat->currentUser()) {
            // Refreshes the user's record in the background; its outcome interests nobody.
            user->loadUserData([] {}, [](const TVKError&) {});
        }
        const auto channel = chat->originalChatroomName();
        connectedChannels_.insert(channel);
        // Only a registered chatroom has a counter; writing one for a forgotten chatroom would
        // break the rule that counters exist only beside chatroom objects.
        if (chats_.count(channel)) retryAttemptCounts_[channel] = 0;
        reconnectingChannels_.erase(channel);
        socketOnlyAttempts_.erase(channel);
        forward(chat, [](TVKChatEventDelegate& delegate, const std::shared_ptr<TVKChat>& chat) {
            delegate.chatroomConnected(chat);
        });
        missedMessages_->chatConnected(chat);
    });
}

void TVKChatManager::chatDisconnected(const std::shared_ptr<TVKChat>& chat) {
    onQueue(*queue_, [&] {
        if (!chat) return;
        const auto channel = chat->originalChatroomName();
        connectedChannels_.erase(channel);
        auto delegate = delegateForChannel(channel);
        // The delegate was taken above, so the application still hears of the disconnection; the
        // registries are cleared before it does, so that a connection it starts from inside the
        // callback is not swept away afterwards. Later events of this chatroom go nowhere.
        cleanUpInternalDataForChannel(channel);
        if (!delegate) return;
        deliver([delegate, chat] { delegate->chatroomDisconnected(chat); });
    });
}

void TVKChatManager::inputModeChanged(const std::shared_ptr<TVKChat>& chat) {
    onQueue(*queue_, [&] {
        forward(chat, [](TVKChatEventDelegate& delegate, const std::shared_ptr<TVKChat>& chat) {
            delegate.chatroomInputModeChanged(chat);
        });
    });
}

void TVKChatManager::inputIntervalChanged(double change, const std::shared_ptr<TVKChat>& chat) {
    onQueue(*queue_, [&] {
        if (!chat) return;
        auto found = inputAvailableDates_.find(chat->originalChatroomName());
        if (found == inputAvailableDates_.end()) return;
        // Only a cooldown under way moves; the application reads it through cooldownForChatroom.
        if (found->second - now() <= Clock::duration::zero()) return;
        found->second +=
            std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(change));
    });
}

void TVKChatManager::usersJoined(const TVKChatUsers& users, const std::shared_ptr<TVKChat>& chat) {
    onQueue(*queue_, [&] {
        forward(chat,
                [users](TVKChatEventDelegate& delegate, const std::shared_ptr<TVKChat>& chat) {
                    delegate.chatroomUsersJoined(chat, users);
                });
    });
}

void TVKChatManager::usersUpdated(const TVKChatUsers& users, const std::shared_ptr<TVKChat>& chat) {
    onQueue(*queue_, [&] {
        if (!chat) return;
        // The signed-in user's new role takes effect before the application hears of the update, so
        // that its permission checks already see it. Only the first entry for that user counts.
        if (auto currentUser = chat->currentUser()) {
            for (const auto& user : users) {
                if (user && user->isEqual(*currentUser)) {
                    currentUser->updateRole(user->role());
                    break;
                }
            }
        }
        forward(chat,
                [users](TVKChatEventDelegate& delegate, const std::shared_ptr<TVKChat>& chat) {
                    delegate.chatroomUsersUpdated(chat, users);
                });
    });
}

void TVKChatManager::usersLeft(const TVKUserLabels& labels, const std::shared_ptr<TVKChat>& chat) {
    onQueue(*queue_, [&] {
        forward(chat,
                [labels](TVKChatEventDelegate& delegate, const std::shared_ptr<TVKChat>& chat) {
                    delegate.chatroomUsersLeft(chat, labels);
                });
    });
}

void TVKChatManager::userCount(const std::shared_ptr<TVKChat>& chat) {
    onQueue(*queue_, [&] {
        forward(chat, [](TVKChatEventDelegate& delegate, const std::shared_ptr<TVKChat>& chat) {
            delegate.chatroomUserCount(chat);
        });
    });
}

void TVKChatManager::messageAdded(const std::shared_ptr<TVKChatMessage>& message,
                                  const std::shared_ptr<TVKChat>& chat) {
    onQueue(*queue_, [&] {
        if (missedMessages_->intercept(chat, message, TVKMissedMessageRecovery::Kind::text)) return;
        forward(chat,
                [message](TVKChatEventDelegate& delegate, const std::shared_ptr<TVKChat>& chat) {
                    delegate.chatroomMessageAdded(chat, message);
                });
    });
}

void TVKChatManager::aggregatedItemsAdded(const TVKAggregatedItems& items,
                                          const std::shared_ptr<TVKChat>& chat) {
    onQueue(*queue_, [&] {
        forward(chat,
                [items](TVKChatEventDelegate& delegate, const std::shared_ptr<TVKChat>& chat) {
                    delegate.chatroomAggregatedItemsAdded(chat, items);
                });
    });
}

void TVKChatManager::rawDataAdded(const std::shared_ptr<TVKChatMessage>& message,
                                  const std::shared_ptr<TVKChat>& chat) {
    onQueue(*queue_, [&] {
        if (missedMessages_->intercept(chat, message, TVKMissedMessageRecovery::Kind::raw)) return;
        forward(chat,
                [message](TVKChatEventDelegate& delegate, const std::shared_ptr<TVKChat>& chat) {
                    delegate.chatroomRawDataAdded(chat, message);
                });
    });
}

void TVKChatManager::messageRemoved(const std::string& messageId,
                                    const std::shared_ptr<TVKChat>& chat) {
    onQueue(*queue_, [&] {
        if (missedMessages_->interceptRemoval(chat, messageId)) return;
        forward(chat,
                [messageId](TVKChatEventDelegate& delegate, const std::shared_ptr<TVKChat>& chat) {
                    delegate.chatroomMessageRemoved(chat, messageId);
                });
    });
}

void TVKChatManager::messageFlushed(const std::shared_ptr<TVKChat>& chat) {
    onQueue(*queue_, [&] {
        forward(chat, [](TVKChatEventDelegate& delegate, const std::shared_ptr<TVKChat>& chat) {
            delegate.chatroomMessageFlushed(chat);
        });
    });
}

void TVKChatManager::pinnedMessageUpdated(const std::shared_ptr<TVKChatMessage>& message,
                                          const std::shared_ptr<TVKChat>& chat) {
    onQueue(*queue_, [&] {
        forward(chat,
                [message](TVKChatEventDelegate& delegate, const std::shared_ptr<TVKChat>& chat) {
                    delegate.chatroomPinnedMessageUpdated(chat, message);
                });
    });
}

void TVKChatManager::metadataUpdated(const TVKChatMetadataDictionary& metadata,
                                     const std::shared_ptr<TVKChat>& chat) {
    onQueue(*queue_, [&] {
        forward(chat,
                [metadata](TVKChatEventDelegate& delegate, const std::shared_ptr<TVKChat>& chat) {
                    delegate.chatroomMetadataUpdated(chat, metadata);
                });
    });
}

void TVKChatManager::error(const TVKError& error, const std::shared_ptr<TVKChat>& chat) {
    onQueue(*queue_, [&] {
        if (!chat) return;
        // Only a lost or timed-out connection matters: it starts the reconnection policy. Other
        // socket errors (refused attempts, bad frames) change nothing and are not reported; the
        // application hears of trouble only once the retries are spent.
        if (!isTVKSocketConnectionTimeoutError(error) && !isTVKSocketConnectionLostError(error)) {
            return;
        }
        const auto channel = chat->originalChatroomName();
        const bool socketOnly = socketOnlyAttempts_.erase(channel) > 0;
        // A socket-only attempt whose subscription failed has dropped its socket configuration:
        // the service no longer knows its user token. Deliberately, the full reconnection follows
        // at once, as part of the same attempt, instead of after the next pause.
        if (socketOnly && !chat->hasGotSocketConfig() && isRegistered(chat)) {
            TAVLO_LOG(info, "manager", channel, ": subscription failed (", error.describe(),
                      "), joining afresh within the same attempt");
            return reconnectChat(chat);
        }
        connectionLost(chat, error);
    });
}

}  // namespace tavlo
