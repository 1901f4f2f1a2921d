#pragma once

#include "TavloCoreSDK/TVKExport.hpp"

#include <optional>
#include <string>

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
