// The application's chatroom operations. Each checks what the manager answers for (the
// connection, the user token for reads, the arguments it owns), then hands the work to the
// chatroom (reads of its state) or to its current user (actions, each guarded by the user's
// permission rules). Refusals decided here are reported on the calling thread before the call
// returns; everything else arrives through the executor, converted to the public error domain.

#include "Dispatch/Internal/QueueConfinement.hpp"
#include "TavloCoreSDK/Internal/TVKLogLine.hpp"
#include "TavloMessagingSDK/Internal/TVKChatSession.hpp"
#include "TavloMessagingSDK/Internal/TVKHeldSends.hpp"
#include "TavloMessagingSDK/TVKChatManager.hpp"
#include "TavloMessagingSDK/TVKChatMessage.hpp"
#include "TavloMessagingSDK/TVKChatUser.hpp"
#include "TavloMessagingSDK/TVKMSGError.hpp"
#include "TavloMessagingSDK/TVKMSGUtility.hpp"

namespace tavlo {
namespace {

constexpr std::size_t kMaximumTextLength = 300;

std::string messageIdOf(const std::shared_ptr<TVKChatMessage>& message) {
    // A message without id still goes to the service, which answers for it.
    return message ? message->messageId().value_or("") : std::string();
}

}  // namespace

// --- Wrappers ----------------------------------------------------------------------------------

TVKChatManager::Success TVKChatManager::wrapSuccess(Success success) const {
    if (!success) return nullptr;
    std::weak_ptr<const TVKChatManager> weak = weak_from_this();
    return [weak, success = std::move(success)] {
        if (auto self = weak.lock()) self->deliver(success);
    };
}

TVKChatManager::Failure TVKChatManager::wrapFailure(Failure failure) const {
    if (!failure) return nullptr;
    std::weak_ptr<const TVKChatManager> weak = weak_from_this();
    return [weak, failure = std::move(failure)](const TVKError& error) {
        auto self = weak.lock();
        if (!self) return;
        auto reported = TVKMSGError(error);
        TAVLO_LOG(info, "manager", "operation failed: ", reported.describe());
        self->deliver([failure, error = std::move(reported)] { failure(error); });
    };
}

std::shared_ptr<TVKChatUser> TVKChatManager::connectedUser(const std::shared_ptr<TVKChat>& chat,
                                                           bool needsToken) const {
    TAVLO_ASSERT_ON_QUEUE(queue_);
    if (!isConnectedOnQueue(chat)) return nullptr;
    auto user = chat->currentUser();
    if (!user || (needsToken && !user->userToken())) return nullptr;
    return user;
}

std::optional<TVKError> TVKChatManager::actAsCurrentUser(
    const std::shared_ptr<TVKChat>& chat, bool needsToken,
    const std::function<void(TVKChatUser&)>& act) {
    std::optional<TVKError> refusal;
    queue_->sync([&] {
        auto user = connectedUser(chat, needsToken);
        if (!user) {
            refusal = TVKMSGNotConnectedError();
            return;
        }
        act(*user);
    });
    return refusal;
}

// --- Reads -------------------------------------------------------------------------------------

void TVKChatManager::getUsersForChatroom(const std::shared_ptr<TVKChat>& chatroom,
                                         TVKChatUserType userType, UsersSuccess success,
                                         Failure failure) {
    const auto refusal = actAsCurrentUser(chatroom, true, [&](TVKChatUser& user) {
        sessionOf(chatroom)->listUsersWithUserToken(
            *user.userToken(), userType, wrapResult(std::move(success)), wrapFailure(failure));
    });
    reportRefusal(failure, refusal);
}

void TVKChatManager::getMessagesForChatroom(
    const std::shared_ptr<TVKChat>& chatroom,
    const std::shared_ptr<TVKGetMessagesConfiguration>& configuration, MessagesSuccess success,
    Failure failure) {
    getMessagesForChatroom(chatroom, TVKChatMessageTypeNormalText, configuration,
                           listingOf<TVKChatMessages>(std::move(success)), std::move(failure));
}

void TVKChatManager::getMessagesForChatroom(
    const std::shared_ptr<TVKChat>& chatroom, const std::string& msgType,
    const std::shared_ptr<TVKGetMessagesConfiguration>& configuration, ListingSuccess success,
    Failure failure) {
    reportRefusal(failure,
                  listMessages(chatroom, msgType, configuration, std::move(success), failure));
}

std::optional<TVKError> TVKChatManager::listMessages(
    const std::shared_ptr<TVKChat>& chat, const std::string& msgType,
    const std::shared_ptr<TVKGetMessagesConfiguration>& configuration, ListingSuccess success,
    Failure failure) {
    return actAsCurrentUser(chat, true, [&](TVKChatUser& user) {
        auto used = configuration ? configuration : std::make_shared<TVKGetMessagesConfiguration>();
        // Deliberately the caller's own object: a configuration used again later carries the
        // type set here.
        used->setMsgType(msgType);
        sessionOf(chat)->listMessagesWithUserToken(
            *user.userToken(), used->getConfigurationDictionary(), wrapResult(std::move(success)),
            wrapFailure(std::move(failure)));
    });
}

void TVKChatManager::getPinnedMessageForChat(const std::shared_ptr<TVKChat>& chatroom,
                                             PinnedMessageSuccess success, Failure failure) {
    const auto refusal = actAsCurrentUser(chatroom, true, [&](TVKChatUser&) {
        sessionOf(chatroom)->getPinnedMessageWithSuccess(wrapResult(std::move(success)),
                                                         wrapFailure(failure));
    });
    reportRefusal(failure, refusal);
}

void TVKChatManager::getMetadataForKeys(const std::optional<std::vector<std::string>>& keys,
                                        const std::shared_ptr<TVKChat>& chatroom,
                                        MetadataSuccess success, Failure failure) {
    const auto refusal = actAsCurrentUser(chatroom, true, [&](TVKChatUser& user) {
        sessionOf(chatroom)->getMetadataForKeys(
            keys, *user.userToken(), wrapResult(std::move(success)), wrapFailure(failure));
    });
    reportRefusal(failure, refusal);
}

// --- Actions of the current user ---------------------------------------------------------------

void TVKChatManager::updateGuestNickname(const std::string& nickname,
                                         const std::shared_ptr<TVKChat>& chatroom, Success success,
                                         Failure failure) {
    const auto refusal = actAsCurrentUser(chatroom, false, [&](TVKChatUser& user) {
        user.updateGuestNickname(nickname, wrapSuccess(std::move(success)), wrapFailure(failure));
    });
    reportRefusal(failure, refusal);
}

void TVKChatManager::updateUserRole(const std::string& role,
                                    const std::shared_ptr<TVKChatUser>& targetUser,
                                    const std::shared_ptr<TVKChat>& chatroom, Success success,
                                    Failure failure) {
    const auto refusal = actAsCurrentUser(chatroom, false, [&](TVKChatUser& user) {
        user.updateUserRole(role, targetUser, wrapSuccess(std::move(success)),
                            wrapFailure(failure));
    });
    reportRefusal(failure, refusal);
}

void TVKChatManager::updateUserRole(const std::string& role, const std::string& memberId,
                                    const std::shared_ptr<TVKChat>& chatroom, Success success,
                                    Failure failure) {
    const auto refusal = actAsCurrentUser(chatroom, false, [&](TVKChatUser& user) {
        user.updateUserRole(role, memberId, chatroom->vendorAccountId(),
                            wrapSuccess(std::move(success)), wrapFailure(failure));
    });
    reportRefusal(failure, refusal);
}

void TVKChatManager::blockUsers(const TVKChatUsers& users, const std::shared_ptr<TVKChat>& chatroom,
                                Success success, Failure failure) {
    const auto refusal = actAsCurrentUser(chatroom, false, [&](TVKChatUser& user) {
        user.blockUsers(users, wrapSuccess(std::move(success)), wrapFailure(failure));
    });
    reportRefusal(failure, refusal);
}

void TVKChatManager::reviveUsers(const TVKChatUsers& users,
                                 const std::shared_ptr<TVKChat>& chatroom, Success success,
                                 Failure failure) {
    const auto refusal = actAsCurrentUser(chatroom, false, [&](TVKChatUser& user) {
        user.reviveUsers(users, wrapSuccess(std::move(success)), wrapFailure(failure));
    });
    reportRefusal(failure, refusal);
}

void TVKChatManager::removeMessage(const std::shared_ptr<TVKChatMessage>& message,
                                   const std::shared_ptr<TVKChat>& chatroom, Success success,
                                   Failure failure) {
    const auto refusal = actAsCurrentUser(chatroom, false, [&](TVKChatUser& user) {
        user.removeMessage(messageIdOf(message), wrapSuccess(std::move(success)),
                           wrapFailure(failure));
    });
    reportRefusal(failure, refusal);
}

void TVKChatManager::pinMessage(const std::shared_ptr<TVKChatMessage>& message,
                                const std::shared_ptr<TVKChat>& chatroom, Success success,
                                Failure failure) {
    const auto refusal = actAsCurrentUser(chatroom, false, [&](TVKChatUser& user) {
        user.pinMessage(messageIdOf(message), wrapSuccess(std::move(success)),
                        wrapFailure(failure));
    });
    reportRefusal(failure, refusal);
}

void TVKChatManager::unpinMessageFromChatroom(const std::shared_ptr<TVKChat>& chatroom,
                                              Success success, Failure failure) {
    const auto refusal = actAsCurrentUser(chatroom, false, [&](TVKChatUser& user) {
        user.unpinMessageWithSuccess(wrapSuccess(std::move(success)), wrapFailure(failure));
    });
    reportRefusal(failure, refusal);
}

void TVKChatManager::setMetadataValue(const boost::json::value& value, const std::string& key,
                                      const std::shared_ptr<TVKChat>& chatroom, bool broadcast,
                                      Success success, Failure failure) {
    // The manager's own argument checks come first and report the error as it stands.
    if (!isLegalChatMetadataKey(key)) {
        reportRefusal(failure, TVKMSGMetadataKeyInvalidError());
        return;
    }
    if (!isLegalChatMetadataValue(value, broadcast)) {
        reportRefusal(failure, TVKMSGMetadataValueInvalidError());
        return;
    }
    const auto refusal = actAsCurrentUser(chatroom, false, [&](TVKChatUser& user) {
        user.setMetadataValue(value, key, broadcast, wrapSuccess(std::move(success)),
                              wrapFailure(failure));
    });
    reportRefusal(failure, refusal);
}

// --- Sending -----------------------------------------------------------------------------------

void TVKChatManager::sendMessage(const std::string& text, const std::shared_ptr<TVKChat>& chatroom,
                                 Success success, Failure failure) {
    const auto length = utf16Length(text);
    if (length < 1 || length > kMaximumTextLength) {
        reportRefusal(failure, TVKMSGLengthErrorWithMsgType(TVKChatMessageTypeNormalText));
        return;
    }
    sendMessage(boost::json::value(text), TVKChatMessageTypeNormalText, chatroom,
                std::move(success), std::move(failure));
}

void TVKChatManager::sendMessage(const boost::json::value& message, const std::string& msgType,
                                 const std::shared_ptr<TVKChat>& chatroom, Success success,
                                 Failure failure) {
    std::optional<TVKError> refusal;
    queue_->sync([&] {
        if (holdsSendTo(chatroom)) {
            TVKHeldSends::Send held{message, msgType, std::move(success), wrapFailure(failure)};
            if (!heldSends_->hold(chatroom->originalChatroomName(), std::move(held))) {
                refusal = TVKMSGNotConnectedError();  // full: the application hears at once
            }
            return;
        }
        auto user = connectedUser(chatroom, false);
        if (!user) {
            refusal = TVKMSGNotConnectedError();
            return;
        }
        sendNow(*user, chatroom->originalChatroomName(), message, msgType, std::move(success),
                wrapFailure(failure));
    });
    reportRefusal(failure, refusal);
}

void TVKChatManager::sendNow(TVKChatUser& user, const std::string& channel,
                             const boost::json::value& message, const std::string& msgType,
                             Success success, Failure failure, std::function<void()> answered) {
    std::weak_ptr<TVKChatManager> weak = weak_from_this();
    auto sent = [weak, channel, success = std::move(success), answered](const boost::json::value&) {
        auto self = weak.lock();
        if (!self) return;
        // The send time starts the cooldown; only a chatroom still held keeps one.
        if (self->chats_.count(channel)) self->inputAvailableDates_[channel] = self->now();
        if (answered) answered();
        if (success) self->deliver(success);
    };
    auto failed = [failure = std::move(failure), answered](const TVKError& error) {
        if (answered) answered();
        if (failure) failure(error);
    };
    user.sendMessage(message, msgType, std::move(sent), std::move(failed));
}

}  // namespace tavlo
