#pragma once

#include <boost/asio/io_context.hpp>
#include <boost/asio/steady_timer.hpp>
#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "SocketIO/Packet.hpp"
#include "SocketIO/WebSocketTransport.hpp"

namespace tavlo::sio {

/// An Engine.IO 4 session over one WebSocket: waits for the server's "open" packet, answers its
/// pings, notices when they stop (pingInterval + pingTimeout), refuses what it cannot take, and
/// carries the "message" packets both ways. I/O-thread only, like the transport beneath.
class EngineSession : public std::enable_shared_from_this<EngineSession> {
  public:
    struct Callbacks {
        /// The server accepted the session.
        std::function<void(const EngineHandshake&)> opened;
        /// The payload of a "message" packet (a Socket.IO packet). Valid during the call only.
        std::function<void(std::string_view)> message;
        /// Every message of one read has been handed over (a batch ends).
        std::function<void()> batchEnd;
        /// A binary message arrived (Socket.IO attachments; not kept).
        std::function<void()> binary;
        /// A frame was refused; the session goes on.
        std::function<void(std::string reason)> refused;
        /// The session ended without being asked to (at most once).
        std::function<void(TransportEnd)> closed;
    };

    struct Settings {
        SocketEndpoint endpoint;
        std::string target;
        TransportSecurity security;
        ProxyRoute route;
        std::size_t maxIncomingMessage = 0;
    };

    static std::shared_ptr<EngineSession> create(boost::asio::io_context& io, Settings settings,
                                                 Callbacks callbacks);

    EngineSession(boost::asio::io_context& io, Settings settings, Callbacks callbacks);
    ~EngineSession();

    void open();
    /// Sends a "message" packet. False, and nothing sent, when it exceeds the server's maxPayload
    /// or the session is not open.
    bool send(std::string_view payload);
    /// Sends what is queued and closes the connection in order; no callback runs any more.
    void close();
    /// Drops the connection at once; no callback runs any more.
    void abort();
    /// Stops and resumes reading (backpressure). The server's pings wait unread in the same
    /// stream meanwhile, so their absence is not checked, and pongs go out unasked to keep the
    /// session alive however long the pause lasts.
    void pauseReading();
    void resumeReading();

  private:
    void onText(std::string_view frame);
    void onHandshake(std::string_view data);
    void armHeartbeat();
    void onHeartbeatExpired();
    void keepAliveWhilePaused();
    std::chrono::milliseconds keepAlivePeriod() const;
    void end(TransportEnd end);
    void refuse(std::string reason);

    boost::asio::io_context& io_;
    Settings settings_;
    const Callbacks callbacks_;
    boost::asio::steady_timer heartbeat_;
    std::shared_ptr<WebSocketTransport> transport_;
    EngineHandshake handshake_;
    /// When the last read ended: data from the server proves it alive as a ping does.
    std::chrono::steady_clock::time_point lastRead_{};
    bool isOpen_ = false;
    bool paused_ = false;
    bool finished_ = false;
};

}  // namespace tavlo::sio
