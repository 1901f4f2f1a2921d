#pragma once

#include <chrono>
#include <optional>
#include <string_view>

namespace tavlo {

/// When a JWT stops being valid: its "exp" claim (seconds since 1970), read without checking
/// the signature (only the service can). nullopt when the token is not a JWT, its payload is not
/// JSON, or it names no expiry: such a token is taken to be valid until the service says not.
std::optional<std::chrono::system_clock::time_point> jwtExpiry(std::string_view jwt);

/// True when the JWT names an expiry that `now` has reached.
bool jwtHasExpired(std::string_view jwt, std::chrono::system_clock::time_point now);

}  // namespace tavlo
