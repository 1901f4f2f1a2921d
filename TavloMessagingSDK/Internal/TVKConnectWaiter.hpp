// An awaited connection (`async_connect`): from the connect call until the chatroom is connected
// or has finally failed, it stands in front of the chatroom's delegate, passing every event on,
// and completes the awaiting operations; then it hands the chatroom back to that delegate. The
// manager keeps it (TVKChatManagerAsyncHooks), so the manager's release ends the wait.
#pragma once

#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "TavloMessagingSDK/Internal/TVKChatEventAdapter.hpp"
#include "TavloMessagingSDK/TVKAsync.hpp"

namespace tavlo {

class TVKConnectWaiter final : public TVKChatEventAdapter,
                               public std::enable_shared_from_this<TVKConnectWaiter> {
  public:
    using Completion = async_detail::Completion<std::shared_ptr<TVKChat>>;

    /// `delegate` null: the chatroom keeps the delegate it has.
    static void start(TVKChatManager& manager, const std::string& chatroomName,
                      const std::string& JWT, std::uint64_t options,
                      const std::shared_ptr<TVKChatEventDelegate>* delegate, Completion completion);

    TVKConnectWaiter(std::weak_ptr<TVKChatManager> manager, std::string channel,
                     std::shared_ptr<TVKChatEventDelegate> target, Completion completion);

  private:
    void handle(const std::shared_ptr<TVKChat>& chat, TVKChatEvent event) override;
    void join(const std::shared_ptr<TVKChatEventDelegate>* delegate, Completion completion);
    // Hands the chatroom back to the application's delegate and lets go of this waiter.
    void finish(TVKChatManager& manager, const std::shared_ptr<TVKChat>& chat, bool connected);
    std::shared_ptr<TVKChatEventDelegate> target() const;

    const std::weak_ptr<TVKChatManager> manager_;
    const std::string channel_;
    mutable std::mutex mutex_;
    std::weak_ptr<TVKChatEventDelegate> target_;
    std::vector<Completion> waiting_;
};

}  // namespace tavlo
