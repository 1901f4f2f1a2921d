// Sends made while a chatroom reconnects, against the emulator: held in order and sent once the
// chatroom is back, or failed once each when it never comes back or the application leaves.
// Also: an answer the service read before an event does not undo what the event changed.
// Retries run on a clock scaled by 1/20.

#include <gtest/gtest.h>

#include <condition_variable>
#include <iostream>
#include <mutex>
#include <thread>

#include "TavloMessagingSDK/TVKChatManager.hpp"
#include "TavloMessagingSDK/TVKChatMessage.hpp"
#include "TavloMessagingSDK/TVKChatUser.hpp"
#include "TavloMessagingSDK/TVKMSGError.hpp"
#include "tests/support/Emulator.hpp"
#include "tests/support/EventLog.hpp"

namespace tavlo {
namespace {

using namespace std::chrono_literals;
namespace json = boost::json;
using test::text;

constexpr long kNotConnected = 3;

/// The outcomes of many sends: each callback's calls, and whether it came inside the call.
class Outcomes {
  public:
    struct Outcome {
        int successes = 0;
        std::vector<TVKError> failures;
        bool synchronous = false;
    };

    /// A success and a failure callback for send number `index`.
    std::pair<std::function<void()>, std::function<void(const TVKError&)>> callbacks(
        std::size_t index) {
        {
            std::lock_guard lock(mutex_);
            if (outcomes_.size() <= index) outcomes_.resize(index + 1);
            inCall_ = index;
        }
        auto success = [this, index] { note(index, nullptr); };
        auto failure = [this, index](const TVKError& error) { note(index, &error); };
        return {success, failure};
    }
    /// The call has returned.
    void returned() {
        std::lock_guard lock(mutex_);
        inCall_.reset();
    }
    bool waitForAll(std::size_t count, std::chrono::milliseconds limit = 30s) {
        std::unique_lock lock(mutex_);
        return changed_.wait_for(lock, limit, [&] { return finished_ >= count; });
    }
    Outcome at(std::size_t index) const {
        std::lock_guard lock(mutex_);
        return outcomes_.at(index);
    }

  private:
    void note(std::size_t index, const TVKError* error) {
        std::lock_guard lock(mutex_);
        auto& outcome = outcomes_.at(index);
        if (error) {
            outcome.failures.push_back(*error);
        } else {
            ++outcome.successes;
        }
        outcome.synchronous = inCall_ == index;
        ++finished_;
        changed_.notify_all();
    }

    mutable std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<Outcome> outcomes_;
    std::optional<std::size_t> inCall_;
    std::size_t finished_ = 0;
};

class HeldSends : public test::EmulatorTest {
  protected:
    void SetUp() override {
        EmulatorTest::SetUp();
        useDemoAccount();
        startAfresh();
    }
    void TearDown() override {
        emulator().control("POST", "sockets/refuse", json::object{{"mode", "off"}});
        manager.reset();
        EmulatorTest::TearDown();
    }

    /// A new manager, application and record of outcomes, on a fresh emulator.
    void startAfresh() {
        if (manager) {
            manager.reset();
            emulator().reset();
        }
        manager = TVKChatManager::create();
        manager->setHTTPHostURL(emulator().url());
        manager->setTimeScale(0.05);
        manager->setSocketConnectTimeout(10s);
        application = std::make_shared<test::EventLog>();
        outcomes = std::make_unique<Outcomes>();
    }

    /// Alice in the lobby, connected.
    void connect(bool holds, bool recovers) {
        manager->setHoldsSendsWhileReconnecting(holds);
        manager->setRecoversMissedMessages(recovers);
        manager->connectToChatroom("lobby", jwtOf("alice"), 0, application);
        ASSERT_TRUE(application->waitFor("connected"));
        chat = application->chat();
    }

    /// Drops the lobby's socket while new connections hang: the chatroom stays reconnecting.
    void loseTheConnection() {
        emulator().control("POST", "sockets/refuse", json::object{{"mode", "hang"}});
        emulator().control("POST", "chatrooms/lobby/sockets/drop", json::object{{"mode", "kill"}});
        ASSERT_TRUE(application->waitFor("reconnecting"));
        emulator().clearRequests();
    }

