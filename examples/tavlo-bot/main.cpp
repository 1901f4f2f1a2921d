// tavlo-bot: a chat bot as one coroutine. It connects, greets, answers "!time" with the time,
// pins on "!pin" the message written just before the command (the newest one that is neither a
// command nor the bot's), and welcomes whoever joins. Ctrl-C or SIGTERM leaves the chatroom.
//     tavlo-bot --url URL [--chatroom NAME] [--member ID]     (a guest in the lobby by default)
#include <boost/asio.hpp>
#include <ctime>
#include <iostream>
#include <map>

#include "EmulatorControl.hpp"
#include "TavloMessagingSDK/TVKAsync.hpp"

namespace asio = boost::asio;
using namespace tavlo;

namespace {

std::string now() {
    char text[64];
    const std::time_t seconds = std::time(nullptr);
    std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S UTC", std::gmtime(&seconds));
    return text;
}

asio::awaitable<void> run(std::shared_ptr<TVKChatManager> manager, std::string chatroom,
                          std::string jwt, std::shared_ptr<TVKChatEventStream> events) {
    auto& m = *manager;
    auto chat =
        co_await async_connect(m, chatroom, jwt, 0, events->delegate(), asio::use_awaitable);
    auto say = [&](const std::string& text) {  // the bot's messages start with "bot: "
        return async_send_message(m, "bot: " + text, chat, asio::as_tuple(asio::use_awaitable));
    };
    co_await say(std::string("hello! Try !time or !pin"));
    std::shared_ptr<TVKChatMessage> lastMessage;  // what "!pin" pins
    for (;;) {
        auto [error, event] = co_await events->async_receive(asio::as_tuple(asio::use_awaitable));
        if (error) break;  // the stream was closed or the chatroom ended
        if (auto* joined = std::get_if<chat_event::UsersJoined>(&event)) {
            for (const auto& user : joined->users) {
                const auto welcome = "welcome, " + user->name().value_or("guest") + "!";
                co_await say(welcome);  // (gcc 12 mishandles temporaries inside co_await)
            }
        }
        auto* added = std::get_if<chat_event::MessageAdded>(&event);
        if (!added) continue;
        const auto text = added->message->text().value_or("");
        if (text == "!time") {
            const auto time = "the time is " + now();
            co_await say(time);
        } else if (text == "!pin") {
            TVKError why;
            auto [refused] = co_await async_pin_message(
                m, lastMessage, chat, keep_error(why, asio::as_tuple(asio::use_awaitable)));
            const auto answer = !lastMessage ? "nothing to pin yet"
                                : refused ? "cannot pin: " + why.localizedDescription.value_or("?")
                                          : "pinned \"" + lastMessage->text().value_or("") + "\"";
            co_await say(answer);
        } else if (!text.starts_with("!") && !text.starts_with("bot: ")) {
            lastMessage = added->message;
        }
    }
    m.disconnectFromChatroom(chat);
}

}  // namespace

int main(int argc, char** argv) {
    std::map<std::string, std::string> option{{"--url", "http://127.0.0.1:8380"},
                                              {"--chatroom", "lobby"}};
    for (int i = 1; i + 1 < argc; i += 2) option[argv[i]] = argv[i + 1];
    TVKSDKAuthManager::sharedManager().setAccountId("demo-account");
    TVKSDKAuthManager::sharedManager().setAccountToken("tavlo-bot");
    std::string jwt;  // a guest unless a member is named: the emulator hands out its JWT
    if (option.count("--member")) {
        jwt = chat::EmulatorControl(option["--url"], {})
                  .memberJWT(option["--member"])
                  .jwt.value_or("");
    }
    auto manager = TVKChatManager::create();
    manager->setHTTPHostURL(option["--url"]);
    auto events = TVKChatEventStream::create(*manager);

    asio::io_context io;
    asio::signal_set stop(io, SIGINT, SIGTERM);
    stop.async_wait([&](auto, int) { events->close(); });
    int status = 0;
    asio::co_spawn(io, run(manager, option["--chatroom"], jwt, events), [&](std::exception_ptr e) {
        try {
            if (e) std::rethrow_exception(e);
        } catch (const boost::system::system_error& error) {
            std::cerr << "tavlo-bot: " << error.what() << '\n';
            status = 1;
        }
        stop.cancel();
    });
    io.run();
    return status;
}
