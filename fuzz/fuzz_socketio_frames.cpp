// Feeds arbitrary bytes to everything that reads a frame from a realtime server: the Engine.IO
// packet and handshake decoders, the Socket.IO packet decoder, the event split, and the chat's
// event decoders on the event's first argument. Nothing may crash, hang or throw, and whatever
// decodes must encode back to something that decodes the same way.

#include <boost/json.hpp>
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "SocketIO/Packet.hpp"
#include "TavloMessagingSDK/Internal/TVKRealtimeEvents.hpp"

namespace {

using namespace tavlo;
namespace json = boost::json;

void checkPayloads(const json::value* item) {
    for (const auto& kind : kTVKRealtimeEvents) (void)kind.decode(item, nullptr);
}

void checkSocketPacket(std::string_view text) {
    auto packet = sio::decodeSocketPacket(text);
    if (!packet) return;
    // The packet's header must survive a round trip. (The JSON is Boost.JSON's business: a huge
    // number parses to infinity, which prints as text that need not parse back.)
    sio::SocketPacket header = *packet.value;
    header.data.reset();
    auto again = sio::decodeSocketPacket(sio::encodeSocketPacket(header));
    if (!again || again.value->type != header.type || again.value->nsp != header.nsp ||
        again.value->ackId != header.ackId || again.value->attachments != header.attachments) {
        __builtin_trap();
    }
    auto event = sio::eventFromPacket(std::move(*packet.value));
    if (!event) return;
    checkPayloads(event.value->args.empty() ? nullptr : &event.value->args.front());
    (void)sio::encodeEventPacket(event.value->name, event.value->args);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::string_view frame(reinterpret_cast<const char*>(data), size);
    if (auto packet = sio::decodeEnginePacket(frame)) {
        switch (packet.value->type) {
            case sio::EnginePacketType::open:
                (void)sio::decodeEngineHandshake(packet.value->data);
                break;
            case sio::EnginePacketType::message:
                checkSocketPacket(packet.value->data);
                break;
            default:
                break;
        }
    }
    // The raw bytes as a JSON payload too, for the checks that see the first argument directly.
    boost::system::error_code error;
    json::value value = json::parse(frame, error);
    if (!error) checkPayloads(&value);
    return 0;
}