    /// Send number `index`, in the form `index % 4` picks: text, message of type "text", raw
    /// data, aggregated counter.
    void send(std::size_t index) {
        auto [success, failure] = outcomes->callbacks(index);
        const auto label = "held " + std::to_string(index);
        switch (index % 4) {
            case 0:
                manager->sendMessage(label, chat, success, failure);
                break;
            case 1:
                manager->sendMessage(json::value(label), "text", chat, success, failure);
                break;
            case 2:
                manager->sendRawData(json::object{{"n", index}}, chat, success, failure);
                break;
            default:
                manager->sendAggregatedDataWithKey("like", chat, success, failure);
                break;
        }
        outcomes->returned();
    }

    /// The sends that reached the service since the drop, in the order it received them.
    static std::vector<std::string> sendsReceived() {
        std::vector<std::string> received;
        for (const auto& request : emulator().requests("/add-user-message-to-chat/")) {
            const auto& body = request.at("body").as_object();
            const auto* value = body.if_contains("text");
            if (!value) value = body.if_contains("value");
            received.push_back(text(body.at("msgType")) + ":" + (value ? text(*value) : "?"));
        }
        return received;
    }
    static std::string expectedSend(std::size_t index) {
        const auto label = "held " + std::to_string(index);
        switch (index % 4) {
            case 0:
            case 1:
                return "text:" + label;
            case 2:
                return "raw:" + json::serialize(json::object{{"n", index}});
            default:
                return "aggregate:like";
        }
    }

