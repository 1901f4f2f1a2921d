// The chat manager's bookkeeping and retry policy on virtual time. No service runs: the manager
// points at a loopback port that refuses connections, so every request fails at once with a
// connectivity error (the kind that is retried), and virtual time decides when retries run.

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <condition_variable>
#include <functional>
#include <mutex>
#include <stdexcept>
#include <thread>

#include "Dispatch/Internal/ManualScheduler.hpp"
#include "TavloCoreSDK/TVKSDKAuthManager.hpp"
#include "TavloMessagingSDK/Internal/TVKChatSession.hpp"
#include "TavloMessagingSDK/Internal/TVKMessagingError.hpp"
#include "TavloMessagingSDK/TVKChatManager.hpp"
#include "TavloMessagingSDK/TVKChatUser.hpp"
#include "TavloMessagingSDK/TVKMSGError.hpp"
#include "tests/support/Access.hpp"
#include "tests/support/RecordingScheduler.hpp"

namespace tavlo {
namespace {

using namespace std::chrono_literals;
namespace json = boost::json;

/// "http://127.0.0.1:<port>" of a socket that is bound but never listens: connections to it are
/// refused by the kernel at once.
const std::string& refusingURL() {
    static const std::string url = [] {
        int fd = ::socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof(address);
        if (fd < 0 || ::bind(fd, reinterpret_cast<sockaddr*>(&address), length) != 0 ||
            ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
            throw std::runtime_error("no loopback port");
        }
        // The socket stays bound for the life of the process, so nobody else takes the port.
        return "http://127.0.0.1:" + std::to_string(ntohs(address.sin_port));
    }();
    return url;
}

bool eventually(const std::function<bool()>& condition, std::chrono::milliseconds limit = 10s) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        std::this_thread::sleep_for(1ms);
    }
    return true;
}

/// Records what the application hears, by event name.
class Recorder : public TVKChatEventDelegate {
  public:
    void chatroomConnected(const std::shared_ptr<TVKChat>&) override { add("connected"); }
    void chatroomDisconnected(const std::shared_ptr<TVKChat>&) override { add("disconnected"); }
    void chatroomFailToConnect(const std::shared_ptr<TVKChat>&, const TVKError& error) override {
        add("failToConnect", error);
    }
    void chatroomError(const std::shared_ptr<TVKChat>&, const TVKError& error) override {
        add("error", error);
    }
    void chatroomUserCount(const std::shared_ptr<TVKChat>&) override { add("userCount"); }
    void chatroomUsersUpdated(const std::shared_ptr<TVKChat>& chat, const TVKChatUsers&) override {
        auto user = chat->currentUser();
        add("usersUpdated:" + user->role().value_or("none"));
    }

    std::size_t count(const std::string& name) const {
        std::lock_guard lock(mutex_);
        return std::count(events_.begin(), events_.end(), name);
    }
    std::vector<std::string> events() const {
        std::lock_guard lock(mutex_);
        return events_;
    }
    std::optional<TVKError> lastError() const {
        std::lock_guard lock(mutex_);
        return lastError_;
    }
    bool waitFor(const std::string& name, std::size_t times = 1) const {
        return eventually([&] { return count(name) >= times; });
    }
    void clear() {
        std::lock_guard lock(mutex_);
        events_.clear();
        lastError_.reset();
    }

  private:
    void add(std::string name, std::optional<TVKError> error = std::nullopt) {
        std::lock_guard lock(mutex_);
        events_.push_back(std::move(name));
        if (error) lastError_ = error;
    }
    mutable std::mutex mutex_;
    std::vector<std::string> events_;
    std::optional<TVKError> lastError_;
};

const std::vector<dispatch::Duration> kRetryDelays = {500ms, 1s, 2s, 4s, 8s, 16s, 32s};

class ChatManagerRetry : public ::testing::Test {
  protected:
    void SetUp() override {
        TVKSDKAuthManager::sharedManager().setAccountId("unit-account");
        TVKSDKAuthManager::sharedManager().setAccountToken("unit-account-token");
        manager = TVKChatManager::create();
        ASSERT_TRUE(manager);
        manager->setHTTPHostURL(refusingURL());
        testing::Access::setTime(*manager, scheduler);
    }

