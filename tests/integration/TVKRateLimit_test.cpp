// The service asking the SDK to slow down (429, with Retry-After in seconds or as a date): the
// SDK's own retries wait as long as asked, up to the schedule's longest pause and within its
// attempt limit, and the error an application receives for a 429 says how long to wait. Retries
// run on a clock that writes down each pause and plays it a hundred times faster.

#include <gtest/gtest.h>

#include <condition_variable>
#include <mutex>

#include "TavloCoreSDK/TVKSDKAuthManager.hpp"
#include "TavloMessagingSDK/TVKChatManager.hpp"
#include "TavloMessagingSDK/TVKChatMessage.hpp"
#include "TavloMessagingSDK/TVKMSGError.hpp"
#include "tests/support/Access.hpp"
#include "tests/support/Await.hpp"
#include "tests/support/Emulator.hpp"
#include "tests/support/RecordingScheduler.hpp"

namespace tavlo {
namespace {

using namespace std::chrono_literals;
namespace json = boost::json;

/// What the application heard: reconnection announcements with their pauses, final reports.
class Listener : public TVKChatEventDelegate {
  public:
    void chatroomConnected(const std::shared_ptr<TVKChat>& chat) override {
        std::lock_guard lock(mutex_);
        chat_ = chat;
        ++connected_;
        changed_.notify_all();
    }
    void chatroomFailToConnect(const std::shared_ptr<TVKChat>&, const TVKError& error) override {
        std::lock_guard lock(mutex_);
        report_ = error;
        changed_.notify_all();
    }
    void chatroomReconnecting(const std::shared_ptr<TVKChat>&, unsigned,
                              std::chrono::milliseconds delay) override {
        std::lock_guard lock(mutex_);
        pauses_.push_back(delay);
    }
    bool waitUntil(const std::function<bool()>& condition) {
        std::unique_lock lock(mutex_);
        return changed_.wait_for(lock, 30s, condition);
    }
    std::shared_ptr<TVKChat> connected() {
        waitUntil([&] { return connected_ > 0 || report_; });
        std::lock_guard lock(mutex_);
        return chat_;
    }
    std::optional<TVKError> failure() {
        waitUntil([&] { return connected_ > 0 || report_; });
        std::lock_guard lock(mutex_);
        return report_;
    }
    std::vector<std::chrono::milliseconds> pauses() {
        std::lock_guard lock(mutex_);
        return pauses_;
    }

  private:
    std::mutex mutex_;
    std::condition_variable changed_;
    std::shared_ptr<TVKChat> chat_;
    int connected_ = 0;
    std::optional<TVKError> report_;
    std::vector<std::chrono::milliseconds> pauses_;
};

class RateLimit : public test::EmulatorTest {
  protected:
    void SetUp() override {
        EmulatorTest::SetUp();
        useDemoAccount();
        manager = TVKChatManager::create();
        manager->setHTTPHostURL(emulator().url());
        testing::Access::setTime(*manager, scheduler);
        // The connect time-out runs on the same fast clock: kept at 30 s of real time.
        manager->setSocketConnectTimeout(3000s);
    }

    /// The next `count` requests to `path` answer 429 asking for `retryAfter`; `code` null sends
    /// a bare 429, which the SDK retries like any unknown failure.
    void rateLimit(const std::string& path, json::value retryAfter, json::value code = nullptr,
                   int count = 1) {
        emulator().control("POST", "faults",
                           json::object{{"pathPrefix", path},
                                        {"rateLimit", true},
                                        {"code", code},
                                        {"retryAfter", retryAfter},
                                        {"count", count}});
    }

