#include "TavloMessagingSDK/TVKAggregatedData.hpp"

#include <cmath>

namespace tavlo {

std::optional<std::uint64_t> unsignedCountFromJSON(const boost::json::value& value) {
    if (value.is_uint64()) return value.get_uint64();
    if (value.is_int64()) return static_cast<std::uint64_t>(value.get_int64());
    if (value.is_double()) {
        constexpr double kTwoTo63 = 9223372036854775808.0;
        const double number = value.get_double();
        if (!std::isfinite(number) || std::trunc(number) != number) return std::nullopt;
        if (number >= 0 && number < 2 * kTwoTo63) return static_cast<std::uint64_t>(number);
        if (number < 0 && number >= -kTwoTo63) {
            return static_cast<std::uint64_t>(static_cast<std::int64_t>(number));
        }
    }
    return std::nullopt;
}

bool TVKAggregatedItem::mapJSON(const boost::json::object& json) {
    key_ = json_read::string(json, "key");
    if (const auto* count = json_read::any(json, "n")) count_ = unsignedCountFromJSON(*count);
    return true;
}

void TVKAggregatedItem::addCount(std::uint64_t count) {
    count_ = count_.value_or(0) + count;
}

}  // namespace tavlo
