#pragma once

#include "TavloCoreSDK/TVKExport.hpp"

#include <optional>
#include <string>

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
