// What a chatroom does with each realtime event: it applies the event to its own state first,
// then reports it to its owner as the record the application will receive. The events arrive
// decoded (TVKRealtimeEvents.cpp); each kind has one `apply` here. Also the counters missed
// during a full reconnection.
#include <algorithm>

#include "TavloMessagingSDK/DQChatProfile.hpp"
#include "TavloMessagingSDK/Internal/TVKChatInternal.hpp"
#include "TavloMessagingSDK/Internal/TVKChatSession.hpp"
#include "TavloMessagingSDK/Internal/TVKMessagingSocketClient.hpp"
#include "TavloMessagingSDK/Internal/TVKRealtimeEvents.hpp"
#include "TavloMessagingSDK/TVKAggregatedData.hpp"
#include "TavloMessagingSDK/TVKChatMessage.hpp"
#include "TavloMessagingSDK/TVKChatUser.hpp"

namespace tavlo {

namespace json = boost::json;
using chat_internal::recordOf;
using chat_internal::tell;

namespace {

bool sameKey(const TVKAggregatedItem& a, const TVKAggregatedItem& b) {
    return a.key() && b.key() && *a.key() == *b.key();
}

}  // namespace

// The state change of each realtime event, then its report. One overload per event kind.
struct TVKChatSession::RealtimeEventHandling {
    TVKChatSession& chat;
    const EventDelegate& owner;

    void report(TVKChatReport&& report) const {
        tell(owner, chat.shared_from_this(), std::move(report));
    }

    void operator()(chat_wire::Subscribed&&) const { chat.subscribedWithDelegate(owner); }

    // Messages, removals, the flush and metadata change nothing the chatroom keeps: they go to
    // the owner as they came.
    template <class Event>
    void operator()(Event&& event) const {
        report(TVKChatReport(std::forward<Event>(event)));
    }

    void operator()(chat_event::PinnedMessageUpdated&& event) const {
        ++chat.eventChanges_.pinnedMessage;
        chat.pinnedMessage_ = event.message;
        report(std::move(event));
    }

    void operator()(chat_event::AggregatedItemsAdded&& event) const {
        ++chat.eventChanges_.aggregated;
        chat.addToAggregatedTotals(event.items);
        // The application hears the increments; the totals are in `totalAggregatedItems`.
        report(std::move(event));
    }

    void operator()(chat_wire::WriteModeChanged&& event) const {
        if (!chat.isChatIdText(event.chatId)) return;
        ++chat.eventChanges_.writeMode;
        chat.profile_->setChatWriteMode(std::move(event.mode));
        report(chat_event::InputModeChanged{});
    }

    void operator()(chat_wire::InputIntervalChanged&& event) const {
        if (!chat.isSameChatIdValue(event.chatId)) return;
        const double before = chat.profile_->inputInterval().value_or(0);
        ++chat.eventChanges_.inputInterval;
        chat.profile_->setInputInterval(event.interval);
        // The owner hears the change, not the new interval: a cooldown under way moves by it.
        report(chat_report::InputIntervalChanged{event.interval.value_or(0) - before});
    }

    void operator()(chat_event::UsersJoined&& event) const {
        chat.userCache_.addUsersToCachedUsersIfNeeded(event.users);
        std::int64_t joined = 0;
        for (const auto& user : event.users) {
            // The signed-in user was counted already.
            if (!chat.currentUser_ || !user->isEqual(*chat.currentUser_)) ++joined;
        }
        report(std::move(event));
        // One at a time, as the getter reads at least 1 between two of them.
        for (std::int64_t i = 0; i < joined; ++i) {
            ++chat.eventChanges_.counts;
            chat.userCount_ = chat_internal::wrappingSum(chat.userCount(), 1);
        }
        report(chat_event::UserCount{});
    }

    void operator()(chat_event::UsersUpdated&& event) const {
        chat.userCache_.updateCachedUsers(event.users);
        report(std::move(event));
    }

    void operator()(chat_event::UsersLeft&& event) const {
        const auto left = static_cast<std::int64_t>(event.labels.size());
        auto labels = event.labels;
        report(std::move(event));
        chat.userCache_.removeUsersFromCachedUsersIfNeeded(labels, chat.userCount());
        ++chat.eventChanges_.counts;
        // Unlike a join, the signed-in user is not told apart; the getter never reads below 1.
        chat.userCount_ = chat_internal::wrappingSum(chat.userCount(), -left);
        report(chat_event::UserCount{});
    }

