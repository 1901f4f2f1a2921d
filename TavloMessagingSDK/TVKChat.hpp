#pragma once

#include "TavloCoreSDK/TVKExport.hpp"

#include <boost/json.hpp>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "Dispatch/Scheduler.hpp"
#include "Dispatch/SerialQueue.hpp"
#include "TavloCoreSDK/TVKError.hpp"
#include "TavloMessagingSDK/TVKChatSocketEventDelegate.hpp"
#include "TavloMessagingSDK/TVKChatUserCache.hpp"

namespace tavlo {

class DQChatProfile;
class TVKAggregatedData;
class TVKChatMessage;
class TVKChatSticker;
class TVKChatUser;
class TVKMessagingHTTPClient;
class TVKMessagingSocketClient;
class TVKMessagingSocketConfig;

using TVKChatMessages = std::vector<std::shared_ptr<TVKChatMessage>>;
using TVKAggregatedDataList = std::vector<std::shared_ptr<TVKAggregatedData>>;
using TVKChatStickers = std::vector<std::shared_ptr<TVKChatSticker>>;
/// A page of messages: text and raw messages, or, for the type "aggregate", batches of counters.
using TVKMessageListing = std::variant<TVKChatMessages, TVKAggregatedDataList>;

/// Where a chatroom stands in its connection.
enum TVKChatStatus : std::uint64_t {
    TVKChatStatusNone = 0,           // no profile loaded yet
    TVKChatStatusReady = 1,          // profile loaded, socket idle
    TVKChatStatusConnecting = 2,     // socket connecting or subscribing
    TVKChatStatusConnected = 3,      // subscribed: events arrive
    TVKChatStatusDisconnecting = 4,  // a disconnection this side asked for is under way
};

/// Who may write in a chatroom, from its profile's write mode.
enum TVKChatInputMode : std::uint64_t {
    TVKChatInputModeNull = 0,    // unknown or unset
    TVKChatInputModeAll = 1,     // "ALL": everybody
    TVKChatInputModeLogin = 2,   // "LOGIN": members only
    TVKChatInputModeAnchor = 3,  // "ANCHOR": moderators and up
};

/// What a chatroom needs from the manager that owns it.
struct TAVLO_EXPORT TVKChatEnvironment {
    /// The manager's serial queue: HTTP completions, socket events and time-outs all run there.
    std::shared_ptr<dispatch::SerialQueue> queue;
    /// Times the socket's connect time-out; real time when null.
    std::shared_ptr<dispatch::Scheduler> scheduler;
    /// How long a realtime connection attempt may take.
    std::chrono::milliseconds socketConnectTimeout{30000};
    /// Extra certificate authorities to trust for HTTPS and WSS.
    std::optional<std::string> caFile;
    /// How long a REST request may take before it fails as timed out.
    std::chrono::milliseconds requestTimeout{60000};
};

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
    using Success = std::function<void()>;
    using Failure = std::function<void(const TVKError&)>;
    using EventDelegate = std::weak_ptr<TVKChatSocketEventDelegate>;
    using ProfileSuccess = std::function<void(const std::string& chatId)>;
    using NotFoundHandler = std::function<void()>;
    using PinnedMessageSuccess = std::function<void(const std::shared_ptr<TVKChatMessage>&)>;
    using MetadataSuccess = std::function<void(const TVKChatMetadataDictionary&)>;
    using UsersSuccess = std::function<void(const TVKChatUsers&)>;
    using ListingSuccess = std::function<void(const TVKMessageListing&)>;
    using MessageCompletion = std::function<void(const std::shared_ptr<TVKChatMessage>&)>;

    /// A chatroom for `channel` (the chatroom name, "p#" in front for a personal chatroom);
    /// nullptr when the channel is unset. An empty JWT makes the user a guest. Nothing is loaded
    /// or sent yet.
    static std::shared_ptr<TVKChat> chatForChannel(const std::optional<std::string>& channel,
                                                   const std::string& vendorAccountId,
                                                   const std::string& JWT,
                                                   const std::string& HTTPHostURL,
                                                   TVKChatEnvironment environment = {});

