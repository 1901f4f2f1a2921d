// The messaging service's endpoints: one path, method and answer check each. The frame they
// share (token guard, path suffix, failure conversion) lives in TVKMessagingHTTPClient.cpp.
#include "TavloMessagingSDK/Internal/TVKMessagingError.hpp"
#include "TavloMessagingSDK/Internal/TVKMessagingHTTPClient.hpp"

namespace tavlo {

using boost::json::array;
using boost::json::object;
using boost::json::value;
using net::HTTPMethod;

namespace {

array toArray(const std::vector<std::string>& strings) {
    array result;
    result.reserve(strings.size());
    for (const auto& text : strings) result.emplace_back(text);
    return result;
}

object chatParameters(const std::string& chatId, const std::string& userToken) {
    return {{"chatId", chatId}, {"userToken", userToken}};
}

object labelParameters(const std::vector<std::string>& labels, const std::string& chatId,
                       const std::string& userToken) {
    auto parameters = chatParameters(chatId, userToken);
    parameters["targetUserLabels"] = toArray(labels);
    return parameters;
}

}  // namespace

void TVKMessagingHTTPClient::getChatProfileForChannel(const std::string& channel,
                                                      const std::string& vendor,
                                                      bool returnSticker, ObjectSuccess success,
                                                      Failure failure) {
    object parameters{{"channelCode", channel}, {"platform", vendor}};
    if (returnSticker) parameters["return_sticker"] = "true";
    auto onAnswer = [success, failure](const value& answer) {
        if (!answer.is_object()) {
            if (failure) failure(TVKHTTPDataMissingError());
            return;
        }
        if (success) success(answer.get_object());
    };
    call(HTTPMethod::Get, "/get-chat-profile-by-channel/", std::move(parameters), onAnswer,
         std::move(failure));
}

void TVKMessagingHTTPClient::createChatForChannel(const std::string& channel,
                                                  const std::string& vendor, bool isPersonalChat,
                                                  CreateChatSuccess success, Failure failure) {
    object parameters{
        {"platform", vendor}, {"is_personal_chat", isPersonalChat}, {"channel_code", channel}};
    auto onAnswer = [success, failure](const value& answer) {
        const auto* object = answer.if_object();
        const value* chatId = object ? object->if_contains("chatId") : nullptr;
        const value* userToken = object ? object->if_contains("userToken") : nullptr;
        const value* label = object ? object->if_contains("label") : nullptr;
        if (!chatId || !userToken || !label) {
            if (failure) failure(TVKHTTPDataMissingError());
            return;
        }
        if (success) success(*chatId, *userToken, *label);
    };
    call(HTTPMethod::Post, "/v2/chat/", std::move(parameters), onAnswer, std::move(failure));
}

void TVKMessagingHTTPClient::createMessageBoardForChannel(const std::string& channel,
                                                          ValueSuccess success, Failure failure) {
    auto onAnswer = [success, failure](const value& answer) {
        const auto* object = answer.if_object();
        const value* chatId = object ? object->if_contains("chatId") : nullptr;
        if (!chatId) {
            if (failure) failure(TVKHTTPDataMissingError());
            return;
        }
        if (success) success(*chatId);
    };
    call(HTTPMethod::Post, "/create-message-board/", object{{"channelCode", channel}}, onAnswer,
         std::move(failure));
}

void TVKMessagingHTTPClient::addUser(const std::optional<object>& user, const std::string& chatId,
                                     JoinSuccess success, Failure failure) {
    object parameters{{"chatId", chatId}, {"newSocket", true}};
    if (user) parameters["targetUsers"] = array{*user};
    std::weak_ptr<TVKMessagingHTTPClient> weakSelf = weak_from_this();
    auto onAnswer = [weakSelf, success, failure](const value& answer) {
        auto self = weakSelf.lock();
        if (!self) {
            // The socket check needs the client; without it the answer cannot be vouched for.
            if (failure) failure(TVKHTTPDataMissingError());
            return;
        }
        self->handleJoinAnswer(answer, success, failure);
    };
    call(HTTPMethod::Post, "/add-users-to-chat/", std::move(parameters), onAnswer,
         std::move(failure));
}

void TVKMessagingHTTPClient::handleJoinAnswer(const value& answer, const JoinSuccess& success,
                                              const Failure& failure) const {
    auto missing = [&failure] {
        if (failure) failure(TVKHTTPDataMissingError());
    };
    const auto* object = answer.if_object();
    if (!object) return missing();
    const auto* userMetas = object->if_contains("userMetas");
    if (!userMetas || !userMetas->is_array()) return missing();
    const auto& metas = userMetas->get_array();
    if (metas.empty() || !metas.front().is_object()) return missing();
    const auto* socket = object->if_contains("socket");
    if (!socket || !socket->is_object()) return missing();
    const auto& meta = metas.front().get_object();
    const auto* userToken = meta.if_contains("userToken");
    const auto* label = meta.if_contains("label");
    const auto* role = meta.if_contains("role");
    if (!userToken || !label || !role) return missing();
    if (!socketConfigHasRequiredKeys(socket->get_object())) return missing();
    if (success) success(*userToken, *label, *role, socket->get_object());
}

void TVKMessagingHTTPClient::addLoggedInUserToChat(const std::string& chatId, JoinSuccess success,
                                                   Failure failure) {
    addUser(std::nullopt, chatId, std::move(success), std::move(failure));
}

void TVKMessagingHTTPClient::addGuestToChat(const std::string& chatId, const std::string& nickname,
                                            JoinSuccess success, Failure failure) {
    addUser(object{{"name", nickname}}, chatId, std::move(success), std::move(failure));
}

void TVKMessagingHTTPClient::getUsersByChat(const std::string& chatId,
                                            const std::string& userToken,
                                            const std::vector<std::string>& roles,
                                            const std::vector<std::string>& statuses,
                                            ArraySuccess success, Failure failure) {
    auto parameters = chatParameters(chatId, userToken);
    parameters["roles"] = toArray(roles);
    parameters["statuses"] = toArray(statuses);
    callForArray(HTTPMethod::Get, "/get-users-by-chat/", std::move(parameters), "users",
                 std::move(success), std::move(failure));
}

void TVKMessagingHTTPClient::getUsersByLabels(const Labels& labels, const std::string& chatId,
                                              const std::string& userToken, ArraySuccess success,
                                              Failure failure) {
    callForArray(HTTPMethod::Get, "/get-users-by-labels/",
                 labelParameters(labels, chatId, userToken), "users", std::move(success),
                 std::move(failure));
}

void TVKMessagingHTTPClient::removeUsersByLabels(const Labels& labels, const std::string& chatId,
                                                 const std::string& userToken, Success success,
                                                 Failure failure) {
    callWithoutResult(HTTPMethod::Delete, "/remove-users-from-chat/",
                      labelParameters(labels, chatId, userToken), std::move(success),
                      std::move(failure));
}

void TVKMessagingHTTPClient::updateUsers(const array& users, const std::string& chatId,
                                         const std::string& userToken, Success success,
                                         Failure failure) {
    auto parameters = chatParameters(chatId, userToken);
    parameters["targetUsers"] = users;
    callWithoutResult(HTTPMethod::Put, "/update-users-in-chat/", std::move(parameters),
                      std::move(success), std::move(failure));
}

void TVKMessagingHTTPClient::updateGuestNickname(const std::string& nickname,
                                                 const std::string& label,
                                                 const std::string& chatId,
                                                 const std::string& userToken, Success success,
                                                 Failure failure) {
    updateUsers(array{object{{"label", label}, {"name", nickname}}}, chatId, userToken,
                std::move(success), std::move(failure));
}

void TVKMessagingHTTPClient::updateLoggedInUserRole(const std::string& role,
                                                    const std::string& label,
                                                    const std::string& chatId,
                                                    const std::string& userToken, Success success,
                                                    Failure failure) {
    updateUsers(array{object{{"label", label}, {"role", role}}}, chatId, userToken,
                std::move(success), std::move(failure));
}

void TVKMessagingHTTPClient::updateLoggedInUserRole(const std::string& role,
                                                    const std::string& memberId,
                                                    const std::string& venderAccountId,
                                                    const std::string& chatId,
                                                    const std::string& userToken, Success success,
                                                    Failure failure) {
    updateUsers(array{object{{"memberId", memberId}, {"role", role}, {"platform", venderAccountId}}},
                chatId, userToken, std::move(success), std::move(failure));
}

void TVKMessagingHTTPClient::blockUsersInChat(const std::string& chatId, const Labels& labels,
                                              const std::string& userToken, Success success,
                                              Failure failure) {
    callWithoutResult(HTTPMethod::Put, "/block-users-in-chat/",
                      labelParameters(labels, chatId, userToken), std::move(success),
                      std::move(failure));
}

void TVKMessagingHTTPClient::reviveUsersInChat(const std::string& chatId, const Labels& labels,
                                               const std::string& userToken, Success success,
                                               Failure failure) {
    callWithoutResult(HTTPMethod::Put, "/revive-users-in-chat/",
                      labelParameters(labels, chatId, userToken), std::move(success),
                      std::move(failure));
}

void TVKMessagingHTTPClient::getMessagesByChat(const std::string& chatId,
                                               const std::string& userToken,
                                               const std::optional<object>& configs,
                                               ArraySuccess success, Failure failure) {
    auto parameters = chatParameters(chatId, userToken);
    parameters["populateCreator"] = "true";
    // The query's own members win over the fixed ones of the same name.
    if (configs) {
        for (const auto& [key, item] : *configs) parameters[key] = item;
    }
    callForArray(HTTPMethod::Get, "/get-messages-by-chat/", std::move(parameters), "messages",
                 std::move(success), std::move(failure));
}

void TVKMessagingHTTPClient::addUserMessage(const value& message, const std::string& chatId,
                                            const std::string& userToken,
                                            const std::string& msgType, ValueSuccess success,
                                            Failure failure) {
    auto parameters = chatParameters(chatId, userToken);
    parameters["msgType"] = msgType;
    parameters["sourceType"] = "IOS";
    parameters[msgType == "text" ? "text" : "value"] = message;
    auto onAnswer = [success, failure](const value& answer) {
        const auto* object = answer.if_object();
        const value* messageId = object ? object->if_contains("messageId") : nullptr;
        if (!messageId) {
            if (failure) failure(TVKHTTPDataMissingError());
            return;
        }
        if (success) success(*messageId);
    };
    call(HTTPMethod::Post, "/add-user-message-to-chat/", std::move(parameters), onAnswer,
         std::move(failure));
}

void TVKMessagingHTTPClient::removeMessage(const std::string& messageId, const std::string& chatId,
                                           const std::string& userToken, Success success,
                                           Failure failure) {
    auto parameters = chatParameters(chatId, userToken);
    parameters["messageId"] = messageId;
    callWithoutResult(HTTPMethod::Delete, "/remove-message-from-chat/", std::move(parameters),
                      std::move(success), std::move(failure));
}

void TVKMessagingHTTPClient::pinMessage(const std::string& messageId, const std::string& chatId,
                                        const std::string& userToken, Success success,
                                        Failure failure) {
    auto parameters = chatParameters(chatId, userToken);
    parameters["messageId"] = messageId;
    callWithoutResult(HTTPMethod::Post, "/pinned-msg/", std::move(parameters), std::move(success),
                      std::move(failure));
}

void TVKMessagingHTTPClient::unpinMessageFromChat(const std::string& chatId,
                                                  const std::string& userToken, Success success,
                                                  Failure failure) {
    callWithoutResult(HTTPMethod::Delete, "/pinned-msg/", chatParameters(chatId, userToken),
                      std::move(success), std::move(failure));
}

void TVKMessagingHTTPClient::setMetadataValue(const value& metadataValue, const std::string& key,
                                              const std::string& chatId, bool broadcast,
                                              const std::string& userToken, Success success,
                                              Failure failure) {
    auto parameters = chatParameters(chatId, userToken);
    parameters["key"] = key;
    parameters["value"] = metadataValue;
    parameters["broadcast"] = broadcast;
    callWithoutResult(HTTPMethod::Post, "/chat-meta/", std::move(parameters), std::move(success),
                      std::move(failure));
}

void TVKMessagingHTTPClient::getMetadataForKeys(const std::optional<std::vector<std::string>>& keys,
                                                const std::string& chatId,
                                                const std::string& userToken, ArraySuccess success,
                                                Failure failure) {
    auto parameters = chatParameters(chatId, userToken);
    if (keys) parameters["keys"] = toArray(*keys);
    auto checked = [success, failure](const array& meta) {
        // An empty list is an answer; a non-empty one must start with an object.
        if (!meta.empty() && !meta.front().is_object()) {
            if (failure) failure(TVKHTTPDataMissingError());
            return;
        }
        if (success) success(meta);
    };
    callForArray(HTTPMethod::Get, "/chat-meta/", std::move(parameters), "meta", checked,
                 std::move(failure));
}

}  // namespace tavlo
