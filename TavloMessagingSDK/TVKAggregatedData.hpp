#pragma once

#include "TavloCoreSDK/TVKExport.hpp"

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "TavloCoreSDK/DQDataObject.hpp"
#include "TavloMessagingSDK/TVKAggregatedItem.hpp"

namespace tavlo {

/// One batch of aggregated counters, as a message query of type "aggregate" lists them. A batch
/// whose "aggregated" member is not a list of counter objects has no items.
class TAVLO_EXPORT TVKAggregatedData : public DQDataObject {
  public:
    using Items = std::vector<std::shared_ptr<TVKAggregatedItem>>;

    /// The counters; absent when the service sent no list, or one that is not a list of counters.
    const std::optional<Items>& items() const { return items_; }
    const std::optional<std::string>& createdDate() const { return createdDate_; }

    bool mapJSON(const boost::json::object& json) override;

  private:
    std::optional<Items> items_;
    std::optional<std::string> createdDate_;
};

}  // namespace tavlo
