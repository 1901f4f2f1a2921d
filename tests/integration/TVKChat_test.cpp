// A chatroom against the emulated service: the connection sequence, the realtime events with
// their state applied, a lost socket, reconnection, disconnection and the chatroom's queries.
#include "TavloMessagingSDK/TVKChat.hpp"
#include "TavloMessagingSDK/Internal/TVKChatReport.hpp"
#include "TavloMessagingSDK/Internal/TVKChatSession.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <boost/json.hpp>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "Dispatch/SerialQueue.hpp"
#include "TavloMessagingSDK/DQChatProfile.hpp"
#include "TavloMessagingSDK/Internal/TVKMessagingError.hpp"
#include "TavloMessagingSDK/TVKAggregatedData.hpp"
#include "TavloMessagingSDK/TVKChatMessage.hpp"
#include "TavloMessagingSDK/TVKChatMetadata.hpp"
#include "TavloMessagingSDK/TVKChatUser.hpp"
#include "TavloMessagingSDK/TVKMSGError.hpp"
#include "tests/support/Emulator.hpp"

namespace tavlo {
namespace {

namespace json = boost::json;
using namespace std::chrono_literals;

using test::text;

/// One report of the chatroom, with the state the chatroom showed when it was made.
struct Report {
    std::string name;
    std::string detail;
};

/// Records the chatroom's reports (they arrive on the chatroom's queue) and lets the test thread
/// wait for them.
class Recorder : public TVKChatReportSink {
  public:
    void chatReported(const std::shared_ptr<TVKChat>& chat, TVKChatReport&& report) override {
        std::visit([&](const auto& record) { note(chat, record); }, report);
    }

    void note(const std::shared_ptr<TVKChat>& chat, const chat_event::Connected&) {
        add("connected", std::to_string(static_cast<std::uint64_t>(chat->status())));
    }
    void note(const std::shared_ptr<TVKChat>& chat, const chat_event::Disconnected&) {
        add("disconnected", std::to_string(static_cast<std::uint64_t>(chat->status())));
    }
    void note(const std::shared_ptr<TVKChat>& chat, const chat_report::SocketError& report) {
        const auto& error = report.error;
        {
            std::lock_guard lock(mutex_);
            errors_.push_back(error);
        }
        add("error", error.reason.value_or("code " + std::to_string(error.code)) + "/" +
                         std::to_string(static_cast<std::uint64_t>(chat->status())));
    }
    void note(const std::shared_ptr<TVKChat>& chat, const chat_event::AggregatedItemsAdded& e) {
        std::string detail;
        for (const auto& item : e.items) {
            detail += item->key().value_or("?") + "+" + std::to_string(item->count().value_or(0));
            detail += " ";
        }
        for (const auto& item : chat->totalAggregatedItems()) {
            detail += item->key().value_or("?") + "=" + std::to_string(item->count().value_or(0));
            detail += " ";
        }
        add("aggregated", detail);
    }
    // The other reports are not this test's subject.
    template <class Other>
    void note(const std::shared_ptr<TVKChat>&, const Other&) {}

    /// Waits until a report named `name` has arrived `count` times; its latest detail.
    std::string waitFor(const std::string& name, std::size_t count = 1) {
        std::unique_lock lock(mutex_);
        const bool arrived =
            changed_.wait_for(lock, 20s, [&] { return countLocked(name) >= count; });
        if (!arrived) {
            ADD_FAILURE() << "no " << name << " #" << count << "; got: " << summaryLocked();
            return {};
        }
        for (auto report = reports_.rbegin(); report != reports_.rend(); ++report) {
            if (report->name == name) return report->detail;
        }
        return {};
    }
    /// Waits until a report named `name` with exactly this detail has arrived.
    void waitForReport(const std::string& name, const std::string& detail) {
        std::unique_lock lock(mutex_);
        const bool arrived = changed_.wait_for(lock, 20s, [&] {
            return std::any_of(reports_.begin(), reports_.end(), [&](const Report& report) {
                return report.name == name && report.detail == detail;
            });
        });
        if (!arrived)
            ADD_FAILURE() << "no " << name << "(" << detail << "); got: " << summaryLocked();
    }
    std::size_t count(const std::string& name) const {
        std::lock_guard lock(mutex_);
        return countLocked(name);
    }
    std::vector<TVKError> errors() const {
        std::lock_guard lock(mutex_);
        return errors_;
    }

  private:
    void add(std::string name, std::string detail) {
        std::lock_guard lock(mutex_);
        reports_.push_back({std::move(name), std::move(detail)});
        changed_.notify_all();
    }
    std::size_t countLocked(const std::string& name) const {
        std::size_t count = 0;
        for (const auto& report : reports_) count += report.name == name;
        return count;
    }
    std::string summaryLocked() const {
        std::string summary;
        for (const auto& report : reports_) summary += report.name + "(" + report.detail + ") ";
        return summary;
    }

