#pragma once

#include <boost/json/value.hpp>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

// The wire format of Engine.IO 4 (over WebSocket: one packet per text frame) and of Socket.IO 5
// packets carried inside Engine.IO "message" packets. Pure functions: no I/O, no state, so every
// frame the server sends can be checked in isolation (and fuzzed).
namespace tavlo::sio {

/// A decoded value, or the reason it could not be decoded. Decoders never throw.
template <class T>
struct Decoded {
    std::optional<T> value;
    std::string error;

    static Decoded success(T v) { return {std::move(v), {}}; }
    static Decoded failure(std::string reason) { return {std::nullopt, std::move(reason)}; }
    explicit operator bool() const { return value.has_value(); }
};

// --- Engine.IO ---------------------------------------------------------------------------------

enum class EnginePacketType : char {
    open = '0',
    close = '1',
    ping = '2',
    pong = '3',
    message = '4',
    upgrade = '5',
    noop = '6',
};

/// One Engine.IO packet of a text frame. `data` views into the frame it was decoded from.
struct EnginePacket {
    EnginePacketType type;
    std::string_view data;
};

Decoded<EnginePacket> decodeEnginePacket(std::string_view frame);
std::string encodeEnginePacket(EnginePacketType type, std::string_view data = {});

/// The session parameters of the server's "open" packet.
struct EngineHandshake {
    std::string sid;
    std::chrono::milliseconds pingInterval{0};
    std::chrono::milliseconds pingTimeout{0};
    /// The largest packet the server accepts from us.
    std::size_t maxPayload = 0;
};

Decoded<EngineHandshake> decodeEngineHandshake(std::string_view json);

// --- Socket.IO ---------------------------------------------------------------------------------

enum class SocketPacketType : int {
    connect = 0,
    disconnect = 1,
    event = 2,
    ack = 3,
    connectError = 4,
    binaryEvent = 5,
    binaryAck = 6,
};

struct SocketPacket {
    SocketPacketType type = SocketPacketType::event;
    std::string nsp = "/";
    /// Binary attachments announced by a binary packet (they follow as binary frames).
    std::size_t attachments = 0;
    std::optional<std::uint64_t> ackId;
    /// The JSON payload, absent when the packet carries none.
    std::optional<boost::json::value> data;
};

/// Decodes the Socket.IO packet carried by an Engine.IO message. Checks the payload's shape per
/// packet type, as the official server's parser does.
Decoded<SocketPacket> decodeSocketPacket(std::string_view text);
std::string encodeSocketPacket(const SocketPacket& packet);

/// An event: its name and its arguments.
struct SocketEvent {
    std::string name;
    std::vector<boost::json::value> args;
};

/// The event carried by an EVENT packet (name first, then the arguments). Consumes the packet's
/// payload.
Decoded<SocketEvent> eventFromPacket(SocketPacket&& packet);

/// The Socket.IO packet text of an event on the main namespace, without acknowledgement.
std::string encodeEventPacket(std::string_view name, const std::vector<boost::json::value>& args);

/// Names the protocol keeps for itself; an event may not carry them.
bool isReservedEventName(std::string_view name);

/// The reason text of a CONNECT_ERROR payload (a string, or an object with "message").
std::string connectErrorReason(const std::optional<boost::json::value>& data);

}  // namespace tavlo::sio
