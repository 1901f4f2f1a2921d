#include <gtest/gtest.h>

#include <future>

#include "Networking/TVKNetworkError.hpp"
#include "TavloCoreSDK/TVKSDKAuthManager.hpp"
#include "TavloMessagingSDK/Internal/TVKMessagingError.hpp"
#include "TavloMessagingSDK/Internal/TVKMessagingHTTPClient.hpp"
#include "tests/support/Await.hpp"
#include "tests/support/Emulator.hpp"

using namespace tavlo;
namespace json = boost::json;
using namespace std::chrono_literals;

namespace {

using Client = TVKMessagingHTTPClient;

using test::text;

using test::await;
using test::describe;
using test::Outcome;

/// The callers' repair pattern: on failure let the client refresh a credential, then re-send once.
template <class Issue>
Outcome awaitRepaired(const std::shared_ptr<Client>& client, Issue issue) {
    return await([&](auto succeed, auto fail) {
        issue(succeed, [client, issue, succeed, fail](const TVKError& error) {
            client->handleInvalidRequestError(
                error, [issue, succeed, fail] { issue(succeed, fail); }, fail);
        });
    });
}

class MessagingHTTPClient : public test::EmulatorTest {
protected:
    void SetUp() override {
        EmulatorTest::SetUp();
        client = Client::create(emulator().url());
        lobbyId = std::string(emulator().control("GET", "info").at("lobby").at("id").as_string());
        refreshMemberTokensThroughEmulator([this] { ++refreshes; });
    }

    void fetchAPIToken() {
        auto outcome = await([&](auto succeed, auto fail) {
            client->refreshAPIToken([succeed] { succeed(nullptr); }, fail);
        });
        ASSERT_FALSE(outcome.error) << outcome.error->describe();
    }

    /// The guest join answer's user token for lobby.
    std::string joinAsGuest() {
        auto outcome = await([&](auto succeed, auto fail) {
            client->addGuestToChat(
                lobbyId, "Visitor",
                [succeed](const json::value& token, auto&&...) { succeed(token); }, fail);
        });
        return outcome.value.is_string() ? std::string(outcome.value.as_string()) : std::string();
    }

    json::object lastRequest(const std::string& prefix) {
        auto requests = emulator().requests(prefix);
        if (requests.empty()) return {};
        return requests.back().as_object();
    }

