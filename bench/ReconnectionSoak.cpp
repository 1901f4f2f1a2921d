// Soak run of missed-message recovery: one chatroom receives a steady stream of numbered text and
// raw messages from the emulator while its socket is dropped every K seconds (the drop modes in
// turn: disconnect, close, kill, freeze); real time, real retry pauses. At the end it prints how
// many messages were announced, delivered, lost, duplicated and out of order, and per drop how
// long the reconnection took and the worst delivery delay of the messages sent around it.
//
//   ReconnectionSoak [minutes (2)] [messages per second (50)] [seconds between drops (15)] [off]
//
// The figure in README.md comes from `ReconnectionSoak 8 50 15`.
//
// "off" runs the same with recovery off, for comparison. The emulator is `node
// emulator/server.js` from this source tree (TAVLO_EMULATOR overrides the path to server.js);
// `npm ci` must have been run in emulator/.

#include <curl/curl.h>

#include <algorithm>
#include <boost/json.hpp>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "TavloCoreSDK/TVKSDKAuthManager.hpp"
#include "TavloMessagingSDK/TVKChatManager.hpp"
#include "TavloMessagingSDK/TVKChatMessage.hpp"
#include "support/BenchProcess.hpp"

namespace {

namespace json = boost::json;
using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

using bench::fail;

/// The emulator with a one-second heartbeat, so a frozen connection is noticed in about 2 s.
class Emulator : public bench::Emulator {
  public:
    Emulator() : bench::Emulator({"--ping-interval", "1000", "--ping-timeout", "1000"}) {}
};

/// The application: when each numbered message arrived, and the connection events.
class Application : public tavlo::TVKChatEventDelegate {
  public:
    struct Delivery {
        long n;
        Clock::time_point at;
    };

    void chatroomConnected(const std::shared_ptr<tavlo::TVKChat>&) override {
        std::lock_guard lock(mutex_);
        connections_.push_back(Clock::now());
        changed_.notify_all();
    }
    void chatroomError(const std::shared_ptr<tavlo::TVKChat>&, const tavlo::TVKError& e) override {
        fail("the chatroom was lost: " + e.describe());
    }
    void chatroomFailToConnect(const std::shared_ptr<tavlo::TVKChat>&,
                               const tavlo::TVKError& e) override {
        fail("could not connect: " + e.describe());
    }
    void chatroomMissedMessagesGap(const std::shared_ptr<tavlo::TVKChat>&,
                                   const tavlo::TVKMissedMessagesGap&) override {
        std::lock_guard lock(mutex_);
        ++gaps_;
    }
    void chatroomMessageAdded(const std::shared_ptr<tavlo::TVKChat>&,
                              const std::shared_ptr<tavlo::TVKChatMessage>& message) override {
        // "soak N"
        const auto& text = message->text();
        if (!text || text->rfind("soak ", 0) != 0) return;
        record(std::atol(text->c_str() + 5));
    }
    void chatroomRawDataAdded(const std::shared_ptr<tavlo::TVKChat>&,
                              const std::shared_ptr<tavlo::TVKChatMessage>& message) override {
        // {"stream": "soak", "n": N}
        const auto& raw = message->rawData();
        if (!raw || !raw->is_object() || !raw->as_object().contains("n")) return;
        record(raw->at("n").to_number<long>());
    }

    std::size_t waitForConnections(std::size_t count, std::chrono::seconds limit) {
        std::unique_lock lock(mutex_);
        changed_.wait_for(lock, limit, [&] { return connections_.size() >= count; });
        return connections_.size();
    }
    void waitForMessage(long n, std::chrono::seconds limit) {
        std::unique_lock lock(mutex_);
        changed_.wait_for(lock, limit, [&] { return seen_.count(n) > 0; });
    }
    std::vector<Delivery> deliveries() const {
        std::lock_guard lock(mutex_);
        return deliveries_;
    }
    std::vector<Clock::time_point> connections() const {
        std::lock_guard lock(mutex_);
        return connections_;
    }
    int gaps() const {
        std::lock_guard lock(mutex_);
        return gaps_;
    }

  private:
    void record(long n) {
        std::lock_guard lock(mutex_);
        deliveries_.push_back({n, Clock::now()});
        seen_.insert(n);
        changed_.notify_all();
    }

    mutable std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<Delivery> deliveries_;
    std::set<long> seen_;
    std::vector<Clock::time_point> connections_;
    int gaps_ = 0;
};

struct Drop {
    std::string mode;
    Clock::time_point at;
    double reconnectMs = -1;
    double worstDelayMs = 0;
};

double milliseconds(Clock::duration duration) {
    return std::chrono::duration<double, std::milli>(duration).count();
}

}  // namespace

