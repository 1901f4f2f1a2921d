#pragma once

#include "TavloCoreSDK/TVKExport.hpp"

#include <boost/json/value.hpp>
#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "Dispatch/SerialQueue.hpp"
#include "TavloCoreSDK/TVKError.hpp"
#include "TavloMessagingSDK/TVKChat.hpp"
#include "TavloMessagingSDK/TVKChatEvent.hpp"
#include "TavloMessagingSDK/TVKChatEventDelegate.hpp"
#include "TavloMessagingSDK/TVKChatUser.hpp"
#include "TavloMessagingSDK/TVKGetMessagesConfiguration.hpp"

namespace tavlo {

namespace testing {
struct Access;
}
namespace dispatch {
class Scheduler;
}

class TVKArchivedChat;
class TVKChatReportSink;
class TVKChatManagerReception;
class TVKMissedMessageRecovery;
class TVKHeldSends;
class TVKArchivedMessagesMeta;
class TVKGetArchivedMessagesConfiguration;

/// The messaging service a new manager talks to, until `setHTTPHostURL` names another.
inline constexpr const char* TVKHTTPHostURLString = "https://api.tavlo.chat";

/// How often a lost chatroom is reconnected before the application hears of the failure.
inline constexpr unsigned TVKReconnectAttemptLimit = 7;
/// How often the farewell (leaving a chatroom) is sent again before the socket is just closed.
inline constexpr unsigned TVKResendFarewellAttemptLimit = 6;
/// Retry n waits TVKRetryIntervalBase x 2^n seconds: 0.5, 1, 2, 4, 8, 16, 32.
inline constexpr double TVKRetryIntervalBase = 0.5;

/// Options of `TVKChatManager::connectToChatroom`, a bit mask.
enum TVKChatroomOptions : std::uint64_t {
    /// The chatroom is the member's personal chatroom; it is created on first connect.
    TVKChatroomOptionPersonalChat = 1,
};

/// The one object an application talks to: it connects the signed-in user to chatrooms, reports
/// what happens in them to the application's `TVKChatEventDelegate`, and performs every chatroom
/// action (listing users and messages, sending, moderating, metadata, the data channel, archived
/// history).
///
/// Before creating a manager, configure the core SDK (`TVKSDKAuthManager::sharedManager()`) with
/// the account id and the account token; install a member-token refresher there if members'
/// JWTs can expire.
///
/// Typical use:
///
///     auto manager = TVKChatManager::create();           // keep it as long as you chat
///     auto delegate = std::make_shared<MyDelegate>();    // keep it too: held weakly
///     manager->connectToChatroom("lobby", memberJWT, 0, delegate);
///     // MyDelegate::chatroomConnected(chat) is called once the chatroom is live; then:
///     manager->sendMessage("hello", chat, [] { /* sent */ }, [](const TVKError& e) { ... });
///     manager->disconnectFromChatroom(chat);             // chatroomDisconnected(chat) follows
///
/// Connection resilience: a chatroom whose realtime connection is lost or times out is
/// reconnected automatically, up to `TVKReconnectAttemptLimit` times with growing pauses
/// (0.5 s to 32 s). Only when every attempt failed does the application hear of it, once, through
/// `chatroomError` (a chatroom that had connected) or `chatroomFailToConnect` (one that never
/// did); the chatroom is then forgotten and must be connected anew. Each attempt is announced by
/// `chatroomReconnecting`; messages sent meanwhile are recovered with
/// `setRecoversMissedMessages`.
///
/// Threads: every public member function may be called from any thread. The manager does its
/// work on one serial queue of its own; from other threads a call waits for that queue, so it
/// is synchronous. Results, failures and events are delivered on that queue, one at a time, or
/// through the executor named with `setCallbackExecutor` (for a UI thread). A refusal decided
/// before any request (not connected, invalid argument) is reported on the calling thread before
/// the call returns. Do not block inside callbacks.
///
/// Callbacks: every operation takes a success and a failure callback; either may be empty and is
/// then simply not called. Failures always carry an error of `TVKMSGErrorDomain` (see
/// TVKMSGError.hpp for the codes). No exception thrown by a callback escapes into the SDK.
///
/// Lifetime: the manager holds its chatrooms; it never keeps the application's delegates alive.
/// The last reference to the manager may be dropped anywhere, inside one of its callbacks too;
/// pending requests and retries then end quietly without reporting.
class TAVLO_EXPORT TVKChatManager final : public std::enable_shared_from_this<TVKChatManager> {
  public:
    using Clock = std::chrono::system_clock;
    using Success = std::function<void()>;
    using Failure = std::function<void(const TVKError&)>;
    using UsersSuccess = std::function<void(const TVKChatUsers&)>;
    using MessagesSuccess = std::function<void(const TVKChatMessages&)>;
    using AggregatedDataSuccess = std::function<void(const TVKAggregatedDataList&)>;
    /// Text and raw messages arrive as `TVKChatMessages`, aggregated data as
    /// `TVKAggregatedDataList`.
    using ListingSuccess = std::function<void(const TVKMessageListing&)>;
    using PinnedMessageSuccess = std::function<void(const std::shared_ptr<TVKChatMessage>&)>;
    using MetadataSuccess = std::function<void(const TVKChatMetadataDictionary&)>;
    using ArchivedMetaSuccess =
        std::function<void(const std::shared_ptr<TVKArchivedMessagesMeta>&)>;
    using ArchivedMessagesSuccess =
        std::function<void(const std::vector<std::shared_ptr<TVKChatMessage>>&)>;
    /// Runs a callback of the SDK wherever the application wants it (e.g. posts it to the UI
    /// thread). It must not wait for the callback to finish.
    using CallbackExecutor = std::function<void(std::function<void()>)>;

