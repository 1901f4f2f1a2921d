#pragma once

#include <set>
#include <string>
#include <string_view>

namespace tavlo::net {

/// `url` as it may appear in a log line. Redaction works from what is known to be harmless, not
/// from what is known to be secret:
///  - user name and password ("user:pass@") are dropped, with or without a scheme in front, and
///    so is the fragment;
///  - a query value is kept only when its name (percent-decoded, without a trailing "[]") is in
///    `loggedQueryNames`; every other value becomes "***", as does a value-less pair's name;
///  - a path segment holding `pathCredential`, a credential the caller placed in the path (an
///    API token), becomes "***".
/// Scheme, host, port and the other path segments stay as they are.
std::string redactedURL(std::string_view url, std::string_view pathCredential,
                        const std::set<std::string, std::less<>>& loggedQueryNames);

}  // namespace tavlo::net
