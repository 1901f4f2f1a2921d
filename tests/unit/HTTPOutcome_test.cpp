#include "Networking/HTTPOutcome.hpp"

#include <gtest/gtest.h>

#include "Networking/HTTPSessionManager.hpp"
#include "Networking/TVKNetworkError.hpp"

namespace tavlo::net {
namespace {

HTTPResult answer(long status, std::string body) {
    HTTPResult result;
    result.status = status;
    result.body = std::move(body);
    return result;
}

TVKError errorOf(HTTPOutcome outcome) {
    EXPECT_TRUE(std::holds_alternative<TVKError>(outcome));
    return std::holds_alternative<TVKError>(outcome) ? std::get<TVKError>(outcome) : TVKError();
}

TEST(HTTPOutcomeTest, JSONAnswersOf2xxSucceed) {
    for (long status : {200L, 201L, 299L}) {
        auto outcome = interpretResult(answer(status, R"({"token":"abc"})"), {});
        ASSERT_TRUE(std::holds_alternative<boost::json::value>(outcome)) << status;
        EXPECT_EQ(std::get<boost::json::value>(outcome).at("token"), "abc");
    }
    auto array = interpretResult(answer(200, "[1,2]"), {});
    EXPECT_EQ(std::get<boost::json::value>(array), (boost::json::array{1, 2}));
}

TEST(HTTPOutcomeTest, EmptyAnswerOf2xxSucceedsWithNull) {
    for (const char* body : {"", " \r\n"}) {
        auto outcome = interpretResult(answer(204, body), {});
        ASSERT_TRUE(std::holds_alternative<boost::json::value>(outcome));
        EXPECT_TRUE(std::get<boost::json::value>(outcome).is_null());
    }
}

TEST(HTTPOutcomeTest, NonJSONAnswerOf2xxKeepsStatusAndBody) {
    for (const char* body : {"<html>ok</html>", "{\"a\":", "{} trailing"}) {
        auto error = errorOf(interpretResult(answer(200, body), {}));
        EXPECT_EQ(error.domain, kHTTPResponseErrorDomain);
        EXPECT_EQ(error.code, 0);
        EXPECT_EQ(error.failingResponseStatus, 200);
        EXPECT_EQ(error.failingResponseData, body);
    }
}

TEST(HTTPOutcomeTest, StatusOutside2xxFailsWithStatusAndBody) {
    for (long status : {199L, 300L, 304L, 401L, 409L, 500L, 599L}) {
        auto error = errorOf(interpretResult(answer(status, R"({"code":"X"})"), {}));
        EXPECT_EQ(error.domain, kHTTPResponseErrorDomain);
        EXPECT_EQ(error.code, status);
        EXPECT_EQ(error.failingResponseStatus, status);
        EXPECT_EQ(error.failingResponseData, R"({"code":"X"})");
        EXPECT_NE(error.localizedDescription->find(std::to_string(status)), std::string::npos);
    }
}

TEST(HTTPOutcomeTest, TransportFailureUsesCurlCode) {
    HTTPResult result;
    result.code = CURLE_COULDNT_CONNECT;
    result.transportMessage =
        "Failed to connect to 127.0.0.1 port 9 after 0 ms: Connection refused";
    result.status = 0;
    auto error = errorOf(interpretResult(result, {"/get-users-by-chat/SECRETTOKEN"}));
    EXPECT_EQ(error.domain, kTVKURLErrorDomain);
    EXPECT_EQ(error.code, CURLE_COULDNT_CONNECT);
    EXPECT_EQ(error.localizedDescription, result.transportMessage);
    EXPECT_FALSE(error.failingResponseStatus);
    EXPECT_TRUE(isNetworkError(error));
}

TEST(HTTPOutcomeTest, TransportMessageNeverRepeatsURLsOrSecrets) {
    const std::vector<std::string> secrets = {"SECRETTOKEN", "Bearer eyJhbGci", "v2"};
    struct Case {
        const char* message;
        std::string expected;
    };
    const Case cases[] = {
        {"Malformed https://h/p/SECRETTOKEN?userToken=x here", "Malformed <URL> here"},
        {"bad 'http://h/x' end", "bad '<URL>' end"},
        {"token SECRETTOKEN seen", curl_easy_strerror(CURLE_RECV_ERROR)},
        {"header Bearer eyJhbGci sent", curl_easy_strerror(CURLE_RECV_ERROR)},
        {"short secrets like v2 are ordinary words", "short secrets like v2 are ordinary words"},
        {"", curl_easy_strerror(CURLE_RECV_ERROR)},
    };
    for (const auto& testCase : cases) {
        EXPECT_EQ(redactTransportMessage(testCase.message, CURLE_RECV_ERROR, secrets),
                  testCase.expected)
            << testCase.message;
    }
}

}  // namespace
}  // namespace tavlo::net