int main(int argc, char** argv) {
    const double minutes = argc > 1 ? std::atof(argv[1]) : 2;
    const double rate = argc > 2 ? std::atof(argv[2]) : 50;
    const double dropEvery = argc > 3 ? std::atof(argv[3]) : 15;
    const bool recovers = !(argc > 4 && std::string(argv[4]) == "off");
    if (minutes <= 0 || rate <= 0 || dropEvery <= 0) {
        fail(
            "usage: ReconnectionSoak [minutes] [messages per second] [seconds between drops] "
            "[off]");
    }
    curl_global_init(CURL_GLOBAL_DEFAULT);
    auto& auth = tavlo::TVKSDKAuthManager::sharedManager();
    auth.setAccountId("demo-account");
    auth.setAccountToken("demo-account-token");

    Emulator emulator;
    emulator.control("POST", "chatrooms", json::object{{"channelCode", "soak"}});
    auto application = std::make_shared<Application>();
    auto manager = tavlo::TVKChatManager::create();
    manager->setHTTPHostURL(emulator.url());
    manager->setRecoversMissedMessages(recovers);
    manager->connectToChatroom("soak", "", 0, application);
    if (application->waitForConnections(1, 30s) < 1) fail("no connection");
    std::this_thread::sleep_for(500ms);  // the recovery's starting point is set

    // Message n is due at start + n / rate: the emulator keeps to that schedule, announcing each
    // within its 5 ms tick; its clock starts while it answers the request.
    emulator.control("POST", "chatrooms/soak/stream",
                     json::object{{"rate", rate}, {"rawEvery", 5}, {"textPrefix", "soak"}});
    const auto start = Clock::now();
    const auto dueOf = [&](long n) {
        return start +
               std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(n / rate));
    };
    const auto end = start + std::chrono::duration_cast<Clock::duration>(
                                 std::chrono::duration<double>(minutes * 60));
    const char* modes[] = {"disconnect", "close", "kill", "freeze"};
    std::vector<Drop> drops;
    for (auto next = start + std::chrono::duration_cast<Clock::duration>(
                                 std::chrono::duration<double>(dropEvery));
         next < end; next += std::chrono::duration_cast<Clock::duration>(
                         std::chrono::duration<double>(dropEvery))) {
        std::this_thread::sleep_until(next);
        Drop drop{modes[drops.size() % 4], Clock::now()};
        emulator.control("POST", "chatrooms/soak/sockets/drop", json::object{{"mode", drop.mode}});
        drops.push_back(drop);
        if (application->waitForConnections(drops.size() + 1, 90s) < drops.size() + 1) {
            fail("no reconnection after drop " + std::to_string(drops.size()));
        }
    }
    std::this_thread::sleep_until(end);
    auto stream = emulator.control("DELETE", "chatrooms/soak/stream");
    const long announced = stream.at("announced").to_number<long>();
    application->waitForMessage(announced, 30s);
    std::this_thread::sleep_for(2s);  // late duplicates, if any

    const auto deliveries = application->deliveries();
    std::map<long, int> times;
    long outOfOrder = 0, last = 0;
    std::vector<double> delays;
    for (const auto& delivery : deliveries) {
        if (++times[delivery.n] == 1) {
            if (delivery.n < last) ++outOfOrder;
            last = std::max(last, delivery.n);
        }
        delays.push_back(milliseconds(delivery.at - dueOf(delivery.n)));
    }
    long delivered = 0, duplicated = 0, lost = 0;
    for (long n = 1; n <= announced; ++n) {
        auto found = times.find(n);
        if (found == times.end()) {
            ++lost;
            continue;
        }
        ++delivered;
        duplicated += found->second - 1;
    }
    // Per drop: reconnection time, and the worst delay of the messages sent from the drop until
    // the next one (a message goes out up to a tick after it is due).
    const auto connections = application->connections();
    const auto tick = 10ms;
    for (std::size_t i = 0; i < drops.size(); ++i) {
        auto& drop = drops[i];
        if (i + 1 < connections.size())
            drop.reconnectMs = milliseconds(connections[i + 1] - drop.at);
        const auto until = i + 1 < drops.size() ? drops[i + 1].at : end;
        for (const auto& delivery : deliveries) {
            const auto due = dueOf(delivery.n);
            if (due + tick >= drop.at && due + tick < until) {
                drop.worstDelayMs = std::max(drop.worstDelayMs, milliseconds(delivery.at - due));
            }
        }
    }
    std::sort(delays.begin(), delays.end());
    auto percentile = [&](double p) {
        return delays.empty() ? 0.0 : delays[static_cast<std::size_t>(p * (delays.size() - 1))];
    };

    std::printf("recovery %s, %.1f min, %.0f messages/s (every 5th raw), a drop every %.0f s\n",
                recovers ? "on" : "off", minutes, rate, dropEvery);
    std::printf(
        "announced %ld  delivered %ld  lost %ld  duplicated %ld  out of order %ld  "
        "gap reports %d\n",
        announced, delivered, lost, duplicated, outOfOrder, application->gaps());
    std::printf(
        "delivery delay (announced to delegate): median %.1f ms, p99 %.1f ms, max %.1f ms\n",
        percentile(0.5), percentile(0.99), percentile(1.0));
    std::printf("%-5s %-10s %14s %22s\n", "drop", "mode", "reconnect ms", "worst delay after ms");
    for (std::size_t i = 0; i < drops.size(); ++i) {
        std::printf("%-5zu %-10s %14.0f %22.0f\n", i + 1, drops[i].mode.c_str(),
                    drops[i].reconnectMs, drops[i].worstDelayMs);
    }
    manager.reset();
    return lost == 0 && duplicated == 0 ? 0 : 2;
}
