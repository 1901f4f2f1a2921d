// The chat manager's life cycle against the emulator, seen the way an application sees it:
// through TVKChatManager and an event delegate only. Retries run on a scaled clock (1/100), so
// the 0.5 s to 32 s pauses take milliseconds.

#include <gtest/gtest.h>

#include <condition_variable>
#include <functional>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

#include "TavloCoreSDK/TVKSDKAuthManager.hpp"
#include "TavloMessagingSDK/Internal/TVKChatSession.hpp"
#include "TavloMessagingSDK/TVKAggregatedData.hpp"
#include "TavloMessagingSDK/TVKChatManager.hpp"
#include "TavloMessagingSDK/TVKChatMessage.hpp"
#include "TavloMessagingSDK/TVKChatUser.hpp"
#include "TavloMessagingSDK/TVKMSGError.hpp"
#include "tests/support/Emulator.hpp"

namespace tavlo {
namespace {

using namespace std::chrono_literals;
namespace json = boost::json;

using test::text;

/// One event as the application heard it, with the chatroom state that mattered at that moment.
struct Heard {
    std::string name;
    std::string detail;
};

/// The application's delegate: writes down every event and what the chatroom showed when it
/// arrived.
class Application : public TVKChatEventDelegate {
  public:
    void chatroomConnected(const std::shared_ptr<TVKChat>& chat) override {
        lastChat_ = chat;
        add("connected", chat->originalChatroomName());
    }
    void chatroomDisconnected(const std::shared_ptr<TVKChat>& chat) override {
        add("disconnected", chat->originalChatroomName());
    }
    void chatroomFailToConnect(const std::shared_ptr<TVKChat>&, const TVKError& error) override {
        add("failToConnect", std::to_string(error.code));
    }
    void chatroomError(const std::shared_ptr<TVKChat>&, const TVKError& error) override {
        add("error", std::to_string(error.code));
    }
    void chatroomInputModeChanged(const std::shared_ptr<TVKChat>& chat) override {
        add("inputMode", std::to_string(static_cast<std::uint64_t>(chat->mode())));
    }
    void chatroomUsersJoined(const std::shared_ptr<TVKChat>&, const TVKChatUsers& users) override {
        add("usersJoined", names(users));
    }
    void chatroomUsersUpdated(const std::shared_ptr<TVKChat>& chat,
                              const TVKChatUsers& users) override {
        add("usersUpdated", names(users) + " me:" + chat->currentUser()->role().value_or(""));
    }
    void chatroomUsersLeft(const std::shared_ptr<TVKChat>&, const TVKUserLabels& labels) override {
        add("usersLeft", std::to_string(labels.size()));
    }
    void chatroomUserCount(const std::shared_ptr<TVKChat>& chat) override {
        add("userCount", std::to_string(chat->userCount()));
    }
    void chatroomMessageAdded(const std::shared_ptr<TVKChat>&,
                              const std::shared_ptr<TVKChatMessage>& message) override {
        add("message", message->text().value_or(""));
    }
    void chatroomAggregatedItemsAdded(const std::shared_ptr<TVKChat>& chat,
                                      const TVKAggregatedItems& items) override {
        std::string detail;
        for (const auto& item : items) detail += item->key().value_or("") + "+";
        for (const auto& total : chat->totalAggregatedItems()) {
            if (total->key() == "like") detail += " like=" + std::to_string(*total->count());
        }
        add("aggregated", detail);
    }
    void chatroomRawDataAdded(const std::shared_ptr<TVKChat>&,
                              const std::shared_ptr<TVKChatMessage>& message) override {
        add("raw", message->rawData() ? json::serialize(*message->rawData()) : "");
    }
    void chatroomMessageRemoved(const std::shared_ptr<TVKChat>&, const std::string& id) override {
        add("removed", id);
    }
    void chatroomMessageFlushed(const std::shared_ptr<TVKChat>&) override { add("flushed", ""); }
    void chatroomPinnedMessageUpdated(const std::shared_ptr<TVKChat>& chat,
                                      const std::shared_ptr<TVKChatMessage>& message) override {
        auto held = chat->pinnedMessage();
        add("pinned", (message ? message->messageId().value_or("?") : "none") +
                          " held:" + (held ? held->messageId().value_or("?") : "none"));
    }
    void chatroomMetadataUpdated(const std::shared_ptr<TVKChat>&,
                                 const TVKChatMetadataDictionary& metadata) override {
        std::string keys;
        for (const auto& [key, record] : metadata) keys += key + ",";
        add("metadata", keys);
    }