    std::shared_ptr<Client> client;
    std::string lobbyId;
    std::atomic<int> refreshes{0};
};

TEST_F(MessagingHTTPClient, FirstCallFetchesTheAPITokenAndIsSentOnceMoreWithIt) {
    auto outcome = awaitRepaired(client, [this](auto succeed, auto fail) {
        client->getChatProfileForChannel(
            "lobby", "demo-account", false,
            [succeed](const json::object& profile) { succeed(profile); }, fail);
    });
    ASSERT_FALSE(outcome.error) << outcome.error->describe();
    EXPECT_EQ(outcome.value.at("channelCode"), "lobby");

    auto requests = emulator().requests();
    ASSERT_EQ(requests.size(), 2u);  // the first attempt never left the client
    auto tokenRequest = requests[0].as_object();
    auto profileRequest = requests[1].as_object();
    EXPECT_EQ(tokenRequest.at("path"), "/api-tokens");
    EXPECT_EQ(tokenRequest.at("headers").at("x-restapi-key"), Client::kRestAPIKey);
    EXPECT_EQ(text(profileRequest.at("path")), "/get-chat-profile-by-channel/" + *client->APIToken());
    EXPECT_FALSE(profileRequest.at("headers").as_object().contains("x-restapi-key"));
    EXPECT_FALSE(profileRequest.at("query").as_object().contains("return_sticker"));
}

TEST_F(MessagingHTTPClient, StaleAPITokenIsReplacedOnce) {
    fetchAPIToken();
    auto first = client->APIToken();
    emulator().control("POST", "api-tokens/expire", json::object{});
    auto outcome = awaitRepaired(client, [this](auto succeed, auto fail) {
        client->getChatProfileForChannel("lobby", "demo-account", true,
                                         [succeed](const json::object& p) { succeed(p); }, fail);
    });
    ASSERT_FALSE(outcome.error) << outcome.error->describe();
    EXPECT_NE(client->APIToken(), first);
    EXPECT_TRUE(outcome.value.as_object().contains("sticker"));
    EXPECT_EQ(emulator().requests("/get-chat-profile-by-channel/").size(), 2u);
}

TEST_F(MessagingHTTPClient, ExpiredJWTCostsOneRefreshAndOneResend) {
    fetchAPIToken();
    auto alice = emulator().control("GET", "members/alice/jwt");
    std::string staleJWT(alice.at("jwt").as_string());
    client->setAuthorizationToken(staleJWT);
    emulator().control("POST", "jwt/expire", json::object{{"memberId", "alice"}});

    auto outcome = awaitRepaired(client, [this](auto succeed, auto fail) {
        client->addLoggedInUserToChat(
            lobbyId, [succeed](const json::value& token, auto&&...) { succeed(token); }, fail);
    });
    ASSERT_FALSE(outcome.error) << outcome.error->describe();
    EXPECT_EQ(refreshes, 1);
    EXPECT_NE(client->JWT(), staleJWT);
    auto joins = emulator().requests("/add-users-to-chat/");
    ASSERT_EQ(joins.size(), 2u);
    EXPECT_EQ(text(joins[1].at("headers").at("authorization")), "Bearer " + *client->JWT());
}

TEST_F(MessagingHTTPClient, ASecondFailureReachesTheCallerUnchanged) {
    fetchAPIToken();
    client->setAuthorizationToken(
        std::string(emulator().control("GET", "members/bob/jwt").at("jwt").as_string()));
    emulator().control("POST", "faults",
                       json::object{{"pathPrefix", "/get-chat-profile-by-channel/"},
                                    {"status", 401}, {"code", "UnauthorizedError"}, {"count", 2}});
    auto outcome = awaitRepaired(client, [this](auto succeed, auto fail) {
        client->getChatProfileForChannel("lobby", "demo-account", false,
                                         [succeed](const json::object& p) { succeed(p); }, fail);
    });
    ASSERT_TRUE(outcome.error);
    EXPECT_TRUE(isTVKHTTPUnauthorizedError(*outcome.error));
    EXPECT_EQ(refreshes, 1);
    EXPECT_EQ(emulator().requests("/get-chat-profile-by-channel/").size(), 2u);
}

TEST_F(MessagingHTTPClient, TokenAnswerWithoutAStringTokenIsDataMissing) {
    emulator().control("POST", "faults", json::object{{"path", "/api-tokens"}, {"status", 200},
                                                     {"body", json::object{{"token", 42}}}});
    auto outcome = await([&](auto succeed, auto fail) {
        client->refreshAPIToken([succeed] { succeed(nullptr); }, fail);
    });
    ASSERT_TRUE(outcome.error);
    EXPECT_EQ(*outcome.error, TVKHTTPDataMissingError());
    EXPECT_FALSE(client->APIToken());
}

TEST_F(MessagingHTTPClient, ConnectionRefusedIsARetryableNetworkError) {
    auto unreachable = Client::create("http://127.0.0.1:9");
    auto outcome = await([&](auto succeed, auto fail) {
        unreachable->refreshAPIToken([succeed] { succeed(nullptr); }, fail);
    });
    ASSERT_TRUE(outcome.error);
    EXPECT_TRUE(isNetworkError(*outcome.error));
    EXPECT_TRUE(isTheErrorNeededRetry(*outcome.error));
}

TEST_F(MessagingHTTPClient, EndpointsSendTheirMethodPathAndParameters) {
    fetchAPIToken();
    auto token = joinAsGuest();
    ASSERT_FALSE(token.empty());
    auto apiToken = *client->APIToken();
    auto done = [](auto succeed) { return [succeed] { succeed(nullptr); }; };
    auto list = [](auto succeed) { return [succeed](const json::array& a) { succeed(a); }; };

    auto users = await([&](auto s, auto f) {
        client->getUsersByChat(lobbyId, token, {"MODERATOR", "NORMAL"}, {"ACTIVE"}, list(s), f);
    });
    ASSERT_FALSE(users.error) << users.error->describe();
    EXPECT_FALSE(users.value.as_array().empty());
    auto request = lastRequest("/get-users-by-chat/");
    EXPECT_EQ(request.at("method"), "GET");
    EXPECT_EQ(text(request.at("path")), "/get-users-by-chat/" + apiToken);
    EXPECT_EQ(request.at("query").at("roles[]"), (json::array{"MODERATOR", "NORMAL"}));
    EXPECT_EQ(request.at("query").at("statuses[]"), (json::array{"ACTIVE"}));

    auto configs = json::object{{"count", 2}, {"chatId", lobbyId}};
    auto messages = await([&](auto s, auto f) {
        client->getMessagesByChat("overridden", token, configs, list(s), f);
    });
    ASSERT_FALSE(messages.error) << messages.error->describe();
    request = lastRequest("/get-messages-by-chat/");
    EXPECT_EQ(text(request.at("query").at("chatId")), lobbyId);  // the query object wins
    EXPECT_EQ(request.at("query").at("populateCreator"), "true");

    auto sent = await([&](auto s, auto f) {
        client->addUserMessage(json::object{{"score", 3}}, lobbyId, token, "raw",
                               [s](const json::value& id) { s(id); }, f);
    });
    ASSERT_FALSE(sent.error) << sent.error->describe();
    request = lastRequest("/add-user-message-to-chat/");
    EXPECT_EQ(request.at("method"), "POST");
    EXPECT_EQ(request.at("body").at("value"), (json::object{{"score", 3}}));
    EXPECT_FALSE(request.at("body").as_object().contains("text"));
    EXPECT_EQ(request.at("body").at("sourceType"), "IOS");

    auto meta = await([&](auto s, auto f) {
        client->getMetadataForKeys(std::vector<std::string>{"topic"}, lobbyId, token, list(s), f);
    });
    ASSERT_FALSE(meta.error) << meta.error->describe();
    EXPECT_EQ(lastRequest("/chat-meta/").at("query").at("keys[]"), (json::array{"topic"}));

    // A guest may not pin: the service's refusal comes back classified.
    auto pin = await([&](auto s, auto f) { client->pinMessage("m1", lobbyId, token, done(s), f); });
    ASSERT_TRUE(pin.error);
    EXPECT_TRUE(isTVKHTTPPermissionViolationError(*pin.error)) << pin.error->describe();
    request = lastRequest("/pinned-msg/");
    EXPECT_EQ(request.at("method"), "POST");
    EXPECT_TRUE(request.at("body").at("chatId").is_string());
}

struct DataMissingCase {
    const char* path;
    json::value body;
};

TEST_F(MessagingHTTPClient, AnswersLackingWhatTheCallNeedsAreDataMissing) {
    fetchAPIToken();
    auto list = [](auto s) { return [s](const json::array& a) { s(a); }; };
    auto expectMissing = [&](const char* path, json::value body, auto issue) {
        emulator().control("POST", "faults",
                           json::object{{"pathPrefix", path}, {"status", 200}, {"body", body}});
        auto outcome = await(issue);
        ASSERT_TRUE(outcome.error) << path << " " << json::serialize(body);
        EXPECT_EQ(*outcome.error, TVKHTTPDataMissingError()) << path;
    };
    auto join = [&](auto s, auto f) {
        client->addGuestToChat(lobbyId, "x", [s](auto&&...) { s(nullptr); }, f);
    };
    auto socket = json::object{{"host", "h"}, {"path", "/p"}, {"query", "a=1"}};
    auto meta = json::object{{"userToken", "t"}, {"label", 1}, {"role", "NORMAL"}};
    expectMissing("/add-users-to-chat/", json::array{}, join);
    expectMissing("/add-users-to-chat/", json::object{{"userMetas", json::object{}}, {"socket", socket}}, join);
    expectMissing("/add-users-to-chat/", json::object{{"userMetas", json::array{}}, {"socket", socket}}, join);
    expectMissing("/add-users-to-chat/", json::object{{"userMetas", json::array{meta}}}, join);
    expectMissing("/add-users-to-chat/",
                  json::object{{"userMetas", json::array{json::object{{"label", 1}}}}, {"socket", socket}}, join);
    auto noQuery = socket;
    noQuery.erase("query");
    expectMissing("/add-users-to-chat/", json::object{{"userMetas", json::array{meta}}, {"socket", noQuery}}, join);
    auto metaList = [&](auto s, auto f) {
        client->getMetadataForKeys(std::nullopt, lobbyId, "t", list(s), f);
    };
    expectMissing("/chat-meta/", json::object{{"meta", json::array{"x"}}}, metaList);
    expectMissing("/chat-meta/", json::object{{"meta", json::object{}}}, metaList);
    expectMissing("/add-user-message-to-chat/", json::object{{"id", "m"}}, [&](auto s, auto f) {
        client->addUserMessage("hi", lobbyId, "t", "text", [s](auto&&) { s(nullptr); }, f);
    });

    // An empty metadata list and any pin answer are fine.
    emulator().control("POST", "faults", json::object{{"pathPrefix", "/chat-meta/"}, {"status", 200},
                                                     {"body", json::object{{"meta", json::array{}}}}});
    EXPECT_FALSE(await(metaList).error);
    emulator().control("POST", "faults", json::object{{"pathPrefix", "/pinned-msg/"}, {"status", 200},
                                                     {"body", json::array{1, 2}}});
    EXPECT_FALSE(await([&](auto s, auto f) {
                     client->pinMessage("m", lobbyId, "t", [s] { s(nullptr); }, f);
                 }).error);
}

TEST_F(MessagingHTTPClient, JoinAnswerArrivingAfterTheClientIsGoneIsDataMissing) {
    fetchAPIToken();
    emulator().control("POST", "delays",
                       json::object{{"pathPrefix", "/add-users-to-chat/"}, {"ms", 300}, {"count", 1}});
    auto outcome = await([&](auto s, auto f) {
        client->addGuestToChat(lobbyId, "late", [s](auto&&...) { s(nullptr); }, f);
        client.reset();
    });
    ASSERT_TRUE(outcome.error);
    EXPECT_EQ(*outcome.error, TVKHTTPDataMissingError());
}

}  // namespace
