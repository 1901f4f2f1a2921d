#pragma once

#include "TavloCoreSDK/TVKExport.hpp"

#include <cstdint>
#include <optional>

#include "TavloCoreSDK/TVKError.hpp"

namespace tavlo {

/// Messages of a chatroom that were sent while its connection was down and that the SDK could
/// not deliver after the reconnection (see `TVKChatManager::setRecoversMissedMessages`).
///
/// The bounds are the service's time stamps in milliseconds since 1970, inclusive, ready for
/// `TVKGetMessagesConfiguration::setOldestDate` / `setLatestDate`: listing that range fills the
/// gap. The range may start with messages the application already has (same millisecond as the
/// last one delivered); compare message ids.
struct TAVLO_EXPORT TVKMissedMessagesGap {
    enum Reason {
        /// More messages were missed than one recovery delivers (`kTVKMissedMessagesLimit`); the
        /// oldest ones were delivered, the rest of the range was skipped.
        kTooManyMessages = 0,
        /// The message list could not be fetched, even after retries; `error` says why.
        kFetchFailed = 1,
    };

    Reason reason = kTooManyMessages;
    /// Start of the range not delivered.
    std::int64_t oldestDate = 0;
    /// End of the range; unset when it reaches up to the live messages that follow the event.
    std::optional<std::int64_t> latestDate;
    /// The last failure, for `kFetchFailed`.
    std::optional<TVKError> error;
};

/// At most this many missed messages are delivered after one reconnection; beyond it the
/// application receives `chatroomMissedMessagesGap` with `kTooManyMessages`.
inline constexpr unsigned kTVKMissedMessagesLimit = 1000;

}  // namespace tavlo
