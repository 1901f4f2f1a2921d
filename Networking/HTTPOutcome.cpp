#include "Networking/HTTPOutcome.hpp"

#include <algorithm>
#include <boost/json/parse.hpp>
#include <cctype>

#include "Networking/HTTPSessionManager.hpp"
#include "Networking/RetryAfter.hpp"
#include "Networking/TVKNetworkError.hpp"

namespace tavlo::net {
namespace {

// Secrets shorter than this ("v2", "1") would match ordinary words and hide useful texts.
constexpr std::size_t kMinimumSecretLength = 4;

bool isBlank(std::string_view text) {
    return std::all_of(text.begin(), text.end(),
                       [](unsigned char c) { return std::isspace(c) != 0; });
}

std::string_view reasonPhrase(long status) {
    switch (status) {
        case 400:
            return "bad request";
        case 401:
            return "unauthorized";
        case 403:
            return "forbidden";
        case 404:
            return "not found";
        case 405:
            return "method not allowed";
        case 408:
            return "request timeout";
        case 409:
            return "conflict";
        case 413:
            return "payload too large";
        case 429:
            return "too many requests";
        case 500:
            return "internal server error";
        case 502:
            return "bad gateway";
        case 503:
            return "service unavailable";
        case 504:
            return "gateway timeout";
        default:
            return "";
    }
}

std::string statusDescription(long status) {
    auto phrase = reasonPhrase(status);
    std::string text = "Request failed: ";
    if (!phrase.empty()) text += std::string(phrase) + " ";
    return text + "(" + std::to_string(status) + ")";
}

TVKError responseError(long code, std::string description, HTTPResult& result) {
    TVKError error(kHTTPResponseErrorDomain, code);
    error.localizedDescription = std::move(description);
    error.failingResponseStatus = result.status;
    error.failingResponseData = std::move(result.body);
    if (result.retryAfter) {
        error.retryAfter = parseRetryAfter(*result.retryAfter, std::chrono::system_clock::now());
    }
    return error;
}

TVKError transportError(const HTTPResult& result, const std::vector<std::string>& secrets) {
    TVKError error(kTVKURLErrorDomain, static_cast<long>(result.code));
    error.localizedDescription =
        redactTransportMessage(result.transportMessage, result.code, secrets);
    return error;
}

bool containsSecret(std::string_view text, const std::vector<std::string>& secrets) {
    return std::any_of(secrets.begin(), secrets.end(), [&](const std::string& secret) {
        return secret.size() >= kMinimumSecretLength && text.find(secret) != std::string_view::npos;
    });
}

/// Replaces every "scheme://..." run up to the next blank with "<URL>".
std::string withoutURLs(std::string_view message) {
    std::string text;
    for (;;) {
        auto marker = message.find("://");
        if (marker == std::string_view::npos) break;
        auto start = marker;
        while (start > 0 && std::isalpha(static_cast<unsigned char>(message[start - 1]))) --start;
        auto end = message.find_first_of(" \t\r\n'\"", marker);
        if (end == std::string_view::npos) end = message.size();
        text.append(message.substr(0, start)).append("<URL>");
        message.remove_prefix(end);
    }
    return text.append(message);
}

}  // namespace

std::string redactTransportMessage(std::string_view message, CURLcode code,
                                   const std::vector<std::string>& secrets) {
    std::string text = withoutURLs(message);
    while (!text.empty() && std::isspace(static_cast<unsigned char>(text.back()))) text.pop_back();
    if (text.empty() || containsSecret(text, secrets)) return curl_easy_strerror(code);
    return text;
}

HTTPOutcome interpretResult(HTTPResult result, const std::vector<std::string>& secrets) {
    if (result.code != CURLE_OK) return transportError(result, secrets);
    if (result.status < 200 || result.status > 299) {
        return responseError(result.status, statusDescription(result.status), result);
    }
    // An empty answer (204 No Content, or a 200 with nothing to say) is a success without data.
    if (isBlank(result.body)) return boost::json::value();
    boost::system::error_code parseError;
    auto json = boost::json::parse(result.body, parseError);
    if (parseError) return responseError(0, "The answer is not valid JSON", result);
    return json;
}

}  // namespace tavlo::net