    /// A registered chatroom that makes no requests of its own: its name is empty, which the
    /// chatroom refuses before sending anything, and a refusal that cannot pass on a retry leaves
    /// the chatroom registered. Its user is bound, so that leaving (on disconnection and on a full
    /// reconnection) goes to the network, and fails there.
    std::shared_ptr<TVKChat> quietChat() {
        manager->connectToChatroom("", "", 0, recorder);
        EXPECT_TRUE(recorder->waitFor("failToConnect"));
        EXPECT_EQ(recorder->lastError()->code, TVKMSGErrorChannelCodeLength);
        auto chat = manager->chatForChatroomName("", false);
        EXPECT_TRUE(chat);
        if (!chat) return nullptr;
        manager->queue()->sync(
            [&] { chat->currentUser()->updateChatId("chat-1", "user-token", 7, "NORMAL"); });
        recorder->clear();
        expectInvariant("");
        return chat;
    }

    /// A chatroom object the manager does not know.
    std::shared_ptr<TVKChat> strangerChat() {
        TVKChatEnvironment environment;
        environment.queue = manager->queue();
        environment.scheduler = scheduler;
        return TVKChatSession::chatForChannel("stranger", "unit-account", "", refusingURL(),
                                              std::move(environment));
    }

    void expectInvariant(const std::string& channel) {
        auto held = testing::Access::bookkeeping(*manager, channel);
        if (held.registered) {
            EXPECT_TRUE(held.retryAttemptCount) << channel;
            EXPECT_TRUE(held.inputAvailableDate) << channel;
        } else {
            EXPECT_FALSE(held.retryAttemptCount) << channel;
            EXPECT_FALSE(held.inputAvailableDate) << channel;
            EXPECT_FALSE(held.hasDelegate) << channel;
        }
    }

    std::optional<unsigned> retries(const std::string& channel = "") {
        return testing::Access::bookkeeping(*manager, channel).retryAttemptCount;
    }

    /// Expects retry number `attempt` to have been scheduled with the pause that belongs to it,
    /// and runs it exactly when it falls due.
    void runRetry(std::size_t attempt) {
        ASSERT_TRUE(eventually([&] { return scheduler->delays().size() == attempt + 1; }));
        ASSERT_LT(attempt, kRetryDelays.size());
        EXPECT_EQ(scheduler->delays()[attempt], kRetryDelays[attempt]);
        scheduler->inner.advance(kRetryDelays[attempt] - 1ns);
        EXPECT_EQ(scheduler->inner.pendingCount(), 1u) << "ran before its time";
        scheduler->inner.advance(1ns);
    }

    using RecordingScheduler = test::RecordingScheduler<dispatch::ManualScheduler>;
    std::shared_ptr<RecordingScheduler> scheduler = std::make_shared<RecordingScheduler>();
    std::shared_ptr<Recorder> recorder = std::make_shared<Recorder>();
    std::shared_ptr<TVKChatManager> manager;
};

TEST_F(ChatManagerRetry, NoManagerWithoutAccountToken) {
    TVKSDKAuthManager::sharedManager().setAccountToken(std::nullopt);
    EXPECT_FALSE(TVKChatManager::create());
    TVKSDKAuthManager::sharedManager().setAccountToken("unit-account-token");
    EXPECT_TRUE(TVKChatManager::create());
}

TEST_F(ChatManagerRetry, UnsetNameOrJWTDoesNothing) {
    manager->connectToChatroom(std::nullopt, "", 0, recorder);
    manager->connectToChatroom("room", std::nullopt, 0, recorder);
    EXPECT_FALSE(manager->chatForChatroomName("room", false));
    EXPECT_FALSE(testing::Access::bookkeeping(*manager, "room").hasDelegate);
    EXPECT_TRUE(recorder->events().empty());
}

