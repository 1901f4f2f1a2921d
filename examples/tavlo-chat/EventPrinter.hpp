#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <optional>

#include "ChatDirectory.hpp"
#include "Console.hpp"
#include "TavloMessagingSDK/TavloMessagingSDK.hpp"

namespace tavlo::chat {

/// Where the chatroom's connection stands, as its events tell.
enum class ConnectionState { connecting, connected, failed, disconnected };

/// The client's event delegate: prints every event of the chatroom as one or more "* ..." lines,
/// remembers the users and messages it sees, and tracks the connection for the command loop.
/// Runs on the chat manager's queue.
class EventPrinter final : public TVKChatEventDelegate {
  public:
    EventPrinter(Console& console, ChatDirectory& directory);

    /// Waits until the state is no longer `from`, `timeout` passes or `interrupted` is set;
    /// returns the state.
    ConnectionState waitWhile(ConnectionState from, std::chrono::milliseconds timeout,
                              const std::atomic<bool>& interrupted);
    /// The chatroom's aggregated counters as of the last connect or counter event.
    std::string counters() const;
    /// The chatroom object, once connected (or failed).
    std::shared_ptr<TVKChat> chat() const;
    /// Why connecting failed, once failed.
    std::optional<TVKError> failure() const;

    void chatroomConnected(const std::shared_ptr<TVKChat>& chat) override;
    void chatroomDisconnected(const std::shared_ptr<TVKChat>& chat) override;
    void chatroomFailToConnect(const std::shared_ptr<TVKChat>& chat,
                               const TVKError& error) override;
    void chatroomError(const std::shared_ptr<TVKChat>& chat, const TVKError& error) override;
    void chatroomReconnecting(const std::shared_ptr<TVKChat>& chat, unsigned attempt,
                              std::chrono::milliseconds delay) override;
    void chatroomMissedMessagesGap(const std::shared_ptr<TVKChat>& chat,
                                   const TVKMissedMessagesGap& gap) override;
    void chatroomInputModeChanged(const std::shared_ptr<TVKChat>& chat) override;
    void chatroomUsersJoined(const std::shared_ptr<TVKChat>& chat,
                             const TVKChatUsers& users) override;
    void chatroomUsersUpdated(const std::shared_ptr<TVKChat>& chat,
                              const TVKChatUsers& users) override;
    void chatroomUsersLeft(const std::shared_ptr<TVKChat>& chat,
                           const TVKUserLabels& labels) override;
    void chatroomUserCount(const std::shared_ptr<TVKChat>& chat) override;
    void chatroomMessageAdded(const std::shared_ptr<TVKChat>& chat,
                              const std::shared_ptr<TVKChatMessage>& message) override;
    void chatroomAggregatedItemsAdded(const std::shared_ptr<TVKChat>& chat,
                                      const TVKAggregatedItems& items) override;
    void chatroomRawDataAdded(const std::shared_ptr<TVKChat>& chat,
                              const std::shared_ptr<TVKChatMessage>& message) override;
    void chatroomMessageRemoved(const std::shared_ptr<TVKChat>& chat,
                                const std::string& messageId) override;
    void chatroomMessageFlushed(const std::shared_ptr<TVKChat>& chat) override;
    void chatroomPinnedMessageUpdated(const std::shared_ptr<TVKChat>& chat,
                                      const std::shared_ptr<TVKChatMessage>& message) override;
    void chatroomMetadataUpdated(const std::shared_ptr<TVKChat>& chat,
                                 const TVKChatMetadataDictionary& metadata) override;

  private:
    void event(const std::string& line);
    void moveTo(ConnectionState state, const std::shared_ptr<TVKChat>& chat,
                std::optional<TVKError> error = std::nullopt);

    Console& console_;
    ChatDirectory& directory_;
    mutable std::mutex mutex_;
    std::condition_variable changed_;
    ConnectionState state_ = ConnectionState::connecting;
    std::shared_ptr<TVKChat> chat_;
    std::optional<TVKError> failure_;
    std::string counters_ = "none";
};

/// Prints a metadata dictionary, one "KEY = JSON" line each, with `prefix` in front.
void printMetadata(Console& console, const std::string& prefix,
                   const TVKChatMetadataDictionary& metadata);

}  // namespace tavlo::chat