    mutable std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<Report> reports_;
    std::vector<TVKError> errors_;
};

/// Collects the one outcome of an asynchronous call.
template <class Value>
class Outcome {
  public:
    std::function<void(const Value&)> success() {
        return [this](const Value& value) { settle(value, std::nullopt); };
    }
    TVKChatSession::Failure failure() {
        return [this](const TVKError& error) { settle(std::nullopt, error); };
    }
    /// Waits for the outcome; false on time-out.
    bool wait() {
        std::unique_lock lock(mutex_);
        return done_.wait_for(lock, 20s, [&] { return settled_; });
    }
    std::optional<Value> value;
    std::optional<TVKError> error;

  private:
    void settle(std::optional<Value> v, std::optional<TVKError> e) {
        std::lock_guard lock(mutex_);
        value = std::move(v);
        error = std::move(e);
        settled_ = true;
        done_.notify_all();
    }
    std::mutex mutex_;
    std::condition_variable done_;
    bool settled_ = false;
};

class ChatConnection : public test::EmulatorTest {
  protected:
    void SetUp() override {
        EmulatorTest::SetUp();
        lobbyId = text(emulator().control("GET", "info").at("lobby").at("id"));
    }

    void TearDown() override {
        // The chatroom goes on the queue it works on, after whatever is still running there.
        queue->sync([&] { chat.reset(); });
        EmulatorTest::TearDown();
    }

    std::shared_ptr<TVKChat> makeChat(const std::string& channel, const std::string& jwt,
                                      std::chrono::milliseconds connectTimeout = 30s) {
        TVKChatEnvironment environment;
        environment.queue = queue;
        environment.socketConnectTimeout = connectTimeout;
        chat = TVKChatSession::chatForChannel(channel, "demo-account", jwt, emulator().url(),
                                              std::move(environment));
        return chat;
    }

    /// Starts the connection sequence; a failure before the socket goes to `failure`.
    void connect(TVKChatSession::Failure failure) {
        queue->sync([&] { chat->connectChatWithEventDelegate(recorder, failure); });
    }
    void connect() { connect(connectFailure.failure()); }

    /// Connects as the member (empty: a guest) and waits until subscribed.
    void connectTo(const std::string& channel, const std::string& memberId) {
        makeChat(channel, memberId.empty() ? "" : jwtOf(memberId));
        connect();
        recorder->waitFor("connected");
        onQueue([&] { ASSERT_EQ(chat->status(), TVKChatStatusConnected); });
    }

    /// Runs `check` on the chatroom's queue, where its state changes.
    void onQueue(const std::function<void()>& check) { queue->sync(check); }

    void control(const std::string& method, const std::string& path, json::value body = nullptr) {
        emulator().control(method, path, body);
    }