    /// A new manager, or nullptr while the core SDK holds no account token.
    static std::shared_ptr<TVKChatManager> create();
    ~TVKChatManager();
    TVKChatManager(const TVKChatManager&) = delete;
    TVKChatManager& operator=(const TVKChatManager&) = delete;

    // --- Settings (any thread; they apply to chatrooms connected afterwards) --------------------

    /// The messaging service's base URL; `TVKHTTPHostURLString` by default.
    std::string HTTPHostURL() const;
    void setHTTPHostURL(std::string url);
    /// A PEM file of certificate authorities to trust besides the system's, for HTTPS and WSS (a
    /// private deployment, a test server). Unset by default.
    std::optional<std::string> CAFile() const;
    void setCAFile(std::optional<std::string> caFile);
    /// The HTTP proxy for everything the manager's chatrooms send, REST requests and the realtime
    /// connection alike, overriding the environment: "http://[user:password@]host[:port]" (port
    /// 1080 when not named), or an empty string for no proxy at all. nullopt (the default)
    /// follows the environment the way libcurl reads it: `https_proxy` / `HTTPS_PROXY` for an
    /// HTTPS service, `http_proxy` (lower case only) for plain HTTP, then `all_proxy` /
    /// `ALL_PROXY`; `no_proxy` / `NO_PROXY` exempts hosts ("*", names with every name under
    /// them, IP addresses and CIDR ranges). The realtime connection goes through the proxy's
    /// CONNECT tunnel, TLS inside it verified against the service's own name. A proxy that
    /// refuses or cannot be reached is a connectivity failure: retried like a lost network, and
    /// reported, once retries are spent, with code 0 and the proxy's answer in the underlying
    /// error. The proxy's credentials never appear in a log line or an error.
    std::optional<std::string> proxy() const;
    void setProxy(std::optional<std::string> proxyURL);
    /// Where callbacks run: nullptr (the default) runs them on the manager's queue. With an
    /// executor (say, one posting to a UI thread) the manager goes on while a callback waits to
    /// run: chatrooms belong to the manager's queue, so read their state there
    /// (`queue()->sync(...)`), or use what the callback's arguments carry.
    void setCallbackExecutor(CallbackExecutor executor);
    /// Runs the manager's time `scale` times as fast as real time: retry pauses, connection and
    /// subscription time-outs, cooldowns. For an application's own tests: 0.01 runs the retry
    /// schedule (0.5 s to 32 s) in 5 to 320 ms. 1, the default, is real time; values of 0 or
    /// less mean 1. Applies to chatrooms connected afterwards.
    void setTimeScale(double scale);
    /// How long a realtime connection attempt may take (30 s by default).
    void setSocketConnectTimeout(std::chrono::milliseconds timeout);
    /// How long a REST request may take before it fails with a time-out (60 s by default); a
    /// service that accepts connections and never answers is noticed after this long.
    void setRequestTimeout(std::chrono::milliseconds timeout);
    /// Whether messages sent while a chatroom's connection was down reach the application after
    /// the reconnection (off by default: they are lost, and live events simply resume).
    ///
    /// On: after every reconnection the text and raw messages newer than the last one delivered
    /// are fetched, oldest first, and delivered through `chatroomMessageAdded` and
    /// `chatroomRawDataAdded` like live ones, each message once (by id); live messages and
    /// removals arriving meanwhile wait and follow them, so the application sees one ordered
    /// stream. At most `kTVKMissedMessagesLimit` are delivered per reconnection; beyond it, or
    /// when the list cannot be fetched even with the reconnection's retries, the application
    /// hears `chatroomMissedMessagesGap` once. A message removed during the gap is not
    /// delivered; recovered messages do not change the pinned message. From the first moment:
    /// the starting point is listed before the socket first opens and the first subscription is
    /// recovered from it, so a message posted while the chatroom connects (or while
    /// `chatroomConnected` runs) comes exactly once. At most `kTVKMissedMessagesHoldLimit` live
    /// events wait during a listing; past that the listing is given up and the gap reported.
    /// Costs four small list requests per connection and one or more per reconnection. Applies
    /// to chatrooms that connect afterwards; turning it off delivers whatever is waiting.
    void setRecoversMissedMessages(bool recovers);
    bool recoversMissedMessages() const;
    /// Whether sends made while a chatroom reconnects wait for the connection instead of failing
    /// (off by default: they fail at once with TVKMSGErrorNotConnected, code 3).
    ///
    /// On: while a chatroom that had connected is reconnecting, `sendMessage` (both forms),
    /// `sendRawData` and `sendAggregatedDataWithKey` are held, in the order they were made, at
    /// most 100 per chatroom (the 101st fails at once with code 3). Once the chatroom is
    /// connected again, and after the missed messages are delivered when their recovery is on,
    /// they are sent one after the other in that order, and sends made meanwhile queue up behind
    /// them. Each callback runs exactly once, and a held send goes to the service at most once.
    /// When the reconnection is given up, each held send fails with the error `chatroomError`
    /// reports; when the application disconnects the chatroom, with code 3. Dropping the manager
    /// ends them without a report, like any pending request. Arguments are still checked at once
    /// (lengths, raw data), and the user's permissions when the send goes out.
    void setHoldsSendsWhileReconnecting(bool holds);
    bool holdsSendsWhileReconnecting() const;

