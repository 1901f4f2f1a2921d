#include "TavloMessagingSDK/TVKAggregatedData.hpp"

namespace tavlo {

bool TVKAggregatedData::mapJSON(const boost::json::object& json) {
    createdDate_ = json_read::string(json, "createdDate");
    const auto* list = json_read::any(json, "aggregated");
    if (!list || list->is_null()) return true;
    items_ = objectsWithArrayOfJSON<TVKAggregatedItem>(*list);
    return items_.has_value();
}

}  // namespace tavlo
