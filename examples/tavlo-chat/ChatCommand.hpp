#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "TavloMessagingSDK/TVKChat.hpp"
#include "TavloMessagingSDK/TVKChatUser.hpp"

namespace tavlo::chat {

/// One line of input: the command word and the rest of the line, as typed.
struct ChatCommand {
    std::string verb;
    std::string rest;

    /// The rest split at white space into at most `maxWords` words; the last word keeps the
    /// remainder of the line, spaces included (so "meta set topic {"a": 1}" splits into three).
    std::vector<std::string> words(std::size_t maxWords = SIZE_MAX) const;
};

/// Nothing for blank lines and comments ("#" first); otherwise the command, its verb in lower
/// case.
std::optional<ChatCommand> parseChatCommand(std::string_view line);

/// One entry of the command list: what to type and what it does.
struct CommandHelp {
    const char* usage;
    const char* meaning;
};
const std::vector<CommandHelp>& commandHelp();

/// The user types of `getUsersForChatroom`: "online" 0, "blocked" 1, "supervisors" 2.
std::optional<TVKChatUserType> userTypeNamed(std::string_view name);

/// A time of the archive: milliseconds since 1970, or a UTC time written
/// "2023-06-01T09:00:00Z" (seconds and fraction optional).
std::optional<std::uint64_t> parseArchiveTime(std::string_view text);

}  // namespace tavlo::chat