    /// The account id of the core SDK, read afresh at each call.
    std::optional<std::string> accountId() const;

    // --- Connecting ----------------------------------------------------------------------------

    /// Connects the user identified by `JWT` (empty: a guest) to a chatroom. With
    /// `TVKChatroomOptionPersonalChat` in `options` the chatroom is the member's personal one,
    /// created if missing; other bits are ignored. The outcome reaches `eventDelegate`:
    /// `chatroomConnected`, or `chatroomFailToConnect` / `chatroomError`. An unset name or JWT
    /// does nothing at all. Calling it again for a known chatroom reuses that chatroom (its JWT is
    /// not replaced) and replaces its delegate when one is given.
    void connectToChatroom(const std::optional<std::string>& chatroomName,
                           const std::optional<std::string>& JWT, std::uint64_t options,
                           const std::shared_ptr<TVKChatEventDelegate>& eventDelegate);
    /// The same with the personal flag spelled out. `tryToCreate` is accepted for compatibility
    /// and has no effect: a missing personal chatroom is always created, any other never.
    void connectToChatroom(const std::optional<std::string>& chatroomName,
                           const std::optional<std::string>& JWT, bool isPersonalChat,
                           bool tryToCreate,
                           const std::shared_ptr<TVKChatEventDelegate>& eventDelegate);
    /// Leaves a connected chatroom and closes its connection; `chatroomDisconnected` follows and
    /// the manager forgets the chatroom. Does nothing for a chatroom that never connected. If the
    /// service cannot be told (after retries), the connection is closed anyway. A chatroom that
    /// is re-establishing a lost connection stops doing so and is disconnected the same way.
    void disconnectFromChatroom(const std::shared_ptr<TVKChat>& chatroom);

