// Feeds arbitrary bytes, as a server's byte stream, to the WebSocket frame reader, in pieces of a
// size the first byte picks (as reads would cut them). Nothing may crash, hang, consume bytes it
// was not given, or hold a message above the limit; however the stream is cut, the same
// messages must come out; and every text message handed out is UTF-8. The UTF-8 check itself is
// compared with a plain decoder on the same bytes, cut where the first byte says.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "SocketIO/WebSocketFrame.hpp"

namespace {

using tavlo::sio::FrameAssembler;
using tavlo::sio::FrameEvent;
using tavlo::sio::Utf8Validator;

constexpr std::size_t kLimit = 1024;

// RFC 3629 the long way: decode each character to its code point, then check the rules.
bool isUtf8(std::string_view text) {
    std::size_t at = 0;
    while (at < text.size()) {
        const auto lead = static_cast<unsigned char>(text[at]);
        std::size_t length = lead < 0x80         ? 1
                             : lead >> 5 == 0x6  ? 2
                             : lead >> 4 == 0xE  ? 3
                             : lead >> 3 == 0x1E ? 4
                                                 : 0;
        if (length == 0 || at + length > text.size()) return false;
        std::uint32_t point = length == 1 ? lead : lead & (0x7F >> length);
        for (std::size_t i = 1; i < length; ++i) {
            const auto byte = static_cast<unsigned char>(text[at + i]);
            if ((byte & 0xC0) != 0x80) return false;
            point = (point << 6) | (byte & 0x3F);
        }
        static constexpr std::uint32_t kSmallest[] = {0, 0, 0x80, 0x800, 0x10000};
        if (point < kSmallest[length] || point > 0x10FFFF) return false;
        if (point >= 0xD800 && point <= 0xDFFF) return false;
        at += length;
    }
    return true;
}

std::vector<std::string> readAll(std::string_view stream, std::size_t chunk) {
    FrameAssembler assembler(kLimit);
    std::string buffer;
    std::vector<std::string> seen;
    for (std::size_t at = 0; at < stream.size(); at += chunk) {
        buffer.append(stream.substr(at, chunk));
        for (;;) {
            const FrameEvent event = assembler.next(buffer);
            if (event.kind == FrameEvent::needMore) break;
            if (event.kind == FrameEvent::protocolError || event.kind == FrameEvent::invalidText) {
                seen.push_back(event.kind == FrameEvent::protocolError ? "error" : "invalid");
                return seen;
            }
            if (event.consumed > buffer.size() || event.payload.size() > kLimit) __builtin_trap();
            if (event.kind == FrameEvent::none && event.consumed == 0) __builtin_trap();
            if (event.kind == FrameEvent::text && !isUtf8(event.payload)) __builtin_trap();
            if (event.kind != FrameEvent::none) {
                seen.push_back(std::to_string(event.kind) + ":" + std::string(event.payload));
            }
            buffer.erase(0, event.consumed);
        }
        if (buffer.size() > kLimit + chunk + 14) __builtin_trap();
    }
    return seen;
}

void checkValidator(std::string_view bytes, std::size_t cut) {
    Utf8Validator validator;
    cut = std::min(cut, bytes.size());
    validator.feed(bytes.substr(0, cut));
    validator.feed(bytes.substr(cut));
    if (validator.complete() != isUtf8(bytes)) __builtin_trap();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size == 0) return 0;
    const std::size_t chunk = 1 + data[0] % 64;
    const std::string_view stream(reinterpret_cast<const char*>(data) + 1, size - 1);
    if (readAll(stream, chunk) != readAll(stream, stream.size() + 1)) __builtin_trap();
    checkValidator(stream, data[0]);
    return 0;
}
