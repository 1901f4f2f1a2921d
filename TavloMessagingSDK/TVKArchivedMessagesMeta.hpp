#pragma once

#include "TavloCoreSDK/TVKExport.hpp"

#include <boost/json/object.hpp>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "TavloCoreSDK/DQDataObject.hpp"
#include "TavloMessagingSDK/TVKArchivedMessagesFile.hpp"

namespace tavlo {

/// The meta document of one archive: what it holds and the list of its files, ordered by time,
/// oldest first. Time stamps are unsigned milliseconds since 1970, compared as unsigned 64-bit
/// integers; an unset time reads as 0.
class TAVLO_EXPORT TVKArchivedMessagesMeta : public DQDataObject {
  public:
    using Files = std::vector<std::shared_ptr<TVKArchivedMessagesFile>>;

    /// The message type the archive holds, as sent.
    const std::optional<std::string>& msgType() const { return msgType_; }
    /// Times of the archive's oldest and latest message, as sent.
    const std::optional<std::uint64_t>& oldestDate() const { return oldestDate_; }
    const std::optional<std::uint64_t>& latestDate() const { return latestDate_; }
    const std::optional<std::string>& platform() const { return platform_; }
    /// The archive's files; empty when "files" is missing or any of its entries is not an object.
    const Files& files() const { return files_; }
    const std::optional<std::string>& chatroomName() const { return chatroomName_; }
    /// The service's flag that more exists beyond this document; kept, not acted upon.
    bool hasMore() const { return hasMore_; }

    // --- The archive index ----------------------------------------------------------------------

    /// The first file's start and the last file's end; nothing without files.
    std::optional<std::uint64_t> firstMessageTimestamp() const;
    std::optional<std::uint64_t> lastMessageTimestamp() const;

    /// The first file with this id (a linear scan), or nullptr.
    std::shared_ptr<TVKArchivedMessagesFile> getArchivedMessagesFileByFileId(
        std::string_view fileId) const;

    /// The files that overlap [start, end], oldest first. Nothing (nullopt) when a bound is unset,
    /// start > end, the range lies wholly before or after the archive, or there are no files. An
    /// empty list when the range lies wholly inside a gap between two files.
    std::optional<Files> getArchivedFilesByStart(std::optional<std::uint64_t> start,
                                                 std::optional<std::uint64_t> end) const;

    /// Binary search of the files for `t`: the file that contains it, or, when t falls into a gap
    /// between files, the file after the gap (isStart) or the one before it (not isStart). A time
    /// at or before the first file gives 0, at or after the last file the last index.
    std::uint64_t binarySearchForArchivedFileIndexByTimestamp(std::uint64_t t, bool isStart) const;

    /// The files from `first` to `last`, both inclusive; empty when last < first or an index lies
    /// beyond the list.
    Files getSubFilesByFirstIndex(std::uint64_t first, std::uint64_t last) const;

    bool mapJSON(const boost::json::object& json) override;

  private:
    std::optional<std::string> msgType_;
    std::optional<std::uint64_t> oldestDate_;
    std::optional<std::uint64_t> latestDate_;
    std::optional<std::string> platform_;
    Files files_;
    std::optional<std::string> chatroomName_;
    bool hasMore_ = false;
};

}  // namespace tavlo