    std::shared_ptr<TVKChatManager> manager;
    std::shared_ptr<test::EventLog> application = std::make_shared<test::EventLog>();
    std::shared_ptr<TVKChat> chat;
    std::unique_ptr<Outcomes> outcomes;
};

TEST_F(HeldSends, HeldSendsGoOutInOrderOnceTheChatroomIsBackAfterTheMissedMessages) {
    connect(true, true);
    loseTheConnection();
    // Missed meanwhile: the recovery delivers it before the held sends go out.
    emulator().control("POST", "chatrooms/lobby/messages",
                       json::object{{"messages", json::array{json::object{{"text", "missed"}}}},
                                    {"announce", false}});
    const std::size_t kHeld = 100;
    for (std::size_t i = 0; i < kHeld; ++i) send(i);
    send(kHeld);  // one past the bound
    const auto refused = outcomes->at(kHeld);
    ASSERT_EQ(refused.failures.size(), 1u);
    EXPECT_TRUE(refused.synchronous);
    EXPECT_EQ(refused.failures[0].code, kNotConnected);
    EXPECT_TRUE(sendsReceived().empty());

    emulator().control("POST", "sockets/refuse", json::object{{"mode", "off"}});
    ASSERT_TRUE(application->waitFor("connected", 2));
    ASSERT_TRUE(outcomes->waitForAll(kHeld + 1));
    std::vector<std::string> expected;
    for (std::size_t i = 0; i < kHeld; ++i) {
        const auto outcome = outcomes->at(i);
        EXPECT_EQ(outcome.successes, 1) << i;
        EXPECT_TRUE(outcome.failures.empty()) << i;
        EXPECT_FALSE(outcome.synchronous) << i;
        expected.push_back(expectedSend(i));
    }
    // Each went out once, in the order it was made.
    EXPECT_EQ(sendsReceived(), expected);
    // The application sees the missed message first, then its own texts in order.
    std::vector<std::string> texts{"missed"};
    for (std::size_t i = 0; i < kHeld; ++i) {
        if (i % 4 < 2) texts.push_back("held " + std::to_string(i));
    }
    ASSERT_TRUE(application->waitFor("message:" + texts.back()));
    EXPECT_EQ(application->messages(), texts);
    std::cout << "[ held     ] " << kHeld << " held, " << sendsReceived().size()
              << " received by the service in order, " << application->messages().size()
              << " messages heard\n";
}

// Every way a reconnection can end without the chatroom coming back: each held send fails once,
// with the outcome the application hears.
TEST_F(HeldSends, HeldSendsFailOnceWithTheOutcomeWhenTheChatroomDoesNotComeBack) {
    struct Case {
        const char* name;
        bool disconnect;  // the application leaves, else the schedule runs out
        std::string report;
    };
    for (const auto& c :
         {Case{"given up", false, "error"}, Case{"disconnected", true, "disconnected"}}) {
        SCOPED_TRACE(c.name);
        startAfresh();
        connect(true, false);
        loseTheConnection();
        for (std::size_t i = 0; i < 3; ++i) send(i);
        if (c.disconnect) manager->disconnectFromChatroom(chat);
        ASSERT_TRUE(application->waitFor(c.report, 1, 60s));
        ASSERT_TRUE(outcomes->waitForAll(3));
        std::this_thread::sleep_for(200ms);  // room for a second report
        const long code = c.disconnect ? kNotConnected : application->report()->code;
        for (std::size_t i = 0; i < 3; ++i) {
            const auto outcome = outcomes->at(i);
            EXPECT_EQ(outcome.successes, 0) << i;
            ASSERT_EQ(outcome.failures.size(), 1u) << i;
            EXPECT_EQ(outcome.failures[0].code, code) << i;
            EXPECT_FALSE(outcome.synchronous) << i;
        }
        EXPECT_TRUE(sendsReceived().empty());
    }
}

TEST_F(HeldSends, WithoutHoldingASendWhileReconnectingFailsAtOnce) {
    connect(false, false);
    loseTheConnection();
    send(0);
    const auto outcome = outcomes->at(0);
    ASSERT_EQ(outcome.failures.size(), 1u);
    EXPECT_TRUE(outcome.synchronous);
    EXPECT_EQ(outcome.failures[0].code, kNotConnected);
    // Arguments are checked at once when holding too.
    manager->setHoldsSendsWhileReconnecting(true);
    auto [success, failure] = outcomes->callbacks(1);
    manager->sendMessage(std::string(301, 'x'), chat, success, failure);
    outcomes->returned();
    ASSERT_EQ(outcomes->at(1).failures.size(), 1u);
    EXPECT_TRUE(outcomes->at(1).synchronous);
    EXPECT_NE(outcomes->at(1).failures[0].code, kNotConnected);
}

// --- Newer wins --------------------------------------------------------------------------------

// At chatroomConnected the current user's record is fetched again. The service reads it at once
// but its answer is held back until after a role change has been announced: the older answer
// must not put the old role back.
TEST_F(HeldSends, AnOlderAnswerDoesNotUndoTheRoleAnEventChanged) {
    emulator().control("POST", "faults",
                       json::object{{"pathPrefix", "/get-users-by-labels/"}, {"holdAnswer", true}});
    connect(false, false);
    for (int i = 0; i < 500 && emulator().requests("/get-users-by-labels/").empty(); ++i) {
        std::this_thread::sleep_for(10ms);
    }
    ASSERT_EQ(emulator().requests("/get-users-by-labels/").size(), 1u);
    auto user = manager->currentUserForChatroom(chat);
    ASSERT_TRUE(user);
    EXPECT_EQ(user->role(), "MODERATOR");

    emulator().control("PUT", "chatrooms/lobby/roles",
                       json::object{{"memberId", "alice"}, {"role", "NORMAL"}});
    ASSERT_TRUE(application->waitFor("usersUpdated"));
    EXPECT_EQ(manager->currentUserForChatroom(chat)->role(), "NORMAL");

    emulator().control("POST", "faults/release");
    for (int i = 0; i < 500; ++i) {
        const auto answered = emulator().requests("/get-users-by-labels/");
        if (!answered.empty() && !answered[0].at("status").is_null()) break;
        std::this_thread::sleep_for(10ms);
    }
    std::this_thread::sleep_for(100ms);  // the answer reaches the manager's queue
    EXPECT_EQ(manager->currentUserForChatroom(chat)->role(), "NORMAL");
}

}  // namespace
}  // namespace tavlo
