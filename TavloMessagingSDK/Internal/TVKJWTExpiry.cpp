#include "TavloMessagingSDK/Internal/TVKJWTExpiry.hpp"

#include <array>
#include <boost/json/parse.hpp>
#include <cmath>
#include <cstdint>
#include <string>

namespace tavlo {
namespace {

// Payloads are a few hundred bytes; anything far larger is not worth decoding.
constexpr std::size_t kMaximumPayloadLength = 16 * 1024;

int base64URLValue(unsigned char c) {
    if (c >= 'A' && c <= 'Z') return c - 'A';
    if (c >= 'a' && c <= 'z') return c - 'a' + 26;
    if (c >= '0' && c <= '9') return c - '0' + 52;
    if (c == '-') return 62;
    if (c == '_') return 63;
    return -1;
}

/// The base64url text (padding optional) decoded, or nullopt when it is not base64url.
std::optional<std::string> decodeBase64URL(std::string_view text) {
    while (!text.empty() && text.back() == '=') text.remove_suffix(1);
    if (text.size() % 4 == 1) return std::nullopt;
    std::string bytes;
    bytes.reserve(text.size() * 3 / 4);
    std::uint32_t bits = 0;
    int bitCount = 0;
    for (unsigned char c : text) {
        const int value = base64URLValue(c);
        if (value < 0) return std::nullopt;
        bits = (bits << 6) | static_cast<std::uint32_t>(value);
        bitCount += 6;
        if (bitCount >= 8) {
            bitCount -= 8;
            bytes.push_back(static_cast<char>((bits >> bitCount) & 0xFF));
        }
    }
    return bytes;
}

/// The middle one of the three dot-separated parts.
std::optional<std::string_view> payloadPart(std::string_view jwt) {
    const auto first = jwt.find('.');
    if (first == std::string_view::npos) return std::nullopt;
    const auto second = jwt.find('.', first + 1);
    if (second == std::string_view::npos || jwt.find('.', second + 1) != std::string_view::npos) {
        return std::nullopt;
    }
    return jwt.substr(first + 1, second - first - 1);
}

}  // namespace

std::optional<std::chrono::system_clock::time_point> jwtExpiry(std::string_view jwt) {
    const auto part = payloadPart(jwt);
    if (!part || part->size() > kMaximumPayloadLength) return std::nullopt;
    const auto payload = decodeBase64URL(*part);
    if (!payload) return std::nullopt;
    boost::system::error_code error;
    const auto claims = boost::json::parse(*payload, error);
    const auto* object = error ? nullptr : claims.if_object();
    const auto* exp = object ? object->if_contains("exp") : nullptr;
    if (!exp || !exp->is_number()) return std::nullopt;
    const double seconds = exp->to_number<double>();
    // Far outside what a clock can hold: no usable expiry.
    if (!std::isfinite(seconds) || std::fabs(seconds) > 1e11) return std::nullopt;
    return std::chrono::system_clock::time_point(
        std::chrono::duration_cast<std::chrono::system_clock::duration>(
            std::chrono::duration<double>(seconds)));
}

bool jwtHasExpired(std::string_view jwt, std::chrono::system_clock::time_point now) {
    const auto expiry = jwtExpiry(jwt);
    return expiry && *expiry <= now;
}

}  // namespace tavlo
