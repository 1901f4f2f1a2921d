// A delegate that hands each call on as its `TVKChatEvent` record, for the parts of the SDK that
// handle events as values: the event stream, and an awaited connection standing in front of the
// application's delegate.
#pragma once

#include <memory>

#include "TavloMessagingSDK/TVKChatEvent.hpp"
#include "TavloMessagingSDK/TVKChatEventDelegate.hpp"

namespace tavlo {

class TVKChatEventAdapter : public TVKChatEventDelegate {
  public:
    void chatroomConnected(const std::shared_ptr<TVKChat>& chat) final;
    void chatroomDisconnected(const std::shared_ptr<TVKChat>& chat) final;
    void chatroomFailToConnect(const std::shared_ptr<TVKChat>& chat, const TVKError& error) final;
    void chatroomError(const std::shared_ptr<TVKChat>& chat, const TVKError& error) final;
    void chatroomReconnecting(const std::shared_ptr<TVKChat>& chat, unsigned attempt,
                              std::chrono::milliseconds delay) final;
    void chatroomMissedMessagesGap(const std::shared_ptr<TVKChat>& chat,
                                   const TVKMissedMessagesGap& gap) final;
    void chatroomInputModeChanged(const std::shared_ptr<TVKChat>& chat) final;
    void chatroomUsersJoined(const std::shared_ptr<TVKChat>& chat, const TVKChatUsers& users) final;
    void chatroomUsersUpdated(const std::shared_ptr<TVKChat>& chat,
                              const TVKChatUsers& users) final;
    void chatroomUsersLeft(const std::shared_ptr<TVKChat>& chat, const TVKUserLabels& labels) final;
    void chatroomUserCount(const std::shared_ptr<TVKChat>& chat) final;
    void chatroomMessageAdded(const std::shared_ptr<TVKChat>& chat,
                              const std::shared_ptr<TVKChatMessage>& message) final;
    void chatroomAggregatedItemsAdded(const std::shared_ptr<TVKChat>& chat,
                                      const TVKAggregatedItems& items) final;
    void chatroomRawDataAdded(const std::shared_ptr<TVKChat>& chat,
                              const std::shared_ptr<TVKChatMessage>& message) final;
    void chatroomMessageRemoved(const std::shared_ptr<TVKChat>& chat,
                                const std::string& messageId) final;
    void chatroomMessageFlushed(const std::shared_ptr<TVKChat>& chat) final;
    void chatroomPinnedMessageUpdated(const std::shared_ptr<TVKChat>& chat,
                                      const std::shared_ptr<TVKChatMessage>& message) final;
    void chatroomMetadataUpdated(const std::shared_ptr<TVKChat>& chat,
                                 const TVKChatMetadataDictionary& metadata) final;

  protected:
    virtual void handle(const std::shared_ptr<TVKChat>& chat, TVKChatEvent event) = 0;
};

}  // namespace tavlo
