#pragma once

#include <boost/asio/io_context.hpp>
#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "SocketIO/ProxyRoute.hpp"
#include "SocketIO/SocketEndpoint.hpp"

namespace tavlo::sio {

/// Certificate checks of a wss:// connection. The peer is always verified against the system's
/// trust store and the host name; `caFile` adds certificates to trust (a PEM file).
struct TransportSecurity {
    std::optional<std::string> caFile;
};

/// Why a connection ended. `isError` tells a failure (refused, TLS, protocol violation) from an
/// orderly or abrupt close by the peer. A failure of the proxy (unreachable, refusing the tunnel,
/// silent) has a reason that `isProxyFailure` recognises, such as "proxy answered 403".
struct TransportEnd {
    std::string reason;
    bool isError = false;
};

/// True for the reason of a connection that failed at its proxy.
bool isProxyFailure(std::string_view reason);

/// One WebSocket connection (ws:// or wss://): resolve, connect, TLS, upgrade, then text frames
/// both ways. Every member function must be called on the io_context's thread, and the callbacks
/// run there. Pending operations keep the transport alive; the owner may drop it at any time.
///
/// Reads take whatever the kernel holds, up to a large chunk, and every complete message in it is
/// handed over in one go, followed by `batchEnd`: under a flood one read (and one trip through
/// the event loop) carries hundreds of messages.
class WebSocketTransport {
  public:
    struct Callbacks {
        /// The upgrade succeeded; frames may flow.
        std::function<void()> opened;
        /// A complete text message. The view is valid during the call only.
        std::function<void(std::string_view)> text;
        /// A complete binary message (its contents are not kept).
        std::function<void(std::size_t size)> binary;
        /// Every complete message of one read has been handed over.
        std::function<void()> batchEnd;
        /// A message larger than the limit was skipped; the connection goes on.
        std::function<void(std::size_t limit)> oversized;
        /// The connection ended without being asked to (called at most once).
        std::function<void(TransportEnd)> closed;
    };

    virtual ~WebSocketTransport() = default;

    /// `maxMessageSize` bounds what a single incoming message may hold in memory. With a proxy in
    /// `route` the connection goes through a CONNECT tunnel of that proxy (basic credentials when
    /// the proxy names some); TLS then runs inside the tunnel, verified against the server's name.
    static std::shared_ptr<WebSocketTransport> create(boost::asio::io_context& io,
                                                      SocketEndpoint endpoint,
                                                      TransportSecurity security, ProxyRoute route,
                                                      std::size_t maxMessageSize,
                                                      Callbacks callbacks);

    /// Starts connecting; `target` is the HTTP request target of the upgrade.
    virtual void open(std::string target) = 0;
    /// Queues a text message; messages go out in order.
    virtual void send(std::string text) = 0;
    /// Sends what is queued, then closes the WebSocket in order. No callback runs any more.
    virtual void close() = 0;
    /// Drops the connection at once. No callback runs any more.
    virtual void abort() = 0;
    /// Stops reading once the current read is handed over: the kernel's buffer fills, and TCP
    /// makes the peer wait. Outgoing frames still go out.
    virtual void pauseReading() = 0;
    /// Reads again after `pauseReading`.
    virtual void resumeReading() = 0;
};

}  // namespace tavlo::sio
