#pragma once

#include <boost/json/value.hpp>
#include <cstdint>
#include <optional>
#include <string_view>
#include <utility>
#include <vector>

namespace tavlo {

/// The payload checks of the realtime events that need more than a type test, each on the first
/// item of an event's arguments (nullptr when there is none). Pure: nullopt (or nullptr) means
/// "drop the event".
namespace socket_payload {
/// The item as an object or an array; nullptr when absent or of another kind.
inline const boost::json::object* asObject(const boost::json::value* item) {
    return item ? item->if_object() : nullptr;
}
inline const boost::json::array* asArray(const boost::json::value* item) {
    return item ? item->if_array() : nullptr;
}
/// Both keys present (a JSON null counts), their values as they stand.
std::optional<std::pair<boost::json::value, boost::json::value>> pair(
    const boost::json::value* item, std::string_view first, std::string_view second);
/// The labels of "user_remove", all or nothing.
std::optional<std::vector<std::int64_t>> userLabels(const boost::json::value* item);
/// The "aggregated" array of "agg_data".
const boost::json::array* aggregated(const boost::json::value* item);
/// "pinned_message": the outer optional is "handed on", the inner pointer null for nothing pinned.
std::optional<const boost::json::object*> pinnedMessage(const boost::json::value* item);
}  // namespace socket_payload

}  // namespace tavlo