    /// The chatroom known under this name (personal chatrooms: pass the name without prefix and
    /// `isPersonalChat`), or nullptr.
    std::shared_ptr<TVKChat> chatForChatroomName(const std::string& chatroomName,
                                                 bool isPersonalChat) const;
    /// The signed-in user of the chatroom (role, label, name).
    std::shared_ptr<TVKChatUser> currentUserForChatroom(
        const std::shared_ptr<TVKChat>& chatroom) const;
    /// Seconds the user must still wait before sending in this chatroom; 0 when free to send (and
    /// for unknown chatrooms).
    double cooldownForChatroom(const std::shared_ptr<TVKChat>& chatroom) const;
    /// Replaces the delegate of a known chatroom; nullptr removes it (events then go nowhere).
    /// Does nothing for a chatroom the manager does not know.
    void setEventDelegate(const std::shared_ptr<TVKChatEventDelegate>& eventDelegate,
                          const std::shared_ptr<TVKChat>& chatroom);
    /// True while the chatroom is known and its realtime subscription is confirmed; false while
    /// a lost connection is being re-established. Every chatroom operation below requires it.
    bool isChatroomConnected(const std::shared_ptr<TVKChat>& chatroom) const;

    // --- Chatroom operations -------------------------------------------------------------------
    // Each fails with the not-connected error (code TVKMSGErrorChannelNotConnected), before
    // anything is sent, when the chatroom is not connected. Actions also need the permission of
    // the user's role; a refusal arrives as TVKMSGErrorPermission (or the specific error) without
    // a request.