TEST_F(ChatManagerRetry, OnlyTheFirstOptionBitMakesAPersonalChatroom) {
    const std::vector<std::pair<std::uint64_t, std::string>> cases = {
        {0, "plain"}, {1, "p#personal"}, {2, "two"}, {4, "four"}, {3, "p#three"}};
    for (const auto& [options, channel] : cases) {
        const auto name = channel.starts_with("p#") ? channel.substr(2) : channel;
        manager->connectToChatroom(name, "", options, recorder);
        auto held = testing::Access::bookkeeping(*manager, channel);
        EXPECT_TRUE(held.registered) << channel;
        EXPECT_TRUE(held.hasDelegate) << channel;
        EXPECT_TRUE(manager->chatForChatroomName(name, channel.starts_with("p#"))) << channel;
        expectInvariant(channel);
    }
}

TEST_F(ChatManagerRetry, ReconnectsSevenTimesWithDoublingPausesThenReportsOnce) {
    auto chat = quietChat();
    ASSERT_TRUE(chat);
    testing::Access::report(*manager, chat,
                            chat_report::SocketError{TVKSocketConnectionLostError()});
    for (unsigned attempt = 0; attempt < kRetryDelays.size(); ++attempt) {
        SCOPED_TRACE(attempt);
        EXPECT_TRUE(eventually([&] { return retries() == attempt + 1; }));
        expectInvariant("");
        runRetry(attempt);
    }
    // The seventh reconnection fails too: reported once, as the chatroom never connected.
    ASSERT_TRUE(recorder->waitFor("failToConnect"));
    EXPECT_EQ(recorder->lastError()->domain, TVKMSGErrorDomain);
    EXPECT_EQ(recorder->lastError()->code, TVKMSGErrorNetworkNoConnection);
    std::this_thread::sleep_for(50ms);
    EXPECT_EQ(recorder->events(), std::vector<std::string>{"failToConnect"});
    EXPECT_EQ(scheduler->inner.pendingCount(), 0u);
    EXPECT_EQ(scheduler->delays().size(), kRetryDelays.size());
    auto held = testing::Access::bookkeeping(*manager, "");
    EXPECT_FALSE(held.registered);
    expectInvariant("");
}

TEST_F(ChatManagerRetry, ConnectedChatroomThatCannotComeBackIsReportedAsError) {
    auto chat = quietChat();
    ASSERT_TRUE(chat);
    testing::Access::report(*manager, chat, chat_event::Connected{});
    EXPECT_EQ(recorder->count("connected"), 1u);
    EXPECT_TRUE(manager->isChatroomConnected(chat));

    // Any other socket error is not the manager's business.
    testing::Access::report(
        *manager, chat,
        chat_report::SocketError{TVKSocketRawErrorWithReason("Connect attempt denied")});
    EXPECT_EQ(retries(), 0u);
    EXPECT_EQ(scheduler->inner.pendingCount(), 0u);

    testing::Access::report(*manager, chat,
                            chat_report::SocketError{TVKSocketConnectionTimeoutError()});
    EXPECT_EQ(retries(), 1u);
    for (int round = 0; round < 20 && !recorder->count("error"); ++round) {
        eventually([&] { return scheduler->inner.pendingCount() > 0 || recorder->count("error"); });
        scheduler->inner.advance(64s);
    }
    ASSERT_TRUE(recorder->waitFor("error"));
    EXPECT_EQ(recorder->count("error"), 1u);
    EXPECT_EQ(recorder->count("failToConnect"), 0u);
    // Forgotten, though its name deliberately stays in the connected set.
    auto held = testing::Access::bookkeeping(*manager, "");
    EXPECT_FALSE(held.registered);
    EXPECT_TRUE(held.connected);
    EXPECT_FALSE(manager->isChatroomConnected(chat));
    expectInvariant("");
}

TEST_F(ChatManagerRetry, ConnectingAgainResetsTheCounter) {
    auto chat = quietChat();
    ASSERT_TRUE(chat);
    testing::Access::report(*manager, chat,
                            chat_report::SocketError{TVKSocketConnectionLostError()});
    testing::Access::report(*manager, chat,
                            chat_report::SocketError{TVKSocketConnectionLostError()});
    EXPECT_EQ(retries(), 2u);
    testing::Access::report(*manager, chat, chat_event::Connected{});
    EXPECT_EQ(retries(), 0u);
    EXPECT_TRUE(testing::Access::bookkeeping(*manager, "").connected);
}

