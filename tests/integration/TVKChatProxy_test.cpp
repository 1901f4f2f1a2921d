// A chatroom used from behind an HTTP proxy (tinyproxy on loopback, connecting out from
// 127.0.0.2 so that the emulator's request log tells proxied traffic from direct): every REST
// request and the realtime connection pass through it, over HTTP and HTTPS, whether the proxy is
// set on the manager or found in the environment; a proxy that refuses or is not there is a
// connectivity failure, retried on the schedule and reported with code 0 and the proxy's answer.

#include <gtest/gtest.h>

#include <algorithm>
#include <condition_variable>
#include <cstdlib>
#include <mutex>
#include <set>

#include "TavloCoreSDK/TVKLog.hpp"
#include "TavloCoreSDK/TVKSDKAuthManager.hpp"
#include "TavloMessagingSDK/TVKChatManager.hpp"
#include "TavloMessagingSDK/TVKChatMessage.hpp"
#include "TavloMessagingSDK/TVKMSGError.hpp"
#include "tests/support/Await.hpp"
#include "tests/support/Emulator.hpp"
#include "tests/support/EventLog.hpp"
#include "tests/support/Tinyproxy.hpp"

namespace tavlo {
namespace {

using namespace std::chrono_literals;
namespace json = boost::json;
using test::Tinyproxy;

/// Every line the SDK logs while it lives, at trace level.
class CapturedLog {
  public:
    CapturedLog() {
        TVKLog::setLevel(TVKLogLevel::trace);
        TVKLog::setSink([this](TVKLogLevel, std::string_view, std::string_view text) {
            std::lock_guard lock(mutex_);
            text_.append(text).append("\n");
        });
    }
    ~CapturedLog() {
        TVKLog::setSink(nullptr);
        TVKLog::setLevel(TVKLogLevel::info);
    }
    std::string text() const {
        std::lock_guard lock(mutex_);
        return text_;
    }

  private:
    mutable std::mutex mutex_;
    std::string text_;
};

/// Sets an environment variable for the life of the object.
class ScopedEnvironment {
  public:
    ScopedEnvironment(std::string name, const std::string& value) : name_(std::move(name)) {
        ::setenv(name_.c_str(), value.c_str(), 1);
    }
    ~ScopedEnvironment() { ::unsetenv(name_.c_str()); }

  private:
    std::string name_;
};

/// Where the emulator's HTTP requests and socket connections came from, one entry per address.
std::set<std::string> peers(const test::Emulator& emulator, const char* kind) {
    std::set<std::string> found;
    auto log = emulator.control("GET", std::string("requests?kind=") + kind);
    for (const auto& entry : log.at("requests").as_array()) {
        if (const auto* peer = entry.as_object().if_contains("peer")) {
            found.insert(std::string(peer->as_string()));
        }
    }
    return found;
}

template <class Base>
class ChatThroughProxy : public Base {
  public:
    /// A new manager and listener for the suite's emulator, with `proxy` set unless nullopt.
    void startOver(std::optional<std::string> proxy) {
        manager = TVKChatManager::create();
        manager->setHTTPHostURL(service().url());
        manager->setCAFile(service().caFile());
        manager->setTimeScale(0.01);
        if (proxy) manager->setProxy(*proxy);
        listener = std::make_shared<test::EventLog>();
        service().clearRequests();
    }

    /// Connects the lobby as a guest and checks that it lives: an event arrives, a send
    /// succeeds. (What the proxy costs in time is bench/ProxyConnect's to measure.)
    void connectAndUseLobby() {
        manager->connectToChatroom("lobby", "", 0, listener);
        EXPECT_TRUE(listener->waitFor("connected"));
        auto chat = listener->chat();
        if (!chat) return;
        service().control("POST", "chatrooms/lobby/messages",
                          json::object{{"messages", json::array{json::object{{"text", "hello"}}}},
                                       {"announce", true}});
        EXPECT_TRUE(listener->waitFor("message:hello", 1, 10s));
        auto sent = test::awaitDone(
            [&](auto done, auto fail) { manager->sendMessage("hi", chat, done, fail); });
        EXPECT_TRUE(sent.succeeded) << test::describe(sent);
    }

