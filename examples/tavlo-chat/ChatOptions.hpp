#pragma once

#include <optional>
#include <string>
#include <vector>

#include "TavloCoreSDK/TVKLog.hpp"

namespace tavlo::chat {

/// Where the emulator listens when neither --url nor TAVLO_URL names a service:
/// `node emulator/server.js --port 8380`.
inline constexpr const char* kDefaultServiceURL = "http://127.0.0.1:8380";

/// The command line of tavlo-chat.
struct ChatOptions {
    std::string url = kDefaultServiceURL;
    std::string chatroom = "lobby";
    std::string account = "demo-account";
    /// The member's JWT as given; empty with neither --jwt nor --member (a guest).
    std::optional<std::string> jwt;
    /// The member whose JWT the emulator's control API hands out (and refreshes).
    std::optional<std::string> member;
    std::optional<std::string> caFile;
    bool personal = false;
    /// How long one command may wait for its answer, in seconds.
    double timeoutSeconds = 10;
    /// The SDK's log on standard error from this level on; unset leaves it to TAVLO_LOG.
    std::optional<TVKLogLevel> logLevel;
    bool showHelp = false;

    bool isGuest() const { return !jwt && !member; }
};

/// The outcome of reading the command line: options, or a message for the user.
struct ParsedOptions {
    std::optional<ChatOptions> options;
    std::string error;
};

/// Reads the arguments after the program name. `environmentURL` (TAVLO_URL) replaces the
/// built-in default URL; --url replaces both.
ParsedOptions parseChatOptions(const std::vector<std::string>& arguments,
                               const std::optional<std::string>& environmentURL);

/// The usage text printed by --help and after a mistake on the command line.
std::string chatUsage();

}  // namespace tavlo::chat
