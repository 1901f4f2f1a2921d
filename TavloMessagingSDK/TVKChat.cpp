// A chatroom's fields, its creation and the queries it answers itself.
#include "TavloMessagingSDK/Internal/TVKChatSession.hpp"

#include <iterator>

#include "Dispatch/Internal/QueueConfinement.hpp"
#include "TavloCoreSDK/Internal/TVKLogLine.hpp"
#include "TavloMessagingSDK/DQChatProfile.hpp"
#include "TavloMessagingSDK/Internal/TVKChatInternal.hpp"
#include "TavloMessagingSDK/Internal/TVKMessagingError.hpp"
#include "TavloMessagingSDK/Internal/TVKMessagingHTTPClient.hpp"
#include "TavloMessagingSDK/Internal/TVKMessagingSocketClient.hpp"
#include "TavloMessagingSDK/Internal/TVKMessagingSocketConfig.hpp"
#include "TavloMessagingSDK/TVKAggregatedData.hpp"
#include "TavloMessagingSDK/TVKChatMessage.hpp"
#include "TavloMessagingSDK/TVKChatMetadata.hpp"
#include "TavloMessagingSDK/TVKChatUser.hpp"
#include "TavloMessagingSDK/TVKMSGUtility.hpp"

namespace tavlo {

namespace json = boost::json;
using chat_internal::recordOf;
using chat_internal::recordsOf;
using chat_internal::report;

namespace {

/// What the manager set for every REST client of its chatrooms.
void configureHTTP(net::HTTPSessionManager& HTTPManager, const TVKChatEnvironment& environment) {
    HTTPManager.setTimeout(environment.requestTimeout);
    HTTPManager.setProxy(environment.proxy);
}

/// A chatroom must have a serial queue: its state has no lock of its own.
TVKChatEnvironment withQueue(TVKChatEnvironment environment) {
    if (!environment.queue) {
        environment.queue = dispatch::SerialQueue::create("com.tavlo.messaging.chat");
    }
    return environment;
}

}  // namespace

TVKChatMetadataDictionary chat_internal::metadataDictionary(const json::array& list) {
    auto entries = TVKChatMetadata::dictionaryWithArrayOfJSON(list);
    return TVKChatMetadataDictionary(std::make_move_iterator(entries.begin()),
                                     std::make_move_iterator(entries.end()));
}

// --- Creation ----------------------------------------------------------------------------------

std::shared_ptr<TVKChatSession> TVKChatSession::chatForChannel(
    const std::optional<std::string>& channel, const std::string& vendorAccountId,
    const std::string& JWT, const std::string& HTTPHostURL, TVKChatEnvironment environment) {
    if (!channel) return nullptr;
    return std::make_shared<TVKChatSession>(Passkey{}, *channel, vendorAccountId, JWT, HTTPHostURL,
                                            std::move(environment));
}

TVKChat::TVKChat(const std::string& channel, const std::string& vendorAccountId,
                 const std::string& HTTPHostURL)
    : HTTPHostURL_(HTTPHostURL),
      // The name alone, so that the chatroom can be named before its profile is loaded.
      profile_(recordOf<DQChatProfile>(json::object{{"channelCode", channel}})),
      vendorAccountId_(vendorAccountId) {}

TVKChatSession::TVKChatSession(Passkey, const std::string& channel,
                               const std::string& vendorAccountId, const std::string& JWT,
                               const std::string& HTTPHostURL, TVKChatEnvironment environment)
    : TVKChat(channel, vendorAccountId, HTTPHostURL),
      environment_(withQueue(std::move(environment))),
      JWT_(JWT) {
    currentUser_ =
        TVKChatUser::userWithJWT(JWT, HTTPHostURL, environment_.queue, environment_.caFile);
    if (currentUser_) configureHTTP(*currentUser_->HTTPClient()->HTTPManager(), environment_);
}

TVKChatSession::~TVKChatSession() = default;

TVKChat::~TVKChat() = default;

const std::shared_ptr<TVKMessagingHTTPClient>& TVKChatSession::HTTPClient() {
    if (!HTTPClient_) {
        HTTPClient_ =
            TVKMessagingHTTPClient::create(HTTPHostURL_, environment_.queue, environment_.caFile);
        configureHTTP(*HTTPClient_->HTTPManager(), environment_);
    }
    return HTTPClient_;
}

// --- Derived properties ------------------------------------------------------------------------

std::string TVKChat::chatroomName() const {
    return withoutPrefixChatroomName(originalChatroomName());
}

std::string TVKChat::originalChatroomName() const {
    return profile_->channelCode().value_or("");
}

bool TVKChat::isPersonalChat() const {
    return isKindOfPersonalChatroomName(originalChatroomName());
}

std::string TVKChat::chatId() const {
    return profile_->chatId().value_or("");
}

std::optional<std::string> TVKChat::createdDate() const {
    return profile_->createdDate();
}

std::uint64_t TVKChat::memberCount() const {
    return static_cast<std::uint64_t>(profile_->memberCount().value_or(0));
}

std::uint64_t TVKChat::guestCount() const {
    return static_cast<std::uint64_t>(profile_->guestCount().value_or(0));
}

TVKChatInputMode TVKChat::mode() const {
    const auto& writeMode = profile_->chatWriteMode();
    if (!writeMode) return TVKChatInputModeNull;
    if (*writeMode == "ANCHOR") return TVKChatInputModeAnchor;
    if (*writeMode == "LOGIN") return TVKChatInputModeLogin;
    if (*writeMode == "ALL") return TVKChatInputModeAll;
    return TVKChatInputModeNull;
}

std::int64_t TVKChat::userCount() const {
    // The signed-in user is always there, whatever the service counted.
    return userCount_ >= 2 ? userCount_ : 1;
}

TVKAggregatedItems TVKChat::totalAggregatedItems() const {
    return cachedAggregatedItems_.value_or(TVKAggregatedItems{});
}

bool TVKChat::isEqual(const TVKChat& other) const {
    // One-sided on purpose: the name without prefix against the other's full name.
    const auto& otherName = other.profile_->channelCode();
    return otherName && chatroomName() == *otherName;
}

bool TVKChat::operator==(const TVKChat& other) const {
    return originalChatroomName() == other.originalChatroomName();
}

std::strong_ordering TVKChat::operator<=>(const TVKChat& other) const {
    // compare() rather than the strings' own <=>, which libc++ before 16 does not have.
    return originalChatroomName().compare(other.originalChatroomName()) <=> 0;
}

std::size_t TVKChat::hash() const {
    return std::hash<std::string>{}(originalChatroomName());
}

// --- Requests ----------------------------------------------------------------------------------

void TVKChatSession::sendRepairingOnce(Request request, Failure failure) {
    if (!failure) failure = [](const TVKError&) {};
    std::weak_ptr<TVKChatSession> weakSelf = weakSession();
    auto repair = [weakSelf, request, failure](const TVKError& error) {
        auto self = weakSelf.lock();
        if (!self) return;
        // The resent request reports straight to the caller: at most two sends.
        auto resend = [weakSelf, request, failure] {
            if (auto self = weakSelf.lock()) request(*self->HTTPClient(), failure);
        };
        self->HTTPClient()->handleInvalidRequestError(error, resend, failure);
    };
    request(*HTTPClient(), repair);
}

void TVKChatSession::setStatus(TVKChatStatus status, std::string_view reason) {
    TAVLO_ASSERT_ON_QUEUE(environment_.queue);
    static constexpr const char* kNames[] = {"none", "ready", "connecting", "connected",
                                             "disconnecting"};
    auto name = [](TVKChatStatus value) {
        const auto index = static_cast<std::uint64_t>(value);
        return index < std::size(kNames) ? kNames[index] : "?";
    };
    TAVLO_LOG(info, "chat", originalChatroomName(), ": ", name(status_), " -> ", name(status), " (",
              reason, ")");
    status_ = status;
}

// --- Queries -----------------------------------------------------------------------------------

void TVKChatSession::getPinnedMessageWithSuccess(PinnedMessageSuccess success, Failure failure) {
    if (status_ == TVKChatStatusNone) return report(failure, TVKEmptyChatProfileError());
    // Kept current by the profile and the pin events: no request needed.
    if (success) success(pinnedMessage_);
}

void TVKChatSession::getMetadataForKeys(const std::optional<std::vector<std::string>>& keys,
                                        const std::string& userToken, MetadataSuccess success,
                                        Failure failure) {
    auto received = [success](const json::array& list) {
        if (success) success(chat_internal::metadataDictionary(list));
    };
    auto request = [keys, chatId = chatId(), userToken, received](TVKMessagingHTTPClient& client,
                                                                  Failure failure) {
        client.getMetadataForKeys(keys, chatId, userToken, received, failure);
    };
    sendRepairingOnce(request, failure);
}

void TVKChatSession::listUsersWithUserToken(const std::string& userToken, TVKChatUserType userType,
                                            UsersSuccess success, Failure failure) {
    TAVLO_ASSERT_ON_QUEUE(environment_.queue);
    if (!userCache_.shouldUpdateUsersByUserType(userType)) {
        auto cached = userCache_.getCachedUsersByUserType(userType).value_or(TVKChatUsers{});
        if (success) success(TVKChatUserCache::getUsersUnderMaxNumberLimit(cached));
        return;
    }
    std::weak_ptr<TVKChatSession> weakSelf = weakSession();
    auto fetched = [weakSelf, userType, success](const TVKChatUsers& users) {
        if (userType == TVKChatUserTypeOnline) {
            if (auto self = weakSelf.lock()) self->userCache_.saveCachedOnlineUsers(users);
        }
        if (success) success(TVKChatUserCache::getUsersUnderMaxNumberLimit(users));
    };
    getUsersWithUserToken(userToken, userType, fetched, failure);
}

void TVKChatSession::getUsersWithUserToken(const std::string& userToken, TVKChatUserType userType,
                                           UsersSuccess success, Failure failure) {
    if (status_ == TVKChatStatusNone) return report(failure, TVKEmptyChatProfileError());
    auto received = [success, failure](const json::array& list) {
        auto users = recordsOf<TVKChatUser>(list);
        if (!users) return report(failure, TVKDataMappingErrorWithData(json::value(list)));
        if (success) success(*users);
    };
    auto request = [chatId = chatId(), userToken,
                    roles = TVKChatUserCache::rolesForUserType(userType),
                    statuses = TVKChatUserCache::statusesForUserType(userType),
                    received](TVKMessagingHTTPClient& client, Failure failure) {
        client.getUsersByChat(chatId, userToken, roles, statuses, received, failure);
    };
    sendRepairingOnce(request, failure);
}

void TVKChatSession::listMessagesWithUserToken(const std::string& userToken,
                                               const json::object& configs, ListingSuccess success,
                                               Failure failure) {
    if (status_ == TVKChatStatusNone) return report(failure, TVKEmptyChatProfileError());
    const auto* msgType = configs.if_contains("msgType");
    const bool aggregate =
        msgType && msgType->is_string() && msgType->get_string() == TVKChatMessageTypeAggregate;
    std::weak_ptr<TVKChatSession> weakSelf = weakSession();
    auto received = [weakSelf, aggregate, success, failure](const json::array& list) {
        if (aggregate) {
            auto batches = recordsOf<TVKAggregatedData>(list);
            if (!batches) return report(failure, TVKDataMappingErrorWithData(json::value(list)));
            if (success) success(TVKMessageListing(std::move(*batches)));
            return;
        }
        // Stickers are recognised with the sets the chatroom holds.
        auto self = weakSelf.lock();
        if (!self) return;
        TVKChatMessages messages;
        messages.reserve(list.size());
        for (const auto& element : list) {
            if (const auto* object = element.if_object()) {
                self->classifyMessage(*object, [&messages](const auto& message) {
                    if (message) messages.push_back(message);
                });
            }
        }
        if (success) success(TVKMessageListing(std::move(messages)));
    };
    auto request = [chatId = chatId(), userToken, configs, received](TVKMessagingHTTPClient& client,
                                                                     Failure failure) {
        client.getMessagesByChat(chatId, userToken, configs, received, failure);
    };
    sendRepairingOnce(request, failure);
}

}  // namespace tavlo
