// The current user's operations in its chatroom. Each one asks its permission rule, sends one
// request with the arguments of the moment it was called, and lets the HTTP client repair a
// failure caused by a stale credential by sending the very same request once more.
#include "TavloMessagingSDK/Internal/TVKMessagingError.hpp"
#include "TavloMessagingSDK/Internal/TVKMessagingHTTPClient.hpp"
#include "TavloMessagingSDK/Internal/TVKMessagingSocketConfig.hpp"
#include "TavloMessagingSDK/TVKChatUser.hpp"

namespace tavlo {

namespace {

std::string labelText(std::int64_t label) {
    return std::to_string(label);
}

}  // namespace

bool TVKChatUser::refused(const std::optional<TVKError>& refusal, const Failure& failure) {
    if (!refusal) return false;
    if (failure) failure(*refusal);
    return true;
}

void TVKChatUser::sendRepairingOnce(Request request, Failure failure) {
    auto client = HTTPClient();
    if (!client) return;
    std::weak_ptr<TVKChatUser> weakSelf = weak_from_this();
    auto repair = [weakSelf, request, failure](const TVKError& error) {
        auto self = weakSelf.lock();
        auto client = self ? self->HTTPClient() : nullptr;
        if (!client) return;
        std::weak_ptr<TVKMessagingHTTPClient> weakClient = client;
        // The resent request reports straight to the caller: at most two sends.
        auto resend = [weakClient, request, failure] {
            if (auto client = weakClient.lock()) request(*client, failure);
        };
        client->handleInvalidRequestError(error, resend, failure);
    };
    request(*client, repair);
}

std::vector<std::string> TVKChatUser::labelsOf(
    const std::vector<std::shared_ptr<TVKChatUser>>& users) {
    std::vector<std::string> labels;
    labels.reserve(users.size());
    for (const auto& user : users) {
        labels.push_back(user && user->label() ? labelText(*user->label()) : std::string());
    }
    return labels;
}

// --- Joining and leaving -----------------------------------------------------------------------

void TVKChatUser::joinChat(const std::string& chatId, JoinSuccess success, Failure failure) {
    if (refused(notAllowedErrorForJoinChat(), failure)) return;
    std::weak_ptr<TVKChatUser> weakSelf = weak_from_this();
    // Guest or member is decided at each send, so a resend reads the nickname afresh.
    auto request = [weakSelf, chatId, success](TVKMessagingHTTPClient& client, Failure failure) {
        auto self = weakSelf.lock();
        if (!self) return;
        auto joined = [weakSelf, chatId, success, failure](
                          const boost::json::value& userToken, const boost::json::value& label,
                          const boost::json::value& role, const boost::json::object& socket) {
            if (auto self = weakSelf.lock()) {
                self->bind(chatId, userToken, label, role, socket, success, failure);
            }
        };
        if (self->isGuest()) {
            client.addGuestToChat(chatId, self->defaultNickname_, joined, failure);
        } else {
            client.addLoggedInUserToChat(chatId, joined, failure);
        }
    };
    sendRepairingOnce(request, failure);
}

void TVKChatUser::bind(const std::string& chatId, const boost::json::value& userToken,
                       const boost::json::value& label, const boost::json::value& role,
                       const boost::json::object& socket, const JoinSuccess& success,
                       const Failure& failure) {
    // A binding needs a user token and a label it can address the user by; without them the
    // answer lacks what the join needs, and the user stays unbound.
    const auto* token = userToken.if_string();
    const auto number = labelFromJSON(label);
    auto socketConfig = DQDataObject::withJSON<TVKMessagingSocketConfig>(socket);
    if (!token || !number) {
        if (failure) failure(TVKHTTPDataMissingError());
        return;
    }
    if (!socketConfig) {
        if (failure) failure(TVKDataMappingErrorWithData(boost::json::value(socket)));
        return;
    }
    const auto* roleText = role.if_string();
    updateChatId(chatId, std::string(*token), number,
                 roleText ? std::optional<std::string>(*roleText) : std::nullopt);
    if (success) success(std::string(*token), std::move(socketConfig));
}

void TVKChatUser::leaveChat(Success success, Failure failure) {
    if (refused(notAllowedErrorForLeaveChat(), failure)) return;
    std::weak_ptr<TVKChatUser> weakSelf = weak_from_this();
    auto left = [weakSelf, success] {
        auto self = weakSelf.lock();
        if (!self) return;
        self->updateChatId(std::nullopt, std::nullopt, std::nullopt, std::nullopt);
        self->internalData_ = std::make_shared<DQChatUser>();
        if (success) success();
    };
    auto request = [labels = std::vector{labelText(*label())}, chatId = *chatId_,
                    userToken = *userToken_,
                    left](TVKMessagingHTTPClient& client, Failure failure) {
        client.removeUsersByLabels(labels, chatId, userToken, left, failure);
    };
    sendRepairingOnce(request, failure);
}

// --- The user's own record ---------------------------------------------------------------------

void TVKChatUser::updateGuestNickname(const std::string& nickname, Success success,
                                      Failure failure) {
    if (refused(notAllowedErrorForUpdateGuestNickname(nickname), failure)) return;
    std::weak_ptr<TVKChatUser> weakSelf = weak_from_this();
    auto renamed = [weakSelf, nickname, success] {
        auto self = weakSelf.lock();
        if (!self) return;
        self->internalData_->setName(nickname);
        if (success) success();
    };
    auto request = [nickname, label = labelText(*label()), chatId = *chatId_,
                    userToken = *userToken_,
                    renamed](TVKMessagingHTTPClient& client, Failure failure) {
        client.updateGuestNickname(nickname, label, chatId, userToken, renamed, failure);
    };
    sendRepairingOnce(request, failure);
}

void TVKChatUser::loadUserData(Success success, Failure failure) {
    if (refused(notAllowedErrorForLoadUserData(), failure)) return;
    std::weak_ptr<TVKChatUser> weakSelf = weak_from_this();
    // The service reads the record when the request arrives: a role an event brings after that
    // is newer than the answer, which must not put the older one back.
    auto request = [weakSelf, labels = std::vector{labelText(*label())}, chatId = *chatId_,
                    userToken = *userToken_, roleChangesBefore = roleChanges_,
                    success](TVKMessagingHTTPClient& client, Failure failure) {
        auto loaded = [weakSelf, roleChangesBefore, success,
                       failure](const boost::json::array& users) {
            if (auto self = weakSelf.lock()) {
                self->adoptUserData(users, roleChangesBefore, success, failure);
            }
        };
        client.getUsersByLabels(labels, chatId, userToken, loaded, failure);
    };
    sendRepairingOnce(request, failure);
}

void TVKChatUser::adoptUserData(const boost::json::array& users, std::uint64_t roleChangesBefore,
                                const Success& success, const Failure& failure) {
    if (users.empty()) {
        if (failure) failure(TVKHTTPDataMissingError());
        return;
    }
    auto record = DQDataObject::withJSON<DQChatUser>(users.front());
    if (!record) {
        if (failure) failure(TVKDataMappingErrorWithData(users.front()));
        return;
    }
    if (roleChanges_ != roleChangesBefore) record->setRole(internalData_->role());
    internalData_ = std::move(record);
    if (success) success();
}

// --- Moderation --------------------------------------------------------------------------------

void TVKChatUser::updateUserRole(const std::string& role, const std::shared_ptr<TVKChatUser>& user,
                                 Success success, Failure failure) {
    if (refused(notAllowedErrorForUpdateUserRole(role), failure)) return;
    auto request = [role, label = labelsOf({user}).front(), chatId = *chatId_,
                    userToken = *userToken_,
                    success](TVKMessagingHTTPClient& client, Failure failure) {
        client.updateLoggedInUserRole(role, label, chatId, userToken, success, failure);
    };
    sendRepairingOnce(request, failure);
}

void TVKChatUser::updateUserRole(const std::string& role, const std::string& memberId,
                                 const std::string& venderAccountId, Success success,
                                 Failure failure) {
    if (refused(notAllowedErrorForUpdateUserRole(role), failure)) return;
    auto request = [role, memberId, venderAccountId, chatId = *chatId_, userToken = *userToken_,
                    success](TVKMessagingHTTPClient& client, Failure failure) {
        client.updateLoggedInUserRole(role, memberId, venderAccountId, chatId, userToken, success,
                                      failure);
    };
    sendRepairingOnce(request, failure);
}

void TVKChatUser::blockUsers(const std::vector<std::shared_ptr<TVKChatUser>>& users,
                             Success success, Failure failure) {
    if (refused(notAllowedErrorForBlockOrRiviveUsers(), failure)) return;
    auto request = [chatId = *chatId_, labels = labelsOf(users), userToken = *userToken_, success](
                       TVKMessagingHTTPClient& client, Failure failure) {
        client.blockUsersInChat(chatId, labels, userToken, success, failure);
    };
    sendRepairingOnce(request, failure);
}

void TVKChatUser::reviveUsers(const std::vector<std::shared_ptr<TVKChatUser>>& users,
                              Success success, Failure failure) {
    if (refused(notAllowedErrorForBlockOrRiviveUsers(), failure)) return;
    auto request = [chatId = *chatId_, labels = labelsOf(users), userToken = *userToken_, success](
                       TVKMessagingHTTPClient& client, Failure failure) {
        client.reviveUsersInChat(chatId, labels, userToken, success, failure);
    };
    sendRepairingOnce(request, failure);
}

// --- Messages and metadata ---------------------------------------------------------------------

void TVKChatUser::sendMessage(const boost::json::value& message, const std::string& msgType,
                              SendSuccess success, Failure failure) {
    if (refused(notAllowedErrorForSendMessage(), failure)) return;
    auto request = [message, chatId = *chatId_, userToken = *userToken_, msgType, success](
                       TVKMessagingHTTPClient& client, Failure failure) {
        client.addUserMessage(message, chatId, userToken, msgType, success, failure);
    };
    sendRepairingOnce(request, failure);
}

void TVKChatUser::removeMessage(const std::string& messageId, Success success, Failure failure) {
    if (refused(notAllowedErrorForRemoveMessage(), failure)) return;
    auto request = [messageId, chatId = *chatId_, userToken = *userToken_, success](
                       TVKMessagingHTTPClient& client, Failure failure) {
        client.removeMessage(messageId, chatId, userToken, success, failure);
    };
    sendRepairingOnce(request, failure);
}

void TVKChatUser::pinMessage(const std::string& messageId, Success success, Failure failure) {
    if (refused(notAllowedErrorForPinMessage(), failure)) return;
    auto request = [messageId, chatId = *chatId_, userToken = *userToken_, success](
                       TVKMessagingHTTPClient& client, Failure failure) {
        client.pinMessage(messageId, chatId, userToken, success, failure);
    };
    sendRepairingOnce(request, failure);
}

void TVKChatUser::unpinMessageWithSuccess(Success success, Failure failure) {
    if (refused(notAllowedErrorForUnpinMessage(), failure)) return;
    auto request = [chatId = *chatId_, userToken = *userToken_, success](
                       TVKMessagingHTTPClient& client, Failure failure) {
        client.unpinMessageFromChat(chatId, userToken, success, failure);
    };
    sendRepairingOnce(request, failure);
}

void TVKChatUser::setMetadataValue(const boost::json::value& value, const std::string& key,
                                   bool broadcast, Success success, Failure failure) {
    if (refused(notAllowedErrorForSettingMetadata(), failure)) return;
    auto request = [value, key, chatId = *chatId_, broadcast, userToken = *userToken_, success](
                       TVKMessagingHTTPClient& client, Failure failure) {
        client.setMetadataValue(value, key, chatId, broadcast, userToken, success, failure);
    };
    sendRepairingOnce(request, failure);
}

}  // namespace tavlo
