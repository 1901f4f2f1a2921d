#include "Networking/URLRedaction.hpp"

#include <cctype>

#include "TavloCoreSDK/Internal/TVKPercentEncoding.hpp"

namespace tavlo::net {
namespace {

constexpr std::string_view kRedacted = "***";

bool isLogged(std::string_view encodedName,
              const std::set<std::string, std::less<>>& loggedQueryNames) {
    std::string name = percentDecode(encodedName);
    if (name.size() > 2 && name.ends_with("[]")) name.resize(name.size() - 2);
    return loggedQueryNames.contains(name);
}

std::string redactedQuery(std::string_view query,
                          const std::set<std::string, std::less<>>& loggedQueryNames) {
    std::string text;
    while (!query.empty()) {
        const auto end = query.find_first_of("&;");
        const std::string_view pair = query.substr(0, end);
        query.remove_prefix(end == std::string_view::npos ? query.size() : end + 1);
        if (pair.empty()) continue;
        if (!text.empty()) text += '&';
        const auto equals = pair.find('=');
        if (equals == std::string_view::npos) {
            // A bare word may itself be a token ("?abc123").
            text += isLogged(pair, loggedQueryNames) ? pair : kRedacted;
            continue;
        }
        const std::string_view name = pair.substr(0, equals);
        text.append(name).append("=");
        text += isLogged(name, loggedQueryNames) ? pair.substr(equals + 1) : kRedacted;
    }
    return text;
}

std::string redactedPath(std::string_view path, std::string_view pathCredential) {
    if (pathCredential.empty()) return std::string(path);
    std::string text;
    while (true) {
        const auto end = path.find('/');
        const std::string_view segment = path.substr(0, end);
        const bool secret = segment.find(pathCredential) != std::string_view::npos ||
                            percentDecode(segment).find(pathCredential) != std::string::npos;
        text += secret ? kRedacted : segment;
        if (end == std::string_view::npos) break;
        text += '/';
        path.remove_prefix(end + 1);
    }
    // A credential holding a "/" spans segments; it is cut out wherever it stands.
    for (auto at = text.find(pathCredential); at != std::string::npos;
         at = text.find(pathCredential, at + kRedacted.size())) {
        text.replace(at, pathCredential.size(), kRedacted);
    }
    return text;
}

}  // namespace

std::string redactedURL(std::string_view url, std::string_view pathCredential,
                        const std::set<std::string, std::less<>>& loggedQueryNames) {
    url = url.substr(0, url.find('#'));
    std::string text;
    const auto schemeEnd = url.find("://");
    if (schemeEnd != std::string_view::npos) {
        const auto authorityStart = schemeEnd + 3;
        const auto authorityEnd = url.find_first_of("/?", authorityStart);
        std::string_view authority = url.substr(authorityStart, authorityEnd - authorityStart);
        if (const auto at = authority.rfind('@'); at != std::string_view::npos) {
            authority.remove_prefix(at + 1);
        }
        text.append(url.substr(0, authorityStart)).append(authority);
        url.remove_prefix(authorityEnd == std::string_view::npos ? url.size() : authorityEnd);
    } else if (const auto at = url.substr(0, url.find_first_of("/?")).rfind('@');
               at != std::string_view::npos) {
        // No scheme, as a proxy setting may be written ("user:pass@proxy:3128"): the part
        // before the '@' is still user information.
        url.remove_prefix(at + 1);
    }
    const auto queryStart = url.find('?');
    text += redactedPath(url.substr(0, queryStart), pathCredential);
    if (queryStart != std::string_view::npos) {
        text += '?';
        text += redactedQuery(url.substr(queryStart + 1), loggedQueryNames);
    }
    return text;
}

}  // namespace tavlo::net
