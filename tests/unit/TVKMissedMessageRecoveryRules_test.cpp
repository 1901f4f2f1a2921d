// The recovery's own decisions, against a message list that answers when the test says so: the
// starting point taken before the socket opens, and the bound on what waits during a listing.

#include "TavloMessagingSDK/Internal/TVKMissedMessageRecovery.hpp"

#include <gtest/gtest.h>

#include "Dispatch/SerialQueue.hpp"
#include "TavloMessagingSDK/Internal/TVKChatSession.hpp"
#include "TavloMessagingSDK/Internal/TVKMessagingError.hpp"
#include "TavloMessagingSDK/TVKChatMessage.hpp"

namespace tavlo {
namespace {

namespace json = boost::json;
using Recovery = TVKMissedMessageRecovery;

constexpr std::int64_t kStart = 1714564800000;  // 2024-05-01T12:00:00.000+0000

std::shared_ptr<TVKChatMessage> messageAt(const std::string& id, int secondsAfterStart) {
    char stamp[64];
    std::snprintf(stamp, sizeof stamp, "2024-05-01T12:00:%02d.000+0000", secondsAfterStart);
    return TVKChatMessage::withJSON<TVKChatMessage>(
        json::object{{"id", id}, {"createdDate", stamp}, {"text", id}});
}

/// What the recovery hands on, and the list requests it leaves for the test to answer.
struct Application {
    std::vector<std::string> heard;
    std::vector<TVKMissedMessagesGap> gaps;
    int caughtUp = 0;
    struct Request {
        json::object query;
        std::function<void(const TVKMissedMessageFetch::Messages&)> success;
        std::function<void(const TVKError&)> failure;
    };
    std::vector<Request> requests;

    Recovery::Output output() {
        Recovery::Output output;
        output.event = [this](const auto&, TVKChatEvent event) {
            if (auto* added = std::get_if<chat_event::MessageAdded>(&event)) {
                heard.push_back(*added->message->messageId());
            } else if (auto* raw = std::get_if<chat_event::RawDataAdded>(&event)) {
                heard.push_back(*raw->message->messageId());
            } else if (auto* removed = std::get_if<chat_event::MessageRemoved>(&event)) {
                heard.push_back("removed " + removed->messageId);
            } else if (auto* gap = std::get_if<chat_event::MissedMessagesGap>(&event)) {
                gaps.push_back(gap->gap);
            }
        };
        output.retry = [](unsigned, std::optional<std::chrono::seconds>, std::function<void()>) {
            return false;
        };
        output.listPage = [this](const auto&, const json::object& query, auto success,
                                 auto failure) {
            requests.push_back({query, success, failure});
        };
        output.caughtUp = [this](const auto&) { ++caughtUp; };
        return output;
    }
};

class MissedMessageRecovery : public ::testing::Test {
  protected:
    void SetUp() override {
        TVKChatEnvironment environment;
        environment.queue = dispatch::SerialQueue::create("test");
        chat = TVKChatSession::chatForChannel("lobby", "demo-account", "", "http://127.0.0.1:9",
                                              environment);
        recovery->enable(application.output());
    }

    /// The starting point taken before the socket opens: the newest message is "seen".
    void connectWithStartingPoint() {
        bool opened = false;
        recovery->beforeSocketOpens(chat, [&] { opened = true; });
        ASSERT_EQ(application.requests.size(), 2u);  // the newest text, the newest raw data
        EXPECT_EQ(application.requests[0].query.at("order"), "desc");
        application.requests[0].success({messageAt("seen", 0)});
        EXPECT_FALSE(opened) << "opened before the starting point was known";
        application.requests[1].success({});
        EXPECT_TRUE(opened);
        application.requests.clear();
        recovery->chatConnected(chat);
    }

