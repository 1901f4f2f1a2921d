// One manager holding fifty chatrooms, used by eight application threads at once while the
// service floods the chatrooms with events and drops some of their connections. Afterwards every
// operation must have reported exactly once, every event sent to a chatroom that kept its
// connection must have arrived exactly once, every dropped chatroom must have come back, and
// every chatroom must say goodbye exactly once. scripts/test.d/50-tsan.sh runs this suite under
// ThreadSanitizer; the counts are sized to stay well under a minute there on two cores.

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <future>
#include <map>
#include <mutex>
#include <random>
#include <thread>
#include <vector>

#include "TavloCoreSDK/TVKSDKAuthManager.hpp"
#include "TavloMessagingSDK/TVKChatManager.hpp"
#include "TavloMessagingSDK/TVKChatMessage.hpp"
#include "TavloMessagingSDK/TVKChatUser.hpp"
#include "tests/support/Access.hpp"
#include "tests/support/Emulator.hpp"

namespace tavlo {
namespace {

using namespace std::chrono_literals;
namespace json = boost::json;
using Clock = std::chrono::steady_clock;

constexpr int kChatrooms = 50;
// Chatrooms 0..kDroppedChatrooms-1 lose their connection during the run; the others keep it, so
// that the events sent to them can be counted exactly.
constexpr int kDroppedChatrooms = 6;
constexpr int kDropsPerChatroom = 3;
constexpr int kApplicationThreads = 8;
// Each application thread performs at least the first number of operations, and goes on while the
// service still sends events or drops connections, up to the second.
constexpr int kOperationsPerThread = 150;
constexpr int kOperationLimitPerThread = 3000;
constexpr int kFloodPerChatroom = 40;
constexpr int kEmitsPerChatroom = 3;
// Waits that only a hang exhausts.
constexpr auto kPatience = 40s;

std::string channelName(int index) {
    char name[16];
    std::snprintf(name, sizeof name, "stress-%02d", index);
    return name;
}

bool isDropped(int index) {
    return index < kDroppedChatrooms;
}

/// What the application heard per chatroom. Delegate callbacks run on the manager's queue, the
/// test reads from its own thread: hence the lock.
class Recorder {
  public:
    struct Counts {
        int connected = 0;
        int disconnected = 0;
        int failures = 0;  // chatroomError and chatroomFailToConnect
        int serviceMessages = 0;
        int ownMessages = 0;
        int flushes = 0;
        std::string lastFailure;
    };

    void add(const std::shared_ptr<TVKChat>& chat, int Counts::*field) {
        std::lock_guard lock(mutex_);
        add(chat, field, lock);
    }
    void addFailure(const std::shared_ptr<TVKChat>& chat, const TVKError& error) {
        std::lock_guard lock(mutex_);
        counts_[chat->originalChatroomName()].lastFailure = error.describe();
        add(chat, &Counts::failures, lock);
    }
    Counts counts(const std::string& channel) const {
        std::lock_guard lock(mutex_);
        auto found = counts_.find(channel);
        return found == counts_.end() ? Counts{} : found->second;
    }
    /// Waits until `done` holds for the counts of `channel`.
    bool waitUntil(const std::string& channel, const std::function<bool(const Counts&)>& done,
                   std::chrono::milliseconds limit = kPatience) {
        std::unique_lock lock(mutex_);
        return changed_.wait_for(lock, limit, [&] { return done(counts_[channel]); });
    }

  private:
    void add(const std::shared_ptr<TVKChat>& chat, int Counts::*field,
             const std::lock_guard<std::mutex>&) {
        ++(counts_[chat->originalChatroomName()].*field);
        changed_.notify_all();
    }

    mutable std::mutex mutex_;
    std::condition_variable changed_;
    std::map<std::string, Counts> counts_;
};

/// The application's delegate. Two of them share one recorder, so that replacing one by the
/// other in the middle of the run changes nothing in the counts.
class Application : public TVKChatEventDelegate {
  public:
    explicit Application(Recorder& recorder) : recorder_(recorder) {}

