#include "SocketIO/WebSocketFrame.hpp"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using tavlo::sio::FrameAssembler;
using tavlo::sio::FrameEvent;
using tavlo::sio::FrameOpcode;

// A frame as a server sends it: unmasked.
std::string serverFrame(FrameOpcode opcode, const std::string& payload, bool fin = true) {
    std::string frame;
    frame.push_back(static_cast<char>((fin ? 0x80 : 0) | static_cast<int>(opcode)));
    if (payload.size() < 126) {
        frame.push_back(static_cast<char>(payload.size()));
    } else if (payload.size() <= 0xFFFF) {
        frame.push_back(126);
        frame.push_back(static_cast<char>(payload.size() >> 8));
        frame.push_back(static_cast<char>(payload.size()));
    } else {
        frame.push_back(127);
        for (int shift = 56; shift >= 0; shift -= 8) {
            frame.push_back(static_cast<char>(static_cast<std::uint64_t>(payload.size()) >> shift));
        }
    }
    return frame + payload;
}

// Feeds `stream` to an assembler in pieces of `chunk` bytes, as reads would deliver them, and
// writes down what comes out: "text:..." per message, "big", "ping:...", "close", "error".
std::vector<std::string> readAll(const std::string& stream, std::size_t chunk,
                                 std::size_t limit = 1 << 20) {
    FrameAssembler assembler(limit);
    std::string buffer;
    std::vector<std::string> seen;
    for (std::size_t at = 0; at < stream.size(); at += chunk) {
        buffer += stream.substr(at, chunk);
        for (;;) {
            FrameEvent event = assembler.next(buffer);
            if (event.kind == FrameEvent::needMore) break;
            EXPECT_LE(event.consumed, buffer.size());
            switch (event.kind) {
                case FrameEvent::text:
                    seen.push_back("text:" + std::string(event.payload));
                    break;
                case FrameEvent::binary:
                    seen.push_back("binary:" + std::to_string(event.size));
                    break;
                case FrameEvent::oversized:
                    seen.push_back("big");
                    break;
                case FrameEvent::ping:
                    seen.push_back("ping:" + std::string(event.payload));
                    break;
                case FrameEvent::close:
                    seen.push_back("close");
                    break;
                case FrameEvent::protocolError:
                    seen.push_back("error");
                    return seen;
                case FrameEvent::invalidText:
                    seen.push_back("invalid");
                    return seen;
                default:
                    break;
            }
            buffer.erase(0, event.consumed);
        }
        // A message over the limit never sits in the buffer as a whole.
        EXPECT_LE(buffer.size(), limit + chunk + 14);
    }
    return seen;
}

TEST(WebSocketFrame, EveryWayOfSplittingTheStreamGivesTheSameMessages) {
    const std::string stream =
        serverFrame(FrameOpcode::text, "42[\"a\"]") +
        serverFrame(FrameOpcode::text, std::string(300, 'x')) +  // 16-bit length
        serverFrame(FrameOpcode::text, "frag", false) +          // a fragmented message
        serverFrame(FrameOpcode::ping, "p") +                    // control frame in between
        serverFrame(FrameOpcode::continuation, "men", false) +
        serverFrame(FrameOpcode::continuation, "ted") +
        serverFrame(FrameOpcode::binary, "\x01\x02") +
        serverFrame(FrameOpcode::text, std::string(70000, 'y')) +  // 64-bit length
        serverFrame(FrameOpcode::close, "\x03\xE8");
    const std::vector<std::string> expected = {
        "text:42[\"a\"]", "text:" + std::string(300, 'x'),   "ping:p", "text:fragmented",
        "binary:2",       "text:" + std::string(70000, 'y'), "close"};
    for (std::size_t chunk :
         {std::size_t{1}, std::size_t{2}, std::size_t{7}, std::size_t{4096}, stream.size()}) {
        EXPECT_EQ(readAll(stream, chunk), expected) << "chunk " << chunk;
    }
}

TEST(WebSocketFrame, MessagesOverTheLimitAreSkippedWithoutBufferingAndReadingGoesOn) {
    const std::string stream = serverFrame(FrameOpcode::text, std::string(5000, 'a')) +
                               serverFrame(FrameOpcode::text, std::string(600, 'b'), false) +
                               serverFrame(FrameOpcode::continuation, std::string(600, 'c')) +
                               serverFrame(FrameOpcode::text, "after");
    for (std::size_t chunk : {std::size_t{3}, std::size_t{512}, stream.size()}) {
        EXPECT_EQ(readAll(stream, chunk, 1000),
                  (std::vector<std::string>{"big", "big", "text:after"}))
            << "chunk " << chunk;
    }
}