    /// Users of the chatroom by type: 0 online, 1 blocked, 2 supervisors (moderators and up); any
    /// other type answers an empty list. At most 200 are returned. Online users come from the
    /// chatroom's own list, kept up to date by join and leave events, once it has been filled.
    void getUsersForChatroom(const std::shared_ptr<TVKChat>& chatroom, TVKChatUserType userType,
                             UsersSuccess success, Failure failure);
    /// A page of text messages. A null configuration means page 1 of 10, newest first. The
    /// configuration's message type is set to "text" (the object is changed).
    void getMessagesForChatroom(const std::shared_ptr<TVKChat>& chatroom,
                                const std::shared_ptr<TVKGetMessagesConfiguration>& configuration,
                                MessagesSuccess success, Failure failure);
    /// A page of messages of `msgType` ("text", "raw", "aggregate"). The configuration's message
    /// type is set to `msgType`: a configuration reused later carries the last type set.
    void getMessagesForChatroom(const std::shared_ptr<TVKChat>& chatroom,
                                const std::string& msgType,
                                const std::shared_ptr<TVKGetMessagesConfiguration>& configuration,
                                ListingSuccess success, Failure failure);
    /// Renames the guest user (1 to 20 characters); members cannot be renamed.
    void updateGuestNickname(const std::string& nickname, const std::shared_ptr<TVKChat>& chatroom,
                             Success success, Failure failure);
    /// Gives a user of the chatroom a role (`kTVKUserRoleModerator` or `kTVKUserRoleNormal`);
    /// needs a manager's rank.
    void updateUserRole(const std::string& role, const std::shared_ptr<TVKChatUser>& targetUser,
                        const std::shared_ptr<TVKChat>& chatroom, Success success, Failure failure);
    /// The same for a member addressed by its member id (it need not be in the chatroom).
    void updateUserRole(const std::string& role, const std::string& memberId,
                        const std::shared_ptr<TVKChat>& chatroom, Success success, Failure failure);
    /// Blocks users (moderators and up): they can no longer send.
    void blockUsers(const TVKChatUsers& users, const std::shared_ptr<TVKChat>& chatroom,
                    Success success, Failure failure);
    /// Lifts a block (moderators and up).
    void reviveUsers(const TVKChatUsers& users, const std::shared_ptr<TVKChat>& chatroom,
                     Success success, Failure failure);
    /// Sends a text message of 1 to 300 UTF-16 code units. A text outside that range is refused
    /// with TVKMSGErrorMessageLength before anything else is checked.
    void sendMessage(const std::string& text, const std::shared_ptr<TVKChat>& chatroom,
                     Success success, Failure failure);
    /// Sends a message of any type ("text", "raw", "aggregate") with no length check of its own.
    void sendMessage(const boost::json::value& message, const std::string& msgType,
                     const std::shared_ptr<TVKChat>& chatroom, Success success, Failure failure);
    /// Removes a message: one's own, or anyone's for moderators and up.
    void removeMessage(const std::shared_ptr<TVKChatMessage>& message,
                       const std::shared_ptr<TVKChat>& chatroom, Success success, Failure failure);
    /// The pinned message (nullptr when none), answered from the chatroom's state.
    void getPinnedMessageForChat(const std::shared_ptr<TVKChat>& chatroom,
                                 PinnedMessageSuccess success, Failure failure);
    /// Pins a message (moderators and up); everyone hears `chatroomPinnedMessageUpdated`.
    void pinMessage(const std::shared_ptr<TVKChatMessage>& message,
                    const std::shared_ptr<TVKChat>& chatroom, Success success, Failure failure);
    /// Unpins the chatroom's pinned message (moderators and up).
    void unpinMessageFromChatroom(const std::shared_ptr<TVKChat>& chatroom, Success success,
                                  Failure failure);
    /// Writes a metadata entry of the chatroom (moderators and up). The key: 1 to 30 characters,
    /// a letter or digit first, then letters, digits, "_", "@", "#", "-"; else
    /// TVKMSGMetadataKeyInvalidError. The value: any JSON value whose text is at most 4096 UTF-16
    /// units, 1024 when `broadcast` (then every user hears `chatroomMetadataUpdated`); else
    /// TVKMSGMetadataValueInvalidError. Both checks come before the connection check.
    void setMetadataValue(const boost::json::value& value, const std::string& key,
                          const std::shared_ptr<TVKChat>& chatroom, bool broadcast, Success success,
                          Failure failure);
    /// Metadata entries of the chatroom by key; nullopt asks for all of them.
    void getMetadataForKeys(const std::optional<std::vector<std::string>>& keys,
                            const std::shared_ptr<TVKChat>& chatroom, MetadataSuccess success,
                            Failure failure);

    // --- Data channel --------------------------------------------------------------------------

