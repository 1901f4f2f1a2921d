#pragma once

#include <boost/json/value.hpp>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "Dispatch/Internal/Scheduler.hpp"
#include "Dispatch/SerialQueue.hpp"
#include "SocketIO/SocketIOClient.hpp"
#include "TavloCoreSDK/TVKError.hpp"

namespace tavlo {

class TVKMessagingSocketConfig;

/// The label of every socket client's handler queue.
inline constexpr const char* kMessageDispatchSerialQueue =
    "com.tavlo.messaging.MessageSDKSerialQueue";

/// A chatroom's realtime channel: a Socket.IO connection to the endpoint of a
/// `TVKMessagingSocketConfig`. The chatroom registers its events with `listenOn` and decodes them
/// itself (TVKRealtimeEvents.hpp).
///
/// Handlers run on the client's own serial queue (labelled `kMessageDispatchSerialQueue`), which
/// targets the queue the owner names, so they run one at a time with the owner's other work. The
/// operations may be called from any thread.
class TVKMessagingSocketClient {
  public:
    /// How long a connection attempt may take.
    static constexpr std::chrono::milliseconds kConnectTimeout{30000};

    /// What the owner supplies besides the endpoint.
    struct Environment {
        /// The queue the handlers are serialised with (the chat manager's).
        std::shared_ptr<dispatch::SerialQueue> targetQueue;
        /// Times the connect time-out (a scaled or manual scheduler in tests); real time if null.
        std::shared_ptr<dispatch::Scheduler> scheduler;
        /// Extra certificates to trust for wss:// (a private service or a test server).
        std::optional<std::string> caFile;
        /// The proxy to tunnel through: nullopt follows the environment, empty means none.
        std::optional<std::string> proxy;
        /// Where the chatroom counts its events until consumed (see `sio::ReadBacklog`); one of
        /// the client's own when null.
        std::shared_ptr<sio::ReadBacklog> backlog;
    };

    /// The first item of an event's argument list; nullptr when the list is empty.
    using ItemHandler = std::function<void(const boost::json::value* item)>;
    using Handler = std::function<void()>;
    using ErrorHandler = std::function<void(const TVKError& error)>;

    /// Creates the handler queue and the Socket.IO client (WebSocket only, no automatic
    /// reconnection, the configuration's path and query). Does not connect.
    explicit TVKMessagingSocketClient(const TVKMessagingSocketConfig& socketConfig,
                                      Environment environment = {});
    ~TVKMessagingSocketClient();
    TVKMessagingSocketClient(const TVKMessagingSocketClient&) = delete;
    TVKMessagingSocketClient& operator=(const TVKMessagingSocketClient&) = delete;

    const std::shared_ptr<sio::SocketIOClient>& socket() const { return socket_; }
    const std::shared_ptr<dispatch::SerialQueue>& queue() const { return queue_; }

    /// Connects when not connected (not yet, or no more), with a time-out of `kConnectTimeout`:
    /// `handler` runs once if no connection was made by then. While connecting or connected the
    /// call is ignored and `handler` never runs.
    void connectWithTimeoutHandler(Handler handler);
    /// Disconnects only when connected; while connecting the attempt goes on.
    void disconnect();
    /// Emits "subscribe" with the user token and the chat id.
    void subscribeWithUserToken(const std::string& userToken, const std::string& chatId);
    /// Registers a handler that receives the first item of the event's arguments.
    void listenOn(const std::string& event, ItemHandler handler);
    /// Removes every handler registered so far.
    void ignoreAllEvents();
    /// Delivers "error" with `reason` locally, as if the server had sent it.
    void triggerErrorWithReason(const std::string& reason);

    // --- The connection's own events (the chatroom's events: `listenOn`) ----------------------
    void onConnect(Handler handler);
    void onDisconnect(Handler handler);
    /// "error" with a string reason, wrapped by `TVKSocketRawErrorWithReason`.
    void onError(ErrorHandler handler);

  private:
    std::shared_ptr<dispatch::SerialQueue> queue_;
    std::shared_ptr<sio::SocketIOClient> socket_;
    /// The endpoint as the log shows it: host and path, no handshake parameters.
    std::string loggedEndpoint_;
    /// The handshake parameters' values (the user token among them).
    std::vector<std::string> handshakeValues_;
};

}  // namespace tavlo
