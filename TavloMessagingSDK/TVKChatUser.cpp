#include "TavloMessagingSDK/TVKChatUser.hpp"

#include <string_view>

#include "Dispatch/Queue.hpp"
#include "TavloMessagingSDK/Internal/TVKMessagingError.hpp"
#include "TavloMessagingSDK/Internal/TVKMessagingHTTPClient.hpp"
#include "TavloMessagingSDK/TVKMSGUtility.hpp"

namespace tavlo {

namespace {

constexpr const char* kGuestNickname = "Guest";
constexpr std::size_t kNicknameMinLength = 1;
constexpr std::size_t kNicknameMaxLength = 20;

struct RoleRank {
    std::string_view role;
    unsigned level;
};

// Tested in this order; the levels, not the order, rank the roles.
constexpr RoleRank kRoleRanks[] = {
    {kTVKUserRoleMaster, 6},    {kTVKUserRoleLocalManager, 4}, {kTVKUserRoleGlobalManager, 5},
    {kTVKUserRoleModerator, 3}, {kTVKUserRoleNormal, 2},       {kTVKUserRoleBlocked, 1},
};

}  // namespace

std::shared_ptr<TVKChatUser> TVKChatUser::userWithJWT(
    std::optional<std::string> JWT, std::optional<std::string> HTTPHostURL,
    std::shared_ptr<dispatch::Queue> completionQueue, std::optional<std::string> caFile) {
    if (!JWT) return nullptr;
    auto user = std::make_shared<TVKChatUser>();
    user->JWT_ = std::move(JWT);
    user->HTTPHostURL_ = std::move(HTTPHostURL);
    user->defaultNickname_ = kGuestNickname;
    user->completionQueue_ = std::move(completionQueue);
    user->caFile_ = std::move(caFile);
    return user;
}

TVKChatUser::TVKChatUser() : internalData_(std::make_shared<DQChatUser>()) {}

TVKChatUser::~TVKChatUser() = default;

bool TVKChatUser::mapJSON(const boost::json::object& json) {
    auto record = std::make_shared<DQChatUser>();
    if (!record->mapJSON(json)) return false;
    internalData_ = std::move(record);
    return true;
}

void TVKChatUser::setInternalData(std::shared_ptr<DQChatUser> internalData) {
    internalData_ = internalData ? std::move(internalData) : std::make_shared<DQChatUser>();
}

// --- Identity and state ----------------------------------------------------------------------

bool TVKChatUser::isManipulable() const {
    return JWT_.has_value() && HTTPHostURL_.has_value();
}

bool TVKChatUser::isGuest() const {
    return (!JWT_ || JWT_->empty()) && !internalData_->userId().has_value();
}

bool TVKChatUser::isBoundWithChat() const {
    return label().has_value() && chatId_.has_value() && userToken_.has_value();
}

bool TVKChatUser::isEqual(const TVKChatUser& other) const {
    return other.label().has_value() && label() == other.label();
}

std::size_t TVKChatUser::hash() const {
    return label() ? std::hash<std::int64_t>{}(*label()) : 0;
}

std::shared_ptr<TVKMessagingHTTPClient> TVKChatUser::HTTPClient() {
    if (!HTTPClient_ && isManipulable()) {
        HTTPClient_ = TVKMessagingHTTPClient::create(*HTTPHostURL_, completionQueue_, caFile_);
        HTTPClient_->setAuthorizationToken(JWT_);
    }
    return HTTPClient_;
}

void TVKChatUser::setHTTPClient(std::shared_ptr<TVKMessagingHTTPClient> client) {
    HTTPClient_ = std::move(client);
}

void TVKChatUser::updateChatId(std::optional<std::string> chatId,
                               std::optional<std::string> userToken,
                               std::optional<std::int64_t> label, std::optional<std::string> role) {
    chatId_ = std::move(chatId);
    userToken_ = std::move(userToken);
    internalData_->setLabel(label);
    internalData_->setRole(std::move(role));
}

void TVKChatUser::updateRole(std::optional<std::string> role) {
    ++roleChanges_;
    internalData_->setRole(std::move(role));
}

// --- Roles -------------------------------------------------------------------------------------

unsigned TVKChatUser::accessLevel() const {
    const auto& role = internalData_->role();
    if (!role) return 0;
    for (const auto& rank : kRoleRanks) {
        if (*role == rank.role) return rank.level;
    }
    return 0;
}

bool TVKChatUser::isMaster() const {
    return hasRank(6) && !isGuest();
}
bool TVKChatUser::isGlobalManager() const {
    return hasRank(5) && !isGuest();
}
bool TVKChatUser::isLocalManager() const {
    return hasRank(4) && !isGuest();
}
bool TVKChatUser::isModerator() const {
    return hasRank(3) && !isGuest();
}
bool TVKChatUser::isNormal() const {
    return hasRank(2);
}
bool TVKChatUser::isBlocked() const {
    return hasRank(1);
}

bool TVKChatUser::isPrivileged() const {
    return isMaster() || isLocalManager() || isGlobalManager();
}

// --- Permission rules --------------------------------------------------------------------------

std::optional<TVKError> TVKChatUser::manipulableAndBoundError() const {
    if (!isManipulable()) return TVKNotManipulableUserError();
    if (!isBoundWithChat()) return TVKUserNotBoundWithChatError();
    return std::nullopt;
}

std::optional<TVKError> TVKChatUser::moderatorRightsError() const {
    if (auto error = manipulableAndBoundError()) return error;
    if (isModerator() || isPrivileged()) return std::nullopt;
    return TVKUserNoPermissionError();
}

std::optional<TVKError> TVKChatUser::notAllowedErrorForJoinChat() const {
    if (!isManipulable()) return TVKNotManipulableUserError();
    if (isBoundWithChat()) return TVKUserBoundWithChatError();
    return std::nullopt;
}

std::optional<TVKError> TVKChatUser::notAllowedErrorForLeaveChat() const {
    return manipulableAndBoundError();
}

std::optional<TVKError> TVKChatUser::notAllowedErrorForUpdateGuestNickname(
    const std::optional<std::string>& nickname) const {
    if (auto error = manipulableAndBoundError()) return error;
    if (!isGuest()) return TVKUpdateMemberNicknameError();
    const std::size_t length = nickname ? utf16Length(*nickname) : 0;
    if (length < kNicknameMinLength || length > kNicknameMaxLength) {
        return TVKNicknameLengthError();
    }
    return std::nullopt;
}

std::optional<TVKError> TVKChatUser::notAllowedErrorForUpdateUserRole(
    const std::optional<std::string>& role) const {
    if (auto error = manipulableAndBoundError()) return error;
    if (!isPrivileged()) return TVKUserNoPermissionError();
    // Promotion to a manager or master is not the client's to grant, and blocking has an
    // operation of its own.
    if (role != kTVKUserRoleModerator && role != kTVKUserRoleNormal) {
        return TVKUpdateUserRoleError();
    }
    return std::nullopt;
}

std::optional<TVKError> TVKChatUser::notAllowedErrorForBlockOrRiviveUsers() const {
    return moderatorRightsError();
}

std::optional<TVKError> TVKChatUser::notAllowedErrorForSendMessage() const {
    return manipulableAndBoundError();
}

std::optional<TVKError> TVKChatUser::notAllowedErrorForRemoveMessage() const {
    return moderatorRightsError();
}

std::optional<TVKError> TVKChatUser::notAllowedErrorForLoadUserData() const {
    return manipulableAndBoundError();
}

std::optional<TVKError> TVKChatUser::notAllowedErrorForPinMessage() const {
    return moderatorRightsError();
}

std::optional<TVKError> TVKChatUser::notAllowedErrorForUnpinMessage() const {
    return notAllowedErrorForPinMessage();
}

std::optional<TVKError> TVKChatUser::notAllowedErrorForSettingMetadata() const {
    return moderatorRightsError();
}

}  // namespace tavlo
