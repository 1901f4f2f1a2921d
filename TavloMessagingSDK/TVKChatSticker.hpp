#pragma once

#include "TavloCoreSDK/TVKExport.hpp"

#include <map>
#include <optional>
#include <string>
#include <string_view>

#include "TavloCoreSDK/DQDataObject.hpp"

namespace tavlo {

/// One set of stickers: a text typed as a whole message stands for the sticker's image.
class TAVLO_EXPORT TVKChatSticker : public DQDataObject {
  public:
    const std::optional<std::string>& name() const { return name_; }
    /// The image that represents the whole set.
    const std::optional<std::string>& mainImage() const { return mainImage_; }
    /// Sticker text to image URL. Entries whose URL is not a string are left out.
    const std::optional<std::map<std::string, std::string, std::less<>>>& stickers() const {
        return stickers_;
    }

    /// The image URL of the sticker whose text is exactly `text`, or nothing.
    std::optional<std::string> stickerURLWithText(std::string_view text) const;

    bool mapJSON(const boost::json::object& json) override;

  private:
    std::optional<std::string> name_;
    std::optional<std::string> mainImage_;
    std::optional<std::map<std::string, std::string, std::less<>>> stickers_;
};

}  // namespace tavlo
