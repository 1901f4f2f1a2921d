#include "SocketIO/WebSocketFrame.hpp"

#include <algorithm>
#include <cstring>

namespace tavlo::sio {
namespace {

constexpr std::uint8_t kFin = 0x80;
constexpr std::uint8_t kReservedBits = 0x70;
constexpr std::uint8_t kMasked = 0x80;
constexpr std::size_t kMaxControlPayload = 125;

FrameEvent protocolError(std::string_view what) {
    return {FrameEvent::protocolError, what, 0, 0};
}

std::uint64_t bigEndian(std::string_view bytes, std::size_t offset, std::size_t count) {
    std::uint64_t value = 0;
    for (std::size_t i = 0; i < count; ++i) {
        value = (value << 8) | static_cast<std::uint8_t>(bytes[offset + i]);
    }
    return value;
}

bool isControl(FrameOpcode opcode) {
    return (static_cast<std::uint8_t>(opcode) & 0x8) != 0;
}

FrameEvent invalidText() {
    return {FrameEvent::invalidText, "invalid UTF-8 in a text message", 0, 0};
}

// How many continuation bytes follow a lead byte, and the range of the first of them; 0 for a
// byte that cannot start a character.
struct LeadByte {
    unsigned continuations;
    unsigned char lowest;
    unsigned char highest;
};

LeadByte leadByte(unsigned char byte) {
    if (byte >= 0xC2 && byte <= 0xDF) return {1, 0x80, 0xBF};
    if (byte == 0xE0) return {2, 0xA0, 0xBF};  // no overlong three-byte forms
    if (byte == 0xED) return {2, 0x80, 0x9F};  // no surrogates
    if (byte >= 0xE1 && byte <= 0xEF) return {2, 0x80, 0xBF};
    if (byte == 0xF0) return {3, 0x90, 0xBF};  // no overlong four-byte forms
    if (byte == 0xF4) return {3, 0x80, 0x8F};  // nothing above U+10FFFF
    if (byte >= 0xF1 && byte <= 0xF3) return {3, 0x80, 0xBF};
    return {0, 0, 0};
}

}  // namespace

bool Utf8Validator::feed(std::string_view bytes) {
    std::size_t at = 0;
    while (valid_ && at < bytes.size()) {
        if (pending_ == 0) {
            // Chat text is mostly ASCII: skip runs of it eight bytes at a time.
            while (at + 8 <= bytes.size()) {
                std::uint64_t word;
                std::memcpy(&word, bytes.data() + at, sizeof word);
                if (word & 0x8080808080808080ULL) break;
                at += 8;
            }
            if (at == bytes.size()) break;
            const auto byte = static_cast<unsigned char>(bytes[at++]);
            if (byte < 0x80) continue;
            const LeadByte lead = leadByte(byte);
            if (lead.continuations == 0) {
                valid_ = false;
                break;
            }
            pending_ = lead.continuations;
            lowest_ = lead.lowest;
            highest_ = lead.highest;
            continue;
        }
        const auto byte = static_cast<unsigned char>(bytes[at++]);
        if (byte < lowest_ || byte > highest_) {
            valid_ = false;
            break;
        }
        --pending_;
        lowest_ = 0x80;
        highest_ = 0xBF;
    }
    return valid_;
}

FrameEvent FrameAssembler::next(std::string_view bytes) {
    if (skipRemaining_ > 0) return skip(bytes);
    frameSize_ = 0;
    if (bytes.size() < 2) return {};
    const auto first = static_cast<std::uint8_t>(bytes[0]);
    const auto second = static_cast<std::uint8_t>(bytes[1]);
    // No extension is ever negotiated, so the reserved bits must be clear.
    if (first & kReservedBits) return protocolError("reserved bits set");
    if (second & kMasked) return protocolError("masked frame from the server");
    const bool fin = (first & kFin) != 0;
    const auto opcode = static_cast<FrameOpcode>(first & 0x0F);

    std::size_t headerSize = 2;
    std::uint64_t length = second & 0x7F;
    if (length == 126) {
        headerSize = 4;
        if (bytes.size() < headerSize) return {};
        length = bigEndian(bytes, 2, 2);
    } else if (length == 127) {
        headerSize = 10;
        if (bytes.size() < headerSize) return {};
        length = bigEndian(bytes, 2, 8);
        if (length >> 63) return protocolError("frame length out of range");
    }

    if (isControl(opcode)) {
        if (!fin || length > kMaxControlPayload) return protocolError("invalid control frame");
        if (bytes.size() < headerSize + length) {
            frameSize_ = headerSize + length;
            return {};
        }
        const auto payload = bytes.substr(headerSize, length);
        const std::size_t consumed = headerSize + length;
        switch (opcode) {
            case FrameOpcode::close:
                return {FrameEvent::close, payload, payload.size(), consumed};
            case FrameOpcode::ping:
                return {FrameEvent::ping, payload, payload.size(), consumed};
            case FrameOpcode::pong:
                return {FrameEvent::pong, payload, payload.size(), consumed};
            default:
                return protocolError("unknown control opcode");
        }
    }
    return dataFrame(bytes, fin, opcode, headerSize, length);
}

FrameEvent FrameAssembler::dataFrame(std::string_view bytes, bool fin, FrameOpcode opcode,
                                     std::size_t headerSize, std::uint64_t length) {
    if (opcode == FrameOpcode::continuation) {
        if (!inMessage_) return protocolError("continuation frame without a message");
    } else if (opcode == FrameOpcode::text || opcode == FrameOpcode::binary) {
        if (inMessage_) return protocolError("new message inside a fragmented one");
    } else {
        return protocolError("unknown data opcode");
    }
    const std::uint64_t total = (inMessage_ ? messageSize_ : 0) + length;
    if (discarding_ || total > maxMessageSize_) {
        return startSkipping(fin, opcode, headerSize, length);
    }
    if (bytes.size() < headerSize + length) {
        frameSize_ = headerSize + static_cast<std::size_t>(length);
        return {};
    }
    const auto payload = bytes.substr(headerSize, length);
    const std::size_t consumed = headerSize + payload.size();
    if (fin && !inMessage_) {
        // The common case: a whole message in one frame, handed out where it lies.
        if (opcode == FrameOpcode::binary) {
            return {FrameEvent::binary, payload, payload.size(), consumed};
        }
        Utf8Validator text;
        if (!text.feed(payload) || !text.complete()) return invalidText();
        return {FrameEvent::text, payload, payload.size(), consumed};
    }
    if (!inMessage_) {
        inMessage_ = true;
        messageOpcode_ = opcode;
        messageSize_ = 0;
        message_.clear();
        messageText_.reset();
    }
    messageSize_ += payload.size();
    if (messageOpcode_ == FrameOpcode::text) {
        // Checked fragment by fragment: a bad message fails as soon as its bad bytes arrive.
        if (!messageText_.feed(payload)) return invalidText();
        message_.append(payload);
    }
    if (!fin) return {FrameEvent::none, {}, 0, consumed};
    inMessage_ = false;
    if (messageOpcode_ == FrameOpcode::binary) {
        return {FrameEvent::binary, {}, static_cast<std::size_t>(messageSize_), consumed};
    }
    if (!messageText_.complete()) return invalidText();
    return {FrameEvent::text, message_, message_.size(), consumed};
}

FrameEvent FrameAssembler::startSkipping(bool fin, FrameOpcode opcode, std::size_t headerSize,
                                         std::uint64_t length) {
    if (!inMessage_) {
        inMessage_ = true;
        messageOpcode_ = opcode;
    }
    discarding_ = true;
    std::string().swap(message_);  // what was joined so far goes, memory included
    skipRemaining_ = length;
    skipIsFinal_ = fin;
    if (length == 0 && fin) {
        inMessage_ = false;
        discarding_ = false;
        return {FrameEvent::oversized, {}, 0, headerSize};
    }
    return {FrameEvent::none, {}, 0, headerSize};
}

FrameEvent FrameAssembler::skip(std::string_view bytes) {
    const auto count =
        static_cast<std::size_t>(std::min<std::uint64_t>(skipRemaining_, bytes.size()));
    if (count == 0) return {};
    skipRemaining_ -= count;
    if (skipRemaining_ > 0 || !skipIsFinal_) return {FrameEvent::none, {}, 0, count};
    inMessage_ = false;
    discarding_ = false;
    return {FrameEvent::oversized, {}, 0, count};
}

std::string encodeClientFrame(FrameOpcode opcode, std::string_view payload, std::uint32_t maskKey) {
    std::string frame;
    frame.reserve(payload.size() + 14);
    frame.push_back(static_cast<char>(kFin | static_cast<std::uint8_t>(opcode)));
    const std::uint64_t length = payload.size();
    if (length < 126) {
        frame.push_back(static_cast<char>(kMasked | length));
    } else if (length <= 0xFFFF) {
        frame.push_back(static_cast<char>(kMasked | 126));
        for (int shift = 8; shift >= 0; shift -= 8)
            frame.push_back(static_cast<char>(length >> shift));
    } else {
        frame.push_back(static_cast<char>(kMasked | 127));
        for (int shift = 56; shift >= 0; shift -= 8)
            frame.push_back(static_cast<char>(length >> shift));
    }
    const char mask[4] = {static_cast<char>(maskKey >> 24), static_cast<char>(maskKey >> 16),
                          static_cast<char>(maskKey >> 8), static_cast<char>(maskKey)};
    frame.append(mask, 4);
    const std::size_t start = frame.size();
    frame.append(payload);
    for (std::size_t i = 0; i < payload.size(); ++i) frame[start + i] ^= mask[i % 4];
    return frame;
}

}  // namespace tavlo::sio
