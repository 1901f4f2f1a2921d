#pragma once

#include <curl/curl.h>

#include <boost/json/value.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "TavloCoreSDK/TVKError.hpp"

namespace tavlo::net {

/// What a finished transfer left behind, before it is judged.
struct HTTPResult {
    CURLcode code = CURLE_OK;
    std::string transportMessage;  ///< libcurl's error buffer (may name the URL)
    long status = 0;
    std::string body;
    std::optional<std::string> retryAfter;  ///< the answer's Retry-After header, if any
};

/// The parsed JSON answer, or the error that goes to the failure callback.
using HTTPOutcome = std::variant<boost::json::value, TVKError>;

/// Judges a finished transfer: a 2xx with a JSON body (or none) succeeds; a transport failure
/// becomes a `kTVKURLErrorDomain` error; any other answer a `kHTTPResponseErrorDomain` error
/// keeping status and body. `secrets` are texts (URL, path, header values) that must never appear
/// in an error's description.
HTTPOutcome interpretResult(HTTPResult result, const std::vector<std::string>& secrets);

/// libcurl's message with URLs cut out; falls back to the generic text of `code` when the message
/// still contains one of `secrets`.
std::string redactTransportMessage(std::string_view message, CURLcode code,
                                   const std::vector<std::string>& secrets);

}  // namespace tavlo::net
