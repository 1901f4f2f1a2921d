#include "Networking/RetryAfter.hpp"

#include <curl/curl.h>

#include <algorithm>
#include <cctype>
#include <charconv>
#include <limits>
#include <string>

namespace tavlo::net {
namespace {

std::string_view trimmed(std::string_view text) {
    auto blank = [](char c) { return c == ' ' || c == '\t'; };
    while (!text.empty() && blank(text.front())) text.remove_prefix(1);
    while (!text.empty() && blank(text.back())) text.remove_suffix(1);
    return text;
}

bool allDigits(std::string_view text) {
    return !text.empty() &&
           std::all_of(text.begin(), text.end(), [](unsigned char c) { return std::isdigit(c); });
}

std::optional<std::chrono::seconds> deltaSeconds(std::string_view digits) {
    std::int64_t seconds = 0;
    auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), seconds);
    // Too many digits to count is still "a long time": the caller caps it anyway.
    if (error == std::errc::result_out_of_range) {
        return std::chrono::seconds(std::numeric_limits<std::int32_t>::max());
    }
    if (error != std::errc() || end != digits.data() + digits.size()) return std::nullopt;
    return std::chrono::seconds(seconds);
}

}  // namespace

std::optional<std::chrono::seconds> parseRetryAfter(std::string_view value,
                                                    std::chrono::system_clock::time_point now) {
    value = trimmed(value);
    if (value.empty()) return std::nullopt;
    if (allDigits(value)) return deltaSeconds(value);
    // libcurl's date parser reads the IMF-fixdate, RFC 850 and asctime forms alike.
    const std::string text(value);
    const time_t when = curl_getdate(text.c_str(), nullptr);
    if (when == -1) return std::nullopt;
    const auto wait = std::chrono::system_clock::from_time_t(when) - now;
    return std::max(std::chrono::seconds(0), std::chrono::ceil<std::chrono::seconds>(wait));
}

}  // namespace tavlo::net
