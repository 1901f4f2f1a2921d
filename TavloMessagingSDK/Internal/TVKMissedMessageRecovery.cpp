#include "TavloMessagingSDK/Internal/TVKMissedMessageRecovery.hpp"

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
        state->held.push_back(HeldMessage{message, kind});
        return true;
    }
    state->cursor.delivered(*message);
    return false;
}

bool TVKMissedMessageRecovery::interceptRemoval(const ChatPtr& chat, const std::string& messageId) {
    auto* state = channelOf(chat);
    if (!state || !state->recovering) return false;
    state->held.push_back(HeldRemoval{messageId});
    return true;
}

void TVKMissedMessageRecovery::forget(const std::string& channel) {
    channels_.erase(channel);
}

// --- Connections -------------------------------------------------------------------------------

void TVKMissedMessageRecovery::chatConnected(const ChatPtr& chat) {
    if (!enabled_ || !chat) return;
    const auto name = chat->originalChatroomName();
    auto* state = channelOf(chat);
    if (state && state->cursor.time()) return recover(chat);
    if (!state) {
        state = &channels_[name];
        *state = Channel{};
        state->chat = chat;
        state->generation = ++lastGeneration_;
    }
    // First connection (or one whose starting point never became known): the newest message of
    // each kind marks what the application has "seen"; anything older is history, not missed.
    fetchNewest(chat, Kind::text, 0);
    fetchNewest(chat, Kind::raw, 0);
}

void TVKMissedMessageRecovery::fetchNewest(const ChatPtr& chat, Kind kind, unsigned attempt) {
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
        [weak, name, generation](const TVKMissedMessageFetch::Messages& newest) {
            auto self = weak.lock();
            auto* state = self ? self->current(name, generation) : nullptr;
            if (!state) return;
            // An empty list is a starting point too: everything that comes later is new.
            state->cursor.advanceTo(0);
            // Counted as delivered: the application has them as history, and a recovery that
            // starts at their millisecond must not hand them out as missed.
            for (const auto& message : newest) {
                if (message) state->cursor.delivered(*message);
            }
        },
        // Retried on the reconnection schedule. Should it never succeed, the first message
        // delivered live becomes the starting point, and before that a reconnection asks again.
        [weak, weakChat = std::weak_ptr<TVKChat>(chat), name, generation, kind,
         attempt](const TVKError&) {
            auto self = weak.lock();
            if (!self || !self->current(name, generation)) return;
            self->output_.retry(attempt, [weak, weakChat, name, generation, kind, attempt] {
                auto self = weak.lock();
                auto chat = weakChat.lock();
                if (self && chat && self->current(name, generation)) {
                    self->fetchNewest(chat, kind, attempt + 1);
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
    state->failedAttempts = 0;
    fetchMissed(chat, state->generation);
}

void TVKMissedMessageRecovery::fetchMissed(const ChatPtr& chat, unsigned generation) {
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
        [weak, name, generation](const TVKMissedMessageFetch::Result& result) {
            if (auto self = weak.lock()) self->deliverRecovered(name, generation, result);
        },
        [weak, name, generation](const TVKError& error) {
            if (auto self = weak.lock()) self->fetchFailed(name, generation, error);
        });
}

void TVKMissedMessageRecovery::fetchFailed(const std::string& channel, unsigned generation,
                                           const TVKError& error) {
    auto* state = current(channel, generation);
    if (!state) return;
    std::weak_ptr<TVKMissedMessageRecovery> weak = weak_from_this();
    const bool scheduled = output_.retry(state->failedAttempts++, [weak, channel, generation] {
        auto self = weak.lock();
        auto* state = self ? self->current(channel, generation) : nullptr;
        if (auto chat = state ? state->chat.lock() : nullptr) self->fetchMissed(chat, generation);
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
    // From here on the stream is live again; nothing new can arrive while this runs.
    state->recovering = false;
    auto held = std::move(state->held);
    state->held.clear();

    const auto& recovered = result.messages;
    std::size_t next = 0;
    auto deliverRecoveredUpTo = [&](std::size_t end) {
        for (; next < end; ++next) {
            const auto& missed = recovered[next];
            if (!deliverOnce(channel, generation, chat, missed.message, missed.kind)) return false;
        }
        return true;
    };
    auto firstAtOrAfter = [&](std::int64_t time) {
        std::size_t index = next;
        while (index < recovered.size() && recovered[index].time < time) ++index;
        return index;
    };
    if (result.truncated) {
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
            if (!deliverRecoveredUpTo(firstAtOrAfter(time))) return;
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
    deliverRecoveredUpTo(recovered.size());
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
