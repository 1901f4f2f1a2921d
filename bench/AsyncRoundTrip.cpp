// What waiting costs: a round trip (sendMessage until its success) against the local emulator,
// awaited three ways side by side in one run: the SDK's own success callback, a future
// (TVKAsync.hpp with use_future) and a C++20 coroutine (use_awaitable on an io_context of the
// application's). Each round times a batch of sequential round trips per style, the styles'
// order rotating from round to round; the table gives the median per round trip over the
// rounds with their range, and the coroutine's and the future's cost against the callback's
// (median of the per-round ratios, with their range).
//
//   AsyncRoundTrip [rounds] [round trips per batch]     (default 9 and 200)

#include <algorithm>
#include <boost/asio/co_spawn.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <boost/asio/use_future.hpp>
#include <chrono>
#include <cstdio>
#include <future>
#include <thread>
#include <vector>

#include "TavloMessagingSDK/TVKAsync.hpp"
#include "support/BenchProcess.hpp"

namespace {

using namespace bench;
using Clock = std::chrono::steady_clock;
namespace asio = boost::asio;
using Chat = std::shared_ptr<tavlo::TVKChat>;

// The callback API itself: each success sends the next message.
void withCallbacks(tavlo::TVKChatManager& manager, const Chat& chat, int count) {
    std::promise<void> finished;
    std::function<void(int)> send = [&](int left) {
        if (left == 0) return finished.set_value();
        manager.sendMessage(
            "callback", chat, [&send, left] { send(left - 1); },
            [](const tavlo::TVKError& error) { fail("send failed: " + error.describe()); });
    };
    send(count);
    finished.get_future().get();
}

void withFutures(tavlo::TVKChatManager& manager, const Chat& chat, int count) {
    for (int i = 0; i < count; ++i) {
        tavlo::async_send_message(manager, "future", chat, asio::use_future).get();
    }
}

void withCoroutine(tavlo::TVKChatManager& manager, const Chat& chat, int count) {
    asio::io_context io;
    asio::co_spawn(
        io,
        [&]() -> asio::awaitable<void> {
            for (int i = 0; i < count; ++i) {
                co_await tavlo::async_send_message(manager, "coroutine", chat, asio::use_awaitable);
            }
        },
        [](std::exception_ptr error) {
            if (error) fail("a coroutine's send failed");
        });
    io.run();
}

double median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    const auto n = values.size();
    return n % 2 ? values[n / 2] : (values[n / 2 - 1] + values[n / 2]) / 2;
}

std::string spread(const std::vector<double>& values, const char* format) {
    char text[96];
    const auto [low, high] = std::minmax_element(values.begin(), values.end());
    std::snprintf(text, sizeof text, format, median(values), *low, *high);
    return text;
}

}  // namespace

int main(int argc, char** argv) {
    const int rounds = argc > 1 ? std::atoi(argv[1]) : 9;
    const int batch = argc > 2 ? std::atoi(argv[2]) : 200;
    if (rounds <= 0 || batch <= 0) fail("usage: AsyncRoundTrip [rounds] [round trips per batch]");
    curl_global_init(CURL_GLOBAL_DEFAULT);
    auto& auth = tavlo::TVKSDKAuthManager::sharedManager();
    auth.setAccountId("demo-account");
    auth.setAccountToken("demo-account-token");

    Emulator emulator;
    // A chatroom of its own without a pause between messages.
    emulator.control("POST", "chatrooms", json::object{{"channelCode", "bench"}});
    auto manager = tavlo::TVKChatManager::create();
    manager->setHTTPHostURL(emulator.url());
    auto chat = tavlo::async_connect(*manager, "bench", "", 0, asio::use_future).get();

    using Style = void (*)(tavlo::TVKChatManager&, const Chat&, int);
    const std::vector<std::pair<const char*, Style>> styles = {
        {"callback (the SDK's own)", withCallbacks},
        {"future (use_future)", withFutures},
        {"coroutine (use_awaitable)", withCoroutine}};
    for (const auto& [name, style] : styles) style(*manager, chat, batch / 4);  // warm-up
    std::vector<std::vector<double>> perRoundTrip(styles.size());
    for (int round = 0; round < rounds; ++round) {
        for (std::size_t k = 0; k < styles.size(); ++k) {
            const auto s = (k + round) % styles.size();
            const auto start = Clock::now();
            styles[s].second(*manager, chat, batch);
            const std::chrono::duration<double, std::micro> took = Clock::now() - start;
            perRoundTrip[s].push_back(took.count() / batch);
        }
    }
    std::printf("| Awaited with | us per round trip, median [range] | vs callback [range] |\n");
    std::printf("|---|---|---|\n");
    for (std::size_t s = 0; s < styles.size(); ++s) {
        std::vector<double> ratios;
        for (int round = 0; round < rounds; ++round) {
            ratios.push_back(perRoundTrip[s][round] / perRoundTrip[0][round]);
        }
        std::printf("| %s | %s | %s |\n", styles[s].first,
                    spread(perRoundTrip[s], "%.0f [%.0f-%.0f]").c_str(),
                    spread(ratios, "%.3fx [%.3f-%.3f]").c_str());
    }
    std::printf("\n%d rounds of %d sequential round trips per style, styles rotating\n", rounds,
                batch);
    manager->disconnectFromChatroom(chat);
    return 0;
}
