#pragma once

#include "TavloCoreSDK/TVKError.hpp"

namespace tavlo {

/// Domain of transport failures of the HTTP layer; the code is libcurl's CURLcode.
inline constexpr const char* kTVKURLErrorDomain = "TVKURLErrorDomain";

/// True when the error is a connectivity failure rather than an answer: the host could not be
/// resolved or reached, the connection was refused, reset, closed early or timed out, the TLS
/// handshake failed, or nothing came back. These are worth retrying once the network is back.
/// Certificate verification failures count too (a captive portal or a proxy usually causes them).
bool isNetworkError(const TVKError& error);

}  // namespace tavlo