    void expectEverythingFrom(const std::string& address) {
        EXPECT_EQ(peers(service(), "http"), std::set<std::string>{address});
        EXPECT_EQ(peers(service(), "socket"), std::set<std::string>{address});
    }

    test::Emulator& service() { return Base::emulator(); }

    std::shared_ptr<test::EventLog> listener;
    std::shared_ptr<TVKChatManager> manager;

  protected:
    void SetUp() override {
        Base::SetUp();
        Base::useDemoAccount();
    }
};

using PlainChatThroughProxy = ChatThroughProxy<test::EmulatorTest>;
using TLSChatThroughProxy = ChatThroughProxy<test::TLSEmulatorTest>;

#define PROXY_TEST(name)                  \
    template <class Fixture>              \
    void name##Body(Fixture& fixture);    \
    TEST_F(PlainChatThroughProxy, name) { \
        name##Body(*this);                \
    }                                     \
    TEST_F(TLSChatThroughProxy, name) {   \
        name##Body(*this);                \
    }                                     \
    template <class Fixture>              \
    void name##Body(Fixture& f)

// The proxy set on the manager carries everything: REST requests and the socket come from the
// proxy's address.
PROXY_TEST(EverythingPassesThroughTheProxySetOnTheManager) {
    Tinyproxy proxy({"Bind 127.0.0.2"});
    f.startOver(proxy.url());
    f.connectAndUseLobby();
    f.expectEverythingFrom("127.0.0.2");
    EXPECT_GE(proxy.tunnelsTo(f.service().port()), 2u);

    // Without the proxy the traffic comes straight from the SDK: the check above can fail.
    f.startOver("");
    f.connectAndUseLobby();
    f.expectEverythingFrom("127.0.0.1");
}

// Unset on the manager, the environment decides the way libcurl reads it.
PROXY_TEST(TheEnvironmentNamesTheProxyUnlessNoProxyExemptsTheHost) {
    Tinyproxy proxy({"Bind 127.0.0.2", "BasicAuth alice s3cret"});
    const char* variable = f.service().tls() ? "HTTPS_PROXY" : "http_proxy";
    {
        ScopedEnvironment named(variable, proxy.url("alice:s3cret"));
        f.startOver(std::nullopt);
        f.connectAndUseLobby();
        f.expectEverythingFrom("127.0.0.2");
    }
    f.startOver(std::nullopt);
    ScopedEnvironment named("all_proxy", proxy.url("alice:s3cret"));
    ScopedEnvironment exempt("no_proxy", "localhost, 127.0.0.0/8");
    f.connectAndUseLobby();
    f.expectEverythingFrom("127.0.0.1");
}

// Refused by the proxy or unable to reach it, the chatroom is retried on the schedule, then
// reported once with code 0; the proxy's answer is in the underlying error, its password nowhere.
PROXY_TEST(AProxyThatRefusesOrIsGoneIsAConnectivityFailure) {
    Tinyproxy refusing({"ConnectPort 443"});
    Tinyproxy guarded({"BasicAuth alice s3cret"});
    struct Case {
        std::string proxy;
        std::string answer;
    };
    const std::vector<Case> cases = {
        {refusing.url(), "403"},
        {guarded.url("alice:wr0ng-pass"), "40"},
        {"http://127.0.0.1:" + std::to_string(test::unusedLoopbackPort()), ""},
    };
    CapturedLog log;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.proxy);
        f.startOver(c.proxy);
        auto listener = f.listener;
        f.manager->connectToChatroom("lobby", "", 0, listener);
        ASSERT_TRUE(listener->waitFor("failToConnect", 1, 60s));
        EXPECT_EQ(listener->count("reconnecting"), TVKReconnectAttemptLimit);
        auto report = listener->report();
        ASSERT_TRUE(report);
        EXPECT_EQ(report->code, TVKMSGErrorNetworkNoConnection) << report->describe();
        EXPECT_NE(report->describe().find(c.answer), std::string::npos) << report->describe();
        EXPECT_EQ(report->describe().find("wr0ng-pass"), std::string::npos);
    }
    EXPECT_EQ(log.text().find("wr0ng-pass"), std::string::npos);
    EXPECT_TRUE(f.service().requests().empty());
}

}  // namespace
}  // namespace tavlo
