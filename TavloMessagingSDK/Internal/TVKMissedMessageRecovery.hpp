#pragma once

#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <unordered_set>
#include <variant>
#include <vector>

#include "TavloMessagingSDK/Internal/TVKMessageCursor.hpp"
#include "TavloMessagingSDK/Internal/TVKMissedMessageFetch.hpp"
#include "TavloMessagingSDK/TVKChatEvent.hpp"
#include "TavloMessagingSDK/TVKChatEventDelegate.hpp"

namespace tavlo {

class TVKChat;

/// Makes a chatroom's messages reach the application once each, in time order, across
/// reconnections. Per chatroom it keeps a cursor of what was delivered; when a chatroom that had
/// connected before connects again, it fetches the text and raw messages from the cursor on,
/// delivers those not delivered yet, and meanwhile holds the live message and removal events,
/// which follow the recovered messages. A failed fetch is retried on the reconnection schedule;
/// when the attempts are spent, or more messages were missed than `kTVKMissedMessagesLimit`, the
/// application hears of the gap once.
///
/// Removed and pinned messages: the message list holds only messages that still exist, so a
/// message removed during the gap is not recovered (its removal went by unheard as well). A
/// recovered message carries no pin state: the pinned message is the chatroom's, changed only by
/// pin events and profile loads.
///
/// From the first moment: before a chatroom's socket opens for the first time, the newest
/// messages of each kind are listed as the starting point, and the first subscription is then
/// treated like a reconnection from there. So a message that reaches the chatroom while the
/// starting point is being taken, or while the application's `chatroomConnected` runs, comes
/// once, live or listed, never in neither.
///
/// Everything runs on the manager's queue; the manager's event handlers pass messages and
/// removals through `intercept`, the chatroom asks `beforeSocketOpens` before it opens its socket,
/// and the manager reports every connection with `chatConnected`.
class TVKMissedMessageRecovery : public std::enable_shared_from_this<TVKMissedMessageRecovery> {
  public:
    using Kind = TVKMissedMessageFetch::Kind;
    using ChatPtr = std::shared_ptr<TVKChat>;
    using MessagePtr = std::shared_ptr<TVKChatMessage>;

    /// Where the recovery delivers; the manager forwards to the application's delegate.
    struct Output {
        /// A recovered (or held) message, a held removal, or the gap.
        std::function<void(const ChatPtr&, TVKChatEvent)> event;
        /// Runs `task` after the pause of retry number `attempt` (from 0), or the pause the
        /// service asked for; false once the attempts are spent.
        std::function<bool(unsigned attempt, std::optional<std::chrono::seconds> askedByService,
                           std::function<void()> task)>
            retry;
        /// One page of the chatroom's message list (the chatroom's own listing, normally).
        std::function<void(const ChatPtr&, const boost::json::object& query,
                           std::function<void(const TVKMissedMessageFetch::Messages&)>,
                           std::function<void(const TVKError&)>)>
            listPage;
        /// A recovery is over: the recovered and held events have been handed on.
        std::function<void(const ChatPtr&)> caughtUp;
    };

    /// Turns recovery on for chatrooms that connect from now on.
    void enable(Output output);
    /// Turns it off: held events are delivered at once, and every cursor is forgotten.
    void disable();
    bool enabled() const { return enabled_; }

    /// A live message: false when the caller should deliver it now (it is counted as
    /// delivered); true when the recovery took it over (held for later, or a duplicate).
    bool intercept(const ChatPtr& chat, const MessagePtr& message, Kind kind);
    /// A live removal: true when it is held until the recovered messages are out.
    bool interceptRemoval(const ChatPtr& chat, const std::string& messageId);
    /// The chatroom has joined and is about to open its socket: `open` runs once the starting
    /// point is known (at once when it already is, or when recovery is off). A listing that
    /// fails does not hold the connection up; the starting point is then taken once connected.
    void beforeSocketOpens(const ChatPtr& chat, std::function<void()> open);
    /// The chatroom connected (first time) or connected again (recovery starts).
    void chatConnected(const ChatPtr& chat);
    /// How many live events may wait during a listing (`kTVKMissedMessagesHoldLimit`).
    void setHoldLimit(std::size_t limit) { holdLimit_ = limit; }
    /// Whether the chatroom's missed messages are being listed (live events wait meanwhile).
    bool isRecovering(const ChatPtr& chat);
    /// The chatroom is gone from the manager: its cursor and held events go too.
    void forget(const std::string& channel);

