#include "TavloMessagingSDK/Internal/TVKMessagingSocketClient.hpp"
#include "TavloMessagingSDK/Internal/TVKRealtimeEvents.hpp"
#include "TavloMessagingSDK/TVKChatMessage.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <boost/json.hpp>
#include <condition_variable>
#include <future>
#include <mutex>

#include "Dispatch/Internal/ManualScheduler.hpp"
#include "TavloMessagingSDK/Internal/TVKMessagingError.hpp"
#include "TavloMessagingSDK/Internal/TVKMessagingSocketConfig.hpp"
#include "TavloMessagingSDK/TVKMSGUtility.hpp"
#include "tests/support/Emulator.hpp"

namespace tavlo {
namespace {

using namespace std::chrono_literals;
namespace json = boost::json;

// What the callbacks reported, in order, with a way to wait for one.
/// What the reports say of each decoded event.
struct Describe {
    std::string operator()(const chat_wire::Subscribed&) const { return "subscribed"; }
    std::string operator()(const chat_event::UsersLeft& event) const {
        std::string text = "user_remove";
        for (auto label : event.labels) text += " " + std::to_string(label);
        return text;
    }
    std::string operator()(const chat_event::PinnedMessageUpdated& event) const {
        return event.message ? "pinned " + event.message->messageId().value_or("?") : "unpinned";
    }
    std::string operator()(const chat_event::MessageAdded& event) const {
        return "message " + json::serialize(json::value(event.message->text().value_or("")));
    }
    template <class Other>
    std::string operator()(const Other&) const {
        return "other";
    }
};

class Reports {
  public:
    void add(std::string report) {
        std::lock_guard lock(mutex_);
        reports_.push_back(std::move(report));
        changed_.notify_all();
    }
    bool waitFor(const std::string& report, std::chrono::milliseconds timeout = 10s) {
        std::unique_lock lock(mutex_);
        return changed_.wait_for(lock, timeout, [&] {
            return std::find(reports_.begin(), reports_.end(), report) != reports_.end();
        });
    }
    std::size_t count(const std::string& report) {
        std::lock_guard lock(mutex_);
        return std::count(reports_.begin(), reports_.end(), report);
    }
    std::vector<std::string> all() {
        std::lock_guard lock(mutex_);
        return reports_;
    }

  private:
    std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<std::string> reports_;
};

class TVKMessagingSocketClientTest : public test::EmulatorTest {
  protected:
    void SetUp() override {
        EmulatorTest::SetUp();
        auto info = emulator().control("GET", "info");
        chatId_ = std::string(info.at("lobby").at("id").as_string());
        auto users = emulator().control(
            "POST", "chatrooms/lobby/users",
            json::parse(R"({"users":[{"name":"Tess","join":true}],"announce":false})"));
        userToken_ = std::string(users.at("users").at(0).at("userToken").as_string());
    }

    // The endpoint as the service hands it out when a user joins.
    std::shared_ptr<TVKMessagingSocketConfig> socketConfig() const {
        std::string query = "chatId=" + chatId_ + "&userToken=" + userToken_ +
                            "&platform=demo-account&userAgent=overridden";
        return DQDataObject::withJSON<TVKMessagingSocketConfig>(json::value{
            {"host", emulator().url()}, {"path", emulator().socketPath()}, {"query", query}});
    }

    std::unique_ptr<TVKMessagingSocketClient> makeClient(
        std::shared_ptr<dispatch::Scheduler> scheduler = nullptr) {
        return std::make_unique<TVKMessagingSocketClient>(
            *socketConfig(),
            TVKMessagingSocketClient::Environment{managerQueue_, scheduler, {}, {}, {}});
    }

    // The chatroom's order: connect, disconnect and error handlers, then connect; on "connect"
    // the data handlers and "subscribe".
    void connectAndSubscribe(TVKMessagingSocketClient& client) {
        auto* raw = &client;
        client.onConnect([this, raw] {
            reports_->add("connect");
            // Decoded as the chatroom decodes them.
            auto decoded = [raw, reports = reports_](std::string name, auto describe) {
                raw->listenOn(name, [name, reports, describe](const json::value* item) {
                    if (auto event = decodeRealtimeEvent(name, item)) {
                        reports->add(std::visit(describe, *event));
                    }
                });
            };
            decoded("subscribed", Describe{});
            decoded("user_remove", Describe{});
            decoded("pinned_message", Describe{});
            decoded("message", Describe{});
            raw->subscribeWithUserToken(userToken_, chatId_);
        });
        client.onDisconnect([reports = reports_] { reports->add("disconnect"); });
        client.onError([reports = reports_](const TVKError& error) {
            reports->add("error " + error.reason.value_or(""));
        });
        client.connectWithTimeoutHandler([reports = reports_] { reports->add("timeout"); });
        ASSERT_TRUE(reports_->waitFor("subscribed"));
    }

    void emit(const std::string& event, const std::string& payload) {
        emulator().control("POST", "chatrooms/lobby/emit",
                           json::value{{"event", event}, {"payload", json::parse(payload)}});
    }

