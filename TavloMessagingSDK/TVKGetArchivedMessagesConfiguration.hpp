#pragma once

#include "TavloCoreSDK/TVKExport.hpp"

#include <boost/json/object.hpp>
#include <cstdint>
#include <optional>
#include <string>
#include <utility>

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