    /// Waits for the `times`-th event of that name and returns its detail.
    std::optional<std::string> waitFor(const std::string& name, std::size_t times = 1,
                                       std::chrono::milliseconds limit = 15s) {
        std::unique_lock lock(mutex_);
        std::optional<std::string> detail;
        changed_.wait_for(lock, limit, [&] {
            std::size_t seen = 0;
            for (const auto& event : heard_) {
                if (event.name == name && ++seen == times) detail = event.detail;
            }
            return detail.has_value();
        });
        return detail;
    }
    std::size_t count(const std::string& name) const {
        std::lock_guard lock(mutex_);
        return std::count_if(heard_.begin(), heard_.end(),
                             [&](const Heard& event) { return event.name == name; });
    }
    std::shared_ptr<TVKChat> chat() const {
        std::lock_guard lock(mutex_);
        return lastChat_;
    }

  private:
    static std::string names(const TVKChatUsers& users) {
        std::string joined;
        for (const auto& user : users) joined += user->name().value_or("?") + ",";
        return joined;
    }
    void add(std::string name, std::string detail) {
        std::lock_guard lock(mutex_);
        heard_.push_back({std::move(name), std::move(detail)});
        changed_.notify_all();
    }
    mutable std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<Heard> heard_;
    std::shared_ptr<TVKChat> lastChat_;
};

class ChatManagerFlow : public test::EmulatorTest {
  protected:
    void SetUp() override {
        EmulatorTest::SetUp();
        useDemoAccount();
        refreshMemberTokensThroughEmulator();
    }

    std::shared_ptr<TVKChatManager> makeManager() {
        auto manager = TVKChatManager::create();
        manager->setHTTPHostURL(emulator().url());
        manager->setTimeScale(0.01);
        manager->setSocketConnectTimeout(5s);
        return manager;
    }
    static std::size_t requestCount(const std::string& pathPrefix) {
        return emulator().requests(pathPrefix).size();
    }
    static std::size_t socketLog(const std::string& type) {
        auto log = emulator().control("GET", "/_control/requests?kind=socket");
        std::size_t count = 0;
        for (const auto& entry : log.at("requests").as_array()) {
            if (entry.as_object().contains("type") && text(entry.at("type")) == type) ++count;
        }
        return count;
    }

