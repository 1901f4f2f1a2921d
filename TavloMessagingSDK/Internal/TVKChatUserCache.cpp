#include "TavloMessagingSDK/Internal/TVKChatUserCache.hpp"

#include <algorithm>

#include "TavloMessagingSDK/TVKChatUser.hpp"

namespace tavlo {

namespace {

using Users = TVKChatUserCache::Users;
using UserPredicate = bool (*)(const TVKChatUser&);

bool isAnyManager(const TVKChatUser& user) {
    return user.isLocalManager() || user.isGlobalManager() || user.isMaster();
}

/// Inserts `user` before the first user matching `predicate`, or at the end when none does.
void insertBeforeFirst(Users& users, const std::shared_ptr<TVKChatUser>& user,
                       UserPredicate predicate) {
    auto position = std::find_if(users.begin(), users.end(),
                                 [predicate](const auto& cached) { return predicate(*cached); });
    users.insert(position, user);
}

void removeEvery(Users& users, const std::shared_ptr<TVKChatUser>& user) {
    users.erase(std::remove(users.begin(), users.end(), user), users.end());
}

}  // namespace

Users TVKChatUserCache::allCachedUsers() const {
    Users all;
    all.reserve(managers_.size() + moderators_.size() + normalUsers_.size());
    all.insert(all.end(), managers_.begin(), managers_.end());
    all.insert(all.end(), moderators_.begin(), moderators_.end());
    all.insert(all.end(), normalUsers_.begin(), normalUsers_.end());
    return all;
}

bool TVKChatUserCache::isCachedUserReachedLimit() const {
    return managers_.size() + moderators_.size() + normalUsers_.size() >= maximumCachedUserCount;
}

Users TVKChatUserCache::getUsersUnderMaxNumberLimit(const Users& users) {
    if (users.size() <= maximumUserListCount) return users;
    return Users(users.begin(), users.begin() + maximumUserListCount);
}

bool TVKChatUserCache::isLargeChatroom(std::int64_t userCount) {
    return userCount > aLotOfUsersThreshold;
}

// --- Queries -----------------------------------------------------------------------------------

std::optional<Users> TVKChatUserCache::getCachedUsersByUserType(TVKChatUserType userType) const {
    if (userType != TVKChatUserTypeOnline) return std::nullopt;
    return allCachedUsers();
}

bool TVKChatUserCache::shouldUpdateUsersByUserType(TVKChatUserType userType) const {
    switch (userType) {
        case TVKChatUserTypeOnline:
            return shouldUpdateOnlineUsers_;
        case TVKChatUserTypeBlocked:
        case TVKChatUserTypeSupervisor:
            return true;
        default:
            // Nothing to ask the service for: the (empty) cached answer stands.
            return false;
    }
}

std::vector<std::string> TVKChatUserCache::rolesForUserType(TVKChatUserType userType) {
    switch (userType) {
        case TVKChatUserTypeOnline:
            return {kTVKUserRoleGlobalManager, kTVKUserRoleLocalManager, kTVKUserRoleMaster,
                    kTVKUserRoleModerator, kTVKUserRoleNormal};
        case TVKChatUserTypeBlocked:
            return {kTVKUserRoleBlocked};
        case TVKChatUserTypeSupervisor:
            return {kTVKUserRoleGlobalManager, kTVKUserRoleLocalManager, kTVKUserRoleMaster,
                    kTVKUserRoleModerator};
        default:
            return {};
    }
}

std::vector<std::string> TVKChatUserCache::statusesForUserType(TVKChatUserType userType) {
    // Blocked users and supervisors are listed whatever their membership; online means active.
    if (userType == TVKChatUserTypeBlocked || userType == TVKChatUserTypeSupervisor) {
        return {kTVKGetUserStatusActive, kTVKGetUserStatusDeleted, kTVKGetUserStatusPreactive};
    }
    return {kTVKGetUserStatusActive};
}

void TVKChatUserCache::saveCachedOnlineUsers(const Users& users) {
    clearUserListCached();
    shouldUpdateOnlineUsers_ = false;
    // The service's order stands as it is, and so does its size: the limit applies to events.
    for (const auto& user : users) {
        if (!user) continue;
        if (isAnyManager(*user)) {
            managers_.push_back(user);
        } else if (user->isModerator()) {
            moderators_.push_back(user);
        } else if (user->isNormal()) {
            normalUsers_.push_back(user);
        }
    }
}

// --- Events ------------------------------------------------------------------------------------

void TVKChatUserCache::addUsersToCachedUsersIfNeeded(const Users& users) {
    // Each insertion goes to the front of its group, so the last user goes in first.
    for (auto user = users.rbegin(); user != users.rend(); ++user) {
        addUserToCachedUsersIfNeeded(*user);
    }
}

void TVKChatUserCache::updateCachedUsers(const Users& users) {
    for (const auto& user : users) {
        if (!user || !user->label()) continue;
        if (!findCachedUserByLabel(*user->label())) continue;
        removeUserFromCachedUsersByLabel(*user->label());
        addUserToCachedUsersIfNeeded(user);
    }
}

void TVKChatUserCache::removeUsersFromCachedUsersIfNeeded(const Labels& labels,
                                                          std::int64_t userCount) {
    // A large chatroom's cache cannot follow every leave; it is left as it is.
    if (isLargeChatroom(userCount)) return;
    for (auto label : labels) removeUserFromCachedUsersByLabel(label);
}

void TVKChatUserCache::clearUserListCachedIfNeeded(std::int64_t userCount) {
    // Refilling a large chatroom's cache is costly: it survives a lost connection.
    if (isLargeChatroom(userCount) && !forceClearCachedUser_) return;
    shouldUpdateOnlineUsers_ = true;
    forceClearCachedUser_ = false;
    clearUserListCached();
}

void TVKChatUserCache::clearUserListCached() {
    managers_.clear();
    moderators_.clear();
    normalUsers_.clear();
}

// --- Single users ------------------------------------------------------------------------------

void TVKChatUserCache::addUserToCachedUsersIfNeeded(const std::shared_ptr<TVKChatUser>& user) {
    if (!user || user->accessLevel() == 0 || user->isBlocked()) return;
    // One out for each one in: a cache a full load made larger than the limit stays that large.
    removeCachedUserIfReachLimit();
    if (user->isNormal()) {
        addNormalUserToCachedUser(user);
    } else if (user->isModerator()) {
        moderators_.insert(moderators_.begin(), user);
    } else {
        addManagerToCachedUser(user);
    }
}

void TVKChatUserCache::removeUserFromCachedUsersByLabel(std::int64_t label) {
    auto user = findCachedUserByLabel(label);
    if (!user) return;
    removeEvery(normalUsers_, user);
    removeEvery(moderators_, user);
    removeEvery(managers_, user);
}

void TVKChatUserCache::addNormalUserToCachedUser(const std::shared_ptr<TVKChatUser>& user) {
    if (!user || !user->isNormal()) return;
    if (normalUsers_.empty()) {
        normalUsers_.push_back(user);
    } else if (!user->isGuest()) {
        normalUsers_.insert(normalUsers_.begin(), user);
    } else {
        insertBeforeFirst(normalUsers_, user,
                          [](const TVKChatUser& cached) { return cached.isGuest(); });
    }
}

void TVKChatUserCache::addManagerToCachedUser(const std::shared_ptr<TVKChatUser>& user) {
    if (!user || !isAnyManager(*user)) return;
    if (managers_.empty()) {
        managers_.push_back(user);
    } else if (user->isGlobalManager()) {
        managers_.insert(managers_.begin(), user);
    } else if (user->isLocalManager()) {
        insertBeforeFirst(managers_, user, [](const TVKChatUser& cached) {
            return cached.isLocalManager() || cached.isMaster();
        });
    } else {
        insertBeforeFirst(managers_, user,
                          [](const TVKChatUser& cached) { return cached.isMaster(); });
    }
}

void TVKChatUserCache::removeCachedUserIfReachLimit() {
    if (!isCachedUserReachedLimit()) return;
    for (Users* group : {&normalUsers_, &moderators_, &managers_}) {
        if (!group->empty()) {
            group->pop_back();
            return;
        }
    }
}

std::shared_ptr<TVKChatUser> TVKChatUserCache::findCachedUserByLabel(std::int64_t label) const {
    for (const Users* group : {&managers_, &moderators_, &normalUsers_}) {
        for (const auto& user : *group) {
            if (user && user->label() == label) return user;
        }
    }
    return nullptr;
}

}  // namespace tavlo
