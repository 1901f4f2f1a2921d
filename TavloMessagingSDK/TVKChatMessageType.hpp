#pragma once

namespace tavlo {

// The kinds of message a chatroom carries: what a send names as its type and a message query
// asks for.

/// Text typed by a person.
inline constexpr const char* TVKChatMessageTypeNormalText = "text";
/// Structured data for the application, carried as JSON.
inline constexpr const char* TVKChatMessageTypeRawData = "raw";
/// A key whose counter the service adds up (aggregated data).
inline constexpr const char* TVKChatMessageTypeAggregate = "aggregate";

}  // namespace tavlo