    void chatroomConnected(const std::shared_ptr<TVKChat>& chat) override {
        recorder_.add(chat, &Recorder::Counts::connected);
    }
    void chatroomDisconnected(const std::shared_ptr<TVKChat>& chat) override {
        recorder_.add(chat, &Recorder::Counts::disconnected);
    }
    void chatroomFailToConnect(const std::shared_ptr<TVKChat>& chat, const TVKError& e) override {
        recorder_.addFailure(chat, e);
    }
    void chatroomError(const std::shared_ptr<TVKChat>& chat, const TVKError& e) override {
        recorder_.addFailure(chat, e);
    }
    void chatroomMessageAdded(const std::shared_ptr<TVKChat>& chat,
                              const std::shared_ptr<TVKChatMessage>& message) override {
        const auto text = message->text().value_or("");
        if (text.starts_with("service")) recorder_.add(chat, &Recorder::Counts::serviceMessages);
        if (text.starts_with("app")) recorder_.add(chat, &Recorder::Counts::ownMessages);
    }
    void chatroomMessageFlushed(const std::shared_ptr<TVKChat>& chat) override {
        recorder_.add(chat, &Recorder::Counts::flushes);
    }
    // Touching the chatroom's state from the callback, as applications do.
    void chatroomUserCount(const std::shared_ptr<TVKChat>& chat) override {
        userCounts_ += chat->userCount() >= 0 ? 1 : 0;
    }

  private:
    Recorder& recorder_;
    std::atomic<int> userCounts_ = 0;
};

/// One slot per operation that takes callbacks: each must be called exactly once, success or
/// failure, on whatever thread.
class Ledger {
  public:
    explicit Ledger(std::size_t size) : calls_(size) {}

    TVKChatManager::Success success(std::size_t slot, std::function<void()> then = {}) {
        return [this, slot, then] {
            if (then) then();
            record(slot);
        };
    }
    template <class... Args>
    std::function<void(const Args&...)> result(std::size_t slot) {
        return [this, slot](const Args&...) { record(slot); };
    }
    TVKChatManager::Failure failure(std::size_t slot) {
        return [this, slot](const TVKError&) {
            ++failures_;
            record(slot);
        };
    }
    bool waitForAll(std::size_t used, std::chrono::milliseconds limit) {
        std::unique_lock lock(mutex_);
        return changed_.wait_for(lock, limit, [&] { return answered_ >= used; });
    }
    /// Slots called other than exactly once ("slot:calls"), or called without being used.
    std::vector<std::string> anomalies(const std::vector<std::size_t>& used) const {
        std::vector<int> expected(calls_.size(), 0);
        for (auto slot : used) expected[slot] = 1;
        std::vector<std::string> found;
        for (std::size_t slot = 0; slot < calls_.size(); ++slot) {
            if (int calls = calls_[slot].load(); calls != expected[slot]) {
                found.push_back(std::to_string(slot) + ":" + std::to_string(calls));
            }
        }
        return found;
    }
    int failures() const { return failures_; }

  private:
    void record(std::size_t slot) {
        if (calls_[slot]++ != 0) return;
        std::lock_guard lock(mutex_);
        ++answered_;
        changed_.notify_all();
    }
    std::vector<std::atomic<int>> calls_;
    std::atomic<int> failures_ = 0;
    std::mutex mutex_;
    std::condition_variable changed_;
    std::size_t answered_ = 0;
};

/// Counts a service task as running for its lifetime, however it ends.
class ServiceTask {
  public:
    explicit ServiceTask(std::atomic<int>& running) : running_(running) {}
    ~ServiceTask() { --running_; }
    ServiceTask(const ServiceTask&) = delete;
    ServiceTask& operator=(const ServiceTask&) = delete;

