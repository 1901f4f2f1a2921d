#pragma once

#include "TavloCoreSDK/TVKExport.hpp"

#include <boost/json/value.hpp>
#include <chrono>
#include <memory>
#include <optional>
#include <string>

namespace tavlo {

/// An error value: a domain, a code and the user information that explains it. Errors are
/// passed by value and never thrown across the interface.
struct TAVLO_EXPORT TVKError {
    std::string domain;
    long code = 0;

    /// The text shown to people (public errors carry it; internal ones usually do not).
    std::optional<std::string> localizedDescription;
    /// The error this one was made from, when it wraps another.
    std::shared_ptr<const TVKError> underlyingError;
    /// Data that could not be turned into a record ("TVKMessagingErrorDataKey").
    std::optional<boost::json::value> data;
    /// The reason text of a realtime-channel error ("TVKMessagingErrorReasonKey").
    std::optional<std::string> reason;
    /// The failing HTTP response's status and body, when the request got an answer.
    std::optional<long> failingResponseStatus;
    std::optional<std::string> failingResponseData;
    /// How long the service asked the client to wait before trying again, when it said so (the
    /// Retry-After of a "too many requests" answer, code 19 once public). The SDK's own retries
    /// (connecting, reconnecting, the farewell, missed messages) already wait that long, up to
    /// 32 s; an application retrying an operation of its own should wait at least as long.
    std::optional<std::chrono::seconds> retryAfter;

    TVKError() = default;
    TVKError(std::string domain, long code) : domain(std::move(domain)), code(code) {}

    /// "Domain(code): description" for logs and diagnostics. Holds no credential.
    std::string describe() const;
};

TAVLO_EXPORT bool operator==(const TVKError& lhs, const TVKError& rhs);

}  // namespace tavlo
