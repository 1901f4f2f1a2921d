#include <gtest/gtest.h>

#include "TavloMessagingSDK/Internal/TVKMessagingError.hpp"
#include "TavloMessagingSDK/Internal/TVKMessagingHTTPClient.hpp"

using namespace tavlo;
namespace json = boost::json;

namespace {

// Port 9 on loopback: nothing listens, so a request that escaped the guard would fail loudly.
std::shared_ptr<TVKMessagingHTTPClient> offlineClient() {
    return TVKMessagingHTTPClient::create("http://127.0.0.1:9");
}

TEST(HTTPClientFrame, EndpointsFailSynchronouslyWithoutAnAPIToken) {
    auto client = offlineClient();
    std::vector<TVKError> failures;
    auto record = [&](const TVKError& error) { failures.push_back(error); };
    client->getChatProfileForChannel("lobby", "vendor", true, nullptr, record);
    client->pinMessage("m1", "c1", "t1", nullptr, record);
    client->getMetadataForKeys(std::nullopt, "c1", "t1", nullptr, record);
    client->addGuestToChat("c1", "guest", nullptr, record);
    ASSERT_EQ(failures.size(), 4u);  // all reported before the calls returned
    for (const auto& error : failures) EXPECT_TRUE(isTVKHTTPInvalidRequestError(error));
}

TEST(HTTPClientFrame, AuthorizationHeaderFollowsTheJWT) {
    auto client = offlineClient();
    EXPECT_FALSE(client->HTTPManager()->header("Authorization"));
    client->setAuthorizationToken("abc.def.ghi");
    EXPECT_EQ(client->JWT(), "abc.def.ghi");
    EXPECT_EQ(client->HTTPManager()->header("Authorization"), "Bearer abc.def.ghi");
    client->setAuthorizationToken(std::nullopt);
    EXPECT_FALSE(client->JWT());
    EXPECT_FALSE(client->HTTPManager()->header("Authorization"));
}

TEST(HTTPClientFrame, DefaultHeadersNameTheSDKAndTheDevice) {
    auto client = offlineClient();
    EXPECT_EQ(client->HTTPManager()->header("Content-Type"), "application/json");
    EXPECT_EQ(client->HTTPManager()->header("X-SDK-Version"), "iOS v1.0 Messaging");
    auto agent = client->HTTPManager()->header("User-Agent").value_or("");
    EXPECT_EQ(agent.rfind(net::HTTPSessionManager::defaultUserAgent() + " ", 0), 0u) << agent;
    EXPECT_FALSE(client->HTTPManager()->header("X-RestAPI-Key"));
}

TEST(HTTPClientFrame, RepairWithoutRefresherFallsBackWithTheAuthManagersError) {
    auto client = offlineClient();
    std::optional<TVKError> reported;
    bool resent = false;
    client->handleInvalidRequestError(
        TVKHTTPErrorWithResponse(401, R"({"code":"UnauthorizedError"})"),
        [&] { resent = true; }, [&](const TVKError& error) { reported = error; });
    ASSERT_TRUE(reported);
    EXPECT_FALSE(resent);
    EXPECT_FALSE(isTVKHTTPUnauthorizedError(*reported));  // the refresh's error, not the original

    reported.reset();
    auto other = TVKHTTPErrorWithResponse(403, R"({"code":"PermissionViolationError"})");
    client->handleInvalidRequestError(other, [&] { resent = true; },
                                      [&](const TVKError& error) { reported = error; });
    EXPECT_EQ(reported, other);
    EXPECT_FALSE(resent);
}

TEST(HTTPClientChecks, SocketConfigNeedsHostPathAndQueryInAnyForm) {
    auto client = offlineClient();
    EXPECT_TRUE(client->socketConfigHasRequiredKeys(
        json::parse(R"({"host":null,"path":1,"query":""})").as_object()));
    EXPECT_FALSE(client->socketConfigHasRequiredKeys(
        json::parse(R"({"host":"h","path":"/p"})").as_object()));
}

TEST(HTTPClientChecks, MessageTypeTest) {
    using C = TVKMessagingHTTPClient;
    EXPECT_TRUE(C::isMessageTypeCorrectWithMsgType("text", "hi"));
    EXPECT_FALSE(C::isMessageTypeCorrectWithMsgType("text", 3));
    EXPECT_TRUE(C::isMessageTypeCorrectWithMsgType("aggregate", "key"));
    EXPECT_FALSE(C::isMessageTypeCorrectWithMsgType("aggregate", json::object{}));
    // Deliberately lenient for raw data: every message passes.
    EXPECT_TRUE(C::isMessageTypeCorrectWithMsgType("raw", 3));
    EXPECT_TRUE(C::isMessageTypeCorrectWithMsgType("raw", json::object{}));
    EXPECT_FALSE(C::isMessageTypeCorrectWithMsgType("sticker", "x"));
}

}  // namespace