    void operator()(chat_wire::CountsChanged&& event) const {
        ++chat.eventChanges_.counts;
        chat.profile_->setMemberCount(event.members);
        chat.profile_->setGuestCount(event.guests);
        chat.userCount_ =
            chat_internal::wrappingSum(event.members.value_or(0), event.guests.value_or(0));
        report(chat_event::UserCount{});
    }
};

// --- Registration ------------------------------------------------------------------------------

void TVKChatSession::listenCustomSocketEventsWithDelegate(EventDelegate delegate) {
    const auto& socket = socketClient();
    if (!socket) return;
    std::weak_ptr<TVKChatSession> weakSelf = weakSession();
    for (const auto& kind : kTVKRealtimeEvents) {
        socket->listenOn(std::string(kind.name), [weakSelf, delegate,
                                                  decode = kind.decode](const json::value* item) {
            auto self = weakSelf.lock();
            if (!self) return;
            const auto& stickers = self->stickers_;
            auto event = decode(item, stickers ? &*stickers : nullptr);
            if (event) std::visit(RealtimeEventHandling{*self, delegate}, std::move(*event));
        });
    }
}

// --- Connection events -------------------------------------------------------------------------

void TVKChatSession::subscribedWithDelegate(const EventDelegate& delegate) {
    stopAwaitingSubscription();
    setStatus(TVKChatStatusConnected, reconnecting_ ? "subscribed again" : "subscribed");
    // Deliberately, a full reconnection ends like every other connection: the manager (and the
    // application) must learn that the chatroom is live again, or a chatroom that recovered
    // through the full path would stay unannounced, counted as reconnecting, for good.
    tell(delegate, shared_from_this(), chat_event::Connected{});
    if (!reconnecting_) return;
    // What was missed meanwhile follows the announcement.
    reconnecting_ = false;
    syncDisconnectLostDataWithDelegate(delegate);
}

void TVKChatSession::syncDisconnectLostDataWithDelegate(const EventDelegate& delegate) {
    if (!diffAggregatedItems_) return;
    auto differences = std::move(*diffAggregatedItems_);
    diffAggregatedItems_.reset();
    // Reported even when empty: the application learns that nothing was missed.
    tell(delegate, shared_from_this(), chat_event::AggregatedItemsAdded{std::move(differences)});
}

// --- Messages ----------------------------------------------------------------------------------

void TVKChatSession::classifyMessage(const json::object& json,
                                     const MessageCompletion& completion) const {
    if (completion) completion(classifiedMessage(json, stickers_ ? &*stickers_ : nullptr));
}

// --- Aggregated counters -----------------------------------------------------------------------

void TVKChatSession::addToAggregatedTotals(const TVKAggregatedItems& items) {
    for (const auto& item : items) {
        if (!cachedAggregatedItems_) cachedAggregatedItems_.emplace();
        bool counted = false;
        // Every cached counter of the key is raised, should the cache hold it twice.
        for (const auto& cached : *cachedAggregatedItems_) {
            if (!sameKey(*cached, *item)) continue;
            cached->addCount(item->count().value_or(0));
            counted = true;
        }
        if (!counted) cachedAggregatedItems_->push_back(item);
    }
}

TVKAggregatedItems TVKChatSession::aggregatedDifferences(const TVKAggregatedItems& cached,
                                                         const TVKAggregatedItems& fresh) {
    TVKAggregatedItems differences;
    for (const auto& item : fresh) {
        auto known = std::find_if(cached.begin(), cached.end(),
                                  [&item](const auto& old) { return sameKey(*old, *item); });
        if (known == cached.end()) {
            differences.push_back(item);  // all of its count is new
            continue;
        }
        const std::uint64_t now = item->count().value_or(0);
        const std::uint64_t before = (*known)->count().value_or(0);
        if (now == before) continue;
        // Unsigned on purpose: a count that went down wraps around, and adding the difference to
        // the old total still gives the new one.
        differences.push_back(
            recordOf<TVKAggregatedItem>(json::object{{"key", *item->key()}, {"n", now - before}}));
    }
    return differences;
}

void TVKChatSession::updateDiffAggregatedItemsIfNeeded(
    const std::optional<TVKAggregatedItems>& fresh) {
    if (!cachedAggregatedItems_) {
        if (fresh) diffAggregatedItems_ = fresh;
        return;
    }
    diffAggregatedItems_ =
        aggregatedDifferences(*cachedAggregatedItems_, fresh.value_or(TVKAggregatedItems{}));
}

// --- Chat ids of events ------------------------------------------------------------------------
//
// The two events name their chatroom differently on purpose. The write-mode event is taken when
// its chat id reads as the chatroom's id (a string equal to it, or a number written the same
// way). The input-interval event is taken only when its chat id is the very value the profile
// was loaded with: the same JSON kind and the same value, so a number standing for a string id
// (equal only in content) does not count.

bool TVKChatSession::isChatIdText(const json::value& chatId) const {
    if (const auto* text = chatId.if_string()) return *text == this->chatId();
    if (chatId.is_int64()) return std::to_string(chatId.get_int64()) == this->chatId();
    if (chatId.is_uint64()) return std::to_string(chatId.get_uint64()) == this->chatId();
    return false;
}

bool TVKChatSession::isSameChatIdValue(const json::value& chatId) const {
    return !profileChatIdValue_.is_null() && chatId.kind() == profileChatIdValue_.kind() &&
           chatId == profileChatIdValue_;
}

}  // namespace tavlo
