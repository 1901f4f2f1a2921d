// The log of a whole session at trace level against the emulator: what it tells, and that not
// one of the credentials the emulator issued or received appears in any line.

#include <gtest/gtest.h>

#include <condition_variable>
#include <mutex>
#include <set>

#include "TavloCoreSDK/TVKLog.hpp"
#include "TavloCoreSDK/TVKSDKAuthManager.hpp"
#include "TavloMessagingSDK/Internal/TVKMessagingHTTPClient.hpp"
#include "TavloMessagingSDK/TVKChatManager.hpp"
#include "TavloMessagingSDK/TVKChatMessage.hpp"
#include "TavloMessagingSDK/TVKGetMessagesConfiguration.hpp"
#include "tests/support/Await.hpp"
#include "tests/support/Emulator.hpp"

namespace tavlo {
namespace {

using namespace std::chrono_literals;
namespace json = boost::json;

struct LogLine {
    TVKLogLevel level;
    std::string component;
    std::string text;
};

/// Collects every line while it lives; the SDK is silent again afterwards.
class CapturedLog {
  public:
    explicit CapturedLog(TVKLogLevel level) {
        TVKLog::setLevel(level);
        TVKLog::setSink(
            [this](TVKLogLevel lineLevel, std::string_view component, std::string_view text) {
                std::lock_guard lock(mutex_);
                lines_.push_back({lineLevel, std::string(component), std::string(text)});
            });
    }
    ~CapturedLog() {
        TVKLog::setSink(nullptr);
        TVKLog::setLevel(TVKLogLevel::info);
    }
    std::vector<LogLine> lines() const {
        std::lock_guard lock(mutex_);
        return lines_;
    }
    bool contains(std::string_view component, std::string_view text) const {
        std::lock_guard lock(mutex_);
        return std::any_of(lines_.begin(), lines_.end(), [&](const LogLine& line) {
            return line.component == component && line.text.find(text) != std::string::npos;
        });
    }

  private:
    mutable std::mutex mutex_;
    std::vector<LogLine> lines_;
};

/// Waits for the chatroom to connect, then to connect again after a drop.
class Connections : public TVKChatEventDelegate {
  public:
    void chatroomConnected(const std::shared_ptr<TVKChat>& chat) override {
        std::lock_guard lock(mutex_);
        chat_ = chat;
        ++connected_;
        changed_.notify_all();
    }
    void chatroomDisconnected(const std::shared_ptr<TVKChat>&) override {
        std::lock_guard lock(mutex_);
        disconnected_ = true;
        changed_.notify_all();
    }
    std::shared_ptr<TVKChat> waitForConnection(int count) {
        std::unique_lock lock(mutex_);
        changed_.wait_for(lock, 20s, [&] { return connected_ >= count; });
        return connected_ >= count ? chat_ : nullptr;
    }
    bool waitForDisconnection() {
        std::unique_lock lock(mutex_);
        return changed_.wait_for(lock, 20s, [&] { return disconnected_; });
    }

  private:
    std::mutex mutex_;
    std::condition_variable changed_;
    std::shared_ptr<TVKChat> chat_;
    int connected_ = 0;
    bool disconnected_ = false;
};

class SessionLog : public test::EmulatorTest {
  protected:
    void SetUp() override {
        EmulatorTest::SetUp();
        useDemoAccount();
        refreshMemberTokensThroughEmulator();
    }

    /// Every credential the emulator issued or was sent: API tokens, member JWTs (each one
    /// minted), user tokens (from the requests and socket handshakes it logged), the REST key,
    /// and the account token of the SDK.
    static std::set<std::string> credentials() {
        std::set<std::string> found{TVKMessagingHTTPClient::kRestAPIKey,
                                    TVKSDKAuthManager::sharedManager().accountToken().value_or("")};
        const auto tokens = emulator().control("GET", "api-tokens");
        for (const auto& entry : tokens.at("tokens").as_array()) {
            found.insert(test::text(entry.at("token")));
        }
        const auto members = emulator().control("GET", "members");
        for (const auto& entry : members.at("members").as_array()) {
            found.insert(test::text(entry.at("jwt")));
        }
        for (const char* kind : {"http", "socket"}) {
            auto log = emulator().control("GET", std::string("/_control/requests?kind=") + kind);
            collectUnder({"userToken", "token", "authorization", "x-restapi-key", "jwt"}, log,
                         found);
        }
        found.erase("");
        return found;
    }