TEST_F(ChatManagerRetry, FarewellIsSentSixTimesMoreThenGivenUp) {
    auto chat = quietChat();
    ASSERT_TRUE(chat);
    testing::Access::report(*manager, chat, chat_event::Connected{});
    recorder->clear();
    manager->disconnectFromChatroom(chat);
    for (unsigned attempt = 0; attempt < TVKResendFarewellAttemptLimit; ++attempt) {
        SCOPED_TRACE(attempt);
        EXPECT_TRUE(eventually([&] { return retries() == attempt + 1; }));
        runRetry(attempt);
    }
    // The seventh failure closes the chatroom locally, with no further retry and no report.
    std::this_thread::sleep_for(100ms);
    EXPECT_EQ(scheduler->inner.pendingCount(), 0u);
    EXPECT_EQ(scheduler->delays().size(), TVKResendFarewellAttemptLimit);
    EXPECT_EQ(retries(), TVKResendFarewellAttemptLimit);
    EXPECT_EQ(recorder->events(), std::vector<std::string>{});
}

TEST_F(ChatManagerRetry, DisconnectingAChatroomThatNeverConnectedDoesNothing) {
    auto chat = quietChat();
    ASSERT_TRUE(chat);
    manager->disconnectFromChatroom(chat);
    std::this_thread::sleep_for(50ms);
    EXPECT_EQ(scheduler->inner.pendingCount(), 0u);
    EXPECT_EQ(retries(), 0u);
    EXPECT_TRUE(testing::Access::bookkeeping(*manager, "").registered);
}

TEST_F(ChatManagerRetry, DisconnectionIsTheLastEvent) {
    auto chat = quietChat();
    ASSERT_TRUE(chat);
    testing::Access::report(*manager, chat, chat_event::Connected{});
    testing::Access::report(*manager, chat, chat_event::Disconnected{});
    EXPECT_EQ(recorder->events(), (std::vector<std::string>{"connected", "disconnected"}));
    auto held = testing::Access::bookkeeping(*manager, "");
    EXPECT_FALSE(held.registered);
    EXPECT_FALSE(held.connected);
    expectInvariant("");
    testing::Access::report(*manager, chat, chat_event::UserCount{});
    EXPECT_EQ(recorder->count("userCount"), 0u);
}

TEST_F(ChatManagerRetry, CooldownMovesOnlyWhileItRuns) {
    auto start = TVKChatManager::Clock::now();
    std::atomic<std::int64_t> offsetSeconds{0};
    testing::Access::setTime(*manager, scheduler,
                             [&] { return start + std::chrono::seconds(offsetSeconds.load()); });
    auto chat = quietChat();  // its send date is `start`
    ASSERT_TRUE(chat);

    struct Step {
        std::int64_t clock;  // seconds from `start`
        std::optional<double> intervalChange;
        double cooldown;
    };
    const std::vector<Step> steps = {
        {0, std::nullopt, 0},     // the date is now: nothing to wait for
        {-10, std::nullopt, 10},  // the clock went back: the date lies ahead
        {-10, 3, 13},             // a longer interval lengthens a running cooldown
        {-10, -5, 8},             // a shorter one shortens it
        {20, std::nullopt, 0},    // once passed, the date no longer counts
        {20, 30, 0},              // and no interval change moves a date that has passed
        {-10, std::nullopt, 8},
    };
    for (const auto& step : steps) {
        offsetSeconds = step.clock;
        if (step.intervalChange)
            testing::Access::report(*manager, chat,
                                    chat_report::InputIntervalChanged{*step.intervalChange});
        EXPECT_NEAR(manager->cooldownForChatroom(chat), step.cooldown, 1e-6) << step.clock;
    }

    auto stranger = strangerChat();
    ASSERT_TRUE(stranger);
    EXPECT_EQ(manager->cooldownForChatroom(stranger), 0);
}

