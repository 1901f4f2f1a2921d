// What a chatroom reports to its owner (the chat manager) after it has applied an event to its
// own state: every application event as the record the application receives, plus the few
// reports only the manager needs.
#pragma once

#include <memory>
#include <variant>

#include "TavloCoreSDK/TVKError.hpp"
#include "TavloMessagingSDK/TVKChatEvent.hpp"

namespace tavlo {

namespace chat_report {
/// The input interval changed by `change` seconds (new minus old): a cooldown under way moves
/// by it.
struct InputIntervalChanged {
    double change = 0;
};
/// The realtime connection failed (lost, timed out, refused): the manager's reconnection policy
/// decides what the application hears.
struct SocketError {
    TVKError error;
};
}  // namespace chat_report

namespace chat_report_detail {
template <class Variant, class... More>
struct Appended;
template <class... Kinds, class... More>
struct Appended<std::variant<Kinds...>, More...> {
    using type = std::variant<Kinds..., More...>;
};
}  // namespace chat_report_detail

/// Every application event kind, then the internal ones: a kind added to `TVKChatEvent` can be
/// reported without a change here.
using TVKChatReport = chat_report_detail::Appended<TVKChatEvent, chat_report::InputIntervalChanged,
                                                   chat_report::SocketError>::type;

/// The owner's side of a chatroom's reports. Chatrooms report on the owner's queue, one report
/// at a time, the chatroom's state already changed.
class TVKChatReportSink {
  public:
    virtual ~TVKChatReportSink() = default;
    virtual void chatReported(const std::shared_ptr<TVKChat>& chat, TVKChatReport&& report) = 0;
};

}  // namespace tavlo