    /// Raises the aggregated counter `key` (1 to 100 UTF-16 units, else TVKMSGErrorDataFormat)
    /// by one; everyone hears `chatroomAggregatedItemsAdded`.
    void sendAggregatedDataWithKey(const std::string& key, const std::shared_ptr<TVKChat>& chatroom,
                                   Success success, Failure failure);
    /// Sends a JSON object or array to everyone in the chatroom (`chatroomRawDataAdded`). Other
    /// values, non-finite numbers and text that is not UTF-8 are refused with
    /// TVKMSGRawDataCannotBeConvertedToJson.
    void sendRawData(const boost::json::value& rawData, const std::shared_ptr<TVKChat>& chatroom,
                     Success success, Failure failure);
    /// A page of aggregated-data batches; the configuration's type becomes "aggregate".
    void getAggregatedDataForChatroom(
        const std::shared_ptr<TVKChat>& chatroom,
        const std::shared_ptr<TVKGetMessagesConfiguration>& configuration,
        AggregatedDataSuccess success, Failure failure);
    /// A page of raw-data messages; the configuration's type becomes "raw".
    void getRawDataForChatroom(const std::shared_ptr<TVKChat>& chatroom,
                               const std::shared_ptr<TVKGetMessagesConfiguration>& configuration,
                               MessagesSuccess success, Failure failure);

    // --- Archived history (no connection needed; "chatroomName" as the service knows it) --------

    /// The archive reader of a chatroom, made once per name and kept: later calls return the same
    /// object whatever `accountId` they pass.
    std::shared_ptr<TVKArchivedChat> getArchivedChatWithChatroomName(
        const std::string& chatroomName, const std::string& accountId);
    /// The index of an archive. The id: 10 to 32 letters, digits, "_" or "-", else
    /// TVKMSGArchivedIdNotFoundError.
    void getArchivedMessageMetaForChatroom(const std::string& chatroomName,
                                           const std::string& archivedId,
                                           ArchivedMetaSuccess success, Failure failure);
    /// Archived messages of a time range. An illegal archive id fails with
    /// TVKMSGArchivedIdNotFoundError, an invalid range with TVKMSGArchivedInputTimestampError.
    void getArchivedMessagesForChatroom(const std::string& chatroomName,
                                        const TVKGetArchivedMessagesConfiguration& configuration,
                                        ArchivedMessagesSuccess success, Failure failure);

    // About refusals of arguments (text and key lengths, raw data, metadata, archive ids): they
    // are reported to `failure` as the error stands. An operation given an invalid argument and
    // no failure callback still refuses: nothing is sent and nothing is reported.

    /// The manager's serial queue: all of its work, and its chatrooms' state, live on it.
    const std::shared_ptr<dispatch::SerialQueue>& queue() const { return queue_; }

  private:
    struct Passkey {};

  public:
    explicit TVKChatManager(Passkey);

  private:
    friend class TVKChatManagerAsyncHooks;

    struct Settings {
        std::string HTTPHostURL = TVKHTTPHostURLString;
        std::optional<std::string> caFile;
        std::optional<std::string> proxy;
        std::chrono::milliseconds socketConnectTimeout{30000};
        std::chrono::milliseconds requestTimeout{60000};
    };
    friend struct testing::Access;

    Settings settings() const;
    Clock::time_point now() const;
    /// The pause before retry number `attemptCount` (counted from 0).
    static std::chrono::nanoseconds retryDelayForAttempt(unsigned attemptCount);

    /// Hands an application callback to the executor (or runs it), exceptions contained.
    void deliver(std::function<void()> call) const;
    /// Reports a refusal to `failure` on the calling thread; an empty callback hears nothing.
    static void reportRefusal(const Failure& failure, const std::optional<TVKError>& refusal);

