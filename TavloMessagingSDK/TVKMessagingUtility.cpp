#include "TavloMessagingSDK/TVKMSGUtility.hpp"

#include "TavloCoreSDK/Internal/TVKDevice.hpp"

#ifndef TAVLO_SDK_VERSION
#error "TAVLO_SDK_VERSION must come from the build"
#endif

namespace tavlo {

const double TavloMessagingSDKVersionNumber = 1.0;
const char* const TavloMessagingSDKVersionString = TAVLO_SDK_VERSION;

const char* TVKMessagingUtility::bundleIdentifier() { return "com.tavlo.TavloMessagingSDK"; }

std::optional<std::string> TVKMessagingUtility::sdkVersion() { return TAVLO_SDK_VERSION; }

std::string TVKMessagingUtility::userAgent() {
    return "Tavlo iOS SDK(v" + sdkVersion().value_or("") + ") in " + hardwareString() + " " +
           systemName() + " " + systemVersion();
}

}  // namespace tavlo
