#include "TavloMessagingSDK/TVKChatUser.hpp"

#include <cmath>
#include <limits>
#include <string_view>

namespace tavlo {

namespace {

bool isSpace(char c) {
    return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\f' || c == '\v';
}

bool isDigit(char c) {
    return c >= '0' && c <= '9';
}

// Reads the decimal number at the start of `text`, the way labels arrive when a service sends
// them as text: white space and a sign first, then digits until anything else. Text that does
// not start with a number reads as 0, as the service's own readers of such labels do.
std::int64_t leadingInteger(std::string_view text) {
    std::size_t at = 0;
    while (at < text.size() && isSpace(text[at])) ++at;
    bool negative = false;
    if (at < text.size() && (text[at] == '+' || text[at] == '-')) negative = text[at++] == '-';
    if (at == text.size() || !isDigit(text[at])) return 0;

    // Accumulated as a negative number, whose range holds the magnitude of INT64_MIN.
    constexpr std::int64_t kMin = std::numeric_limits<std::int64_t>::min();
    std::int64_t value = 0;
    bool saturated = false;
    for (; at < text.size() && isDigit(text[at]); ++at) {
        const int digit = text[at] - '0';
        if (value < (kMin + digit) / 10) {
            saturated = true;
            break;
        }
        value = value * 10 - digit;
    }
    if (saturated) return negative ? kMin : std::numeric_limits<std::int64_t>::max();
    if (negative) return value;
    if (value == kMin) return std::numeric_limits<std::int64_t>::max();
    return -value;
}

}  // namespace

std::optional<std::int64_t> labelFromJSON(const boost::json::value& value) {
    if (const auto* text = value.if_string()) return leadingInteger(*text);
    if (value.is_int64()) return value.get_int64();
    if (value.is_uint64()) {
        const auto number = value.get_uint64();
        if (number > static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max())) {
            return std::nullopt;
        }
        return static_cast<std::int64_t>(number);
    }
    if (value.is_double()) {
        // 2^63 is exactly representable; every double below it in magnitude converts safely.
        constexpr double kLimit = 9223372036854775808.0;
        const double number = value.get_double();
        if (!std::isfinite(number) || std::trunc(number) != number) return std::nullopt;
        if (number < -kLimit || number >= kLimit) return std::nullopt;
        return static_cast<std::int64_t>(number);
    }
    return std::nullopt;
}

bool DQChatUser::mapJSON(const boost::json::object& json) {
    if (const auto* label = json_read::any(json, "label")) label_ = labelFromJSON(*label);
    role_ = json_read::string(json, "role");
    userId_ = json_read::string(json, "userId");
    name_ = json_read::string(json, "name");
    avatar_ = json_read::string(json, "avatar");
    if (const auto* identities = json_read::object(json, "identities")) identities_ = *identities;
    status_ = json_read::string(json, "status");
    updatedDate_ = json_read::string(json, "updatedDate");
    return true;
}

}  // namespace tavlo
