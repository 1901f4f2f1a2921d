#pragma once

#include "TavloCoreSDK/TVKExport.hpp"

#include <cstdint>
#include <optional>
#include <string>

#include "TavloCoreSDK/DQDataObject.hpp"

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
