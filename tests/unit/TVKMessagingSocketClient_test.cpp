#include "TavloMessagingSDK/Internal/TVKMessagingSocketClient.hpp"

#include <gtest/gtest.h>

#include <boost/json.hpp>
#include <future>
#include <mutex>

#include "TavloMessagingSDK/Internal/TVKMessagingError.hpp"
#include "TavloMessagingSDK/Internal/TVKMessagingSocketConfig.hpp"
#include "TavloMessagingSDK/TVKMessagingUtility.hpp"

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
    TVKMessagingSocketClient client(*config("chatId=c1&x=%20"), {manager, nullptr, "/ca.pem"});
    EXPECT_EQ(client.queue()->label(), "com.tavlo.messaging.MessageSDKSerialQueue");
    EXPECT_EQ(client.queue()->target(), manager);
    const auto& options = client.socket()->options();
    EXPECT_TRUE(options.forceWebsockets);
    EXPECT_FALSE(options.reconnects);
    EXPECT_EQ(options.handleQueue, client.queue());
    EXPECT_EQ(options.path, "/rt");
    EXPECT_EQ(options.connectParams, config("chatId=c1&x=%20")->query());
    EXPECT_EQ(options.caFile, "/ca.pem");
    EXPECT_EQ(client.socket()->url(), "http://127.0.0.1:1");
    EXPECT_EQ(client.socket()->status(), sio::SocketIOStatus::notConnected);
    EXPECT_EQ(TVKMessagingSocketClient::kConnectTimeout, 30s);
}

// --- Payload checks ----------------------------------------------------------------------------

