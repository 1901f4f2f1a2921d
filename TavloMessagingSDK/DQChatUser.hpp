#pragma once

#include "TavloCoreSDK/TVKExport.hpp"

#include <boost/json.hpp>
#include <cstdint>
#include <optional>
#include <string>

#include "TavloCoreSDK/DQDataObject.hpp"

namespace tavlo {

/// The service's record of one person in a chatroom. Every field is optional: the service sends
/// what it knows, and a guest has no `userId`.
class TAVLO_EXPORT DQChatUser : public DQDataObject {
  public:
    /// The user's number inside one chatroom; users are addressed and compared by it.
    const std::optional<std::int64_t>& label() const { return label_; }
    /// One of the `kTVKUserRole...` strings, or whatever else the service sent.
    const std::optional<std::string>& role() const { return role_; }
    /// The account id of a logged-in member; absent for guests.
    const std::optional<std::string>& userId() const { return userId_; }
    /// The display name (nickname).
    const std::optional<std::string>& name() const { return name_; }
    const std::optional<std::string>& avatar() const { return avatar_; }
    /// The member's identities, kept as the service sent them.
    const std::optional<boost::json::object>& identities() const { return identities_; }
    const std::optional<std::string>& status() const { return status_; }
    /// The service's last-update time stamp, as text.
    const std::optional<std::string>& updatedDate() const { return updatedDate_; }

    // The fields the current user's binding, role changes and nickname changes write.
    void setLabel(std::optional<std::int64_t> label) { label_ = label; }
    void setRole(std::optional<std::string> role) { role_ = std::move(role); }
    void setName(std::optional<std::string> name) { name_ = std::move(name); }

    bool mapJSON(const boost::json::object& json) override;

  private:
    std::optional<std::int64_t> label_;
    std::optional<std::string> role_;
    std::optional<std::string> userId_;
    std::optional<std::string> name_;
    std::optional<std::string> avatar_;
    std::optional<boost::json::object> identities_;
    std::optional<std::string> status_;
    std::optional<std::string> updatedDate_;
};

/// Reads a label as the service may send it:
///  - an integral number within the signed 64-bit range is the label (42 and 42.0 alike);
///  - a string is read like a decimal number at its start: leading white space, an optional sign,
///    then the digits up to the first other character ("42" and " 42px" give 42, "-7" gives -7);
///    too many digits saturate at the 64-bit limits, and a string that does not start with a
///    number ("", "abc", "-") gives 0;
///  - anything else gives no label: a fraction, a number beyond the 64-bit range, a boolean,
///    null, an object or an array.
TAVLO_EXPORT std::optional<std::int64_t> labelFromJSON(const boost::json::value& value);

}  // namespace tavlo
