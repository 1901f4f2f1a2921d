// What an HTTP proxy costs when a chatroom connects: connectToChatroom until chatroomConnected
// (profile, join, WebSocket, subscription) for a guest, straight to the emulator and through
// tinyproxy on loopback, in alternating rounds on one warm emulator, over HTTP and HTTPS. Each
// round uses a new manager, so every connection (REST and realtime) opens afresh, as it does for
// an application that starts.
//
//   ProxyConnect [rounds]     (default 15)
//
// TAVLO_TINYPROXY names the tinyproxy binary (default /usr/bin/tinyproxy).

#include <netinet/in.h>
#include <sys/socket.h>

#include <condition_variable>
#include <cstdio>
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

/// Waits for the one chatroom of a round to connect, then to disconnect.
class Application : public tavlo::TVKChatEventDelegate {
  public:
    void chatroomConnected(const std::shared_ptr<tavlo::TVKChat>& chat) override {
        std::lock_guard lock(mutex_);
        chat_ = chat;
        changed_.notify_all();
    }
    void chatroomDisconnected(const std::shared_ptr<tavlo::TVKChat>&) override {
        std::lock_guard lock(mutex_);
        disconnected_ = true;
        changed_.notify_all();
    }
    void chatroomFailToConnect(const std::shared_ptr<tavlo::TVKChat>&,
                               const tavlo::TVKError& error) override {
        fail("the chatroom failed to connect: " + error.describe());
    }
    std::shared_ptr<tavlo::TVKChat> connected() {
        std::unique_lock lock(mutex_);
        if (!changed_.wait_for(lock, 60s, [&] { return chat_ != nullptr; })) fail("no connection");
        return chat_;
    }
    void disconnected() {
        std::unique_lock lock(mutex_);
        if (!changed_.wait_for(lock, 60s, [&] { return disconnected_; })) fail("no disconnection");
    }

  private:
    std::mutex mutex_;
    std::condition_variable changed_;
    std::shared_ptr<tavlo::TVKChat> chat_;
    bool disconnected_ = false;
};

int unusedLoopbackPort() {
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    if (fd < 0 || bind(fd, reinterpret_cast<sockaddr*>(&address), length) != 0 ||
        getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
        fail("no free loopback port");
    }
    close(fd);
    return ntohs(address.sin_port);
}

bool accepts(int port) {
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    const bool connected = connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
    close(fd);
    return connected;
}

/// tinyproxy in the foreground on a free loopback port, logging only errors.
class Proxy {
  public:
    Proxy()
        : port_(unusedLoopbackPort()),
          configuration_(writeConfiguration(port_)),
          process_({binary(), "-d", "-c", configuration_}) {
        const auto deadline = Clock::now() + 10s;
        while (!accepts(port_)) {
            if (Clock::now() > deadline) fail("tinyproxy did not start");
            std::this_thread::sleep_for(10ms);
        }
    }
    ~Proxy() { std::filesystem::remove(configuration_); }
    std::string url() const { return "http://127.0.0.1:" + std::to_string(port_); }

  private:
    static std::string binary() {
        const char* chosen = std::getenv("TAVLO_TINYPROXY");
        return chosen && *chosen ? chosen : "/usr/bin/tinyproxy";
    }
    static std::string writeConfiguration(int port) {
        const auto path = std::filesystem::temp_directory_path() /
                          ("tavlo-bench-tinyproxy-" + std::to_string(port) + ".conf");
        std::ofstream conf(path);
        conf << "Port " << port << "\nListen 127.0.0.1\nTimeout 30\nMaxClients 100\n"
             << "Allow 127.0.0.1\nLogLevel Error\n";
        return path.string();
    }

    int port_;
    std::string configuration_;
    ChildProcess process_;
};

/// One connection of the lobby on a new manager, in milliseconds; `proxy` empty: direct.
double connectOnce(const Emulator& emulator, const std::string& proxy) {
    auto manager = tavlo::TVKChatManager::create();
    if (!manager) fail("no manager");
    manager->setHTTPHostURL(emulator.url());
    if (!emulator.caFile().empty()) manager->setCAFile(emulator.caFile());
    manager->setProxy(proxy);
    auto application = std::make_shared<Application>();
    const auto start = Clock::now();
    manager->connectToChatroom("lobby", "", 0, application);
    auto chat = application->connected();
    const auto took = std::chrono::duration<double, std::milli>(Clock::now() - start).count();
    manager->disconnectFromChatroom(chat);
    application->disconnected();
    return took;
}

struct Spread {
    double median, low, high;
};

Spread spreadOf(std::vector<double> samples) {
    std::sort(samples.begin(), samples.end());
    const auto n = samples.size();
    const double median = n % 2 ? samples[n / 2] : (samples[n / 2 - 1] + samples[n / 2]) / 2;
    return {median, samples.front(), samples.back()};
}

void compare(const char* flavour, const Emulator& emulator, const Proxy& proxy, int rounds) {
    connectOnce(emulator, "");  // warms up the emulator and this process
    connectOnce(emulator, proxy.url());
    std::vector<double> direct, proxied;
    for (int round = 0; round < rounds; ++round) {
        direct.push_back(connectOnce(emulator, ""));
        proxied.push_back(connectOnce(emulator, proxy.url()));
    }
    const auto d = spreadOf(direct);
    const auto p = spreadOf(proxied);
    std::printf("  %-6s %8.1f (%6.1f-%6.1f) %8.1f (%6.1f-%6.1f) %7.2fx %+8.1f\n", flavour, d.median,
                d.low, d.high, p.median, p.low, p.high, p.median / d.median, p.median - d.median);
}

}  // namespace

int main(int argc, char** argv) {
    const int rounds = argc > 1 ? std::atoi(argv[1]) : 15;
    if (rounds <= 0) fail("usage: ProxyConnect [rounds]");
    curl_global_init(CURL_GLOBAL_DEFAULT);
    auto& auth = tavlo::TVKSDKAuthManager::sharedManager();
    auth.setAccountId("demo-account");
    auth.setAccountToken("demo-account-token");

    Proxy proxy;
    std::printf(
        "connect time of a guest, direct and through tinyproxy, %d alternating rounds, "
        "median (min-max) ms\n\n",
        rounds);
    std::printf("  %-6s %26s %26s %8s %9s\n", "", "direct", "through the proxy", "ratio", "extra");
    {
        Emulator plain;
        compare("http", plain, proxy, rounds);
    }
    {
        Emulator secure({"--tls"});
        compare("https", secure, proxy, rounds);
    }
    return 0;
}