  private:
    std::atomic<int>& running_;
};

class ChatManagerStress : public test::EmulatorTest {
  protected:
    void SetUp() override {
        EmulatorTest::SetUp();
        useDemoAccount();
        for (int index = 0; index < kChatrooms; ++index) {
            emulator().control("POST", "chatrooms",
                               json::object{{"channelCode", channelName(index)}});
        }
        manager_ = TVKChatManager::create();
        ASSERT_TRUE(manager_);
        manager_->setHTTPHostURL(emulator().url());
        // Retry pauses take a hundredth of their time. The connect time-out runs on the same
        // scaled clock: 1000 s there are 10 s here, ample for a busy sanitized build.
        manager_->setTimeScale(0.01);
        manager_->setSocketConnectTimeout(1000s);
    }

    /// The guest joins every chatroom; all connections are started at once.
    void connectAll() {
        for (int index = 0; index < kChatrooms; ++index) {
            manager_->connectToChatroom(channelName(index), "", 0, first_);
        }
        for (int index = 0; index < kChatrooms; ++index) {
            ASSERT_TRUE(recorder_.waitUntil(channelName(index),
                                            [](const auto& counts) { return counts.connected; }))
                << channelName(index) << " did not connect";
            chats_.push_back(manager_->chatForChatroomName(channelName(index), false));
            ASSERT_TRUE(chats_.back());
        }
    }

    /// What one application thread does: operations on chatrooms picked at random, each with
    /// callbacks that land in the ledger (the thread's slots start at `base`). Returns how many
    /// operations it performed.
    int useTheManager(int thread, std::size_t base) {
        std::mt19937 random(static_cast<unsigned>(thread) * 7919u + 1u);
        auto configuration = std::make_shared<TVKGetMessagesConfiguration>();
        int step = 0;
        for (; step < kOperationLimitPerThread; ++step) {
            if (step >= kOperationsPerThread && serviceTasksRunning_ == 0) break;
            const std::size_t slot = base + static_cast<std::size_t>(step);
            const int index = static_cast<int>(random() % kChatrooms);
            operate(static_cast<int>(random() % 12), index, slot, configuration, thread, step);
        }
        return step;
    }

    void operate(int kind, int index, std::size_t slot,
                 const std::shared_ptr<TVKGetMessagesConfiguration>& configuration, int thread,
                 int step) {
        const auto& chat = chats_[static_cast<std::size_t>(index)];
        auto& m = *manager_;
        auto failure = ledger_.failure(slot);
        switch (kind) {
            case 0: {
                const auto text = "app " + std::to_string(thread) + "." + std::to_string(step);
                auto sent = [this, index] { ++sentTo_[static_cast<std::size_t>(index)]; };
                return m.sendMessage(text, chat, ledger_.success(slot, sent), failure);
            }
            case 1:
                return m.getUsersForChatroom(chat, static_cast<TVKChatUserType>(slot % 3),
                                             ledger_.result<TVKChatUsers>(slot), failure);
            case 2:
                return m.getMessagesForChatroom(chat, nullptr,
                                                ledger_.result<TVKChatMessages>(slot), failure);
            case 3:
                // The thread's own configuration object, reused: the type is rewritten each time.
                return m.getMessagesForChatroom(chat, slot % 2 ? "raw" : "text", configuration,
                                                ledger_.result<TVKMessageListing>(slot), failure);
            case 4:
                return m.getMetadataForKeys(
                    std::nullopt, chat, ledger_.result<TVKChatMetadataDictionary>(slot), failure);
            case 5:  // a guest may not: refused by its role
                return m.setMetadataValue(json::value("v"), "key", chat, slot % 2 == 0,
                                          ledger_.success(slot), failure);
            case 6:
                return m.getPinnedMessageForChat(
                    chat, ledger_.result<std::shared_ptr<TVKChatMessage>>(slot), failure);
            case 7:
                return m.sendRawData(json::object{{"slot", slot}}, chat, ledger_.success(slot),
                                     failure);
            case 8:
                return m.sendAggregatedDataWithKey("like", chat, ledger_.success(slot), failure);
            case 9:
                return m.updateGuestNickname("Guest" + std::to_string(slot % 100), chat,
                                             ledger_.success(slot), failure);
            case 10:
                // The other delegate writes to the same recorder.
                m.setEventDelegate(slot % 2 ? first_ : second_, chat);
                break;
            default:
                if (m.cooldownForChatroom(chat) < 0 || !m.currentUserForChatroom(chat) ||
                    m.chatForChatroomName(channelName(index), false) != chat) {
                    ++oddAnswers_;
                }
                // True throughout, even while a lost connection is restored; only the answer's
                // safety matters here.
                static_cast<void>(m.isChatroomConnected(chat));
                break;
        }
        ledger_.success(slot)();  // operations without callbacks account for their slot here
    }

