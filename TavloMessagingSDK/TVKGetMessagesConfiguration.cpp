#include "TavloMessagingSDK/TVKGetMessagesConfiguration.hpp"

#include <cmath>
#include <limits>
#include <optional>

namespace tavlo {

namespace {

constexpr std::int64_t kDefaultPage = 1;
constexpr std::int64_t kDefaultPerPage = 10;
// A page size above this becomes kPageSizeCap, so the service never returns more per request.
constexpr std::int64_t kLargestUncappedPageSize = 99;
constexpr std::uint64_t kPageSizeCap = 100;
constexpr std::int64_t kLargestOffset = std::numeric_limits<std::int64_t>::max();
// TVKChatMessageTypeNormalText: the type listed unless the caller picks another.
constexpr const char* kDefaultMessageType = "text";

bool isNumber(const boost::json::value& value) {
    return value.is_number() || value.is_bool();
}

// The integer part of a number; values beyond the 64-bit range saturate, NaN reads as 0.
std::optional<std::int64_t> integerValue(const boost::json::value& value) {
    using Limits = std::numeric_limits<std::int64_t>;
    switch (value.kind()) {
        case boost::json::kind::bool_:
            return value.get_bool() ? 1 : 0;
        case boost::json::kind::int64:
            return value.get_int64();
        case boost::json::kind::uint64: {
            const std::uint64_t number = value.get_uint64();
            if (number > static_cast<std::uint64_t>(Limits::max())) return Limits::max();
            return static_cast<std::int64_t>(number);
        }
        case boost::json::kind::double_: {
            const double number = value.get_double();
            if (std::isnan(number)) return 0;
            // 2^63 is exact as a double; every double below it converts without overflow.
            constexpr double kTwoTo63 = 9223372036854775808.0;
            if (number >= kTwoTo63) return Limits::max();
            if (number <= -kTwoTo63) return Limits::min();
            return static_cast<std::int64_t>(number);
        }
        default:
            return std::nullopt;
    }
}

std::uint64_t pageSize(const boost::json::value& perPage) {
    const auto requested = integerValue(perPage);
    if (!requested || *requested <= 0) return kDefaultPerPage;
    if (*requested > kLargestUncappedPageSize) return kPageSizeCap;
    return static_cast<std::uint64_t>(*requested);
}

std::int64_t pageNumber(const boost::json::value& page) {
    const auto requested = integerValue(page);
    if (!requested || *requested <= 0) return kDefaultPage;
    return *requested;
}

}  // namespace

TVKGetMessagesConfiguration::TVKGetMessagesConfiguration()
    : page_(kDefaultPage), perPage_(kDefaultPerPage), msgType_(kDefaultMessageType) {}

void TVKGetMessagesConfiguration::setPage(const boost::json::value& page) {
    page_ = isNumber(page) ? page : boost::json::value(kDefaultPage);
}

void TVKGetMessagesConfiguration::setPerPage(const boost::json::value& perPage) {
    perPage_ = isNumber(perPage) ? perPage : boost::json::value(kDefaultPerPage);
}

boost::json::object TVKGetMessagesConfiguration::convertToCountAndOffsetWithPage(
    const boost::json::value& page, const boost::json::value& perPage) {
    const std::uint64_t size = pageSize(perPage);
    const auto pagesBefore = static_cast<std::uint64_t>(pageNumber(page) - 1);
    const std::uint64_t largestOffset = static_cast<std::uint64_t>(kLargestOffset);
    const std::int64_t offset = pagesBefore <= largestOffset / size
                                    ? static_cast<std::int64_t>(pagesBefore * size)
                                    : kLargestOffset;
    boost::json::object countAndOffset;
    countAndOffset.emplace("count", size);
    countAndOffset.emplace("offset", offset);
    return countAndOffset;
}

boost::json::object TVKGetMessagesConfiguration::getConfigurationDictionary() const {
    boost::json::object parameters = convertToCountAndOffsetWithPage(page_, perPage_);
    if (!oldestDate_.is_null()) parameters.emplace("oldestDate", oldestDate_);
    if (!latestDate_.is_null()) parameters.emplace("latestDate", latestDate_);
    parameters.emplace("order", order_ != 0 ? "desc" : "asc");
    // The type is a string, never null, so it is always sent.
    parameters.emplace("msgType", msgType_);
    return parameters;
}

}  // namespace tavlo
