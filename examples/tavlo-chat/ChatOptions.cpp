#include "ChatOptions.hpp"

#include <functional>
#include <locale>
#include <map>
#include <sstream>

namespace tavlo::chat {
namespace {

using Setter = std::function<std::optional<std::string>(ChatOptions&, const std::string&)>;

std::optional<std::string> setTimeout(ChatOptions& options, const std::string& value) {
    // A stream in the classic locale rather than std::from_chars, which libc++ before 20 lacks
    // for floating point.
    std::istringstream stream(value);
    stream.imbue(std::locale::classic());
    double seconds = 0;
    if (!(stream >> seconds) || !stream.eof() || !(seconds > 0)) {
        return "--timeout needs a positive number of seconds";
    }
    options.timeoutSeconds = seconds;
    return std::nullopt;
}

std::optional<std::string> setLogLevel(ChatOptions& options, const std::string& value) {
    options.logLevel = TVKLog::levelNamed(value);
    if (!options.logLevel) return "--log needs error, warning, info, debug, trace or off";
    return std::nullopt;
}

/// Options that take a value, by name. A value that may not be empty says so.
const std::map<std::string, Setter>& valueOptions() {
    static const std::map<std::string, Setter> options = {
        {"--url",
         [](ChatOptions& o, const std::string& v) {
             o.url = v;
             return std::nullopt;
         }},
        {"--chatroom",
         [](ChatOptions& o, const std::string& v) {
             o.chatroom = v;
             return std::nullopt;
         }},
        {"--account",
         [](ChatOptions& o, const std::string& v) {
             o.account = v;
             return std::nullopt;
         }},
        {"--jwt",
         [](ChatOptions& o, const std::string& v) {
             o.jwt = v;
             return std::nullopt;
         }},
        {"--member",
         [](ChatOptions& o, const std::string& v) {
             o.member = v;
             return std::nullopt;
         }},
        {"--ca-file",
         [](ChatOptions& o, const std::string& v) {
             o.caFile = v;
             return std::nullopt;
         }},
        {"--timeout", setTimeout},
        {"--log", setLogLevel},
    };
    return options;
}

/// "--name=value" and "--name value" both work.
std::optional<std::string> readValueOption(ChatOptions& options, const std::string& argument,
                                           const std::vector<std::string>& arguments,
                                           std::size_t& index) {
    const auto equals = argument.find('=');
    const std::string name = argument.substr(0, equals);
    const auto setter = valueOptions().find(name);
    if (setter == valueOptions().end()) return "unknown option " + name;
    std::string value;
    if (equals != std::string::npos) {
        value = argument.substr(equals + 1);
    } else if (index + 1 < arguments.size()) {
        value = arguments[++index];
    } else {
        return name + " needs a value";
    }
    if (value.empty()) return name + " needs a value";
    return setter->second(options, value);
}

}  // namespace

ParsedOptions parseChatOptions(const std::vector<std::string>& arguments,
                               const std::optional<std::string>& environmentURL) {
    ChatOptions options;
    if (environmentURL && !environmentURL->empty()) options.url = *environmentURL;
    for (std::size_t index = 0; index < arguments.size(); ++index) {
        const std::string& argument = arguments[index];
        if (argument == "--personal") {
            options.personal = true;
        } else if (argument == "--help" || argument == "-h") {
            options.showHelp = true;
        } else if (argument.starts_with("--")) {
            if (auto error = readValueOption(options, argument, arguments, index)) {
                return {std::nullopt, *error};
            }
        } else {
            return {std::nullopt, "unexpected argument " + argument};
        }
    }
    if (options.jwt && options.member) {
        return {std::nullopt, "give either --jwt or --member, not both"};
    }
    if (options.personal && options.isGuest()) {
        return {std::nullopt, "a personal chatroom needs a member (--jwt or --member)"};
    }
    return {options, ""};
}

std::string chatUsage() {
    return R"(Usage: tavlo-chat [options]
A terminal chat client. It connects to one chatroom, prints what happens there and reads
commands from standard input (type "help" once connected).

  --url URL         the service (default: $TAVLO_URL, else http://127.0.0.1:8380, a local
                    emulator started with: node emulator/server.js --port 8380)
  --chatroom NAME   the chatroom (default: lobby)
  --member ID       join as this member; the JWT comes from the emulator's control API
  --jwt JWT         join as the member this JWT names
                    (neither: join as a guest)
  --personal        the member's personal chatroom (created on first connect)
  --ca-file PEM     certificate authorities to trust for HTTPS and WSS
  --account ID      the account (vendor) id (default: demo-account)
  --timeout SECONDS how long a command waits for its answer (default: 10)
  --log LEVEL       the SDK's log on standard error: error, warning, info, debug or trace
                    (default: $TAVLO_LOG, else none)
  --help            this text
)";
}

}  // namespace tavlo::chat