    /// The service's side: a flood of messages and a few single events for every chatroom (the
    /// dropped ones receive theirs while they come and go).
    void actAsTheService() {
        ServiceTask running(serviceTasksRunning_);
        const json::object message{
            {"id", "m"}, {"msgType", "text"}, {"text", "service"}, {"creatorLabel", 1}};
        for (int index = 0; index < kChatrooms; ++index) {
            const auto path = "chatrooms/" + channelName(index);
            emulator().control(
                "POST", path + "/flood",
                json::object{
                    {"event", "message"}, {"payload", message}, {"count", kFloodPerChatroom}});
            for (int emit = 0; emit < kEmitsPerChatroom; ++emit) {
                emulator().control("POST", path + "/emit",
                                   json::object{{"event", "message_flush"},
                                                {"payload", json::object{{"chatId", "x"}}}});
            }
        }
    }

    /// Drops the connections of the first chatrooms one after the other, each time waiting for
    /// the application to hear that the chatroom is connected again.
    void dropConnections() {
        ServiceTask running(serviceTasksRunning_);
        for (int round = 0; round < kDropsPerChatroom; ++round) {
            for (int index = 0; index < kDroppedChatrooms; ++index) {
                const auto channel = channelName(index);
                const int before = recorder_.counts(channel).connected;
                auto answer =
                    emulator().control("POST", "chatrooms/" + channel + "/sockets/drop",
                                       json::object{{"mode", round % 2 ? "disconnect" : "kill"}});
                // A connection lost a moment ago may still be counted beside the live one.
                ASSERT_GE(answer.at("dropped").to_number<int>(), 1) << channel;
                ASSERT_TRUE(recorder_.waitUntil(
                    channel, [before](const auto& counts) { return counts.connected > before; }))
                    << channel << " was not reconnected (round " << round << "); registered: "
                    << testing::Access::bookkeeping(*manager_, channel).registered
                    << ", last failure: " << recorder_.counts(channel).lastFailure;
            }
        }
    }

    /// Runs the tasks on threads of their own, all at once, and waits for them.
    static void runTogether(std::vector<std::function<void()>> tasks) {
        std::vector<std::future<void>> running;
        for (auto& task : tasks) running.push_back(std::async(std::launch::async, task));
        for (auto& done : running) {
            if (done.wait_for(kPatience) != std::future_status::ready) {
                std::fprintf(stderr, "stress test: an application thread hangs\n");
                std::abort();
            }
            done.get();
        }
    }

