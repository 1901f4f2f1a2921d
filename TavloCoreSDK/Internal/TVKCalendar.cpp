#include "TavloCoreSDK/Internal/TVKCalendar.hpp"

namespace tavlo {

std::tm utcCalendarTime(std::time_t seconds) {
    std::tm utc{};
#if defined(_WIN32)
    if (gmtime_s(&utc, &seconds) != 0) utc = std::tm{};
#else
    if (!gmtime_r(&seconds, &utc)) utc = std::tm{};
#endif
    return utc;
}

}  // namespace tavlo