    /// Adds every string found under one of `names` anywhere in `value`; an "Authorization"
    /// header gives its token too.
    static void collectUnder(const std::set<std::string>& names, const json::value& value,
                             std::set<std::string>& found) {
        if (const auto* array = value.if_array()) {
            for (const auto& element : *array) collectUnder(names, element, found);
            return;
        }
        const auto* object = value.if_object();
        if (!object) return;
        for (const auto& [key, member] : *object) {
            if (names.count(std::string(key)) && member.is_string()) {
                std::string text(member.get_string());
                if (text.rfind("Bearer ", 0) == 0) found.insert(text.substr(7));
                found.insert(text);
            }
            collectUnder(names, member, found);
        }
    }
};

TEST_F(SessionLog, AWholeSessionAtTraceLevelTellsEverythingButTheCredentials) {
    CapturedLog log(TVKLogLevel::trace);
    auto manager = TVKChatManager::create();
    manager->setHTTPHostURL(emulator().url());
    manager->setTimeScale(0.01);
    auto connections = std::make_shared<Connections>();
    const auto firstJWT = jwtOf("alice");  // expired below; the emulator then lists the next
    manager->connectToChatroom("lobby", firstJWT, 0, connections);
    auto chat = connections->waitForConnection(1);
    ASSERT_TRUE(chat);

    // Operations, one of them refused by the service, with stale credentials on the way.
    EXPECT_TRUE(test::awaitDone([&](auto done, auto failed) {
                    manager->sendMessage("Hello, log", chat, done, failed);
                }).succeeded);
    emulator().control("POST", "api-tokens/expire", json::object{});
    auto page = std::make_shared<TVKGetMessagesConfiguration>();
    auto listed = test::await([&](auto done, auto failed) {
        manager->getMessagesForChatroom(
            chat, "text", page, [done](const TVKMessageListing&) { done(nullptr); }, failed);
    });
    EXPECT_TRUE(listed.succeeded) << test::describe(listed);
    EXPECT_TRUE(test::awaitDone([&](auto done, auto failed) {
                    manager->setMetadataValue(json::value("Log day"), "topic", chat, true, done,
                                              failed);
                }).succeeded);
    emulator().control("POST", "jwt/expire", json::object{{"memberId", "alice"}});
    emulator().control(
        "POST", "faults",
        json::object{
            {"pathPrefix", "/get-users-by-chat/"}, {"status", 500}, {"code", "DataAccessError"}});
    EXPECT_FALSE(test::await([&](auto done, auto failed) {
                     manager->getUsersForChatroom(
                         chat, TVKChatUserTypeOnline,
                         [done](const TVKChatUsers&) { done(nullptr); }, failed);
                 }).succeeded);
    auto archive =
        TVKGetArchivedMessagesConfiguration::configurationWithArchiveId("lobby-archive-2023");
    archive.setStart(1685610000000);
    archive.setEnd(1685610180000);
    EXPECT_TRUE(test::await([&](auto done, auto failed) {
                    manager->getArchivedMessagesForChatroom(
                        "lobby", archive, [done](const auto&) { done(nullptr); }, failed);
                }).succeeded);

    // A dropped realtime channel, a reconnection, then leaving.
    emulator().control("POST", "chatrooms/lobby/sockets/drop", json::object{{"mode", "kill"}});
    chat = connections->waitForConnection(2);
    ASSERT_TRUE(chat);
    manager->disconnectFromChatroom(chat);
    ASSERT_TRUE(connections->waitForDisconnection());

    const std::pair<const char*, const char*> expectedLines[] = {
        {"manager", "lobby: connecting"},
        {"chat", "lobby: connecting -> connected (subscribed)"},
        {"chat", "connected -> ready (realtime channel lost)"},
        {"manager", "reconnect attempt 1 of 7 in 500 ms"},
        {"chat", "disconnecting -> ready (disconnected as asked)"},
        {"http", "POST http://127.0.0.1:"},
        {"http", "/add-user-message-to-chat/*** -> 200 in "},
        {"http", "msgType=text"},
        {"http", "userToken=***"},
        {"http", "-> 409 in "},  // the expired API token
        {"http", "API token missing or refused"},
        {"http", "member JWT refused"},
        {"http", "/meta -> 200"},  // the archive service
        {"http", "/get-users-by-chat/***?chatId="},
        {"manager", "operation failed: TVKMSGErrorDomain(15)"},
        {"socket", "open http://127.0.0.1:"},
        {"socket", "out subscribe"},
        {"socket", "in subscribed"},
        {"socket", "in meta"},
    };
    for (const auto& [component, text] : expectedLines) {
        EXPECT_TRUE(log.contains(component, text)) << component << ": " << text;
    }

    auto secrets = credentials();
    secrets.insert(firstJWT);
    EXPECT_GE(secrets.size(), 8u);  // key, account token, 2+ API tokens, JWTs, user tokens
    const auto lines = log.lines();
    for (const auto& line : lines) {
        for (const auto& secret : secrets) {
            ASSERT_EQ(line.text.find(secret), std::string::npos)
                << "a credential in the " << line.component << " line: " << line.text;
        }
    }
}

}  // namespace
}  // namespace tavlo