    /// Lets only `chatForChannel` make chatrooms: a chatroom must be owned by a shared_ptr.
    class Passkey {
        Passkey() = default;
        friend class TVKChat;
    };
    TVKChat(Passkey, const std::string& channel, const std::string& vendorAccountId,
            const std::string& JWT, const std::string& HTTPHostURL, TVKChatEnvironment environment);
    ~TVKChat();
    TVKChat(const TVKChat&) = delete;
    TVKChat& operator=(const TVKChat&) = delete;

    // --- The application's view ----------------------------------------------------------------

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
    /// Who may write, from the profile's write mode (a `TVKChatInputMode`).
    std::uint64_t mode() const;
    /// Members plus guests; at least 1, as the signed-in user always counts.
    std::int64_t userCount() const;
    /// The aggregated counters' totals as last known: loaded with the profile, raised by events.
    TVKAggregatedItems totalAggregatedItems() const;
    /// The pinned message, or nullptr.
    const std::shared_ptr<TVKChatMessage>& pinnedMessage() const { return pinnedMessage_; }
    /// The sticker sets, or nothing when the last profile load brought none.
    const std::optional<TVKChatStickers>& stickers() const { return stickers_; }
    bool hasGotStickers() const { return stickers_.has_value(); }
    /// A `TVKChatStatus`.
    std::uint64_t status() const { return status_; }

    const std::shared_ptr<TVKChatUser>& currentUser() const { return currentUser_; }
    const std::string& vendorAccountId() const { return vendorAccountId_; }
    /// The archive service's base URL, from the profile.
    const std::optional<std::string>& arcHTTPHostURL() const { return arcHTTPHostURL_; }
    const std::string& HTTPHostURL() const { return HTTPHostURL_; }
    const std::shared_ptr<DQChatProfile>& profile() const { return profile_; }

    /// Equal when this chatroom's name without prefix equals the other's full name. Deliberately
    /// one-sided: a personal chatroom equals no chatroom object, not even itself.
    bool isEqual(const TVKChat& other) const;
    bool operator==(const TVKChat& other) const { return isEqual(other); }
    /// The hash of `originalChatroomName`.
    std::size_t hash() const;

    // --- Within the SDK: the connection (the chat manager drives these) ------------------------

    /// Loads the profile (creating a personal chatroom first when it is missing and may be
    /// created), joins the user, connects the socket and subscribes. Success is reported to the
    /// delegate as `chatConnected`; a failure before the socket goes to `failure`.
    void connectChatWithEventDelegate(EventDelegate delegate, Failure failure);
    /// Full reconnection: leaves, then connects from the start. Counters that changed meanwhile
    /// are reported once subscribed again, instead of `chatConnected`.
    void reconnectChatWithEventDelegate(EventDelegate delegate, Failure failure);
    /// Socket-only reconnection with the socket configuration already held; failures arrive as
    /// the delegate's `error`.
    void reconnectWithEventDelegate(EventDelegate delegate);
    /// Leaves the chatroom, then closes the socket (`chatDisconnected` follows).
    void disconnectChatWithFailure(Failure failure);
    /// Closes the socket without leaving; refused unless connected.
    void disconnect();
    /// Ends whatever the chatroom is doing, without a farewell and without a report: the socket
    /// is closed and an attempt under way stops before its next step. For a chatroom its manager
    /// has let go while it was reconnecting.
    void closeWithoutFarewell();
    bool hasGotSocketConfig() const { return socketConfig_ != nullptr; }
    const std::shared_ptr<TVKMessagingSocketConfig>& socketConfig() const { return socketConfig_; }
    bool forceClearCachedUser() const { return userCache_.forceClearCachedUser(); }
    void setForceClearCachedUser(bool force) { userCache_.setForceClearCachedUser(force); }
    /// True while a full reconnection is under way (until subscribed again).
    bool isReconnecting() const { return reconnecting_; }

    // The steps of the connection, each usable on its own.

