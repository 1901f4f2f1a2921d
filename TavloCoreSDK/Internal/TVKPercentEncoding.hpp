#pragma once

#include <string>
#include <string_view>

namespace tavlo {

/// RFC 3986 percent-encoding: every byte outside the unreserved set (letters, digits, "-._~")
/// becomes "%XX" with upper-case hex digits. The HTTP client's queries and the realtime
/// handshake's parameters both use it, so a value reaches either service spelled the same way.
std::string percentEncode(std::string_view text);

/// The inverse for URL components: "%XX" (either case) becomes its byte, a malformed escape
/// stays as it stands, and "+" stays "+" (a space is "%20"; "+" for space is a form-encoding
/// rule that the SDK's own encoder never produces).
std::string percentDecode(std::string_view text);

}  // namespace tavlo
