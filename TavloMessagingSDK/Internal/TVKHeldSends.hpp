#pragma once

#include <boost/json/value.hpp>

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "TavloCoreSDK/TVKError.hpp"

namespace tavlo {

/// The sends an application made while a chatroom was reconnecting, per chatroom, in the order
/// they were made, until the chatroom is connected again. They then go out one at a time (each
/// after the previous one was answered), so the service sees them in the same order; sends made
/// meanwhile queue up behind them. Pure bookkeeping, on the manager's queue: the manager decides
/// when to hold, sends, and reports.
class TVKHeldSends {
  public:
    static constexpr std::size_t kLimitPerChatroom = 100;

    struct Send {
        boost::json::value message;
        std::string msgType;
        std::function<void()> success;
        std::function<void(const TVKError&)> failure;
    };
    /// A send taken out to go to the service; `ticket` names it when it has been answered.
    struct Taken {
        Send send;
        std::uint64_t ticket = 0;
    };

    /// Queues a send behind the others; false (nothing queued) when the chatroom's queue is full.
    bool hold(const std::string& channel, Send send);
    /// Whether the chatroom has sends waiting or one on its way: a new send queues behind them.
    bool isBusy(const std::string& channel) const;
    /// The oldest waiting send, unless one is on its way or none waits.
    std::optional<Taken> takeNext(const std::string& channel);
    /// The send `ticket` was answered (a ticket from before `takeAll` is ignored).
    void answered(const std::string& channel, std::uint64_t ticket);
    /// Every waiting send, for the manager to fail; the chatroom's queue is forgotten.
    std::vector<Send> takeAll(const std::string& channel);

  private:
    struct Chatroom {
        std::deque<Send> waiting;
        std::optional<std::uint64_t> onItsWay;
    };
    std::map<std::string, Chatroom> chatrooms_;
    std::uint64_t lastTicket_ = 0;
};

}  // namespace tavlo
