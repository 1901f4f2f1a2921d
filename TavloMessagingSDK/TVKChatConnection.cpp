// The connection sequence of a chatroom: profile (creating a personal chatroom first when it is
// missing), join, socket, subscription; reconnection and disconnection.
#include <cmath>

#include "Dispatch/Internal/QueueConfinement.hpp"
#include "SocketIO/WebSocketTransport.hpp"
#include "TavloMessagingSDK/DQChatProfile.hpp"
#include "TavloMessagingSDK/Internal/TVKChatInternal.hpp"
#include "TavloMessagingSDK/Internal/TVKChatSession.hpp"
#include "TavloMessagingSDK/Internal/TVKMessagingError.hpp"
#include "TavloMessagingSDK/Internal/TVKMessagingHTTPClient.hpp"
#include "TavloMessagingSDK/Internal/TVKMessagingSocketClient.hpp"
#include "TavloMessagingSDK/Internal/TVKMessagingSocketConfig.hpp"
#include "TavloMessagingSDK/TVKAggregatedData.hpp"
#include "TavloMessagingSDK/TVKChatMessage.hpp"
#include "TavloMessagingSDK/TVKChatUser.hpp"
#include "TavloMessagingSDK/TVKMSGError.hpp"

namespace tavlo {

namespace json = boost::json;
using chat_internal::recordOf;
using chat_internal::report;
using chat_internal::tell;

namespace {

constexpr const char* kConnectAttemptDenied = "Connect attempt denied";
constexpr const char* kDisconnectAttemptDenied = "Disconnect attempt denied";

/// The socket client gives a connection attempt a fixed time and times it on the scheduler it is
/// handed. A chatroom configured for another limit hands it this one, which stretches every delay
/// by the ratio of the two limits.
class RescalingScheduler final : public dispatch::Scheduler {
  public:
    RescalingScheduler(std::shared_ptr<dispatch::Scheduler> base, double ratio)
        : base_(std::move(base)), ratio_(ratio) {}

    std::shared_ptr<dispatch::ScheduledTask> after(dispatch::Duration delay,
                                                   std::shared_ptr<dispatch::Queue> queue,
                                                   dispatch::Task task) override {
        auto scaled = dispatch::Duration(
            static_cast<dispatch::Duration::rep>(std::llround(delay.count() * ratio_)));
        return base_->after(scaled, std::move(queue), std::move(task));
    }