    // Connection lifecycle (queue only).
    void connectChannel(const std::string& channel, const std::string& JWT,
                        const std::shared_ptr<TVKChatEventDelegate>& eventDelegate);
    void disconnectChat(const std::shared_ptr<TVKChat>& chat);
    void disconnectReconnectingChat(const std::shared_ptr<TVKChat>& chat);
    /// Whether `chat` is the very chatroom object registered under its name.
    bool isRegistered(const std::shared_ptr<TVKChat>& chat) const;
    void setUpInternalDataForChannel(const std::string& channel, const std::string& JWT,
                                     const std::string& vendorAccountId,
                                     const std::shared_ptr<TVKChatEventDelegate>& eventDelegate);
    void cleanUpInternalDataForChannel(const std::string& channel);
    std::shared_ptr<TVKChatEventDelegate> delegateForChannel(const std::string& channel) const;
    /// Schedules `task` after the pause of retry `attemptCount`, or the one the service asked for.
    bool retry(dispatch::Task task, unsigned attemptCount, unsigned attemptLimit,
               std::optional<std::chrono::seconds> askedByService = std::nullopt);
    void connectionLost(const std::shared_ptr<TVKChat>& chat, const TVKError& error);
    void failToSendFarewell(const std::shared_ptr<TVKChat>& chat, const TVKError& error);
    void reconnectChat(const std::shared_ptr<TVKChat>& chat);
    void handleReconnectingError(const TVKError& error, const std::shared_ptr<TVKChat>& chat);
    void reportFailToConnect(const std::shared_ptr<TVKChat>& chat, const TVKError& error);
    bool isConnectedOnQueue(const std::shared_ptr<TVKChat>& chat) const;
    unsigned retryAttemptCountForChannel(const std::string& channel) const;

    /// Hands `event` to the application's delegate of the chatroom, if any, counting it against
    /// the chatroom's backlog while it waits for the callback executor.
    void forward(const std::shared_ptr<TVKChat>& chat, TVKChatEvent&& event);
    /// Hands `event` to `delegate` through the callback executor (or at once without one).
    void deliverEvent(std::shared_ptr<TVKChatEventDelegate> delegate,
                      const std::shared_ptr<TVKChat>& chat, TVKChatEvent&& event) const;

    // Reception of the chatrooms' reports (TVKChatManagerEvents.cpp): what each report changes
    // in the registries before the application hears of it. A class of its own rather than a
    // nested one, which would share the manager's exported visibility.
    friend class TVKChatManagerReception;
    struct ReportHandling;
    /// Where this manager's chatrooms report to; reaches the manager weakly.
    std::weak_ptr<TVKChatReportSink> reportSink();
    void chatConnected(const std::shared_ptr<TVKChat>& chat);
    void chatDisconnected(const std::shared_ptr<TVKChat>& chat);
    void socketError(const std::shared_ptr<TVKChat>& chat, const TVKError& error);

    // Operations (queue only).
    /// The current user of a connected chatroom (with a user token when `needsToken`), else null.
    std::shared_ptr<TVKChatUser> connectedUser(const std::shared_ptr<TVKChat>& chat,
                                               bool needsToken) const;
    Success wrapSuccess(Success success) const;
    Failure wrapFailure(Failure failure) const;
    template <class... Args>
    std::function<void(const Args&...)> wrapResult(
        std::function<void(const Args&...)> success) const;
    /// Runs `act` on the queue with the current user of a connected chatroom (holding a user
    /// token when `needsToken`); otherwise returns the not-connected error.
    std::optional<TVKError> actAsCurrentUser(const std::shared_ptr<TVKChat>& chat, bool needsToken,
                                             const std::function<void(TVKChatUser&)>& act);
    std::optional<TVKError> listMessages(
        const std::shared_ptr<TVKChat>& chat, const std::string& msgType,
        const std::shared_ptr<TVKGetMessagesConfiguration>& configuration, ListingSuccess success,
        Failure failure);
    // A listing callback that hands `success` the list when it is of the kind asked for.
    template <class List>
    static ListingSuccess listingOf(std::function<void(const List&)> success) {
        if (!success) return {};
        return [success = std::move(success)](const TVKMessageListing& listing) {
            if (const auto* list = std::get_if<List>(&listing)) success(*list);
        };
    }
    std::shared_ptr<TVKArchivedChat> archivedChatOnQueue(const std::string& chatroomName,
                                                         const std::string& accountId);
    // Runs `read` on the manager's queue with the archive reader of `chatroomName`; reports an
    // internal error when none can be made.
    void withArchivedChat(const std::string& chatroomName, const Failure& failure,
                          const std::function<void(TVKArchivedChat&)>& read);

