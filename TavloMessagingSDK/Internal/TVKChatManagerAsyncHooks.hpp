// What the asynchronous layer (TVKAsync.hpp) needs of the manager beyond its public interface:
// objects it owns on the layer's behalf (awaited connections, event streams), which live as long
// as they are wanted and at most as long as the manager, so that the manager's release ends what
// waits on them; and the delegate a chatroom has, so that an awaited connection can stand in
// front of it.
#pragma once

#include <functional>
#include <memory>
#include <string>

#include "SocketIO/ReadBacklog.hpp"
#include "TavloMessagingSDK/TVKChatEventDelegate.hpp"
#include "TavloMessagingSDK/TVKChatManager.hpp"

namespace tavlo {

class TVKChatManagerAsyncHooks {
  public:
    /// Runs `body` on the manager's queue and waits for it (inline when already there).
    static void onQueue(TVKChatManager& manager, const std::function<void()>& body);
    /// Runs `task` on the manager's queue later.
    static void post(TVKChatManager& manager, std::function<void()> task);
    // The rest: on the manager's queue only.
    /// Keeps `object` under `key` until `detach` (or the manager's end); replaces what was there.
    static void attach(TVKChatManager& manager, const std::string& key,
                       std::shared_ptr<void> object);
    /// What is kept under `key`, or nullptr.
    static std::shared_ptr<void> attached(TVKChatManager& manager, const std::string& key);
    /// Lets go of what is kept under `key` if it is still `object` (nullptr: whatever it is).
    static void detach(TVKChatManager& manager, const std::string& key, const void* object);
    /// The application's delegate of a channel (nullptr when none or released).
    static std::shared_ptr<TVKChatEventDelegate> delegateOf(TVKChatManager& manager,
                                                            const std::string& channel);
    /// Any thread: the chatroom's one backlog of events read and not yet consumed, where an event
    /// waiting unread in a stream counts too; past its bound the chatroom's socket stops reading
    /// until half has been consumed. nullptr for no chatroom.
    static std::shared_ptr<sio::ReadBacklog> backlogOf(const std::shared_ptr<TVKChat>& chat);
};

}  // namespace tavlo
