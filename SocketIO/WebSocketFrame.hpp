#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

// WebSocket framing (RFC 6455) as the client side speaks it: frames from the server are read
// straight out of the receive buffer, frames to it are masked. Pure logic, no I/O, so that any
// byte sequence a server may send can be checked in isolation (and fuzzed).
namespace tavlo::sio {

enum class FrameOpcode : std::uint8_t {
    continuation = 0x0,
    text = 0x1,
    binary = 0x2,
    close = 0x8,
    ping = 0x9,
    pong = 0xA,
};

/// One step of reading: what the bytes at the front of the buffer amount to.
struct FrameEvent {
    enum Kind {
        needMore,   ///< no complete frame yet; nothing consumed
        none,       ///< bytes consumed, nothing to report (a fragment, skipped bytes)
        text,       ///< a complete text message in `payload`
        binary,     ///< a complete binary message of `size` bytes (contents not kept)
        oversized,  ///< a message above the limit was skipped, never buffered
        ping,       ///< `payload` is to be echoed in a pong
        pong,
        close,          ///< the peer's close frame; `payload` holds its status code and reason
        protocolError,  ///< `payload` says what was wrong; the connection must end
        invalidText,    ///< a text message that is not UTF-8; the connection must end with 1007
    };
    Kind kind = needMore;
    /// Views the buffer handed to `next` (or the assembler's own copy of a fragmented message);
    /// valid until the buffer's bytes are consumed or `next` is called again.
    std::string_view payload;
    std::size_t size = 0;
    /// Bytes to drop from the front of the buffer once the event has been handled.
    std::size_t consumed = 0;
};

/// Close status 1007: a message's data did not match its type (a text message not UTF-8).
inline constexpr std::uint16_t kCloseInvalidPayload = 1007;

/// Checks that bytes are well-formed UTF-8 (RFC 3629: no overlong forms, no surrogates, nothing
/// above U+10FFFF), fed in pieces: a character may be split between two pieces, as between the
/// fragments of one message.
class Utf8Validator {
  public:
    /// False once the bytes so far cannot be the start of valid UTF-8; stays false.
    bool feed(std::string_view bytes);
    /// True when everything fed is valid and no character is left unfinished.
    bool complete() const { return valid_ && pending_ == 0; }
    void reset() { *this = Utf8Validator(); }

  private:
    bool valid_ = true;
    unsigned pending_ = 0;  // continuation bytes still due for the current character
    // The range the next continuation byte must fall in (narrower right after some lead bytes).
    unsigned char lowest_ = 0x80;
    unsigned char highest_ = 0xBF;
};

/// Turns the byte stream from a server into messages. Unfragmented messages are handed out as
/// views of the caller's buffer, without a copy; fragments are joined; a message above the limit
/// is skipped piece by piece as its bytes arrive, so it never sits in memory. Text is checked to
/// be UTF-8 as it arrives (fragment by fragment), so a bad message fails before it is complete.
class FrameAssembler {
  public:
    explicit FrameAssembler(std::size_t maxMessageSize) : maxMessageSize_(maxMessageSize) {}

    /// What the front of `bytes` holds. Call again after consuming `consumed` bytes until it
    /// answers `needMore`.
    FrameEvent next(std::string_view bytes);

    /// How many bytes the buffer must hold before the frame at its front is complete (0 when
    /// unknown); lets the reader size its next read for a large frame.
    std::size_t bytesWanted(std::size_t buffered) const {
        return frameSize_ > buffered ? frameSize_ - buffered : 0;
    }
    std::size_t maxMessageSize() const { return maxMessageSize_; }

  private:
    FrameEvent skip(std::string_view bytes);
    FrameEvent dataFrame(std::string_view bytes, bool fin, FrameOpcode opcode,
                         std::size_t headerSize, std::uint64_t length);
    FrameEvent startSkipping(bool fin, FrameOpcode opcode, std::size_t headerSize,
                             std::uint64_t length);

    const std::size_t maxMessageSize_;
    std::size_t frameSize_ = 0;  // header + payload of the incomplete frame at the front
    // A fragmented message under way.
    bool inMessage_ = false;
    FrameOpcode messageOpcode_ = FrameOpcode::text;
    std::uint64_t messageSize_ = 0;
    std::string message_;
    Utf8Validator messageText_;
    // A message above the limit being skipped.
    bool discarding_ = false;
    std::uint64_t skipRemaining_ = 0;
    bool skipIsFinal_ = false;
};

/// A complete client frame: FIN set, payload masked with `maskKey`.
std::string encodeClientFrame(FrameOpcode opcode, std::string_view payload, std::uint32_t maskKey);

}  // namespace tavlo::sio