    std::shared_ptr<test::RecordingScheduler<dispatch::TimerScheduler>> scheduler =
        std::make_shared<test::RecordingScheduler<dispatch::TimerScheduler>>(0.01);
    std::shared_ptr<Listener> listener = std::make_shared<Listener>();
    std::shared_ptr<TVKChatManager> manager;
};

TEST_F(RateLimit, ConnectingWaitsAsLongAsTheServiceAsks) {
    struct Case {
        json::value retryAfter;
        std::chrono::milliseconds pause;
    };
    const std::vector<Case> cases = {
        {5, 5s}, {0, 0ms}, {3600, 32s},  // the schedule's longest pause at most
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(json::serialize(c.retryAfter));
        emulator().reset();
        listener = std::make_shared<Listener>();
        manager = TVKChatManager::create();
        manager->setHTTPHostURL(emulator().url());
        testing::Access::setTime(*manager, scheduler);
        manager->setSocketConnectTimeout(3000s);
        rateLimit("/get-chat-profile-by-channel/", c.retryAfter, nullptr, 2);
        manager->connectToChatroom("lobby", "", 0, listener);
        ASSERT_TRUE(listener->connected()) << listener->failure()->describe();
        // Two refusals, two pauses, both the one asked for instead of 0.5 s and 1 s.
        EXPECT_EQ(listener->pauses(), (std::vector<std::chrono::milliseconds>{c.pause, c.pause}));
        EXPECT_TRUE(scheduler->asked(c.pause));
    }
}

TEST_F(RateLimit, AnHTTPDateIsReadAsTheTimeLeftUntilThen) {
    // Ten seconds from now, to the second, as the header writes it.
    const auto when = std::chrono::system_clock::to_time_t(std::chrono::system_clock::now() + 10s);
    char date[64];
    std::tm utc{};
    gmtime_r(&when, &utc);
    std::strftime(date, sizeof date, "%a, %d %b %Y %H:%M:%S GMT", &utc);
    rateLimit("/get-chat-profile-by-channel/", date);
    manager->connectToChatroom("lobby", "", 0, listener);
    ASSERT_TRUE(listener->connected());
    ASSERT_EQ(listener->pauses().size(), 1u);
    EXPECT_GE(listener->pauses()[0], 8s);
    EXPECT_LE(listener->pauses()[0], 10s);
}

TEST_F(RateLimit, TooManyRequestsReachesTheApplicationWithTheDelayAsked) {
    // Told "TooManyRequestsError" while connecting: reported at once (code 19), with the delay.
    rateLimit("/get-chat-profile-by-channel/", 7, "TooManyRequestsError");
    manager->connectToChatroom("lobby", "", 0, listener);
    auto report = listener->failure();
    ASSERT_TRUE(report);
    EXPECT_EQ(report->code, TVKMSGErrorTooManyRequests) << report->describe();
    EXPECT_EQ(report->retryAfter, 7s);
    EXPECT_TRUE(listener->pauses().empty());

    // An operation of the application's own: its failure says how long to wait.
    auto connected = std::make_shared<Listener>();
    auto other = TVKChatManager::create();
    other->setHTTPHostURL(emulator().url());
    other->connectToChatroom("lobby", "", 0, connected);
    auto chat = connected->connected();
    ASSERT_TRUE(chat);
    rateLimit("/add-user-message-to-chat/", 12, "TooManyRequestsError");
    auto sent =
        test::awaitDone([&](auto done, auto fail) { other->sendMessage("hi", chat, done, fail); });
    ASSERT_TRUE(sent.error);
    EXPECT_EQ(sent.error->code, TVKMSGErrorTooManyRequests);
    EXPECT_EQ(sent.error->retryAfter, 12s);
    // Without Retry-After there is nothing to tell.
    rateLimit("/add-user-message-to-chat/", nullptr, "TooManyRequestsError");
    sent =
        test::awaitDone([&](auto done, auto fail) { other->sendMessage("hi", chat, done, fail); });
    ASSERT_TRUE(sent.error);
    EXPECT_EQ(sent.error->code, TVKMSGErrorTooManyRequests);
    EXPECT_FALSE(sent.error->retryAfter);
}

TEST_F(RateLimit, TheAttemptLimitStillHolds) {
    // Every attempt refused: seven pauses of the asked length, then one report.
    rateLimit("/get-chat-profile-by-channel/", 2, nullptr, 100);
    manager->connectToChatroom("lobby", "", 0, listener);
    auto report = listener->failure();
    ASSERT_TRUE(report);
    EXPECT_EQ(report->retryAfter, 2s) << report->describe();
    EXPECT_EQ(listener->pauses(),
              std::vector<std::chrono::milliseconds>(TVKReconnectAttemptLimit, 2s));
}

}  // namespace
}  // namespace tavlo
