#include "TavloMessagingSDK/TVKAggregatedData.hpp"

namespace tavlo {

bool TVKAggregatedData::mapJSON(const boost::json::object& json) {
    createdDate_ = json_read::string(json, "createdDate");
    // A list that does not map leaves the batch without items rather than refusing it: one
    // malformed batch must not cost the application the whole page of history around it.
    if (const auto* list = json_read::any(json, "aggregated")) {
        items_ = objectsWithArrayOfJSON<TVKAggregatedItem>(*list);
    }
    return true;
}

}  // namespace tavlo
