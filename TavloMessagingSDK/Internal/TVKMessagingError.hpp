#pragma once

#include <boost/json/value.hpp>
#include <optional>
#include <string>
#include <string_view>

#include "TavloCoreSDK/TVKError.hpp"

namespace tavlo {

// Internal error domains of the library. Applications only ever see errors of the public domain
// (see TVKMSGError.hpp); these are the values its parts pass among themselves.

inline constexpr const char* TVKMessagingErrorDomain = "TVKMessagingErrorDomain";
inline constexpr const char* TVKMessagingHTTPErrorDomain = "TVKMessagingHTTPErrorDomain";
inline constexpr const char* TVKMessagingSocketErrorDomain = "TVKMessagingSocketErrorDomain";
/// User-info key of the data that could not be mapped (kept in `TVKError::data`).
inline constexpr const char* TVKMessagingErrorDataKey = "TVKMessagingErrorDataKey";
/// User-info key of a socket error's reason text (kept in `TVKError::reason`).
inline constexpr const char* TVKMessagingErrorReasonKey = "TVKMessagingErrorReasonKey";

// --- General messaging errors ---------------------------------------------------------------
TVKError TVKMemberTokenRequiredError();
TVKError TVKChannelCodeLengthError();
TVKError TVKEmptyChatProfileError();
TVKError TVKNotManipulableUserError();
TVKError TVKUserBoundWithChatError();
TVKError TVKUserNotBoundWithChatError();
TVKError TVKUpdateMemberNicknameError();
TVKError TVKUpdateUserRoleError();
TVKError TVKUserNoPermissionError();
TVKError TVKNicknameLengthError();
/// A server record that could not be mapped; `data` is kept when given.
TVKError TVKDataMappingErrorWithData(std::optional<boost::json::value> data);

/// Domain test of the group; every code test below checks it before the number.
bool isTVKError(const TVKError& error);
bool isTVKMemberTokenRequiredError(const TVKError& error);
bool isTVKChannelCodeLengthError(const TVKError& error);
bool isTVKEmptyChatProfileError(const TVKError& error);
bool isTVKUserBoundWithChatError(const TVKError& error);
bool isTVKUserNotBoundWithChatError(const TVKError& error);
bool isTVKUpdateMemberNicknameError(const TVKError& error);
bool isTVKUpdateUserRoleError(const TVKError& error);
bool isTVKUserNoPermissionError(const TVKError& error);
bool isTVKNicknameLengthError(const TVKError& error);

// --- HTTP errors -------------------------------------------------------------------------
enum TVKHTTPErrorCode : long {
    TVKHTTPErrorUnknown = 0,
    TVKHTTPErrorBadRequest = 1,
    TVKHTTPErrorUnauthorized = 2,
    TVKHTTPErrorPermissionViolation = 3,
    TVKHTTPErrorEntityNotFound = 4,
    TVKHTTPErrorDuplicateEntity = 5,
    TVKHTTPErrorInvalidRequest = 6,
    TVKHTTPErrorServerFailure = 7,
    TVKHTTPErrorDataMissing = 8,
    TVKHTTPErrorTooManyRequests = 9,
};

TVKError TVKHTTPInvalidRequestError();
TVKError TVKHTTPDataMissingError();
/// The error of a failed answer: its code classifies the status and the server's "code".
TVKError TVKHTTPErrorWithResponse(long status, std::optional<std::string_view> body);

/// The server's error name: the "code" string of a JSON object body, else nothing.
std::optional<std::string> errorCodeStringFromData(std::optional<std::string_view> body);
/// The HTTP-domain code of an answer; status and server code must both match, else unknown.
long errorCodeForResponse(long status, std::optional<std::string_view> body);

/// Domain test of the group; every code test below checks it before the number.
bool isTVKHTTPError(const TVKError& error);
bool isTVKHTTPUnknownError(const TVKError& error);
bool isTVKHTTPUnauthorizedError(const TVKError& error);
bool isTVKHTTPPermissionViolationError(const TVKError& error);
bool isTVKHTTPEntityNotFoundError(const TVKError& error);
bool isTVKHTTPInvalidRequestError(const TVKError& error);
bool isTVKHTTPServerFailureError(const TVKError& error);
bool isTVKHTTPTooManyRequestError(const TVKError& error);

/// True for failures that may pass if tried again later: an unknown HTTP failure, a server
/// failure, or a connectivity failure.
bool isTheErrorNeededRetry(const TVKError& error);

/// Turns an error of the HTTP layer into the library's terms: an answered request becomes an
/// HTTP-domain error; otherwise the underlying error, or the error itself.
TVKError TVKUnwrappedError(const TVKError& error);

// --- Socket errors -------------------------------------------------------------------------
TVKError TVKSocketRawErrorWithReason(std::optional<std::string> reason);
TVKError TVKSocketConnectionTimeoutError();
TVKError TVKSocketConnectionLostError();
/// A realtime connection that could not pass its proxy (unreachable, refusing the tunnel): a
/// connectivity error (`isNetworkError`) whose description is the proxy's answer.
TVKError TVKSocketProxyFailureError(const std::string& reason);
/// A lost connection caused by a connectivity failure it carries as underlying error.
bool isTVKSocketLostToConnectivityError(const TVKError& error);

/// Domain test of the group; every code test below checks it before the number.
bool isTVKSocketError(const TVKError& error);
bool isTVKSocketConnectionTimeoutError(const TVKError& error);
bool isTVKSocketConnectionLostError(const TVKError& error);

}  // namespace tavlo
