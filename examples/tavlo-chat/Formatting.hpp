#pragma once

#include <boost/json/value.hpp>
#include <cstdint>
#include <memory>
#include <string>

#include "TavloMessagingSDK/TavloMessagingSDK.hpp"

namespace tavlo::chat {

/// "Alice (label 9, MODERATOR)".
std::string describeUser(const TVKChatUser& user);
/// "Alice", else "label 9", else "someone".
std::string userName(const TVKChatUser& user);
/// "<id> Alice: text" (a sticker shows its URL, raw data its JSON).
std::string describeMessage(const TVKChatMessage& message);
/// The application's view of an error: its public description and code ("Sending is not
/// allowed (code 10)"). A connectivity failure (code 0) adds the transport's explanation.
std::string describeError(const TVKError& error);
/// "ALL", "LOGIN", "ANCHOR", or "unknown".
std::string writeModeName(TVKChatInputMode mode);
/// Compact JSON.
std::string jsonText(const boost::json::value& value);
/// "like 4, clap 1", or "none".
std::string describeCounters(const TVKAggregatedItems& items);
/// Milliseconds since 1970 as "2023-06-01T09:00:00.000Z".
std::string utcTime(std::uint64_t millis);

}  // namespace tavlo::chat
