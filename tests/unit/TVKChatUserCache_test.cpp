#include "TavloMessagingSDK/Internal/TVKChatUserCache.hpp"

#include <gtest/gtest.h>

#include <boost/json.hpp>
#include <string>
#include <vector>

#include "TavloMessagingSDK/TVKChatUser.hpp"

namespace tavlo {
namespace {

namespace json = boost::json;
using Users = TVKChatUserCache::Users;
using Labels = std::vector<std::int64_t>;

/// A member record as the service sends it; members carry an account id, guests none.
std::shared_ptr<TVKChatUser> user(std::int64_t label, const std::string& role, bool guest = false) {
    json::object record{{"label", label}, {"role", role}, {"name", "user"}};
    if (!guest) record["userId"] = "member-" + std::to_string(label);
    auto result = DQDataObject::withJSON<TVKChatUser>(record);
    EXPECT_TRUE(result);
    return result;
}

std::shared_ptr<TVKChatUser> guest(std::int64_t label, const std::string& role = "NORMAL") {
    return user(label, role, true);
}

Labels labelsOf(const Users& users) {
    Labels labels;
    for (const auto& each : users) labels.push_back(each->label().value_or(-1));
    return labels;
}

Users sequence(std::int64_t first, std::size_t count, const std::string& role) {
    Users users;
    for (std::size_t i = 0; i < count; ++i) {
        users.push_back(user(first + static_cast<std::int64_t>(i), role));
    }
    return users;
}

Users concat(std::initializer_list<Users> parts) {
    Users all;
    for (const auto& part : parts) all.insert(all.end(), part.begin(), part.end());
    return all;
}

// --- Placement of a joining user ---------------------------------------------------------------

struct Placement {
    const char* name;
    Users cached;                       // a server answer, kept in its order
    std::shared_ptr<TVKChatUser> join;  // label 99 by convention
    Labels expected;                    // all cached users afterwards
};

class UserCachePlacement : public ::testing::TestWithParam<Placement> {};

TEST_P(UserCachePlacement, PlacesTheJoiningUserByRole) {
    const auto& placement = GetParam();
    TVKChatUserCache cache;
    cache.saveCachedOnlineUsers(placement.cached);
    cache.addUserToCachedUsersIfNeeded(placement.join);
    EXPECT_EQ(labelsOf(cache.allCachedUsers()), placement.expected);
}

INSTANTIATE_TEST_SUITE_P(
    Roles, UserCachePlacement,
    ::testing::Values(
        Placement{"MemberGoesFirstAmongNormalUsers",
                  {user(1, "NORMAL"), guest(2)},
                  user(99, "NORMAL"),
                  {99, 1, 2}},
        Placement{"GuestGoesBeforeTheFirstGuest",
                  {user(1, "NORMAL"), guest(2), guest(3)},
                  guest(99),
                  {1, 99, 2, 3}},
        Placement{"GuestGoesLastWithoutGuests", {user(1, "NORMAL")}, guest(99), {1, 99}},
        Placement{"NormalUserIntoAnEmptyGroup", {user(1, "MODERATOR")}, guest(99), {1, 99}},
        Placement{"ModeratorGoesFirstAmongModerators",
                  {user(1, "MODERATOR"), user(2, "NORMAL")},
                  user(99, "MODERATOR"),
                  {99, 1, 2}},
        Placement{"GlobalManagerGoesFirst",
                  {user(1, "LOCAL_MANAGER"), user(2, "MASTER")},
                  user(99, "GLOBAL_MANAGER"),
                  {99, 1, 2}},
        Placement{"LocalManagerGoesBeforeTheFirstMaster",
                  {user(1, "GLOBAL_MANAGER"), user(2, "MASTER")},
                  user(99, "LOCAL_MANAGER"),
                  {1, 99, 2}},
        Placement{"LocalManagerGoesBeforeTheFirstLocalManager",
                  {user(1, "GLOBAL_MANAGER"), user(2, "LOCAL_MANAGER"), user(3, "MASTER")},
                  user(99, "LOCAL_MANAGER"),
                  {1, 99, 2, 3}},
        Placement{"LocalManagerAfterGlobalManagersOnly",
                  {user(1, "GLOBAL_MANAGER")},
                  user(99, "LOCAL_MANAGER"),
                  {1, 99}},
        Placement{"MasterGoesAfterManagersBeforeMasters",
                  {user(1, "GLOBAL_MANAGER"), user(2, "LOCAL_MANAGER"), user(3, "MASTER")},
                  user(99, "MASTER"),
                  {1, 2, 99, 3}},
        Placement{"MasterIntoAnEmptyGroup", {user(1, "NORMAL")}, user(99, "MASTER"), {99, 1}},
        Placement{"BlockedUserIsNotAdded", {user(1, "NORMAL")}, user(99, "BLOCKED"), {1}},
        Placement{"UnknownRoleIsNotAdded", {user(1, "NORMAL")}, user(99, "ADMIN"), {1}},
        Placement{"GuestWithAPrivilegedRoleIsNotAdded",
                  {user(1, "NORMAL")},
                  guest(99, "MODERATOR"),
                  {1}}),
    [](const auto& info) { return std::string(info.param.name); });

TEST(UserCache, AJoinOfSeveralUsersKeepsTheirOrderAtTheFront) {
    TVKChatUserCache cache;
    cache.saveCachedOnlineUsers({user(1, "NORMAL")});
    cache.addUsersToCachedUsersIfNeeded({user(10, "NORMAL"), user(11, "NORMAL")});
    EXPECT_EQ(labelsOf(cache.normalUsers()), (Labels{10, 11, 1}));
}

// --- A full load -------------------------------------------------------------------------------

TEST(UserCache, AServerAnswerReplacesTheCacheInItsOwnOrder) {
    TVKChatUserCache cache;
    EXPECT_TRUE(cache.shouldUpdateOnlineUsers());
    cache.addUserToCachedUsersIfNeeded(user(50, "NORMAL"));

    cache.saveCachedOnlineUsers({user(1, "MASTER"), user(2, "NORMAL"), user(3, "GLOBAL_MANAGER"),
                                 user(4, "MODERATOR"), user(5, "BLOCKED"), guest(6),
                                 user(7, "ADMIN"), guest(8, "MASTER"), user(9, "LOCAL_MANAGER")});

    EXPECT_FALSE(cache.shouldUpdateOnlineUsers());
    // Managers keep the answer's order (no re-sorting); blocked, unknown and a guest with a
    // privileged role are left out; the earlier content is gone.
    EXPECT_EQ(labelsOf(cache.managers()), (Labels{1, 3, 9}));
    EXPECT_EQ(labelsOf(cache.moderators()), (Labels{4}));
    EXPECT_EQ(labelsOf(cache.normalUsers()), (Labels{2, 6}));
    EXPECT_EQ(labelsOf(cache.allCachedUsers()), (Labels{1, 3, 9, 4, 2, 6}));
}

TEST(UserCache, ALargeAnswerIsCachedWholeAndHandedOutCut) {
    TVKChatUserCache cache;
    const auto answer = sequence(1, 300, "NORMAL");
    cache.saveCachedOnlineUsers(answer);
    EXPECT_EQ(cache.allCachedUsers().size(), 300u);
    EXPECT_TRUE(cache.isCachedUserReachedLimit());

    const auto handedOut = TVKChatUserCache::getUsersUnderMaxNumberLimit(cache.allCachedUsers());
    ASSERT_EQ(handedOut.size(), maximumUserListCount);
    EXPECT_EQ(handedOut.front()->label(), 1);
    EXPECT_EQ(handedOut.back()->label(), 200);
    EXPECT_EQ(TVKChatUserCache::getUsersUnderMaxNumberLimit(sequence(1, 5, "NORMAL")).size(), 5u);
}

// --- Eviction ----------------------------------------------------------------------------------

struct Eviction {
    const char* name;
    Users cached;
    std::shared_ptr<TVKChatUser> join;
    std::size_t expectedSize;
    Labels evicted;  // labels gone afterwards
    Labels kept;     // labels still there
};

class UserCacheEviction : public ::testing::TestWithParam<Eviction> {};

TEST_P(UserCacheEviction, EvictsAtMostOneUserPerJoin) {
    const auto& eviction = GetParam();
    TVKChatUserCache cache;
    cache.saveCachedOnlineUsers(eviction.cached);
    cache.addUserToCachedUsersIfNeeded(eviction.join);
    EXPECT_EQ(cache.allCachedUsers().size(), eviction.expectedSize);
    for (auto label : eviction.evicted) EXPECT_FALSE(cache.findCachedUserByLabel(label)) << label;
    for (auto label : eviction.kept) EXPECT_TRUE(cache.findCachedUserByLabel(label)) << label;
}

INSTANTIATE_TEST_SUITE_P(
    Limits, UserCacheEviction,
    ::testing::Values(
        Eviction{"BelowTheLimitNothingIsEvicted",
                 concat({sequence(1000, 19, "MODERATOR"), sequence(1, 200, "NORMAL")}),
                 user(9999, "NORMAL"),
                 220,
                 {},
                 {1, 200, 1000, 9999}},
        Eviction{"TheLastNormalUserGoesFirst",
                 concat({sequence(1000, 20, "MODERATOR"), sequence(1, 200, "NORMAL")}),
                 user(9999, "NORMAL"),
                 220,
                 {200},
                 {1, 199, 1019, 9999}},
        Eviction{"ThenTheLastModerator",
                 concat({sequence(2000, 20, "MASTER"), sequence(1000, 200, "MODERATOR")}),
                 user(9999, "NORMAL"),
                 220,
                 {1199},
                 {1198, 2019, 9999}},
        Eviction{"ThenTheLastManager",
                 sequence(2000, 220, "GLOBAL_MANAGER"),
                 user(9999, "MODERATOR"),
                 220,
                 {2219},
                 {2000, 9999}},
        // Kept deliberately: a full load may exceed the limit, and a join only swaps one user.
        Eviction{"AnOverfullCacheStaysOverfull",
                 sequence(1, 300, "NORMAL"),
                 user(9999, "NORMAL"),
                 300,
                 {300},
                 {299, 9999}},
        Eviction{"ARefusedUserEvictsNobody",
                 sequence(1, 220, "NORMAL"),
                 user(9999, "BLOCKED"),
                 220,
                 {9999},
                 {220}}),
    [](const auto& info) { return std::string(info.param.name); });

TEST(UserCache, AFullCacheEvictsAndInsertsTheMemberAtTheFront) {
    TVKChatUserCache cache;
    cache.saveCachedOnlineUsers(sequence(1, 220, "NORMAL"));
    cache.addUserToCachedUsersIfNeeded(user(9999, "NORMAL"));
    EXPECT_EQ(cache.normalUsers().front()->label(), 9999);
    EXPECT_EQ(cache.normalUsers().back()->label(), 219);
}

// --- Updates and leaves ------------------------------------------------------------------------

TEST(UserCache, AnUpdatePlacesACachedUserAfreshByItsNewRole) {
    TVKChatUserCache cache;
    cache.saveCachedOnlineUsers(
        {user(1, "MODERATOR"), user(2, "MODERATOR"), user(3, "NORMAL"), guest(4)});

    cache.updateCachedUsers({user(2, "NORMAL"), user(77, "MASTER")});
    EXPECT_EQ(labelsOf(cache.moderators()), (Labels{1}));
    EXPECT_EQ(labelsOf(cache.normalUsers()), (Labels{2, 3, 4}));
    EXPECT_FALSE(cache.findCachedUserByLabel(77));  // an update never brings a user in

    cache.updateCachedUsers({user(3, "BLOCKED")});
    EXPECT_EQ(labelsOf(cache.normalUsers()), (Labels{2, 4}));
    // The cached object is the updated record.
    EXPECT_EQ(cache.findCachedUserByLabel(2)->role(), "NORMAL");
}

TEST(UserCache, LeavesShrinkTheCacheOnlyBelowTheLargeChatroomThreshold) {
    struct Case {
        std::int64_t userCount;
        bool removed;
    };
    for (auto [userCount, removed] : {Case{1, true}, Case{aLotOfUsersThreshold, true},
                                      Case{aLotOfUsersThreshold + 1, false}, Case{5000, false}}) {
        TVKChatUserCache cache;
        cache.saveCachedOnlineUsers({user(1, "NORMAL"), user(2, "MODERATOR"), user(3, "MASTER")});
        cache.removeUsersFromCachedUsersIfNeeded({2, 3, 42}, userCount);
        EXPECT_EQ(cache.allCachedUsers().size(), removed ? 1u : 3u) << userCount;
    }
}

TEST(UserCache, ADisconnectionEmptiesTheCacheUnlessTheChatroomIsLarge) {
    struct Case {
        std::int64_t userCount;
        bool forced;
        bool cleared;
    };
    for (auto [userCount, forced, cleared] :
         {Case{3, false, true}, Case{4000, false, true}, Case{4001, false, false},
          Case{5000, false, false}, Case{5000, true, true}}) {
        TVKChatUserCache cache;
        cache.saveCachedOnlineUsers({user(1, "NORMAL")});
        cache.setForceClearCachedUser(forced);
        cache.clearUserListCachedIfNeeded(userCount);
        EXPECT_EQ(cache.allCachedUsers().empty(), cleared) << userCount << forced;
        EXPECT_EQ(cache.shouldUpdateOnlineUsers(), cleared) << userCount << forced;
        // An explicit disconnection is used up by the one it forced.
        EXPECT_EQ(cache.forceClearCachedUser(), forced && !cleared) << userCount << forced;
    }
}

TEST(UserCache, UsersAreFoundByLabelInCacheOrder) {
    TVKChatUserCache cache;
    auto master = user(5, "MASTER");
    cache.saveCachedOnlineUsers({user(1, "NORMAL"), master});
    EXPECT_EQ(cache.findCachedUserByLabel(5), master);
    EXPECT_EQ(cache.findCachedUserByLabel(6), nullptr);
    cache.removeUserFromCachedUsersByLabel(5);
    EXPECT_EQ(labelsOf(cache.allCachedUsers()), (Labels{1}));
    cache.removeUserFromCachedUsersByLabel(5);  // absent: nothing happens
    EXPECT_EQ(cache.allCachedUsers().size(), 1u);
}

// --- Queries by user type ----------------------------------------------------------------------

TEST(UserCache, UserTypesNameRolesStatusesAndWhereTheAnswerComesFrom) {
    using Strings = std::vector<std::string>;
    struct Case {
        TVKChatUserType type;
        Strings roles;
        Strings statuses;
        bool askServiceWhileStale;
        bool askServiceWhenFresh;
        bool cachedAnswer;
    };
    const Strings allStatuses{"ACTIVE", "DELETED", "PREACTIVE"};
    for (const auto& c : {
             Case{TVKChatUserTypeOnline,
                  {"GLOBAL_MANAGER", "LOCAL_MANAGER", "MASTER", "MODERATOR", "NORMAL"},
                  {"ACTIVE"},
                  true,
                  false,
                  true},
             Case{TVKChatUserTypeBlocked, {"BLOCKED"}, allStatuses, true, true, false},
             Case{TVKChatUserTypeSupervisor,
                  {"GLOBAL_MANAGER", "LOCAL_MANAGER", "MASTER", "MODERATOR"},
                  allStatuses,
                  true,
                  true,
                  false},
             Case{static_cast<TVKChatUserType>(7), {}, {"ACTIVE"}, false, false, false},
         }) {
        TVKChatUserCache cache;
        EXPECT_EQ(TVKChatUserCache::rolesForUserType(c.type), c.roles) << static_cast<int>(c.type);
        EXPECT_EQ(TVKChatUserCache::statusesForUserType(c.type), c.statuses) << static_cast<int>(c.type);
        EXPECT_EQ(cache.shouldUpdateUsersByUserType(c.type), c.askServiceWhileStale) << static_cast<int>(c.type);
        cache.saveCachedOnlineUsers({user(1, "NORMAL")});
        EXPECT_EQ(cache.shouldUpdateUsersByUserType(c.type), c.askServiceWhenFresh) << static_cast<int>(c.type);
        EXPECT_EQ(cache.getCachedUsersByUserType(c.type).has_value(), c.cachedAnswer) << static_cast<int>(c.type);
    }
}

}  // namespace
}  // namespace tavlo
