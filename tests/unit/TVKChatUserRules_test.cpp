#include <gtest/gtest.h>

#include <boost/json.hpp>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "TavloMessagingSDK/Internal/TVKMessagingError.hpp"
#include "TavloMessagingSDK/Internal/TVKMessagingHTTPClient.hpp"
#include "TavloMessagingSDK/TVKChatUser.hpp"

namespace tavlo {
namespace {

constexpr const char* kHost = "http://127.0.0.1:9";

std::string describe(const std::optional<TVKError>& error) {
    return error ? error->domain + "(" + std::to_string(error->code) + ")" : "allowed";
}

// --- Users in every state ---------------------------------------------------------------------

enum class Kind { Guest, Member };

std::shared_ptr<TVKChatUser> currentUser(Kind kind, bool bound, std::optional<std::string> role) {
    auto user = TVKChatUser::userWithJWT(kind == Kind::Guest ? "" : "member.jwt", kHost);
    if (bound) {
        user->updateChatId("chat-1", "user-token", 7, std::move(role));
    } else {
        user->updateRole(std::move(role));
    }
    return user;
}

// --- The rules, by the right each one asks for ---------------------------------------------------

enum class Right {
    Join,         // only an unbound user
    Bound,        // every bound user
    GuestRename,  // a bound guest
    SetRoles,     // a bound master or manager who is not a guest
    Moderate,     // a bound moderator, master or manager who is not a guest
};

struct Rule {
    const char* name;
    Right right;
    std::function<std::optional<TVKError>(const TVKChatUser&)> ask;
};

const std::vector<Rule>& rules() {
    static const std::vector<Rule> table = {
        {"join", Right::Join, [](const TVKChatUser& u) { return u.notAllowedErrorForJoinChat(); }},
        {"leave", Right::Bound,
         [](const TVKChatUser& u) { return u.notAllowedErrorForLeaveChat(); }},
        {"send", Right::Bound,
         [](const TVKChatUser& u) { return u.notAllowedErrorForSendMessage(); }},
        {"loadUserData", Right::Bound,
         [](const TVKChatUser& u) { return u.notAllowedErrorForLoadUserData(); }},
        {"guestNickname", Right::GuestRename,
         [](const TVKChatUser& u) { return u.notAllowedErrorForUpdateGuestNickname("Ann"); }},
        {"userRole", Right::SetRoles,
         [](const TVKChatUser& u) { return u.notAllowedErrorForUpdateUserRole("MODERATOR"); }},
        {"blockOrRivive", Right::Moderate,
         [](const TVKChatUser& u) { return u.notAllowedErrorForBlockOrRiviveUsers(); }},
        {"removeMessage", Right::Moderate,
         [](const TVKChatUser& u) { return u.notAllowedErrorForRemoveMessage(); }},
        {"pin", Right::Moderate,
         [](const TVKChatUser& u) { return u.notAllowedErrorForPinMessage(); }},
        {"unpin", Right::Moderate,
         [](const TVKChatUser& u) { return u.notAllowedErrorForUnpinMessage(); }},
        {"metadata", Right::Moderate,
         [](const TVKChatUser& u) { return u.notAllowedErrorForSettingMetadata(); }},
    };
    return table;
}

// What a logged-in member holding each role may do once bound. A guest holding the same role
// may do neither, whatever the role.
struct RoleRights {
    std::optional<std::string> role;
    unsigned accessLevel;
    bool moderates;
    bool setsRoles;
};

const std::vector<RoleRights>& roleTable() {
    static const std::vector<RoleRights> table = {
        {"MASTER", 6, true, true},        {"GLOBAL_MANAGER", 5, true, true},
        {"LOCAL_MANAGER", 4, true, true}, {"MODERATOR", 3, true, false},
        {"NORMAL", 2, false, false},      {"BLOCKED", 1, false, false},
        {"moderator", 0, false, false},   {"", 0, false, false},
        {std::nullopt, 0, false, false},
    };
    return table;
}

std::optional<TVKError> expectedAnswer(const Rule& rule, const RoleRights& rights, Kind kind,
                                       bool bound) {
    if (rule.right == Right::Join) {
        return bound ? std::optional(TVKUserBoundWithChatError()) : std::nullopt;
    }
    if (!bound) return TVKUserNotBoundWithChatError();
    const bool member = kind == Kind::Member;
    switch (rule.right) {
        case Right::GuestRename:
            return member ? std::optional(TVKUpdateMemberNicknameError()) : std::nullopt;
        case Right::SetRoles:
            return member && rights.setsRoles ? std::nullopt
                                              : std::optional(TVKUserNoPermissionError());
        case Right::Moderate:
            return member && rights.moderates ? std::nullopt
                                              : std::optional(TVKUserNoPermissionError());
        default:
            return std::nullopt;
    }
}

TEST(TVKChatUserRules, EveryRuleForEveryRoleKindAndBinding) {
    for (const auto& rights : roleTable()) {
        for (Kind kind : {Kind::Guest, Kind::Member}) {
            for (bool bound : {false, true}) {
                const auto user = currentUser(kind, bound, rights.role);
                for (const auto& rule : rules()) {
                    SCOPED_TRACE(std::string(rule.name) +
                                 " role=" + rights.role.value_or("<none>") +
                                 (kind == Kind::Guest ? " guest" : " member") +
                                 (bound ? " bound" : " unbound"));
                    EXPECT_EQ(describe(rule.ask(*user)),
                              describe(expectedAnswer(rule, rights, kind, bound)));
                }
            }
        }
    }
}

TEST(TVKChatUserRules, AUserThatCannotActIsRefusedFirstWhateverItsState) {
    auto withoutHost = TVKChatUser::userWithJWT("member.jwt", std::nullopt);
    withoutHost->updateChatId("chat-1", "user-token", 7, "MASTER");
    auto member = DQDataObject::withJSON<TVKChatUser>(
        boost::json::parse(R"({"label": 3, "role": "MASTER", "userId": "u3"})"));
    member->updateChatId("chat-1", "user-token", 3, "MASTER");
    for (const auto& user : {withoutHost, member}) {
        ASSERT_TRUE(user->isBoundWithChat());
        for (const auto& rule : rules()) {
            SCOPED_TRACE(rule.name);
            EXPECT_EQ(describe(rule.ask(*user)), describe(TVKNotManipulableUserError()));
        }
    }
}

TEST(TVKChatUserRules, AMemberKnownByItsAccountIdIsNoGuestEvenWithAnEmptyJWT) {
    auto user = currentUser(Kind::Guest, true, "MODERATOR");
    EXPECT_EQ(user->notAllowedErrorForPinMessage(), TVKUserNoPermissionError());
    auto record = DQDataObject::withJSON<DQChatUser>(
        boost::json::parse(R"({"label": 7, "role": "MODERATOR", "userId": "acct-7"})"));
    user->setInternalData(record);
    EXPECT_FALSE(user->isGuest());
    EXPECT_EQ(user->notAllowedErrorForPinMessage(), std::nullopt);
    EXPECT_EQ(user->notAllowedErrorForUpdateGuestNickname("Ann"), TVKUpdateMemberNicknameError());
}

TEST(TVKChatUserRules, GuestNicknameLengthCountsUTF16Units) {
    const std::string emoji = "\xF0\x9F\x98\x80";  // one character, two UTF-16 units
    auto repeat = [](const std::string& piece, int times) {
        std::string text;
        for (int i = 0; i < times; ++i) text += piece;
        return text;
    };
    struct Case {
        std::optional<std::string> nickname;
        bool allowed;
    };
    const std::vector<Case> cases = {
        {std::nullopt, false},
        {"", false},
        {"a", true},
        {repeat("a", 20), true},
        {repeat("a", 21), false},
        {repeat(emoji, 10), true},
        {repeat(emoji, 10) + "a", false},
        {repeat("\xC3\xA9", 20), true},
    };
    const auto guest = currentUser(Kind::Guest, true, "NORMAL");
    const auto member = currentUser(Kind::Member, true, "NORMAL");
    for (const auto& c : cases) {
        SCOPED_TRACE(c.nickname.value_or("<unset>"));
        EXPECT_EQ(describe(guest->notAllowedErrorForUpdateGuestNickname(c.nickname)),
                  describe(c.allowed ? std::nullopt : std::optional(TVKNicknameLengthError())));
        EXPECT_EQ(member->notAllowedErrorForUpdateGuestNickname(c.nickname),
                  TVKUpdateMemberNicknameError());
    }
}

TEST(TVKChatUserRules, OnlyModeratorAndNormalMayBeGivenAndOnlyByManagers) {
    struct Case {
        std::optional<std::string> target;
        bool allowed;
    };
    const std::vector<Case> targets = {
        {"MODERATOR", true},       {"NORMAL", true},         {"MASTER", false},
        {"GLOBAL_MANAGER", false}, {"LOCAL_MANAGER", false}, {"BLOCKED", false},
        {"moderator", false},      {"NORMAL ", false},       {"", false},
        {std::nullopt, false},
    };
    for (const char* actor : {"MASTER", "GLOBAL_MANAGER", "LOCAL_MANAGER"}) {
        const auto user = currentUser(Kind::Member, true, actor);
        for (const auto& c : targets) {
            SCOPED_TRACE(std::string(actor) + " -> " + c.target.value_or("<unset>"));
            EXPECT_EQ(describe(user->notAllowedErrorForUpdateUserRole(c.target)),
                      describe(c.allowed ? std::nullopt : std::optional(TVKUpdateUserRoleError())));
        }
    }
    // The actor's right is judged before the target role.
    const auto moderator = currentUser(Kind::Member, true, "MODERATOR");
    EXPECT_EQ(moderator->notAllowedErrorForUpdateUserRole("MASTER"), TVKUserNoPermissionError());
    EXPECT_EQ(moderator->notAllowedErrorForUpdateUserRole("NORMAL"), TVKUserNoPermissionError());
}

TEST(TVKChatUserRules, ARoleChangeTakesEffectOnTheNextCheck) {
    auto user = currentUser(Kind::Member, true, "NORMAL");
    EXPECT_EQ(user->notAllowedErrorForRemoveMessage(), TVKUserNoPermissionError());
    user->updateRole("MODERATOR");
    EXPECT_EQ(user->notAllowedErrorForRemoveMessage(), std::nullopt);
    user->updateRole(std::nullopt);
    EXPECT_EQ(user->accessLevel(), 0u);
    EXPECT_EQ(user->notAllowedErrorForRemoveMessage(), TVKUserNoPermissionError());
}

// --- Roles and predicates --------------------------------------------------------------------

TEST(TVKChatUserRoles, AccessLevelsAndThePrivilegedPredicatesExcludeGuests) {
    for (const auto& rights : roleTable()) {
        for (Kind kind : {Kind::Guest, Kind::Member}) {
            SCOPED_TRACE(rights.role.value_or("<none>") +
                         (kind == Kind::Guest ? " guest" : " member"));
            const auto user = currentUser(kind, false, rights.role);
            const bool member = kind == Kind::Member;
            const unsigned level = rights.accessLevel;
            EXPECT_EQ(user->accessLevel(), level);
            EXPECT_EQ(user->isMaster(), member && level == 6);
            EXPECT_EQ(user->isGlobalManager(), member && level == 5);
            EXPECT_EQ(user->isLocalManager(), member && level == 4);
            EXPECT_EQ(user->isModerator(), member && level == 3);
            // Deliberately blind to guests: these two read the role alone.
            EXPECT_EQ(user->isNormal(), level == 2);
            EXPECT_EQ(user->isBlocked(), level == 1);
        }
    }
}

TEST(TVKChatUserRoles, GuestHoodFollowsTheJWTAndTheAccountId) {
    EXPECT_TRUE(TVKChatUser::userWithJWT("", kHost)->isGuest());
    EXPECT_FALSE(TVKChatUser::userWithJWT("x", kHost)->isGuest());
    auto record = DQDataObject::withJSON<TVKChatUser>(boost::json::parse(R"({"label": 1})"));
    EXPECT_TRUE(record->isGuest());
    record = DQDataObject::withJSON<TVKChatUser>(boost::json::parse(R"({"userId": "a"})"));
    EXPECT_FALSE(record->isGuest());
}

// --- Creation, binding and the HTTP client ------------------------------------------------------

TEST(TVKChatUser, CreationNeedsAJWTButAnEmptyOneMakesAGuest) {
    EXPECT_EQ(TVKChatUser::userWithJWT(std::nullopt, kHost), nullptr);

    auto guest = TVKChatUser::userWithJWT("", kHost);
    ASSERT_NE(guest, nullptr);
    EXPECT_TRUE(guest->isManipulable());
    EXPECT_FALSE(guest->isBoundWithChat());
    EXPECT_EQ(guest->defaultNickname(), "Guest");
    EXPECT_EQ(guest->accessLevel(), 0u);
    EXPECT_NE(guest->internalData(), nullptr);
    EXPECT_FALSE(guest->label().has_value());

    auto member = DQDataObject::withJSON<TVKChatUser>(boost::json::parse(R"({"label": 9})"));
    EXPECT_FALSE(member->isManipulable());
    EXPECT_EQ(member->defaultNickname(), "");
    EXPECT_EQ(member->HTTPClient(), nullptr);
    EXPECT_FALSE(member->JWT().has_value());
}

TEST(TVKChatUser, AUserWithoutHostHasNoClient) {
    auto user = TVKChatUser::userWithJWT("jwt", std::nullopt);
    ASSERT_NE(user, nullptr);
    EXPECT_FALSE(user->isManipulable());
    EXPECT_EQ(user->HTTPClient(), nullptr);
}

TEST(TVKChatUser, TheClientIsMadeOnceWithTheJWTOfThatMoment) {
    auto user = TVKChatUser::userWithJWT("first.jwt", kHost);
    auto client = user->HTTPClient();
    ASSERT_NE(client, nullptr);
    EXPECT_EQ(user->HTTPClient(), client);
    EXPECT_EQ(client->JWT(), "first.jwt");
    EXPECT_EQ(client->HTTPManager()->baseURL(), kHost);
    user->setJWT("second.jwt");
    EXPECT_EQ(user->HTTPClient()->JWT(), "first.jwt");

    auto guest = TVKChatUser::userWithJWT("", kHost);
    EXPECT_EQ(guest->HTTPClient()->JWT(), "");
}

TEST(TVKChatUser, BindingSetsAndClearsTheFourValues) {
    auto user = TVKChatUser::userWithJWT("jwt", kHost);
    user->updateChatId("chat", "token", 5, "NORMAL");
    EXPECT_TRUE(user->isBoundWithChat());
    EXPECT_EQ(user->chatId(), "chat");
    EXPECT_EQ(user->userToken(), "token");
    EXPECT_EQ(user->label(), 5);
    EXPECT_EQ(user->role(), "NORMAL");

    // Any one of label, chat id and user token missing unbinds.
    user->updateChatId("chat", "token", std::nullopt, "NORMAL");
    EXPECT_FALSE(user->isBoundWithChat());
    user->updateChatId(std::nullopt, "token", 5, "NORMAL");
    EXPECT_FALSE(user->isBoundWithChat());
    user->updateChatId("chat", std::nullopt, 5, "NORMAL");
    EXPECT_FALSE(user->isBoundWithChat());
    user->updateChatId(std::nullopt, std::nullopt, std::nullopt, std::nullopt);
    EXPECT_FALSE(user->role().has_value());

    user->setInternalData(nullptr);
    EXPECT_NE(user->internalData(), nullptr);
}

TEST(TVKChatUser, IdentityIsTheLabelAlone) {
    auto parse = [](const char* json) {
        return DQDataObject::withJSON<TVKChatUser>(boost::json::parse(json));
    };
    auto a = parse(R"({"label": 42, "name": "A", "role": "MASTER"})");
    auto b = parse(R"({"label": "42", "name": "B"})");
    auto c = parse(R"({"label": 43, "name": "A"})");
    auto none = parse(R"({"name": "A"})");
    EXPECT_TRUE(*a == *b);
    EXPECT_EQ(a->hash(), b->hash());
    EXPECT_EQ(std::hash<TVKChatUser>{}(*a), std::hash<TVKChatUser>{}(*b));
    EXPECT_FALSE(*a == *c);
    // Without a label a user equals no one, itself included (kept deliberately).
    EXPECT_FALSE(*none == *none);
    EXPECT_FALSE(*a == *none);
    EXPECT_FALSE(*none == *a);
    // A current user becomes comparable once the join gives it a label.
    auto current = TVKChatUser::userWithJWT("jwt", kHost);
    EXPECT_FALSE(*current == *a);
    current->updateChatId("chat", "token", 42, "NORMAL");
    EXPECT_TRUE(*current == *a);
}

}  // namespace
}  // namespace tavlo
