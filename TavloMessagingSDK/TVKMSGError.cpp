#include "TavloMessagingSDK/TVKMSGError.hpp"

#include "Networking/TVKNetworkError.hpp"
#include "TavloMessagingSDK/Internal/TVKMessagingError.hpp"
#include "TavloMessagingSDK/Internal/TVKStringTable.hpp"

namespace tavlo {
namespace {

TVKError publicError(long code, const std::string& key) {
    TVKError error(TVKMSGErrorDomain, code);
    error.localizedDescription = TVKMsgLocalizedStringForKey(key);
    return error;
}

struct Conversion {
    bool (*test)(const TVKError&);
    long code;
    const char* key;
};

// A realtime connection lost to its proxy (refused, unreachable) is no connection, like any
// connectivity failure.
bool isConnectivityFailure(const TVKError& error) {
    return isNetworkError(error) || isTVKSocketLostToConnectivityError(error);
}

bool isPermissionError(const TVKError& error) {
    return isTVKHTTPPermissionViolationError(error) || isTVKUserNoPermissionError(error);
}

// The first test that holds decides; the order matters where an error could pass two.
constexpr Conversion kConversions[] = {
    {isConnectivityFailure, TVKMSGErrorNetworkNoConnection, "network_no_connection"},
    {isTVKChannelCodeLengthError, TVKMSGErrorChannelCodeLength, "channel_code_length_error"},
    {isTVKMemberTokenRequiredError, TVKMSGErrorGuestCreateChatNotSupported,
     "guest_creat_chat_not_supported"},
    {isTVKEmptyChatProfileError, TVKMSGErrorChannelNotConnected, "channel_not_connected"},
    {isTVKUserBoundWithChatError, TVKMSGErrorChannelAlreadyConnected, "channel_already_connected"},
    {isTVKUserNotBoundWithChatError, TVKMSGErrorChannelNotConnected, "channel_not_connected"},
    {isTVKUpdateMemberNicknameError, TVKMSGErrorMemberNicknameUpdateNotSupported,
     "member_nickname_update_not_supported"},
    {isTVKNicknameLengthError, TVKMSGErrorNicknameLength, "nickname_length_error"},
    {isTVKUpdateUserRoleError, TVKMSGErrorUpdateUserRole, "update_user_role_error"},
    {isTVKHTTPUnauthorizedError, TVKMSGErrorUnauthorized, "unauthorized_error"},
    {isPermissionError, TVKMSGErrorPermission, "permission_error"},
    {isTVKHTTPServerFailureError, TVKMSGErrorServer, "server_error"},
    {isTVKHTTPTooManyRequestError, TVKMSGErrorTooManyRequests, "too_many_requests"},
};

// The text of each code for the error category; a shared code takes its first error's text.
const char* keyForCode(int code) {
    switch (static_cast<TVKMSGErrc>(code)) {
        case TVKMSGErrc::networkNoConnection:
            return "network_no_connection";
        case TVKMSGErrc::channelCodeLength:
            return "channel_code_length_error";
        case TVKMSGErrc::guestCreateChatNotSupported:
            return "guest_creat_chat_not_supported";
        case TVKMSGErrc::channelNotConnected:
            return "channel_not_connected";
        case TVKMSGErrc::channelAlreadyConnected:
            return "channel_already_connected";
        case TVKMSGErrc::memberNicknameUpdateNotSupported:
            return "member_nickname_update_not_supported";
        case TVKMSGErrc::nicknameLength:
            return "nickname_length_error";
        case TVKMSGErrc::messageLength:
            return "message_length_error";
        case TVKMSGErrc::updateUserRole:
            return "update_user_role_error";
        case TVKMSGErrc::unauthorized:
            return "unauthorized_error";
        case TVKMSGErrc::permission:
            return "permission_error";
        case TVKMSGErrc::chatroomNotFound:
            return "chatroom_not_found";
        case TVKMSGErrc::memberIdNotFound:
            return "member_id_not_found";
        case TVKMSGErrc::archivedIdNotFound:
            return "archived_id_not_found";
        case TVKMSGErrc::invalidInput:
            return "archived_input_invalid";
        case TVKMSGErrc::server:
            return "server_error";
        case TVKMSGErrc::internal:
            return "internal_error";
        case TVKMSGErrc::dataFormat:
            return "aggregate_data_length_error";
        case TVKMSGErrc::tooManyRequests:
            return "too_many_requests";
    }
    return nullptr;
}

class PublicErrorCategory final : public std::error_category {
  public:
    const char* name() const noexcept override { return TVKMSGErrorDomain; }
    std::string message(int code) const override {
        const char* key = keyForCode(code);
        if (key == nullptr) return "TVKMSGErrorDomain error " + std::to_string(code);
        return TVKMsgLocalizedStringForKey(key).value_or(key);
    }
};

}  // namespace

const std::error_category& TVKMSGErrorCategory() noexcept {
    static const PublicErrorCategory category;
    return category;
}

std::error_code make_error_code(TVKMSGErrc code) noexcept {
    return {static_cast<int>(code), TVKMSGErrorCategory()};
}

std::error_code make_error_code(const TVKError& error) {
    const TVKError publicError = TVKMSGError(error);
    return {static_cast<int>(publicError.code), TVKMSGErrorCategory()};
}

bool operator==(const TVKError& error, TVKMSGErrc code) {
    return make_error_code(error) == make_error_code(code);
}

std::optional<std::string> TVKMsgLocalizedStringForKey(const std::string& key) {
    return detail::localizedString(key);
}

void TVKMsgSetLanguage(const std::string& language) {
    detail::setLanguage(language);
}

TVKError TVKMSGNotConnectedError() {
    return publicError(TVKMSGErrorChannelNotConnected, "channel_not_connected");
}

TVKError TVKMSGLengthErrorWithMsgType(const std::string& msgType) {
    if (msgType == "text") return publicError(TVKMSGErrorMessageLength, "message_length_error");
    if (msgType == "aggregate") {
        return publicError(TVKMSGErrorDataFormat, "aggregate_data_length_error");
    }
    // Only the two types above have a length limit; anything else is a caller's slip.
    return TVKError(TVKMSGErrorDomain, -1);
}

TVKError TVKMSGChatroomNotFoundError() {
    return publicError(TVKMSGErrorChatroomNotFound, "chatroom_not_found");
}
TVKError TVKMSGMemberIdNotFoundError() {
    return publicError(TVKMSGErrorMemberIdNotFound, "member_id_not_found");
}
TVKError TVKMSGArchivedIdNotFoundError() {
    return publicError(TVKMSGErrorArchivedIdNotFound, "archived_id_not_found");
}
TVKError TVKMSGArchivedInputTimestampError() {
    return publicError(TVKMSGErrorInvalidInput, "archived_input_invalid");
}
TVKError TVKMSGMetadataKeyInvalidError() {
    return publicError(TVKMSGErrorInvalidInput, "metadata_key_invalid");
}
TVKError TVKMSGMetadataValueInvalidError() {
    return publicError(TVKMSGErrorInvalidInput, "metadata_value_invalid");
}
TVKError TVKMSGServerSideError() {
    return publicError(TVKMSGErrorServer, "server_error");
}
TVKError TVKMSGInternalError() {
    return publicError(TVKMSGErrorInternal, "internal_error");
}
TVKError TVKMSGRawDataCannotBeConvertedToJson() {
    return publicError(TVKMSGErrorDataFormat, "raw_data_format_not_allowed");
}

TVKError TVKMSGError(const TVKError& error) {
    if (error.domain == TVKMSGErrorDomain) return error;
    for (const auto& conversion : kConversions) {
        if (!conversion.test(error)) continue;
        auto converted = publicError(conversion.code, conversion.key);
        if (conversion.code == TVKMSGErrorNetworkNoConnection) {
            converted.underlyingError = std::make_shared<const TVKError>(error);
        }
        converted.retryAfter = error.retryAfter;
        return converted;
    }
    auto internal = TVKMSGInternalError();
    internal.retryAfter = error.retryAfter;
    return internal;
}

}  // namespace tavlo