// A client with every registration, each writing what it received into a log, so that one table
// can state what each payload hands on. Events are delivered locally, as internal messages.
class SocketPayloadTest : public ::testing::Test {
  protected:
    void SetUp() override {
        client_ = std::make_unique<TVKMessagingSocketClient>(*config());
        auto log = log_;
        auto named = [log](std::string name) { return [log, name] { log->add(name); }; };
        auto pair = [log](std::string name) {
            return [log, name](const json::value& a, const json::value& b) {
                log->add(name + ":" + json::serialize(a) + "," + json::serialize(b));
            };
        };
        auto array = [log](std::string name) {
            return [log, name](const json::array& a) { log->add(name + ":" + json::serialize(a)); };
        };
        auto object = [log](std::string name) {
            return
                [log, name](const json::object& o) { log->add(name + ":" + json::serialize(o)); };
        };
        client_->onConnect(named("connect"));
        client_->onDisconnect(named("disconnect"));
        client_->onSubscribed(named("subscribed"));
        client_->onMessageFlush(named("message_flush"));
        client_->onError([log](const TVKError& error) {
            log->add("error:" + error.domain + ":" + error.reason.value_or("<none>"));
        });
        client_->onChatWriteMode(pair("chat_write_mode"));
        client_->onUserCount(pair("user_count"));
        client_->onMessageInputInterval(pair("message_input_interval"));
        client_->onUserAdd(array("user_add"));
        client_->onUserUpdate(array("user_update"));
        client_->onMetadataUpdated(array("meta"));
        client_->onAggregateData(array("agg_data"));
        client_->onMessage(object("message"));
        client_->onRawData(object("raw_data"));
        client_->onMessageRemove(
            [log](const std::string& id) { log->add("message_remove:" + id); });
        client_->onUserRemove([log](const std::vector<std::int64_t>& labels) {
            std::string text = "user_remove:";
            for (auto label : labels) text += std::to_string(label) + ";";
            log->add(text);
        });
        client_->onPinnedMessageUpdated([log](const json::object* pinned) {
            log->add("pinned_message:" + (pinned ? json::serialize(*pinned) : "null"));
        });
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

    struct Case {
        std::string event;
        std::string args;      // a JSON array: the event's arguments
        std::string received;  // what the callback got; "" when the event is dropped
    };

    void check(const std::vector<Case>& cases) {
        for (const auto& c : cases) {
            auto recorded = deliver(c.event, c.args);
            std::vector<std::string> expected;
            if (!c.received.empty()) expected.push_back(c.received);
            EXPECT_EQ(recorded, expected) << c.event << " " << c.args;
        }
    }

    std::shared_ptr<Log> log_ = std::make_shared<Log>();
    std::unique_ptr<TVKMessagingSocketClient> client_;
};

TEST_F(SocketPayloadTest, EventsThatCarryNothingIgnoreTheirPayload) {
    std::vector<Case> cases;
    for (std::string event : {"connect", "disconnect", "subscribed", "message_flush"}) {
        for (std::string args : {"[]", "[null]", "[{\"chatId\":\"c\"}]", "[\"x\",1]"}) {
            cases.push_back({event, args, event});
        }
    }
    check(cases);
}

TEST_F(SocketPayloadTest, StringPayloadsMustBeStrings) {
    const std::string raw = TVKMessagingSocketErrorDomain;
    check({
        {"error", R"(["Connect attempt denied"])", "error:" + raw + ":Connect attempt denied"},
        {"error", R"(["transport close",{"more":1}])", "error:" + raw + ":transport close"},
        {"error", R"([{"message":"not a string"}])", ""},
        {"error", "[null]", ""},
        {"error", "[]", ""},
        {"message_remove", R"(["m-42"])", "message_remove:m-42"},
        {"message_remove", "[42]", ""},
        {"message_remove", "[null]", ""},
        {"message_remove", "[]", ""},
    });
}

TEST_F(SocketPayloadTest, ObjectAndArrayPayloadsArePassedOnAsReceived) {
    check({
        {"message", R"([{"id":"m1","text":"héllo"}])", R"(message:{"id":"m1","text":"héllo"})"},
        {"message", "[{}]", "message:{}"},
        {"message", R"([[{"id":"m1"}]])", ""},
        {"message", R"(["m1"])", ""},
        {"message", "[null]", ""},
        {"raw_data", R"([{"value":{"a":[1]}}])", R"(raw_data:{"value":{"a":[1]}})"},
        {"raw_data", "[[]]", ""},
        {"user_add", R"([[{"label":1}]])", R"(user_add:[{"label":1}])"},
        {"user_add", "[[]]", "user_add:[]"},
        {"user_add", R"([{"label":1}])", ""},
        {"user_update", R"([[{"label":2,"role":"NORMAL"}]])",
         R"(user_update:[{"label":2,"role":"NORMAL"}])"},
        {"user_update", "[null]", ""},
        {"meta", R"([[{"key":"topic","value":"x"}]])", R"(meta:[{"key":"topic","value":"x"}])"},
        {"meta", R"([{"key":"topic"}])", ""},
        {"meta", "[]", ""},
    });
}

TEST_F(SocketPayloadTest, TwoKeyObjectsNeedBothKeysAndNullCountsAsPresent) {
    check({
        {"chat_write_mode", R"([{"chatId":"c","chatWriteMode":"LOGIN"}])",
         R"(chat_write_mode:"c","LOGIN")"},
        {"chat_write_mode", R"([{"chatId":null,"chatWriteMode":null}])",
         "chat_write_mode:null,null"},
        {"chat_write_mode", R"([{"chatId":"c"}])", ""},
        {"chat_write_mode", R"([{"chatWriteMode":"ALL"}])", ""},
        {"chat_write_mode", R"([["c","ALL"]])", ""},
        {"user_count", R"([{"memberCount":4,"guestCount":1}])", "user_count:4,1"},
        {"user_count", R"([{"memberCount":"4","guestCount":null,"chatId":"c"}])",
         R"(user_count:"4",null)"},
        {"user_count", R"([{"memberCount":4}])", ""},
        {"user_count", "[null]", ""},
        {"message_input_interval", R"([{"chatId":"c","inputInterval":3}])",
         R"(message_input_interval:"c",3)"},
        {"message_input_interval", R"([{"chatId":"c","inputInterval":null}])",
         R"(message_input_interval:"c",null)"},
        {"message_input_interval", R"([{"inputInterval":3}])", ""},
    });
}

TEST_F(SocketPayloadTest, AggregatedDataNeedsAnAggregatedArray) {
    check({
        {"agg_data", R"([{"chatId":"c","aggregated":[{"key":"like","n":2}]}])",
         R"(agg_data:[{"key":"like","n":2}])"},
        {"agg_data", R"([{"aggregated":[]}])", "agg_data:[]"},
        {"agg_data", R"([{"aggregated":null}])", ""},
        {"agg_data", R"([{"aggregated":{"key":"like"}}])", ""},
        {"agg_data", R"([{"chatId":"c"}])", ""},
        {"agg_data", R"([[{"key":"like"}]])", ""},
    });
}

TEST_F(SocketPayloadTest, UserRemoveIsAllOrNothing) {
    check({
        {"user_remove", R"([[{"label":1},{"label":"22"},{"label":3.0,"name":"x"}]])",
         "user_remove:1;22;3;"},
        {"user_remove", R"([[{"label":" 42px"},{"label":-7}]])", "user_remove:42;-7;"},
        {"user_remove", R"([[{"label":1},{"label":"abc"}]])", "user_remove:1;0;"},
        {"user_remove", R"([[{"label":9223372036854775807}]])", "user_remove:9223372036854775807;"},
        {"user_remove", "[[]]", "user_remove:"},
        // Deliberately all or nothing: one object without a label drops the labels before it too.
        {"user_remove", R"([[{"label":1},{"label":2},{"name":"no label"}]])", ""},
        {"user_remove", R"([[{"name":"no label"},{"label":2}]])", ""},
        {"user_remove", R"([[{"label":1},"not an object"]])", ""},
        {"user_remove", R"([[{"label":1},{"label":null}]])", ""},
        {"user_remove", R"([{"label":1}])", ""},
        {"user_remove", "[]", ""},
    });
}

TEST_F(SocketPayloadTest, PinnedMessageEmptyObjectMeansNothingPinned) {
    check({
        {"pinned_message", R"([{"chatId":"c","pinnedMsg":{"id":"m1"}}])",
         R"(pinned_message:{"id":"m1"})"},
        {"pinned_message", R"([{"chatId":"c","pinnedMsg":{}}])", "pinned_message:null"},
        {"pinned_message", R"([{"chatId":"c"}])", ""},
        {"pinned_message", R"([{"pinnedMsg":null}])", ""},
        {"pinned_message", R"([{"pinnedMsg":"m1"}])", ""},
        {"pinned_message", R"([{"pinnedMsg":[]}])", ""},
        {"pinned_message", "[null]", ""},
    });
}

TEST_F(SocketPayloadTest, TriggeredErrorsReachOnErrorLikeServerErrors) {
    client_->triggerErrorWithReason("Connect attempt denied");
    EXPECT_EQ(drainedLog(),
              std::vector<std::string>{std::string("error:") + TVKMessagingSocketErrorDomain +
                                       ":Connect attempt denied"});
}

TEST_F(SocketPayloadTest, HandlersAccumulateUntilAllAreIgnored) {
    client_->onSubscribed([log = log_] { log->add("subscribed again"); });
    EXPECT_EQ(deliver("subscribed", "[]"),
              (std::vector<std::string>{"subscribed", "subscribed again"}));
    client_->ignoreAllEvents();
    EXPECT_TRUE(deliver("subscribed", "[]").empty());
    EXPECT_TRUE(deliver("error", R"(["x"])").empty());
}

TEST_F(SocketPayloadTest, ServerEventsAreIgnoredWhileNotConnected) {
    client_->socket()->handleEvent("message", {json::object{{"id", "m"}}}, false);
    EXPECT_TRUE(drainedLog().empty());
}

}  // namespace
}  // namespace tavlo
