#include "SocketIO/SocketIOClient.hpp"

#include <gtest/gtest.h>

#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <cstdlib>
#include <future>
#include <iostream>
#include <mutex>
#include <thread>

#include "Dispatch/Internal/ManualScheduler.hpp"
#include "tests/integration/sio/SocketIOTestSupport.hpp"
#include "tests/support/Emulator.hpp"

namespace tavlo::sio::test {
namespace {

namespace json = boost::json;
using tavlo::test::Emulator;

const std::vector<std::string> kClientEvents = {"connect", "disconnect", "error"};

struct Connection {
    std::shared_ptr<SocketIOClient> client;
    std::shared_ptr<EventRecorder> events = std::make_shared<EventRecorder>();
};

Connection makeClient(const std::string& url, SocketIOClientOptions options = {},
                      std::vector<std::string> serverEvents = {}) {
    Connection connection;
    connection.client = SocketIOClient::create(url, std::move(options));
    auto events = kClientEvents;
    events.insert(events.end(), serverEvents.begin(), serverEvents.end());
    connection.events->attach(*connection.client, events);
    return connection;
}

// Connects and waits for "connect".
Connection connected(const std::string& url, SocketIOClientOptions options = {},
                     std::vector<std::string> serverEvents = {}) {
    auto connection = makeClient(url, std::move(options), std::move(serverEvents));
    connection.client->connect(10s);
    EXPECT_TRUE(connection.events->waitFor("connect")) << "no connection to " << url;
    return connection;
}

// --- Talking to the official server ------------------------------------------------------------

TEST(SocketIOClientExchange, HandshakeCarriesTheParametersPercentEncoded) {
    EchoServer server;
    SocketIOClientOptions options;
    options.connectParams = {
        {"userAgent", "Tavlo SDK(v1.0) in x86_64 Linux"}, {"chatId", "a&b=c d"}, {"name", "Zoë 👋"}};
    auto connection = connected(server.url(), options, {"welcome"});
    auto welcome = connection.events->waitFor("welcome");
    ASSERT_TRUE(welcome);
    const auto& query = welcome->at(0).at("query").as_object();
    EXPECT_EQ(query.at("EIO"), "4");
    EXPECT_EQ(query.at("transport"), "websocket");
    EXPECT_EQ(query.at("userAgent"), "Tavlo SDK(v1.0) in x86_64 Linux");
    EXPECT_EQ(query.at("chatId"), "a&b=c d");
    EXPECT_EQ(query.at("name"), "Zoë 👋");
    EXPECT_EQ(connection.client->status(), SocketIOStatus::connected);
}

TEST(SocketIOClientExchange, EventsTravelBothWaysWithNestedJSONAndNonASCIIText) {
    EchoServer server;
    auto connection = connected(server.url(), {}, {"echo"});
    const SocketIOArgs args = {
        json::parse(R"({"text":"héllo, 世界 👋","nested":{"list":[1,2.5,-3,null,true,{"deep":[[]]}]},
                        "empty":{},"quote":"\"\\\n"})"),
        "second argument", 9007199254740991, nullptr};
    connection.client->emit("echo", args);
    connection.client->emit("echo", {});
    auto echoed = connection.events->waitFor("echo");
    ASSERT_TRUE(echoed);
    EXPECT_EQ(*echoed, args);
    auto empty = connection.events->waitFor("echo", 1);
    ASSERT_TRUE(empty);
    EXPECT_TRUE(empty->empty());
    EXPECT_EQ(connection.events->count("error"), 0u);
}

TEST(SocketIOClientExchange, HeartbeatKeepsTheConnectionOverSeveralPingIntervals) {
    // A pong may be 400 ms late on a loaded machine; a client that never answered would be
    // dropped after 500 ms, well within the wait.
    EchoServer server({"--ping-interval", "100", "--ping-timeout", "400"});
    auto connection = connected(server.url(), {}, {"echo"});
    std::this_thread::sleep_for(1200ms);  // about eleven pings, each answered
    EXPECT_EQ(connection.client->status(), SocketIOStatus::connected);
    connection.client->emit("echo", {"still here"});
    EXPECT_TRUE(connection.events->waitFor("echo"));
    EXPECT_EQ(connection.events->count("disconnect"), 0u);
}

TEST(SocketIOClientExchange, ReservedNamesAndOversizedPacketsAreRefusedLocally) {
    EchoServer server;
    auto connection = connected(server.url(), {}, {"echo"});
    connection.client->emit("disconnect", {});
    connection.client->emit(
        "echo", {json::string(std::string(2'000'000, 'x'))});  // above the server's 1 MB
    EXPECT_TRUE(connection.events->waitFor("error", 1));
    EXPECT_NE(connection.events->reason("error", 0).find("reserved"), std::string::npos);
    EXPECT_NE(connection.events->reason("error", 1).find("exceeds"), std::string::npos);
    connection.client->emit("echo", {"fine"});
    EXPECT_TRUE(connection.events->waitFor("echo"));
    EXPECT_EQ(connection.client->status(), SocketIOStatus::connected);
}

// --- What the server may send that the client must refuse --------------------------------------

TEST(SocketIOClientRefusal, BinaryEventsAreDroppedWithOneErrorEach) {
    EchoServer server;
    auto connection = connected(server.url(), {}, {"bin", "after-binary", "after-raw"});
    connection.client->emit("please-binary", {});
    ASSERT_TRUE(connection.events->waitFor("after-binary"));
    EXPECT_EQ(connection.events->count("bin"), 0u);
    EXPECT_EQ(connection.events->count("error"), 1u);  // attachments go with their packet
    EXPECT_NE(connection.events->reason("error").find("binary"), std::string::npos);

    connection.client->emit("please-raw-binary", {});
    ASSERT_TRUE(connection.events->waitFor("after-raw"));
    EXPECT_EQ(connection.events->count("error"), 2u);
    EXPECT_EQ(connection.client->status(), SocketIOStatus::connected);
}

TEST(SocketIOClientRefusal, MalformedFramesGiveAnErrorEachAndTheConnectionGoesOn) {
    EchoServer server;
    auto connection = connected(server.url(), {}, {"after-raw", "x"});
    const std::vector<std::string> frames = {
        "42[\"x\"",          // truncated JSON
        "4",                 // message without a Socket.IO packet
        "9zz",               // unknown Engine.IO type
        "42{\"x\":1}",       // event payload not an array
        "0{\"sid\":\"x\"}",  // a second open packet
        "42[\"connect\"]",   // a reserved name
    };
    json::array rawFrames(frames.begin(), frames.end());
    rawFrames.emplace_back("42/admin,[\"x\"]");  // another namespace: ignored without an error
    connection.client->emit("please-raw", {rawFrames});
    ASSERT_TRUE(connection.events->waitFor("after-raw"));
    EXPECT_EQ(connection.events->count("error"), frames.size());
    EXPECT_EQ(connection.events->count("x"), 0u);
    EXPECT_EQ(connection.events->count("disconnect"), 0u);
    EXPECT_EQ(connection.client->status(), SocketIOStatus::connected);
}

TEST(SocketIOClientRefusal, TextThatIsNotUTF8FailsTheConnectionWith1007) {
    // 42["x","é"] in hex, cut into WebSocket fragments at different places, and broken variants.
    struct Case {
        std::vector<std::string> fragments;
        bool valid;
    };
    const Case cases[] = {
        {{"34325b2278222c22c3a9225d"}, true},
        {{"34325b2278222c22c3", "a9225d"}, true},     // a character split between fragments
        {{"34325b2278222c22ff225d"}, false},          // a byte that never occurs in UTF-8
        {{"34325b2278222c22c0af225d"}, false},        // an overlong "/"
        {{"34325b2278222c22eda080225d"}, false},      // a surrogate
        {{"34325b2278222c22", "c3"}, false},          // the message ends inside a character
        {{"34325b2278222c22", "e9", "225d"}, false},  // a lead byte followed by a quote
    };
    EchoServer server;
    for (const auto& c : cases) {
        auto connection = connected(server.url(), {}, {"x"});
        connection.client->emit("please-bad-text",
                                {json::array(c.fragments.begin(), c.fragments.end())});
        if (c.valid) {
            auto args = connection.events->waitFor("x");
            ASSERT_TRUE(args) << c.fragments.front();
            EXPECT_EQ(args->at(0), "é");
            connection.client->disconnect();
            continue;
        }
        ASSERT_TRUE(connection.events->waitFor("disconnect")) << c.fragments.back();
        EXPECT_NE(connection.events->reason("error").find("UTF-8"), std::string::npos);
        EXPECT_EQ(connection.events->count("x"), 0u);
        EXPECT_EQ(connection.client->status(), SocketIOStatus::disconnected);
        // The server saw the reason in the close frame's status (asked again until its side of
        // the connection has ended too).
        auto probe = connected(server.url(), {}, {"close-code"});
        json::value code;
        for (std::size_t asked = 0; asked < 50 && code != 1007; ++asked) {
            probe.client->emit("last-close-code", {});
            auto answer = probe.events->waitFor("close-code", asked);
            ASSERT_TRUE(answer);
            code = answer->at(0);
            if (code != 1007) std::this_thread::sleep_for(20ms);
        }
        EXPECT_EQ(code, 1007) << c.fragments.back();
        probe.client->disconnect();
    }
}

TEST(SocketIOClientRefusal, OversizedFramesAreSkippedWithoutBufferingThem) {
    EchoServer server;
    SocketIOClientOptions options;
    options.maxIncomingMessageSize = 4096;
    auto connection = connected(server.url(), options, {"big", "after-big"});
    connection.client->emit("please-big", {200'000});
    ASSERT_TRUE(connection.events->waitFor("after-big"));
    EXPECT_EQ(connection.events->count("big"), 0u);
    EXPECT_NE(connection.events->reason("error").find("4096"), std::string::npos);
    EXPECT_EQ(connection.client->status(), SocketIOStatus::connected);
}

// --- Floods ------------------------------------------------------------------------------------

// Records the indices of "seq" events and the threads they ran on.
struct SequenceRecorder {
    std::mutex mutex;
    std::condition_variable changed;
    std::vector<std::int64_t> indices;
    std::vector<bool> ranOnIOThread;

    void attach(SocketIOClient& client, std::chrono::milliseconds firstTakes = 0ms) {
        client.on("seq", [this, firstTakes](const SocketIOArgs& args) {
            char name[16] = {};
            pthread_getname_np(pthread_self(), name, sizeof name);
            const auto index = args.at(0).to_number<std::int64_t>();
            if (index == 0) std::this_thread::sleep_for(firstTakes);
            std::lock_guard lock(mutex);
            indices.push_back(index);
            ranOnIOThread.push_back(std::string_view(name) == "tavlo-io");
            changed.notify_all();
        });
    }
    bool waitFor(std::size_t count) {
        std::unique_lock lock(mutex);
        return changed.wait_for(lock, 60s, [&] { return indices.size() >= count; });
    }
    bool inOrder() {
        std::lock_guard lock(mutex);
        for (std::size_t i = 0; i < indices.size(); ++i) {
            if (indices[i] != static_cast<std::int64_t>(i)) return false;
        }
        return true;
    }
};

TEST(SocketIOClientFlood, ABurstArrivesInOrderAndRunsOnTheIOThreadWhileTheQueueIsIdle) {
    EchoServer server;
    SequenceRecorder sequence;  // outlives the client, whose handlers point to it
    auto connection = connected(server.url());
    sequence.attach(*connection.client);
    // The "connect" handler's task may still be finishing on a worker of a busy machine; the
    // burst must find the handle queue idle.
    connection.client->handleQueue()->sync([] {});
    constexpr std::size_t kEvents = 10000;
    connection.client->emit("please-flood", {json::value(kEvents), json::value(10)});
    ASSERT_TRUE(sequence.waitFor(kEvents));
    EXPECT_TRUE(sequence.inOrder());
    // Nothing else runs on the handle queue, so the burst needs no hand-over to another thread.
    // (Later batches may: one that overruns its time budget, on a slow or busy machine, hands
    // its rest to the workers.)
    std::lock_guard lock(sequence.mutex);
    EXPECT_TRUE(sequence.ranOnIOThread.front());
}

TEST(SocketIOClientFlood, AfterASlowHandlerTheEventsLeaveTheIOThreadToTheWorkers) {
    EchoServer server;
    SequenceRecorder sequence;
    auto connection = connected(server.url());
    sequence.attach(*connection.client, 50ms);
    constexpr std::size_t kEvents = 200;
    connection.client->emit("please-flood", {json::value(kEvents), json::value(10)});
    ASSERT_TRUE(sequence.waitFor(kEvents));
    EXPECT_TRUE(sequence.inOrder());
    // The other connections of that I/O thread waited for one slow call, and no more.
    std::lock_guard lock(sequence.mutex);
    EXPECT_EQ(std::count(sequence.ranOnIOThread.begin() + 1, sequence.ranOnIOThread.end(), true),
              0);
}

TEST(SocketIOClientFlood, ReadingStopsWhileTheHandleQueueIsBusyAndResumesOnceItDrains) {
    EchoServer server;
    SocketIOClientOptions options;
    options.backlog = std::make_shared<ReadBacklog>(ReadBacklog::Limits{200, 1024 * 1024});
    SequenceRecorder sequence;
    auto connection = connected(server.url(), options);
    sequence.attach(*connection.client);
    std::promise<void> release;
    connection.client->handleQueue()->async([done = release.get_future().share()] { done.wait(); });

    constexpr std::size_t kEvents = 5000;
    constexpr std::size_t kEventBytes = 500;
    connection.client->emit("please-flood", {json::value(kEvents), json::value(kEventBytes)});
    // Give the flood time to fill whatever the client would take.
    std::size_t seen = 0;
    for (int settled = 0; settled < 5;) {
        std::this_thread::sleep_for(100ms);
        const std::size_t now = connection.client->undeliveredEventCount();
        settled = now == seen && now > 0 ? settled + 1 : 0;
        seen = now;
    }
    // One read past the bound at most: a read is at most 64 KiB.
    EXPECT_GE(seen, 200u);
    EXPECT_LE(seen, 200u + 64 * 1024 / kEventBytes);

    release.set_value();
    ASSERT_TRUE(sequence.waitFor(kEvents));
    EXPECT_TRUE(sequence.inOrder());
    EXPECT_EQ(connection.events->count("error"), 0u);
    EXPECT_EQ(connection.client->status(), SocketIOStatus::connected);
}

// The soak: TAVLO_STALL_SOAK_SECONDS=60 stalls for a minute against the server's default heartbeat
// (25 s + 20 s); the default run scales it down.
struct Stall {
    std::vector<std::string> serverArguments;
    std::chrono::milliseconds length;
};
Stall stallUnderTest() {
    if (const char* seconds = std::getenv("TAVLO_STALL_SOAK_SECONDS")) {
        return {{}, std::chrono::seconds(std::atoi(seconds))};
    }
    // The server wants an answer to its ping within 500 ms of sending it; the handlers stall for
    // five times its whole allowance. (Shorter heartbeats would fail on the server's own pause
    // while it writes the flood.)
    return {{"--ping-interval", "500", "--ping-timeout", "500"}, 5s};
}

TEST(SocketIOClientFlood, APauseFarLongerThanTheHeartbeatKeepsTheConnectionAndLosesNothing) {
    const auto stall = stallUnderTest();
    EchoServer server(stall.serverArguments);
    SocketIOClientOptions options;
    options.backlog = std::make_shared<ReadBacklog>(ReadBacklog::Limits{200, 1024 * 1024});
    SequenceRecorder sequence;
    auto connection = connected(server.url(), options);
    sequence.attach(*connection.client);
    std::promise<void> release;
    connection.client->handleQueue()->async([done = release.get_future().share()] { done.wait(); });

    constexpr std::size_t kEvents = 5000;  // 10 MB, far more than the socket buffers hold
    connection.client->emit("please-flood", {json::value(kEvents), json::value(2000)});
    std::this_thread::sleep_for(stall.length);
    const auto waiting = connection.client->undeliveredEventCount();
    EXPECT_LT(waiting, kEvents) << "reading never paused";
    release.set_value();

    const bool all = sequence.waitFor(kEvents);
    EXPECT_EQ(connection.events->count("disconnect"), 0u)
        << connection.events->reason("disconnect");
    ASSERT_TRUE(all) << sequence.indices.size() << " of " << kEvents << " delivered";
    EXPECT_TRUE(sequence.inOrder());
    EXPECT_EQ(connection.events->count("error"), 0u);
    EXPECT_EQ(connection.client->status(), SocketIOStatus::connected);
    std::lock_guard lock(sequence.mutex);
    std::cout << "[ stall    ] " << stall.length.count() << " ms stalled with " << waiting
              << " events read and waiting; " << sequence.indices.size() << " of " << kEvents
              << " delivered in order, " << connection.events->count("disconnect")
              << " disconnects\n";
}

// --- Ends of a connection ----------------------------------------------------------------------

TEST(SocketIOClientEnding, ClientDisconnectDeliversDisconnectAndAllowsANewConnection) {
    EchoServer server;
    auto connection = connected(server.url());
    connection.client->disconnect();
    EXPECT_EQ(connection.client->status(), SocketIOStatus::disconnected);
    ASSERT_TRUE(connection.events->waitFor("disconnect"));
    EXPECT_EQ(connection.events->reason("disconnect"), "io client disconnect");
    connection.client->disconnect();  // not connected any more: nothing

    connection.client->connect(10s);
    ASSERT_TRUE(connection.events->waitFor("connect", 1));
    EXPECT_EQ(connection.client->status(), SocketIOStatus::connected);
    std::this_thread::sleep_for(100ms);
    EXPECT_EQ(connection.events->count("disconnect"), 1u);
    EXPECT_EQ(connection.events->count("error"), 0u);
}

TEST(SocketIOClientEnding, ServerSideDisconnectIsReportedOnce) {
    EchoServer server;
    auto connection = connected(server.url());
    connection.client->emit("please-disconnect", {});
    ASSERT_TRUE(connection.events->waitFor("disconnect"));
    EXPECT_EQ(connection.events->reason("disconnect"), "io server disconnect");
    std::this_thread::sleep_for(200ms);  // the transport closing after it must not add anything
    EXPECT_EQ(connection.events->count("disconnect"), 1u);
    EXPECT_EQ(connection.events->count("error"), 0u);
    EXPECT_EQ(connection.client->status(), SocketIOStatus::disconnected);
}

TEST(SocketIOClientEnding, KilledServerIsReportedAsOneLostConnection) {
    EchoServer server({"--ping-interval", "200", "--ping-timeout", "200"});
    auto connection = connected(server.url());
    server.kill();
    ASSERT_TRUE(connection.events->waitFor("disconnect"));
    std::this_thread::sleep_for(600ms);  // past the heartbeat deadline too
    EXPECT_EQ(connection.events->count("disconnect"), 1u);
    EXPECT_EQ(connection.events->count("error"), 0u);
    EXPECT_EQ(connection.client->status(), SocketIOStatus::disconnected);
}

TEST(SocketIOClientEnding, MissingPingsEndTheConnectionAsPingTimeout) {
    EchoServer server({"--ping-interval", "100", "--ping-timeout", "100"});
    auto connection = connected(server.url());
    connection.client->emit("please-freeze", {1500});
    auto disconnect = connection.events->waitFor("disconnect", 0, 1200ms);
    ASSERT_TRUE(disconnect) << "the frozen server was not noticed in time";
    EXPECT_EQ(connection.events->reason("disconnect"), "ping timeout");
    std::this_thread::sleep_for(600ms);
    EXPECT_EQ(connection.events->count("disconnect"), 1u);
}

TEST(SocketIOClientEnding, ReleasingTheClientInsideItsOwnHandlerIsSafe) {
    EchoServer server;
    auto connection = connected(server.url(), {}, {"echo"});
    std::promise<void> released;
    auto holder = std::make_shared<std::shared_ptr<SocketIOClient>>(connection.client);
    connection.client->on("echo", [holder, &released](const SocketIOArgs&) {
        holder->reset();  // the last reference goes while the client runs this handler
        released.set_value();
    });
    std::weak_ptr<SocketIOClient> weak = connection.client;
    connection.client.reset();
    (*holder)->emit("echo", {1});
    ASSERT_EQ(released.get_future().wait_for(10s), std::future_status::ready);
    for (int i = 0; i < 100 && !weak.expired(); ++i) std::this_thread::sleep_for(10ms);
    EXPECT_TRUE(weak.expired());
}

// --- Failed attempts ---------------------------------------------------------------------------

TEST(SocketIOClientAttempt, RefusedConnectionGivesErrorThenDisconnect) {
    auto connection = makeClient("http://127.0.0.1:" + std::to_string(closedPort()));
    std::atomic<int> timeouts = 0;
    connection.client->connect(500ms, [&timeouts] { ++timeouts; });
    ASSERT_TRUE(connection.events->waitFor("disconnect"));
    EXPECT_EQ(connection.events->sequence(), (std::vector<std::string>{"error", "disconnect"}));
    EXPECT_NE(connection.events->reason("error").find("refused"), std::string::npos);
    std::this_thread::sleep_for(700ms);
    EXPECT_EQ(timeouts, 0);
    EXPECT_EQ(connection.client->status(), SocketIOStatus::disconnected);
}

TEST(SocketIOClientAttempt, ServerConnectErrorIsDeliveredAsError) {
    EchoServer server;
    SocketIOClientOptions options;
    options.connectParams = {{"reject", "1"}};
    auto connection = makeClient(server.url(), options);
    connection.client->connect(10s);
    ASSERT_TRUE(connection.events->waitFor("disconnect"));
    EXPECT_EQ(connection.events->sequence(), (std::vector<std::string>{"error", "disconnect"}));
    EXPECT_EQ(connection.events->reason("error"), "not authorized");
}

TEST(SocketIOClientAttempt, DeclinedUpgradeNamesTheHTTPStatus) {
    Emulator emulator;
    emulator.control("POST", "sockets/refuse", json::object{{"mode", "reject"}});
    SocketIOClientOptions options;
    options.path = emulator.socketPath();
    auto connection = makeClient(emulator.url(), options);
    connection.client->connect(10s);
    ASSERT_TRUE(connection.events->waitFor("disconnect"));
    EXPECT_EQ(connection.events->sequence(), (std::vector<std::string>{"error", "disconnect"}));
    // The server's answer to a refused upgrade (400 or 403, by the socket.io release).
    EXPECT_TRUE(
        connection.events->reason("error").starts_with("WebSocket upgrade declined (HTTP 4"))
        << connection.events->reason("error");
}

TEST(SocketIOClientAttempt, TimeOutAbandonsTheAttemptWithoutDisconnect) {
    SilentListener listener;
    auto connection = makeClient(listener.url());
    std::atomic<int> timeouts = 0, ignoredTimeouts = 0;
    auto started = std::chrono::steady_clock::now();
    std::promise<std::chrono::steady_clock::duration> fired;
    connection.client->connect(200ms, [&] {
        if (++timeouts == 1) fired.set_value(std::chrono::steady_clock::now() - started);
    });
    connection.client->connect(50ms, [&] { ++ignoredTimeouts; });  // already connecting
    EXPECT_EQ(connection.client->status(), SocketIOStatus::connecting);
    auto future = fired.get_future();
    ASSERT_EQ(future.wait_for(5s), std::future_status::ready);
    EXPECT_GE(future.get(), 200ms);
    std::this_thread::sleep_for(300ms);
    EXPECT_EQ(timeouts, 1);
    EXPECT_EQ(ignoredTimeouts, 0);
    EXPECT_TRUE(connection.events->sequence().empty());
    EXPECT_EQ(connection.client->status(), SocketIOStatus::disconnected);
}

TEST(SocketIOClientAttempt, AnInjectedSchedulerTimesTheAttempt) {
    SilentListener listener;
    auto scheduler = std::make_shared<dispatch::ManualScheduler>();
    SocketIOClientOptions options;
    options.scheduler = scheduler;
    auto connection = makeClient(listener.url(), options);
    std::promise<void> timedOut;
    connection.client->connect(30s, [&timedOut] { timedOut.set_value(); });
    auto future = timedOut.get_future();
    for (int i = 0; i < 100 && scheduler->pendingCount() == 0; ++i)
        std::this_thread::sleep_for(5ms);
    scheduler->advance(29s);
    EXPECT_EQ(future.wait_for(200ms), std::future_status::timeout);
    EXPECT_EQ(connection.client->status(), SocketIOStatus::connecting);
    scheduler->advance(1s);
    ASSERT_EQ(future.wait_for(5s), std::future_status::ready);
    EXPECT_EQ(connection.client->status(), SocketIOStatus::disconnected);
    EXPECT_TRUE(connection.events->sequence().empty());
}

TEST(SocketIOClientAttempt, DisconnectWhileConnectingEndsTheAttempt) {
    SilentListener listener;
    auto connection = makeClient(listener.url());
    std::atomic<int> timeouts = 0;
    connection.client->connect(200ms, [&] { ++timeouts; });
    connection.client->disconnect();
    ASSERT_TRUE(connection.events->waitFor("disconnect"));
    std::this_thread::sleep_for(400ms);
    EXPECT_EQ(timeouts, 0);
    EXPECT_EQ(connection.events->sequence(), (std::vector<std::string>{"disconnect"}));
}

// --- wss:// ------------------------------------------------------------------------------------

TEST(SocketIOClientTLS, TrustedCertificateConnects) {
    Emulator emulator(true);
    ASSERT_TRUE(emulator.caFile());
    SocketIOClientOptions options;
    options.caFile = emulator.caFile();
    options.path = emulator.socketPath();
    options.connectParams = {{"probe", "tls"}};
    auto connection = connected(emulator.url(), options);
    EXPECT_EQ(connection.client->status(), SocketIOStatus::connected);
    auto log = emulator.control("GET", "requests?kind=socket").at("requests").as_array();
    ASSERT_FALSE(log.empty());
    EXPECT_EQ(log.front().at("query").at("probe"), "tls");
}

TEST(SocketIOClientTLS, UntrustedCertificateFailsTheAttempt) {
    Emulator emulator(true);
    auto connection = makeClient(emulator.url());
    connection.client->connect(10s);
    ASSERT_TRUE(connection.events->waitFor("disconnect"));
    EXPECT_EQ(connection.events->sequence(), (std::vector<std::string>{"error", "disconnect"}));
    EXPECT_NE(connection.events->reason("error").find("certificate verify failed"),
              std::string::npos)
        << connection.events->reason("error");
}

TEST(SocketIOClientTLS, MissingCAFileFailsTheAttemptWithAReason) {
    SocketIOClientOptions options;
    options.caFile = "/nonexistent/ca.pem";
    auto connection = makeClient("https://127.0.0.1:1", options);
    connection.client->connect(10s);
    ASSERT_TRUE(connection.events->waitFor("disconnect"));
    EXPECT_NE(connection.events->reason("error").find("CA file"), std::string::npos);
}

}  // namespace
}  // namespace tavlo::sio::test
