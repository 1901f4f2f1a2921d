#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <mutex>
#include <thread>

#include "Dispatch/SerialQueue.hpp"
#include "TavloCoreSDK/TVKSDKAuthManager.hpp"
#include "TavloMessagingSDK/Internal/TVKMessagingError.hpp"
#include "TavloMessagingSDK/Internal/TVKMessagingHTTPClient.hpp"
#include "TavloMessagingSDK/Internal/TVKMessagingSocketConfig.hpp"
#include "TavloMessagingSDK/TVKChatMessage.hpp"
#include "TavloMessagingSDK/TVKChatUser.hpp"
#include "tests/support/Await.hpp"
#include "tests/support/Emulator.hpp"

namespace tavlo {
namespace {

namespace json = boost::json;
using namespace std::chrono_literals;
using Users = std::vector<std::shared_ptr<TVKChatUser>>;

using test::text;

using test::await;
using test::describe;
using test::Outcome;
using test::awaitDone;

class ChatUserOperations : public test::EmulatorTest {
  protected:
    void SetUp() override {
        EmulatorTest::SetUp();
        lobbyId = text(emulator().control("GET", "info").at("lobby").at("id"));
        refreshMemberTokensThroughEmulator([this] { ++memberTokenRefreshes; });
    }


    std::shared_ptr<TVKChatUser> userWithJWT(const std::string& jwt) {
        return TVKChatUser::userWithJWT(jwt, emulator().url());
    }

    /// A user joined to the lobby (a guest for an empty member id).
    std::shared_ptr<TVKChatUser> joinedUser(const std::string& memberId) {
        auto user = userWithJWT(memberId.empty() ? "" : jwtOf(memberId));
        auto outcome = join(user);
        EXPECT_TRUE(outcome.succeeded) << describe(outcome);
        return user;
    }

    Outcome join(const std::shared_ptr<TVKChatUser>& user) {
        return await([&](auto succeed, auto fail) {
            user->joinChat(
                lobbyId,
                [succeed](const std::string& userToken,
                          std::shared_ptr<TVKMessagingSocketConfig> config) {
                    json::object delivered{{"userToken", userToken}};
                    if (config) delivered["host"] = config->host().value_or("");
                    if (config) delivered["path"] = config->path().value_or("");
                    if (config && config->query().count("chatId")) {
                        delivered["chatId"] = config->query().at("chatId");
                    }
                    succeed(delivered);
                },
                fail);
        });
    }

    /// The lobby's seeded user with this name, as a member record.
    std::shared_ptr<TVKChatUser> lobbyUser(const std::string& name) {
        const auto answer = emulator().control("GET", "chatrooms/lobby/users");
        for (const auto& user : answer.at("users").as_array()) {
            if (user.at("name") == name.c_str()) return DQDataObject::withJSON<TVKChatUser>(user);
        }
        ADD_FAILURE() << "no lobby user " << name;
        return nullptr;
    }

    /// The one request sent to `pathPrefix` since the log was cleared.
    json::object onlyRequest(const std::string& pathPrefix) {
        auto requests = emulator().requests(pathPrefix);
        EXPECT_EQ(requests.size(), 1u) << pathPrefix;
        return requests.empty() ? json::object() : requests.back().as_object();
    }