    std::shared_ptr<dispatch::SerialQueue> queue = dispatch::SerialQueue::create("test.chat");
    std::shared_ptr<Recorder> recorder = std::make_shared<Recorder>();
    std::shared_ptr<TVKChatSession> chat;
    Outcome<bool> connectFailure;
    std::string lobbyId;
};

// --- Connecting --------------------------------------------------------------------------------

TEST_F(ChatConnection, AGuestConnectsToTheLobby) {
    connectTo("lobby", "");
    EXPECT_EQ(recorder->waitFor("connected"), "3");  // connected before the report
    std::string userToken;
    onQueue([&] {
        EXPECT_EQ(chat->chatId(), lobbyId);
        EXPECT_EQ(chat->mode(), TVKChatInputModeAll);
        EXPECT_EQ(chat->userCount(), 5);
        EXPECT_TRUE(chat->hasGotStickers());
        EXPECT_TRUE(chat->hasGotSocketConfig());
        EXPECT_TRUE(chat->arcHTTPHostURL().has_value());
        EXPECT_EQ(chat->totalAggregatedItems().size(), 2u);
        EXPECT_TRUE(chat->currentUser()->isGuest());
        EXPECT_TRUE(chat->currentUser()->isBoundWithChat());
        userToken = chat->currentUser()->userToken().value_or("");
    });

    // The profile was asked for with stickers, as none were held.
    auto profiles = emulator().requests("/get-chat-profile-by-channel/");
    ASSERT_FALSE(profiles.empty());
    EXPECT_EQ(profiles.back().at("query").at("return_sticker"), "true");
    EXPECT_EQ(profiles.back().at("query").at("channelCode"), "lobby");
    // The socket subscribed with the user token of the join.
    auto sockets = emulator().control("GET", "requests?kind=socket").at("requests").as_array();
    bool subscribed = false;
    for (const auto& entry : sockets) {
        if (entry.at("type") == "event" && entry.at("event") == "subscribe") {
            subscribed =
                entry.at("args") == json::array{json::value(userToken), json::value(lobbyId)};
        }
    }
    EXPECT_TRUE(subscribed);
    EXPECT_FALSE(connectFailure.error);
}

TEST_F(ChatConnection, AMissingPersonalChatroomIsCreatedOnFirstConnect) {
    connectTo("p#alice-room", "alice");
    onQueue([&] {
        EXPECT_EQ(chat->chatroomName(), "alice-room");
        EXPECT_TRUE(chat->isPersonalChat());
        EXPECT_EQ(chat->currentUser()->role(), "MASTER");
    });

    auto creations = emulator().requests("/v2/chat/");
    ASSERT_EQ(creations.size(), 1u);
    EXPECT_EQ(creations[0].at("body").at("channel_code"), "alice-room");
    EXPECT_EQ(creations[0].at("body").at("is_personal_chat"), true);
    EXPECT_TRUE(creations[0].at("headers").as_object().contains("authorization"));
    // Not found, then loaded twice after the creation; only the creation acts as the member.
    auto profiles = emulator().requests("/get-chat-profile-by-channel/");
    std::vector<json::value> statuses;
    for (const auto& request : profiles) {
        statuses.push_back(request.at("status"));
        EXPECT_FALSE(request.at("headers").as_object().contains("authorization"));
    }
    EXPECT_EQ(statuses, (std::vector<json::value>{404, 200, 200}));
}

TEST_F(ChatConnection, AMissingChatroomIsNotFoundUnlessItMayBeCreated) {
    struct Case {
        const char* channel;
        const char* member;
    };
    for (auto [channel, member] : {Case{"no-such-room", "alice"}, Case{"p#nobody", ""}}) {
        Outcome<bool> outcome;
        makeChat(channel, *member ? jwtOf(member) : "");
        connect(outcome.failure());
        ASSERT_TRUE(outcome.wait()) << channel;
        ASSERT_TRUE(outcome.error) << channel;
        EXPECT_EQ(*outcome.error, TVKMSGChatroomNotFoundError()) << channel;
    }
    EXPECT_TRUE(emulator().requests("/v2/chat/").empty());

    // Asked directly, a guest cannot create one at all.
    std::optional<TVKError> refusal;
    queue->sync([&] {
        chat->createPersonalChatSuccess([] { ADD_FAILURE(); },
                                        [&](const TVKError& error) { refusal = error; });
    });
    ASSERT_TRUE(refusal);
    EXPECT_TRUE(isTVKMemberTokenRequiredError(*refusal));
}

// --- Events ------------------------------------------------------------------------------------

TEST_F(ChatConnection, AConnectWhileConnectedIsDenied) {
    connectTo("lobby", "");
    queue->sync([&] { chat->reconnectWithEventDelegate(recorder); });
    EXPECT_EQ(recorder->waitFor("error"), "Connect attempt denied/3");
    onQueue([&] { EXPECT_EQ(chat->status(), TVKChatStatusConnected); });
}

TEST_F(ChatConnection, ATimedOutConnectLeavesTheChatroomReadyToTryAgain) {
    makeChat("lobby", "", 300ms);
    control("POST", "sockets/refuse", json::object{{"mode", "hang"}, {"count", 1}});
    connect();
    recorder->waitForReport(
        "error", "code " + std::to_string(TVKSocketConnectionTimeoutError().code) + "/1");
    ASSERT_FALSE(recorder->errors().empty());
    EXPECT_TRUE(isTVKSocketConnectionTimeoutError(recorder->errors().back()));
    const auto errorsSoFar = recorder->count("error");

    queue->sync([&] { chat->reconnectWithEventDelegate(recorder); });
    recorder->waitFor("connected");
    // The abandoned attempt's handlers are gone: nothing reported twice.
    EXPECT_EQ(recorder->count("error"), errorsSoFar);
}

TEST_F(ChatConnection, AFullReconnectionReportsConnectedAndTheCountersMissed) {
    connectTo("lobby", "alice");
    control("POST", "chatrooms/lobby/sockets/drop", json::object{{"mode", "kill"}});
    recorder->waitForReport("error",
                            "code " + std::to_string(TVKSocketConnectionLostError().code) + "/1");
    control("POST", "chatrooms/lobby/aggregated",
            json::object{{"items", json::array{json::object{{"key", "clap"}, {"n", 4}}}},
                         {"announce", false}});

    queue->sync([&] { chat->reconnectChatWithEventDelegate(recorder, connectFailure.failure()); });
    EXPECT_EQ(recorder->waitFor("aggregated"), "clap+4 like=3 clap=5 ");
    onQueue([&] {
        EXPECT_EQ(chat->status(), TVKChatStatusConnected);
        EXPECT_FALSE(chat->isReconnecting());
    });
    EXPECT_EQ(recorder->count("connected"), 2u);
    // The old membership was left before joining again.
    EXPECT_EQ(emulator().requests("/remove-users-from-chat/").size(), 1u);
}

TEST_F(ChatConnection, DisconnectingLeavesAndClosesTheSocket) {
    connectTo("lobby", "alice");
    Outcome<bool> farewell;
    queue->sync([&] { chat->disconnectChatWithFailure(farewell.failure()); });
    EXPECT_EQ(recorder->waitFor("disconnected"), "1");
    onQueue([&] { EXPECT_FALSE(chat->currentUser()->isBoundWithChat()); });
    EXPECT_EQ(emulator().requests("/remove-users-from-chat/").size(), 1u);
    EXPECT_FALSE(farewell.error);
    EXPECT_EQ(recorder->count("error"), 0u);
}

// --- Queries -----------------------------------------------------------------------------------

TEST_F(ChatConnection, QueriesAnswerFromTheServiceAndTheCache) {
    connectTo("lobby", "alice");
    std::string token;
    onQueue([&] { token = chat->currentUser()->userToken().value_or(""); });

    auto names = [](const TVKChatUsers& users) {
        std::vector<std::string> result;
        for (const auto& user : users) result.push_back(user->name().value_or(""));
        return result;
    };
    Outcome<TVKChatUsers> online;
    queue->sync([&] {
        chat->listUsersWithUserToken(token, TVKChatUserTypeOnline, online.success(),
                                     online.failure());
    });
    ASSERT_TRUE(online.wait() && online.value) << (online.error ? online.error->describe() : "");
    // The service's order (by label); active users of an online role only.
    EXPECT_EQ(names(*online.value),
              (std::vector<std::string>{"Zoe", "Yuki", "Xavier", "Guest", "Alice"}));
    const auto usersRequests = emulator().requests("/get-users-by-chat/").size();

    // Then from the cache, without a request, in its order: managers, moderators, the rest.
    Outcome<TVKChatUsers> cached;
    queue->sync([&] {
        chat->listUsersWithUserToken(token, TVKChatUserTypeOnline, cached.success(),
                                     cached.failure());
    });
    ASSERT_TRUE(cached.wait() && cached.value);
    EXPECT_EQ(names(*cached.value),
              (std::vector<std::string>{"Zoe", "Yuki", "Alice", "Xavier", "Guest"}));
    EXPECT_EQ(emulator().requests("/get-users-by-chat/").size(), usersRequests);

    Outcome<TVKChatUsers> blocked;
    queue->sync([&] {
        chat->listUsersWithUserToken(token, TVKChatUserTypeBlocked, blocked.success(),
                                     blocked.failure());
    });
    ASSERT_TRUE(blocked.wait() && blocked.value);
    EXPECT_EQ(names(*blocked.value), std::vector<std::string>{"Mallory"});

    Outcome<TVKMessageListing> texts;
    queue->sync([&] {
        chat->listMessagesWithUserToken(token, {{"msgType", "text"}}, texts.success(),
                                        texts.failure());
    });
    ASSERT_TRUE(texts.wait() && texts.value);
    const auto& messages = std::get<TVKChatMessages>(*texts.value);
    EXPECT_EQ(messages.size(), 5u);
    EXPECT_EQ(std::count_if(messages.begin(), messages.end(),
                            [](const auto& m) { return m->type() == TVKChatMessage::kSticker; }),
              1);

    // A malformed batch beside the seeded one costs its own items, not the page.
    emulator().control("POST", "chatrooms/lobby/messages",
                       json::parse(R"({"messages": [{"msgType": "aggregate",
                                       "aggregated": [{"key": "like", "n": 1}, 7]}]})"));
    Outcome<TVKMessageListing> batches;
    queue->sync([&] {
        chat->listMessagesWithUserToken(token, {{"msgType", "aggregate"}}, batches.success(),
                                        batches.failure());
    });
    ASSERT_TRUE(batches.wait() && batches.value)
        << (batches.error ? batches.error->describe() : "");
    const auto& page = std::get<TVKAggregatedDataList>(*batches.value);
    ASSERT_EQ(page.size(), 2u);
    EXPECT_EQ(std::count_if(page.begin(), page.end(),
                            [](const auto& batch) { return batch->items().has_value(); }),
              1);

    Outcome<TVKChatMetadataDictionary> metadata;
    queue->sync([&] {
        chat->getMetadataForKeys(std::nullopt, token, metadata.success(), metadata.failure());
    });
    ASSERT_TRUE(metadata.wait() && metadata.value);
    EXPECT_EQ(metadata.value->size(), 2u);  // reserved and foreign entries left out
    EXPECT_TRUE(metadata.value->count("topic"));
}

}  // namespace
}  // namespace tavlo
