// tavlo-chat: a terminal chat client on the SDK's public interface.
//
//   tavlo-chat --member alice          # join the lobby of a local emulator as Alice
//   tavlo-chat                         # join as a guest
//
// It connects to one chatroom, prints every event with a time stamp and reads commands from
// standard input ("help" lists them). End of input or Ctrl-C leaves the chatroom and exits.

#include <curl/curl.h>
#include <unistd.h>

#include <cstdlib>
#include <iostream>

#include "ChatOptions.hpp"
#include "ChatSession.hpp"
#include "Console.hpp"
#include "EmulatorControl.hpp"
#include "LineReader.hpp"
#include "TavloMessagingSDK/TavloMessagingSDK.hpp"

namespace {

using namespace tavlo;
using namespace tavlo::chat;

std::optional<std::string> environment(const char* name) {
    const char* value = std::getenv(name);
    return value ? std::optional<std::string>(value) : std::nullopt;
}

/// The account, and for members of the emulator a refresher that asks its control API for a
/// fresh JWT when the service says the current one has expired.
void configureCoreSDK(const ChatOptions& options) {
    auto& auth = TVKSDKAuthManager::sharedManager();
    auth.setAccountId(options.account);
    // The service authenticates the client with its own key; the SDK only needs to know an
    // account token is configured.
    auth.setAccountToken("tavlo-chat");
    if (!options.member) return;
    EmulatorControl control(options.url, options.caFile);
    auth.setMemberTokenRefresher([control](const std::optional<std::string>& currentJWT,
                                           TVKSDKAuthManager::TokenSuccess success,
                                           TVKSDKAuthManager::TokenFailure failure) {
        auto answer = control.refreshedJWT(currentJWT.value_or(""));
        if (answer.jwt) return success(*answer.jwt);
        TVKError error("TavloChatDomain", 1);
        error.localizedDescription = answer.error;
        failure(error);
    });
}

/// The JWT to join with: as given, fetched for --member, or empty for a guest.
std::optional<std::string> memberJWT(const ChatOptions& options, Console& console) {
    if (options.jwt) return options.jwt;
    if (!options.member) return "";
    auto answer = EmulatorControl(options.url, options.caFile).memberJWT(*options.member);
    if (!answer.jwt) {
        console.print("error connect: no JWT for member " + *options.member + ": " + answer.error);
    }
    return answer.jwt;
}

int run(const ChatOptions& options) {
    Console console(std::cout);
    LineReader reader;  // from here on Ctrl-C ends the client cleanly
    const auto jwt = memberJWT(options, console);
    if (!jwt) return 1;
    configureCoreSDK(options);

    auto manager = TVKChatManager::create();
    if (!manager) {
        console.print("error connect: the SDK has no account token");
        return 1;
    }
    manager->setHTTPHostURL(options.url);
    manager->setCAFile(options.caFile);
    // A chat reader wants every message, also those sent while the connection was down.
    manager->setRecoversMissedMessages(true);
    // And a line typed during a short reconnection goes out once the chatroom is back.
    manager->setHoldsSendsWhileReconnecting(true);

    ChatSession session(manager, options, console);
    if (!session.connect(*jwt)) return 1;
    const bool echo = !isatty(STDIN_FILENO);  // a transcript shows what the script typed
    while (auto line = reader.next()) {
        if (!session.execute(*line, echo)) break;
    }
    session.leave();
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    const auto parsed =
        parseChatOptions(std::vector<std::string>(argv + 1, argv + argc), environment("TAVLO_URL"));
    if (!parsed.options) {
        std::cerr << "tavlo-chat: " << parsed.error << "\n\n" << chatUsage();
        return 2;
    }
    if (parsed.options->showHelp) {
        std::cout << chatUsage();
        return 0;
    }
    if (const auto level = parsed.options->logLevel) {
        TVKLog::setSink(TVKLog::standardErrorSink());
        TVKLog::setLevel(*level);
    }
    // No curl_global_cleanup: the SDK's transfer thread may still be winding down at exit.
    curl_global_init(CURL_GLOBAL_DEFAULT);
    return run(*parsed.options);
}
