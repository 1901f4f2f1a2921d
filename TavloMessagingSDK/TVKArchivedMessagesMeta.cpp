#include "TavloMessagingSDK/TVKArchivedChat.hpp"

#include <cstddef>

namespace tavlo {

namespace {

// "hasMore" as a flag: a boolean, or a number read as true unless it is zero.
bool flagValue(const boost::json::object& json, std::string_view key) {
    const auto* value = json_read::any(json, key);
    if (!value) return false;
    if (value->is_bool()) return value->get_bool();
    if (value->is_int64()) return value->get_int64() != 0;
    if (value->is_uint64()) return value->get_uint64() != 0;
    if (value->is_double()) return value->get_double() != 0;
    return false;
}

}  // namespace

bool TVKArchivedMessagesMeta::mapJSON(const boost::json::object& json) {
    msgType_ = json_read::string(json, "msgType");
    oldestDate_ = archiveTimestampFromJSON(json, "oldestDate");
    latestDate_ = archiveTimestampFromJSON(json, "latestDate");
    platform_ = json_read::string(json, "platform");
    chatroomName_ = json_read::string(json, "chatroomName");
    hasMore_ = flagValue(json, "hasMore");
    if (const auto* files = json_read::any(json, "files")) {
        files_ = objectsWithArrayOfJSON<TVKArchivedMessagesFile>(*files).value_or(Files{});
    }
    return true;
}

std::optional<std::uint64_t> TVKArchivedMessagesMeta::firstMessageTimestamp() const {
    if (files_.empty()) return std::nullopt;
    return files_.front()->start();
}

std::optional<std::uint64_t> TVKArchivedMessagesMeta::lastMessageTimestamp() const {
    if (files_.empty()) return std::nullopt;
    return files_.back()->end();
}

std::shared_ptr<TVKArchivedMessagesFile> TVKArchivedMessagesMeta::getArchivedMessagesFileByFileId(
    std::string_view fileId) const {
    for (const auto& file : files_) {
        if (file->fileId() == fileId) return file;
    }
    return nullptr;
}

std::optional<TVKArchivedMessagesMeta::Files> TVKArchivedMessagesMeta::getArchivedFilesByStart(
    std::optional<std::uint64_t> start, std::optional<std::uint64_t> end) const {
    if (!start || !end) return std::nullopt;
    if (*start > *end) return std::nullopt;
    // An archive without files overlaps nothing.
    if (files_.empty()) return std::nullopt;
    if (*start > lastMessageTimestamp().value_or(0)) return std::nullopt;
    if (*end < firstMessageTimestamp().value_or(0)) return std::nullopt;
    const std::uint64_t first = binarySearchForArchivedFileIndexByTimestamp(*start, true);
    const std::uint64_t last = binarySearchForArchivedFileIndexByTimestamp(*end, false);
    return getSubFilesByFirstIndex(first, last);
}

std::uint64_t TVKArchivedMessagesMeta::binarySearchForArchivedFileIndexByTimestamp(
    std::uint64_t t, bool isStart) const {
    const std::uint64_t count = files_.size();
    if (t <= firstMessageTimestamp().value_or(0)) return 0;
    if (t >= lastMessageTimestamp().value_or(0)) return count - 1;

    std::uint64_t lo = 0;
    std::uint64_t hi = count - 1;
    // `hi < count` ends the search should `hi` wrap below 0, which only files out of time order
    // can cause (the first file's start is below t whenever the search runs).
    while (lo <= hi && hi < count) {
        const std::uint64_t mid = (lo + hi) / 2;
        const auto& file = files_[static_cast<std::size_t>(mid)];
        if (file->containsTimeStamp(t)) return mid;
        // The half is chosen by comparing time values. Where time stamps are shared number
        // objects this comparison was made between the objects' identities, which follows time
        // order only by chance; time stamps held by value always take the time-ordered half, so
        // a bound in a gap lands on the file after the gap (start) or before it (end).
        if (file->start().value_or(0) > t) {
            hi = mid - 1;
        } else {
            lo = mid + 1;
        }
    }
    return isStart ? lo : lo - 1;
}

TVKArchivedMessagesMeta::Files TVKArchivedMessagesMeta::getSubFilesByFirstIndex(
    std::uint64_t first, std::uint64_t last) const {
    const std::uint64_t count = files_.size();
    if (first >= count || last >= count || last < first) return {};
    return Files(files_.begin() + static_cast<std::ptrdiff_t>(first),
                 files_.begin() + static_cast<std::ptrdiff_t>(last + 1));
}

}  // namespace tavlo
