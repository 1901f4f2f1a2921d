#pragma once

#include <atomic>
#include <boost/asio/io_context.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/json/value.hpp>
#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "Dispatch/Internal/Scheduler.hpp"
#include "Dispatch/SerialQueue.hpp"
#include "SocketIO/ReadBacklog.hpp"

namespace tavlo::sio {

class EngineSession;
struct EngineHandshake;
struct SocketPacket;
struct TransportEnd;

/// Connection status, with the numbering Socket.IO clients publish.
enum class SocketIOStatus : int {
    notConnected = 0,
    disconnected = 1,
    connecting = 2,
    connected = 3,
};

struct SocketIOClientOptions {
    /// WebSocket transport only: long-polling is not offered.
    static constexpr bool forceWebsockets = true;
    /// The client never reconnects by itself; reconnection is the application's policy.
    static constexpr bool reconnects = false;
    /// Where every handler (and the connect time-out handler) runs. A queue of its own when null.
    std::shared_ptr<dispatch::SerialQueue> handleQueue;
    /// The server's resource path.
    std::string path = "/socket.io/";
    /// Sent, percent-encoded, in the handshake query beside "EIO=4" and "transport=websocket".
    std::map<std::string, std::string> connectParams;
    /// A PEM file of certificates to trust for wss:// besides the system's.
    std::optional<std::string> caFile;
    /// The HTTP proxy to tunnel through ("http://[user:password@]host[:port]"); an empty string
    /// for none; nullopt to follow the environment as libcurl does (see `resolveProxyRoute`).
    std::optional<std::string> proxy;
    /// Incoming messages above this size are dropped (with an "error"), never buffered.
    std::size_t maxIncomingMessageSize = 16 * 1024 * 1024;
    /// Times the connect time-out when set (so that tests can scale or drive it); a timer on the
    /// I/O thread otherwise.
    std::shared_ptr<dispatch::Scheduler> scheduler;
    /// Where the events read wait to be consumed, counted until they are: those waiting for the
    /// handle queue here, and those an owner hands on further (to another thread, to a stream),
    /// counted there by the owner. Reading stops while it is full (see `ReadBacklog`). One of the
    /// default bound when null.
    std::shared_ptr<ReadBacklog> backlog;
};

/// The arguments of an event, in order.
using SocketIOArgs = std::vector<boost::json::value>;
using SocketIOEventHandler = std::function<void(const SocketIOArgs& args)>;
using SocketIOHandlerId = std::uint64_t;

/// A Socket.IO 4 client (Engine.IO 4 over WebSocket, ws:// and wss://) on the main namespace.
///
/// Events: the server's events by name, plus the client's own:
///  - "connect": the namespace was joined (no arguments);
///  - "disconnect": the connection ended, with the reason ("io client disconnect",
///    "io server disconnect", "transport close", "ping timeout", or the error's reason);
///  - "error": a failed connection attempt, a transport failure, the server's "connect_error", or
///    a refused frame, with a reason text. A failure that ends the connection delivers "error",
///    then "disconnect" if the client had been connecting or connected.
///
/// Every public member function may be called from any thread; handlers run on the handle queue,
/// one at a time. The client may be released at any time, from inside one of its own handlers
/// too: the connection is then closed and nothing more is delivered.
///
/// Events are decoded and handed to the handlers in batches, one per read of the socket. When
/// the handle queue (and every queue it targets) is idle, the batch runs right away on the I/O
/// thread, as the queue's next task, without a thread switch; otherwise it waits its turn on the
/// queue, and reading stops while too much waits. A batch that keeps the I/O thread longer than
/// 20 ms hands its rest to the queue's workers, and the client's batches of the next 2 s go
/// there too, so that a slow handler holds up the other connections served by the same I/O
/// thread for one call at a time, at most once every 2 s.
class SocketIOClient : public std::enable_shared_from_this<SocketIOClient> {
  public:
    /// `url` names the server (http, https, ws or wss). An unusable URL is reported by connect.
    static std::shared_ptr<SocketIOClient> create(std::string url, SocketIOClientOptions options);

    struct Passkey {
        explicit Passkey() = default;
    };
    /// Use `create`; the client needs to be owned by a shared_ptr.
    SocketIOClient(Passkey, std::string url, SocketIOClientOptions options);
    ~SocketIOClient();
    SocketIOClient(const SocketIOClient&) = delete;
    SocketIOClient& operator=(const SocketIOClient&) = delete;

    SocketIOStatus status() const;
    const std::string& url() const { return url_; }
    const SocketIOClientOptions& options() const { return options_; }
    const std::shared_ptr<dispatch::SerialQueue>& handleQueue() const {
        return options_.handleQueue;
    }

    /// Connects unless connecting or connected already (then nothing happens at all). With a
    /// positive `timeout`, an attempt that has not connected by then is abandoned: the status
    /// becomes disconnected, `timeoutHandler` runs once on the handle queue, and no "disconnect"
    /// is delivered for that attempt.
    void connect(std::chrono::milliseconds timeout = std::chrono::milliseconds(0),
                 std::function<void()> timeoutHandler = {});

    /// Leaves the namespace and closes the connection; "disconnect" follows. Does nothing unless
    /// connecting or connected.
    void disconnect();

    /// Sends an event with its arguments (no acknowledgement). An "error" is delivered instead
    /// when not connected, when the name is one the protocol reserves, or when the packet exceeds
    /// what the server accepts.
    void emit(std::string event, SocketIOArgs args = {});

