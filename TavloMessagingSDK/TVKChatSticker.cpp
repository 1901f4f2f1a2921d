#include "TavloMessagingSDK/TVKChatMessage.hpp"

namespace tavlo {

bool TVKChatSticker::mapJSON(const boost::json::object& json) {
    name_ = json_read::string(json, "name");
    mainImage_ = json_read::string(json, "mainImage");
    if (const auto* stickers = json_read::object(json, "stickers")) {
        auto& entries = stickers_.emplace();
        for (const auto& sticker : *stickers) {
            if (const auto* url = sticker.value().if_string()) {
                entries.emplace(std::string(sticker.key()), std::string(*url));
            }
        }
    }
    return true;
}

std::optional<std::string> TVKChatSticker::stickerURLWithText(std::string_view text) const {
    if (!stickers_) return std::nullopt;
    const auto found = stickers_->find(text);
    if (found == stickers_->end()) return std::nullopt;
    return found->second;
}

}  // namespace tavlo
