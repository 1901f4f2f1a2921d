#pragma once

#include "TavloCoreSDK/TVKExport.hpp"

#include <boost/json.hpp>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "TavloCoreSDK/DQDataObject.hpp"
#include <map>
#include <string_view>

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


namespace tavlo {

// The kinds of message a chatroom carries: what a send names as its type and a message query
// asks for.

/// Text typed by a person.
inline constexpr const char* TVKChatMessageTypeNormalText = "text";
/// Structured data for the application, carried as JSON.
inline constexpr const char* TVKChatMessageTypeRawData = "raw";
/// A key whose counter the service adds up (aggregated data).
inline constexpr const char* TVKChatMessageTypeAggregate = "aggregate";

}  // namespace tavlo


namespace tavlo {

class TVKChatUser;

/// One chat message as the service sends it. A text message carries its text; a raw-data message
/// carries its payload both as JSON (`rawData`) and as that JSON's compact text (`text`).
///
/// Messages are the same message when their ids are equal; a message without an id equals no
/// other, not even one made from the same JSON.
class TAVLO_EXPORT TVKChatMessage : public DQDataObject {
  public:
    /// The kind of a message: a plain message, or one whose whole text names a sticker.
    enum Type : std::int64_t { kPlain = 0, kSticker = 1 };

    using DQDataObject::withJSON;
    /// A sticker message: the message of `json` showing the sticker at `stickerURL`.
    static std::shared_ptr<TVKChatMessage> withJSON(const boost::json::value& json,
                                                    std::string stickerURL);

    const std::optional<std::string>& messageId() const { return messageId_; }
    const std::optional<std::string>& text() const { return text_; }
    /// The structured payload of a raw-data message (an object or an array); absent otherwise.
    const std::optional<boost::json::value>& rawData() const { return rawData_; }
    /// `kPlain` or `kSticker`.
    std::int64_t type() const { return type_; }
    /// The service's time stamp, as text.
    const std::optional<std::string>& createdDate() const { return createdDate_; }
    const std::optional<std::string>& sourceType() const { return sourceType_; }
    /// The sender, when the service included it.
    const std::shared_ptr<TVKChatUser>& creator() const { return creator_; }
    const std::optional<std::string>& category() const { return category_; }
    const std::optional<std::string>& status() const { return status_; }
    const std::optional<std::int64_t>& creatorLabel() const { return creatorLabel_; }
    const std::optional<std::string>& parentName() const { return parentName_; }
    /// The sticker's image, for a sticker message.
    const std::optional<std::string>& stickerURL() const { return stickerURL_; }

    /// Same message: the other's id is set and equal to this one's.
    bool isEqual(const TVKChatMessage& other) const;
    bool operator==(const TVKChatMessage& other) const { return isEqual(other); }
    /// The hash of the id (0 without one), consistent with `isEqual`.
    std::size_t hash() const;

    bool mapJSON(const boost::json::object& json) override;

  private:
    void mapValue(const boost::json::value& value);

    std::optional<std::string> messageId_;
    std::optional<std::string> text_;
    std::optional<boost::json::value> rawData_;
    std::int64_t type_ = kPlain;
    std::optional<std::string> createdDate_;
    std::optional<std::string> sourceType_;
    std::shared_ptr<TVKChatUser> creator_;
    std::optional<std::string> category_;
    std::optional<std::string> status_;
    std::optional<std::int64_t> creatorLabel_;
    std::optional<std::string> parentName_;
    std::optional<std::string> stickerURL_;
};

}  // namespace tavlo

template <>
struct std::hash<tavlo::TVKChatMessage> {
    std::size_t operator()(const tavlo::TVKChatMessage& message) const { return message.hash(); }
};
