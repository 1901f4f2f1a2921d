#include <gtest/gtest.h>

#include <boost/json.hpp>

#include "SocketIO/Packet.hpp"

namespace tavlo::sio {
namespace {

namespace json = boost::json;

// --- Engine.IO ---------------------------------------------------------------------------------

TEST(EnginePacket, DecodesEveryTypeAndKeepsTheData) {
    struct Case {
        std::string frame;
        EnginePacketType type;
        std::string data;
    };
    const Case cases[] = {
        {"0{\"sid\":\"a\"}", EnginePacketType::open, "{\"sid\":\"a\"}"},
        {"1", EnginePacketType::close, ""},
        {"2", EnginePacketType::ping, ""},
        {"2probe", EnginePacketType::ping, "probe"},
        {"3", EnginePacketType::pong, ""},
        {"42[\"a\"]", EnginePacketType::message, "2[\"a\"]"},
        {"5", EnginePacketType::upgrade, ""},
        {"6", EnginePacketType::noop, ""},
    };
    for (const auto& c : cases) {
        auto packet = decodeEnginePacket(c.frame);
        ASSERT_TRUE(packet) << c.frame;
        EXPECT_EQ(packet.value->type, c.type) << c.frame;
        EXPECT_EQ(packet.value->data, c.data) << c.frame;
        EXPECT_EQ(encodeEnginePacket(c.type, c.data), c.frame);
    }
}

TEST(EnginePacket, RefusesEmptyAndUnknownTypes) {
    for (std::string frame : {std::string(), std::string("7"), std::string("9abc"),
                              std::string("x"), std::string("b4AAA"), std::string("\0", 1)}) {
        auto packet = decodeEnginePacket(frame);
        EXPECT_FALSE(packet) << frame;
        EXPECT_FALSE(packet.error.empty());
    }
}

TEST(EngineHandshake, ReadsTheServersParameters) {
    auto handshake = decodeEngineHandshake(
        R"({"sid":"lv_VI97HAXpY6yYWAAAC","upgrades":[],"pingInterval":25000,"pingTimeout":20000,"maxPayload":1000000})");
    ASSERT_TRUE(handshake) << handshake.error;
    EXPECT_EQ(handshake.value->sid, "lv_VI97HAXpY6yYWAAAC");
    EXPECT_EQ(handshake.value->pingInterval, std::chrono::milliseconds(25000));
    EXPECT_EQ(handshake.value->pingTimeout, std::chrono::milliseconds(20000));
    EXPECT_EQ(handshake.value->maxPayload, 1000000u);
}

TEST(EngineHandshake, DefaultsMaxPayloadWhenAbsentAndAcceptsIntegralDoubles) {
    auto handshake = decodeEngineHandshake(R"({"sid":"s","pingInterval":250.0,"pingTimeout":1e2})");
    ASSERT_TRUE(handshake) << handshake.error;
    EXPECT_EQ(handshake.value->pingInterval, std::chrono::milliseconds(250));
    EXPECT_EQ(handshake.value->pingTimeout, std::chrono::milliseconds(100));
    EXPECT_EQ(handshake.value->maxPayload, 1000000u);
}

TEST(EngineHandshake, RefusesWhatCannotDriveASession) {
    const char* cases[] = {
        "",
        "[]",
        "not json",
        R"({"pingInterval":1,"pingTimeout":1})",                  // no sid
        R"({"sid":"","pingInterval":1,"pingTimeout":1})",         // empty sid
        R"({"sid":5,"pingInterval":1,"pingTimeout":1})",          // sid of the wrong type
        R"({"sid":"s","pingTimeout":1})",                         // no interval
        R"({"sid":"s","pingInterval":0,"pingTimeout":1})",        // zero
        R"({"sid":"s","pingInterval":-5,"pingTimeout":1})",       // negative
        R"({"sid":"s","pingInterval":1.5,"pingTimeout":1})",      // fractional
        R"({"sid":"s","pingInterval":"25000","pingTimeout":1})",  // string
        R"({"sid":"s","pingInterval":1e300,"pingTimeout":1})",    // absurdly long
        R"({"sid":"s","pingInterval":18446744073709551615,"pingTimeout":1})",
        R"({"sid":"s","pingInterval":1,"pingTimeout":1,"maxPayload":0})",
        R"({"sid":"s","pingInterval":1,"pingTimeout":1,"maxPayload":"big"})",
    };
    for (const char* text : cases) {
        auto handshake = decodeEngineHandshake(text);
        EXPECT_FALSE(handshake) << text;
        EXPECT_FALSE(handshake.error.empty()) << text;
    }
}

// --- Socket.IO ---------------------------------------------------------------------------------

TEST(SocketPacket, DecodesThePacketsAServerSends) {
    struct Case {
        std::string text;
        SocketPacketType type;
        std::string nsp;
        std::optional<std::uint64_t> ackId;
        std::size_t attachments;
        std::optional<std::string> data;  // serialised
    };
    const Case cases[] = {
        {"0", SocketPacketType::connect, "/", {}, 0, {}},
        {"0{\"sid\":\"abc\"}", SocketPacketType::connect, "/", {}, 0, "{\"sid\":\"abc\"}"},
        {"0/admin,{\"sid\":\"x\"}", SocketPacketType::connect, "/admin", {}, 0, "{\"sid\":\"x\"}"},
        {"1", SocketPacketType::disconnect, "/", {}, 0, {}},
        {"1/admin,", SocketPacketType::disconnect, "/admin", {}, 0, {}},
        {"2[\"hello\",1]", SocketPacketType::event, "/", {}, 0, "[\"hello\",1]"},
        {"212[\"hello\"]", SocketPacketType::event, "/", 12, 0, "[\"hello\"]"},
        {"2/chat,7[\"m\",{\"a\":[null]}]", SocketPacketType::event, "/chat", 7, 0,
         "[\"m\",{\"a\":[null]}]"},
        {"3/chat,9[]", SocketPacketType::ack, "/chat", 9, 0, "[]"},
        {"4{\"message\":\"nope\"}",
         SocketPacketType::connectError,
         "/",
         {},
         0,
         "{\"message\":\"nope\"}"},
        {"4\"nope\"", SocketPacketType::connectError, "/", {}, 0, "\"nope\""},
        {"51-[\"bin\",{\"_placeholder\":true,\"num\":0}]",
         SocketPacketType::binaryEvent,
         "/",
         {},
         1,
         "[\"bin\",{\"_placeholder\":true,\"num\":0}]"},
        {"62-/nsp,3[{\"_placeholder\":true,\"num\":0}]", SocketPacketType::binaryAck, "/nsp", 3, 2,
         "[{\"_placeholder\":true,\"num\":0}]"},
    };
    for (const auto& c : cases) {
        auto packet = decodeSocketPacket(c.text);
        ASSERT_TRUE(packet) << c.text << ": " << packet.error;
        EXPECT_EQ(packet.value->type, c.type) << c.text;
        EXPECT_EQ(packet.value->nsp, c.nsp) << c.text;
        EXPECT_EQ(packet.value->ackId, c.ackId) << c.text;
        EXPECT_EQ(packet.value->attachments, c.attachments) << c.text;
        ASSERT_EQ(packet.value->data.has_value(), c.data.has_value()) << c.text;
        if (c.data) {
            EXPECT_EQ(*packet.value->data, json::parse(*c.data)) << c.text;
        }
    }
}

TEST(SocketPacket, RefusesMalformedPackets) {
    const char* cases[] = {
        "",                          // nothing
        "7[\"a\"]",                  // unknown type
        "x",                         // not a type at all
        "2[\"a\"",                   // truncated JSON
        "2{\"a\":1}",                // event payload not an array
        "2[]",                       // event without a name
        "2[1]",                      // numeric event name: nobody can listen for it
        "2[null,1]",                 // null name
        "2[\"connect\"]",            // reserved names cannot come from a server
        "2[\"disconnect\",1]",       //
        "2[\"connect_error\"]",      //
        "1{}",                       // disconnect carries nothing
        "0[]",                       // connect carries an object
        "0\"sid\"",                  //
        "4[1]",                      // connect_error is a string or an object
        "3{}",                       // ack payload is an array
        "5[\"a\"]",                  // binary without attachment count
        "5x-[\"a\"]",                //
        "51[\"a\"]",                 // count without "-"
        "51234567-[\"a\"]",          // absurd count
        "21234567890123456[\"a\"]",  // acknowledgement id beyond what fits
        "2[\"a\"] trailing",         // garbage after the JSON
    };
    for (const char* text : cases) {
        auto packet = decodeSocketPacket(text);
        EXPECT_FALSE(packet) << text;
        EXPECT_FALSE(packet.error.empty()) << text;
    }
}

TEST(SocketPacket, RefusesHostileNestingWithoutRecursingDeeply) {
    std::string deep = "2[\"a\"," + std::string(100000, '[') + std::string(100000, ']') + "]";
    EXPECT_FALSE(decodeSocketPacket(deep));
    std::string fine = "2[\"a\"," + std::string(30, '[') + std::string(30, ']') + "]";
    EXPECT_TRUE(decodeSocketPacket(fine));
}

TEST(SocketPacket, EncodesWhatTheServersParserReads) {
    struct Case {
        SocketPacket packet;
        std::string text;
    };
    SocketPacket connect;
    connect.type = SocketPacketType::connect;
    SocketPacket leave;
    leave.type = SocketPacketType::disconnect;
    leave.nsp = "/admin";
    SocketPacket event;
    event.data = json::parse(R"(["hi",{"a":1}])");
    event.ackId = 4;
    SocketPacket binary;
    binary.type = SocketPacketType::binaryEvent;
    binary.attachments = 2;
    binary.data = json::parse(R"(["b"])");
    const Case cases[] = {
        {connect, "0"},
        {leave, "1/admin,"},
        {event, "24[\"hi\",{\"a\":1}]"},
        {binary, "52-[\"b\"]"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(encodeSocketPacket(c.packet), c.text);
        auto decoded = decodeSocketPacket(c.text);
        ASSERT_TRUE(decoded) << c.text;
        EXPECT_EQ(encodeSocketPacket(*decoded.value), c.text);
    }
}

// --- Events ------------------------------------------------------------------------------------

TEST(SocketEvent, SplitsNameAndArguments) {
    auto packet =
        decodeSocketPacket(R"(2["message",{"text":"héllo 👋","n":[1,2.5,null]},"x",true])");
    ASSERT_TRUE(packet);
    auto event = eventFromPacket(std::move(*packet.value));
    ASSERT_TRUE(event) << event.error;
    EXPECT_EQ(event.value->name, "message");
    ASSERT_EQ(event.value->args.size(), 3u);
    EXPECT_EQ(event.value->args[0].at("text").as_string(), "héllo 👋");
    EXPECT_EQ(event.value->args[1], json::value("x"));
    EXPECT_EQ(event.value->args[2], json::value(true));
}

TEST(SocketEvent, AnEventWithoutArgumentsHasNone) {
    auto packet = decodeSocketPacket(R"(2["message_flush"])");
    ASSERT_TRUE(packet);
    auto event = eventFromPacket(std::move(*packet.value));
    ASSERT_TRUE(event);
    EXPECT_TRUE(event.value->args.empty());
}

TEST(SocketEvent, OnlyEventPacketsCarryEvents) {
    for (const char* text : {"0{}", "1", "3[\"a\"]", "4\"no\"", "51-[\"a\"]"}) {
        auto packet = decodeSocketPacket(text);
        ASSERT_TRUE(packet) << text;
        EXPECT_FALSE(eventFromPacket(std::move(*packet.value))) << text;
    }
}

TEST(SocketEvent, EncodingEscapesAndRoundTrips) {
    std::vector<json::value> args = {json::parse(R"({"q":"\"quoted\"\n","u":"ünï €"})"), 42,
                                     nullptr, json::array{}};
    std::string text = encodeEventPacket("sub\"scribe", args);
    EXPECT_EQ(text.substr(0, 2), "2[");
    auto packet = decodeSocketPacket(text);
    ASSERT_TRUE(packet) << text;
    auto event = eventFromPacket(std::move(*packet.value));
    ASSERT_TRUE(event);
    EXPECT_EQ(event.value->name, "sub\"scribe");
    EXPECT_EQ(event.value->args, args);
    EXPECT_EQ(encodeEventPacket("subscribe", {"token", "chat"}),
              R"(2["subscribe","token","chat"])");
}

TEST(SocketEvent, ReservedNamesAndConnectErrorReasons) {
    for (const char* name : {"connect", "connect_error", "disconnect", "disconnecting",
                             "newListener", "removeListener"}) {
        EXPECT_TRUE(isReservedEventName(name)) << name;
    }
    for (const char* name : {"error", "message", "subscribe", "Connect", ""}) {
        EXPECT_FALSE(isReservedEventName(name)) << name;
    }
    EXPECT_EQ(connectErrorReason(json::value("denied")), "denied");
    EXPECT_EQ(connectErrorReason(json::parse(R"({"message":"not authorized","data":{}})")),
              "not authorized");
    EXPECT_EQ(connectErrorReason(json::parse(R"({"message":5})")), "connect_error");
    EXPECT_EQ(connectErrorReason(std::nullopt), "connect_error");
}

}  // namespace
}  // namespace tavlo::sio
