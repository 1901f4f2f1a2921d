// A device that slept for hours: the API token and the member's JWT have both gone stale. The
// first request afterwards must still be carried out, with the application's refresher asked,
// and never more than twice on the wire; "sign in again" (code 9) only when even the refreshed
// JWT is refused.

#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <thread>

#include "TavloCoreSDK/TVKSDKAuthManager.hpp"
#include "TavloMessagingSDK/Internal/TVKJWTExpiry.hpp"
#include "TavloMessagingSDK/TVKChatManager.hpp"
#include "TavloMessagingSDK/TVKMSGError.hpp"
#include "tests/support/Await.hpp"
#include "tests/support/Emulator.hpp"

namespace tavlo {
namespace {

using namespace std::chrono_literals;
namespace json = boost::json;

class Connected : public TVKChatEventDelegate {
  public:
    void chatroomConnected(const std::shared_ptr<TVKChat>& chat) override {
        std::lock_guard lock(mutex_);
        chat_ = chat;
        changed_.notify_all();
    }
    std::shared_ptr<TVKChat> wait() {
        std::unique_lock lock(mutex_);
        changed_.wait_for(lock, 20s, [&] { return chat_ != nullptr; });
        return chat_;
    }

  private:
    std::mutex mutex_;
    std::condition_variable changed_;
    std::shared_ptr<TVKChat> chat_;
};

class CredentialRepair : public test::EmulatorTest {
  protected:
    void SetUp() override {
        EmulatorTest::SetUp();
        useDemoAccount();
        manager = TVKChatManager::create();
        manager->setHTTPHostURL(emulator().url());
    }

    /// Alice in the lobby with a JWT that expires in a few seconds; returns once it has.
    std::shared_ptr<TVKChat> connectThenSleepThroughTheJWT() {
        const auto jwt = std::string(
            emulator()
                .control("POST", "jwt", json::object{{"memberId", "alice"}, {"ttlSeconds", 6}})
                .at("jwt")
                .as_string());
        manager->connectToChatroom("lobby", jwt, 0, connected);
        auto chat = connected->wait();
        EXPECT_EQ(refreshes.load(), 0) << "the JWT expired while connecting: a slow machine";
        const auto expiry = jwtExpiry(jwt);
        EXPECT_TRUE(expiry);
        if (expiry) std::this_thread::sleep_until(*expiry + 200ms);
        // Hours asleep: the service forgot the API token too.
        emulator().control("POST", "api-tokens/expire", json::object{});
        emulator().clearRequests();
        return chat;
    }

    /// The sends the service received, by status.
    std::vector<std::int64_t> sendStatuses() {
        std::vector<std::int64_t> statuses;
        for (const auto& entry : emulator().requests("/add-user-message-to-chat/")) {
            statuses.push_back(entry.at("status").to_number<std::int64_t>());
        }
        return statuses;
    }

    std::atomic<int> refreshes{0};
    std::shared_ptr<Connected> connected = std::make_shared<Connected>();
    std::shared_ptr<TVKChatManager> manager;
};

TEST_F(CredentialRepair, BothStaleTheFirstSendIsRepairedOnceAndCarriedOut) {
    refreshMemberTokensThroughEmulator([this] { ++refreshes; });
    auto chat = connectThenSleepThroughTheJWT();
    ASSERT_TRUE(chat);
    auto sent = test::awaitDone(
        [&](auto done, auto fail) { manager->sendMessage("good morning", chat, done, fail); });
    EXPECT_TRUE(sent.succeeded) << test::describe(sent);
    EXPECT_EQ(refreshes.load(), 1);
    // Refused for the API token, then carried out: twice on the wire, not three times.
    EXPECT_EQ(sendStatuses(), (std::vector<std::int64_t>{409, 200}));
    EXPECT_EQ(emulator().requests("/api-tokens").size(), 1u);
}

TEST_F(CredentialRepair, SignInAgainOnlyWhenTheRefreshedJWTIsRefused) {
    // The application's refresher hands back a JWT the service refuses too.
    TVKSDKAuthManager::sharedManager().setMemberTokenRefresher(
        [this](const std::optional<std::string>&, auto success, auto) {
            ++refreshes;
            success(std::string(
                emulator()
                    .control("POST", "jwt", json::object{{"memberId", "alice"}, {"expired", true}})
                    .at("jwt")
                    .as_string()));
        });
    auto chat = connectThenSleepThroughTheJWT();
    ASSERT_TRUE(chat);
    auto sent = test::awaitDone(
        [&](auto done, auto fail) { manager->sendMessage("good morning", chat, done, fail); });
    ASSERT_TRUE(sent.error) << test::describe(sent);
    EXPECT_EQ(sent.error->code, TVKMSGErrorUnauthorized);
    EXPECT_EQ(refreshes.load(), 1);
    EXPECT_EQ(sendStatuses(), (std::vector<std::int64_t>{409, 401}));
}

}  // namespace
}  // namespace tavlo