    /// True for a personal chatroom of a member: only those are created when missing.
    bool shouldTryToCreateChat() const;
    /// Creates the member's personal chatroom, then loads its profile.
    void createPersonalChatSuccess(Success success, Failure failure);
    /// Loads the profile; `notFound` when the service has no such chatroom, `ohterFailure` for
    /// anything else.
    void loadProfile(ProfileSuccess success, NotFoundHandler notFound, Failure ohterFailure);
    /// Takes the service's profile answer: the profile, stickers, pinned message, counters and
    /// archive address. The error when the answer is incomplete or does not map; the chatroom is
    /// then left as it was.
    std::optional<TVKError> applyProfileResponse(const boost::json::object& response);
    /// Joins the current user, then connects with the token and socket configuration the join
    /// hands out. (The first argument is the delegate, whatever the name says.)
    void currentUserJoinChatAndConnectWithUserToken(EventDelegate delegate, Failure failure);
    /// Keeps the socket configuration, then connects the socket and subscribes once it is up.
    /// Refused ("Connect attempt denied", through the socket's error path) unless ready.
    void connectWithUserToken(const std::string& userToken,
                              std::shared_ptr<TVKMessagingSocketConfig> socketConfig,
                              EventDelegate delegate);
    /// Registers the handler of every realtime event on the socket client.
    void listenCustomSocketEventsWithDelegate(EventDelegate delegate);
    /// The service confirmed the subscription.
    void subscribedWithDelegate(const EventDelegate& delegate);

    /// The chatroom's REST client, made on first use (it completes on the manager's queue).
    const std::shared_ptr<TVKMessagingHTTPClient>& HTTPClient();
    /// The socket client, made on first use from the socket configuration held at that moment
    /// and kept; nullptr while no configuration is held.
    const std::shared_ptr<TVKMessagingSocketClient>& socketClient();

    // --- Within the SDK: queries ---------------------------------------------------------------

    /// The pinned message as held (no request); fails before the profile is loaded.
    void getPinnedMessageWithSuccess(PinnedMessageSuccess success, Failure failure);
    /// Metadata entries by key; every key when `keys` is unset.
    void getMetadataForKeys(const std::optional<std::vector<std::string>>& keys,
                            const std::string& userToken, MetadataSuccess success, Failure failure);
    /// Users of a `TVKChatUserType`, at most `maximumUserListCount`. Online users come from the
    /// cache once it is filled; an unknown type answers with an empty list and sends nothing.
    void listUsersWithUserToken(const std::string& userToken, std::uint64_t userType,
                                UsersSuccess success, Failure failure);
    /// Users of a type, always from the service.
    void getUsersWithUserToken(const std::string& userToken, std::uint64_t userType,
                               UsersSuccess success, Failure failure);
    /// A page of messages for the request parameters `configs`; "msgType" "aggregate" lists
    /// batches of counters, every other type messages (stickers recognised).
    void listMessagesWithUserToken(const std::string& userToken, const boost::json::object& configs,
                                   ListingSuccess success, Failure failure);
    /// Makes a message of `json`, as a sticker message when its whole text names a sticker of
    /// the held sets. Calls `completion` once, before returning.
    void classifyMessage(const boost::json::object& json,
                         const MessageCompletion& completion) const;

    /// The online-user cache.
    const TVKChatUserCache& userCache() const { return userCache_; }
    /// Counters that changed while the connection was down, until reported.
    const std::optional<TVKAggregatedItems>& diffAggregatedItems() const {
        return diffAggregatedItems_;
    }
    /// The counters that changed from `cached` to `fresh` (the service's totals), in the order
    /// of `fresh`: a key new since `cached` with its full count (the fresh item itself), a
    /// changed key with the difference (wrapping around when a count went down). Keys that
    /// vanished are not listed.
    static TVKAggregatedItems aggregatedDifferences(const TVKAggregatedItems& cached,
                                                    const TVKAggregatedItems& fresh);

  private:
    using Request = std::function<void(TVKMessagingHTTPClient& client, Failure failure)>;
    using ErrorHandler = std::function<void(const TVKError&)>;

