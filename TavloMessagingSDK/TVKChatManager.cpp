#include "TavloMessagingSDK/TVKChatManager.hpp"
#include "TavloMessagingSDK/Internal/TVKChatSession.hpp"

#include "Dispatch/Internal/QueueConfinement.hpp"
#include "Dispatch/Internal/Scheduler.hpp"

#include "TavloCoreSDK/Internal/TVKLogLine.hpp"
#include "TavloCoreSDK/TVKSDKAuthManager.hpp"
#include "TavloMessagingSDK/Internal/TVKChatManagerForwarding.hpp"
#include "TavloMessagingSDK/Internal/TVKChatReport.hpp"
#include "TavloMessagingSDK/Internal/TVKHeldSends.hpp"
#include "TavloMessagingSDK/Internal/TVKMessagingError.hpp"
#include "TavloMessagingSDK/Internal/TVKMissedMessageRecovery.hpp"
#include "TavloMessagingSDK/Internal/TVKRetryPause.hpp"
#include "TavloMessagingSDK/TVKArchivedChat.hpp"
#include "TavloMessagingSDK/TVKChatUser.hpp"
#include "TavloMessagingSDK/TVKMSGError.hpp"
#include "TavloMessagingSDK/TVKMSGUtility.hpp"

namespace tavlo {

// --- Creation and settings ---------------------------------------------------------------------

std::shared_ptr<TVKChatManager> TVKChatManager::create() {
    if (!TVKSDKAuthManager::sharedManager().accountToken()) return nullptr;
    return std::make_shared<TVKChatManager>(Passkey{});
}

TVKChatManager::TVKChatManager(Passkey)
    : queue_(dispatch::SerialQueue::create("com.tavlo.messaging.TVKChatManager")),
      missedMessages_(std::make_shared<TVKMissedMessageRecovery>()),
      reception_(std::make_unique<TVKChatManagerReception>(*this)),
      heldSends_(std::make_unique<TVKHeldSends>()) {}

TVKChatManager::~TVKChatManager() {
    // The last reference may go inside a chatroom's own callback (a socket handler, an HTTP
    // completion). The chatrooms are therefore let go in a task of their own, never beneath a
    // stack frame of theirs; nothing waits for it. Their sockets close there too (locally, no
    // farewell): a chatroom the application still holds must not stay connected with nobody to
    // report to.
    if (chats_.empty() && archivedChats_.empty()) return;
    queue_->async([chats = std::move(chats_), archived = std::move(archivedChats_)] {
        for (const auto& [channel, chat] : chats) {
            if (chat->status() == TVKChatStatusConnected) sessionOf(chat)->disconnect();
        }
    });
}

TVKChatManager::Settings TVKChatManager::settings() const {
    std::lock_guard lock(settingsMutex_);
    return settings_;
}

std::string TVKChatManager::HTTPHostURL() const {
    return settings().HTTPHostURL;
}

void TVKChatManager::setHTTPHostURL(std::string url) {
    std::lock_guard lock(settingsMutex_);
    settings_.HTTPHostURL = std::move(url);
}

std::optional<std::string> TVKChatManager::CAFile() const {
    return settings().caFile;
}

void TVKChatManager::setCAFile(std::optional<std::string> caFile) {
    std::lock_guard lock(settingsMutex_);
    settings_.caFile = std::move(caFile);
}

std::optional<std::string> TVKChatManager::proxy() const {
    return settings().proxy;
}

void TVKChatManager::setProxy(std::optional<std::string> proxyURL) {
    std::lock_guard lock(settingsMutex_);
    settings_.proxy = std::move(proxyURL);
}

void TVKChatManager::setCallbackExecutor(CallbackExecutor executor) {
    // Read by every event: kept on the queue, so that reading it takes no lock.
    auto set = [&] { executor_ = std::move(executor); };
    if (queue_->isCurrent()) return set();
    queue_->sync(set);
}

void TVKChatManager::setTimeScale(double scale) {
    TimeSource time;
    if (scale > 0 && scale != 1.0) {
        time.scheduler = std::make_shared<dispatch::TimerScheduler>(scale);
        // The clock runs as much faster as the delays, from now on.
        time.clock = [origin = Clock::now(), scale] {
            return origin +
                   std::chrono::duration_cast<Clock::duration>((Clock::now() - origin) / scale);
        };
    }
    auto set = [&] { time_ = std::move(time); };
    if (queue_->isCurrent()) return set();
    queue_->sync(set);
}

void TVKChatManager::setSocketConnectTimeout(std::chrono::milliseconds timeout) {
    std::lock_guard lock(settingsMutex_);
    settings_.socketConnectTimeout = timeout;
}

void TVKChatManager::setRequestTimeout(std::chrono::milliseconds timeout) {
    std::lock_guard lock(settingsMutex_);
    settings_.requestTimeout = timeout;
}

TVKChatManager::Clock::time_point TVKChatManager::now() const {
    return time_.clock ? time_.clock() : Clock::now();
}

std::optional<std::string> TVKChatManager::accountId() const {
    return TVKSDKAuthManager::sharedManager().accountId();
}

// --- Delivery to the application ---------------------------------------------------------------

void TVKChatManager::deliver(std::function<void()> call) const {
    // An application's exception must not unwind through the SDK's queues.
    auto guarded = [call = std::move(call)] {
        try {
            call();
        } catch (...) {
        }
    };
    if (!executor_) {
        guarded();
        return;
    }
    try {
        executor_(std::move(guarded));
    } catch (...) {
    }
}

void TVKChatManager::deliverEvent(std::shared_ptr<TVKChatEventDelegate> delegate,
                                  const std::shared_ptr<TVKChat>& chat,
                                  TVKChatEvent&& event) const {
    if (!executor_) {
        // The common case, called directly: no task to wrap the call in, per event.
        try {
            tavlo::deliver(*delegate, chat, event);
        } catch (...) {
        }
        return;
    }
    deliver([delegate = std::move(delegate), chat, event = std::move(event)] {
        tavlo::deliver(*delegate, chat, event);
    });
}

void TVKChatManager::forward(const std::shared_ptr<TVKChat>& chat, TVKChatEvent&& event) {
    if (!chat) return;
    auto delegate = delegateForChannel(chat->originalChatroomName());
    if (!delegate) return;  // released or never given: the event goes nowhere
    if (!executor_) return deliverEvent(std::move(delegate), chat, std::move(event));
    // An executor that runs events later than they come (a busy UI thread) holds them in the
    // chatroom's backlog, beside those its socket has not delivered yet: past the bound the
    // socket stops reading. Counted off once the call has run, thrown, or been dropped unrun.
    auto backlog = sessionOf(chat)->readBacklog();
    backlog->add(1);
    std::shared_ptr<void> done(nullptr, [backlog](void*) { backlog->remove(1); });
    deliver([delegate = std::move(delegate), chat, done = std::move(done),
             event = std::move(event)] { tavlo::deliver(*delegate, chat, event); });
}

void TVKChatManager::reportRefusal(const Failure& failure, const std::optional<TVKError>& refusal) {
    if (!refusal || !failure) return;
    TAVLO_LOG(info, "manager", "operation refused: ", refusal->describe());
    try {
        failure(*refusal);
    } catch (...) {
    }
}

// --- Connecting --------------------------------------------------------------------------------

void TVKChatManager::connectToChatroom(const std::optional<std::string>& chatroomName,
                                       const std::optional<std::string>& JWT, std::uint64_t options,
                                       const std::shared_ptr<TVKChatEventDelegate>& eventDelegate) {
    const bool isPersonalChat = (options & TVKChatroomOptionPersonalChat) != 0;
    connectToChatroom(chatroomName, JWT, isPersonalChat, true, eventDelegate);
}

void TVKChatManager::connectToChatroom(const std::optional<std::string>& chatroomName,
                                       const std::optional<std::string>& JWT, bool isPersonalChat,
                                       bool /*tryToCreate*/,
                                       const std::shared_ptr<TVKChatEventDelegate>& eventDelegate) {
    // tryToCreate goes nowhere on purpose: the chatroom itself decides whether a missing
    // chatroom may be created (a personal one, by a member).
    if (!chatroomName || !JWT) return;
    const std::string channel =
        isPersonalChat ? addPersonalChatPrefix(*chatroomName) : *chatroomName;
    queue_->sync([&] { connectChannel(channel, *JWT, eventDelegate); });
}

void TVKChatManager::connectChannel(const std::string& channel, const std::string& JWT,
                                    const std::shared_ptr<TVKChatEventDelegate>& eventDelegate) {
    TAVLO_ASSERT_ON_QUEUE(queue_);
    TAVLO_LOG(info, "manager", channel, ": connecting");
    setUpInternalDataForChannel(channel, JWT, accountId().value_or(""), eventDelegate);
    auto found = chats_.find(channel);
    if (found == chats_.end()) return;  // set-up failed and has been reported
    auto chat = found->second;
    std::weak_ptr<TVKChatManager> weak = weak_from_this();
    std::weak_ptr<TVKChat> weakChat = chat;
    sessionOf(chat)->connectChatWithEventDelegate(
        reportSink(), [weak, weakChat](const TVKError& error) {
            auto self = weak.lock();
            auto chat = weakChat.lock();
            if (!self || !chat) return;
            if (isTheErrorNeededRetry(error)) {
                self->connectionLost(chat, error);
                return;
            }
            // The service answers "unauthorized" for a chatroom the member may not see; to the
            // application that is a chatroom that does not exist.
            self->reportFailToConnect(chat, isTVKHTTPUnauthorizedError(error)
                                                ? TVKMSGChatroomNotFoundError()
                                                : TVKMSGError(error));
        });
}

void TVKChatManager::reportFailToConnect(const std::shared_ptr<TVKChat>& chat,
                                         const TVKError& error) {
    TAVLO_ASSERT_ON_QUEUE(queue_);
    TAVLO_LOG(warning, "manager", chat->originalChatroomName(),
              ": could not connect: ", error.describe());
    auto delegate = delegateForChannel(chat->originalChatroomName());
    if (!delegate) return;
    deliverEvent(std::move(delegate), chat, chat_event::FailToConnect{error});
}

void TVKChatManager::setUpInternalDataForChannel(
    const std::string& channel, const std::string& JWT, const std::string& vendorAccountId,
    const std::shared_ptr<TVKChatEventDelegate>& eventDelegate) {
    TAVLO_ASSERT_ON_QUEUE(queue_);
    if (eventDelegate) eventDelegates_[channel] = eventDelegate;
    if (!chats_.count(channel)) {
        const auto current = settings();
        TVKChatEnvironment environment;
        environment.queue = queue_;
        environment.scheduler = time_.scheduler;
        environment.socketConnectTimeout = current.socketConnectTimeout;
        environment.requestTimeout = current.requestTimeout;
        environment.caFile = current.caFile;
        std::weak_ptr<TVKChatManager> weak = weak_from_this();
        environment.beforeSocketOpens = [weak](const std::shared_ptr<TVKChatSession>& chat,
                                               std::function<void()> open) {
            auto self = weak.lock();
            if (!self) return;
            self->missedMessages_->beforeSocketOpens(chat, std::move(open));
        };
        environment.proxy = current.proxy;
        auto chat = TVKChatSession::chatForChannel(channel, vendorAccountId, JWT,
                                                   current.HTTPHostURL, std::move(environment));
        if (!chat || !chat->currentUser()) {
            TAVLO_LOG(error, "manager", channel,
                      ": cannot be set up: ", TVKMSGInternalError().describe());
            if (eventDelegate) {
                deliverEvent(eventDelegate, chat, chat_event::Error{TVKMSGInternalError()});
            }
            return;
        }
        chats_[channel] = chat;
    }
    inputAvailableDates_.try_emplace(channel, now());
    retryAttemptCounts_.try_emplace(channel, 0);
}

void TVKChatManager::cleanUpInternalDataForChannel(const std::string& channel) {
    TAVLO_ASSERT_ON_QUEUE(queue_);
    // Whatever is still held fails unless the caller failed it with a better reason already.
    failHeldSends(channel, TVKMSGNotConnectedError());
    chats_.erase(channel);
    eventDelegates_.erase(channel);
    inputAvailableDates_.erase(channel);
    retryAttemptCounts_.erase(channel);
    reconnectingChannels_.erase(channel);
    socketOnlyAttempts_.erase(channel);
    missedMessages_->forget(channel);
}

bool TVKChatManager::isRegistered(const std::shared_ptr<TVKChat>& chat) const {
    TAVLO_ASSERT_ON_QUEUE(queue_);
    auto found = chats_.find(chat->originalChatroomName());
    return found != chats_.end() && found->second == chat;
}

std::shared_ptr<TVKChatEventDelegate> TVKChatManager::delegateForChannel(
    const std::string& channel) const {
    TAVLO_ASSERT_ON_QUEUE(queue_);
    auto found = eventDelegates_.find(channel);
    return found == eventDelegates_.end() ? nullptr : found->second.lock();
}

// --- Disconnecting -----------------------------------------------------------------------------

void TVKChatManager::disconnectFromChatroom(const std::shared_ptr<TVKChat>& chatroom) {
    if (!chatroom) return;
    queue_->sync([&] {
        const auto channel = chatroom->originalChatroomName();
        if (!connectedChannels_.count(channel)) return;
        auto found = chats_.find(channel);
        if (found == chats_.end()) return;
        // The registered chatroom, not necessarily the object the application passed.
        auto chat = found->second;
        sessionOf(chat)->setForceClearCachedUser(true);
        if (reconnectingChannels_.count(channel)) return disconnectReconnectingChat(chat);
        disconnectChat(chat);
    });
}

void TVKChatManager::disconnectReconnectingChat(const std::shared_ptr<TVKChat>& chat) {
    TAVLO_ASSERT_ON_QUEUE(queue_);
    // Deliberately not the usual farewell: its socket is not up, so the chatroom would refuse to
    // close it and the application would wait for chatroomDisconnected for good, while the
    // scheduled reconnection connected it again. The farewell is sent if the user is still
    // joined (a courtesy; its outcome changes nothing), the attempt under way is abandoned and
    // the disconnection reported at once.
    TAVLO_LOG(info, "manager", chat->originalChatroomName(),
              ": disconnected while reconnecting; the reconnection stops");
    reconnectingChannels_.erase(chat->originalChatroomName());
    if (auto user = chat->currentUser(); user && user->isBoundWithChat()) {
        user->leaveChat([] {}, [](const TVKError&) {});
    }
    sessionOf(chat)->closeWithoutFarewell();
    chatDisconnected(chat);
}

void TVKChatManager::disconnectChat(const std::shared_ptr<TVKChat>& chat) {
    TAVLO_ASSERT_ON_QUEUE(queue_);
    std::weak_ptr<TVKChatManager> weak = weak_from_this();
    std::weak_ptr<TVKChat> weakChat = chat;
    sessionOf(chat)->disconnectChatWithFailure([weak, weakChat](const TVKError& error) {
        auto self = weak.lock();
        auto chat = weakChat.lock();
        if (!self || !chat) return;
        if (isTheErrorNeededRetry(error)) {
            self->failToSendFarewell(chat, error);
        } else {
            sessionOf(chat)->disconnect();  // the farewell is given up; close locally
        }
    });
}

// --- Retries -----------------------------------------------------------------------------------

std::chrono::nanoseconds TVKChatManager::retryDelayForAttempt(unsigned attemptCount) {
    return retryPause(attemptCount, std::nullopt);
}

bool TVKChatManager::retry(dispatch::Task task, unsigned attemptCount, unsigned attemptLimit,
                           std::optional<std::chrono::seconds> askedByService) {
    TAVLO_ASSERT_ON_QUEUE(queue_);
    if (attemptCount >= attemptLimit) return false;
    auto scheduler = time_.scheduler;
    if (!scheduler) scheduler = dispatch::Scheduler::system();
    // Retries run on the manager's queue, like everything else that touches the registries.
    scheduler->after(retryPause(attemptCount, askedByService), queue_, std::move(task));
    return true;
}

unsigned TVKChatManager::retryAttemptCountForChannel(const std::string& channel) const {
    TAVLO_ASSERT_ON_QUEUE(queue_);
    auto found = retryAttemptCounts_.find(channel);
    return found == retryAttemptCounts_.end() ? 0 : found->second;
}

void TVKChatManager::connectionLost(const std::shared_ptr<TVKChat>& chat, const TVKError& error) {
    TAVLO_ASSERT_ON_QUEUE(queue_);
    const auto channel = chat->originalChatroomName();
    auto found = chats_.find(channel);
    // A chatroom already forgotten (given up, disconnected) has nothing left to reconnect, and a
    // counter written for it would outlive the chatroom.
    if (found == chats_.end()) return;
    std::weak_ptr<TVKChatManager> weak = weak_from_this();
    std::weak_ptr<TVKChat> target = found->second;
    const unsigned attempts = retryAttemptCountForChannel(channel);
    const bool scheduled = retry(
        [weak, target] {
            auto self = weak.lock();
            auto chat = target.lock();
            if (self && chat) self->reconnectChat(chat);
        },
        attempts, TVKReconnectAttemptLimit, error.retryAfter);
    if (scheduled) {
        const auto pause = retryPause(attempts, error.retryAfter);
        TAVLO_LOG(warning, "manager", channel, ": connection lost (", error.describe(),
                  "), reconnect attempt ", attempts + 1, " of ", TVKReconnectAttemptLimit, " in ",
                  pause.count() / 1000000, " ms");
        retryAttemptCounts_[channel] = attempts + 1;
        reconnectingChannels_.insert(channel);
        reportReconnecting(chat, attempts, pause);
    } else {
        handleReconnectingError(error, chat);
    }
}

void TVKChatManager::reconnectChat(const std::shared_ptr<TVKChat>& chat) {
    TAVLO_ASSERT_ON_QUEUE(queue_);
    // A retry that comes due after the chatroom was forgotten or replaced reconnects nothing.
    auto found = chats_.find(chat->originalChatroomName());
    if (found == chats_.end() || found->second != chat) return;
    std::weak_ptr<TVKChatManager> weak = weak_from_this();
    const auto channel = chat->originalChatroomName();
    if (sessionOf(chat)->hasGotSocketConfig()) {
        // Reopening the socket reports its failures as socket errors (see `error`).
        socketOnlyAttempts_.insert(channel);
        sessionOf(chat)->reconnectWithEventDelegate(reportSink());
        return;
    }
    socketOnlyAttempts_.erase(channel);
    std::weak_ptr<TVKChat> weakChat = chat;
    sessionOf(chat)->reconnectChatWithEventDelegate(
        reportSink(), [weak, weakChat](const TVKError& error) {
            auto self = weak.lock();
            auto chat = weakChat.lock();
            if (!self || !chat) return;
            if (isTheErrorNeededRetry(error)) {
                self->connectionLost(chat, error);
            } else {
                self->handleReconnectingError(error, chat);
            }
        });
}

void TVKChatManager::failToSendFarewell(const std::shared_ptr<TVKChat>& chat,
                                        const TVKError& error) {
    TAVLO_ASSERT_ON_QUEUE(queue_);
    const auto channel = chat->originalChatroomName();
    std::weak_ptr<TVKChatManager> weak = weak_from_this();
    std::weak_ptr<TVKChat> weakChat = chat;
    const unsigned attempts = retryAttemptCountForChannel(channel);
    const bool scheduled = retry(
        [weak, weakChat] {
            auto self = weak.lock();
            auto chat = weakChat.lock();
            if (!self || !chat) return;
            auto found = self->chats_.find(chat->originalChatroomName());
            if (found != self->chats_.end() && found->second == chat) self->disconnectChat(chat);
        },
        attempts, TVKResendFarewellAttemptLimit, error.retryAfter);
    if (scheduled) {
        TAVLO_LOG(info, "manager", channel, ": farewell failed, attempt ", attempts + 1, " of ",
                  TVKResendFarewellAttemptLimit, " in ",
                  retryPause(attempts, error.retryAfter).count() / 1000000, " ms");
        if (chats_.count(channel)) retryAttemptCounts_[channel] = attempts + 1;
    } else {
        sessionOf(chat)->disconnect();
    }
}

void TVKChatManager::handleReconnectingError(const TVKError& error,
                                             const std::shared_ptr<TVKChat>& chat) {
    TAVLO_ASSERT_ON_QUEUE(queue_);
    const auto channel = chat->originalChatroomName();
    const bool hadConnected = connectedChannels_.count(channel) > 0;
    TAVLO_LOG(error, "manager", channel, ": given up: ", TVKMSGError(error).describe());
    failHeldSends(channel, error);
    auto delegate = delegateForChannel(channel);
    // The name stays in the connected set on purpose; without a chatroom object the manager
    // answers "not connected" all the same, and a later connection simply adds it again.
    // The chatroom is forgotten before the application hears of it, so that a new connection
    // made from inside the callback starts afresh instead of being swept away afterwards.
    cleanUpInternalDataForChannel(channel);
    if (!delegate) return;
    if (hadConnected)
        return deliverEvent(std::move(delegate), chat, chat_event::Error{TVKMSGError(error)});
    deliverEvent(std::move(delegate), chat, chat_event::FailToConnect{TVKMSGError(error)});
}

// --- Queries of the registries -----------------------------------------------------------------

bool TVKChatManager::isConnectedOnQueue(const std::shared_ptr<TVKChat>& chat) const {
    TAVLO_ASSERT_ON_QUEUE(queue_);
    if (!chat) return false;
    const auto channel = chat->originalChatroomName();
    // While a lost connection is being re-established the chatroom is not connected, whatever
    // it was before: its subscription has to be confirmed again first.
    return connectedChannels_.count(channel) && chats_.count(channel) &&
           !reconnectingChannels_.count(channel);
}

bool TVKChatManager::isChatroomConnected(const std::shared_ptr<TVKChat>& chatroom) const {
    bool connected = false;
    queue_->sync([&] { connected = isConnectedOnQueue(chatroom); });
    return connected;
}

std::shared_ptr<TVKChat> TVKChatManager::chatForChatroomName(const std::string& chatroomName,
                                                             bool isPersonalChat) const {
    const auto channel = isPersonalChat ? addPersonalChatPrefix(chatroomName) : chatroomName;
    std::shared_ptr<TVKChat> chat;
    queue_->sync([&] {
        auto found = chats_.find(channel);
        if (found != chats_.end()) chat = found->second;
    });
    return chat;
}

std::shared_ptr<TVKChatUser> TVKChatManager::currentUserForChatroom(
    const std::shared_ptr<TVKChat>& chatroom) const {
    if (!chatroom) return nullptr;
    std::shared_ptr<TVKChatUser> user;
    queue_->sync([&] { user = chatroom->currentUser(); });
    return user;
}

double TVKChatManager::cooldownForChatroom(const std::shared_ptr<TVKChat>& chatroom) const {
    if (!chatroom) return 0;
    double cooldown = 0;
    queue_->sync([&] {
        auto found = inputAvailableDates_.find(chatroom->originalChatroomName());
        if (found == inputAvailableDates_.end()) return;
        const std::chrono::duration<double> remaining = found->second - now();
        cooldown = std::max(0.0, remaining.count());
    });
    return cooldown;
}

void TVKChatManager::setEventDelegate(const std::shared_ptr<TVKChatEventDelegate>& eventDelegate,
                                      const std::shared_ptr<TVKChat>& chatroom) {
    if (!chatroom) return;
    queue_->sync([&] {
        const auto channel = chatroom->originalChatroomName();
        if (!chats_.count(channel)) return;
        if (eventDelegate) {
            eventDelegates_[channel] = eventDelegate;
        } else {
            eventDelegates_.erase(channel);
        }
    });
}

}  // namespace tavlo
