#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "TavloMessagingSDK/TVKChatUser.hpp"

namespace tavlo {

/// At most this many online users are kept by a chatroom; a join beyond it evicts one.
inline constexpr std::size_t maximumCachedUserCount = 220;
/// At most this many users are handed out by one user query.
inline constexpr std::size_t maximumUserListCount = 200;
/// A chatroom of more users than this is large: leave events no longer shrink its cache and a
/// lost connection keeps it.
inline constexpr std::int64_t aLotOfUsersThreshold = 4000;

// The membership statuses a user query filters by.
inline constexpr const char* kTVKGetUserStatusActive = "ACTIVE";
inline constexpr const char* kTVKGetUserStatusDeleted = "DELETED";
inline constexpr const char* kTVKGetUserStatusPreactive = "PREACTIVE";

/// A chatroom's cache of who is online, so that the short list an application shows does not
/// cost a request each time. It is filled once from the service's answer and then kept current
/// by the join, update and leave events.
///
/// Users sit in three groups, and every answer reads them in this order:
///  - managers: global managers, then local managers, then masters;
///  - moderators, newest first;
///  - normal users: members newest first, then guests newest first.
/// Blocked users and users without a known role are never added by an event. Users are found by
/// their label. Not thread-safe: the chatroom touches it from its queue only.
class TVKChatUserCache {
  public:
    using Users = std::vector<std::shared_ptr<TVKChatUser>>;
    using Labels = std::vector<std::int64_t>;

    const Users& managers() const { return managers_; }
    const Users& moderators() const { return moderators_; }
    const Users& normalUsers() const { return normalUsers_; }

    /// True while the next online-user query must ask the service (initially, and after the
    /// cache was emptied by a disconnection).
    bool shouldUpdateOnlineUsers() const { return shouldUpdateOnlineUsers_; }
    /// Set when the application itself disconnects: the next disconnection empties the cache
    /// even in a large chatroom.
    bool forceClearCachedUser() const { return forceClearCachedUser_; }
    void setForceClearCachedUser(bool force) { forceClearCachedUser_ = force; }

    /// Managers, then moderators, then normal users: a new list each call.
    Users allCachedUsers() const;
    /// True when the cache holds `maximumCachedUserCount` users or more.
    bool isCachedUserReachedLimit() const;
    /// The first `maximumUserListCount` users of `users`, in order.
    static Users getUsersUnderMaxNumberLimit(const Users& users);
    /// True when a chatroom of `userCount` users is large (above `aLotOfUsersThreshold`).
    static bool isLargeChatroom(std::int64_t userCount);

    // --- Queries -----------------------------------------------------------------------------
    /// The cached answer of a query: every cached user for online users, nothing for any other
    /// type (those are never cached).
    std::optional<Users> getCachedUsersByUserType(TVKChatUserType userType) const;
    /// Whether a query must go to the service: always for blocked users and supervisors, for
    /// online users while the cache is stale, never for an unknown type.
    bool shouldUpdateUsersByUserType(TVKChatUserType userType) const;
    /// The roles and statuses a query of `userType` asks the service for, in the order sent.
    static std::vector<std::string> rolesForUserType(TVKChatUserType userType);
    static std::vector<std::string> statusesForUserType(TVKChatUserType userType);
    /// Replaces the cache with the service's answer to an online-user query, in its order and
    /// whole (no capacity check), and marks the cache fresh. Users of no online role are left out.
    void saveCachedOnlineUsers(const Users& users);

    // --- Events ------------------------------------------------------------------------------
    /// Users who joined: each is placed by its role, so that the list's first user ends up
    /// foremost.
    void addUsersToCachedUsersIfNeeded(const Users& users);
    /// Users whose record changed: a cached one is placed afresh by its new role (or dropped if
    /// now blocked); users not cached stay out.
    void updateCachedUsers(const Users& users);
    /// Users who left, by label. Ignored in a large chatroom of `userCount` users.
    void removeUsersFromCachedUsersIfNeeded(const Labels& labels, std::int64_t userCount);
    /// The socket of a chatroom of `userCount` users went down: empties the cache and marks it
    /// stale, unless the chatroom is large and the application did not ask for it.
    void clearUserListCachedIfNeeded(std::int64_t userCount);
    void clearUserListCached();

    // --- Single users ------------------------------------------------------------------------
    /// Places one user by its role, evicting one user first when the cache is full. Users that
    /// are blocked or have no known role are not added.
    void addUserToCachedUsersIfNeeded(const std::shared_ptr<TVKChatUser>& user);
    /// Removes the cached user with this label from every group.
    void removeUserFromCachedUsersByLabel(std::int64_t label);
    /// Normal users: members go first, a guest goes before the first cached guest.
    void addNormalUserToCachedUser(const std::shared_ptr<TVKChatUser>& user);
    /// Global managers go first, local managers before the first local manager or master,
    /// masters before the first master.
    void addManagerToCachedUser(const std::shared_ptr<TVKChatUser>& user);
    /// When full, evicts the last normal user, else the last moderator, else the last manager.
    void removeCachedUserIfReachLimit();
    /// The first cached user with this label, or nullptr.
    std::shared_ptr<TVKChatUser> findCachedUserByLabel(std::int64_t label) const;

  private:
    Users managers_;
    Users moderators_;
    Users normalUsers_;
    bool shouldUpdateOnlineUsers_ = true;
    bool forceClearCachedUser_ = false;
};

}  // namespace tavlo