    /// A manager with `memberId` (empty: a guest) connected to the lobby.
    struct Connected {
        std::shared_ptr<TVKChatManager> manager;
        std::shared_ptr<Application> application;
        std::shared_ptr<TVKChat> chat;
    };
    Connected connectToLobby(const std::string& memberId) {
        Connected connected{makeManager(), std::make_shared<Application>(), nullptr};
        connected.manager->connectToChatroom("lobby", memberId.empty() ? "" : jwtOf(memberId), 0,
                                             connected.application);
        EXPECT_EQ(connected.application->waitFor("connected"), "lobby");
        connected.chat = connected.application->chat();
        return connected;
    }
};

TEST_F(ChatManagerFlow, GuestAndMemberConnectToTheLobby) {
    auto guest = connectToLobby("");
    auto alice = connectToLobby("alice");
    ASSERT_TRUE(guest.chat && alice.chat);
    EXPECT_TRUE(guest.manager->isChatroomConnected(guest.chat));
    EXPECT_TRUE(alice.manager->isChatroomConnected(alice.chat));
    EXPECT_EQ(guest.manager->chatForChatroomName("lobby", false), guest.chat);
    EXPECT_TRUE(guest.manager->currentUserForChatroom(guest.chat)->isGuest());
    auto member = alice.manager->currentUserForChatroom(alice.chat);
    EXPECT_FALSE(member->isGuest());
    EXPECT_EQ(member->role(), "MODERATOR");
    EXPECT_EQ(guest.manager->cooldownForChatroom(guest.chat), 0);
    auto sockets = emulator().control("GET", "chatrooms/lobby/sockets");
    EXPECT_EQ(sockets.at("sockets").as_array().size(), 2u);
}

TEST_F(ChatManagerFlow, PersonalChatroomIsCreatedOnFirstConnect) {
    auto manager = makeManager();
    auto application = std::make_shared<Application>();
    manager->connectToChatroom("diary", jwtOf("bob"), TVKChatroomOptionPersonalChat, application);
    ASSERT_EQ(application->waitFor("connected"), "p#diary");
    auto chat = manager->chatForChatroomName("diary", true);
    ASSERT_TRUE(chat);
    EXPECT_TRUE(chat->isPersonalChat());
    EXPECT_EQ(chat->chatroomName(), "diary");
    EXPECT_EQ(requestCount("/v2/chat/"), 1u);
    EXPECT_EQ(manager->currentUserForChatroom(chat)->role(), "MASTER");
}

TEST_F(ChatManagerFlow, AMissingChatroomFailsToConnectAndStaysRegistered) {
    auto manager = makeManager();
    auto application = std::make_shared<Application>();
    manager->connectToChatroom("nowhere", jwtOf("alice"), 0, application);
    EXPECT_EQ(application->waitFor("failToConnect"), std::to_string(TVKMSGErrorChatroomNotFound));
    auto chat = manager->chatForChatroomName("nowhere", false);
    ASSERT_TRUE(chat);
    EXPECT_FALSE(manager->isChatroomConnected(chat));
    // Never connected: disconnecting it sends no farewell.
    emulator().clearRequests();
    manager->disconnectFromChatroom(chat);
    std::this_thread::sleep_for(100ms);
    EXPECT_EQ(requestCount("/remove-users-from-chat/"), 0u);
}

TEST_F(ChatManagerFlow, AStaleMemberTokenWhileConnectingReadsAsAMissingChatroom) {
    // The refresh hands back the same stale token, so the repeated request is refused too.
    auto stale = jwtOf("alice");
    emulator().control("POST", "jwt/expire", json::object{{"jwt", stale}});
    TVKSDKAuthManager::sharedManager().setMemberTokenRefresher(
        [stale](const std::optional<std::string>&, auto success, auto) { success(stale); });
    auto manager = makeManager();
    auto application = std::make_shared<Application>();
    manager->connectToChatroom("lobby", stale, 0, application);
    EXPECT_EQ(application->waitFor("failToConnect"), std::to_string(TVKMSGErrorChatroomNotFound));
}

TEST_F(ChatManagerFlow, AServerFaultBeforeTheJoinIsRetriedWithoutAFarewell) {
    // A retryable failure before the chatroom holds a socket configuration is retried along the
    // full path. The user never joined, so there is nobody to take leave of: the retry loads the
    // profile again, joins, and the application hears that the chatroom connected.
    emulator().control("POST", "faults",
                       json::object{{"pathPrefix", "/get-chat-profile-by-channel/"},
                                    {"status", 500},
                                    {"code", "DataAccessError"}});
    auto manager = makeManager();
    auto application = std::make_shared<Application>();
    manager->connectToChatroom("lobby", jwtOf("alice"), 0, application);
    EXPECT_EQ(application->waitFor("connected"), "lobby");
    EXPECT_EQ(requestCount("/get-chat-profile-by-channel/"), 2u);
    EXPECT_EQ(requestCount("/remove-users-from-chat/"), 0u);
    EXPECT_TRUE(manager->isChatroomConnected(manager->chatForChatroomName("lobby", false)));
    EXPECT_EQ(application->count("failToConnect"), 0u);
}

TEST_F(ChatManagerFlow, EveryEventArrivesWithTheChatroomAlreadyUpdated) {
    auto alice = connectToLobby("alice");
    auto& heard = *alice.application;
    ASSERT_TRUE(alice.chat);

    // Members may still write: bob sends below.
    emulator().control("PATCH", "chatrooms/lobby", json::object{{"chatWriteMode", "LOGIN"}});
    EXPECT_EQ(heard.waitFor("inputMode"), "2");

    emulator().control("PATCH", "chatrooms/lobby",
                       json::object{{"memberCount", 10}, {"guestCount", 5}});
    EXPECT_EQ(heard.waitFor("userCount"), "15");

    auto bob = connectToLobby("bob");
    EXPECT_TRUE(heard.waitFor("usersJoined"));

    emulator().control("PUT", "chatrooms/lobby/roles",
                       json::object{{"memberId", "alice"}, {"role", "LOCAL_MANAGER"}});
    auto updated = heard.waitFor("usersUpdated");
    ASSERT_TRUE(updated);
    EXPECT_NE(updated->find("me:LOCAL_MANAGER"), std::string::npos) << *updated;

    bob.manager->sendMessage("hello from bob", bob.chat, nullptr, nullptr);
    EXPECT_EQ(heard.waitFor("message"), "hello from bob");

    bob.manager->sendRawData(json::object{{"move", "e4"}}, bob.chat, nullptr, nullptr);
    EXPECT_EQ(heard.waitFor("raw"), R"({"move":"e4"})");

    bob.manager->sendAggregatedDataWithKey("like", bob.chat, nullptr, nullptr);
    EXPECT_EQ(heard.waitFor("aggregated"), "like+ like=4");

    auto added = emulator().control(
        "POST", "chatrooms/lobby/messages",
        json::object{{"messages", json::array{json::object{{"text", "to pin"}}}}});
    const auto messageId = text(added.at("messages").at(0).at("id"));
    emulator().control("POST", "chatrooms/lobby/pin", json::object{{"messageId", messageId}});
    EXPECT_EQ(heard.waitFor("pinned"), messageId + " held:" + messageId);
    emulator().control("POST", "chatrooms/lobby/pin", json::object{{"messageId", nullptr}});
    EXPECT_EQ(heard.waitFor("pinned", 2), "none held:none");

    emulator().control("POST", "chatrooms/lobby/emit",
                       json::object{{"event", "message_remove"}, {"payload", messageId}});
    EXPECT_EQ(heard.waitFor("removed"), messageId);

    emulator().control("POST", "chatrooms/lobby/flush");
    EXPECT_TRUE(heard.waitFor("flushed"));

    emulator().control(
        "POST", "chatrooms/lobby/metadata",
        json::object{{"entries", json::array{json::object{{"key", "topic"}, {"value", "News"}}}},
                     {"broadcast", true}});
    EXPECT_EQ(heard.waitFor("metadata"), "topic,");

    bob.manager->disconnectFromChatroom(bob.chat);
    EXPECT_TRUE(bob.application->waitFor("disconnected"));
    EXPECT_EQ(heard.waitFor("usersLeft"), "1");
    EXPECT_FALSE(bob.manager->chatForChatroomName("lobby", false));
}

TEST_F(ChatManagerFlow, AnExecutorThatFallsBehindHoldsTheSocketUntilItCatchesUp) {
    auto lobby = connectToLobby("");
    // The application's executor keeps the calls until the test runs them.
    struct Executor {
        std::mutex mutex;
        std::vector<std::function<void()>> calls;
        std::size_t waiting() {
            std::lock_guard lock(mutex);
            return calls.size();
        }
        std::vector<std::function<void()>> take() {
            std::lock_guard lock(mutex);
            return std::exchange(calls, {});
        }
    };
    auto executor = std::make_shared<Executor>();
    lobby.manager->setCallbackExecutor([executor](std::function<void()> call) {
        std::lock_guard lock(executor->mutex);
        executor->calls.push_back(std::move(call));
    });
    constexpr std::size_t kEvents = 5000;
    const json::object message{{"id", "flood"},
                               {"msgType", "text"},
                               {"text", std::string(400, 'x')},
                               {"creatorLabel", 7},
                               {"creator", json::object{{"label", 7}, {"name", "Flo"}}}};
    emulator().control(
        "POST", "chatrooms/lobby/flood",
        json::object{{"event", "message"}, {"payload", message}, {"count", kEvents}});
    std::size_t waiting = 0;
    for (int settled = 0; settled < 5;) {
        std::this_thread::sleep_for(100ms);
        const std::size_t now = executor->waiting();
        settled = now == waiting && now > 0 ? settled + 1 : 0;
        waiting = now;
    }
    // One bound for what waits in the executor and in the socket together: reading stopped at
    // it, with a 64 KiB read or two on their way.
    const auto& backlog = *sessionOf(lobby.chat)->readBacklog();
    EXPECT_TRUE(backlog.isFull());  // reached, and more than half of it left
    EXPECT_GE(backlog.events(), waiting);
    EXPECT_LE(waiting, 1000u + 2 * 64 * 1024 / 400);

    const auto deadline = std::chrono::steady_clock::now() + 30s;
    while (lobby.application->count("message") < kEvents &&
           std::chrono::steady_clock::now() < deadline) {
        for (auto& call : executor->take()) call();
        std::this_thread::sleep_for(1ms);
    }
    EXPECT_EQ(lobby.application->count("message"), kEvents);
    EXPECT_EQ(lobby.application->count("error"), 0u);
    EXPECT_FALSE(backlog.isFull());
    lobby.manager->setCallbackExecutor(nullptr);
}

TEST_F(ChatManagerFlow, ADroppedSocketIsReopenedAndConnectedAgain) {
    auto alice = connectToLobby("alice");
    // A connection torn down, and one this side must fail (a text frame that is not UTF-8): both
    // are a lost connection.
    std::size_t connections = 1;
    for (const char* mode : {"kill", "invalid-utf8"}) {
        emulator().clearRequests();
        emulator().control("POST", "chatrooms/lobby/sockets/drop", json::object{{"mode", mode}});
        EXPECT_TRUE(alice.application->waitFor("connected", ++connections)) << mode;
        // Only the socket came back: no profile load, no new join.
        EXPECT_EQ(requestCount("/get-chat-profile-by-channel/"), 0u) << mode;
        EXPECT_EQ(requestCount("/add-users-to-chat/"), 0u) << mode;
        EXPECT_TRUE(alice.manager->isChatroomConnected(alice.chat)) << mode;
        EXPECT_EQ(alice.application->count("error"), 0u) << mode;
    }
}

TEST_F(ChatManagerFlow, ReconnectionsThatKeepFailingAreReportedOnceAfterSeven) {
    auto alice = connectToLobby("alice");
    emulator().control("POST", "sockets/refuse", json::object{{"mode", "reject"}});
    emulator().control("DELETE", "requests");
    emulator().control("POST", "chatrooms/lobby/sockets/drop", json::object{{"mode", "kill"}});
    EXPECT_EQ(alice.application->waitFor("error"), std::to_string(TVKMSGErrorInternal));
    std::this_thread::sleep_for(200ms);
    EXPECT_EQ(alice.application->count("error"), 1u);
    EXPECT_EQ(alice.application->count("failToConnect"), 0u);
    EXPECT_EQ(socketLog("refused"), TVKReconnectAttemptLimit);
    EXPECT_FALSE(alice.manager->chatForChatroomName("lobby", false));
    EXPECT_FALSE(alice.manager->isChatroomConnected(alice.chat));
    emulator().control("POST", "sockets/refuse", json::object{{"mode", "off"}});
}

TEST_F(ChatManagerFlow, AFarewellThatKeepsFailingClosesLocally) {
    auto alice = connectToLobby("alice");
    emulator().clearRequests();
    emulator().control("POST", "faults",
                       json::object{{"pathPrefix", "/remove-users-from-chat/"},
                                    {"status", 500},
                                    {"code", "DataAccessError"},
                                    {"count", 20}});
    alice.manager->disconnectFromChatroom(alice.chat);
    EXPECT_TRUE(alice.application->waitFor("disconnected"));
    EXPECT_EQ(requestCount("/remove-users-from-chat/"), 1 + TVKResendFarewellAttemptLimit);
    EXPECT_FALSE(alice.manager->chatForChatroomName("lobby", false));
    auto sockets = emulator().control("GET", "chatrooms/lobby/sockets");
    EXPECT_TRUE(sockets.at("sockets").as_array().empty());
}

TEST_F(ChatManagerFlow, AReleasedDelegateHearsNothingAndIsNotKeptAlive) {
    auto alice = connectToLobby("alice");
    std::weak_ptr<Application> released = alice.application;
    alice.application.reset();
    // An event being delivered at this very moment may hold it a little longer; no more.
    for (int i = 0; i < 1000 && !released.expired(); ++i) std::this_thread::sleep_for(1ms);
    EXPECT_TRUE(released.expired());
    // A witness in the same chatroom tells when the event has gone out to everybody.
    auto witness = connectToLobby("");
    emulator().control("POST", "chatrooms/lobby/flush");
    ASSERT_TRUE(witness.application->waitFor("flushed"));
    std::this_thread::sleep_for(100ms);  // alice's copy arrives at the same time, to nobody

    auto successor = std::make_shared<Application>();
    alice.manager->setEventDelegate(successor, alice.chat);
    emulator().control("POST", "chatrooms/lobby/flush");
    EXPECT_TRUE(successor->waitFor("flushed"));
    std::this_thread::sleep_for(50ms);
    EXPECT_EQ(successor->count("flushed"), 1u);
}

TEST_F(ChatManagerFlow, TheManagerMayBeDroppedInsideItsOwnCallback) {
    struct Dropper : Application {
        std::shared_ptr<TVKChatManager> manager;
        void chatroomConnected(const std::shared_ptr<TVKChat>& chat) override {
            manager.reset();
            Application::chatroomConnected(chat);
        }
    };
    auto dropper = std::make_shared<Dropper>();
    dropper->manager = makeManager();
    std::weak_ptr<TVKChatManager> watched = dropper->manager;
    dropper->manager->connectToChatroom("lobby", jwtOf("carol"), 0, dropper);
    ASSERT_TRUE(dropper->waitFor("connected"));
    for (int i = 0; i < 500 && !watched.expired(); ++i) std::this_thread::sleep_for(1ms);
    EXPECT_TRUE(watched.expired());
    // The chatroom went with it: its socket closes.
    for (int i = 0; i < 500; ++i) {
        auto sockets = emulator().control("GET", "chatrooms/lobby/sockets");
        if (sockets.at("sockets").as_array().empty()) break;
        std::this_thread::sleep_for(2ms);
    }
    EXPECT_TRUE(
        emulator().control("GET", "chatrooms/lobby/sockets").at("sockets").as_array().empty());
}

}  // namespace
}  // namespace tavlo