    Recorder recorder_;
    std::shared_ptr<Application> first_ = std::make_shared<Application>(recorder_);
    std::shared_ptr<Application> second_ = std::make_shared<Application>(recorder_);
    Ledger ledger_{kApplicationThreads * kOperationLimitPerThread};
    std::atomic<int> serviceTasksRunning_ = 2;
    std::vector<int> operationCounts_ = std::vector<int>(kApplicationThreads);
    std::shared_ptr<TVKChatManager> manager_;
    std::vector<std::shared_ptr<TVKChat>> chats_;
    std::vector<std::atomic<int>> sentTo_ = std::vector<std::atomic<int>>(kChatrooms);
    std::atomic<int> oddAnswers_ = 0;
};

TEST_F(ChatManagerStress, FiftyChatroomsEightThreadsEventsAndDrops) {
    ASSERT_NO_FATAL_FAILURE(connectAll());

    std::vector<std::function<void()>> tasks;
    for (int thread = 0; thread < kApplicationThreads; ++thread) {
        const auto base = static_cast<std::size_t>(thread * kOperationLimitPerThread);
        tasks.push_back([this, thread, base] {
            operationCounts_[static_cast<std::size_t>(thread)] = useTheManager(thread, base);
        });
    }
    tasks.push_back([this] { actAsTheService(); });
    tasks.push_back([this] { dropConnections(); });
    runTogether(std::move(tasks));
    if (HasFatalFailure()) return;

    std::vector<std::size_t> used;
    for (int thread = 0; thread < kApplicationThreads; ++thread) {
        const auto base = static_cast<std::size_t>(thread * kOperationLimitPerThread);
        for (int step = 0; step < operationCounts_[static_cast<std::size_t>(thread)]; ++step) {
            used.push_back(base + static_cast<std::size_t>(step));
        }
    }
    EXPECT_TRUE(ledger_.waitForAll(used.size(), kPatience)) << "callbacks missing";
    std::this_thread::sleep_for(200ms);  // a second call, if any, would come now
    EXPECT_EQ(ledger_.anomalies(used), std::vector<std::string>{});
    EXPECT_GT(ledger_.failures(), 0);  // the guest's metadata writes at least
    EXPECT_EQ(oddAnswers_, 0);

    for (int index = 0; index < kChatrooms; ++index) {
        const auto channel = channelName(index);
        if (isDropped(index)) {
            EXPECT_EQ(recorder_.counts(channel).connected, 1 + kDropsPerChatroom) << channel;
            continue;
        }
        // Every event of the service and the echo of every message sent, exactly once.
        const int own = sentTo_[static_cast<std::size_t>(index)];
        EXPECT_TRUE(recorder_.waitUntil(channel, [own](const auto& counts) {
            return counts.serviceMessages >= kFloodPerChatroom &&
                   counts.flushes >= kEmitsPerChatroom && counts.ownMessages >= own;
        })) << channel;
        const auto counts = recorder_.counts(channel);
        EXPECT_EQ(counts.serviceMessages, kFloodPerChatroom) << channel;
        EXPECT_EQ(counts.flushes, kEmitsPerChatroom) << channel;
        EXPECT_EQ(counts.ownMessages, own) << channel;
        EXPECT_EQ(counts.connected, 1) << channel;
    }

    // Everybody leaves, from all threads at once.
    tasks.clear();
    for (int thread = 0; thread < kApplicationThreads; ++thread) {
        tasks.push_back([this, thread] {
            for (int index = thread; index < kChatrooms; index += kApplicationThreads) {
                manager_->disconnectFromChatroom(chats_[static_cast<std::size_t>(index)]);
            }
        });
    }
    runTogether(std::move(tasks));
    for (int index = 0; index < kChatrooms; ++index) {
        const auto channel = channelName(index);
        EXPECT_TRUE(recorder_.waitUntil(channel, [](const auto& c) { return c.disconnected; }))
            << channel;
    }
    std::this_thread::sleep_for(200ms);
    for (int index = 0; index < kChatrooms; ++index) {
        const auto channel = channelName(index);
        const auto counts = recorder_.counts(channel);
        EXPECT_EQ(counts.disconnected, 1) << channel;
        EXPECT_EQ(counts.failures, 0) << channel << ": " << counts.lastFailure;
        EXPECT_FALSE(manager_->isChatroomConnected(chats_[static_cast<std::size_t>(index)]));
        EXPECT_FALSE(manager_->chatForChatroomName(channel, false)) << channel;
    }
    EXPECT_TRUE(emulator().control("GET", "sockets").at("sockets").as_array().empty());
}

}  // namespace
}  // namespace tavlo