    /// Adds a handler for an event; handlers of one event run in the order they were added.
    SocketIOHandlerId on(std::string event, SocketIOEventHandler handler);
    /// Removes one handler.
    void off(SocketIOHandlerId id);
    /// Removes every handler. A dispatch under way calls none of them any more.
    void removeAllHandlers();

    /// Events received and not yet handed to the handlers (those waiting for the handle queue).
    std::size_t undeliveredEventCount() const;

    /// Delivers an event to the handlers as if it had arrived. Unless it is an internal message,
    /// it is ignored while not connected.
    void handleEvent(std::string event, SocketIOArgs args, bool isInternalMessage = false);

  private:
    struct Registration;
    using Registrations = std::vector<std::shared_ptr<Registration>>;
    // An event for the handlers; or (with `packetSize` set) an EVENT packet still to be decoded,
    // kept in its batch's text; or (with `task` set) the connect time-out handler.
    struct Delivery {
        std::string event;
        SocketIOArgs args;
        std::size_t packetOffset = 0;
        std::size_t packetSize = 0;
        std::function<void()> task;
    };
    // The events of one read (or the client's own events) on their way to the handlers. The
    // packets' texts share one buffer, so that a batch costs the receiving thread a few
    // allocations rather than one per event.
    struct Batch {
        std::vector<Delivery> deliveries;
        std::string packets;
    };
    // The handlers of each event, read again only when they changed. A handler may add
    // handlers (on "connect", typically): the cache notices by the generation.
    struct HandlerCache {
        std::unordered_map<std::string, Registrations> byEvent;
        std::uint64_t generation = ~std::uint64_t{0};
    };

    // Called with mutex_ held: queue an event for the handlers.
    void enqueueLocked(std::string event, SocketIOArgs args);
    void enqueueLocked(Delivery delivery);
    void scheduleDeliveryLocked();
    // Appends `batch` to what waits for the handle queue (in front of it with `first`).
    void appendPendingLocked(Batch& batch, std::size_t from, bool first);
    // On the handle queue.
    void deliverPending();
    void deliverBatch(const Batch& batch);
    // On the I/O thread, as the handle queue's task.
    void deliverInline(std::uint64_t attempt);
    void deliverPacket(std::string_view packet, HandlerCache& cache);
    const Registrations& handlersFor(const std::string& event, HandlerCache& cache);
    void deliver(const Registrations& registrations, const SocketIOArgs& args);
    // Ends the current attempt if `attempt` is still current and active; true when it did.
    bool endAttemptLocked(std::uint64_t attempt);

    // On the I/O thread.
    void startAttempt(std::uint64_t attempt, std::chrono::milliseconds timeout,
                      std::function<void()> timeoutHandler);
    void onSessionOpened(std::uint64_t attempt);
    void onSessionMessage(std::uint64_t attempt, std::string_view text);
    // Hands the events of the read so far to the handlers, at once or through the queue.
    void flushInbound(std::uint64_t attempt);
    void pauseReadingIfBacklogged();
    // Pauses or resumes the session as the backlog says.
    void applyReadingState();
    void watchBacklog();
    void onSessionBinary(std::uint64_t attempt);
    void onSessionClosed(std::uint64_t attempt, const TransportEnd& end);
    void armConnectDeadline(std::uint64_t attempt, std::chrono::milliseconds timeout,
                            std::function<void()> timeoutHandler);
    void cancelConnectDeadline();
    void onConnectTimeout(std::uint64_t attempt, std::function<void()> timeoutHandler);
    void onServerPacket(std::uint64_t attempt, SocketPacket&& packet);
    void sendPacket(std::uint64_t attempt, const std::string& packet);
    void failAttempt(std::uint64_t attempt, std::string reason);
    void closeSession(bool leaveNamespace);
    void reportError(std::uint64_t attempt, std::string reason);

    const std::string url_;
    SocketIOClientOptions options_;
    boost::asio::io_context& io_;

    mutable std::mutex mutex_;
    SocketIOStatus status_ = SocketIOStatus::notConnected;
    std::uint64_t attempt_ = 0;
    SocketIOHandlerId nextHandlerId_ = 1;
    std::unordered_map<std::string, Registrations> handlers_;
    std::deque<Batch> pending_;  // one per read, besides the client's own events
    std::size_t pendingEvents_ = 0;
    std::size_t pendingBytes_ = 0;
    ReadBacklog::WatcherId backlogWatcher_ = 0;
    bool deliveryScheduled_ = false;
    // Events the handle queue has taken from pending_ and not yet delivered.
    std::size_t deliveringEvents_ = 0;
    std::size_t deliveringBytes_ = 0;
    // Bumped whenever handlers change, so that a batch re-reads them only then.
    std::atomic<std::uint64_t> handlersGeneration_{0};

    // Handle queue only (inline batches run as its tasks too).
    HandlerCache handlerCache_;

    // I/O thread only.
    // The EVENT packets of the current read, not yet handed on.
    Batch inbound_;
    // Until then, batches go through the handle queue even when it is idle (slow handlers).
    std::chrono::steady_clock::time_point inlineResumesAt_{};
    std::shared_ptr<EngineSession> session_;
    // Whether the current attempt has read an event: until then a full backlog does not stop it,
    // so that a connection made while events of the last one wait still completes its handshake
    // and its first exchange.
    bool readEvents_ = false;
    std::shared_ptr<boost::asio::steady_timer> connectTimer_;
    std::shared_ptr<dispatch::ScheduledTask> connectDeadline_;
    std::size_t attachmentsToSkip_ = 0;
};

}  // namespace tavlo::sio
