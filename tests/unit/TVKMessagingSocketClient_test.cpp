#include "TavloMessagingSDK/Internal/TVKMessagingSocketClient.hpp"

#include <gtest/gtest.h>

#include <boost/json.hpp>
#include <future>
#include <mutex>
#include <set>

#include "TavloMessagingSDK/Internal/TVKMessagingError.hpp"
#include "TavloMessagingSDK/Internal/TVKMessagingSocketConfig.hpp"
#include "TavloMessagingSDK/Internal/TVKRealtimeEvents.hpp"
#include "TavloMessagingSDK/TVKAggregatedData.hpp"
#include "TavloMessagingSDK/TVKChatMessage.hpp"
#include "TavloMessagingSDK/TVKChatUser.hpp"
#include "TavloMessagingSDK/TVKMSGUtility.hpp"

namespace tavlo {
namespace {

using namespace std::chrono_literals;
namespace json = boost::json;

// --- Configuration -----------------------------------------------------------------------------

TEST(TVKMessagingSocketConfig, QueryItemsDecodeAndTheLaterValueWins) {
    using Items = std::map<std::string, std::string>;
    const std::string agent = TVKMessagingUtility::userAgent();
    struct Case {
        std::string query;
        Items expected;  // besides "userAgent"
    };
    const Case cases[] = {
        {"chatId=abc&userToken=t1", {{"chatId", "abc"}, {"userToken", "t1"}}},
        {"a=1&a=2", {{"a", "2"}}},
        {"name=Zo%C3%AB%20%26%20co&k%3Dy=v", {{"name", "Zoë & co"}, {"k=y", "v"}}},
        {"plus=a+b", {{"plus", "a+b"}}},    // "+" is not a space in a URL query
        {"bad=%zz%4", {{"bad", "%zz%4"}}},  // malformed escapes stay as they are
        {"flag&x=", {{"flag", ""}, {"x", ""}}},
        {"&&a=1&", {{"a", "1"}}},
        {"eq=a=b", {{"eq", "a=b"}}},
        {"", {}},
        {"userAgent=spoofed&platform=demo", {{"platform", "demo"}}},
    };
    for (const auto& c : cases) {
        Items expected = c.expected;
        expected["userAgent"] = agent;
        EXPECT_EQ(TVKMessagingSocketConfig::queryItems(c.query), expected) << c.query;
    }
}

TEST(TVKMessagingSocketConfig, MapsHostPathAndTheParsedQuery) {
    auto config = DQDataObject::withJSON<TVKMessagingSocketConfig>(json::parse(
        R"({"host":"https://rt.example.com","path":"/socket.io","query":"chatId=c1&userToken=u%2B1"})"));
    ASSERT_TRUE(config);
    EXPECT_EQ(config->host(), "https://rt.example.com");
    EXPECT_EQ(config->path(), "/socket.io");
    EXPECT_EQ(config->query().at("chatId"), "c1");
    EXPECT_EQ(config->query().at("userToken"), "u+1");
    EXPECT_EQ(config->query().at("userAgent"), TVKMessagingUtility::userAgent());

    auto bare = DQDataObject::withJSON<TVKMessagingSocketConfig>(json::parse(R"({"query":7})"));
    ASSERT_TRUE(bare);
    EXPECT_FALSE(bare->host());
    EXPECT_EQ(bare->query().size(), 1u);  // only the user agent
}

// --- Client set-up -----------------------------------------------------------------------------

std::shared_ptr<TVKMessagingSocketConfig> config(const std::string& query = "chatId=c1") {
    return DQDataObject::withJSON<TVKMessagingSocketConfig>(
        json::value{{"host", "http://127.0.0.1:1"}, {"path", "/rt"}, {"query", query}});
}

TEST(TVKMessagingSocketClient, FixesTheSocketOptionsAndTheLabelledQueue) {
    auto manager = dispatch::SerialQueue::create("manager");
    auto backlog = std::make_shared<sio::ReadBacklog>();
    TVKMessagingSocketClient client(
        *config("chatId=c1&x=%20"),
        {manager, nullptr, "/ca.pem", "http://proxy.test:3128", backlog});
    EXPECT_EQ(client.queue()->label(), "com.tavlo.messaging.MessageSDKSerialQueue");
    EXPECT_EQ(client.queue()->target(), manager);
    const auto& options = client.socket()->options();
    EXPECT_EQ(options.handleQueue, client.queue());
    EXPECT_EQ(options.path, "/rt");
    EXPECT_EQ(options.connectParams, config("chatId=c1&x=%20")->query());
    EXPECT_EQ(options.caFile, "/ca.pem");
    EXPECT_EQ(options.proxy, "http://proxy.test:3128");
    EXPECT_EQ(options.backlog, backlog);  // the chatroom's, shared by its sockets
    EXPECT_EQ(client.socket()->url(), "http://127.0.0.1:1");
    EXPECT_EQ(client.socket()->status(), sio::SocketIOStatus::notConnected);
    EXPECT_EQ(TVKMessagingSocketClient::kConnectTimeout, 30s);
}

// --- The connection's own events --------------------------------------------------------------

// A client with the connection's registrations, each writing what it received into a log.
// Events are delivered locally, as internal messages.
class SocketEventsTest : public ::testing::Test {
  protected:
    void SetUp() override {
        client_ = std::make_unique<TVKMessagingSocketClient>(*config());
        auto log = log_;
        auto named = [log](std::string name) { return [log, name] { log->add(name); }; };
        client_->onConnect(named("connect"));
        client_->onDisconnect(named("disconnect"));
        client_->onError([log](const TVKError& error) {
            log->add("error:" + error.domain + ":" + error.reason.value_or("<none>"));
        });
        client_->listenOn("subscribed", [log](const json::value*) { log->add("subscribed"); });
    }

    struct Log {
        std::mutex mutex;
        std::vector<std::string> entries;
        void add(std::string entry) {
            std::lock_guard lock(mutex);
            entries.push_back(std::move(entry));
        }
    };

    // Delivers `event` with the arguments of the JSON array `args`; what the handlers recorded.
    std::vector<std::string> deliver(const std::string& event, const std::string& args) {
        clearLog();
        auto list = json::parse(args).as_array();
        client_->socket()->handleEvent(event, sio::SocketIOArgs(list.begin(), list.end()), true);
        return drainedLog();
    }

    void clearLog() {
        std::lock_guard lock(log_->mutex);
        log_->entries.clear();
    }

    // The log once everything queued so far has been handled.
    std::vector<std::string> drainedLog() {
        std::promise<void> drained;
        client_->queue()->async([&drained] { drained.set_value(); });
        drained.get_future().wait();
        std::lock_guard lock(log_->mutex);
        return log_->entries;
    }

    std::shared_ptr<Log> log_ = std::make_shared<Log>();
    std::unique_ptr<TVKMessagingSocketClient> client_;
};

TEST_F(SocketEventsTest, ConnectionEventsIgnoreTheirPayloadAndErrorsNeedAReason) {
    const std::string raw = TVKMessagingSocketErrorDomain;
    struct Case {
        std::string event, args, received;  // received: "" when the event is dropped
    };
    std::vector<Case> cases = {
        {"error", R"(["Connect attempt denied"])", "error:" + raw + ":Connect attempt denied"},
        {"error", R"(["transport close",{"more":1}])", "error:" + raw + ":transport close"},
        {"error", R"([{"message":"not a string"}])", ""},
        {"error", "[null]", ""},
        {"error", "[]", ""},
    };
    for (std::string event : {"connect", "disconnect"}) {
        for (std::string args : {"[]", "[null]", "[{\"chatId\":\"c\"}]", "[\"x\",1]"}) {
            cases.push_back({event, args, event});
        }
    }
    for (const auto& c : cases) {
        std::vector<std::string> expected;
        if (!c.received.empty()) expected.push_back(c.received);
        EXPECT_EQ(deliver(c.event, c.args), expected) << c.event << " " << c.args;
    }
}

TEST_F(SocketEventsTest, TriggeredErrorsReachOnErrorLikeServerErrors) {
    client_->triggerErrorWithReason("Connect attempt denied");
    EXPECT_EQ(drainedLog(),
              std::vector<std::string>{std::string("error:") + TVKMessagingSocketErrorDomain +
                                       ":Connect attempt denied"});
}

TEST_F(SocketEventsTest, HandlersAccumulateUntilAllAreIgnored) {
    client_->listenOn("subscribed",
                      [log = log_](const json::value*) { log->add("subscribed again"); });
    EXPECT_EQ(deliver("subscribed", "[]"),
              (std::vector<std::string>{"subscribed", "subscribed again"}));
    client_->ignoreAllEvents();
    EXPECT_TRUE(deliver("subscribed", "[]").empty());
    EXPECT_TRUE(deliver("error", R"(["x"])").empty());
}

TEST_F(SocketEventsTest, ServerEventsAreIgnoredWhileNotConnected) {
    client_->socket()->handleEvent("subscribed", {json::object{{"id", "m"}}}, false);
    EXPECT_TRUE(drainedLog().empty());
}

// --- Decoding the chatroom's events -----------------------------------------------------------

/// A decoded event as text, with what identifies its payload.
struct Describe {
    static std::string message(const std::shared_ptr<TVKChatMessage>& m) {
        if (!m) return "null";
        return m->messageId().value_or("-") + "/" + m->text().value_or("-");
    }
    static std::string users(const TVKChatUsers& users) {
        std::string text;
        for (const auto& user : users) text += std::to_string(user->label().value_or(-1)) + ";";
        return text;
    }
    static std::string value(const json::value& v) { return json::serialize(v); }

    std::string operator()(const chat_wire::Subscribed&) const { return "subscribed"; }
    std::string operator()(const chat_wire::WriteModeChanged& e) const {
        return "mode:" + value(e.chatId) + "," + e.mode.value_or("unset");
    }
    std::string operator()(const chat_wire::CountsChanged& e) const {
        auto text = [](const std::optional<std::int64_t>& n) {
            return n ? std::to_string(*n) : std::string("unset");
        };
        return "counts:" + text(e.members) + "," + text(e.guests);
    }
    std::string operator()(const chat_wire::InputIntervalChanged& e) const {
        return "interval:" + value(e.chatId) + "," +
               (e.interval ? std::to_string(*e.interval) : std::string("unset"));
    }
    std::string operator()(const chat_event::MessageAdded& e) const {
        return "message:" + message(e.message);
    }
    std::string operator()(const chat_event::RawDataAdded& e) const {
        return "raw:" + message(e.message);
    }
    std::string operator()(const chat_event::AggregatedItemsAdded& e) const {
        std::string text = "agg:";
        for (const auto& item : e.items) {
            text +=
                item->key().value_or("-") + "=" + std::to_string(item->count().value_or(0)) + ";";
        }
        return text;
    }
    std::string operator()(const chat_event::UsersJoined& e) const {
        return "joined:" + users(e.users);
    }
    std::string operator()(const chat_event::UsersUpdated& e) const {
        return "updated:" + users(e.users);
    }
    std::string operator()(const chat_event::UsersLeft& e) const {
        std::string text = "left:";
        for (auto label : e.labels) text += std::to_string(label) + ";";
        return text;
    }
    std::string operator()(const chat_event::MessageRemoved& e) const {
        return "removed:" + e.messageId;
    }
    std::string operator()(const chat_event::MessageFlushed&) const { return "flushed"; }
    std::string operator()(const chat_event::PinnedMessageUpdated& e) const {
        return "pinned:" + message(e.message);
    }
    std::string operator()(const chat_event::MetadataUpdated& e) const {
        std::string text = "meta:";
        for (const auto& [key, entry] : e.metadata) text += key + ";";
        return text;
    }
};

struct DecodeCase {
    std::string event;
    std::string args;     // a JSON array: the event's arguments
    std::string decoded;  // "" when the event is dropped
};

void checkDecoding(const std::vector<DecodeCase>& cases) {
    for (const auto& c : cases) {
        const auto args = json::parse(c.args).as_array();
        auto event = decodeRealtimeEvent(c.event, args.empty() ? nullptr : &args.front());
        EXPECT_EQ(event ? std::visit(Describe{}, *event) : "", c.decoded) << c.event << c.args;
    }
}

TEST(TVKRealtimeEvents, EveryEventTheChatroomListensToDecodes) {
    std::set<std::string> names;
    for (const auto& kind : kTVKRealtimeEvents) names.insert(std::string(kind.name));
    EXPECT_EQ(names.size(), kTVKRealtimeEvents.size());
    EXPECT_FALSE(decodeRealtimeEvent("connect", nullptr));
}

TEST(TVKRealtimeEvents, EventsThatCarryNothingIgnoreTheirPayload) {
    std::vector<DecodeCase> cases;
    for (std::string args : {"[]", "[null]", "[{\"chatId\":\"c\"}]", "[\"x\",1]"}) {
        cases.push_back({"subscribed", args, "subscribed"});
        cases.push_back({"message_flush", args, "flushed"});
    }
    checkDecoding(cases);
}

TEST(TVKRealtimeEvents, MessagesAndListsNeedTheirJSONKind) {
    checkDecoding({
        {"message", R"([{"id":"m1","text":"héllo"}])", "message:m1/héllo"},
        {"message", "[{}]", "message:-/-"},
        {"message", R"([[{"id":"m1"}]])", ""},
        {"message", R"(["m1"])", ""},
        {"message", "[null]", ""},
        // A raw message's text is its payload's compact JSON.
        {"raw_data", R"([{"id":"r1","value":{"a":[1]}}])", R"(raw:r1/{"a":[1]})"},
        {"raw_data", "[[]]", ""},
        {"message_remove", R"(["m-42"])", "removed:m-42"},
        {"message_remove", "[42]", ""},
        {"message_remove", "[null]", ""},
        {"message_remove", "[]", ""},
        {"user_add", R"([[{"label":1}]])", "joined:1;"},
        {"user_add", "[[]]", ""},  // nobody joined: nothing to tell
        {"user_add", R"([{"label":1}])", ""},
        {"user_add", R"([[{"label":1},"x"]])", ""},
        {"user_update", R"([[{"label":2,"role":"NORMAL"}]])", "updated:2;"},
        {"user_update", "[null]", ""},
        {"meta", R"([[{"key":"topic","value":"x"}]])", "meta:topic;"},
        {"meta", R"([{"key":"topic"}])", ""},
        {"meta", "[[]]", ""},
        {"meta", "[]", ""},
    });
}

TEST(TVKRealtimeEvents, TwoKeyObjectsNeedBothKeysAndNullCountsAsPresent) {
    checkDecoding({
        {"chat_write_mode", R"([{"chatId":"c","chatWriteMode":"LOGIN"}])", R"(mode:"c",LOGIN)"},
        {"chat_write_mode", R"([{"chatId":null,"chatWriteMode":null}])", "mode:null,unset"},
        {"chat_write_mode", R"([{"chatId":"c"}])", ""},
        {"chat_write_mode", R"([{"chatWriteMode":"ALL"}])", ""},
        {"chat_write_mode", R"([["c","ALL"]])", ""},
        {"user_count", R"([{"memberCount":4,"guestCount":1}])", "counts:4,1"},
        {"user_count", R"([{"memberCount":"4","guestCount":2.7,"chatId":"c"}])", "counts:unset,2"},
        {"user_count", R"([{"memberCount":4}])", ""},
        {"user_count", "[null]", ""},
        {"message_input_interval", R"([{"chatId":"c","inputInterval":3}])",
         R"(interval:"c",3.000000)"},
        {"message_input_interval", R"([{"chatId":7,"inputInterval":null}])", "interval:7,unset"},
        {"message_input_interval", R"([{"inputInterval":3}])", ""},
    });
}

TEST(TVKRealtimeEvents, AggregatedDataNeedsAnAggregatedArray) {
    checkDecoding({
        {"agg_data", R"([{"chatId":"c","aggregated":[{"key":"like","n":2}]}])", "agg:like=2;"},
        {"agg_data", R"([{"aggregated":[]}])", "agg:"},
        {"agg_data", R"([{"aggregated":[{"key":"like","n":2},7]}])", "agg:"},
        {"agg_data", R"([{"aggregated":null}])", ""},
        {"agg_data", R"([{"aggregated":{"key":"like"}}])", ""},
        {"agg_data", R"([{"chatId":"c"}])", ""},
        {"agg_data", R"([[{"key":"like"}]])", ""},
    });
}

TEST(TVKRealtimeEvents, UserRemoveIsAllOrNothing) {
    checkDecoding({
        {"user_remove", R"([[{"label":1},{"label":"22"},{"label":3.0,"name":"x"}]])",
         "left:1;22;3;"},
        {"user_remove", R"([[{"label":" 42px"},{"label":-7}]])", "left:42;-7;"},
        {"user_remove", R"([[{"label":1},{"label":"abc"}]])", "left:1;0;"},
        {"user_remove", R"([[{"label":9223372036854775807}]])", "left:9223372036854775807;"},
        {"user_remove", "[[]]", "left:"},
        // Deliberately all or nothing: one object without a label drops the labels before it too.
        {"user_remove", R"([[{"label":1},{"label":2},{"name":"no label"}]])", ""},
        {"user_remove", R"([[{"name":"no label"},{"label":2}]])", ""},
        {"user_remove", R"([[{"label":1},"not an object"]])", ""},
        {"user_remove", R"([[{"label":1},{"label":null}]])", ""},
        {"user_remove", R"([{"label":1}])", ""},
        {"user_remove", "[]", ""},
    });
}

TEST(TVKRealtimeEvents, PinnedMessageEmptyObjectMeansNothingPinned) {
    checkDecoding({
        {"pinned_message", R"([{"chatId":"c","pinnedMsg":{"id":"m1"}}])", "pinned:m1/-"},
        {"pinned_message", R"([{"chatId":"c","pinnedMsg":{}}])", "pinned:null"},
        {"pinned_message", R"([{"chatId":"c"}])", ""},
        {"pinned_message", R"([{"pinnedMsg":null}])", ""},
        {"pinned_message", R"([{"pinnedMsg":"m1"}])", ""},
        {"pinned_message", R"([{"pinnedMsg":[]}])", ""},
        {"pinned_message", "[null]", ""},
    });
}

}  // namespace
}  // namespace tavlo
