#pragma once

#include "TavloCoreSDK/TVKExport.hpp"

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "TavloCoreSDK/TVKError.hpp"

namespace tavlo {

class TVKChat;
class TVKChatUser;
class TVKChatMessage;
class TVKAggregatedItem;
class TVKChatMetadata;

using TVKChatUsers = std::vector<std::shared_ptr<TVKChatUser>>;
using TVKAggregatedItems = std::vector<std::shared_ptr<TVKAggregatedItem>>;
using TVKUserLabels = std::vector<std::int64_t>;
/// Metadata records by key.
using TVKChatMetadataDictionary = std::map<std::string, std::shared_ptr<TVKChatMetadata>>;

/// What a chatroom reports to its owner (the chat manager) after it has applied an event to its
/// own state. Payload first, chatroom last. Every operation is optional.
class TAVLO_EXPORT TVKChatSocketEventDelegate {
  public:
    virtual ~TVKChatSocketEventDelegate() = default;

    virtual void chatConnected(const std::shared_ptr<TVKChat>&) {}
    virtual void chatDisconnected(const std::shared_ptr<TVKChat>&) {}
    virtual void inputModeChanged(const std::shared_ptr<TVKChat>&) {}
    /// The change of the input interval in seconds (new minus old).
    virtual void inputIntervalChanged(double, const std::shared_ptr<TVKChat>&) {}
    virtual void usersJoined(const TVKChatUsers&, const std::shared_ptr<TVKChat>&) {}
    virtual void usersUpdated(const TVKChatUsers&, const std::shared_ptr<TVKChat>&) {}
    virtual void usersLeft(const TVKUserLabels&, const std::shared_ptr<TVKChat>&) {}
    virtual void userCount(const std::shared_ptr<TVKChat>&) {}
    virtual void messageAdded(const std::shared_ptr<TVKChatMessage>&,
                              const std::shared_ptr<TVKChat>&) {}
    virtual void aggregatedItemsAdded(const TVKAggregatedItems&, const std::shared_ptr<TVKChat>&) {}
    virtual void rawDataAdded(const std::shared_ptr<TVKChatMessage>&,
                              const std::shared_ptr<TVKChat>&) {}
    virtual void messageRemoved(const std::string&, const std::shared_ptr<TVKChat>&) {}
    virtual void messageFlushed(const std::shared_ptr<TVKChat>&) {}
    /// The new pinned message, or nullptr when nothing is pinned any more.
    virtual void pinnedMessageUpdated(const std::shared_ptr<TVKChatMessage>&,
                                      const std::shared_ptr<TVKChat>&) {}
    virtual void metadataUpdated(const TVKChatMetadataDictionary&,
                                 const std::shared_ptr<TVKChat>&) {}
    virtual void error(const TVKError&, const std::shared_ptr<TVKChat>&) {}
};

}  // namespace tavlo
