#pragma once

#include "TavloCoreSDK/TVKExport.hpp"

#include <compare>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "TavloCoreSDK/TVKError.hpp"
#include "TavloMessagingSDK/TVKChatEventDelegate.hpp"

namespace tavlo {

class DQChatProfile;
class TVKAggregatedData;
class TVKChatMessage;
class TVKChatSticker;
class TVKChatUser;

using TVKChatMessages = std::vector<std::shared_ptr<TVKChatMessage>>;
using TVKAggregatedDataList = std::vector<std::shared_ptr<TVKAggregatedData>>;
using TVKChatStickers = std::vector<std::shared_ptr<TVKChatSticker>>;
/// A page of messages: text and raw messages, or, for the type "aggregate", batches of counters.
using TVKMessageListing = std::variant<TVKChatMessages, TVKAggregatedDataList>;

/// Where a chatroom stands in its connection.
enum class TVKChatStatus : std::uint64_t {
    none = 0,           // no profile loaded yet
    ready = 1,          // profile loaded, socket idle
    connecting = 2,     // socket connecting or subscribing
    connected = 3,      // subscribed: events arrive
    disconnecting = 4,  // a disconnection this side asked for is under way
};
inline constexpr TVKChatStatus TVKChatStatusNone = TVKChatStatus::none;
inline constexpr TVKChatStatus TVKChatStatusReady = TVKChatStatus::ready;
inline constexpr TVKChatStatus TVKChatStatusConnecting = TVKChatStatus::connecting;
inline constexpr TVKChatStatus TVKChatStatusConnected = TVKChatStatus::connected;
inline constexpr TVKChatStatus TVKChatStatusDisconnecting = TVKChatStatus::disconnecting;

/// Who may write in a chatroom, from its profile's write mode.
enum class TVKChatInputMode : std::uint64_t {
    null = 0,    // unknown or unset
    all = 1,     // "ALL": everybody
    login = 2,   // "LOGIN": members only
    anchor = 3,  // "ANCHOR": moderators and up
};
inline constexpr TVKChatInputMode TVKChatInputModeNull = TVKChatInputMode::null;
inline constexpr TVKChatInputMode TVKChatInputModeAll = TVKChatInputMode::all;
inline constexpr TVKChatInputMode TVKChatInputModeLogin = TVKChatInputMode::login;
inline constexpr TVKChatInputMode TVKChatInputModeAnchor = TVKChatInputMode::anchor;

/// One chatroom as the signed-in user sees it: its profile, the user's membership, the realtime
/// connection and what arrives over it (counts, write mode, pinned message, aggregated counters,
/// the online users).
///
/// Applications receive chatrooms from `TVKChatManager` and read them; the manager drives them.
/// A chatroom is not thread-safe: it changes only on the manager's queue, so read it from the
/// manager's callbacks. Every callback a chatroom hands out reaches it through a weak reference:
/// a chatroom the manager has dropped is not kept alive by pending requests and ignores what
/// arrives afterwards.
class TAVLO_EXPORT TVKChat : public std::enable_shared_from_this<TVKChat> {
  public:
    virtual ~TVKChat();
    TVKChat(const TVKChat&) = delete;
    TVKChat& operator=(const TVKChat&) = delete;

    /// The chatroom's name as the application knows it (without the personal prefix).
    std::string chatroomName() const;
    /// The name as the service knows it ("p#" in front for a personal chatroom).
    std::string originalChatroomName() const;
    bool isPersonalChat() const;
    /// The service's id of the chatroom; empty until the profile is loaded.
    std::string chatId() const;
    std::optional<std::string> createdDate() const;
    std::uint64_t memberCount() const;
    std::uint64_t guestCount() const;
    /// Who may write, from the profile's write mode.
    TVKChatInputMode mode() const;
    /// Members plus guests; at least 1, as the signed-in user always counts.
    std::int64_t userCount() const;
    /// The aggregated counters' totals as last known: loaded with the profile, raised by events.
    TVKAggregatedItems totalAggregatedItems() const;
    /// The pinned message, or nullptr.
    const std::shared_ptr<TVKChatMessage>& pinnedMessage() const { return pinnedMessage_; }
    /// The sticker sets, or nothing when the last profile load brought none.
    const std::optional<TVKChatStickers>& stickers() const { return stickers_; }
    bool hasGotStickers() const { return stickers_.has_value(); }
    TVKChatStatus status() const { return status_; }

    const std::shared_ptr<TVKChatUser>& currentUser() const { return currentUser_; }
    const std::string& vendorAccountId() const { return vendorAccountId_; }
    /// The archive service's base URL, from the profile.
    const std::optional<std::string>& arcHTTPHostURL() const { return arcHTTPHostURL_; }
    const std::string& HTTPHostURL() const { return HTTPHostURL_; }
    const std::shared_ptr<DQChatProfile>& profile() const { return profile_; }

    /// True when this chatroom's name without prefix equals the other's full name. Deliberately
    /// one-sided: a personal chatroom is equal to no chatroom object, not even itself. For
    /// identity (containers, lookups) use `==` instead.
    bool isEqual(const TVKChat& other) const;
    /// Identity: two chatrooms are the same when their full names (`originalChatroomName`) are.
    /// `==` is an equivalence, agrees with `hash` and `std::hash<TVKChat>`, and `<=>` orders by
    /// the same name, so chatrooms work as keys of standard containers, e.g.
    /// `std::unordered_set<std::reference_wrapper<const TVKChat>, std::hash<TVKChat>,
    /// std::equal_to<TVKChat>>` or `std::map<std::reference_wrapper<const TVKChat>, T,
    /// std::less<TVKChat>>`.
    bool operator==(const TVKChat& other) const;
    std::strong_ordering operator<=>(const TVKChat& other) const;
    /// The hash of `originalChatroomName`.
    std::size_t hash() const;

  private:
    // Only the SDK makes chatrooms, and only one kind: the session that drives the connection
    // (Internal/TVKChatSession.hpp) and keeps these fields up to date.
    friend class TVKChatSession;
    TVKChat(const std::string& channel, const std::string& vendorAccountId,
            const std::string& HTTPHostURL);

    std::shared_ptr<TVKChatUser> currentUser_;
    std::optional<TVKChatStickers> stickers_;
    TVKChatStatus status_ = TVKChatStatus::none;
    std::string HTTPHostURL_;
    std::optional<std::string> arcHTTPHostURL_;
    std::shared_ptr<DQChatProfile> profile_;
    std::string vendorAccountId_;
    std::int64_t userCount_ = 0;
    std::optional<TVKAggregatedItems> cachedAggregatedItems_;
    std::shared_ptr<TVKChatMessage> pinnedMessage_;
};

}  // namespace tavlo

template <>
struct std::hash<tavlo::TVKChat> {
    std::size_t operator()(const tavlo::TVKChat& chat) const { return chat.hash(); }
};
