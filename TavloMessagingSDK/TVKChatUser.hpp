#pragma once

#include "TavloCoreSDK/TVKExport.hpp"

#include <boost/json.hpp>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "TavloCoreSDK/DQDataObject.hpp"
#include "TavloCoreSDK/TVKError.hpp"

namespace tavlo {

/// The kinds of user lists a chatroom can be asked for (`TVKChatManager::getUsersForChatroom`). Any
/// other value (a cast number) is accepted and answers with no list.
enum class TVKChatUserType : std::uint64_t {
    online = 0,
    blocked = 1,
    supervisor = 2,
};
inline constexpr TVKChatUserType TVKChatUserTypeOnline = TVKChatUserType::online;
inline constexpr TVKChatUserType TVKChatUserTypeBlocked = TVKChatUserType::blocked;
inline constexpr TVKChatUserType TVKChatUserTypeSupervisor = TVKChatUserType::supervisor;

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

namespace tavlo {

namespace dispatch {
class Queue;
}
class TVKMessagingHTTPClient;
class TVKMessagingSocketConfig;

// The roles a chatroom gives its users, from the most to the least privileged.
inline constexpr const char* kTVKUserRoleMaster = "MASTER";
inline constexpr const char* kTVKUserRoleGlobalManager = "GLOBAL_MANAGER";
inline constexpr const char* kTVKUserRoleLocalManager = "LOCAL_MANAGER";
inline constexpr const char* kTVKUserRoleModerator = "MODERATOR";
inline constexpr const char* kTVKUserRoleNormal = "NORMAL";
inline constexpr const char* kTVKUserRoleBlocked = "BLOCKED";

/// One person in a chatroom. Two kinds exist:
///  - the current user of a chatroom connection (`userWithJWT`): it holds the member's JWT (empty
///    for a guest) and the messaging service's address, can act through the REST interface
///    (`isManipulable`), and is bound to a chatroom (`isBoundWithChat`) while it has joined;
///  - member records (`DQDataObject::withJSON<TVKChatUser>`): users the service reports; they hold
///    no credentials and can never act.
///
/// Users are the same person when their labels are equal; a user without a label equals no one,
/// not even itself. Not thread-safe: a chatroom drives its current user from one queue.
class TAVLO_EXPORT TVKChatUser : public DQDataObject,
                                 public std::enable_shared_from_this<TVKChatUser> {
  public:
    using Success = std::function<void()>;
    using Failure = std::function<void(const TVKError&)>;
    /// The user token of the joined chatroom and where its realtime channel is.
    using JoinSuccess = std::function<void(const std::string& userToken,
                                           std::shared_ptr<TVKMessagingSocketConfig> socketConfig)>;
    /// The new message's id, as the service sent it.
    using SendSuccess = std::function<void(const boost::json::value& messageId)>;

    /// A current user; nullptr when `JWT` is unset. An empty JWT makes a guest. Without a host the
    /// user exists but can never act. The HTTP client the user creates on first need delivers its
    /// completions on `completionQueue` (the global queue when null) and trusts `caFile` in
    /// addition to the system's certificate authorities. Completions change the user (a join binds
    /// it), so `completionQueue` should be the queue the user is driven from.
    static std::shared_ptr<TVKChatUser> userWithJWT(
        std::optional<std::string> JWT, std::optional<std::string> HTTPHostURL,
        std::shared_ptr<dispatch::Queue> completionQueue = nullptr,
        std::optional<std::string> caFile = std::nullopt);

    /// An empty member record; use `userWithJWT` or `DQDataObject::withJSON<TVKChatUser>`.
    TVKChatUser();
    ~TVKChatUser() override;

    // --- The application's view ---------------------------------------------------------------
    /// From the service's record: the label that identifies the user in the service's events,
    /// the display name, the avatar URL, the record's last change and the role ("NORMAL", ...).
    const std::optional<std::int64_t>& label() const { return internalData_->label(); }
    const std::optional<std::string>& name() const { return internalData_->name(); }
    const std::optional<std::string>& avatar() const { return internalData_->avatar(); }
    const std::optional<std::string>& updatedDate() const { return internalData_->updatedDate(); }
    const std::optional<std::string>& role() const { return internalData_->role(); }

    /// True when the user holds a JWT (an empty one counts) and the service's address.
    bool isManipulable() const;
    /// True when the JWT is empty or unset and the service gave no account id.
    bool isGuest() const;
    /// True while the user has joined a chatroom: label, chat id and user token are all set.
    bool isBoundWithChat() const;

    /// Same person: the other's label is set and equal to this one's.
    bool isEqual(const TVKChatUser& other) const;
    bool operator==(const TVKChatUser& other) const { return isEqual(other); }
    /// The hash of the label (0 without one), consistent with `isEqual`.
    std::size_t hash() const;

    // --- Within the SDK ----------------------------------------------------------------------
    const std::optional<std::string>& userId() const { return internalData_->userId(); }
    const std::optional<boost::json::object>& identities() const {
        return internalData_->identities();
    }
    const std::optional<std::string>& status() const { return internalData_->status(); }

    const std::optional<std::string>& JWT() const { return JWT_; }
    void setJWT(std::optional<std::string> JWT) { JWT_ = std::move(JWT); }
    // Chat id and user token change only together with label and role, through `updateChatId`
    // (the join's answer binds them, leaving unbinds them).
    const std::optional<std::string>& chatId() const { return chatId_; }
    const std::optional<std::string>& userToken() const { return userToken_; }
    const std::optional<std::string>& HTTPHostURL() const { return HTTPHostURL_; }
    void setHTTPHostURL(std::optional<std::string> url) { HTTPHostURL_ = std::move(url); }

    /// The service's record of this user; never null.
    const std::shared_ptr<DQChatUser>& internalData() const { return internalData_; }
    /// Replaces the record; null puts an empty record in its place.
    void setInternalData(std::shared_ptr<DQChatUser> internalData);

    /// The nickname a guest join sends: "Guest" for a current user, empty for a member record.
    const std::string& defaultNickname() const { return defaultNickname_; }
    void setDefaultNickname(std::string nickname) { defaultNickname_ = std::move(nickname); }

    /// The client this user acts through. Created on first use for a manipulable user, with the
    /// JWT it holds at that moment (a later change of `JWT` does not reach it); kept for the
    /// user's life. Null for a user that cannot act.
    std::shared_ptr<TVKMessagingHTTPClient> HTTPClient();
    /// Lets the user act through a client made elsewhere (or forget its own, with null).
    void setHTTPClient(std::shared_ptr<TVKMessagingHTTPClient> client);

    /// The user's rank: MASTER 6, GLOBAL_MANAGER 5, LOCAL_MANAGER 4, MODERATOR 3, NORMAL 2,
    /// BLOCKED 1, any other role or none 0. Read from the current role on every call.
    unsigned accessLevel() const;
    // The privileged ranks never hold for a guest, whatever role the service gave it; the two
    // lowest look at the role alone.
    bool isMaster() const;
    bool isGlobalManager() const;
    bool isLocalManager() const;
    bool isModerator() const;
    bool isNormal() const;
    bool isBlocked() const;

    // --- Permission rules --------------------------------------------------------------------
    // Each answers whether the user may perform an operation, before any request: nothing when it
    // may, else the error to report. Every rule asks first whether the user can act at all
    // (`TVKNotManipulableUserError`), then whether it is bound to a chatroom.

    std::optional<TVKError> notAllowedErrorForJoinChat() const;
    std::optional<TVKError> notAllowedErrorForLeaveChat() const;
    /// Only a guest may rename itself, to 1 to 20 UTF-16 code units; an unset nickname has none.
    std::optional<TVKError> notAllowedErrorForUpdateGuestNickname(
        const std::optional<std::string>& nickname) const;
    /// Managers and the master may make users moderators or normal users, nothing else.
    std::optional<TVKError> notAllowedErrorForUpdateUserRole(
        const std::optional<std::string>& role) const;
    std::optional<TVKError> notAllowedErrorForBlockOrRiviveUsers() const;
    /// Every bound user may send, guests and blocked users included; the service judges them.
    std::optional<TVKError> notAllowedErrorForSendMessage() const;
    std::optional<TVKError> notAllowedErrorForRemoveMessage() const;
    std::optional<TVKError> notAllowedErrorForLoadUserData() const;
    std::optional<TVKError> notAllowedErrorForPinMessage() const;
    std::optional<TVKError> notAllowedErrorForUnpinMessage() const;
    std::optional<TVKError> notAllowedErrorForSettingMetadata() const;

    // --- Operations (the current user acting in its chatroom) ----------------------------------
    // Each asks its rule first: a refusal reaches `failure` before the call returns and nothing is
    // sent. A request that fails because the API token or the JWT went stale is sent once more,
    // with the same arguments, after the credential is refreshed; whatever fails then is reported.
    // Callbacks run on the HTTP client's completion queue. A pending request does not keep the
    // user alive: once it is gone, a failure is neither repaired nor reported, and join, leave,
    // nickname and load report nothing (their success changes the user). The other operations
    // hand their success callback to the request as it is. A null callback is not called.

    /// Joins the chatroom `chatId`: a guest with `defaultNickname`, a member by its JWT. On success
    /// the user is bound.
    void joinChat(const std::string& chatId, JoinSuccess success, Failure failure);
    /// Leaves the chatroom; on success the user is unbound and its record is emptied.
    void leaveChat(Success success, Failure failure);
    /// Renames a guest; on success `name` is the new nickname.
    void updateGuestNickname(const std::string& nickname, Success success, Failure failure);
    /// Gives `user` (addressed by its label) the role `role`.
    void updateUserRole(const std::string& role, const std::shared_ptr<TVKChatUser>& user,
                        Success success, Failure failure);
    /// Gives the member with this account id at this vendor the role `role`.
    void updateUserRole(const std::string& role, const std::string& memberId,
                        const std::string& venderAccountId, Success success, Failure failure);
    /// Blocks the users, addressed by their labels in list order (a user without a label, or a
    /// null entry, is sent as an empty label for the service to judge).
    void blockUsers(const std::vector<std::shared_ptr<TVKChatUser>>& users, Success success,
                    Failure failure);
    void reviveUsers(const std::vector<std::shared_ptr<TVKChatUser>>& users, Success success,
                     Failure failure);
    /// Sends a message of type `msgType` ("text", "raw", "aggregate"). The value is not checked
    /// here: the caller checks lengths and shapes.
    void sendMessage(const boost::json::value& message, const std::string& msgType,
                     SendSuccess success, Failure failure);
    void removeMessage(const std::string& messageId, Success success, Failure failure);
    void pinMessage(const std::string& messageId, Success success, Failure failure);
    void unpinMessageWithSuccess(Success success, Failure failure);
    /// Writes one metadata entry; `broadcast` has the service announce it to the chatroom.
    void setMetadataValue(const boost::json::value& value, const std::string& key, bool broadcast,
                          Success success, Failure failure);
    /// Fetches the service's full record of this user and makes it `internalData`.
    void loadUserData(Success success, Failure failure);

    /// Binds (or, with unset values, unbinds) the user: chat id, user token, label and role.
    void updateChatId(std::optional<std::string> chatId, std::optional<std::string> userToken,
                      std::optional<std::int64_t> label, std::optional<std::string> role);
    /// Takes a role the service reported for this user, so later rules see it.
    void updateRole(std::optional<std::string> role);

    bool mapJSON(const boost::json::object& json) override;

  private:
    std::optional<TVKError> manipulableAndBoundError() const;
    std::optional<TVKError> moderatorRightsError() const;
    bool isPrivileged() const;
    bool hasRank(unsigned level) const { return accessLevel() == level; }
    /// One REST call of an operation, its arguments captured, sent through `client` with
    /// `failure` as its failure callback.
    using Request = std::function<void(TVKMessagingHTTPClient& client, Failure failure)>;
    /// Sends `request`. If it fails, the client refreshes the credential at fault and the request
    /// goes out once more, reporting straight to `failure`; an error that no refresh repairs goes
    /// to `failure` at once.
    void sendRepairingOnce(Request request, Failure failure);
    /// The rule's refusal, reported to `failure`; true when there was one.
    static bool refused(const std::optional<TVKError>& refusal, const Failure& failure);
    static std::vector<std::string> labelsOf(
        const std::vector<std::shared_ptr<TVKChatUser>>& users);
    /// Takes the join's answer: binds the user and hands out its socket configuration.
    void bind(const std::string& chatId, const boost::json::value& userToken,
              const boost::json::value& label, const boost::json::value& role,
              const boost::json::object& socket, const JoinSuccess& success,
              const Failure& failure);
    /// Takes the first of the fetched records as the user's own, keeping a role that an event
    /// changed since the request went out
    /// (`roleChangesBefore`: `roleChanges_` then).
    void adoptUserData(const boost::json::array& users, std::uint64_t roleChangesBefore,
                       const Success& success, const Failure& failure);

    std::optional<std::string> JWT_;
    std::optional<std::string> chatId_;
    std::optional<std::string> userToken_;
    std::shared_ptr<DQChatUser> internalData_;
    /// How often an event changed the role: an answer to a request sent before the latest
    /// change does not undo it.
    std::uint64_t roleChanges_ = 0;
    std::optional<std::string> HTTPHostURL_;
    std::string defaultNickname_;
    std::shared_ptr<TVKMessagingHTTPClient> HTTPClient_;
    std::shared_ptr<dispatch::Queue> completionQueue_;
    std::optional<std::string> caFile_;
};

}  // namespace tavlo

template <>
struct std::hash<tavlo::TVKChatUser> {
    std::size_t operator()(const tavlo::TVKChatUser& user) const { return user.hash(); }
};
