#include "TavloMessagingSDK/TVKArchivedChat.hpp"

#include <cstddef>

#include "TavloMessagingSDK/TVKAggregatedData.hpp"
#include "TavloMessagingSDK/TVKChatMessage.hpp"
#include "TavloMessagingSDK/TVKMSGUtility.hpp"

namespace tavlo {

namespace {

// A binary search over 64-bit indexes probes at most 64 times, and the one wrap-around of `hi`
// that the unsigned arithmetic allows restarts it once. Messages out of time order could make
// the halving wander further; past this bound the search gives up rather than spin.
constexpr int kMaximumProbes = 3 * 64;

std::uint64_t creationTime(const std::shared_ptr<TVKChatMessage>& message) {
    if (!message || !message->createdDate()) return 0;
    return unixTimeValue(*message->createdDate());
}

}  // namespace

std::optional<std::uint64_t> archiveTimestampFromJSON(const boost::json::object& json,
                                                      std::string_view key) {
    const auto* value = json_read::any(json, key);
    return value ? unsignedCountFromJSON(*value) : std::nullopt;
}

bool TVKArchivedMessagesFile::mapJSON(const boost::json::object& json) {
    start_ = archiveTimestampFromJSON(json, "start");
    end_ = archiveTimestampFromJSON(json, "end");
    len_ = archiveTimestampFromJSON(json, "len");
    fileId_ = json_read::string(json, "id");
    return true;
}

void TVKArchivedMessagesFile::setCachedMessages(std::optional<Messages> messages) {
    cachedTimestamps_.clear();
    if (messages) {
        cachedTimestamps_.reserve(messages->size());
        for (const auto& message : *messages) cachedTimestamps_.push_back(creationTime(message));
    }
    cachedMessages_ = std::move(messages);
}

bool TVKArchivedMessagesFile::containsTimeStamp(std::uint64_t t) const {
    const auto time = static_cast<std::int64_t>(t);
    return static_cast<std::int64_t>(start_.value_or(0)) <= time &&
           time <= static_cast<std::int64_t>(end_.value_or(0));
}

std::uint64_t TVKArchivedMessagesFile::timestampForCachedMessageByIndex(std::uint64_t index) const {
    if (index >= cachedTimestamps_.size()) return kTVKNotFoundIndex;
    return cachedTimestamps_[static_cast<std::size_t>(index)];
}

std::uint64_t TVKArchivedMessagesFile::indexForTimestamp(std::uint64_t t, bool isStart,
                                                         const Messages& messages) const {
    const std::uint64_t count = messages.size();
    const std::uint64_t lastIndex = count - 1;  // wraps for an empty list, as it always has
    if (isStart && timestampForCachedMessageByIndex(0) > t) return kTVKNotFoundIndex;
    if (!isStart && timestampForCachedMessageByIndex(lastIndex) < t) return kTVKNotFoundIndex;

    std::uint64_t lo = 0;
    std::uint64_t hi = lastIndex;
    std::uint64_t mid = 0;
    std::uint64_t probed = 0;
    for (int probe = 0;; ++probe) {
        if (probe == kMaximumProbes) return kTVKNotFoundIndex;
        mid = (lo + hi) / 2;
        probed = timestampForCachedMessageByIndex(mid);
        if (probed == t || lo == hi) break;
        if (probed < t) {
            lo = mid + 1;
        } else {
            hi = mid - 1;  // wraps at mid 0: only a not-isStart search for t before ts(0) gets here
        }
        if (lo > hi) break;
    }
    if (probed == t) return mid;
    if (isStart) return probed > t ? mid : mid + 1;
    return probed > t ? mid - 1 : mid;
}

TVKArchivedMessagesFile::Messages TVKArchivedMessagesFile::getCachedMessagesWithStart(
    std::uint64_t start, std::uint64_t end) const {
    if (!cachedMessages_ || cachedMessages_->empty()) return {};
    const Messages& messages = *cachedMessages_;
    const std::uint64_t count = messages.size();
    if (end < timestampForCachedMessageByIndex(0)) return {};
    if (start > timestampForCachedMessageByIndex(count - 1)) return {};
    // An inverted range has no messages (the file selection refuses it before it gets here).
    if (start > end) return {};

    std::uint64_t first = indexForTimestamp(start, true, messages);
    const std::uint64_t last = indexForTimestamp(end, false, messages);
    if (first == kTVKNotFoundIndex) first = 0;
    std::uint64_t exclusiveEnd = last == kTVKNotFoundIndex ? count : last + 1;
    // Messages out of time order can put the bounds anywhere; never read outside the list.
    if (exclusiveEnd > count) exclusiveEnd = count;
    if (first >= exclusiveEnd) return {};
    return Messages(messages.begin() + static_cast<std::ptrdiff_t>(first),
                    messages.begin() + static_cast<std::ptrdiff_t>(exclusiveEnd));
}

}  // namespace tavlo
