#pragma once

#include "TavloCoreSDK/TVKExport.hpp"

#include <boost/json/object.hpp>
#include <boost/json/value.hpp>
#include <cstdint>
#include <string>
#include <utility>
#include <optional>

namespace tavlo {

/// Keys of an archive query as the service names them.
inline constexpr const char* kTVKArchivedMsgId = "aid";
inline constexpr const char* kTVKArchivedMsgStart = "start";
inline constexpr const char* kTVKArchivedMsgEnd = "end";

/// An application's query for archived messages: which archive, and the time range, both ends
/// inclusive, in milliseconds since 1970. A plain value: copy it freely; not synchronised.
class TAVLO_EXPORT TVKGetArchivedMessagesConfiguration {
  public:
    /// A query of the archive `archiveId`; the application sets `start` and `end` afterwards.
    static TVKGetArchivedMessagesConfiguration configurationWithArchiveId(
        std::optional<std::string> archiveId) {
        return TVKGetArchivedMessagesConfiguration(std::move(archiveId));
    }
    explicit TVKGetArchivedMessagesConfiguration(
        std::optional<std::string> archiveId = std::nullopt)
        : archiveId_(std::move(archiveId)) {}

    const std::optional<std::string>& archiveId() const { return archiveId_; }
    void setArchiveId(std::optional<std::string> archiveId) { archiveId_ = std::move(archiveId); }
    const std::optional<std::uint64_t>& start() const { return start_; }
    void setStart(std::optional<std::uint64_t> start) { start_ = start; }
    const std::optional<std::uint64_t>& end() const { return end_; }
    void setEnd(std::optional<std::uint64_t> end) { end_ = end; }

    /// True when both ends of the range are set. The archive id is checked elsewhere.
    bool isValidConfiguration() const { return start_.has_value() && end_.has_value(); }

    /// {"aid", "start" (only when set), "end"}; nothing without an archive id. A query with an
    /// archive id but no end has no dictionary either: the "end" entry is guarded by the archive
    /// id rather than by the end, so such a query cannot be written down. Callers check
    /// `isValidConfiguration` first.
    std::optional<boost::json::object> getConfigurationDictionary() const;

  private:
    std::optional<std::string> archiveId_;
    std::optional<std::uint64_t> start_;
    std::optional<std::uint64_t> end_;
};

}  // namespace tavlo


namespace tavlo {

/// The options of one page of a chatroom's message history.
///
/// The application speaks in pages (`page`, counted from 1, of `perPage` messages); the service
/// speaks in a count and an offset. The translation caps the page size at 100 and never lets the
/// offset overflow. A plain value: copy it freely; not synchronised.
class TAVLO_EXPORT TVKGetMessagesConfiguration {
  public:
    /// Page 1 of 10 messages, no time bounds, newest first, text messages.
    TVKGetMessagesConfiguration();

    /// Always a number (booleans count as the numbers 1 and 0).
    const boost::json::value& page() const { return page_; }
    /// Stores `page` when it is a number, else 1. Zero, negative and fractional numbers are
    /// stored as given and read as page 1 (or their integer part) when translated.
    void setPage(const boost::json::value& page);

    /// Always a number (booleans count as the numbers 1 and 0).
    const boost::json::value& perPage() const { return perPage_; }
    /// Stores `perPage` when it is a number, else 10. Numbers above the cap of 100 are stored as
    /// given and capped when translated.
    void setPerPage(const boost::json::value& perPage);

    /// The lower and upper time bounds, passed to the service as they are; null when unset.
    const boost::json::value& oldestDate() const { return oldestDate_; }
    void setOldestDate(const boost::json::value& oldestDate) { oldestDate_ = oldestDate; }
    const boost::json::value& latestDate() const { return latestDate_; }
    void setLatestDate(const boost::json::value& latestDate) { latestDate_ = latestDate; }

    /// 0 lists oldest first; any other value newest first.
    std::uint64_t order() const { return order_; }
    void setOrder(std::uint64_t order) { order_ = order; }

    /// The message type to list: "text", "aggregate" or "raw".
    const std::string& msgType() const { return msgType_; }
    void setMsgType(std::string msgType) { msgType_ = std::move(msgType); }

    // --- Used by the chatroom to build its request ----------------------------------------------

    /// {"count": page size, "offset": messages before the page}. A page size that is not a
    /// number above 0 reads as 10, and one above 99 as 100; a page that is not a number above 0
    /// reads as 1. An offset that would pass 2^63-1 is 2^63-1. Numbers are read by their integer
    /// part; one beyond the 64-bit range reads as the nearest 64-bit integer.
    static boost::json::object convertToCountAndOffsetWithPage(const boost::json::value& page,
                                                               const boost::json::value& perPage);

    /// The query parameters, in this order: "count", "offset", "oldestDate" and "latestDate"
    /// (each only when not null), "order" ("asc" or "desc"), "msgType". "page" and "perPage"
    /// never reach the service.
    boost::json::object getConfigurationDictionary() const;

  private:
    boost::json::value page_;
    boost::json::value perPage_;
    boost::json::value oldestDate_;
    boost::json::value latestDate_;
    std::uint64_t order_ = 1;
    std::string msgType_;
};

}  // namespace tavlo
