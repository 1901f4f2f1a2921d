#include "TavloMessagingSDK/Internal/TVKMessagingError.hpp"

#include <curl/curl.h>

#include <boost/json/parse.hpp>

#include "Networking/TVKNetworkError.hpp"

namespace tavlo {
namespace {

enum MessagingCode : long {
    MemberTokenRequired = 0,
    ChannelCodeLength = 1,
    EmptyChatProfile = 2,
    NotManipulableUser = 3,
    UserBoundWithChat = 4,
    UserNotBoundWithChat = 5,
    UpdateMemberNickname = 6,
    UpdateUserRole = 7,
    UserNoPermission = 8,
    NicknameLength = 9,
    DataMapping = 10,
};

enum SocketCode : long { RawError = 0, ConnectionTimeout = 1, ConnectionLost = 2 };

}  // namespace

TVKError TVKMemberTokenRequiredError() {
    return {TVKMessagingErrorDomain, MemberTokenRequired};
}
TVKError TVKChannelCodeLengthError() {
    return {TVKMessagingErrorDomain, ChannelCodeLength};
}
TVKError TVKEmptyChatProfileError() {
    return {TVKMessagingErrorDomain, EmptyChatProfile};
}
TVKError TVKNotManipulableUserError() {
    return {TVKMessagingErrorDomain, NotManipulableUser};
}
TVKError TVKUserBoundWithChatError() {
    return {TVKMessagingErrorDomain, UserBoundWithChat};
}
TVKError TVKUserNotBoundWithChatError() {
    return {TVKMessagingErrorDomain, UserNotBoundWithChat};
}
TVKError TVKUpdateMemberNicknameError() {
    return {TVKMessagingErrorDomain, UpdateMemberNickname};
}
TVKError TVKUpdateUserRoleError() {
    return {TVKMessagingErrorDomain, UpdateUserRole};
}
TVKError TVKUserNoPermissionError() {
    return {TVKMessagingErrorDomain, UserNoPermission};
}
TVKError TVKNicknameLengthError() {
    return {TVKMessagingErrorDomain, NicknameLength};
}

TVKError TVKDataMappingErrorWithData(std::optional<boost::json::value> data) {
    TVKError error(TVKMessagingErrorDomain, DataMapping);
    error.data = std::move(data);
    return error;
}

bool isTVKError(const TVKError& error) {
    return error.domain == TVKMessagingErrorDomain;
}
bool isTVKMemberTokenRequiredError(const TVKError& error) {
    return isTVKError(error) && error.code == MemberTokenRequired;
}
bool isTVKChannelCodeLengthError(const TVKError& error) {
    return isTVKError(error) && error.code == ChannelCodeLength;
}
bool isTVKEmptyChatProfileError(const TVKError& error) {
    return isTVKError(error) && error.code == EmptyChatProfile;
}
bool isTVKUserBoundWithChatError(const TVKError& error) {
    return isTVKError(error) && error.code == UserBoundWithChat;
}
bool isTVKUserNotBoundWithChatError(const TVKError& error) {
    return isTVKError(error) && error.code == UserNotBoundWithChat;
}
bool isTVKUpdateMemberNicknameError(const TVKError& error) {
    return isTVKError(error) && error.code == UpdateMemberNickname;
}
bool isTVKUpdateUserRoleError(const TVKError& error) {
    return isTVKError(error) && error.code == UpdateUserRole;
}
bool isTVKUserNoPermissionError(const TVKError& error) {
    return isTVKError(error) && error.code == UserNoPermission;
}
bool isTVKNicknameLengthError(const TVKError& error) {
    return isTVKError(error) && error.code == NicknameLength;
}

TVKError TVKHTTPInvalidRequestError() {
    return {TVKMessagingHTTPErrorDomain, TVKHTTPErrorInvalidRequest};
}
TVKError TVKHTTPDataMissingError() {
    return {TVKMessagingHTTPErrorDomain, TVKHTTPErrorDataMissing};
}

TVKError TVKHTTPErrorWithResponse(long status, std::optional<std::string_view> body) {
    return {TVKMessagingHTTPErrorDomain, errorCodeForResponse(status, body)};
}

std::optional<std::string> errorCodeStringFromData(std::optional<std::string_view> body) {
    if (!body) return std::nullopt;
    boost::system::error_code parseError;
    auto json = boost::json::parse(*body, parseError);
    if (parseError || !json.is_object()) return std::nullopt;
    const auto* code = json.as_object().if_contains("code");
    if (!code || !code->is_string()) return std::nullopt;
    return std::string(code->get_string());
}

long errorCodeForResponse(long status, std::optional<std::string_view> body) {
    struct Rule {
        long status;
        const char* serverCode;
        long code;
    };
    static constexpr Rule kRules[] = {
        {400, "BadRequestError", TVKHTTPErrorBadRequest},
        {401, "UnauthorizedError", TVKHTTPErrorUnauthorized},
        {403, "PermissionViolationError", TVKHTTPErrorPermissionViolation},
        {404, "EntityNotFoundError", TVKHTTPErrorEntityNotFound},
        {409, "DuplicateEntityError", TVKHTTPErrorDuplicateEntity},
        {409, "InvalidRequestError", TVKHTTPErrorInvalidRequest},
        {429, "TooManyRequestsError", TVKHTTPErrorTooManyRequests},
        {500, "DataAccessError", TVKHTTPErrorServerFailure},
    };
    auto serverCode = errorCodeStringFromData(body);
    if (!serverCode) return TVKHTTPErrorUnknown;
    for (const auto& rule : kRules) {
        if (rule.status == status && *serverCode == rule.serverCode) return rule.code;
    }
    return TVKHTTPErrorUnknown;
}

bool isTVKHTTPError(const TVKError& error) {
    return error.domain == TVKMessagingHTTPErrorDomain;
}
bool isTVKHTTPUnknownError(const TVKError& error) {
    return isTVKHTTPError(error) && error.code == TVKHTTPErrorUnknown;
}
bool isTVKHTTPUnauthorizedError(const TVKError& error) {
    return isTVKHTTPError(error) && error.code == TVKHTTPErrorUnauthorized;
}
bool isTVKHTTPPermissionViolationError(const TVKError& error) {
    return isTVKHTTPError(error) && error.code == TVKHTTPErrorPermissionViolation;
}
bool isTVKHTTPEntityNotFoundError(const TVKError& error) {
    return isTVKHTTPError(error) && error.code == TVKHTTPErrorEntityNotFound;
}
bool isTVKHTTPInvalidRequestError(const TVKError& error) {
    return isTVKHTTPError(error) && error.code == TVKHTTPErrorInvalidRequest;
}
bool isTVKHTTPServerFailureError(const TVKError& error) {
    return isTVKHTTPError(error) && error.code == TVKHTTPErrorServerFailure;
}
bool isTVKHTTPTooManyRequestError(const TVKError& error) {
    return isTVKHTTPError(error) && error.code == TVKHTTPErrorTooManyRequests;
}

bool isTheErrorNeededRetry(const TVKError& error) {
    return isTVKHTTPUnknownError(error) || isTVKHTTPServerFailureError(error) ||
           isNetworkError(error);
}

TVKError TVKUnwrappedError(const TVKError& error) {
    if (error.failingResponseStatus && error.failingResponseData) {
        auto unwrapped =
            TVKHTTPErrorWithResponse(*error.failingResponseStatus, *error.failingResponseData);
        unwrapped.retryAfter = error.retryAfter;
        return unwrapped;
    }
    if (error.underlyingError) return *error.underlyingError;
    return error;
}

TVKError TVKSocketRawErrorWithReason(std::optional<std::string> reason) {
    TVKError error(TVKMessagingSocketErrorDomain, RawError);
    error.reason = std::move(reason);
    return error;
}
TVKError TVKSocketConnectionTimeoutError() {
    return {TVKMessagingSocketErrorDomain, ConnectionTimeout};
}
TVKError TVKSocketConnectionLostError() {
    return {TVKMessagingSocketErrorDomain, ConnectionLost};
}

TVKError TVKSocketProxyFailureError(const std::string& reason) {
    TVKError error(kTVKURLErrorDomain, CURLE_COULDNT_CONNECT);
    error.localizedDescription = reason;
    return error;
}

bool isTVKSocketLostToConnectivityError(const TVKError& error) {
    return isTVKSocketError(error) && error.underlyingError &&
           isNetworkError(*error.underlyingError);
}

bool isTVKSocketError(const TVKError& error) {
    return error.domain == TVKMessagingSocketErrorDomain;
}
bool isTVKSocketConnectionTimeoutError(const TVKError& error) {
    return isTVKSocketError(error) && error.code == ConnectionTimeout;
}
bool isTVKSocketConnectionLostError(const TVKError& error) {
    return isTVKSocketError(error) && error.code == ConnectionLost;
}

}  // namespace tavlo