  private:
    struct HeldMessage {
        MessagePtr message;
        Kind kind;
    };
    struct HeldRemoval {
        std::string messageId;
    };
    using HeldEvent = std::variant<HeldMessage, HeldRemoval>;
    struct Channel {
        std::weak_ptr<TVKChat> chat;
        TVKMessageCursor cursor;
        bool recovering = false;
        /// Tells a current fetch from one that a later reconnection, or a chatroom forgotten and
        /// connected anew, made obsolete. Unique across channels.
        unsigned generation = 0;
        unsigned failedAttempts = 0;
        std::vector<HeldEvent> held;
        /// Where in `held` the live events of the latest connection begin: those before it came
        /// over a connection that was lost during the listing.
        std::size_t liveFrom = 0;
    };

    Channel* channelOf(const ChatPtr& chat);
    Channel& freshChannel(const ChatPtr& chat);
    /// Holds a live event during a listing; past the hold limit the listing is given up.
    void hold(const std::string& channel, Channel& state, HeldEvent event);
    void giveUpListing(const std::string& channel, Channel& state);
    Channel* current(const std::string& channel, unsigned generation);
    /// Lists the newest messages of one kind as the starting point; `done` runs after the
    /// answer (true when it was one), unless a retry schedule is asked for (`retries`).
    void fetchNewest(const ChatPtr& chat, Kind kind, unsigned attempt, bool retries,
                     std::function<void(bool)> done = {});
    void recover(const ChatPtr& chat);
    /// The listings of one recovery so far, and the last one's result.
    struct Listings {
        unsigned count = 0;
        std::shared_ptr<const TVKMissedMessageFetch::Result> previous;
    };
    void fetchMissed(const ChatPtr& chat, unsigned generation);
    void fetchMissed(const ChatPtr& chat, unsigned generation, Listings listings);
    /// A listing is complete: delivered once it is known to hold no message still on its way
    /// live ahead of another, else listed again.
    void fetched(const std::string& channel, unsigned generation,
                 const TVKMissedMessageFetch::Result& result, Listings listings);
    /// The listed messages that belong before the live stream, which begins at `firstLive`.
    static std::vector<TVKMissedMessageFetch::Missed> sentBeforeTheLiveStream(
        const TVKMissedMessageFetch::Result& result, std::optional<std::int64_t> firstLive,
        const std::unordered_set<std::string>& heldIds);
    void fetchFailed(const std::string& channel, unsigned generation, const TVKError& error);
    /// Delivers the recovered messages and the events held meanwhile, merged in time order,
    /// and switches the channel back to live delivery.
    void deliverRecovered(const std::string& channel, unsigned generation,
                          const TVKMissedMessageFetch::Result& result);
    /// Delivers a message unless it is a duplicate; true when the channel is still there after
    /// the application's callback.
    bool deliverOnce(const std::string& channel, unsigned generation, const ChatPtr& chat,
                     const MessagePtr& message, Kind kind);
    std::optional<std::int64_t> firstHeldTime(const Channel& state) const;
    /// The time of the first message that came live over the latest connection.
    std::optional<std::int64_t> firstLiveTime(const Channel& state) const;

    bool enabled_ = false;
    std::size_t holdLimit_ = kTVKMissedMessagesHoldLimit;
    Output output_;
    unsigned lastGeneration_ = 0;
    std::map<std::string, Channel> channels_;
};

}  // namespace tavlo
