// How the chat manager hands an event of one of its chatrooms to the application's delegate:
// straight away without an executor, through the executor with a bound on what may wait there.
// Shared by the manager's event reports and its missed-message recovery.
#pragma once

#include <mutex>

#include "TavloMessagingSDK/Internal/TVKMessagingSocketClient.hpp"
#include "TavloMessagingSDK/TVKChat.hpp"
#include "TavloMessagingSDK/TVKChatManager.hpp"

namespace tavlo {

// An executor that runs events later than they come (a busy UI thread) would let them pile up
// without bound under a flood: past kMaxCalls waiting, the chatroom's socket stops reading,
// until half of them have run.
struct TVKChatManager::ExecutorBacklog {
    static constexpr std::size_t kMaxCalls = 1000;

    void handedOver(const std::shared_ptr<TVKChat>& chat) {
        std::lock_guard lock(mutex);
        if (++calls <= kMaxCalls || held) return;
        socket = chat->socketClient();
        if (auto holding = socket.lock()) holding->holdReading(true);
        held = true;
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

template <class Call>
void TVKChatManager::forward(const std::shared_ptr<TVKChat>& chat, Call&& call) {
    if (!chat) return;
    auto delegate = delegateForChannel(chat->originalChatroomName());
    if (!delegate) return;  // released or never given: the event goes nowhere
    bool hasExecutor = false;
    {
        std::lock_guard lock(settingsMutex_);
        hasExecutor = static_cast<bool>(settings_.executor);
    }
    if (!hasExecutor) {
        // The common case, called directly: no task to wrap the call in, per event.
        try {
            call(*delegate, chat);
        } catch (...) {
        }
        return;
    }
    auto& backlog = executorBacklogs_[chat->originalChatroomName()];
    if (!backlog) backlog = std::make_shared<ExecutorBacklog>();
    backlog->handedOver(chat);
    // Counted off once the call has run, thrown, or been dropped by the executor unrun.
    std::shared_ptr<void> done(nullptr, [backlog](void*) { backlog->ran(); });
    deliver([delegate = std::move(delegate), chat, done = std::move(done),
             call = std::forward<Call>(call)] { call(*delegate, chat); });
}

}  // namespace tavlo
