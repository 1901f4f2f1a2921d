// The inside of `TVKChatEventStream`: events its delegate receives wait here, counted in their
// chatroom's one backlog, until a read takes them; a read that comes first waits for the next.
#pragma once

#include <deque>
#include <mutex>
#include <optional>

#include "SocketIO/ReadBacklog.hpp"
#include "TavloMessagingSDK/Internal/TVKChatEventAdapter.hpp"
#include "TavloMessagingSDK/TVKAsync.hpp"

namespace tavlo::async_detail {

class StreamCore {
  public:
    explicit StreamCore(std::weak_ptr<TVKChatManager> manager);

    void push(const std::shared_ptr<TVKChat>& chat, TVKChatEvent event);
    void receive(Completion<TVKChatEvent> completion);
    /// No more events: the pending read and later ones end with `why`.
    void end(std::error_code why);

  private:
    struct Waiting {
        TVKChatEvent event;
        std::shared_ptr<sio::ReadBacklog> backlog;  // where it is counted; nullptr when not
    };

    const std::weak_ptr<TVKChatManager> manager_;
    std::mutex mutex_;
    std::deque<Waiting> waiting_;
    std::optional<Completion<TVKChatEvent>> reader_;
    std::optional<std::error_code> ended_;
    bool chatroomEnded_ = false;  // its last event is waiting or has been read
};

/// The delegate of a stream: hands each event to the core while the stream lives.
class StreamDelegate final : public TVKChatEventAdapter {
  public:
    explicit StreamDelegate(std::weak_ptr<StreamCore> core) : core_(std::move(core)) {}

  private:
    void handle(const std::shared_ptr<TVKChat>& chat, TVKChatEvent event) override;
    std::weak_ptr<StreamCore> core_;
};

}  // namespace tavlo::async_detail
