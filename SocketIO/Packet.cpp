#include "SocketIO/Packet.hpp"

#include <algorithm>
#include <array>
#include <boost/json/parse.hpp>
#include <boost/json/serialize.hpp>
#include <charconv>
#include <iterator>

namespace tavlo::sio {
namespace {

namespace json = boost::json;

// Deep enough for any real payload, shallow enough that hostile nesting cannot exhaust the stack.
constexpr std::size_t kMaxJSONDepth = 64;
// Longer numbers than these cannot be meant seriously and would overflow.
constexpr std::size_t kMaxAckIdDigits = 15;
constexpr std::size_t kMaxAttachmentDigits = 6;
// A day; longer heartbeat periods would only mean never noticing a dead connection.
constexpr std::int64_t kMaxHeartbeatMilliseconds = 24 * 60 * 60 * 1000;
// What the official server announces by default; used when an older server leaves it out.
constexpr std::size_t kDefaultMaxPayload = 1'000'000;

bool isDigit(char c) {
    return c >= '0' && c <= '9';
}

std::optional<json::value> parseJSON(std::string_view text) {
    json::parse_options options;
    options.max_depth = kMaxJSONDepth;
    boost::system::error_code error;
    json::value value = json::parse(text, error, {}, options);
    if (error) return std::nullopt;
    return value;
}

// A positive integral JSON number within [1, limit].
std::optional<std::int64_t> positiveInteger(const json::object& object, std::string_view key,
                                            std::int64_t limit) {
    const json::value* value = object.if_contains(key);
    if (!value) return std::nullopt;
    std::int64_t number = 0;
    if (value->is_int64()) {
        number = value->get_int64();
    } else if (value->is_uint64()) {
        if (value->get_uint64() > static_cast<std::uint64_t>(limit)) return std::nullopt;
        number = static_cast<std::int64_t>(value->get_uint64());
    } else if (value->is_double()) {
        double d = value->get_double();
        if (!(d >= 1 && d <= static_cast<double>(limit)) ||
            d != static_cast<double>(static_cast<std::int64_t>(d))) {
            return std::nullopt;
        }
        number = static_cast<std::int64_t>(d);
    } else {
        return std::nullopt;
    }
    if (number < 1 || number > limit) return std::nullopt;
    return number;
}

bool isValidPayload(SocketPacketType type, const json::value& payload) {
    switch (type) {
        case SocketPacketType::connect:
            return payload.is_object();
        case SocketPacketType::disconnect:
            return false;
        case SocketPacketType::connectError:
            return payload.is_string() || payload.is_object();
        case SocketPacketType::event:
        case SocketPacketType::binaryEvent: {
            const json::array* array = payload.if_array();
            if (!array || array->empty()) return false;
            // Numeric event names exist in the protocol but nobody can register for them here.
            const json::string* name = array->front().if_string();
            return name && !isReservedEventName(*name);
        }
        case SocketPacketType::ack:
        case SocketPacketType::binaryAck:
            return payload.is_array();
    }
    return false;
}

// Reads the digits at `pos` (at most `maxDigits`); advances `pos` past them.
std::optional<std::uint64_t> readNumber(std::string_view text, std::size_t& pos,
                                        std::size_t maxDigits) {
    std::size_t end = pos;
    while (end < text.size() && isDigit(text[end])) ++end;
    if (end == pos || end - pos > maxDigits) return std::nullopt;
    std::uint64_t number = 0;
    std::from_chars(text.data() + pos, text.data() + end, number);
    pos = end;
    return number;
}

}  // namespace

Decoded<EnginePacket> decodeEnginePacket(std::string_view frame) {
    if (frame.empty()) return Decoded<EnginePacket>::failure("empty Engine.IO packet");
    char type = frame.front();
    if (type < '0' || type > '6') {
        return Decoded<EnginePacket>::failure("unknown Engine.IO packet type");
    }
    return Decoded<EnginePacket>::success({static_cast<EnginePacketType>(type), frame.substr(1)});
}

std::string encodeEnginePacket(EnginePacketType type, std::string_view data) {
    std::string frame;
    frame.reserve(1 + data.size());
    frame.push_back(static_cast<char>(type));
    frame.append(data);
    return frame;
}

Decoded<EngineHandshake> decodeEngineHandshake(std::string_view text) {
    using Result = Decoded<EngineHandshake>;
    auto parsed = parseJSON(text);
    const json::object* object = parsed ? parsed->if_object() : nullptr;
    if (!object) return Result::failure("Engine.IO handshake is not a JSON object");

    const json::value* sid = object->if_contains("sid");
    if (!sid || !sid->is_string() || sid->get_string().empty()) {
        return Result::failure("Engine.IO handshake without session id");
    }
    auto interval = positiveInteger(*object, "pingInterval", kMaxHeartbeatMilliseconds);
    auto timeout = positiveInteger(*object, "pingTimeout", kMaxHeartbeatMilliseconds);
    if (!interval || !timeout) return Result::failure("Engine.IO handshake without heartbeat");

    EngineHandshake handshake;
    handshake.sid = std::string(sid->get_string());
    handshake.pingInterval = std::chrono::milliseconds(*interval);
    handshake.pingTimeout = std::chrono::milliseconds(*timeout);
    handshake.maxPayload = kDefaultMaxPayload;
    if (object->contains("maxPayload")) {
        auto maxPayload = positiveInteger(*object, "maxPayload", std::int64_t{1} << 40);
        if (!maxPayload) return Result::failure("Engine.IO handshake with invalid maxPayload");
        handshake.maxPayload = static_cast<std::size_t>(*maxPayload);
    }
    return Result::success(std::move(handshake));
}

Decoded<SocketPacket> decodeSocketPacket(std::string_view text) {
    using Result = Decoded<SocketPacket>;
    if (text.empty()) return Result::failure("empty Socket.IO packet");
    if (text[0] < '0' || text[0] > '6') return Result::failure("unknown Socket.IO packet type");

    SocketPacket packet;
    packet.type = static_cast<SocketPacketType>(text[0] - '0');
    std::size_t pos = 1;

    if (packet.type == SocketPacketType::binaryEvent ||
        packet.type == SocketPacketType::binaryAck) {
        auto attachments = readNumber(text, pos, kMaxAttachmentDigits);
        if (!attachments || pos >= text.size() || text[pos] != '-') {
            return Result::failure("illegal attachment count");
        }
        packet.attachments = static_cast<std::size_t>(*attachments);
        ++pos;
    }

    if (pos < text.size() && text[pos] == '/') {
        std::size_t comma = text.find(',', pos);
        std::size_t end = comma == std::string_view::npos ? text.size() : comma;
        packet.nsp = std::string(text.substr(pos, end - pos));
        pos = comma == std::string_view::npos ? end : end + 1;
    }

    if (pos < text.size() && isDigit(text[pos])) {
        packet.ackId = readNumber(text, pos, kMaxAckIdDigits);
        if (!packet.ackId) return Result::failure("illegal acknowledgement id");
    }

    if (pos < text.size()) {
        auto payload = parseJSON(text.substr(pos));
        if (!payload) return Result::failure("Socket.IO payload is not valid JSON");
        if (!isValidPayload(packet.type, *payload)) {
            return Result::failure("invalid payload for the Socket.IO packet type");
        }
        packet.data = std::move(*payload);
    }
    return Result::success(std::move(packet));
}

std::string encodeSocketPacket(const SocketPacket& packet) {
    std::string text;
    text.push_back(static_cast<char>('0' + static_cast<int>(packet.type)));
    if (packet.type == SocketPacketType::binaryEvent ||
        packet.type == SocketPacketType::binaryAck) {
        text += std::to_string(packet.attachments);
        text.push_back('-');
    }
    if (!packet.nsp.empty() && packet.nsp != "/") {
        text += packet.nsp;
        text.push_back(',');
    }
    if (packet.ackId) text += std::to_string(*packet.ackId);
    if (packet.data) text += json::serialize(*packet.data);
    return text;
}

Decoded<SocketEvent> eventFromPacket(SocketPacket&& packet) {
    using Result = Decoded<SocketEvent>;
    if (packet.type != SocketPacketType::event) return Result::failure("not an event packet");
    json::array* array = packet.data ? packet.data->if_array() : nullptr;
    if (!array || array->empty() || !array->front().is_string()) {
        return Result::failure("event without a name");
    }
    SocketEvent event;
    event.name = std::string(array->front().get_string());
    event.args.reserve(array->size() - 1);
    std::move(array->begin() + 1, array->end(), std::back_inserter(event.args));
    return Result::success(std::move(event));
}

std::string encodeEventPacket(std::string_view name, const std::vector<json::value>& args) {
    std::string text = "2[";
    text += json::serialize(json::string_view(name.data(), name.size()));
    for (const json::value& arg : args) {
        text.push_back(',');
        text += json::serialize(arg);
    }
    text.push_back(']');
    return text;
}

bool isReservedEventName(std::string_view name) {
    static constexpr std::array<std::string_view, 6> reserved = {
        "connect", "connect_error", "disconnect", "disconnecting", "newListener", "removeListener"};
    return std::find(reserved.begin(), reserved.end(), name) != reserved.end();
}

std::string connectErrorReason(const std::optional<json::value>& data) {
    if (data) {
        if (const json::string* text = data->if_string()) return std::string(*text);
        if (const json::object* object = data->if_object()) {
            if (const json::value* message = object->if_contains("message")) {
                if (const json::string* text = message->if_string()) return std::string(*text);
            }
        }
    }
    return "connect_error";
}

}  // namespace tavlo::sio
