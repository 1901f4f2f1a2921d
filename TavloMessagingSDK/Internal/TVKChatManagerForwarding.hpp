// How the chat manager receives its chatrooms' reports, and hands an event of one of its chatrooms
// to the application's delegate: straight away without an executor, through the executor with a
// bound on what may wait there (the chatroom's read backlog). Shared by the manager's event
// reports, its reconnection reports and its missed-message recovery.
#pragma once

#include "TavloMessagingSDK/Internal/TVKChatReport.hpp"
#include "TavloMessagingSDK/Internal/TVKChatSession.hpp"
#include "TavloMessagingSDK/TVKChat.hpp"
#include "TavloMessagingSDK/TVKChatManager.hpp"

namespace tavlo {

// The manager's side of its chatrooms' reports, kept out of its public interface: a private
// member, reached by the chatrooms through `reportSink`.
class TVKChatManagerReception final : public TVKChatReportSink {
  public:
    explicit TVKChatManagerReception(TVKChatManager& manager) : manager_(manager) {}
    void chatReported(const std::shared_ptr<TVKChat>& chat, TVKChatReport&& report) override;

  private:
    TVKChatManager& manager_;
};

}  // namespace tavlo
