#include "ChatCommand.hpp"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <ctime>

namespace tavlo::chat {
namespace {

bool isSpace(char c) {
    return std::isspace(static_cast<unsigned char>(c)) != 0;
}

std::string_view trimmed(std::string_view text) {
    while (!text.empty() && isSpace(text.front())) text.remove_prefix(1);
    while (!text.empty() && isSpace(text.back())) text.remove_suffix(1);
    return text;
}

template <class Number>
std::optional<Number> numberFrom(std::string_view text) {
    Number value{};
    auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc() || end != text.data() + text.size() || text.empty()) {
        return std::nullopt;
    }
    return value;
}

/// "YYYY-MM-DDTHH:MM[:SS[.fff]]Z" in UTC, to milliseconds.
std::optional<std::uint64_t> parseUTCTime(std::string_view text) {
    if (text.size() < 17 || text.back() != 'Z' || text[4] != '-' || text[7] != '-' ||
        text[10] != 'T' || text[13] != ':') {
        return std::nullopt;
    }
    text.remove_suffix(1);
    auto field = [&](std::size_t at, std::size_t length) {
        return numberFrom<int>(text.substr(at, length));
    };
    std::tm time{};
    auto year = field(0, 4), month = field(5, 2), day = field(8, 2), hour = field(11, 2),
         minute = field(14, 2);
    if (!year || !month || !day || !hour || !minute) return std::nullopt;
    int second = 0;
    std::uint64_t millis = 0;
    if (text.size() > 16) {
        auto seconds = text.size() >= 19 && text[16] == ':' ? field(17, 2) : std::nullopt;
        if (!seconds) return std::nullopt;
        second = *seconds;
        if (text.size() > 19) {
            auto fraction =
                text[19] == '.' ? numberFrom<std::uint64_t>(text.substr(20)) : std::nullopt;
            if (!fraction || text.size() != 23) return std::nullopt;
            millis = *fraction;
        }
    }
    time.tm_year = *year - 1900;
    time.tm_mon = *month - 1;
    time.tm_mday = *day;
    time.tm_hour = *hour;
    time.tm_min = *minute;
    time.tm_sec = second;
    const std::time_t seconds = timegm(&time);
    if (seconds < 0) return std::nullopt;
    return static_cast<std::uint64_t>(seconds) * 1000 + millis;
}

}  // namespace

std::vector<std::string> ChatCommand::words(std::size_t maxWords) const {
    std::vector<std::string> result;
    std::string_view remaining = trimmed(rest);
    while (!remaining.empty() && maxWords > 0) {
        if (result.size() + 1 == maxWords) {
            result.emplace_back(remaining);
            break;
        }
        const auto end = std::find_if(remaining.begin(), remaining.end(), isSpace);
        result.emplace_back(remaining.begin(), end);
        remaining = trimmed(remaining.substr(static_cast<std::size_t>(end - remaining.begin())));
    }
    return result;
}

std::optional<ChatCommand> parseChatCommand(std::string_view line) {
    line = trimmed(line);
    if (line.empty() || line.front() == '#') return std::nullopt;
    const auto end = std::find_if(line.begin(), line.end(), isSpace);
    ChatCommand command;
    command.verb.assign(line.begin(), end);
    std::transform(command.verb.begin(), command.verb.end(), command.verb.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    command.rest = std::string(trimmed(line.substr(static_cast<std::size_t>(end - line.begin()))));
    return command;
}

const std::vector<CommandHelp>& commandHelp() {
    static const std::vector<CommandHelp> help = {
        {"send TEXT", "send a text message"},
        {"raw JSON", "send a JSON object or array to everyone (raw data)"},
        {"agg KEY", "raise the aggregated counter KEY by one"},
        {"counters", "the chatroom's aggregated counters"},
        {"users [online|blocked|supervisors]", "who is in the chatroom (default: online)"},
        {"history [text|raw|aggregate] [PAGE [PER_PAGE]]", "past messages, newest first"},
        {"archive meta ARCHIVE_ID", "what an archive of this chatroom holds"},
        {"archive ARCHIVE_ID START END",
         "archived messages between two times (ms since 1970 or 2023-06-01T09:00:00Z)"},
        {"remove MESSAGE",
         "remove a message (MESSAGE: its id, text it contains, or \"last\": the newest)"},
        {"pin MESSAGE", "pin a message for everyone"},
        {"unpin", "unpin the pinned message"},
        {"pinned", "show the pinned message"},
        {"role USER ROLE", "give a user MODERATOR or NORMAL (USER: name, label or member id)"},
        {"block USER", "stop a user from sending"},
        {"revive USER", "lift a block"},
        {"nick NAME", "rename yourself (guests only)"},
        {"meta [KEY...]", "read metadata (all entries when no key is given)"},
        {"meta set KEY JSON [broadcast]", "write a metadata entry; broadcast tells everyone"},
        {"room", "the chatroom: name, write mode, users, pinned message, who is online"},
        {"whoami", "your name, label and role"},
        {"wait TEXT", "pause until a line containing TEXT is printed (for scripts)"},
        {"help", "this list"},
        {"quit", "leave the chatroom and exit (also at end of input or Ctrl-C)"},
    };
    return help;
}

std::optional<TVKChatUserType> userTypeNamed(std::string_view name) {
    if (name.empty() || name == "online") return TVKChatUserType::online;
    if (name == "blocked") return TVKChatUserType::blocked;
    if (name == "supervisors") return TVKChatUserType::supervisor;
    return std::nullopt;
}

std::optional<std::uint64_t> parseArchiveTime(std::string_view text) {
    text = trimmed(text);
    if (auto millis = numberFrom<std::uint64_t>(text)) return millis;
    return parseUTCTime(text);
}

}  // namespace tavlo::chat
