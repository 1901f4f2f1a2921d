// What a chatroom does with each realtime event: it applies the event to its own state first,
// then reports it to its event delegate. Also the counters missed during a full reconnection.
#include <algorithm>
#include <cmath>

#include "TavloMessagingSDK/DQChatProfile.hpp"
#include "TavloMessagingSDK/Internal/TVKChatInternal.hpp"
#include "TavloMessagingSDK/Internal/TVKMessagingSocketClient.hpp"
#include "TavloMessagingSDK/TVKAggregatedItem.hpp"
#include "TavloMessagingSDK/TVKChat.hpp"
#include "TavloMessagingSDK/TVKChatMessage.hpp"
#include "TavloMessagingSDK/TVKChatSticker.hpp"
#include "TavloMessagingSDK/TVKChatUser.hpp"

namespace tavlo {

namespace json = boost::json;
using chat_internal::recordOf;
using chat_internal::recordsOf;
using chat_internal::tell;

namespace {

/// A count as the service sent it: integers as they are, other numbers cut to whole ones.
std::optional<std::int64_t> countFromJSON(const json::value& value) {
    if (value.is_int64()) return value.get_int64();
    if (value.is_uint64()) return static_cast<std::int64_t>(value.get_uint64());
    if (value.is_double()) {
        const double number = value.get_double();
        constexpr double limit = 9223372036854775808.0;  // 2^63
        if (std::isfinite(number) && number > -limit && number < limit) {
            return static_cast<std::int64_t>(number);
        }
    }
    return std::nullopt;
}

std::optional<double> numberFromJSON(const json::value& value) {
    if (value.is_number()) return value.to_number<double>();
    return std::nullopt;
}

bool sameKey(const TVKAggregatedItem& a, const TVKAggregatedItem& b) {
    return a.key() && b.key() && *a.key() == *b.key();
}

/// Binds a chatroom handler to an event registration: the chatroom is reached weakly (a released
/// chatroom ignores the event) and receives the event's values, then the delegate.
template <class Method>
auto handler(std::weak_ptr<TVKChat> weakSelf, TVKChat::EventDelegate delegate, Method method) {
    return [weakSelf, delegate, method](const auto&... values) {
        if (auto self = weakSelf.lock()) ((*self).*method)(values..., delegate);
    };
}

}  // namespace

// --- Registration ------------------------------------------------------------------------------

void TVKChat::listenCustomSocketEventsWithDelegate(EventDelegate delegate) {
    const auto& socket = socketClient();
    if (!socket) return;
    std::weak_ptr<TVKChat> weakSelf = weak_from_this();
    auto bound = [&](auto method) { return handler(weakSelf, delegate, method); };
    socket->onSubscribed([weakSelf, delegate] {
        if (auto self = weakSelf.lock()) self->subscribedWithDelegate(delegate);
    });
    socket->onMessage(bound(&TVKChat::addMessage));
    socket->onAggregateData(bound(&TVKChat::addAggregatedItems));
    socket->onRawData(bound(&TVKChat::addRawData));
    socket->onChatWriteMode(bound(&TVKChat::inputModeChanged));
    socket->onUserAdd(bound(&TVKChat::usersJoined));
    socket->onUserUpdate(bound(&TVKChat::usersUpdated));
    socket->onUserRemove(bound(&TVKChat::usersLeft));
    socket->onUserCount(
        [weakSelf, delegate](const json::value& members, const json::value& guests) {
            if (auto self = weakSelf.lock()) self->userCountWithDelegate(delegate, members, guests);
        });
    socket->onMessageRemove(bound(&TVKChat::removeMessageById));
    socket->onMessageFlush([weakSelf, delegate] {
        if (auto self = weakSelf.lock()) self->flushMessageWithDelegate(delegate);
    });
    socket->onMessageInputInterval(bound(&TVKChat::inputIntervalChanged));
    socket->onPinnedMessageUpdated(bound(&TVKChat::pinnedMessageUpdated));
    socket->onMetadataUpdated(bound(&TVKChat::metadataUpdated));
}

// --- Connection events -------------------------------------------------------------------------

void TVKChat::subscribedWithDelegate(const EventDelegate& delegate) {
    stopAwaitingSubscription();
    setStatus(TVKChatStatusConnected, reconnecting_ ? "subscribed again" : "subscribed");
    // Deliberately, a full reconnection ends like every other connection: the manager (and the
    // application) must learn that the chatroom is live again, or a chatroom that recovered
    // through the full path would stay unannounced, counted as reconnecting, for good.
    tell(delegate, shared_from_this(),
         [](auto& alive, const auto& chat) { alive.chatConnected(chat); });
    if (!reconnecting_) return;
    // What was missed meanwhile follows the announcement.
    reconnecting_ = false;
    syncDisconnectLostDataWithDelegate(delegate);
}

void TVKChat::syncDisconnectLostDataWithDelegate(const EventDelegate& delegate) {
    if (!diffAggregatedItems_) return;
    auto differences = std::move(*diffAggregatedItems_);
    diffAggregatedItems_.reset();
    // Reported even when empty: the application learns that nothing was missed.
    tell(delegate, shared_from_this(), [&differences](auto& alive, const auto& chat) {
        alive.aggregatedItemsAdded(differences, chat);
    });
}

// --- Messages ----------------------------------------------------------------------------------

void TVKChat::classifyMessage(const json::object& json, const MessageCompletion& completion) const {
    if (!completion) return;
    const auto text = json_read::string(json, "text");
    if (text && stickers_) {
        for (const auto& stickerSet : *stickers_) {
            if (auto url = stickerSet->stickerURLWithText(*text)) {
                return completion(TVKChatMessage::withJSON(json::value(json), std::move(*url)));
            }
        }
    }
    completion(recordOf<TVKChatMessage>(json));
}

void TVKChat::addMessage(const json::object& json, const EventDelegate& delegate) {
    auto self = shared_from_this();
    classifyMessage(json, [&](const std::shared_ptr<TVKChatMessage>& message) {
        tell(delegate, self,
             [&](auto& alive, const auto& chat) { alive.messageAdded(message, chat); });
    });
}

void TVKChat::addRawData(const json::object& json, const EventDelegate& delegate) {
    auto message = recordOf<TVKChatMessage>(json);
    tell(delegate, shared_from_this(),
         [&](auto& alive, const auto& chat) { alive.rawDataAdded(message, chat); });
}

void TVKChat::removeMessageById(const std::string& messageId, const EventDelegate& delegate) {
    tell(delegate, shared_from_this(),
         [&](auto& alive, const auto& chat) { alive.messageRemoved(messageId, chat); });
}

void TVKChat::flushMessageWithDelegate(const EventDelegate& delegate) {
    tell(delegate, shared_from_this(),
         [](auto& alive, const auto& chat) { alive.messageFlushed(chat); });
}

void TVKChat::pinnedMessageUpdated(const json::object* json, const EventDelegate& delegate) {
    // No message means the pin was lifted.
    pinnedMessage_ = json ? recordOf<TVKChatMessage>(*json) : nullptr;
    tell(delegate, shared_from_this(), [this](auto& alive, const auto& chat) {
        alive.pinnedMessageUpdated(pinnedMessage_, chat);
    });
}

void TVKChat::metadataUpdated(const json::array& json, const EventDelegate& delegate) {
    auto metadata = chat_internal::metadataDictionary(json);
    if (metadata.empty()) return;
    tell(delegate, shared_from_this(),
         [&](auto& alive, const auto& chat) { alive.metadataUpdated(metadata, chat); });
}

// --- Aggregated counters -----------------------------------------------------------------------

void TVKChat::addAggregatedItems(const json::array& json, const EventDelegate& delegate) {
    auto items = recordsOf<TVKAggregatedItem>(json).value_or(TVKAggregatedItems{});
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
    // The delegate hears the increments; the totals are in `totalAggregatedItems`.
    tell(delegate, shared_from_this(),
         [&items](auto& alive, const auto& chat) { alive.aggregatedItemsAdded(items, chat); });
}

TVKAggregatedItems TVKChat::aggregatedDifferences(const TVKAggregatedItems& cached,
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

void TVKChat::updateDiffAggregatedItemsIfNeeded(const std::optional<TVKAggregatedItems>& fresh) {
    if (!cachedAggregatedItems_) {
        if (fresh) diffAggregatedItems_ = fresh;
        return;
    }
    diffAggregatedItems_ =
        aggregatedDifferences(*cachedAggregatedItems_, fresh.value_or(TVKAggregatedItems{}));
}

// --- Write mode and input interval -------------------------------------------------------------
//
// The two events name their chatroom differently on purpose. The write-mode event is taken when
// its chat id reads as the chatroom's id (a string equal to it, or a number written the same
// way). The input-interval event is taken only when its chat id is the very value the profile
// was loaded with: the same JSON kind and the same value, so a number standing for a string id
// (equal only in content) does not count.

bool TVKChat::isChatIdText(const json::value& chatId) const {
    if (const auto* text = chatId.if_string()) return *text == this->chatId();
    if (chatId.is_int64()) return std::to_string(chatId.get_int64()) == this->chatId();
    if (chatId.is_uint64()) return std::to_string(chatId.get_uint64()) == this->chatId();
    return false;
}

bool TVKChat::isSameChatIdValue(const json::value& chatId) const {
    return !profileChatIdValue_.is_null() && chatId.kind() == profileChatIdValue_.kind() &&
           chatId == profileChatIdValue_;
}

void TVKChat::inputModeChanged(const json::value& chatId, const json::value& mode,
                               const EventDelegate& delegate) {
    if (!isChatIdText(chatId)) return;
    const auto* text = mode.if_string();
    profile_->setChatWriteMode(text ? std::optional<std::string>(*text) : std::nullopt);
    tell(delegate, shared_from_this(),
         [](auto& alive, const auto& chat) { alive.inputModeChanged(chat); });
}

void TVKChat::inputIntervalChanged(const json::value& chatId, const json::value& interval,
                                   const EventDelegate& delegate) {
    if (!isSameChatIdValue(chatId)) return;
    const double before = profile_->inputInterval().value_or(0);
    const auto now = numberFromJSON(interval);
    profile_->setInputInterval(now);
    // The delegate hears the change, not the new interval: a cooldown under way moves by it.
    const double change = now.value_or(0) - before;
    tell(delegate, shared_from_this(),
         [change](auto& alive, const auto& chat) { alive.inputIntervalChanged(change, chat); });
}

// --- Users -------------------------------------------------------------------------------------

void TVKChat::usersJoined(const json::array& json, const EventDelegate& delegate) {
    auto users = recordsOf<TVKChatUser>(json);
    if (!users || users->empty()) return;
    userCache_.addUsersToCachedUsersIfNeeded(*users);
    auto self = shared_from_this();
    tell(delegate, self, [&](auto& alive, const auto& chat) { alive.usersJoined(*users, chat); });
    for (const auto& user : *users) {
        // The signed-in user was counted already.
        if (currentUser_ && user->isEqual(*currentUser_)) continue;
        userCount_ = chat_internal::wrappingSum(userCount(), 1);
    }
    tell(delegate, self, [](auto& alive, const auto& chat) { alive.userCount(chat); });
}

void TVKChat::usersUpdated(const json::array& json, const EventDelegate& delegate) {
    auto users = recordsOf<TVKChatUser>(json);
    if (!users || users->empty()) return;
    userCache_.updateCachedUsers(*users);
    tell(delegate, shared_from_this(),
         [&](auto& alive, const auto& chat) { alive.usersUpdated(*users, chat); });
}

void TVKChat::usersLeft(const TVKUserLabels& labels, const EventDelegate& delegate) {
    auto self = shared_from_this();
    tell(delegate, self, [&](auto& alive, const auto& chat) { alive.usersLeft(labels, chat); });
    userCache_.removeUsersFromCachedUsersIfNeeded(labels, userCount());
    // Unlike a join, the signed-in user is not told apart; the getter never reads below 1.
    userCount_ = chat_internal::wrappingSum(userCount(), -static_cast<std::int64_t>(labels.size()));
    tell(delegate, self, [](auto& alive, const auto& chat) { alive.userCount(chat); });
}

void TVKChat::userCountWithDelegate(const EventDelegate& delegate, const json::value& memberCount,
                                    const json::value& guestCount) {
    const auto members = countFromJSON(memberCount);
    const auto guests = countFromJSON(guestCount);
    profile_->setMemberCount(members);
    profile_->setGuestCount(guests);
    userCount_ = chat_internal::wrappingSum(members.value_or(0), guests.value_or(0));
    tell(delegate, shared_from_this(),
         [](auto& alive, const auto& chat) { alive.userCount(chat); });
}

}  // namespace tavlo
