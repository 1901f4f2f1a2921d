// How long the SDK waits when the service asks it to slow down: the Retry-After header in both
// of its forms, and the pause the retry schedule takes from it.

#include <gtest/gtest.h>

#include "Networking/RetryAfter.hpp"
#include "TavloMessagingSDK/Internal/TVKRetryPause.hpp"

namespace tavlo {
namespace {

using namespace std::chrono_literals;

TEST(RetryAfter, ReadsDeltaSecondsAndHTTPDates) {
    // Sun, 06 Nov 1994 08:49:37 GMT, the example date of RFC 9110.
    const auto now = std::chrono::system_clock::from_time_t(784111777);
    struct Case {
        std::string value;
        std::optional<std::chrono::seconds> wait;
    };
    const std::vector<Case> cases = {
        {"0", 0s},
        {"5", 5s},
        {" 120 ", 120s},
        {"99999999999999999999999", std::chrono::seconds(2147483647)},
        {"Sun, 06 Nov 1994 08:50:07 GMT", 30s},   // IMF-fixdate
        {"Sunday, 06-Nov-94 08:49:47 GMT", 10s},  // RFC 850
        {"Sun Nov  6 08:49:40 1994", 3s},         // asctime
        {"Sun, 06 Nov 1994 08:00:00 GMT", 0s},    // already past: no wait
        {"", std::nullopt},
        {"-5", std::nullopt},
        {"1.5", std::nullopt},
        {"soon", std::nullopt},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(net::parseRetryAfter(c.value, now), c.wait) << '"' << c.value << '"';
    }
}

TEST(RetryAfter, ThePauseIsTheOneAskedForUpToTheLongestStep) {
    // The schedule's own steps when the service named none.
    EXPECT_EQ(retryPause(0, std::nullopt), 500ms);
    EXPECT_EQ(retryPause(6, std::nullopt), 32s);
    // What the service asked, whatever the attempt, capped at the schedule's longest pause.
    EXPECT_EQ(retryPause(0, 7s), 7s);
    EXPECT_EQ(retryPause(5, 3s), 3s);
    EXPECT_EQ(retryPause(0, 0s), 0s);
    EXPECT_EQ(retryPause(1, 3600s), 32s);
    EXPECT_EQ(retryPause(1, -5s), 0s);
}

}  // namespace
}  // namespace tavlo
