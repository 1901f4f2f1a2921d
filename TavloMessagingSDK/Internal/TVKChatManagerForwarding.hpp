// How the chat manager receives its chatrooms' reports, and hands an event of one of its chatrooms
// to the application's delegate: straight away without an executor, through the executor with a
// bound on what may wait there. Shared by the manager's event reports, its reconnection reports and
// its missed-message recovery.
#pragma once

#include <mutex>

#include "TavloMessagingSDK/Internal/TVKChatReport.hpp"
#include "TavloMessagingSDK/Internal/TVKChatSession.hpp"
#include "TavloMessagingSDK/Internal/TVKMessagingSocketClient.hpp"
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

// An executor that runs events later than they come (a busy UI thread) would let them pile up
// without bound under a flood: past kMaxCalls waiting, the chatroom's socket stops reading,
// until half of them have run.
struct TVKChatManager::ExecutorBacklog {
    static constexpr std::size_t kMaxCalls = 1000;

    void handedOver(const std::shared_ptr<TVKChat>& chat) {
        std::lock_guard lock(mutex);
        if (++calls <= kMaxCalls || held) return;
        socket = sessionOf(chat)->socketClient();
        if (auto holding = socket.lock()) holding->holdReading(true);
        held = true;
    }
    /// The chatroom announced a new connection (a reconnection, perhaps on a new socket): while
    /// held, that connection is held as well, from its announcement on.
    void connected(const std::shared_ptr<TVKChat>& chat) {
        std::lock_guard lock(mutex);
        if (!held) return;
        auto current = sessionOf(chat)->socketClient();
        // The old socket, or the old session of the same socket, is let go first; holding again
        // then applies to the connection now current.
        if (auto previous = socket.lock()) previous->holdReading(false);
        socket = current;
        if (current) current->holdReading(true);
    }
    void ran() {
        std::lock_guard lock(mutex);
        --calls;
        if (!held || calls > kMaxCalls / 2) return;
        if (auto holding = socket.lock()) holding->holdReading(false);
        held = false;
    }

    std::mutex mutex;
    std::size_t calls = 0;
    bool held = false;
    std::weak_ptr<TVKMessagingSocketClient> socket;
};

}  // namespace tavlo
