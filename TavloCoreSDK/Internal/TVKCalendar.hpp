#pragma once

#include <ctime>

namespace tavlo {

/// The calendar fields of a moment in UTC, from the C library's thread-safe conversion of the
/// platform (gmtime_r on POSIX systems, gmtime_s on Windows). All zero if the moment has none.
std::tm utcCalendarTime(std::time_t seconds);

}  // namespace tavlo
