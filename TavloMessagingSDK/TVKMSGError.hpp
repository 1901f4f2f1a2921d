#pragma once

#include "TavloCoreSDK/TVKExport.hpp"

#include <optional>
#include <string>
#include <system_error>
#include <type_traits>

#include "TavloCoreSDK/TVKError.hpp"

namespace tavlo {

/// The domain of every error an application receives.
inline constexpr const char* TVKMSGErrorDomain = "TVKMSGErrorDomain";

/// Codes of the public domain. Some codes are shared on purpose (14: archive times and both
/// metadata checks; 17: aggregate length and raw data); tell those apart by the description.
enum TVKMSGErrorCode : long {
    TVKMSGErrorNetworkNoConnection = 0,
    TVKMSGErrorChannelCodeLength = 1,
    TVKMSGErrorGuestCreateChatNotSupported = 2,
    TVKMSGErrorChannelNotConnected = 3,
    TVKMSGErrorChannelAlreadyConnected = 4,
    TVKMSGErrorMemberNicknameUpdateNotSupported = 5,
    TVKMSGErrorNicknameLength = 6,
    TVKMSGErrorMessageLength = 7,
    TVKMSGErrorUpdateUserRole = 8,
    TVKMSGErrorUnauthorized = 9,
    TVKMSGErrorPermission = 10,
    TVKMSGErrorChatroomNotFound = 11,
    TVKMSGErrorMemberIdNotFound = 12,
    TVKMSGErrorArchivedIdNotFound = 13,
    TVKMSGErrorInvalidInput = 14,
    TVKMSGErrorServer = 15,
    TVKMSGErrorInternal = 16,
    TVKMSGErrorDataFormat = 17,
    TVKMSGErrorTooManyRequests = 19,
};

/// The codes of the public domain as a scoped enumeration, for `std::error_code`:
///
///     void onFailure(const tavlo::TVKError& error) {
///         if (error == tavlo::TVKMSGErrc::channelNotConnected) reconnect();
///         std::error_code code = error;  // category "TVKMSGErrorDomain", same number
///     }
///
/// The numbers are those of `TVKMSGErrorCode`.
enum class TVKMSGErrc : int {
    networkNoConnection = TVKMSGErrorNetworkNoConnection,
    channelCodeLength = TVKMSGErrorChannelCodeLength,
    guestCreateChatNotSupported = TVKMSGErrorGuestCreateChatNotSupported,
    channelNotConnected = TVKMSGErrorChannelNotConnected,
    channelAlreadyConnected = TVKMSGErrorChannelAlreadyConnected,
    memberNicknameUpdateNotSupported = TVKMSGErrorMemberNicknameUpdateNotSupported,
    nicknameLength = TVKMSGErrorNicknameLength,
    messageLength = TVKMSGErrorMessageLength,
    updateUserRole = TVKMSGErrorUpdateUserRole,
    unauthorized = TVKMSGErrorUnauthorized,
    permission = TVKMSGErrorPermission,
    chatroomNotFound = TVKMSGErrorChatroomNotFound,
    memberIdNotFound = TVKMSGErrorMemberIdNotFound,
    archivedIdNotFound = TVKMSGErrorArchivedIdNotFound,
    invalidInput = TVKMSGErrorInvalidInput,
    server = TVKMSGErrorServer,
    internal = TVKMSGErrorInternal,
    dataFormat = TVKMSGErrorDataFormat,
    tooManyRequests = TVKMSGErrorTooManyRequests,
};

/// The error category of the public domain: its name is "TVKMSGErrorDomain" and `message`
/// gives the localized description of a code in the current language. Codes 14 and 17 are
/// shared by several errors; their message is the text of the first error of the table
/// ("archived_input_invalid", "aggregate_data_length_error"), so read a `TVKError`'s own
/// `localizedDescription` where the difference matters.
TAVLO_EXPORT const std::error_category& TVKMSGErrorCategory() noexcept;

TAVLO_EXPORT std::error_code make_error_code(TVKMSGErrc code) noexcept;

/// The error as an `std::error_code` of the public domain: an error of another domain is first
/// converted by `TVKMSGError`. `std::error_code code = error;` calls this.
TAVLO_EXPORT std::error_code make_error_code(const TVKError& error);

/// True when the error, converted into the public domain, has that code.
TAVLO_EXPORT bool operator==(const TVKError& error, TVKMSGErrc code);

/// The localized text of a public error key ("chatroom_not_found", ...) in the current language;
/// a key without a text yields the key itself.
TAVLO_EXPORT std::optional<std::string> TVKMsgLocalizedStringForKey(const std::string& key);

/// Chooses the language of error texts ("en", "de"). Unknown languages fall back to English.
/// By default the language comes from LC_ALL, LC_MESSAGES or LANG.
TAVLO_EXPORT void TVKMsgSetLanguage(const std::string& language);

TAVLO_EXPORT TVKError TVKMSGNotConnectedError();
/// "text" gives code 7, "aggregate" code 17; any other type an error without description.
TAVLO_EXPORT TVKError TVKMSGLengthErrorWithMsgType(const std::string& msgType);
TAVLO_EXPORT TVKError TVKMSGChatroomNotFoundError();
TAVLO_EXPORT TVKError TVKMSGMemberIdNotFoundError();
TAVLO_EXPORT TVKError TVKMSGArchivedIdNotFoundError();
TAVLO_EXPORT TVKError TVKMSGArchivedInputTimestampError();
TAVLO_EXPORT TVKError TVKMSGMetadataKeyInvalidError();
TAVLO_EXPORT TVKError TVKMSGMetadataValueInvalidError();
TAVLO_EXPORT TVKError TVKMSGServerSideError();
TAVLO_EXPORT TVKError TVKMSGInternalError();
TAVLO_EXPORT TVKError TVKMSGRawDataCannotBeConvertedToJson();

/// Converts any error into the public domain; public errors pass unchanged. A connectivity
/// failure becomes code 0 and keeps the original as its underlying error.
TAVLO_EXPORT TVKError TVKMSGError(const TVKError& error);

}  // namespace tavlo

template <>
struct std::is_error_code_enum<tavlo::TVKMSGErrc> : std::true_type {};

// Lets a `TVKError` initialise or be assigned to an `std::error_code` (through the
// `make_error_code` overload above), as completion handlers taking an error code expect.
template <>
struct std::is_error_code_enum<tavlo::TVKError> : std::true_type {};
