// The SDK's side of a chatroom: everything the chat manager drives (the connection sequence,
// the realtime events, the queries) and the state behind it. Applications see the same object
// as a `TVKChat`, which holds only what they read.
#pragma once

#include <boost/json.hpp>
#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "Dispatch/Internal/Scheduler.hpp"
#include "Dispatch/SerialQueue.hpp"
#include "SocketIO/ReadBacklog.hpp"
#include "TavloMessagingSDK/Internal/TVKChatUserCache.hpp"
#include "TavloMessagingSDK/TVKChat.hpp"

namespace tavlo {

namespace testing {
struct Access;
}

class TVKChatReportSink;
class TVKMessagingHTTPClient;
class TVKMessagingSocketClient;
class TVKMessagingSocketConfig;
class TVKChatSession;

/// What a chatroom needs from the manager that owns it.
struct TVKChatEnvironment {
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
    /// Runs after the join, before the socket opens; the socket opens once `open` runs (on the
    /// queue). Unset: it opens at once.
    std::function<void(const std::shared_ptr<TVKChatSession>&, std::function<void()> open)>
        beforeSocketOpens;
    /// The proxy for REST and realtime: nullopt follows the environment, empty means none.
    std::optional<std::string> proxy;
};

/// A chatroom as the SDK drives it. Every `TVKChat` is one: `sessionOf` gets it back from what
/// the application hands in.
class TVKChatSession final : public TVKChat {
  public:
    using Success = std::function<void()>;
    using Failure = std::function<void(const TVKError&)>;
    using EventDelegate = std::weak_ptr<TVKChatReportSink>;
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
    static std::shared_ptr<TVKChatSession> chatForChannel(const std::optional<std::string>& channel,
                                                          const std::string& vendorAccountId,
                                                          const std::string& JWT,
                                                          const std::string& HTTPHostURL,
                                                          TVKChatEnvironment environment = {});

    /// Lets only `chatForChannel` make chatrooms: a chatroom must be owned by a shared_ptr.
    class Passkey {
        Passkey() = default;
        friend class TVKChatSession;
    };
    TVKChatSession(Passkey, const std::string& channel, const std::string& vendorAccountId,
                   const std::string& JWT, const std::string& HTTPHostURL,
                   TVKChatEnvironment environment);
    ~TVKChatSession() override;

    /// This chatroom, as the SDK's session.
    std::shared_ptr<TVKChatSession> session() {
        return std::static_pointer_cast<TVKChatSession>(shared_from_this());
    }
    std::weak_ptr<TVKChatSession> weakSession() { return session(); }

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
    /// How often events changed each profile field that they change: an answer to a request
    /// sent before an event does not undo what the event changed.
    struct EventChanges {
        std::uint64_t writeMode = 0;
        std::uint64_t inputInterval = 0;
        std::uint64_t counts = 0;
        std::uint64_t pinnedMessage = 0;
        std::uint64_t aggregated = 0;
    };
    const EventChanges& eventChanges() const { return eventChanges_; }
    /// `before`: the changes counted when the request was sent.
    std::optional<TVKError> applyProfileResponse(const boost::json::object& response,
                                                 const EventChanges& before);
    /// The same for an answer no event can have overtaken.
    std::optional<TVKError> applyProfileResponse(const boost::json::object& response) {
        return applyProfileResponse(response, eventChanges_);
    }
    /// Keeps in `profile` (just loaded) what events changed since `before`.
    void keepNewerEventValues(DQChatProfile& profile, const EventChanges& before) const;
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
    /// Where the chatroom's events wait to be consumed, across its sockets: for the socket's
    /// queue, for the application's callback executor, unread in an event stream. Past its bound
    /// the socket stops reading until half has been consumed.
    const std::shared_ptr<sio::ReadBacklog>& readBacklog() const { return readBacklog_; }

    // --- Within the SDK: queries ---------------------------------------------------------------

    /// The pinned message as held (no request); fails before the profile is loaded.
    void getPinnedMessageWithSuccess(PinnedMessageSuccess success, Failure failure);
    /// Metadata entries by key; every key when `keys` is unset.
    void getMetadataForKeys(const std::optional<std::vector<std::string>>& keys,
                            const std::string& userToken, MetadataSuccess success, Failure failure);
    /// Users of a `TVKChatUserType`, at most `maximumUserListCount`. Online users come from the
    /// cache once it is filled; an unknown type answers with an empty list and sends nothing.
    void listUsersWithUserToken(const std::string& userToken, TVKChatUserType userType,
                                UsersSuccess success, Failure failure);
    /// Users of a type, always from the service.
    void getUsersWithUserToken(const std::string& userToken, TVKChatUserType userType,
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
    void setStatus(TVKChatStatus status, std::string_view reason);
    static ErrorHandler errorHandler(std::weak_ptr<TVKChatSession> weakSelf,
                                     EventDelegate delegate);
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

    // The state change of each realtime event, then its report (TVKChatEvents.cpp).
    struct RealtimeEventHandling;
    void addToAggregatedTotals(const TVKAggregatedItems& items);
    /// Whether an event's chat id names this chatroom: the write-mode event compares the id's
    /// text, the interval event the very JSON value the profile was loaded with.
    bool isChatIdText(const boost::json::value& chatId) const;
    bool isSameChatIdValue(const boost::json::value& chatId) const;

    const TVKChatEnvironment environment_;
    bool reconnecting_ = false;
    /// Set from "subscribe" until "subscribed" (or the attempt's end).
    std::shared_ptr<dispatch::ScheduledTask> subscriptionDeadline_;
    std::uint64_t subscriptionAttempt_ = 0;
    std::uint64_t socketOpeningAttempt_ = 0;
    bool closed_ = false;
    std::shared_ptr<TVKMessagingHTTPClient> HTTPClient_;
    std::shared_ptr<TVKMessagingSocketClient> socketClient_;
    const std::shared_ptr<sio::ReadBacklog> readBacklog_ = std::make_shared<sio::ReadBacklog>();
    std::string JWT_;
    std::shared_ptr<TVKMessagingSocketConfig> socketConfig_;
    /// The profile's "id" exactly as the service sent it (see `isSameChatIdValue`).
    boost::json::value profileChatIdValue_;
    std::optional<TVKAggregatedItems> diffAggregatedItems_;
    TVKChatUserCache userCache_;
    EventChanges eventChanges_;
};

/// The session behind a chatroom the SDK made (every chatroom is one); null for null.
inline TVKChatSession* sessionOf(const std::shared_ptr<TVKChat>& chat) {
    return static_cast<TVKChatSession*>(chat.get());
}

}  // namespace tavlo
