#include "TavloMessagingSDK/Internal/TVKMissedMessageRecovery.hpp"

#include <unordered_set>

#include "TavloMessagingSDK/TVKChat.hpp"
#include "TavloMessagingSDK/TVKChatMessage.hpp"

namespace tavlo {

namespace {

/// The application's record of a recovered message.
TVKChatEvent messageEvent(const std::shared_ptr<TVKChatMessage>& message,
                          TVKMissedMessageRecovery::Kind kind) {
    if (kind == TVKMissedMessageRecovery::Kind::raw) return chat_event::RawDataAdded{message};
    return chat_event::MessageAdded{message};
}

}  // namespace

namespace {

// How many of the newest messages of each kind mark the starting point at connection: enough to
// cover every message of the newest millisecond in practice.
constexpr int kNewestAtConnection = 10;

// How often the missed messages are listed at most while no live message shows where the live
// stream begins; a chatroom that keeps changing without live events gets the last listing.
constexpr unsigned kMaxListings = 10;

bool sameMessages(const TVKMissedMessageFetch::Result& a, const TVKMissedMessageFetch::Result& b) {
    if (a.truncated != b.truncated || a.messages.size() != b.messages.size()) return false;
    for (std::size_t i = 0; i < a.messages.size(); ++i) {
        if (a.messages[i].message->messageId() != b.messages[i].message->messageId()) return false;
    }
    return true;
}

}  // namespace

// --- Switching ---------------------------------------------------------------------------------

void TVKMissedMessageRecovery::enable(Output output) {
    output_ = std::move(output);
    enabled_ = true;
}

void TVKMissedMessageRecovery::disable() {
    enabled_ = false;
    // Whatever is held was meant for the application: it still gets it, without recovery.
    auto channels = std::move(channels_);
    channels_.clear();
    for (auto& [name, state] : channels) {
        auto chat = state.chat.lock();
        if (!chat) continue;
        for (auto& event : state.held) {
            if (auto* held = std::get_if<HeldMessage>(&event)) {
                output_.event(chat, messageEvent(held->message, held->kind));
            } else {
                output_.event(chat,
                              chat_event::MessageRemoved{std::get<HeldRemoval>(event).messageId});
            }
        }
        if (state.recovering && output_.caughtUp) output_.caughtUp(chat);
    }
}

// --- Live events -------------------------------------------------------------------------------

TVKMissedMessageRecovery::Channel* TVKMissedMessageRecovery::channelOf(const ChatPtr& chat) {
    if (!enabled_ || !chat) return nullptr;
    auto found = channels_.find(chat->originalChatroomName());
    if (found == channels_.end() || found->second.chat.lock() != chat) return nullptr;
    return &found->second;
}

TVKMissedMessageRecovery::Channel* TVKMissedMessageRecovery::current(const std::string& channel,
                                                                     unsigned generation) {
    auto found = channels_.find(channel);
    if (found == channels_.end() || found->second.generation != generation) return nullptr;
    return &found->second;
}

bool TVKMissedMessageRecovery::intercept(const ChatPtr& chat, const MessagePtr& message,
                                         Kind kind) {
    auto* state = channelOf(chat);
    if (!state || !message) return false;
    if (state->cursor.wasDelivered(*message)) return true;
    if (state->recovering) {
        hold(chat->originalChatroomName(), *state, HeldMessage{message, kind});
        return true;
    }
    state->cursor.delivered(*message);
    return false;
}

bool TVKMissedMessageRecovery::interceptRemoval(const ChatPtr& chat, const std::string& messageId) {
    auto* state = channelOf(chat);
    if (!state || !state->recovering) return false;
    hold(chat->originalChatroomName(), *state, HeldRemoval{messageId});
    return true;
}

void TVKMissedMessageRecovery::hold(const std::string& channel, Channel& state, HeldEvent event) {
    state.held.push_back(std::move(event));
    if (state.held.size() > holdLimit_) giveUpListing(channel, state);
}

void TVKMissedMessageRecovery::giveUpListing(const std::string& channel, Channel& state) {
    auto chat = state.chat.lock();
    if (!chat) return;
    // A new generation makes the listing's answer, whenever it comes, obsolete.
    state.generation = ++lastGeneration_;
    const auto generation = state.generation;
    TVKMissedMessagesGap gap;
    gap.reason = TVKMissedMessagesGap::kLiveBacklog;
    gap.oldestDate = state.cursor.time().value_or(0);
    gap.latestDate = firstHeldTime(state);
    output_.event(chat, chat_event::MissedMessagesGap{gap});
    deliverRecovered(channel, generation, {});
}

bool TVKMissedMessageRecovery::isRecovering(const ChatPtr& chat) {
    auto* state = channelOf(chat);
    return state && state->recovering;
}

void TVKMissedMessageRecovery::forget(const std::string& channel) {
    channels_.erase(channel);
}

// --- Connections -------------------------------------------------------------------------------

TVKMissedMessageRecovery::Channel& TVKMissedMessageRecovery::freshChannel(const ChatPtr& chat) {
    auto& state = channels_[chat->originalChatroomName()];
    state = Channel{};
    state.chat = chat;
    state.generation = ++lastGeneration_;
    return state;
}

void TVKMissedMessageRecovery::beforeSocketOpens(const ChatPtr& chat, std::function<void()> open) {
    auto* state = channelOf(chat);
    if (!chat || !enabled_ || (state && state->cursor.time())) return open();
    if (!state) freshChannel(chat);
    // Taken before the subscription, the starting point holds only messages the socket will never
    // bring; everything after it is recovered once subscribed, merged with the live stream.
    struct Answers {
        int count = 0;
        bool failed = false;
    };
    auto answers = std::make_shared<Answers>();
    std::weak_ptr<TVKMissedMessageRecovery> weak = weak_from_this();
    auto bothAnswered = [answers, weak, name = chat->originalChatroomName(),
                         generation = channelOf(chat)->generation,
                         open = std::move(open)](bool answered) {
        answers->failed = answers->failed || !answered;
        if (++answers->count < 2) return;
        // Half a starting point would make the other kind's history look missed: without both,
        // the starting point is taken once connected.
        auto self = weak.lock();
        auto* state = self ? self->current(name, generation) : nullptr;
        if (state && answers->failed) state->cursor = TVKMessageCursor{};
        open();
    };
    fetchNewest(chat, Kind::text, 0, false, bothAnswered);
    fetchNewest(chat, Kind::raw, 0, false, bothAnswered);
}

void TVKMissedMessageRecovery::chatConnected(const ChatPtr& chat) {
    if (!enabled_ || !chat) return;
    auto* state = channelOf(chat);
    if (state && state->cursor.time()) return recover(chat);
    if (!state) state = &freshChannel(chat);
    // The starting point could not be taken before the subscription: the newest message of each
    // kind marks what the application has "seen"; anything older is history, not missed.
    fetchNewest(chat, Kind::text, 0, true);
    fetchNewest(chat, Kind::raw, 0, true);
}

void TVKMissedMessageRecovery::fetchNewest(const ChatPtr& chat, Kind kind, unsigned attempt,
                                           bool retries, std::function<void(bool)> done) {
    auto* state = channelOf(chat);
    if (!state) return;
    const unsigned generation = state->generation;
    const auto name = chat->originalChatroomName();
    auto query = TVKMissedMessageFetch::pageQuery(kind, 0, 1);
    query.erase("oldestDate");
    query["count"] = kNewestAtConnection;
    query["order"] = "desc";
    std::weak_ptr<TVKMissedMessageRecovery> weak = weak_from_this();
    output_.listPage(
        chat, query,
        [weak, name, generation, done](const TVKMissedMessageFetch::Messages& newest) {
            auto self = weak.lock();
            auto* state = self ? self->current(name, generation) : nullptr;
            if (!state) {
                if (done) done(false);
                return;
            }
            // An empty list is a starting point too: everything that comes later is new.
            state->cursor.advanceTo(0);
            // Counted as delivered: the application has them as history, and a recovery that
            // starts at their millisecond must not hand them out as missed.
            for (const auto& message : newest) {
                if (message) state->cursor.delivered(*message);
            }
            if (done) done(true);
        },
        // Retried on the reconnection schedule. Should it never succeed, the first message
        // delivered live becomes the starting point, and before that a reconnection asks again.
        [weak, weakChat = std::weak_ptr<TVKChat>(chat), name, generation, kind, attempt, retries,
         done](const TVKError& error) {
            if (done) done(false);
            auto self = weak.lock();
            if (!retries || !self || !self->current(name, generation)) return;
            self->output_.retry(attempt, error.retryAfter,
                                [weak, weakChat, name, generation, kind, attempt] {
                                    auto self = weak.lock();
                                    auto chat = weakChat.lock();
                                    if (self && chat && self->current(name, generation)) {
                                        self->fetchNewest(chat, kind, attempt + 1, true);
                                    }
                                });
        });
}

void TVKMissedMessageRecovery::recover(const ChatPtr& chat) {
    auto* state = channelOf(chat);
    // A new reconnection supersedes a recovery still under way: its answers are ignored, and
    // what it held stays held for this one.
    state->generation = ++lastGeneration_;
    state->recovering = true;
    state->liveFrom = state->held.size();
    state->failedAttempts = 0;
    fetchMissed(chat, state->generation);
}

void TVKMissedMessageRecovery::fetchMissed(const ChatPtr& chat, unsigned generation) {
    fetchMissed(chat, generation, Listings{});
}

void TVKMissedMessageRecovery::fetchMissed(const ChatPtr& chat, unsigned generation,
                                           Listings listings) {
    const auto name = chat->originalChatroomName();
    auto* state = current(name, generation);
    if (!state) return;
    std::weak_ptr<TVKMissedMessageRecovery> weak = weak_from_this();
    std::weak_ptr<TVKChat> weakChat = chat;
    auto listPage = [weak, weakChat](const boost::json::object& query, auto success, auto failure) {
        auto self = weak.lock();
        auto chat = weakChat.lock();
        if (self && chat) self->output_.listPage(chat, query, success, failure);
    };
    auto isDelivered = [weak, name, generation](const TVKChatMessage& message) {
        auto self = weak.lock();
        auto* state = self ? self->current(name, generation) : nullptr;
        return state && state->cursor.wasDelivered(message);
    };
    TVKMissedMessageFetch::start(
        listPage, *state->cursor.time(), isDelivered, kTVKMissedMessagesLimit,
        [weak, name, generation, listings](const TVKMissedMessageFetch::Result& result) {
            if (auto self = weak.lock()) self->fetched(name, generation, result, listings);
        },
        [weak, name, generation, listings](const TVKError& error) {
            auto self = weak.lock();
            if (!self) return;
            // A listing only asked again to confirm the last one: that one stands.
            if (listings.previous)
                return self->deliverRecovered(name, generation, *listings.previous);
            self->fetchFailed(name, generation, error);
        });
}

void TVKMissedMessageRecovery::fetched(const std::string& channel, unsigned generation,
                                       const TVKMissedMessageFetch::Result& result,
                                       Listings listings) {
    auto* state = current(channel, generation);
    auto chat = state ? state->chat.lock() : nullptr;
    if (!chat) return;
    // The kinds are listed one after the other. A message of the later list may be one sent
    // after the subscription whose live event is still on its way, behind a message of the other
    // kind that neither list holds. A live message settles it (see `deliverRecovered`); without
    // one, a second listing that finds nothing new shows that the lists missed nothing.
    const bool settled = result.messages.empty() || firstLiveTime(*state) ||
                         (listings.previous && sameMessages(*listings.previous, result)) ||
                         listings.count >= kMaxListings;
    if (settled) return deliverRecovered(channel, generation, result);
    Listings next{listings.count + 1, std::make_shared<TVKMissedMessageFetch::Result>(result)};
    fetchMissed(chat, generation, std::move(next));
}

void TVKMissedMessageRecovery::fetchFailed(const std::string& channel, unsigned generation,
                                           const TVKError& error) {
    auto* state = current(channel, generation);
    if (!state) return;
    std::weak_ptr<TVKMissedMessageRecovery> weak = weak_from_this();
    const bool scheduled =
        output_.retry(state->failedAttempts++, error.retryAfter, [weak, channel, generation] {
            auto self = weak.lock();
            auto* state = self ? self->current(channel, generation) : nullptr;
            if (auto chat = state ? state->chat.lock() : nullptr)
                self->fetchMissed(chat, generation);
        });
    if (scheduled) return;
    auto chat = state->chat.lock();
    if (!chat) return;
    TVKMissedMessagesGap gap;
    gap.reason = TVKMissedMessagesGap::kFetchFailed;
    gap.oldestDate = state->cursor.time().value_or(0);
    gap.latestDate = firstHeldTime(*state);
    gap.error = error;
    output_.event(chat, chat_event::MissedMessagesGap{gap});
    deliverRecovered(channel, generation, {});
}

// --- Delivery ----------------------------------------------------------------------------------

bool TVKMissedMessageRecovery::deliverOnce(const std::string& channel, unsigned generation,
                                           const ChatPtr& chat, const MessagePtr& message,
                                           Kind kind) {
    auto* state = current(channel, generation);
    if (!state) return false;
    if (state->cursor.wasDelivered(*message)) return true;
    state->cursor.delivered(*message);
    output_.event(chat, messageEvent(message, kind));
    // The application's callback may have disconnected the chatroom, or turned recovery off.
    return current(channel, generation) != nullptr;
}

void TVKMissedMessageRecovery::deliverRecovered(const std::string& channel, unsigned generation,
                                                const TVKMissedMessageFetch::Result& result) {
    auto* state = current(channel, generation);
    auto chat = state ? state->chat.lock() : nullptr;
    if (!chat) return;
    const auto gapEnd = firstHeldTime(*state);
    const auto firstLive = firstLiveTime(*state);
    // From here on the stream is live again; nothing new can arrive while this runs.
    state->recovering = false;
    auto held = std::move(state->held);
    state->held.clear();
    state->liveFrom = 0;

    std::unordered_set<std::string> heldIds;
    for (const auto& event : held) {
        const auto* message = std::get_if<HeldMessage>(&event);
        if (message && message->message->messageId()) {
            heldIds.insert(*message->message->messageId());
        }
    }
    const auto recovered = sentBeforeTheLiveStream(result, firstLive, heldIds);
    std::size_t next = 0;
    auto deliverRecoveredUpTo = [&](std::size_t end) {
        for (; next < end; ++next) {
            const auto& missed = recovered[next];
            if (!deliverOnce(channel, generation, chat, missed.message, missed.kind)) return false;
        }
        return true;
    };
    // A recovered message that never came live was sent before the subscription: within one
    // millisecond it goes before the live ones (the service orders a text and a raw message of
    // the same millisecond in no particular way).
    auto firstAfter = [&](std::int64_t time) {
        std::size_t index = next;
        for (; index < recovered.size() && recovered[index].time <= time; ++index) {
            const auto& id = recovered[index].message->messageId();
            if (recovered[index].time == time && id && heldIds.count(*id)) break;
        }
        return index;
    };
    // Past the first live message everything arrives live: a truncated list that reaches it
    // left nothing out.
    if (result.truncated && !(firstLive && *firstLive <= result.resumeAt)) {
        if (!deliverRecoveredUpTo(recovered.size())) return;
        TVKMissedMessagesGap gap;
        gap.reason = TVKMissedMessagesGap::kTooManyMessages;
        gap.oldestDate = result.resumeAt;
        gap.latestDate = gapEnd;
        output_.event(chat, chat_event::MissedMessagesGap{gap});
        if (!current(channel, generation)) return;
    }
    // The kinds are listed one after the other, so the later list can hold messages sent after
    // the earlier one was taken, which arrive live as well: the recovered and the held messages
    // are merged by the service's time, never simply one list after the other.
    for (auto& event : held) {
        if (auto* message = std::get_if<HeldMessage>(&event)) {
            const auto time = TVKMessageCursor::timeOf(*message->message);
            if (!deliverRecoveredUpTo(firstAfter(time))) return;
            if (!deliverOnce(channel, generation, chat, message->message, message->kind)) return;
            continue;
        }
        // A removal follows the message it removes, wherever that message comes from.
        const auto& removedId = std::get<HeldRemoval>(event).messageId;
        for (std::size_t index = next; index < recovered.size(); ++index) {
            if (recovered[index].message->messageId() == removedId) {
                if (!deliverRecoveredUpTo(index + 1)) return;
                break;
            }
        }
        output_.event(chat, chat_event::MessageRemoved{removedId});
        if (!current(channel, generation)) return;
    }
    if (!deliverRecoveredUpTo(recovered.size())) return;
    if (output_.caughtUp) output_.caughtUp(chat);
}

std::vector<TVKMissedMessageFetch::Missed> TVKMissedMessageRecovery::sentBeforeTheLiveStream(
    const TVKMissedMessageFetch::Result& result, std::optional<std::int64_t> firstLive,
    const std::unordered_set<std::string>& heldIds) {
    if (!firstLive) return result.messages;
    // The live stream begins with the first live message, and everything sent after it comes
    // live too, in order. A listed message newer than it that has not come yet is on its way:
    // taken from the list it would overtake live messages sent before it.
    std::vector<TVKMissedMessageFetch::Missed> before;
    for (const auto& missed : result.messages) {
        const auto& id = missed.message->messageId();
        if (missed.time > *firstLive && !(id && heldIds.count(*id))) continue;
        before.push_back(missed);
    }
    return before;
}

std::optional<std::int64_t> TVKMissedMessageRecovery::firstLiveTime(const Channel& state) const {
    for (std::size_t index = state.liveFrom; index < state.held.size(); ++index) {
        if (const auto* held = std::get_if<HeldMessage>(&state.held[index])) {
            if (!state.cursor.wasDelivered(*held->message)) {
                return TVKMessageCursor::timeOf(*held->message);
            }
        }
    }
    return std::nullopt;
}

std::optional<std::int64_t> TVKMissedMessageRecovery::firstHeldTime(const Channel& state) const {
    for (const auto& event : state.held) {
        if (const auto* held = std::get_if<HeldMessage>(&event)) {
            if (!state.cursor.wasDelivered(*held->message)) {
                return TVKMessageCursor::timeOf(*held->message);
            }
        }
    }
    return std::nullopt;
}

}  // namespace tavlo
