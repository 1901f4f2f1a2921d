#include "TavloCoreSDK/TVKError.hpp"

namespace tavlo {

std::string TVKError::describe() const {
    std::string text = domain + "(" + std::to_string(code) + ")";
    if (localizedDescription) text += ": " + *localizedDescription;
    if (reason) text += " [" + *reason + "]";
    if (retryAfter) text += " (retry after " + std::to_string(retryAfter->count()) + " s)";
    if (underlyingError) text += " <- " + underlyingError->describe();
    return text;
}

bool operator==(const TVKError& lhs, const TVKError& rhs) {
    auto sameUnderlying = (lhs.underlyingError == rhs.underlyingError) ||
                          (lhs.underlyingError && rhs.underlyingError &&
                           *lhs.underlyingError == *rhs.underlyingError);
    return lhs.domain == rhs.domain && lhs.code == rhs.code &&
           lhs.localizedDescription == rhs.localizedDescription && sameUnderlying &&
           lhs.data == rhs.data && lhs.reason == rhs.reason &&
           lhs.failingResponseStatus == rhs.failingResponseStatus &&
           lhs.failingResponseData == rhs.failingResponseData && lhs.retryAfter == rhs.retryAfter;
}

}  // namespace tavlo
