// Feeds arbitrary bytes, as a server's byte stream, to the WebSocket frame reader, in pieces of a
// size the first byte picks (as reads would cut them). Nothing may crash, hang, consume bytes it
// was not given, or hold a message above the limit; and however the stream is cut, the same
// messages must come out.

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "SocketIO/WebSocketFrame.hpp"

namespace {

using tavlo::sio::FrameAssembler;
using tavlo::sio::FrameEvent;

constexpr std::size_t kLimit = 1024;

std::vector<std::string> readAll(std::string_view stream, std::size_t chunk) {
    FrameAssembler assembler(kLimit);
    std::string buffer;
    std::vector<std::string> seen;
    for (std::size_t at = 0; at < stream.size(); at += chunk) {
        buffer.append(stream.substr(at, chunk));
        for (;;) {
            const FrameEvent event = assembler.next(buffer);
            if (event.kind == FrameEvent::needMore) break;
            if (event.kind == FrameEvent::protocolError) {
                seen.push_back("error");
                return seen;
            }
            if (event.consumed > buffer.size() || event.payload.size() > kLimit) __builtin_trap();
            if (event.kind == FrameEvent::none && event.consumed == 0) __builtin_trap();
            if (event.kind != FrameEvent::none) {
                seen.push_back(std::to_string(event.kind) + ":" + std::string(event.payload));
            }
            buffer.erase(0, event.consumed);
        }
        if (buffer.size() > kLimit + chunk + 14) __builtin_trap();
    }
    return seen;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size == 0) return 0;
    const std::size_t chunk = 1 + data[0] % 64;
    const std::string_view stream(reinterpret_cast<const char*>(data) + 1, size - 1);
    if (readAll(stream, chunk) != readAll(stream, stream.size() + 1)) __builtin_trap();
    return 0;
}
