#pragma once

#include <chrono>
#include <optional>
#include <string_view>

namespace tavlo::net {

/// The wait a Retry-After header asks for: delta-seconds ("120") or an HTTP date (any of the
/// three forms HTTP allows), measured from `now`. A date already past asks for no wait at all;
/// a value that is neither form is ignored (nullopt), as HTTP prescribes.
std::optional<std::chrono::seconds> parseRetryAfter(std::string_view value,
                                                    std::chrono::system_clock::time_point now);

}  // namespace tavlo::net
