#pragma once

#include "TavloCoreSDK/TVKExport.hpp"

#include <boost/json.hpp>
#include <map>
#include <memory>
#include <optional>
#include <string>

#include "TavloCoreSDK/DQDataObject.hpp"

namespace tavlo {

/// One metadata entry of a chatroom: a key and any JSON value. Only the chatroom's own public
/// entries become records: one marked "reserved" (true), or of another "scope" than "chat", is
/// refused.
class TAVLO_EXPORT TVKChatMetadata : public DQDataObject {
  public:
    using Dictionary = std::map<std::string, std::shared_ptr<TVKChatMetadata>, std::less<>>;

    const std::optional<std::string>& key() const { return key_; }
    /// The value as the service holds it; a JSON null is a value, absent is none.
    const std::optional<boost::json::value>& value() const { return value_; }

    /// The public entries of `list` by key. Elements that are not objects, refused entries and
    /// entries without a string key are skipped; of two entries with the same key the later one
    /// stays. Anything but an array (null included) gives an empty dictionary.
    static Dictionary dictionaryWithArrayOfJSON(const boost::json::value& list);
    static Dictionary dictionaryWithArrayOfJSON(const boost::json::array& list);

    bool mapJSON(const boost::json::object& json) override;

  private:
    std::optional<std::string> key_;
    std::optional<boost::json::value> value_;
};

}  // namespace tavlo