TEST_F(ChatManagerRetry, DelegatesAreReplacedRemovedAndNeverKeptAlive) {
    auto chat = quietChat();
    ASSERT_TRUE(chat);
    auto replacement = std::make_shared<Recorder>();

    auto stranger = strangerChat();
    manager->setEventDelegate(replacement, stranger);
    EXPECT_FALSE(testing::Access::bookkeeping(*manager, "stranger").hasDelegate);

    manager->setEventDelegate(replacement, chat);
    testing::Access::report(*manager, chat, chat_event::UserCount{});
    EXPECT_EQ(recorder->count("userCount"), 0u);
    EXPECT_EQ(replacement->count("userCount"), 1u);

    // Connecting again without a delegate keeps the one in place; with one, replaces it.
    manager->connectToChatroom("", "", 0, nullptr);
    EXPECT_TRUE(replacement->waitFor("failToConnect"));
    manager->connectToChatroom("", "", 0, recorder);
    EXPECT_TRUE(recorder->waitFor("failToConnect"));
    EXPECT_EQ(replacement->count("failToConnect"), 1u);

    manager->setEventDelegate(nullptr, chat);
    EXPECT_FALSE(testing::Access::bookkeeping(*manager, "").hasDelegate);
    testing::Access::report(*manager, chat, chat_event::UserCount{});
    EXPECT_EQ(recorder->count("userCount"), 0u);

    manager->setEventDelegate(replacement, chat);
    std::weak_ptr<Recorder> released = replacement;
    replacement.reset();
    EXPECT_TRUE(released.expired()) << "the manager kept the delegate alive";
    EXPECT_FALSE(testing::Access::bookkeeping(*manager, "").hasDelegate);
    testing::Access::report(*manager, chat, chat_event::UserCount{});  // goes nowhere
    expectInvariant("");
}

TEST_F(ChatManagerRetry, CurrentUsersRoleChangesBeforeTheApplicationHears) {
    auto chat = quietChat();
    ASSERT_TRUE(chat);
    auto member = [](std::int64_t label, const char* role) {
        return DQDataObject::withJSON<TVKChatUser>(json::object{{"label", label}, {"role", role}});
    };
    // Only the first entry of the signed-in user (label 7) counts.
    testing::Access::report(*manager, chat,
                            chat_event::UsersUpdated{{member(3, "MASTER"), member(7, "MODERATOR"),
                                                      member(7, "BLOCKED")}});
    EXPECT_EQ(recorder->events(), std::vector<std::string>{"usersUpdated:MODERATOR"});
    EXPECT_EQ(manager->currentUserForChatroom(chat)->role(), "MODERATOR");
}

TEST_F(ChatManagerRetry, CallbacksRunOnTheChosenExecutorAndMayThrow) {
    auto chat = quietChat();
    ASSERT_TRUE(chat);
    std::mutex mutex;
    std::vector<std::function<void()>> posted;
    manager->setCallbackExecutor([&](std::function<void()> call) {
        std::lock_guard lock(mutex);
        posted.push_back(std::move(call));
    });
    testing::Access::report(*manager, chat, chat_event::UserCount{});
    EXPECT_EQ(recorder->count("userCount"), 0u);
    ASSERT_EQ(posted.size(), 1u);
    posted.front()();
    EXPECT_EQ(recorder->count("userCount"), 1u);

    struct Thrower : TVKChatEventDelegate {
        int calls = 0;
        void chatroomUserCount(const std::shared_ptr<TVKChat>&) override {
            ++calls;
            throw std::runtime_error("application bug");
        }
    };
    auto thrower = std::make_shared<Thrower>();
    manager->setCallbackExecutor(nullptr);
    manager->setEventDelegate(thrower, chat);
    EXPECT_NO_THROW(testing::Access::report(*manager, chat, chat_event::UserCount{}));
    EXPECT_NO_THROW(testing::Access::report(*manager, chat, chat_event::UserCount{}));
    EXPECT_EQ(thrower->calls, 2);
}

}  // namespace
}  // namespace tavlo