    std::string lobbyId;
    std::atomic<int> memberTokenRefreshes{0};
};

std::string labelText(const std::shared_ptr<TVKChatUser>& user) {
    return std::to_string(user->label().value_or(-1));
}

// --- Joining -----------------------------------------------------------------------------------

TEST_F(ChatUserOperations, AGuestJoinsWithItsDefaultNicknameAndIsBound) {
    auto guest = userWithJWT("");
    auto outcome = join(guest);
    ASSERT_TRUE(outcome.succeeded) << describe(outcome);

    EXPECT_TRUE(guest->isBoundWithChat());
    EXPECT_EQ(guest->chatId(), lobbyId);
    EXPECT_EQ(guest->userToken(), text(outcome.value.at("userToken")));
    EXPECT_TRUE(guest->label().has_value());
    EXPECT_EQ(guest->role(), "NORMAL");
    EXPECT_EQ(outcome.value.at("host"), emulator().url().c_str());
    EXPECT_EQ(outcome.value.at("path"), "/socket.io");
    EXPECT_EQ(outcome.value.at("chatId"), lobbyId.c_str());

    // The first attempt found no API token and never left the client; the resend carried one.
    auto requests = emulator().requests();
    ASSERT_EQ(requests.size(), 2u);
    EXPECT_EQ(requests[0].at("path"), "/api-tokens");
    const auto& body = requests[1].at("body");
    EXPECT_EQ(body.at("chatId"), lobbyId.c_str());
    EXPECT_EQ(body.at("newSocket"), true);
    EXPECT_EQ(body.at("targetUsers"), json::parse(R"([{"name": "Guest"}])"));

    auto renamed = userWithJWT("");
    renamed->setDefaultNickname("Visitor");
    ASSERT_TRUE(join(renamed).succeeded);
    EXPECT_EQ(emulator().requests("/add-users-to-chat/").back().at("body").at("targetUsers"),
              json::parse(R"([{"name": "Visitor"}])"));
}

TEST_F(ChatUserOperations, AMemberJoinsByItsJWT) {
    const auto jwt = jwtOf("alice");
    auto alice = userWithJWT(jwt);
    ASSERT_TRUE(join(alice).succeeded);
    EXPECT_TRUE(alice->isBoundWithChat());
    EXPECT_EQ(alice->role(), "MODERATOR");
    EXPECT_FALSE(alice->isGuest());

    auto request = onlyRequest("/add-users-to-chat/");
    EXPECT_FALSE(request.at("body").as_object().contains("targetUsers"));
    EXPECT_EQ(request.at("headers").at("authorization"), ("Bearer " + jwt).c_str());
}

TEST_F(ChatUserOperations, ABoundUserCannotJoinAgainAndSendsNothing) {
    auto alice = joinedUser("alice");
    emulator().clearRequests();
    std::optional<TVKError> refusal;
    alice->joinChat(
        lobbyId, [](auto&&...) { ADD_FAILURE() << "joined twice"; },
        [&](const TVKError& error) { refusal = error; });
    ASSERT_TRUE(refusal.has_value());  // reported before the call returned
    EXPECT_TRUE(isTVKUserBoundWithChatError(*refusal));
    std::this_thread::sleep_for(100ms);
    EXPECT_TRUE(emulator().requests().empty());
}

TEST_F(ChatUserOperations, AJoinAnswerWithoutAUsableTokenLeavesTheUserUnbound) {
    const auto socket =
        json::object{{"host", emulator().url()}, {"path", "/socket.io"}, {"query", "a=1"}};
    emulator().control(
        "POST", "faults",
        json::object{
            {"pathPrefix", "/add-users-to-chat/"},
            {"status", 200},
            {"count", 2},
            {"body",
             json::object{{"userMetas", json::array{json::object{
                                            {"userToken", 5}, {"label", 1}, {"role", "NORMAL"}}}},
                          {"socket", socket}}}});
    auto guest = userWithJWT("");
    auto outcome = join(guest);
    ASSERT_TRUE(outcome.error.has_value());
    EXPECT_EQ(*outcome.error, TVKHTTPDataMissingError());
    EXPECT_FALSE(guest->isBoundWithChat());
    EXPECT_FALSE(guest->userToken().has_value());

    // A label sent as decimal text still binds.
    emulator().control("DELETE", "faults");
    emulator().control(
        "POST", "faults",
        json::object{
            {"pathPrefix", "/add-users-to-chat/"},
            {"status", 200},
            {"body", json::object{{"userMetas", json::array{json::object{{"userToken", "t-1"},
                                                                         {"label", "12"},
                                                                         {"role", "NORMAL"}}}},
                                  {"socket", socket}}}});
    outcome = join(guest);
    ASSERT_TRUE(outcome.succeeded) << describe(outcome);
    EXPECT_EQ(guest->label(), 12);
    EXPECT_EQ(guest->userToken(), "t-1");
}

// --- Each operation sends what it should
// ----------------------------------------------------------

TEST_F(ChatUserOperations, AMasterModeratesTheLobby) {
    auto carol = joinedUser("carol");
    ASSERT_EQ(carol->role(), "MASTER");
    const auto chatId = lobbyId;
    const auto token = *carol->userToken();
    auto expectChatAndToken = [&](const json::value& parameters) {
        EXPECT_EQ(parameters.at("chatId"), chatId.c_str());
        EXPECT_EQ(parameters.at("userToken"), token.c_str());
    };
    emulator().clearRequests();

    auto sent = await([&](auto succeed, auto fail) {
        carol->sendMessage(
            "hello", TVKChatMessageTypeNormalText,
            [succeed](const json::value& id) { succeed(id); }, fail);
    });
    ASSERT_TRUE(sent.succeeded) << describe(sent);
    ASSERT_TRUE(sent.value.is_string());
    const auto messageId = text(sent.value);
    auto request = onlyRequest("/add-user-message-to-chat/");
    EXPECT_EQ(request.at("method"), "POST");
    expectChatAndToken(request.at("body"));
    EXPECT_EQ(request.at("body").at("msgType"), "text");
    EXPECT_EQ(request.at("body").at("sourceType"), "IOS");
    EXPECT_EQ(request.at("body").at("text"), "hello");
    EXPECT_FALSE(request.at("body").as_object().contains("value"));

    emulator().clearRequests();
    const auto payload = json::parse(R"({"score": [1, 2], "who": "carol"})");
    ASSERT_TRUE(await([&](auto succeed, auto fail) {
                    carol->sendMessage(
                        payload, TVKChatMessageTypeRawData,
                        [succeed](const json::value& id) { succeed(id); }, fail);
                }).succeeded);
    request = onlyRequest("/add-user-message-to-chat/");
    EXPECT_EQ(request.at("body").at("value"), payload);
    EXPECT_FALSE(request.at("body").as_object().contains("text"));

    emulator().clearRequests();
    ASSERT_TRUE(awaitDone([&](auto done, auto fail) {
                    carol->pinMessage(messageId, done, fail);
                }).succeeded);
    request = onlyRequest("/pinned-msg/");
    EXPECT_EQ(request.at("method"), "POST");
    expectChatAndToken(request.at("body"));
    EXPECT_EQ(request.at("body").at("messageId"), messageId.c_str());

    emulator().clearRequests();
    ASSERT_TRUE(awaitDone([&](auto done, auto fail) {
                    carol->unpinMessageWithSuccess(done, fail);
                }).succeeded);
    request = onlyRequest("/pinned-msg/");
    EXPECT_EQ(request.at("method"), "DELETE");
    expectChatAndToken(request.at("query"));

    emulator().clearRequests();
    ASSERT_TRUE(awaitDone([&](auto done, auto fail) {
                    carol->removeMessage(messageId, done, fail);
                }).succeeded);
    request = onlyRequest("/remove-message-from-chat/");
    EXPECT_EQ(request.at("method"), "DELETE");
    expectChatAndToken(request.at("query"));
    EXPECT_EQ(request.at("query").at("messageId"), messageId.c_str());

    emulator().clearRequests();
    const auto value = json::parse(R"({"dark": true})");
    ASSERT_TRUE(awaitDone([&](auto done, auto fail) {
                    carol->setMetadataValue(value, "theme", true, done, fail);
                }).succeeded);
    request = onlyRequest("/chat-meta/");
    EXPECT_EQ(request.at("method"), "POST");
    expectChatAndToken(request.at("body"));
    EXPECT_EQ(request.at("body").at("key"), "theme");
    EXPECT_EQ(request.at("body").at("value"), value);
    EXPECT_EQ(request.at("body").at("broadcast"), true);
}

TEST_F(ChatUserOperations, RolesBlockingAndRevivalAddressUsersByLabelInOrder) {
    auto carol = joinedUser("carol");
    auto xavier = lobbyUser("Xavier");
    auto yuki = lobbyUser("Yuki");
    auto guest = lobbyUser("Guest");
    ASSERT_TRUE(xavier && yuki && guest);
    emulator().clearRequests();

    ASSERT_TRUE(awaitDone([&](auto done, auto fail) {
                    carol->updateUserRole(kTVKUserRoleModerator, xavier, done, fail);
                }).succeeded);
    auto request = onlyRequest("/update-users-in-chat/");
    EXPECT_EQ(request.at("method"), "PUT");
    EXPECT_EQ(request.at("body").at("chatId"), lobbyId.c_str());
    EXPECT_EQ(request.at("body").at("targetUsers"),
              (json::array{json::object{{"label", labelText(xavier)}, {"role", "MODERATOR"}}}));

    emulator().clearRequests();
    auto byMemberId = awaitDone([&](auto done, auto fail) {
        carol->updateUserRole(kTVKUserRoleNormal, "xavier", "demo-account", done, fail);
    });
    ASSERT_TRUE(byMemberId.succeeded) << describe(byMemberId);
    EXPECT_EQ(onlyRequest("/update-users-in-chat/").at("body").at("targetUsers"),
              (json::array{json::object{
                  {"memberId", "xavier"}, {"role", "NORMAL"}, {"platform", "demo-account"}}}));

    const json::array labels{labelText(yuki), labelText(xavier), labelText(guest)};
    emulator().clearRequests();
    auto blocked = awaitDone([&](auto done, auto fail) {
        carol->blockUsers({yuki, xavier, guest}, done, fail);
    });
    ASSERT_TRUE(blocked.succeeded) << describe(blocked);
    request = onlyRequest("/block-users-in-chat/");
    EXPECT_EQ(request.at("method"), "PUT");
    EXPECT_EQ(request.at("body").at("targetUserLabels"), labels);
    EXPECT_EQ(request.at("body").at("userToken"), carol->userToken()->c_str());

    emulator().clearRequests();
    auto revived = awaitDone([&](auto done, auto fail) {
        carol->reviveUsers({yuki, xavier, guest}, done, fail);
    });
    ASSERT_TRUE(revived.succeeded) << describe(revived);
    request = onlyRequest("/revive-users-in-chat/");
    EXPECT_EQ(request.at("method"), "PUT");
    EXPECT_EQ(request.at("body").at("targetUserLabels"), labels);
}

TEST_F(ChatUserOperations, AGuestRenamesItselfAndLoadsItsRecord) {
    auto guest = joinedUser("");
    emulator().clearRequests();
    ASSERT_TRUE(awaitDone([&](auto done, auto fail) {
                    guest->updateGuestNickname("Ann", done, fail);
                }).succeeded);
    EXPECT_EQ(guest->name(), "Ann");
    auto request = onlyRequest("/update-users-in-chat/");
    EXPECT_EQ(request.at("body").at("targetUsers"),
              (json::array{json::object{{"label", labelText(guest)}, {"name", "Ann"}}}));

    auto carol = joinedUser("carol");
    const auto label = carol->label();
    emulator().clearRequests();
    ASSERT_TRUE(
        awaitDone([&](auto done, auto fail) { carol->loadUserData(done, fail); }).succeeded);
    request = onlyRequest("/get-users-by-labels/");
    EXPECT_EQ(request.at("method"), "GET");
    EXPECT_EQ(request.at("query").at("targetUserLabels[]"), json::array{labelText(carol)});
    EXPECT_EQ(carol->userId(), "carol");
    EXPECT_EQ(carol->label(), label);
    EXPECT_TRUE(carol->name().has_value());
    EXPECT_EQ(carol->status(), "ACTIVE");
    EXPECT_TRUE(carol->isBoundWithChat());
}

TEST_F(ChatUserOperations, LeavingUnbindsAndForgetsTheRecord) {
    auto alice = joinedUser("alice");
    ASSERT_TRUE(
        awaitDone([&](auto done, auto fail) { alice->loadUserData(done, fail); }).succeeded);
    ASSERT_TRUE(alice->userId().has_value());
    const auto label = labelText(alice);
    emulator().clearRequests();

    ASSERT_TRUE(awaitDone([&](auto done, auto fail) { alice->leaveChat(done, fail); }).succeeded);
    auto request = onlyRequest("/remove-users-from-chat/");
    EXPECT_EQ(request.at("method"), "DELETE");
    EXPECT_EQ(request.at("query").at("targetUserLabels[]"), json::array{label});
    EXPECT_FALSE(alice->isBoundWithChat());
    EXPECT_FALSE(alice->label() || alice->role() || alice->name() || alice->userId());
    EXPECT_FALSE(alice->chatId() || alice->userToken());

    emulator().clearRequests();
    std::optional<TVKError> refusal;
    alice->leaveChat([] { ADD_FAILURE() << "left twice"; },
                     [&](const TVKError& error) { refusal = error; });
    ASSERT_TRUE(refusal.has_value());
    EXPECT_TRUE(isTVKUserNotBoundWithChatError(*refusal));

    // Free to join again.
    ASSERT_TRUE(join(alice).succeeded);
    EXPECT_TRUE(alice->isBoundWithChat());
}

// --- Refusals send nothing
// ------------------------------------------------------------------------

TEST_F(ChatUserOperations, RefusedOperationsReportAtOnceAndSendNothing) {
    auto guest = joinedUser("");  // a NORMAL guest: may send, may not moderate
    auto unbound = userWithJWT(jwtOf("carol"));
    auto member = lobbyUser("Yuki");
    emulator().clearRequests();

    struct Attempt {
        const char* name;
        bool guestMay;  // allowed for a bound guest, so not tried here
        std::function<void(TVKChatUser&, TVKChatUser::Failure)> run;
    };
    auto ignore = [] {};
    const std::vector<Attempt> attempts = {
        {"leave", true, [&](TVKChatUser& u, auto f) { u.leaveChat(ignore, f); }},
        {"nickname", false, [&](TVKChatUser& u, auto f) { u.updateGuestNickname("", ignore, f); }},
        {"role", false,
         [&](TVKChatUser& u, auto f) { u.updateUserRole("NORMAL", member, ignore, f); }},
        {"roleById", false,
         [&](TVKChatUser& u, auto f) { u.updateUserRole("NORMAL", "bob", "demo", ignore, f); }},
        {"block", false, [&](TVKChatUser& u, auto f) { u.blockUsers({member}, ignore, f); }},
        {"revive", false, [&](TVKChatUser& u, auto f) { u.reviveUsers({member}, ignore, f); }},
        {"send", true, [&](TVKChatUser& u, auto f) { u.sendMessage("", "text", nullptr, f); }},
        {"remove", false, [&](TVKChatUser& u, auto f) { u.removeMessage("m", ignore, f); }},
        {"pin", false, [&](TVKChatUser& u, auto f) { u.pinMessage("m", ignore, f); }},
        {"unpin", false, [&](TVKChatUser& u, auto f) { u.unpinMessageWithSuccess(ignore, f); }},
        {"metadata", false,
         [&](TVKChatUser& u, auto f) { u.setMetadataValue(1, "k", false, ignore, f); }},
        {"load", true, [&](TVKChatUser& u, auto f) { u.loadUserData(ignore, f); }},
    };
    struct Actor {
        const char* name;
        std::shared_ptr<TVKChatUser> user;
        std::function<bool(const TVKError&)> expected;
    };
    const std::vector<Actor> actors = {
        {"a guest", guest,
         [](const TVKError& e) {
             return isTVKUserNoPermissionError(e) || isTVKNicknameLengthError(e);
         }},
        {"an unbound member", unbound, isTVKUserNotBoundWithChatError},
        {"a member record", member,
         [](const TVKError& e) { return e == TVKNotManipulableUserError(); }},
    };
    for (const auto& attempt : attempts) {
        for (const auto& actor : actors) {
            if (actor.user == guest && attempt.guestMay) continue;
            SCOPED_TRACE(std::string(attempt.name) + " by " + actor.name);
            std::optional<TVKError> refusal;
            attempt.run(*actor.user, [&](const TVKError& error) { refusal = error; });
            ASSERT_TRUE(refusal.has_value());  // reported before the call returned
            EXPECT_TRUE(actor.expected(*refusal)) << refusal->describe();
        }
    }
    std::this_thread::sleep_for(100ms);
    EXPECT_TRUE(emulator().requests().empty());
}

// --- Repair: one refresh, one resend
// --------------------------------------------------------------

TEST_F(ChatUserOperations, AnExpiredJWTCostsOneMemberRefreshAndOneResend) {
    auto alice = joinedUser("alice");
    auto fresh = text(
        emulator().control("POST", "jwt/expire", json::object{{"memberId", "alice"}}).at("jwt"));
    emulator().clearRequests();

    auto pinned =
        awaitDone([&](auto done, auto fail) { alice->unpinMessageWithSuccess(done, fail); });
    ASSERT_TRUE(pinned.succeeded) << describe(pinned);
    EXPECT_EQ(memberTokenRefreshes, 1);
    auto sends = emulator().requests("/pinned-msg/");
    ASSERT_EQ(sends.size(), 2u);
    EXPECT_EQ(sends[0].at("status"), 401);
    EXPECT_EQ(sends[1].at("headers").at("authorization"), ("Bearer " + fresh).c_str());
    EXPECT_EQ(sends[0].at("query"), sends[1].at("query"));
    EXPECT_EQ(alice->HTTPClient()->JWT(), fresh);
}

TEST_F(ChatUserOperations, AnErrorNoRefreshRepairsIsReportedAfterOneSend) {
    auto carol = joinedUser("carol");
    emulator().clearRequests();
    emulator().control("POST", "faults",
                       json::object{{"pathPrefix", "/remove-message-from-chat/"},
                                    {"status", 500},
                                    {"code", "DataAccessError"}});
    auto outcome =
        awaitDone([&](auto done, auto fail) { carol->removeMessage("missing", done, fail); });
    ASSERT_TRUE(outcome.error.has_value());
    EXPECT_TRUE(isTVKHTTPServerFailureError(*outcome.error));
    EXPECT_EQ(emulator().requests().size(), 1u);
    EXPECT_EQ(memberTokenRefreshes, 0);
}

// --- Loading the user's record
// ---------------------------------------------------------------------

TEST_F(ChatUserOperations, LoadingAnEmptyOrUnmappableListKeepsTheRecord) {
    auto carol = joinedUser("carol");
    const auto record = carol->internalData();
    struct Case {
        const char* body;
        TVKError expected;
    };
    const std::vector<Case> cases = {
        {R"({"users": []})", TVKHTTPDataMissingError()},
        {R"({"users": ["carol", {"label": 1}]})",
         TVKDataMappingErrorWithData(json::value("carol"))},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.body);
        emulator().control("POST", "faults",
                           json::object{{"pathPrefix", "/get-users-by-labels/"},
                                        {"status", 200},
                                        {"count", 2},
                                        {"body", json::parse(c.body)}});
        auto outcome = awaitDone([&](auto done, auto fail) { carol->loadUserData(done, fail); });
        ASSERT_TRUE(outcome.error.has_value());
        EXPECT_EQ(*outcome.error, c.expected);
        EXPECT_EQ(carol->internalData(), record);
        emulator().control("DELETE", "faults");
    }
}

// --- Lifetime ----------------------------------------------------------------------------------

TEST_F(ChatUserOperations, AUserReleasedMidRequestIsNotTouched) {
    auto alice = joinedUser("alice");
    emulator().control("POST", "delays",
                       json::object{{"pathPrefix", "/remove-users-from-chat/"}, {"ms", 300}});
    std::atomic<int> callbacks{0};
    std::weak_ptr<TVKChatUser> weak = alice;
    alice->leaveChat([&] { ++callbacks; }, [&](const TVKError&) { ++callbacks; });
    alice.reset();
    // The pending request (answered after 300 ms) does not keep the user alive; the worker that
    // sent it may still be letting go of it for a moment on a loaded machine.
    for (int i = 0; i < 20 && !weak.expired(); ++i) std::this_thread::sleep_for(10ms);
    EXPECT_TRUE(weak.expired());
    std::this_thread::sleep_for(800ms);
    EXPECT_EQ(emulator().requests("/remove-users-from-chat/").size(), 1u);
    EXPECT_EQ(callbacks, 0);
}

// --- Over TLS, on the caller's queue -------------------------------------------------------------

class ChatUserOperationsOverTLS : public test::TLSEmulatorTest {};

TEST_F(ChatUserOperationsOverTLS, TheUsersClientTrustsTheGivenCAAndCompletesOnTheGivenQueue) {
    auto queue = dispatch::SerialQueue::create("test.user");
    const auto lobbyId = text(emulator().control("GET", "info").at("lobby").at("id"));
    auto guest = TVKChatUser::userWithJWT("", emulator().url(), queue, emulator().caFile());
    std::atomic<bool> onQueue{false};
    auto outcome = await([&](auto succeed, auto fail) {
        guest->joinChat(
            lobbyId,
            [&, succeed](const std::string& token, auto) {
                onQueue = queue->isCurrent();
                succeed(json::value(token));
            },
            fail);
    });
    ASSERT_TRUE(outcome.succeeded) << describe(outcome);
    EXPECT_TRUE(onQueue);
    EXPECT_TRUE(guest->isBoundWithChat());

    // Without the CA the service cannot be trusted, and nothing binds.
    auto untrusting = TVKChatUser::userWithJWT("", emulator().url());
    outcome = await([&](auto succeed, auto fail) {
        untrusting->joinChat(
            lobbyId, [succeed](auto&&...) { succeed(nullptr); }, fail);
    });
    EXPECT_TRUE(outcome.error.has_value());
    EXPECT_FALSE(untrusting->isBoundWithChat());
}

}  // namespace
}  // namespace tavlo