    /// Sends `request`; a failure the HTTP client can repair by refreshing a credential sends it
    /// once more, reporting straight to `failure`. Nothing happens once the chatroom is gone.
    void sendRepairingOnce(Request request, Failure failure);
    /// Every change of `status_` goes through here, so the log tells each one and why.
    void setStatus(std::uint64_t status, std::string_view reason);
    static ErrorHandler errorHandler(std::weak_ptr<TVKChat> weakSelf, EventDelegate delegate);
    void registerConnectionHandlers(const std::string& userToken, const EventDelegate& delegate);
    void socketDisconnected(const EventDelegate& delegate, const ErrorHandler& onError);
    void socketTimedOut(const ErrorHandler& onError);
    /// Starts the wait for "subscribed", bounded like the socket's connect time-out.
    void awaitSubscription(const EventDelegate& delegate);
    bool isAwaitingSubscription() const;
    void stopAwaitingSubscription();
    /// Ends an attempt whose subscription was refused or never confirmed: the socket is dropped
    /// and `error` (a lost connection or a time-out) reported, which the manager retries.
    void subscriptionFailed(const EventDelegate& delegate, const TVKError& error);
    void abandonSocket();
    void updateDiffAggregatedItemsIfNeeded(const std::optional<TVKAggregatedItems>& fresh);
    void syncDisconnectLostDataWithDelegate(const EventDelegate& delegate);

    // Event handlers (TVKChatEvents.cpp), one per realtime event.
    void addMessage(const boost::json::object& json, const EventDelegate& delegate);
    void addAggregatedItems(const boost::json::array& json, const EventDelegate& delegate);
    void addRawData(const boost::json::object& json, const EventDelegate& delegate);
    void inputModeChanged(const boost::json::value& chatId, const boost::json::value& mode,
                          const EventDelegate& delegate);
    void inputIntervalChanged(const boost::json::value& chatId, const boost::json::value& interval,
                              const EventDelegate& delegate);
    void usersJoined(const boost::json::array& json, const EventDelegate& delegate);
    void usersUpdated(const boost::json::array& json, const EventDelegate& delegate);
    void usersLeft(const TVKUserLabels& labels, const EventDelegate& delegate);
    void userCountWithDelegate(const EventDelegate& delegate, const boost::json::value& memberCount,
                               const boost::json::value& guestCount);
    void removeMessageById(const std::string& messageId, const EventDelegate& delegate);
    void flushMessageWithDelegate(const EventDelegate& delegate);
    void pinnedMessageUpdated(const boost::json::object* json, const EventDelegate& delegate);
    void metadataUpdated(const boost::json::array& json, const EventDelegate& delegate);
    /// Whether an event's chat id names this chatroom: the write-mode event compares the id's
    /// text, the interval event the very JSON value the profile was loaded with.
    bool isChatIdText(const boost::json::value& chatId) const;
    bool isSameChatIdValue(const boost::json::value& chatId) const;

    const TVKChatEnvironment environment_;
    bool reconnecting_ = false;
    /// Set from "subscribe" until "subscribed" (or the attempt's end).
    std::shared_ptr<dispatch::ScheduledTask> subscriptionDeadline_;
    std::uint64_t subscriptionAttempt_ = 0;
    bool closed_ = false;
    std::shared_ptr<TVKChatUser> currentUser_;
    std::optional<TVKChatStickers> stickers_;
    std::uint64_t status_ = TVKChatStatusNone;
    std::shared_ptr<TVKMessagingHTTPClient> HTTPClient_;
    std::shared_ptr<TVKMessagingSocketClient> socketClient_;
    std::string JWT_;
    std::string HTTPHostURL_;
    std::optional<std::string> arcHTTPHostURL_;
    std::shared_ptr<TVKMessagingSocketConfig> socketConfig_;
    std::shared_ptr<DQChatProfile> profile_;
    /// The profile's "id" exactly as the service sent it (see `isSameChatIdValue`).
    boost::json::value profileChatIdValue_;
    std::string vendorAccountId_;
    std::int64_t userCount_ = 0;
    std::optional<TVKAggregatedItems> cachedAggregatedItems_;
    std::optional<TVKAggregatedItems> diffAggregatedItems_;
    TVKChatUserCache userCache_;
    std::shared_ptr<TVKChatMessage> pinnedMessage_;
};

}  // namespace tavlo

template <>
struct std::hash<tavlo::TVKChat> {
    std::size_t operator()(const tavlo::TVKChat& chat) const { return chat.hash(); }
};
