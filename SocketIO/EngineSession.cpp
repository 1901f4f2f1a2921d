#include "SocketIO/EngineSession.hpp"

#include <algorithm>

namespace tavlo::sio {

std::shared_ptr<EngineSession> EngineSession::create(boost::asio::io_context& io, Settings settings,
                                                     Callbacks callbacks) {
    return std::make_shared<EngineSession>(io, std::move(settings), std::move(callbacks));
}

EngineSession::EngineSession(boost::asio::io_context& io, Settings settings, Callbacks callbacks)
    : io_(io), settings_(std::move(settings)), callbacks_(std::move(callbacks)), heartbeat_(io) {}

EngineSession::~EngineSession() {
    // Whoever drops a session without closing it still must not leave the connection open.
    if (transport_ && !finished_) transport_->abort();
}

void EngineSession::open() {
    std::weak_ptr<EngineSession> weak = weak_from_this();
    WebSocketTransport::Callbacks transportCallbacks;
    transportCallbacks.text = [weak](std::string_view frame) {
        if (auto self = weak.lock()) self->onText(frame);
    };
    transportCallbacks.batchEnd = [weak] {
        auto self = weak.lock();
        if (!self || self->finished_) return;
        self->lastRead_ = std::chrono::steady_clock::now();
        if (self->callbacks_.batchEnd) self->callbacks_.batchEnd();
    };
    transportCallbacks.binary = [weak](std::size_t) {
        auto self = weak.lock();
        if (self && self->isOpen_ && self->callbacks_.binary) self->callbacks_.binary();
    };
    transportCallbacks.oversized = [weak](std::size_t limit) {
        if (auto self = weak.lock()) {
            self->refuse("frame larger than " + std::to_string(limit) + " bytes dropped");
        }
    };
    transportCallbacks.closed = [weak](TransportEnd end) {
        if (auto self = weak.lock()) self->end(std::move(end));
    };
    transport_ =
        WebSocketTransport::create(io_, settings_.endpoint, settings_.security, settings_.route,
                                   settings_.maxIncomingMessage, std::move(transportCallbacks));
    transport_->open(settings_.target);
}

bool EngineSession::send(std::string_view payload) {
    if (!isOpen_ || finished_) return false;
    std::string frame = encodeEnginePacket(EnginePacketType::message, payload);
    if (frame.size() > handshake_.maxPayload) return false;
    transport_->send(std::move(frame));
    return true;
}

void EngineSession::close() {
    finished_ = true;
    heartbeat_.cancel();
    if (transport_) transport_->close();
}

void EngineSession::abort() {
    finished_ = true;
    heartbeat_.cancel();
    if (transport_) transport_->abort();
}

void EngineSession::pauseReading() {
    if (finished_ || paused_) return;
    paused_ = true;
    heartbeat_.cancel();
    if (transport_) transport_->pauseReading();
    if (isOpen_) keepAliveWhilePaused();
}

void EngineSession::resumeReading() {
    if (finished_ || !paused_) return;
    paused_ = false;
    if (isOpen_) armHeartbeat();
    if (transport_) transport_->resumeReading();
}

void EngineSession::onText(std::string_view frame) {
    if (finished_) return;
    auto packet = decodeEnginePacket(frame);
    if (!packet) return isOpen_ ? refuse(packet.error) : end({packet.error, true});
    if (!isOpen_) {
        if (packet.value->type != EnginePacketType::open) {
            return end({"Engine.IO session did not start with an open packet", true});
        }
        return onHandshake(packet.value->data);
    }
    switch (packet.value->type) {
        case EnginePacketType::ping:
            armHeartbeat();
            transport_->send(encodeEnginePacket(EnginePacketType::pong, packet.value->data));
            break;
        case EnginePacketType::message:
            if (callbacks_.message) callbacks_.message(packet.value->data);
            break;
        case EnginePacketType::close:
            end({"transport close", false});
            break;
        case EnginePacketType::open:
            refuse("unexpected second Engine.IO open packet");
            break;
        case EnginePacketType::pong:
        case EnginePacketType::upgrade:
        case EnginePacketType::noop:
            break;
    }
}

void EngineSession::onHandshake(std::string_view data) {
    auto handshake = decodeEngineHandshake(data);
    if (!handshake) return end({handshake.error, true});
    handshake_ = std::move(*handshake.value);
    isOpen_ = true;
    armHeartbeat();
    if (callbacks_.opened) callbacks_.opened(handshake_);
}

// The server pings every pingInterval and gives us pingTimeout to answer; a ping that has not
// come by the sum of both means the server or the path to it is gone.
void EngineSession::armHeartbeat() {
    if (paused_) return;
    heartbeat_.expires_after(handshake_.pingInterval + handshake_.pingTimeout);
    heartbeat_.async_wait([weak = weak_from_this()](const boost::system::error_code& error) {
        if (error) return;
        if (auto self = weak.lock()) self->onHeartbeatExpired();
    });
}

// The server's pings wait unread while reading is paused, so they cannot be answered. The server
// takes any pong as the answer to its latest ping and starts its next interval from it, so a pong
// sent unasked well within both of its limits keeps the session alive, however long the pause;
// the pings read after the pause are answered as usual (an extra pong is harmless). The kernel
// buffers and the server's own queue keep pushing back on the flood meanwhile.
void EngineSession::keepAliveWhilePaused() {
    if (!paused_ || finished_) return;
    transport_->send(encodeEnginePacket(EnginePacketType::pong, {}));
    heartbeat_.expires_after(keepAlivePeriod());
    heartbeat_.async_wait([weak = weak_from_this()](const boost::system::error_code& error) {
        if (error) return;
        if (auto self = weak.lock()) self->keepAliveWhilePaused();
    });
}

std::chrono::milliseconds EngineSession::keepAlivePeriod() const {
    const auto shorter = std::min(handshake_.pingInterval, handshake_.pingTimeout);
    return std::max(std::chrono::duration_cast<std::chrono::milliseconds>(shorter) / 2,
                    std::chrono::milliseconds(10));
}

void EngineSession::onHeartbeatExpired() {
    if (paused_) return;  // a wait that had already expired when reading paused
    // After a pause the next ping may still sit behind the backlog being read: a server that
    // keeps sending is alive, and the wait starts again from what was read last.
    const auto deadline = lastRead_ + handshake_.pingInterval + handshake_.pingTimeout;
    if (deadline > std::chrono::steady_clock::now()) {
        heartbeat_.expires_at(deadline);
        heartbeat_.async_wait([weak = weak_from_this()](const boost::system::error_code& error) {
            if (error) return;
            if (auto self = weak.lock()) self->onHeartbeatExpired();
        });
        return;
    }
    end({"ping timeout", false});
}

void EngineSession::end(TransportEnd end) {
    if (finished_) return;
    finished_ = true;
    heartbeat_.cancel();
    transport_->abort();
    if (callbacks_.closed) callbacks_.closed(std::move(end));
}

void EngineSession::refuse(std::string reason) {
    if (!finished_ && callbacks_.refused) callbacks_.refused(std::move(reason));
}

}  // namespace tavlo::sio
