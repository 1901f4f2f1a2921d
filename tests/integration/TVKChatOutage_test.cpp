// How a chatroom lives through the service failing the way services do in production: a
// restart that forgets every token, a subscription refused or never confirmed, a service that
// cannot be reached or never answers, an upgrade that hangs, an answer lost after the request
// was carried out. Every case ends either connected again, with events flowing and a send that
// succeeds, or in exactly one report. Retries run on a clock scaled by 1/20, so the whole
// schedule (63.5 s) takes about 3 s.

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <condition_variable>
#include <cstdlib>
#include <iostream>
#include <mutex>
#include <thread>

#include "TavloCoreSDK/TVKSDKAuthManager.hpp"
#include "TavloMessagingSDK/TVKChatManager.hpp"
#include "TavloMessagingSDK/TVKChatMessage.hpp"
#include "TavloMessagingSDK/TVKMSGError.hpp"
#include "tests/support/Await.hpp"
#include "tests/support/Emulator.hpp"
#include "tests/support/EventLog.hpp"

namespace tavlo {
namespace {

using namespace std::chrono_literals;
namespace json = boost::json;
using test::Emulator;
using test::text;

/// TAVLO_OUTAGE_CLOCK_SCALE=1 plays the schedule in real time, to measure recovery times.
double clockScale() {
    const char* scale = std::getenv("TAVLO_OUTAGE_CLOCK_SCALE");
    return scale ? std::atof(scale) : 0.05;
}
const double kClockScale = clockScale();
/// Long enough for every attempt of the schedule, its time-outs and a loaded machine.
const auto kWholeSchedule = std::chrono::milliseconds(30000) +
                            std::chrono::milliseconds(static_cast<long>(kClockScale * 400000));

/// Real-time length of `duration` on the scaled clock.
std::chrono::milliseconds scaled(std::chrono::milliseconds duration) {
    return std::chrono::milliseconds(static_cast<long>(duration.count() * kClockScale));
}

/// Prints how long an outcome took, in the schedule's own (unscaled) time.
void noteTime(const char* what, std::chrono::steady_clock::time_point since) {
    const auto taken = std::chrono::duration<double>(std::chrono::steady_clock::now() - since);
    std::cout << "[ outage   ] " << what << " after " << taken.count() / kClockScale
              << " s of the schedule\n";
}

/// A loopback port with a listener that completes TCP connections and never reads or answers.
class SilentHost {
  public:
    SilentHost() : fd_(::socket(AF_INET, SOCK_STREAM, 0)) {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof address;
        if (::bind(fd_, reinterpret_cast<sockaddr*>(&address), length) != 0 ||
            ::listen(fd_, 64) != 0 ||
            ::getsockname(fd_, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
            throw std::runtime_error("no silent host");
        }
        port_ = ntohs(address.sin_port);
    }
    ~SilentHost() { ::close(fd_); }
    int port() const { return port_; }

  private:
    int fd_;
    int port_ = 0;
};

/// A loopback port nobody listens on (it was free a moment ago).
int closedPort() {
    SilentHost host;
    return host.port();
}

class ChatOutage : public ::testing::Test {
  protected:
    void SetUp() override {
        auto& auth = TVKSDKAuthManager::sharedManager();
        auth.setAccountId("demo-account");
        auth.setAccountToken("demo-account-token");
        manager = TVKChatManager::create();
        manager->setTimeScale(kClockScale);
        manager->setSocketConnectTimeout(5s);
    }

    /// Starts (or, after `kill`, restarts) the service; on `port` when given.
    Emulator& startService(int port = 0) {
        std::vector<std::string> arguments;
        if (port) arguments = {"--port", std::to_string(port)};
        service = std::make_unique<Emulator>(false, arguments);
        return *service;
    }

    /// The lobby connected as a guest through the service.
    void connectToLobby() {
        manager->setHTTPHostURL(service->url());
        manager->connectToChatroom("lobby", "", 0, listener);
        ASSERT_TRUE(listener->waitFor("connected"));
    }

    /// The chatroom is live: a message the service announces arrives, and one sent succeeds.
    void expectLive(std::size_t connections) {
        auto chat = listener->chat();
        ASSERT_TRUE(chat);
        EXPECT_TRUE(manager->isChatroomConnected(chat));
        EXPECT_EQ(listener->count("connected"), connections);
        service->control("POST", "chatrooms/lobby/messages",
                         json::object{{"messages", json::array{json::object{{"text", "ping"}}}},
                                      {"announce", true}});
        EXPECT_TRUE(listener->waitFor("message:ping", 1, 10s));
        auto sent = test::awaitDone(
            [&](auto done, auto fail) { manager->sendMessage("pong", chat, done, fail); });
        EXPECT_TRUE(sent.succeeded) << test::describe(sent);
    }

