#pragma once

#include "TavloCoreSDK/TVKExport.hpp"

#include <boost/json/value.hpp>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace tavlo {

/// The library's version as a number and as text.
extern TAVLO_EXPORT const double TavloMessagingSDKVersionNumber;
extern TAVLO_EXPORT const char* const TavloMessagingSDKVersionString;

/// The library's identity as the service sees it.
struct TAVLO_EXPORT TVKMessagingUtility {
    /// The identifier under which the library's string tables are registered.
    static const char* bundleIdentifier();
    /// The library's version ("1.0"), fixed at build time.
    static std::optional<std::string> sdkVersion();
    /// "Tavlo iOS SDK(v<version>) in <hardware> <os name> <os version>": the realtime channel
    /// sends it as its "userAgent" parameter. The service parses this exact shape.
    static std::string userAgent();
};

}  // namespace tavlo


// Naming and validation rules for chatroom names, archive identifiers, metadata and time stamps.
// Every function here is pure: no locale, no global state, safe from any thread, never throws.

namespace tavlo {

// --- Personal chatrooms -------------------------------------------------------------------------
// A personal chatroom's channel name is its chatroom name with "p#" in front.

/// True when `name` begins with "p#" (lower-case p only).
TAVLO_EXPORT bool isKindOfPersonalChatroomName(std::string_view name) noexcept;

/// "p#" followed by `name`. An existing prefix is not looked for: "p#a" becomes "p#p#a".
TAVLO_EXPORT std::string addPersonalChatPrefix(std::string_view name);

/// `name` without its first two characters when it begins with "p#", otherwise `name` itself.
TAVLO_EXPORT std::string withoutPrefixChatroomName(std::string_view name);

// --- Identifiers and keys -----------------------------------------------------------------------

/// True for 10 to 32 characters, each a Latin letter, a digit, "_" or "-".
TAVLO_EXPORT bool isLegalArchivedId(std::string_view archivedId) noexcept;

/// True for 1 to 30 characters: the first a Latin letter or digit, the others letters, digits,
/// "_", "@", "#" or "-".
TAVLO_EXPORT bool isLegalChatMetadataKey(std::string_view key) noexcept;

// --- Metadata values ----------------------------------------------------------------------------

/// The text by which a metadata value's size is measured, or nullopt when it cannot be written:
///  - null: "null";
///  - a string: the string between double quotes, with NOTHING escaped inside (the size rule
///    counts the string as it stands; this is not a JSON encoding);
///  - a number: its decimal text; integers without a fraction, booleans as "1" or "0", other
///    numbers in their shortest round-trip form ("1.5", "1e+300"; "nan" and "inf" included);
///  - an array or object: its compact JSON text, no white space. Nullopt when it holds a
///    non-finite number or a string or key that is not valid UTF-8, as no JSON text can hold
///    either. Key order is the object's own.
TAVLO_EXPORT std::optional<std::string> convertToJSONValueString(
    const boost::json::value& value) noexcept;

/// True when the value has a text (see `convertToJSONValueString`) of at most 1024 UTF-16 code
/// units when `broadcast`, else at most 4096. A string's quotes count, so a broadcast string may
/// hold at most 1022 units.
TAVLO_EXPORT bool isLegalChatMetadataValue(const boost::json::value& value,
                                           bool broadcast) noexcept;

// --- Text and time ------------------------------------------------------------------------------

/// The length of UTF-8 text in UTF-16 code units: one per character of the Basic Multilingual
/// Plane, two per character above it. Ill-formed UTF-8 counts as a decoder that substitutes
/// U+FFFD would read it: each maximal ill-formed subpart (a stray byte, a truncated sequence, an
/// overlong form, an encoded surrogate) counts one unit.
TAVLO_EXPORT std::size_t utf16Length(std::string_view utf8) noexcept;

/// Milliseconds since 1970-01-01T00:00:00Z of a time stamp in the service's format
/// "YYYY-MM-ddTHH:mm:ss.SSS" followed by a zone offset ("+0800", "-05:30" or "Z"); 0 when the
/// text does not parse. A time before 1970 gives the two's-complement bit pattern of the
/// negative count (-1 ms is 0xFFFFFFFFFFFFFFFF).
///
/// The year field is the week-based year of the date pattern, but a time stamp carries a month
/// and a day and no week number; with no week to anchor it, the year reads as the calendar year
/// of that month and day. "2019-12-30" is therefore 30 December 2019, even though that day
/// belongs to week 1 of 2020, so a time stamp near New Year never jumps a year.
TAVLO_EXPORT std::uint64_t unixTimeValue(std::string_view timeStamp) noexcept;

}  // namespace tavlo