  private:
    const std::shared_ptr<dispatch::Scheduler> base_;
    const double ratio_;
};

std::shared_ptr<dispatch::Scheduler> connectTimeoutScheduler(const TVKChatEnvironment& env) {
    const auto standard = TVKMessagingSocketClient::kConnectTimeout;
    if (env.socketConnectTimeout == standard || env.socketConnectTimeout.count() <= 0) {
        return env.scheduler;
    }
    auto base = env.scheduler ? env.scheduler : dispatch::Scheduler::system();
    return std::make_shared<RescalingScheduler>(
        std::move(base), static_cast<double>(env.socketConnectTimeout.count()) /
                             static_cast<double>(standard.count()));
}

}  // namespace

const std::shared_ptr<TVKMessagingSocketClient>& TVKChatSession::socketClient() {
    if (!socketClient_ && socketConfig_) {
        socketClient_ = std::make_shared<TVKMessagingSocketClient>(
            *socketConfig_, TVKMessagingSocketClient::Environment{
                                environment_.queue, connectTimeoutScheduler(environment_),
                                environment_.caFile, environment_.proxy, readBacklog_});
    }
    return socketClient_;
}

// --- Connecting --------------------------------------------------------------------------------

void TVKChatSession::connectChatWithEventDelegate(EventDelegate delegate, Failure failure) {
    TAVLO_ASSERT_ON_QUEUE(environment_.queue);
    std::weak_ptr<TVKChatSession> weakSelf = weakSession();
    ProfileSuccess joinAndConnect = [weakSelf, delegate, failure](const std::string&) {
        if (auto self = weakSelf.lock()) {
            self->currentUserJoinChatAndConnectWithUserToken(delegate, failure);
        }
    };
    NotFoundHandler notFound = [weakSelf, joinAndConnect, failure] {
        auto self = weakSelf.lock();
        if (!self) return;
        if (!self->shouldTryToCreateChat()) return report(failure, TVKMSGChatroomNotFoundError());
        auto created = [weakSelf, joinAndConnect, failure] {
            auto self = weakSelf.lock();
            if (!self) return;
            // Missing right after it was made: the service is at fault, not the name.
            auto stillMissing = [failure] { report(failure, TVKMSGServerSideError()); };
            self->loadProfile(joinAndConnect, stillMissing, failure);
        };
        self->createPersonalChatSuccess(created, failure);
    };
    loadProfile(joinAndConnect, notFound, failure);
}

bool TVKChatSession::shouldTryToCreateChat() const {
    return isPersonalChat() && !JWT_.empty();
}

void TVKChatSession::createPersonalChatSuccess(Success success, Failure failure) {
    if (JWT_.empty()) return report(failure, TVKMemberTokenRequiredError());
    // Only the creation acts as the member; the chatroom's other requests carry no JWT.
    HTTPClient()->setAuthorizationToken(JWT_);
    std::weak_ptr<TVKChatSession> weakSelf = weakSession();
    auto created = [weakSelf, success, failure](const json::value&, const json::value&,
                                                const json::value&) {
        auto self = weakSelf.lock();
        if (!self) return;
        self->HTTPClient()->setAuthorizationToken(std::nullopt);
        // This load confirms the creation; the caller loads once more to go on with the join.
        auto loaded = [success](const std::string&) {
            if (success) success();
        };
        auto missing = [failure] { report(failure, TVKEmptyChatProfileError()); };
        self->loadProfile(loaded, missing, failure);
    };
    // Every way the creation can end without success drops the JWT again.
    auto failed = [weakSelf, failure](const TVKError& error) {
        if (auto self = weakSelf.lock()) self->HTTPClient()->setAuthorizationToken(std::nullopt);
        report(failure, error);
    };
    auto request = [channel = chatroomName(), vendor = vendorAccountId_, created](
                       TVKMessagingHTTPClient& client, Failure failure) {
        client.createChatForChannel(channel, vendor, true, created, failure);
    };
    sendRepairingOnce(request, failed);
}

void TVKChatSession::loadProfile(ProfileSuccess success, NotFoundHandler notFound,
                                 Failure ohterFailure) {
    if (chatroomName().empty()) return report(ohterFailure, TVKChannelCodeLengthError());
    std::weak_ptr<TVKChatSession> weakSelf = weakSession();
    auto loaded = [weakSelf, success, ohterFailure,
                   before = eventChanges_](const json::object& response) {
        auto self = weakSelf.lock();
        if (!self) return;
        if (auto error = self->applyProfileResponse(response, before)) {
            return report(ohterFailure, *error);
        }
        if (success) success(self->chatId());
    };
    auto failed = [notFound, ohterFailure](const TVKError& error) {
        if (!isTVKHTTPEntityNotFoundError(error)) return report(ohterFailure, error);
        if (notFound) notFound();
    };
    // Stickers rarely change: they are asked for only while none are held.
    auto request = [channel = originalChatroomName(), vendor = vendorAccountId_,
                    returnSticker = !hasGotStickers(),
                    loaded](TVKMessagingHTTPClient& client, Failure failure) {
        client.getChatProfileForChannel(channel, vendor, returnSticker, loaded, failure);
    };
    sendRepairingOnce(request, failed);
}

std::optional<TVKError> TVKChatSession::applyProfileResponse(const json::object& response,
                                                             const EventChanges& before) {
    TAVLO_ASSERT_ON_QUEUE(environment_.queue);
    auto profile = recordOf<DQChatProfile>(response);
    const auto* stickerJSON = response.if_contains("sticker");
    auto stickers = stickerJSON ? DQDataObject::objectsWithArrayOfJSON<TVKChatSticker>(*stickerJSON)
                                : std::nullopt;
    const auto* pinnedJSON = json_read::object(response, "pinnedMsg");
    const bool hasPinned = pinnedJSON && !pinnedJSON->empty();
    auto pinned = hasPinned ? recordOf<TVKChatMessage>(*pinnedJSON) : nullptr;
    const auto* aggregatedJSON = response.if_contains("aggregated");
    auto aggregated = aggregatedJSON
                          ? DQDataObject::objectsWithArrayOfJSON<TVKAggregatedItem>(*aggregatedJSON)
                          : std::nullopt;
    auto arcURL = json_read::string(response, "arcMsgURL");

    if (!arcURL) return TVKHTTPDataMissingError();
    if (!profile || (stickerJSON && !stickers) || (aggregatedJSON && !aggregated) ||
        (hasPinned && !pinned)) {
        return TVKDataMappingErrorWithData(json::value(response));
    }
    keepNewerEventValues(*profile, before);
    if (eventChanges_.pinnedMessage != before.pinnedMessage) pinned = pinnedMessage_;
    if (eventChanges_.aggregated != before.aggregated) aggregated = cachedAggregatedItems_;
    // A load without stickers (they were held) leaves none, so the next load asks again.
    stickers_ = std::move(stickers);
    pinnedMessage_ = std::move(pinned);
    profile_ = std::move(profile);
    const auto* chatIdJSON = response.if_contains("id");
    profileChatIdValue_ = chatIdJSON ? *chatIdJSON : json::value();
    if (eventChanges_.counts == before.counts) {
        userCount_ = chat_internal::wrappingSum(profile_->memberCount().value_or(0),
                                                profile_->guestCount().value_or(0));
    }
    if (reconnecting_) updateDiffAggregatedItemsIfNeeded(aggregated);
    cachedAggregatedItems_ = std::move(aggregated);
    arcHTTPHostURL_ = std::move(arcURL);
    if (status_ == TVKChatStatusNone) setStatus(TVKChatStatusReady, "profile loaded");
    return std::nullopt;
}

void TVKChatSession::keepNewerEventValues(DQChatProfile& profile,
                                          const EventChanges& before) const {
    if (!profile_) return;
    if (eventChanges_.writeMode != before.writeMode) {
        profile.setChatWriteMode(profile_->chatWriteMode());
    }
    if (eventChanges_.inputInterval != before.inputInterval) {
        profile.setInputInterval(profile_->inputInterval());
    }
    if (eventChanges_.counts != before.counts) {
        profile.setMemberCount(profile_->memberCount());
        profile.setGuestCount(profile_->guestCount());
    }
}

void TVKChatSession::currentUserJoinChatAndConnectWithUserToken(EventDelegate delegate,
                                                                Failure failure) {
    if (closed_) return;  // nobody waits for this attempt any more: no new membership
    std::weak_ptr<TVKChatSession> weakSelf = weakSession();
    auto joined = [weakSelf, delegate](const std::string& userToken,
                                       std::shared_ptr<TVKMessagingSocketConfig> socketConfig) {
        if (auto self = weakSelf.lock()) {
            self->connectWithUserToken(userToken, std::move(socketConfig), delegate);
        }
    };
    currentUser_->joinChat(chatId(), joined, failure);
}

void TVKChatSession::connectWithUserToken(const std::string& userToken,
                                          std::shared_ptr<TVKMessagingSocketConfig> socketConfig,
                                          EventDelegate delegate) {
    TAVLO_ASSERT_ON_QUEUE(environment_.queue);
    if (closed_) return;
    socketConfig_ = std::move(socketConfig);
    const auto& socket = socketClient();
    if (!socket) return;
    if (status_ != TVKChatStatusReady) return socket->triggerErrorWithReason(kConnectAttemptDenied);
    setStatus(TVKChatStatusConnecting, "joined, opening the realtime channel");
    if (!environment_.beforeSocketOpens) return registerConnectionHandlers(userToken, delegate);
    std::weak_ptr<TVKChatSession> weakSelf = weakSession();
    const auto attempt = ++socketOpeningAttempt_;
    environment_.beforeSocketOpens(session(), [weakSelf, attempt, userToken, delegate] {
        auto self = weakSelf.lock();
        // Closed, or another attempt started meanwhile: this one has nobody waiting for it.
        if (!self || self->closed_ || self->socketOpeningAttempt_ != attempt ||
            self->status_ != TVKChatStatusConnecting) {
            return;
        }
        self->registerConnectionHandlers(userToken, delegate);
    });
}

void TVKChatSession::registerConnectionHandlers(const std::string& userToken,
                                                const EventDelegate& delegate) {
    std::weak_ptr<TVKChatSession> weakSelf = weakSession();
    auto onError = errorHandler(weakSelf, delegate);
    // A connection that fails at its proxy says so in an "error" before its "disconnect"; the
    // loss it causes is then reported as the connectivity failure it is.
    auto proxyFailure = std::make_shared<std::optional<std::string>>();
    auto onLost = [onError, proxyFailure](const TVKError& error) {
        auto lost = error;
        if (*proxyFailure && isTVKSocketConnectionLostError(lost)) {
            lost.underlyingError =
                std::make_shared<const TVKError>(TVKSocketProxyFailureError(**proxyFailure));
        }
        proxyFailure->reset();
        onError(lost);
    };
    auto& socket = *socketClient_;
    socket.onConnect([weakSelf, delegate, userToken] {
        auto self = weakSelf.lock();
        if (!self) return;
        self->listenCustomSocketEventsWithDelegate(delegate);
        self->socketClient_->subscribeWithUserToken(userToken, self->chatId());
        self->awaitSubscription(delegate);
    });
    socket.onDisconnect([weakSelf, delegate, onLost] {
        if (auto self = weakSelf.lock()) self->socketDisconnected(delegate, onLost);
    });
    socket.onError([weakSelf, delegate, onError, proxyFailure](const TVKError& error) {
        auto self = weakSelf.lock();
        if (!self) return;
        if (error.reason && sio::isProxyFailure(*error.reason)) *proxyFailure = *error.reason;
        if (!self->isAwaitingSubscription()) return onError(error);
        // The service answers a subscription it will not take with "error" (after a restart it
        // knows neither the user token nor the chat id): the attempt has failed.
        auto refused = TVKSocketConnectionLostError();
        refused.reason = error.reason;
        self->subscriptionFailed(delegate, refused);
    });
    socket.connectWithTimeoutHandler([weakSelf, onError] {
        if (auto self = weakSelf.lock()) self->socketTimedOut(onError);
    });
}

TVKChatSession::ErrorHandler TVKChatSession::errorHandler(std::weak_ptr<TVKChatSession> weakSelf,
                                                          EventDelegate delegate) {
    return [weakSelf = std::move(weakSelf), delegate = std::move(delegate)](const TVKError& error) {
        auto self = weakSelf.lock();
        if (!self) return;
        tell(delegate, self, chat_report::SocketError{error});
    };
}

void TVKChatSession::awaitSubscription(const EventDelegate& delegate) {
    // Deliberately bounded, like opening the socket: a subscription the service never confirms
    // would otherwise leave the chatroom waiting for good.
    const auto limit = environment_.socketConnectTimeout.count() > 0
                           ? environment_.socketConnectTimeout
                           : TVKMessagingSocketClient::kConnectTimeout;
    auto scheduler =
        environment_.scheduler ? environment_.scheduler : dispatch::Scheduler::system();
    const auto attempt = ++subscriptionAttempt_;
    std::weak_ptr<TVKChatSession> weakSelf = weakSession();
    subscriptionDeadline_ =
        scheduler->after(limit, environment_.queue, [weakSelf, delegate, attempt] {
            auto self = weakSelf.lock();
            if (!self || self->subscriptionAttempt_ != attempt) return;
            self->subscriptionFailed(delegate, TVKSocketConnectionTimeoutError());
        });
}

bool TVKChatSession::isAwaitingSubscription() const {
    return subscriptionDeadline_ != nullptr;
}

void TVKChatSession::stopAwaitingSubscription() {
    ++subscriptionAttempt_;  // a deadline already queued finds itself outdated
    if (subscriptionDeadline_) subscriptionDeadline_->cancel();
    subscriptionDeadline_.reset();
}

void TVKChatSession::subscriptionFailed(const EventDelegate& delegate, const TVKError& error) {
    TAVLO_ASSERT_ON_QUEUE(environment_.queue);
    if (!isAwaitingSubscription()) return;
    stopAwaitingSubscription();
    abandonSocket();
    setStatus(TVKChatStatusReady,
              error.reason ? "subscription refused" : "subscription not confirmed");
    tell(delegate, shared_from_this(), chat_report::SocketError{error});
}

void TVKChatSession::abandonSocket() {
    // A socket whose subscription failed is of no further use: the service has forgotten the user
    // token it carries (a restart does that). The configuration goes with it, so the next
    // attempt takes the full path and joins afresh, and a new socket is made for the new
    // configuration. The old one is let go in a task of its own, never inside its own handler.
    auto socket = std::move(socketClient_);
    socketConfig_.reset();
    if (!socket) return;
    socket->ignoreAllEvents();
    socket->disconnect();
    if (environment_.queue) environment_.queue->async([socket = std::move(socket)] {});
}

void TVKChatSession::socketDisconnected(const EventDelegate& delegate,
                                        const ErrorHandler& onError) {
    TAVLO_ASSERT_ON_QUEUE(environment_.queue);
    stopAwaitingSubscription();
    userCache_.clearUserListCachedIfNeeded(userCount());
    socketClient_->ignoreAllEvents();
    const bool asked = status_ == TVKChatStatusDisconnecting;
    setStatus(TVKChatStatusReady, asked ? "disconnected as asked" : "realtime channel lost");
    if (!asked) return onError(TVKSocketConnectionLostError());
    tell(delegate, shared_from_this(), chat_event::Disconnected{});
}

void TVKChatSession::socketTimedOut(const ErrorHandler& onError) {
    TAVLO_ASSERT_ON_QUEUE(environment_.queue);
    // An abandoned attempt ends without "disconnect". Deliberately, the chatroom is made ready
    // again here and its handlers dropped, so that the reconnection that follows is accepted
    // instead of being denied as a connect while connecting.
    if (status_ == TVKChatStatusConnecting) {
        setStatus(TVKChatStatusReady, "realtime channel timed out");
        socketClient_->ignoreAllEvents();
    }
    onError(TVKSocketConnectionTimeoutError());
}

// --- Reconnecting and disconnecting ------------------------------------------------------------

void TVKChatSession::reconnectChatWithEventDelegate(EventDelegate delegate, Failure failure) {
    TAVLO_ASSERT_ON_QUEUE(environment_.queue);
    // Set until subscribed again: the counters missed meanwhile are then reported.
    reconnecting_ = true;
    std::weak_ptr<TVKChatSession> weakSelf = weakSession();
    auto connectAgain = [weakSelf, delegate, failure] {
        if (auto self = weakSelf.lock()) self->connectChatWithEventDelegate(delegate, failure);
    };
    // Deliberately, only a joined user says goodbye, and a farewell the service refuses does not
    // end the reconnection: a user who never joined has nobody to take leave of, and a service
    // that restarted has forgotten the user anyway. The join that follows binds the user afresh.
    // A farewell that could not be delivered is a failure to retry like any other.
    if (!currentUser_->isBoundWithChat()) return connectAgain();
    auto refused = [weakSelf, connectAgain, failure](const TVKError& error) {
        if (isTheErrorNeededRetry(error)) return report(failure, error);
        auto self = weakSelf.lock();
        if (!self) return;
        self->currentUser_->updateChatId(std::nullopt, std::nullopt, std::nullopt, std::nullopt);
        connectAgain();
    };
    currentUser_->leaveChat(connectAgain, refused);
}

void TVKChatSession::reconnectWithEventDelegate(EventDelegate delegate) {
    connectWithUserToken(currentUser_->userToken().value_or(""), socketConfig_, delegate);
}

void TVKChatSession::disconnectChatWithFailure(Failure failure) {
    TAVLO_ASSERT_ON_QUEUE(environment_.queue);
    std::weak_ptr<TVKChatSession> weakSelf = weakSession();
    auto left = [weakSelf] {
        if (auto self = weakSelf.lock()) self->disconnect();
    };
    currentUser_->leaveChat(left, failure);
}

void TVKChatSession::closeWithoutFarewell() {
    TAVLO_ASSERT_ON_QUEUE(environment_.queue);
    closed_ = true;
    stopAwaitingSubscription();
    abandonSocket();
    if (status_ != TVKChatStatusNone) setStatus(TVKChatStatusReady, "closed without farewell");
}

void TVKChatSession::disconnect() {
    TAVLO_ASSERT_ON_QUEUE(environment_.queue);
    const auto& socket = socketClient();
    if (!socket) return;
    if (status_ != TVKChatStatusConnected) {
        return socket->triggerErrorWithReason(kDisconnectAttemptDenied);
    }
    setStatus(TVKChatStatusDisconnecting, "leaving");
    socket->disconnect();
}

}  // namespace tavlo
