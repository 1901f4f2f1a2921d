#pragma once

#include "TavloCoreSDK/TVKExport.hpp"

#include <cstdint>
#include <optional>
#include <string>

#include "TavloCoreSDK/DQDataObject.hpp"

namespace tavlo {

/// A chatroom's profile. The chatroom keeps it current: write mode, input interval and the member
/// and guest counts change with the service's announcements.
class TAVLO_EXPORT DQChatProfile : public DQDataObject {
  public:
    /// The chatroom's id at the service.
    const std::optional<std::string>& chatId() const { return chatId_; }
    /// The chatroom's name as the service holds it ("p#" in front for a personal chatroom).
    const std::optional<std::string>& channelCode() const { return channelCode_; }
    /// Who may write: "ALL", "LOGIN" or "ANCHOR".
    const std::optional<std::string>& chatWriteMode() const { return chatWriteMode_; }
    /// The shortest time between two messages of one user, in seconds.
    const std::optional<double>& inputInterval() const { return inputInterval_; }
    const std::optional<std::string>& createdDate() const { return createdDate_; }
    const std::optional<std::int64_t>& memberCount() const { return memberCount_; }
    const std::optional<std::int64_t>& guestCount() const { return guestCount_; }

    void setChatWriteMode(std::optional<std::string> mode) { chatWriteMode_ = std::move(mode); }
    void setInputInterval(std::optional<double> interval) { inputInterval_ = interval; }
    void setMemberCount(std::optional<std::int64_t> count) { memberCount_ = count; }
    void setGuestCount(std::optional<std::int64_t> count) { guestCount_ = count; }

    bool mapJSON(const boost::json::object& json) override;

  private:
    std::optional<std::string> chatId_;
    std::optional<std::string> channelCode_;
    std::optional<std::string> chatWriteMode_;
    std::optional<double> inputInterval_;
    std::optional<std::string> createdDate_;
    std::optional<std::int64_t> memberCount_;
    std::optional<std::int64_t> guestCount_;
};

}  // namespace tavlo
