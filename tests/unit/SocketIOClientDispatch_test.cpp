#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <mutex>
#include <stdexcept>
#include <vector>

#include "SocketIO/SocketIOClient.hpp"

// The client's local side: handler registration and dispatch, and the attempts that fail before
// any byte goes out. No server involved.
namespace tavlo::sio {
namespace {

using namespace std::chrono_literals;

// Everything a test's handlers record, plus a way to wait until the handle queue has caught up.
struct Log {
    std::mutex mutex;
    std::vector<std::string> entries;
    void add(std::string entry) {
        std::lock_guard lock(mutex);
        entries.push_back(std::move(entry));
    }
    std::vector<std::string> snapshot() {
        std::lock_guard lock(mutex);
        return entries;
    }
};

void drain(SocketIOClient& client) {
    std::promise<void> done;
    client.handleQueue()->async([&done] { done.set_value(); });
    ASSERT_EQ(done.get_future().wait_for(5s), std::future_status::ready);
}

std::string firstString(const SocketIOArgs& args) {
    return args.empty() || !args[0].is_string() ? "" : std::string(args[0].get_string());
}

TEST(SocketIOClientDispatch, InternalMessagesReachHandlersEvenWhenNotConnected) {
    auto client = SocketIOClient::create("http://127.0.0.1:1", {});
    auto log = std::make_shared<Log>();
    client->on("error", [log](const SocketIOArgs& args) { log->add(firstString(args)); });
    client->handleEvent("error", {"Connect attempt denied"}, true);
    client->handleEvent("error", {"from the wire"}, false);  // not connected: ignored
    drain(*client);
    EXPECT_EQ(log->snapshot(), std::vector<std::string>{"Connect attempt denied"});
    EXPECT_EQ(client->status(), SocketIOStatus::notConnected);
}

TEST(SocketIOClientDispatch, HandlersRunInOrderOnTheHandleQueueWhichMayTargetAnother) {
    auto owner = dispatch::SerialQueue::create("owner");
    SocketIOClientOptions options;
    options.handleQueue = dispatch::SerialQueue::create("handlers", owner);
    auto client = SocketIOClient::create("http://127.0.0.1:1", options);
    auto log = std::make_shared<Log>();
    auto queue = options.handleQueue;
    for (std::string name : {"first", "second", "third"}) {
        client->on("tick", [log, name, queue, owner](const SocketIOArgs&) {
            log->add(name + (queue->isCurrent() && owner->isCurrent() ? "" : " off-queue"));
        });
    }
    client->on("other", [log](const SocketIOArgs&) { log->add("other"); });
    client->handleEvent("tick", {}, true);
    drain(*client);
    EXPECT_EQ(log->snapshot(), (std::vector<std::string>{"first", "second", "third"}));
}

TEST(SocketIOClientDispatch, RemovalTakesEffectEvenDuringADispatch) {
    auto client = SocketIOClient::create("http://127.0.0.1:1", {});
    auto log = std::make_shared<Log>();
    std::weak_ptr<SocketIOClient> weak = client;
    auto removable = client->on("a", [log](const SocketIOArgs&) { log->add("removed one"); });
    client->on("a", [log](const SocketIOArgs&) { log->add("kept"); });
    client->off(removable);
    client->handleEvent("a", {}, true);
    drain(*client);
    EXPECT_EQ(log->snapshot(), std::vector<std::string>{"kept"});

    auto clearing = SocketIOClient::create("http://127.0.0.1:1", {});
    auto cleared = std::make_shared<Log>();
    std::weak_ptr<SocketIOClient> weakClearing = clearing;
    clearing->on("disconnect", [cleared, weakClearing](const SocketIOArgs&) {
        cleared->add("clearing");
        if (auto self = weakClearing.lock()) self->removeAllHandlers();
    });
    clearing->on("disconnect", [cleared](const SocketIOArgs&) { cleared->add("too late"); });
    clearing->handleEvent("disconnect", {}, true);
    clearing->handleEvent("disconnect", {}, true);
    drain(*clearing);
    EXPECT_EQ(cleared->snapshot(), std::vector<std::string>{"clearing"});
}

TEST(SocketIOClientDispatch, AThrowingHandlerDoesNotKeepOthersFromTheEvent) {
    auto client = SocketIOClient::create("http://127.0.0.1:1", {});
    auto log = std::make_shared<Log>();
    client->on("a", [](const SocketIOArgs&) { throw std::runtime_error("handler bug"); });
    client->on("a", [log](const SocketIOArgs&) { log->add("ran"); });
    client->handleEvent("a", {}, true);
    drain(*client);
    EXPECT_EQ(log->snapshot(), std::vector<std::string>{"ran"});
}

TEST(SocketIOClientDispatch, AttemptsThatCannotStartGiveErrorThenDisconnect) {
    struct Case {
        std::string url;
        SocketIOClientOptions options;
        std::string reason;
    };
    const Case cases[] = {
        {"not a url", {}, "invalid socket URL"},
        {"ftp://127.0.0.1", {}, "invalid socket URL"},
    };
    for (const auto& c : cases) {
        auto client = SocketIOClient::create(c.url, c.options);
        auto log = std::make_shared<Log>();
        std::promise<void> disconnected;
        client->on("error", [log](const SocketIOArgs& args) { log->add(firstString(args)); });
        client->on("disconnect", [log, &disconnected](const SocketIOArgs&) {
            log->add("disconnect");
            disconnected.set_value();
        });
        client->connect(5s, [log] { log->add("timeout"); });
        ASSERT_EQ(disconnected.get_future().wait_for(5s), std::future_status::ready) << c.url;
        EXPECT_EQ(log->snapshot(), (std::vector<std::string>{c.reason, "disconnect"})) << c.url;
        EXPECT_EQ(client->status(), SocketIOStatus::disconnected);
    }
}

TEST(SocketIOClientDispatch, EmitWhileNotConnectedIsAnErrorAndSendsNothing) {
    auto client = SocketIOClient::create("http://127.0.0.1:1", {});
    auto log = std::make_shared<Log>();
    client->on("error", [log](const SocketIOArgs& args) { log->add(firstString(args)); });
    client->emit("subscribe", {"secret-user-token", "chat"});
    drain(*client);
    auto entries = log->snapshot();
    ASSERT_EQ(entries.size(), 1u);
    EXPECT_NE(entries[0].find("not connected"), std::string::npos);
    EXPECT_EQ(entries[0].find("secret-user-token"), std::string::npos);  // arguments stay out
}

TEST(SocketIOClientDispatch, DroppingAClientWithQueuedEventsDeliversNothingMore) {
    auto log = std::make_shared<Log>();
    auto blocker = dispatch::SerialQueue::create("blocked");
    SocketIOClientOptions options;
    options.handleQueue = blocker;
    std::promise<void> release;
    auto released = release.get_future().share();
    blocker->async([released] { released.wait(); });  // holds the queue until the client is gone
    {
        auto client = SocketIOClient::create("http://127.0.0.1:1", options);
        client->on("a", [log](const SocketIOArgs&) { log->add("delivered"); });
        client->handleEvent("a", {}, true);
    }
    release.set_value();
    std::promise<void> done;
    blocker->async([&done] { done.set_value(); });
    done.get_future().wait();
    EXPECT_TRUE(log->snapshot().empty());
}

TEST(SocketIOClientDispatch, EventsCountInTheSharedBacklogUntilDeliveredOrDropped) {
    auto blocker = dispatch::SerialQueue::create("blocked");
    auto backlog = std::make_shared<ReadBacklog>(ReadBacklog::Limits{3, 1024});
    SocketIOClientOptions options;
    options.handleQueue = blocker;
    options.backlog = backlog;
    std::promise<void> release;
    auto released = release.get_future().share();
    blocker->async([released] { released.wait(); });
    auto delivered = std::make_shared<std::atomic<int>>(0);
    auto client = SocketIOClient::create("http://127.0.0.1:1", options);
    client->on("a", [delivered](const SocketIOArgs&) { ++*delivered; });
    for (int i = 0; i < 3; ++i) client->handleEvent("a", {}, true);
    EXPECT_EQ(backlog->events(), 3u);
    EXPECT_TRUE(backlog->isFull());
    release.set_value();
    drain(*client);
    EXPECT_EQ(*delivered, 3);
    EXPECT_EQ(backlog->events(), 0u);
    EXPECT_FALSE(backlog->isFull());

    // A client dropped with events still queued gives them back: the backlog outlives it (a
    // chatroom keeps one across its sockets) and must not stay full for the next one.
    std::promise<void> hold;
    auto held = hold.get_future().share();
    blocker->async([held] { held.wait(); });
    for (int i = 0; i < 3; ++i) client->handleEvent("a", {}, true);
    EXPECT_TRUE(backlog->isFull());
    client.reset();
    EXPECT_EQ(backlog->events(), 0u);
    EXPECT_FALSE(backlog->isFull());
    hold.set_value();
}

struct BacklogStep {
    const char* what;
    long events;  // added (positive) or removed (negative)
    long bytes;
    bool full;
};

TEST(ReadBacklog, FullAtTheBoundUntilHalfIsLeftByEventsOrBytes) {
    const BacklogStep steps[] = {
        {"below the bound", 9, 0, false},
        {"events reach it", 1, 0, true},
        {"still above half", -4, 0, true},
        {"half left", -1, 0, false},
        {"bytes reach it", 0, 100, true},
        {"events drop, bytes do not", -5, 0, true},
        {"bytes drop to half", 0, -50, false},
        {"more removed than added stops at zero", -100, -100, false},
        {"and counts from zero again", 10, 0, true},
    };
    ReadBacklog backlog(ReadBacklog::Limits{10, 100});
    int changes = 0;
    backlog.watch([&] { ++changes; });
    bool wasFull = false;
    int expectedChanges = 0;
    for (const auto& step : steps) {
        if (step.events >= 0 && step.bytes >= 0) {
            backlog.add(std::size_t(step.events), std::size_t(step.bytes));
        } else {
            backlog.remove(std::size_t(-std::min(step.events, 0L)),
                           std::size_t(-std::min(step.bytes, 0L)));
        }
        EXPECT_EQ(backlog.isFull(), step.full) << step.what;
        if (step.full != wasFull) ++expectedChanges;
        wasFull = step.full;
        EXPECT_EQ(changes, expectedChanges) << step.what;  // told of each change, once
    }
    EXPECT_EQ(backlog.events(), 10u);
    EXPECT_EQ(backlog.bytes(), 0u);
}

TEST(ReadBacklog, WatchersAreToldOutsideItsLockUntilUnwatched) {
    ReadBacklog backlog(ReadBacklog::Limits{1, 100});
    std::vector<bool> seen;
    // Reading the backlog from the watcher would hang if it were called under the lock.
    const auto id = backlog.watch([&] { seen.push_back(backlog.isFull()); });
    backlog.add(1);
    backlog.remove(1);
    backlog.unwatch(id);
    backlog.add(1);
    EXPECT_EQ(seen, (std::vector<bool>{true, false}));
}

}  // namespace
}  // namespace tavlo::sio
