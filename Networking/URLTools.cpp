// Query strings and URL references for HTTPSessionManager. Pure functions, no I/O.

#include <algorithm>
#include <cctype>
#include <charconv>
#include <cmath>
#include <optional>
#include <vector>

#include "Networking/HTTPSessionManager.hpp"
#include "TavloCoreSDK/Internal/TVKPercentEncoding.hpp"

namespace tavlo::net {
namespace {

std::string formatDouble(double number) {
    char buffer[64];
    // Whole numbers (time stamps in milliseconds, counts) read as integers, not as "1.7e+12".
    bool whole = std::isfinite(number) && number == std::trunc(number) && std::fabs(number) < 1e17;
    auto result =
        whole ? std::to_chars(buffer, buffer + sizeof buffer, number, std::chars_format::fixed)
              : std::to_chars(buffer, buffer + sizeof buffer, number);
    return std::string(buffer, result.ptr);
}

/// The query text of a scalar; nullopt for values that have no query form.
std::optional<std::string> scalarText(const boost::json::value& value) {
    switch (value.kind()) {
        case boost::json::kind::string:
            return std::string(value.get_string());
        case boost::json::kind::int64:
            return std::to_string(value.get_int64());
        case boost::json::kind::uint64:
            return std::to_string(value.get_uint64());
        case boost::json::kind::double_:
            return formatDouble(value.get_double());
        case boost::json::kind::bool_:
            return value.get_bool() ? "true" : "false";
        default:
            return std::nullopt;
    }
}

void appendPair(std::string& query, std::string_view encodedKey, const std::string& value) {
    if (!query.empty()) query += '&';
    query.append(encodedKey);
    query += '=';
    query += percentEncode(value);
}

void appendParameter(std::string& query, std::string_view key, const boost::json::value& value) {
    if (const auto* array = value.if_array()) {
        const std::string arrayKey = percentEncode(std::string(key) + "[]");
        for (const auto& element : *array) {
            if (auto text = scalarText(element)) appendPair(query, arrayKey, *text);
        }
        return;
    }
    if (auto text = scalarText(value)) appendPair(query, percentEncode(key), *text);
}

// --- URL references (RFC 3986, section 5.2) ---

struct URLParts {
    std::optional<std::string> scheme;
    std::optional<std::string> authority;
    std::string path;
    std::optional<std::string> query;
    std::optional<std::string> fragment;
};

bool isScheme(std::string_view text) {
    if (text.empty() || !std::isalpha(static_cast<unsigned char>(text.front()))) return false;
    return std::all_of(text.begin(), text.end(), [](unsigned char c) {
        return std::isalnum(c) || c == '+' || c == '-' || c == '.';
    });
}

URLParts splitURL(std::string_view url) {
    URLParts parts;
    if (auto hash = url.find('#'); hash != std::string_view::npos) {
        parts.fragment = std::string(url.substr(hash + 1));
        url = url.substr(0, hash);
    }
    if (auto question = url.find('?'); question != std::string_view::npos) {
        parts.query = std::string(url.substr(question + 1));
        url = url.substr(0, question);
    }
    auto colon = url.find(':');
    if (colon != std::string_view::npos && isScheme(url.substr(0, colon))) {
        parts.scheme = std::string(url.substr(0, colon));
        url = url.substr(colon + 1);
    }
    if (url.starts_with("//")) {
        auto slash = url.find('/', 2);
        parts.authority =
            std::string(url.substr(2, slash == std::string_view::npos ? slash : slash - 2));
        url = slash == std::string_view::npos ? std::string_view() : url.substr(slash);
    }
    parts.path = std::string(url);
    return parts;
}

std::string joinURL(const URLParts& parts) {
    std::string url;
    if (parts.scheme) url += *parts.scheme + ":";
    if (parts.authority) url += "//" + *parts.authority;
    url += parts.path;
    if (parts.query) url += "?" + *parts.query;
    if (parts.fragment) url += "#" + *parts.fragment;
    return url;
}

void dropLastSegment(std::string& output) {
    auto slash = output.rfind('/');
    output.erase(slash == std::string::npos ? 0 : slash);
}

std::string removeDotSegments(std::string_view input) {
    std::string output;
    while (!input.empty()) {
        if (input.starts_with("../")) {
            input.remove_prefix(3);
        } else if (input.starts_with("./")) {
            input.remove_prefix(2);
        } else if (input.starts_with("/./")) {
            input.remove_prefix(2);
        } else if (input == "/.") {
            input = "/";
        } else if (input.starts_with("/../")) {
            input.remove_prefix(3);
            dropLastSegment(output);
        } else if (input == "/..") {
            input = "/";
            dropLastSegment(output);
        } else if (input == "." || input == "..") {
            input = {};
        } else {
            auto next = input.find('/', 1);
            auto segment = input.substr(0, next);
            output.append(segment);
            input.remove_prefix(segment.size());
        }
    }
    return output;
}

std::string mergePaths(const URLParts& base, const std::string& referencePath) {
    if (base.authority && base.path.empty()) return "/" + referencePath;
    auto slash = base.path.rfind('/');
    if (slash == std::string::npos) return referencePath;
    return base.path.substr(0, slash + 1) + referencePath;
}

URLParts resolveRelative(const URLParts& base, const URLParts& reference) {
    URLParts target = reference;
    target.scheme = base.scheme;
    if (reference.authority) {
        target.path = removeDotSegments(reference.path);
        return target;
    }
    target.authority = base.authority;
    if (reference.path.empty()) {
        target.path = base.path;
        if (!reference.query) target.query = base.query;
    } else if (reference.path.starts_with('/')) {
        target.path = removeDotSegments(reference.path);
    } else {
        target.path = removeDotSegments(mergePaths(base, reference.path));
    }
    return target;
}

}  // namespace

std::string encodeQuery(const boost::json::object& parameters) {
    std::vector<std::string_view> keys;
    keys.reserve(parameters.size());
    for (const auto& member : parameters) keys.push_back(member.key());
    std::sort(keys.begin(), keys.end());
    std::string query;
    for (auto key : keys) appendParameter(query, key, parameters.at(key));
    return query;
}

std::string resolveURL(const std::string& base, const std::string& reference) {
    URLParts referenceParts = splitURL(reference);
    if (referenceParts.scheme) {
        referenceParts.path = removeDotSegments(referenceParts.path);
        return joinURL(referenceParts);
    }
    return joinURL(resolveRelative(splitURL(base), referenceParts));
}

}  // namespace tavlo::net