    std::shared_ptr<dispatch::SerialQueue> managerQueue_ = dispatch::SerialQueue::create("manager");
    std::shared_ptr<Reports> reports_ = std::make_shared<Reports>();
    std::string chatId_;
    std::string userToken_;
};

TEST_F(TVKMessagingSocketClientTest, HandshakeCarriesTheServiceQueryAndTheSDKUserAgent) {
    auto client = makeClient();
    connectAndSubscribe(*client);
    auto log = emulator().control("GET", "requests?kind=socket").at("requests").as_array();
    const json::object* connect = nullptr;
    const json::object* subscribe = nullptr;
    for (const auto& entry : log) {
        if (entry.at("type") == "connect") connect = &entry.as_object();
        if (entry.at("type") == "event" && entry.at("event") == "subscribe") {
            subscribe = &entry.as_object();
        }
    }
    ASSERT_TRUE(connect && subscribe);
    const auto& query = connect->at("query");
    EXPECT_EQ(query.at("chatId"), json::value(chatId_));
    EXPECT_EQ(query.at("userToken"), json::value(userToken_));
    EXPECT_EQ(query.at("platform"), "demo-account");
    EXPECT_EQ(query.at("userAgent"), json::value(TVKMessagingUtility::userAgent()));
    EXPECT_EQ(query.at("transport"), "websocket");
    EXPECT_EQ(subscribe->at("args"), (json::array{json::value(userToken_), json::value(chatId_)}));
}

TEST_F(TVKMessagingSocketClientTest, ServerEventsPassThePayloadChecks) {
    auto client = makeClient();
    connectAndSubscribe(*client);
    emit("user_remove", R"([{"label":1},{"name":"no label"}])");  // dropped: all or nothing
    emit("user_remove", R"([{"label":5},{"label":"6"}])");
    emit("pinned_message", R"({"chatId":"c","pinnedMsg":{}})");
    emit("pinned_message", R"({"chatId":"c"})");  // dropped
    emit("message", R"({"id":"m1","text":"héllo 👋"})");
    ASSERT_TRUE(reports_->waitFor("message \"héllo 👋\""));
    EXPECT_EQ(reports_->count("user_remove 5 6"), 1u);
    EXPECT_EQ(reports_->count("unpinned"), 1u);
    auto all = reports_->all();
    EXPECT_EQ(std::count_if(all.begin(), all.end(),
                            [](const std::string& r) { return r.starts_with("user_remove"); }),
              1);
    EXPECT_EQ(std::count_if(all.begin(), all.end(),
                            [](const std::string& r) { return r.starts_with("pinned"); }),
              0);
}

TEST_F(TVKMessagingSocketClientTest, RefusedSubscriptionArrivesAsARawSocketError) {
    auto client = makeClient();
    client->onConnect([raw = client.get()] { raw->subscribeWithUserToken("not-a-token", "nope"); });
    std::promise<TVKError> reported;
    auto once = std::make_shared<std::once_flag>();
    client->onError([&reported, once](const TVKError& error) {
        std::call_once(*once, [&] { reported.set_value(error); });
    });
    client->connectWithTimeoutHandler({});
    auto future = reported.get_future();
    ASSERT_EQ(future.wait_for(10s), std::future_status::ready);
    auto error = future.get();
    EXPECT_EQ(error.domain, TVKMessagingSocketErrorDomain);
    EXPECT_TRUE(error.reason && error.reason->starts_with("subscribe refused"));
}

TEST_F(TVKMessagingSocketClientTest, ConnectIsIgnoredWhileConnectingAndDisconnectWaitsForIt) {
    auto scheduler = std::make_shared<dispatch::ManualScheduler>();
    emulator().control("POST", "sockets/refuse", json::parse(R"({"mode":"hang","count":1})"));
    auto client = makeClient(scheduler);
    client->onDisconnect([reports = reports_] { reports->add("disconnect"); });
    client->connectWithTimeoutHandler([reports = reports_] { reports->add("timeout"); });
    client->connectWithTimeoutHandler([reports = reports_] { reports->add("second timeout"); });
    client->disconnect();  // connecting: the attempt goes on
    EXPECT_EQ(client->socket()->status(), sio::SocketIOStatus::connecting);
    for (int i = 0; i < 200 && scheduler->pendingCount() == 0; ++i)
        std::this_thread::sleep_for(5ms);
    scheduler->advance(TVKMessagingSocketClient::kConnectTimeout - 1ms);
    EXPECT_FALSE(reports_->waitFor("timeout", 200ms));
    scheduler->advance(1ms);
    ASSERT_TRUE(reports_->waitFor("timeout"));
    scheduler->advance(1h);
    std::this_thread::sleep_for(100ms);
    EXPECT_EQ(reports_->all(), std::vector<std::string>{"timeout"});
    EXPECT_EQ(client->socket()->status(), sio::SocketIOStatus::disconnected);
}

TEST_F(TVKMessagingSocketClientTest, ConnectWhileConnectedIsIgnoredAndDisconnectIsReported) {
    auto scheduler = std::make_shared<dispatch::ManualScheduler>();
    auto client = makeClient(scheduler);
    connectAndSubscribe(*client);
    client->connectWithTimeoutHandler([reports = reports_] { reports->add("second timeout"); });
    scheduler->advance(1h);
    client->disconnect();
    ASSERT_TRUE(reports_->waitFor("disconnect"));
    std::this_thread::sleep_for(100ms);
    EXPECT_EQ(reports_->count("second timeout"), 0u);
    EXPECT_EQ(reports_->count("timeout"), 0u);
    EXPECT_EQ(reports_->count("disconnect"), 1u);
}

TEST_F(TVKMessagingSocketClientTest, HandlersRunOnTheLabelledQueueSerialisedWithTheManager) {
    auto client = makeClient();
    std::promise<bool> onQueues;
    auto queue = client->queue();
    auto manager = managerQueue_;
    client->onConnect([&onQueues, queue, manager] {
        onQueues.set_value(queue->isCurrent() && manager->isCurrent());
    });
    client->connectWithTimeoutHandler({});
    auto future = onQueues.get_future();
    ASSERT_EQ(future.wait_for(10s), std::future_status::ready);
    EXPECT_TRUE(future.get());
}

}  // namespace
}  // namespace tavlo
