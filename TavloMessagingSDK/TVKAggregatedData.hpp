#pragma once

#include "TavloCoreSDK/TVKExport.hpp"

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "TavloCoreSDK/DQDataObject.hpp"
#include <cstdint>

namespace tavlo {

/// One aggregated counter: a key and how many times it was sent ("n").
class TAVLO_EXPORT TVKAggregatedItem : public DQDataObject {
  public:
    const std::optional<std::string>& key() const { return key_; }
    const std::optional<std::uint64_t>& count() const { return count_; }

    /// Adds `count` to the counter in unsigned 64-bit arithmetic: past the top it wraps around, so
    /// adding a wrapped difference of two counts restores the later count. No count counts as 0.
    void addCount(std::uint64_t count);

    bool mapJSON(const boost::json::object& json) override;

  private:
    std::optional<std::string> key_;
    std::optional<std::uint64_t> count_;
};

/// Reads a count as an unsigned 64-bit number. A negative integer gives its two's-complement bit
/// pattern, the form a wrapped-around difference of counts takes; an integral double within range
/// converts; anything else gives nothing.
TAVLO_EXPORT std::optional<std::uint64_t> unsignedCountFromJSON(const boost::json::value& value);

}  // namespace tavlo


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
