// What the manager does with each report of its chatrooms: keep its registries in step, then
// pass the event on to the application's delegate of that chatroom, as the same record.
// Chatrooms report on the manager's queue; a report from anywhere else waits for it. A report
// made on the queue runs then and there, without a task or a wait of its own: under a flood they
// come by the hundred thousand per second.

#include "TavloCoreSDK/Internal/TVKLogLine.hpp"
#include "TavloMessagingSDK/Internal/TVKChatManagerForwarding.hpp"
#include "TavloMessagingSDK/Internal/TVKChatReport.hpp"
#include "TavloMessagingSDK/Internal/TVKChatSession.hpp"
#include "TavloMessagingSDK/Internal/TVKMessagingError.hpp"
#include "TavloMessagingSDK/Internal/TVKMissedMessageRecovery.hpp"
#include "TavloMessagingSDK/TVKChatManager.hpp"
#include "TavloMessagingSDK/TVKChatUser.hpp"

namespace tavlo {

// One overload per report that changes the manager's registries; every other event goes to the
// application as it came.
struct TVKChatManager::ReportHandling {
    TVKChatManager& manager;
    const std::shared_ptr<TVKChat>& chat;

    void operator()(chat_event::Connected&&) const { manager.chatConnected(chat); }
    void operator()(chat_event::Disconnected&&) const { manager.chatDisconnected(chat); }
    void operator()(chat_report::SocketError&& report) const {
        manager.socketError(chat, report.error);
    }

    void operator()(chat_report::InputIntervalChanged&& report) const {
        auto found = manager.inputAvailableDates_.find(chat->originalChatroomName());
        if (found == manager.inputAvailableDates_.end()) return;
        // Only a cooldown under way moves; the application reads it through cooldownForChatroom.
        if (found->second - manager.now() <= Clock::duration::zero()) return;
        found->second += std::chrono::duration_cast<Clock::duration>(
            std::chrono::duration<double>(report.change));
    }

    void operator()(chat_event::UsersUpdated&& event) const {
        // The signed-in user's new role takes effect before the application hears of the update,
        // so that its permission checks already see it. Only the first entry for that user counts.
        if (auto currentUser = chat->currentUser()) {
            for (const auto& user : event.users) {
                if (user && user->isEqual(*currentUser)) {
                    currentUser->updateRole(user->role());
                    break;
                }
            }
        }
        manager.forward(chat, std::move(event));
    }

    // Live messages and removals pass through the missed-message recovery, which may hold them
    // back until the messages missed before them are out.
    void operator()(chat_event::MessageAdded&& event) const {
        using Kind = TVKMissedMessageRecovery::Kind;
        if (manager.missedMessages_->intercept(chat, event.message, Kind::text)) return;
        manager.forward(chat, std::move(event));
    }
    void operator()(chat_event::RawDataAdded&& event) const {
        using Kind = TVKMissedMessageRecovery::Kind;
        if (manager.missedMessages_->intercept(chat, event.message, Kind::raw)) return;
        manager.forward(chat, std::move(event));
    }
    void operator()(chat_event::MessageRemoved&& event) const {
        if (manager.missedMessages_->interceptRemoval(chat, event.messageId)) return;
        manager.forward(chat, std::move(event));
    }

    template <class Event>
    void operator()(Event&& event) const {
        manager.forward(chat, TVKChatEvent(std::forward<Event>(event)));
    }
};

void TVKChatManagerReception::chatReported(const std::shared_ptr<TVKChat>& chat,
                                           TVKChatReport&& report) {
    if (!chat) return;
    auto& queue = *manager_.queue_;
    if (queue.isCurrent())
        return std::visit(TVKChatManager::ReportHandling{manager_, chat}, std::move(report));
    queue.sync([&] {
        std::visit(TVKChatManager::ReportHandling{manager_, chat}, std::move(report));
    });
}

std::weak_ptr<TVKChatReportSink> TVKChatManager::reportSink() {
    return std::shared_ptr<TVKChatReportSink>(shared_from_this(), reception_.get());
}

void TVKChatManager::chatConnected(const std::shared_ptr<TVKChat>& chat) {
    if (!isRegistered(chat)) {
        // An attempt that was under way when the chatroom was disconnected or given up ends
        // here: nobody is waiting for it, so its connection is closed again.
        sessionOf(chat)->closeWithoutFarewell();
        return;
    }
    if (auto user = chat->currentUser()) {
        // Refreshes the user's record in the background; its outcome interests nobody.
        user->loadUserData([] {}, [](const TVKError&) {});
    }
    const auto channel = chat->originalChatroomName();
    connectedChannels_.insert(channel);
    // Only a registered chatroom has a counter; writing one for a forgotten chatroom would break
    // the rule that counters exist only beside chatroom objects.
    if (chats_.count(channel)) retryAttemptCounts_[channel] = 0;
    reconnectingChannels_.erase(channel);
    socketOnlyAttempts_.erase(channel);
    forward(chat, chat_event::Connected{});
    missedMessages_->chatConnected(chat);
    // With recovery on, the missed messages come first: their recovery sends what is held.
    if (!missedMessages_->isRecovering(chat)) sendNextHeld(channel);
}

void TVKChatManager::chatDisconnected(const std::shared_ptr<TVKChat>& chat) {
    const auto channel = chat->originalChatroomName();
    connectedChannels_.erase(channel);
    auto delegate = delegateForChannel(channel);
    // The delegate was taken above, so the application still hears of the disconnection; the
    // registries are cleared before it does, so that a connection it starts from inside the
    // callback is not swept away afterwards. Later events of this chatroom go nowhere.
    cleanUpInternalDataForChannel(channel);
    if (!delegate) return;
    deliverEvent(std::move(delegate), chat, chat_event::Disconnected{});
}

void TVKChatManager::socketError(const std::shared_ptr<TVKChat>& chat, const TVKError& error) {
    // Only a lost or timed-out connection matters: it starts the reconnection policy. Other
    // socket errors (refused attempts, bad frames) change nothing and are not reported; the
    // application hears of trouble only once the retries are spent.
    if (!isTVKSocketConnectionTimeoutError(error) && !isTVKSocketConnectionLostError(error)) {
        return;
    }
    const auto channel = chat->originalChatroomName();
    const bool socketOnly = socketOnlyAttempts_.erase(channel) > 0;
    // A socket-only attempt whose subscription failed has dropped its socket configuration: the
    // service no longer knows its user token. Deliberately, the full reconnection follows at
    // once, as part of the same attempt, instead of after the next pause.
    if (socketOnly && !sessionOf(chat)->hasGotSocketConfig() && isRegistered(chat)) {
        TAVLO_LOG(info, "manager", channel, ": subscription failed (", error.describe(),
                  "), joining afresh within the same attempt");
        return reconnectChat(chat);
    }
    connectionLost(chat, error);
}

}  // namespace tavlo