TEST(WebSocketFrame, ViolationsOfTheProtocolAreErrors) {
    const std::string masked =
        "\x81\x81"
        "abcd"
        "x";
    const std::string reserved = "\xC1\x01x";
    const std::string orphanContinuation = serverFrame(FrameOpcode::continuation, "x");
    const std::string nestedStart =
        serverFrame(FrameOpcode::text, "a", false) + serverFrame(FrameOpcode::text, "b");
    const std::string fragmentedPing = serverFrame(FrameOpcode::ping, "p", false);
    const std::string unknownOpcode("\x83\x00", 2);
    for (const auto& stream :
         {masked, reserved, orphanContinuation, nestedStart, fragmentedPing, unknownOpcode}) {
        EXPECT_EQ(readAll(stream, stream.size()), std::vector<std::string>{"error"});
    }
}

TEST(Utf8Validator, AcceptsExactlyWellFormedUTF8WhereverItIsCut) {
    struct Case {
        std::string bytes;
        bool valid;
    };
    const Case cases[] = {
        {"", true},
        {"plain ASCII, long enough to take the eight-byte path", true},
        {"Z\xC3\xBC"
         "rich \xE2\x82\xAC \xF0\x9F\x99\x82 \xEF\xBF\xBF \xF4\x8F\xBF\xBF",
         true},                       // ü € 🙂 U+FFFF U+10FFFF
        {"\xED\x9F\xBF", true},       // U+D7FF, just below the surrogates
        {"\x80", false},              // a continuation byte first
        {"\xC0\xAF", false},          // overlong "/"
        {"\xC1\xBF", false},          // overlong, two bytes
        {"\xE0\x9F\xBF", false},      // overlong, three bytes
        {"\xF0\x8F\xBF\xBF", false},  // overlong, four bytes
        {"\xED\xA0\x80", false},      // a surrogate
        {"\xF4\x90\x80\x80", false},  // above U+10FFFF
        {"\xF5\x80\x80\x80", false},  // a lead byte that no character uses
        {"\xFF", false},
        {"\xC3", false},  // cut short at the end
        {"\xE2\x82", false},
        {"\xC3(", false},  // a lead byte followed by ASCII
        {"abcdefgh\xE2\x82\xAC"
         "abcdefgh\x80",
         false},
    };
    for (const auto& c : cases) {
        for (std::size_t cut = 0; cut <= c.bytes.size(); ++cut) {
            tavlo::sio::Utf8Validator validator;
            validator.feed(std::string_view(c.bytes).substr(0, cut));
            validator.feed(std::string_view(c.bytes).substr(cut));
            EXPECT_EQ(validator.complete(), c.valid)
                << testing::PrintToString(c.bytes) << " cut " << cut;
        }
    }
}

TEST(WebSocketFrame, TextThatIsNotUTF8FailsEvenAcrossFragments) {
    using Stream = std::pair<std::string, std::vector<std::string>>;
    const Stream streams[] = {
        {serverFrame(FrameOpcode::text, "ok \xE2\x82\xAC"), {"text:ok \xE2\x82\xAC"}},
        {serverFrame(FrameOpcode::text, "bad \xFF"), {"invalid"}},
        // A character split between fragments is fine; one left unfinished at the end is not.
        {serverFrame(FrameOpcode::text, "\xE2\x82", false) +
             serverFrame(FrameOpcode::continuation, "\xAC"),
         {"text:\xE2\x82\xAC"}},
        {serverFrame(FrameOpcode::text, "a", false) +
             serverFrame(FrameOpcode::continuation, "\xE2"),
         {"invalid"}},
        // Fails at the bad fragment, before the message is complete.
        {serverFrame(FrameOpcode::text, "\xC3", false) +
             serverFrame(FrameOpcode::continuation, "(", false),
         {"invalid"}},
        // Binary messages are not text: any bytes.
        {serverFrame(FrameOpcode::binary, "\xFF") + serverFrame(FrameOpcode::text, "after"),
         {"binary:1", "text:after"}},
    };
    for (const auto& [stream, expected] : streams) {
        for (std::size_t chunk : {std::size_t{1}, std::size_t{3}, stream.size()}) {
            EXPECT_EQ(readAll(stream, chunk), expected) << "chunk " << chunk;
        }
    }
}

TEST(WebSocketFrame, ClientFramesAreMaskedAndCarryTheirLength) {
    const std::string payload(300, 'z');
    const std::string frame = tavlo::sio::encodeClientFrame(FrameOpcode::text, payload, 0x01020304);
    ASSERT_EQ(frame.size(), 2 + 2 + 4 + payload.size());
    EXPECT_EQ(static_cast<unsigned char>(frame[0]), 0x81);
    EXPECT_EQ(static_cast<unsigned char>(frame[1]), 0x80 | 126);
    EXPECT_EQ((static_cast<unsigned char>(frame[2]) << 8) | static_cast<unsigned char>(frame[3]),
              300);
    const char mask[4] = {1, 2, 3, 4};
    for (std::size_t i = 0; i < payload.size(); ++i) {
        ASSERT_EQ(static_cast<char>(frame[8 + i] ^ mask[i % 4]), 'z');
    }
}

}  // namespace