    std::shared_ptr<Recovery> recovery = std::make_shared<Recovery>();
    Application application;
    std::shared_ptr<TVKChat> chat;
};

TEST_F(MissedMessageRecovery, TheFirstSubscriptionRecoversFromTheStartingPointAndMergesTheLive) {
    connectWithStartingPoint();
    ASSERT_TRUE(recovery->isRecovering(chat));
    // Live meanwhile: one that the listing also holds, one newer.
    EXPECT_TRUE(recovery->intercept(chat, messageAt("greeting", 2), Recovery::Kind::text));
    EXPECT_TRUE(recovery->intercept(chat, messageAt("live", 3), Recovery::Kind::text));
    ASSERT_EQ(application.requests.size(), 1u);
    application.requests[0].success(
        {messageAt("seen", 0), messageAt("between", 1), messageAt("greeting", 2)});
    ASSERT_EQ(application.requests.size(), 2u);  // then the raw data
    application.requests[1].success({});
    EXPECT_EQ(application.heard, (std::vector<std::string>{"between", "greeting", "live"}));
    EXPECT_EQ(application.caughtUp, 1);
    EXPECT_FALSE(recovery->intercept(chat, messageAt("later", 4), Recovery::Kind::text));
}

TEST_F(MissedMessageRecovery, AFailedStartingPointDoesNotHoldTheSocketAndIsTakenOnceConnected) {
    bool opened = false;
    recovery->beforeSocketOpens(chat, [&] { opened = true; });
    application.requests[0].success({messageAt("seen", 0)});
    application.requests[1].failure(TVKHTTPDataMissingError());
    EXPECT_TRUE(opened);
    application.requests.clear();
    // Half a starting point is none: the connection takes it afresh instead of recovering.
    recovery->chatConnected(chat);
    EXPECT_FALSE(recovery->isRecovering(chat));
    ASSERT_EQ(application.requests.size(), 2u);
    EXPECT_EQ(application.requests[0].query.at("order"), "desc");
}

// The kinds are listed one after the other, so the later list can hold a message whose live event
// is still on its way behind one of the other kind that neither list holds ("late", sent after
// the text list was taken). Taken from the list, "raw" would overtake it: from the first live
// message on, the live stream brings everything, in order.
TEST_F(MissedMessageRecovery, AListedMessageNewerThanTheFirstLiveOneIsLeftToTheLiveStream) {
    connectWithStartingPoint();
    EXPECT_TRUE(recovery->intercept(chat, messageAt("live", 2), Recovery::Kind::text));
    application.requests[0].success({messageAt("between", 1)});
    application.requests[1].success({messageAt("raw", 4)});
    EXPECT_EQ(application.heard, (std::vector<std::string>{"between", "live"}));
    EXPECT_FALSE(recovery->intercept(chat, messageAt("late", 3), Recovery::Kind::text));
    EXPECT_FALSE(recovery->intercept(chat, messageAt("raw", 4), Recovery::Kind::raw));
}

// Without a live message to tell where the live stream begins, the lists are taken again until a
// listing finds nothing new: only then is nothing of the other kind known to be missing.
TEST_F(MissedMessageRecovery, WithoutLiveMessagesTheListingRepeatsUntilNothingNewTurnsUp) {
    connectWithStartingPoint();
    application.requests[0].success({messageAt("between", 1)});
    application.requests[1].success({});
    ASSERT_EQ(application.requests.size(), 3u);
    application.requests[2].success({messageAt("between", 1), messageAt("later", 2)});
    application.requests[3].success({});
    EXPECT_TRUE(application.heard.empty());
    ASSERT_EQ(application.requests.size(), 5u);
    application.requests[4].success({messageAt("between", 1), messageAt("later", 2)});
    application.requests[5].success({});
    EXPECT_EQ(application.heard, (std::vector<std::string>{"between", "later"}));
    EXPECT_EQ(application.caughtUp, 1);
}

TEST_F(MissedMessageRecovery, PastTheHoldLimitTheListingIsGivenUpAndTheHeldEventsFollowTheGap) {
    recovery->setHoldLimit(4);
    connectWithStartingPoint();
    ASSERT_EQ(application.requests.size(), 1u);
    auto slowListing = application.requests[0];
    for (int i = 1; i <= 4; ++i) {
        EXPECT_TRUE(recovery->intercept(chat, messageAt("live" + std::to_string(i), i),
                                        Recovery::Kind::text));
    }
    EXPECT_TRUE(application.heard.empty());
    EXPECT_TRUE(recovery->interceptRemoval(chat, "live1"));  // the fifth event: one too many

    ASSERT_EQ(application.gaps.size(), 1u);
    EXPECT_EQ(application.gaps[0].reason, TVKMissedMessagesGap::kLiveBacklog);
    EXPECT_EQ(application.gaps[0].oldestDate, kStart);
    EXPECT_EQ(application.gaps[0].latestDate, kStart + 1000);
    EXPECT_EQ(application.heard,
              (std::vector<std::string>{"live1", "live2", "live3", "live4", "removed live1"}));
    EXPECT_EQ(application.caughtUp, 1);
    EXPECT_FALSE(recovery->isRecovering(chat));

    // The given-up listing answers late: nothing of it is delivered.
    slowListing.success({messageAt("missed", 0)});
    EXPECT_EQ(application.heard.size(), 5u);
    EXPECT_FALSE(recovery->intercept(chat, messageAt("live5", 5), Recovery::Kind::text));
}

}  // namespace
}  // namespace tavlo