    /// Checks, a little after the report, that it stays the only one.
    void expectOneReport(const std::string& name, long code) {
        ASSERT_TRUE(listener->waitFor(name));
        std::this_thread::sleep_for(300ms);
        EXPECT_EQ(listener->count("error") + listener->count("failToConnect"), 1u);
        EXPECT_EQ(listener->count("connected"), name == "error" ? 1u : 0u);
        ASSERT_TRUE(listener->report());
        EXPECT_EQ(listener->report()->code, code) << listener->report()->describe();
    }

    std::size_t subscriptions() const {
        auto log = service->control("GET", "/_control/requests?kind=socket");
        std::size_t count = 0;
        for (const auto& entry : log.at("requests").as_array()) {
            const auto* event = entry.as_object().if_contains("event");
            if (event && text(*event) == "subscribe") ++count;
        }
        return count;
    }

    std::unique_ptr<Emulator> service;
    std::shared_ptr<TVKChatManager> manager;
    std::shared_ptr<test::EventLog> listener = std::make_shared<test::EventLog>(kWholeSchedule);
};

TEST_F(ChatOutage, TheServiceRestartsAndTheChatroomComesBack) {
    startService();
    connectToLobby();
    const int port = service->port();
    const auto killed = std::chrono::steady_clock::now();
    service->kill();
    // Twenty seconds of the schedule pass while the port refuses.
    std::this_thread::sleep_for(scaled(20s));
    startService(port);
    // The old user token is refused on the restarted service; a full reconnection joins anew.
    ASSERT_TRUE(listener->waitFor("connected", 2));
    noteTime("restart after 20 s: connected again", killed);
    EXPECT_EQ(service->requests("/add-users-to-chat/").size(), 1u);
    expectLive(2);
    EXPECT_EQ(listener->count("error"), 0u);
}

TEST_F(ChatOutage, AnOutageLongerThanTheScheduleIsReportedOnce) {
    startService();
    connectToLobby();
    const auto killed = std::chrono::steady_clock::now();
    service->kill();
    expectOneReport("error", TVKMSGErrorInternal);
    noteTime("outage beyond the schedule: reported", killed);
    EXPECT_FALSE(manager->isChatroomConnected(listener->chat()));
}

TEST_F(ChatOutage, ARefusedSubscriptionEscalatesToAFullReconnection) {
    startService();
    connectToLobby();
    // The service forgets the user (and its token), then the socket drops.
    auto sockets = service->control("GET", "chatrooms/lobby/sockets").at("sockets").as_array();
    ASSERT_EQ(sockets.size(), 1u);
    const auto label = text(sockets.front().at("label"));
    service->control("DELETE", "chatrooms/lobby/users/" + label);
    service->clearRequests();
    const auto dropped = std::chrono::steady_clock::now();
    service->control("POST", "chatrooms/lobby/sockets/drop", json::object{{"mode", "kill"}});
    ASSERT_TRUE(listener->waitFor("connected", 2));
    noteTime("refused subscription: connected again", dropped);
    EXPECT_EQ(service->requests("/get-chat-profile-by-channel/").size(), 1u);
    EXPECT_EQ(service->requests("/add-users-to-chat/").size(), 1u);
    expectLive(2);
}

TEST_F(ChatOutage, AnUnconfirmedSubscriptionCountsAsALostConnection) {
    startService();
    service->control("POST", "subscribed/hold", json::object{{"chat", "lobby"}});
    manager->setHTTPHostURL(service->url());
    const auto started = std::chrono::steady_clock::now();
    manager->connectToChatroom("lobby", "", 0, listener);
    // Not connected while unconfirmed, and every attempt of the schedule waits its limit.
    expectOneReport("failToConnect", TVKMSGErrorInternal);
    noteTime("subscription never confirmed: reported", started);
    EXPECT_EQ(subscriptions(), 1 + TVKReconnectAttemptLimit);
}

TEST_F(ChatOutage, ASubscriptionConfirmedAtALaterAttemptConnects) {
    startService();
    service->control("POST", "subscribed/hold", json::object{{"chat", "lobby"}});
    manager->setHTTPHostURL(service->url());
    manager->connectToChatroom("lobby", "", 0, listener);
    for (int i = 0; i < 1000 && subscriptions() == 0; ++i) std::this_thread::sleep_for(5ms);
    auto chat = manager->chatForChatroomName("lobby", false);
    EXPECT_FALSE(manager->isChatroomConnected(chat));
    service->control("POST", "subscribed/hold", json::object{{"chat", "lobby"}, {"hold", false}});
    ASSERT_TRUE(listener->waitFor("connected"));
    EXPECT_GE(subscriptions(), 2u);
    expectLive(1);
}

TEST_F(ChatOutage, AServiceUnreachableAtTheFirstConnectIsRetriedUntilItAnswers) {
    const int port = closedPort();
    manager->setHTTPHostURL("http://127.0.0.1:" + std::to_string(port));
    const auto started = std::chrono::steady_clock::now();
    manager->connectToChatroom("lobby", "", 0, listener);
    std::this_thread::sleep_for(scaled(6s));
    startService(port);
    ASSERT_TRUE(listener->waitFor("connected"));
    noteTime("unreachable for 6 s at the first connect: connected", started);
    // Nobody had joined, so nobody took leave.
    EXPECT_EQ(service->requests("/remove-users-from-chat/").size(), 0u);
    expectLive(1);
}

TEST_F(ChatOutage, AServiceThatNeverAnswersEndsInOneNetworkError) {
    SilentHost host;
    manager->setRequestTimeout(150ms);
    manager->setHTTPHostURL("http://127.0.0.1:" + std::to_string(host.port()));
    const auto started = std::chrono::steady_clock::now();
    manager->connectToChatroom("lobby", "", 0, listener);
    expectOneReport("failToConnect", TVKMSGErrorNetworkNoConnection);
    noteTime("silent host (150 ms request time-out): reported", started);
    EXPECT_TRUE(listener->report()->underlyingError);
    EXPECT_FALSE(manager->chatForChatroomName("lobby", false));
}

TEST_F(ChatOutage, AHangingUpgradeIsRetried) {
    startService();
    connectToLobby();
    service->control("POST", "sockets/refuse", json::object{{"mode", "hang"}, {"count", 2}});
    const auto dropped = std::chrono::steady_clock::now();
    service->control("POST", "chatrooms/lobby/sockets/drop", json::object{{"mode", "kill"}});
    ASSERT_TRUE(listener->waitFor("connected", 2));
    noteTime("two hung upgrades: connected again", dropped);
    expectLive(2);
}

TEST_F(ChatOutage, AnAnswerLostAfterTheRequestWasCarriedOutIsNotSentAgain) {
    startService();
    connectToLobby();
    auto chat = listener->chat();
    // A first send leaves a kept-alive connection for the next one to reuse.
    auto first = test::awaitDone(
        [&](auto done, auto fail) { manager->sendMessage("first", chat, done, fail); });
    ASSERT_TRUE(first.succeeded) << test::describe(first);
    service->control(
        "POST", "faults",
        json::object{{"pathPrefix", "/add-user-message-to-chat/"}, {"dropAnswer", true}});
    service->clearRequests();
    auto lost = test::awaitDone(
        [&](auto done, auto fail) { manager->sendMessage("once", chat, done, fail); });
    ASSERT_TRUE(lost.error) << test::describe(lost);
    EXPECT_EQ(lost.error->code, TVKMSGErrorNetworkNoConnection);
    EXPECT_EQ(service->requests("/add-user-message-to-chat/").size(), 1u);
    const auto stored = service->control("GET", "chatrooms/lobby/messages");
    const auto& messages = stored.at("messages").as_array();
    EXPECT_EQ(std::count_if(messages.begin(), messages.end(),
                            [](const json::value& message) {
                                const auto* value = message.as_object().if_contains("text");
                                return value && text(*value) == "once";
                            }),
              1);
}

TEST_F(ChatOutage, DisconnectingWhileReconnectingStopsTheReconnection) {
    startService();
    connectToLobby();
    auto chat = listener->chat();
    service->control("POST", "sockets/refuse", json::object{{"mode", "hang"}});
    service->control("POST", "chatrooms/lobby/sockets/drop", json::object{{"mode", "kill"}});
    for (int i = 0; i < 1000 && manager->isChatroomConnected(chat); ++i) {
        std::this_thread::sleep_for(2ms);
    }
    manager->disconnectFromChatroom(chat);
    ASSERT_TRUE(listener->waitFor("disconnected", 1, 5s));
    service->control("POST", "sockets/refuse", json::object{{"mode", "off"}});
    std::this_thread::sleep_for(scaled(20s));
    EXPECT_EQ(listener->count("connected"), 1u);
    EXPECT_EQ(listener->count("disconnected"), 1u);
    EXPECT_EQ(listener->count("error"), 0u);
    EXPECT_FALSE(manager->chatForChatroomName("lobby", false));
    EXPECT_TRUE(
        service->control("GET", "chatrooms/lobby/sockets").at("sockets").as_array().empty());
}

TEST_F(ChatOutage, TheManagerMayBeDroppedWhileReconnecting) {
    startService();
    connectToLobby();
    const int port = service->port();
    service->kill();
    std::this_thread::sleep_for(100ms);
    startService(port);
    // Somewhere in the escalation: a refused subscription, a farewell, a join.
    std::this_thread::sleep_for(60ms);
    std::weak_ptr<TVKChatManager> watched = manager;
    manager.reset();
    for (int i = 0; i < 500 && !watched.expired(); ++i) std::this_thread::sleep_for(2ms);
    EXPECT_TRUE(watched.expired());
    // Whatever was under way ends quietly: nothing is reported as failed.
    std::this_thread::sleep_for(300ms);
    EXPECT_EQ(listener->count("error") + listener->count("failToConnect"), 0u);
}

}  // namespace
}  // namespace tavlo
