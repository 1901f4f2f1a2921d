// The SDK end to end against the local emulator, on loopback (the CPU cost of events is
// bench/Realtime.cpp's table):
//
//  (a) connect time to a chatroom: connectToChatroom until chatroomConnected (profile, join,
//      WebSocket, subscription), median and 90th percentile, for a guest and for a member;
//  (b) memory per connected chatroom and threads: resident set growth over 1,000 chatrooms on
//      one manager, divided by 1,000, and the process's thread count before and after.
//
//   EndToEnd [chatrooms]     (default 1000)
//
// The emulator is `node emulator/server.js` from this source tree (TAVLO_EMULATOR overrides the
// path to server.js); `npm ci` must have been run in emulator/.

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "TavloCoreSDK/TVKSDKAuthManager.hpp"
#include "TavloMessagingSDK/TVKChatManager.hpp"
#include "support/BenchProcess.hpp"

namespace {

using namespace bench;
using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

constexpr auto kPatience = 120s;
constexpr int kConnectSamples = 20;

// --- The application's side --------------------------------------------------------------------

/// Counts connections and lets the benchmark wait for them.
class Application : public tavlo::TVKChatEventDelegate {
  public:
    void chatroomConnected(const std::shared_ptr<tavlo::TVKChat>& chat) override {
        std::lock_guard lock(mutex_);
        ++connected_;
        lastChat_ = chat;
        changed_.notify_all();
    }
    void chatroomDisconnected(const std::shared_ptr<tavlo::TVKChat>&) override {
        std::lock_guard lock(mutex_);
        ++disconnected_;
        changed_.notify_all();
    }
    void chatroomFailToConnect(const std::shared_ptr<tavlo::TVKChat>&,
                               const tavlo::TVKError&) override {
        fail("a chatroom failed to connect");
    }
    void chatroomError(const std::shared_ptr<tavlo::TVKChat>&, const tavlo::TVKError&) override {
        fail("a chatroom reported an error");
    }
    void waitFor(int Application::*counter, int count) {
        std::unique_lock lock(mutex_);
        if (!changed_.wait_for(lock, kPatience, [&] { return this->*counter >= count; })) {
            fail("no answer from the chatroom");
        }
    }
    std::shared_ptr<tavlo::TVKChat> lastChat() {
        std::lock_guard lock(mutex_);
        return lastChat_;
    }

    int connected_ = 0;
    int disconnected_ = 0;

  private:
    std::mutex mutex_;
    std::condition_variable changed_;
    std::shared_ptr<tavlo::TVKChat> lastChat_;
};

std::shared_ptr<tavlo::TVKChatManager> makeManager(const Emulator& emulator) {
    auto manager = tavlo::TVKChatManager::create();
    if (!manager) fail("no manager");
    manager->setHTTPHostURL(emulator.url());
    return manager;
}

// --- (a) connect time --------------------------------------------------------------------------

std::vector<double> connectTimes(const Emulator& emulator, const std::string& memberId) {
    auto manager = makeManager(emulator);
    std::vector<double> milliseconds;
    for (int sample = -1; sample < kConnectSamples; ++sample) {  // sample -1 warms up
        std::string jwt;
        if (!memberId.empty()) {
            jwt = std::string(
                emulator.control("GET", "members/" + memberId + "/jwt").at("jwt").as_string());
        }
        auto application = std::make_shared<Application>();
        const auto start = Clock::now();
        manager->connectToChatroom("lobby", jwt, 0, application);
        application->waitFor(&Application::connected_, 1);
        const auto took = std::chrono::duration<double, std::milli>(Clock::now() - start).count();
        if (sample >= 0) milliseconds.push_back(took);
        manager->disconnectFromChatroom(application->lastChat());
        application->waitFor(&Application::disconnected_, 1);
    }
    std::sort(milliseconds.begin(), milliseconds.end());
    return milliseconds;
}

double percentile(const std::vector<double>& sorted, double fraction) {
    const auto index = static_cast<std::size_t>(fraction * static_cast<double>(sorted.size() - 1));
    return sorted[index];
}

void benchmarkConnect(const Emulator& emulator) {
    std::printf("(a) connect time, connectToChatroom until chatroomConnected, %d connects\n\n",
                kConnectSamples);
    std::printf("  %-36s %10s %10s %10s %10s\n", "user", "min ms", "median ms", "p90 ms", "max ms");
    for (const auto& [label, memberId] :
         std::vector<std::pair<std::string, std::string>>{{"guest", ""}, {"member", "bob"}}) {
        const auto times = connectTimes(emulator, memberId);
        std::printf("  %-36s %10.2f %10.2f %10.2f %10.2f\n", label.c_str(), times.front(),
                    percentile(times, 0.5), percentile(times, 0.9), times.back());
    }
    std::printf("\n");
}

// --- (b) memory per chatroom and threads
// -------------------------------------------------------------------

int threadCount() {
    int count = 0;
    for ([[maybe_unused]] const auto& entry :
         std::filesystem::directory_iterator("/proc/self/task")) {
        ++count;
    }
    return count;
}

void benchmarkMemory(const Emulator& emulator, int chatrooms) {
    std::vector<std::string> names;
    for (int index = 0; index < chatrooms; ++index) {
        names.push_back("bench-memory-" + std::to_string(index));
        emulator.control("POST", "chatrooms", json::object{{"channelCode", names.back()}});
    }
    auto manager = makeManager(emulator);
    auto application = std::make_shared<Application>();
    // One chatroom first, so that threads, connection pools and the like are there already.
    manager->connectToChatroom("lobby", "", 0, application);
    application->waitFor(&Application::connected_, 1);
    std::this_thread::sleep_for(200ms);
    const long before = residentBytes();
    const int threadsBefore = threadCount();
    for (const auto& name : names) manager->connectToChatroom(name, "", 0, application);
    application->waitFor(&Application::connected_, 1 + chatrooms);
    std::this_thread::sleep_for(1s);  // the users' records load after the connection
    const long after = residentBytes();
    std::printf("(b) memory and threads, %d more chatrooms connected on one manager (guest)\n\n",
                chatrooms);
    std::printf("  resident set %.1f MiB -> %.1f MiB: %.1f KiB per chatroom\n", before / 1048576.0,
                after / 1048576.0, static_cast<double>(after - before) / chatrooms / 1024.0);
    std::printf("  threads: %d with one chatroom, %d with %d\n", threadsBefore, threadCount(),
                1 + chatrooms);
}

}  // namespace

int main(int argc, char** argv) {
    const int chatrooms = argc > 1 ? std::atoi(argv[1]) : 1000;
    if (chatrooms <= 0) fail("usage: EndToEnd [chatrooms]");
    curl_global_init(CURL_GLOBAL_DEFAULT);
    auto& auth = tavlo::TVKSDKAuthManager::sharedManager();
    auth.setAccountId("demo-account");
    auth.setAccountToken("demo-account-token");

    Emulator emulator;
    benchmarkConnect(emulator);
    benchmarkMemory(emulator, chatrooms);
    return 0;
}
