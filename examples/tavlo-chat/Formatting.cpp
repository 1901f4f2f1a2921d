#include "Formatting.hpp"

#include <boost/json/serialize.hpp>
#include <cstdio>
#include <ctime>

namespace tavlo::chat {

std::string userName(const TVKChatUser& user) {
    if (user.name() && !user.name()->empty()) return *user.name();
    if (user.label()) return "label " + std::to_string(*user.label());
    return "someone";
}

std::string describeUser(const TVKChatUser& user) {
    std::string text = userName(user) + " (";
    if (user.label()) text += "label " + std::to_string(*user.label()) + ", ";
    text += user.role().value_or("no role");
    if (user.status() && *user.status() != "ACTIVE") text += ", " + *user.status();
    return text + ")";
}

std::string describeMessage(const TVKChatMessage& message) {
    std::string author = "someone";
    if (message.creator()) {
        author = userName(*message.creator());
    } else if (message.creatorLabel()) {
        author = "label " + std::to_string(*message.creatorLabel());
    }
    std::string body;
    if (message.type() == TVKChatMessage::kSticker) {
        body = "sticker " + message.text().value_or("") + " <" + message.stickerURL().value_or("") +
               ">";
    } else if (message.rawData()) {
        body = jsonText(*message.rawData());
    } else {
        body = message.text().value_or("");
    }
    return message.messageId().value_or("(no id)") + " " + author + ": " + body;
}

std::string describeError(const TVKError& error) {
    std::string text = error.localizedDescription.value_or(error.domain + " error");
    text += " (code " + std::to_string(error.code) + ")";
    if (error.code == TVKMSGErrorNetworkNoConnection && error.underlyingError) {
        text += " [" + error.underlyingError->describe() + "]";
    }
    return text;
}

std::string writeModeName(TVKChatInputMode mode) {
    switch (mode) {
        case TVKChatInputModeAll:
            return "ALL";
        case TVKChatInputModeLogin:
            return "LOGIN";
        case TVKChatInputModeAnchor:
            return "ANCHOR";
        default:
            return "unknown";
    }
}

std::string jsonText(const boost::json::value& value) {
    return boost::json::serialize(value);
}

std::string describeCounters(const TVKAggregatedItems& items) {
    std::string text;
    for (const auto& item : items) {
        if (!item) continue;
        if (!text.empty()) text += ", ";
        text += item->key().value_or("?") + " " + std::to_string(item->count().value_or(0));
    }
    return text.empty() ? "none" : text;
}

std::string utcTime(std::uint64_t millis) {
    const std::time_t seconds = static_cast<std::time_t>(millis / 1000);
    std::tm utc{};
    gmtime_r(&seconds, &utc);
    char text[64];
    std::snprintf(text, sizeof text, "%04d-%02d-%02dT%02d:%02d:%02d.%03dZ", utc.tm_year + 1900,
                  utc.tm_mon + 1, utc.tm_mday, utc.tm_hour, utc.tm_min, utc.tm_sec,
                  static_cast<int>(millis % 1000));
    return text;
}

}  // namespace tavlo::chat
