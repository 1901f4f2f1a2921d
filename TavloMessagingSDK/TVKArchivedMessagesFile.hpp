#pragma once

#include "TavloCoreSDK/TVKExport.hpp"

#include <boost/json/object.hpp>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "TavloCoreSDK/DQDataObject.hpp"

namespace tavlo {

class TVKChatMessage;

/// The index that names no message: the largest signed 64-bit integer.
inline constexpr std::uint64_t kTVKNotFoundIndex = 0x7FFFFFFFFFFFFFFF;

/// One file of an archive: the messages of one contiguous time span. Time stamps are unsigned
/// milliseconds since 1970 (a time before 1970 is the two's-complement bit pattern of the negative
/// count); an unset bound reads as 0 in comparisons.
///
/// The file's messages are fetched once and kept in `cachedMessages`, in the order the service
/// sent them, which the searches take to be ascending creation time. Plain data without locks:
/// the archived chat reads and writes it on its own queue.
class TAVLO_EXPORT TVKArchivedMessagesFile : public DQDataObject {
  public:
    using Messages = std::vector<std::shared_ptr<TVKChatMessage>>;

    /// Time stamp of the file's first and last message ("start", "end").
    const std::optional<std::uint64_t>& start() const { return start_; }
    const std::optional<std::uint64_t>& end() const { return end_; }
    /// Number of messages as the service counts them ("len"); informative only.
    const std::optional<std::uint64_t>& len() const { return len_; }
    /// The file's id within its archive ("id").
    const std::optional<std::string>& fileId() const { return fileId_; }

    /// The file's messages once fetched; nullopt until then.
    const std::optional<Messages>& cachedMessages() const { return cachedMessages_; }
    /// Stores the fetched messages together with their creation times.
    void setCachedMessages(std::optional<Messages> messages);

    /// True when start <= t <= end, compared as signed 64-bit integers.
    bool containsTimeStamp(std::uint64_t t) const;

    /// Creation time of the cached message at `index` (its `createdDate` through
    /// `unixTimeValue`); `kTVKNotFoundIndex` when there is no such message.
    std::uint64_t timestampForCachedMessageByIndex(std::uint64_t index) const;

    /// Binary search of the cached messages for `t`: with `isStart` the first message at or after
    /// t, otherwise the last one at or before t; `kTVKNotFoundIndex` when t lies before the first
    /// (isStart) or after the last (not isStart) message. Among messages of equal time the search
    /// answers whichever it meets first. `messages` gives only the count; the times are always
    /// read from the cached messages. Arithmetic is unsigned and wraps as such.
    std::uint64_t indexForTimestamp(std::uint64_t t, bool isStart, const Messages& messages) const;

    /// The cached messages created within [start, end], in stored order; empty when nothing is
    /// cached, nothing falls in the range, or start > end.
    Messages getCachedMessagesWithStart(std::uint64_t start, std::uint64_t end) const;

    bool mapJSON(const boost::json::object& json) override;

  private:
    std::optional<std::uint64_t> start_;
    std::optional<std::uint64_t> end_;
    std::optional<std::uint64_t> len_;
    std::optional<std::string> fileId_;
    std::optional<Messages> cachedMessages_;
    // Creation time of each cached message, parsed once when the messages are stored.
    std::vector<std::uint64_t> cachedTimestamps_;
};

/// An archive time stamp from JSON: an integral number as an unsigned 64-bit value (negative
/// ones as their two's complement); nothing for anything else.
TAVLO_EXPORT std::optional<std::uint64_t> archiveTimestampFromJSON(const boost::json::object& json,
                                                                   std::string_view key);

}  // namespace tavlo
