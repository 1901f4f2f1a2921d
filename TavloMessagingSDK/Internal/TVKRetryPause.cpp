#include "TavloMessagingSDK/Internal/TVKRetryPause.hpp"

#include <algorithm>
#include <cmath>

#include "TavloMessagingSDK/TVKChatManager.hpp"

namespace tavlo {

dispatch::Duration retryPause(unsigned attemptCount,
                              std::optional<std::chrono::seconds> askedByService) {
    if (!askedByService) {
        const double seconds = std::ldexp(TVKRetryIntervalBase, static_cast<int>(attemptCount));
        return dispatch::Duration(static_cast<dispatch::Duration::rep>(seconds * 1e9));
    }
    const auto asked = std::clamp(*askedByService, std::chrono::seconds(0), kLongestRetryPause);
    return std::chrono::duration_cast<dispatch::Duration>(asked);
}

}  // namespace tavlo