    /// Tells the application that reconnection attempt `attemptsBefore` + 1 is scheduled.
    void reportReconnecting(const std::shared_ptr<TVKChat>& chat, unsigned attemptsBefore,
                            std::chrono::nanoseconds pause);
    /// Turns missed-message recovery on, delivering through this manager.
    void enableMissedMessageRecovery();

    // Sends (queue only).
    /// Sends as the chatroom's current user; `answered` runs on the queue once the service has
    /// answered (either way), before the application hears of it.
    void sendNow(TVKChatUser& user, const std::string& channel, const boost::json::value& message,
                 const std::string& msgType, Success success, Failure failure,
                 std::function<void()> answered = {});
    /// Whether a send to this chatroom waits: it is reconnecting, or held sends are still going
    /// out ahead of it.
    bool holdsSendTo(const std::shared_ptr<TVKChat>& chat) const;
    /// Sends the chatroom's oldest held send, if it is connected and none is on its way.
    void sendNextHeld(const std::string& channel);
    /// Fails every send still held for the chatroom with `error`.
    void failHeldSends(const std::string& channel, const TVKError& error);

    const std::shared_ptr<dispatch::SerialQueue> queue_;
    const std::shared_ptr<TVKMissedMessageRecovery> missedMessages_;
    const std::unique_ptr<TVKChatManagerReception> reception_;
    const std::unique_ptr<TVKHeldSends> heldSends_;
    bool holdsSends_ = false;  // queue only

    mutable std::mutex settingsMutex_;
    Settings settings_;
    /// Where callbacks run (none: on the queue). Queue only: every event reads it.
    CallbackExecutor executor_;
    /// The one source of time (queue only): the scheduler of retry pauses and time-outs, and
    /// the clock of cooldowns, at the same pace. Unset: real time.
    struct TimeSource {
        std::shared_ptr<dispatch::Scheduler> scheduler;
        std::function<Clock::time_point()> clock;
    };
    TimeSource time_;

    // Registries, touched only on `queue_`, all keyed by channel name. Whenever `chats_` holds a
    // name, `retryAttemptCounts_` and `inputAvailableDates_` hold it too.
    std::set<std::string> connectedChannels_;
    /// Channels with a reconnection scheduled or under way, until they report connected again.
    std::set<std::string> reconnectingChannels_;
    /// Channels whose reconnection under way only reopens the socket.
    std::set<std::string> socketOnlyAttempts_;
    std::map<std::string, std::shared_ptr<TVKChat>> chats_;
    std::map<std::string, std::shared_ptr<TVKArchivedChat>> archivedChats_;
    std::map<std::string, std::weak_ptr<TVKChatEventDelegate>> eventDelegates_;
    // Events handed to the callback executor and not yet run, per channel.
    std::map<std::string, unsigned> retryAttemptCounts_;
    std::map<std::string, Clock::time_point> inputAvailableDates_;
    // Kept for TVKAsync.hpp (TVKChatManagerAsyncHooks), on `queue_`; released with the manager.
    std::map<std::string, std::shared_ptr<void>> asyncAttachments_;
};

}  // namespace tavlo

namespace tavlo {

template <class... Args>
std::function<void(const Args&...)> TVKChatManager::wrapResult(
    std::function<void(const Args&...)> success) const {
    if (!success) return nullptr;
    std::weak_ptr<const TVKChatManager> weak = weak_from_this();
    return [weak, success = std::move(success)](const Args&... results) {
        auto self = weak.lock();
        if (!self) return;
        self->deliver([success, results...] { success(results...); });
    };
}

}  // namespace tavlo
