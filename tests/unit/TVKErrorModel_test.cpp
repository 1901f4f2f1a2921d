#include <gtest/gtest.h>

#include <set>
#include <system_error>

#include "Networking/TVKNetworkError.hpp"
#include "TavloMessagingSDK/Internal/TVKMessagingError.hpp"
#include "TavloMessagingSDK/Internal/TVKStringTable.hpp"
#include "TavloMessagingSDK/TVKMSGError.hpp"

using namespace tavlo;

namespace {

struct StatusCase {
    long status;
    std::optional<std::string> body;
    long expected;
};

class ResponseClassification : public ::testing::TestWithParam<StatusCase> {};

TEST_P(ResponseClassification, StatusAndServerCodeMustBothMatch) {
    const auto& c = GetParam();
    EXPECT_EQ(errorCodeForResponse(c.status, c.body), c.expected)
        << c.status << " " << c.body.value_or("<none>");
}

INSTANTIATE_TEST_SUITE_P(
    Table, ResponseClassification,
    ::testing::Values(
        StatusCase{400, R"({"code":"BadRequestError"})", 1},
        StatusCase{401, R"({"code":"UnauthorizedError"})", 2},
        StatusCase{403, R"({"code":"PermissionViolationError"})", 3},
        StatusCase{404, R"({"code":"EntityNotFoundError"})", 4},
        StatusCase{409, R"({"code":"DuplicateEntityError"})", 5},
        StatusCase{409, R"({"code":"InvalidRequestError"})", 6},
        StatusCase{429, R"({"code":"TooManyRequestsError"})", 9},
        StatusCase{500, R"({"code":"DataAccessError"})", 7},
        // Mismatched pairs, foreign statuses and unreadable bodies are unknown.
        StatusCase{404, R"({"code":"InvalidRequestError"})", 0},
        StatusCase{500, R"({"code":"Other"})", 0}, StatusCase{409, R"({"code":"Other"})", 0},
        StatusCase{502, R"({"code":"DataAccessError"})", 0}, StatusCase{401, "not json", 0},
        StatusCase{401, R"({"code":"unauthorizederror"})", 0}, StatusCase{401, R"({"code":2})", 0},
        StatusCase{401, R"(["UnauthorizedError"])", 0}, StatusCase{401, std::nullopt, 0},
        StatusCase{0, R"({"code":"UnauthorizedError"})", 0}));

TEST(ErrorPredicates, DomainTestsTellTheThreeInternalDomainsApart) {
    using Test = bool (*)(const TVKError&);
    const std::pair<const char*, Test> domains[] = {
        {TVKMessagingErrorDomain, isTVKError},
        {TVKMessagingHTTPErrorDomain, isTVKHTTPError},
        {TVKMessagingSocketErrorDomain, isTVKSocketError}};
    for (const auto& [domain, test] : domains) {
        for (const auto& [otherDomain, otherTest] : domains) {
            EXPECT_EQ(otherTest(TVKError(domain, 0)), std::string_view(domain) == otherDomain)
                << domain;
        }
        EXPECT_FALSE(test(TVKError(TVKMSGErrorDomain, 0)));
    }
}

TEST(ErrorPredicates, CodeTestsNeverMatchAnotherDomain) {
    TVKError httpFour(TVKMessagingHTTPErrorDomain, 4);
    EXPECT_TRUE(isTVKHTTPEntityNotFoundError(httpFour));
    EXPECT_FALSE(isTVKUserBoundWithChatError(httpFour));
    EXPECT_FALSE(isTVKHTTPUnauthorizedError(TVKError(TVKMessagingErrorDomain, 2)));
    EXPECT_FALSE(isTVKSocketConnectionLostError(TVKError(TVKMessagingHTTPErrorDomain, 2)));
}

TEST(ErrorPredicates, RetryOnlyForUnknownServerAndConnectivityFailures) {
    EXPECT_TRUE(isTheErrorNeededRetry(TVKHTTPErrorWithResponse(401, "not json")));
    EXPECT_TRUE(
        isTheErrorNeededRetry(TVKHTTPErrorWithResponse(500, R"({"code":"DataAccessError"})")));
    EXPECT_TRUE(isTheErrorNeededRetry(TVKError(kTVKURLErrorDomain, 7)));  // could not connect
    EXPECT_FALSE(
        isTheErrorNeededRetry(TVKHTTPErrorWithResponse(429, R"({"code":"TooManyRequestsError"})")));
    EXPECT_FALSE(isTheErrorNeededRetry(TVKHTTPInvalidRequestError()));
    EXPECT_FALSE(isTheErrorNeededRetry(TVKSocketConnectionTimeoutError()));
    EXPECT_FALSE(isTheErrorNeededRetry(TVKError(kTVKURLErrorDomain, 3)));  // malformed URL
}

TEST(UnwrappedError, PrefersTheAnswerThenTheUnderlyingError) {
    TVKError answered("Session", 401);
    answered.failingResponseStatus = 401;
    answered.failingResponseData = R"({"code":"UnauthorizedError"})";
    answered.underlyingError = std::make_shared<TVKError>("Other", 1);
    EXPECT_TRUE(isTVKHTTPUnauthorizedError(TVKUnwrappedError(answered)));

    TVKError wrapped("Session", 1);
    wrapped.underlyingError = std::make_shared<TVKError>(kTVKURLErrorDomain, 28);
    EXPECT_EQ(TVKUnwrappedError(wrapped), TVKError(kTVKURLErrorDomain, 28));

    TVKError bare("Session", 9);
    EXPECT_EQ(TVKUnwrappedError(bare), bare);
}

struct ConversionCase {
    TVKError error;
    long publicCode;
    std::string key;
};

TEST(PublicConversion, FollowsTheOrderOfTests) {
    const std::vector<ConversionCase> cases = {
        {TVKChannelCodeLengthError(), 1, "channel_code_length_error"},
        {TVKMemberTokenRequiredError(), 2, "guest_creat_chat_not_supported"},
        {TVKEmptyChatProfileError(), 3, "channel_not_connected"},
        {TVKUserBoundWithChatError(), 4, "channel_already_connected"},
        {TVKUserNotBoundWithChatError(), 3, "channel_not_connected"},
        {TVKUpdateMemberNicknameError(), 5, "member_nickname_update_not_supported"},
        {TVKNicknameLengthError(), 6, "nickname_length_error"},
        {TVKUpdateUserRoleError(), 8, "update_user_role_error"},
        {TVKHTTPErrorWithResponse(401, R"({"code":"UnauthorizedError"})"), 9, "unauthorized_error"},
        {TVKHTTPErrorWithResponse(403, R"({"code":"PermissionViolationError"})"), 10,
         "permission_error"},
        {TVKUserNoPermissionError(), 10, "permission_error"},
        {TVKHTTPErrorWithResponse(500, R"({"code":"DataAccessError"})"), 15, "server_error"},
        {TVKHTTPErrorWithResponse(429, R"({"code":"TooManyRequestsError"})"), 19,
         "too_many_requests"},
        {TVKHTTPErrorWithResponse(500, R"({"code":"Other"})"), 16, "internal_error"},
        {TVKHTTPErrorWithResponse(404, R"({"code":"EntityNotFoundError"})"), 16, "internal_error"},
        {TVKHTTPDataMissingError(), 16, "internal_error"},
        {TVKNotManipulableUserError(), 16, "internal_error"},
        {TVKDataMappingErrorWithData(boost::json::value(1)), 16, "internal_error"},
        {TVKSocketConnectionTimeoutError(), 16, "internal_error"},
    };
    for (const auto& c : cases) {
        auto converted = TVKMSGError(c.error);
        EXPECT_EQ(converted.domain, TVKMSGErrorDomain);
        EXPECT_EQ(converted.code, c.publicCode) << c.error.describe();
        EXPECT_EQ(converted.localizedDescription, TVKMsgLocalizedStringForKey(c.key));
        EXPECT_EQ(converted.underlyingError, nullptr);
    }
}

TEST(PublicConversion, ConnectivityFailureKeepsTheOriginalAsUnderlying) {
    TVKError refused(kTVKURLErrorDomain, 7);
    auto converted = TVKMSGError(refused);
    EXPECT_EQ(converted.code, TVKMSGErrorNetworkNoConnection);
    ASSERT_NE(converted.underlyingError, nullptr);
    EXPECT_EQ(*converted.underlyingError, refused);
}

TEST(PublicConversion, PublicErrorsPassUnchanged) {
    auto error = TVKMSGChatroomNotFoundError();
    error.localizedDescription = "custom";
    EXPECT_EQ(TVKMSGError(error), error);
}

TEST(PublicErrors, SharedCodesAreToldApartByDescription) {
    std::set<std::string> descriptions;
    for (const auto& error : {TVKMSGArchivedInputTimestampError(), TVKMSGMetadataKeyInvalidError(),
                              TVKMSGMetadataValueInvalidError()}) {
        EXPECT_EQ(error.code, 14);
        descriptions.insert(error.localizedDescription.value());
    }
    EXPECT_EQ(descriptions.size(), 3u);
    auto aggregate = TVKMSGLengthErrorWithMsgType("aggregate");
    auto raw = TVKMSGRawDataCannotBeConvertedToJson();
    EXPECT_EQ(aggregate.code, 17);
    EXPECT_EQ(raw.code, 17);
    EXPECT_NE(aggregate.localizedDescription, raw.localizedDescription);
    EXPECT_EQ(TVKMSGLengthErrorWithMsgType("text").code, 7);
    EXPECT_FALSE(TVKMSGLengthErrorWithMsgType("raw").localizedDescription);
}

TEST(PublicErrorCode, ConvertsThroughThePublicDomain) {
    struct Case {
        TVKError error;
        TVKMSGErrc expected;
    };
    const Case cases[] = {
        {TVKMSGNotConnectedError(), TVKMSGErrc::channelNotConnected},
        {TVKMSGMetadataValueInvalidError(), TVKMSGErrc::invalidInput},
        {TVKMSGRawDataCannotBeConvertedToJson(), TVKMSGErrc::dataFormat},
        // Internal errors take the code their public conversion gives.
        {TVKUserNotBoundWithChatError(), TVKMSGErrc::channelNotConnected},
        {TVKHTTPErrorWithResponse(401, R"({"code":"UnauthorizedError"})"),
         TVKMSGErrc::unauthorized},
        {TVKError("SomeOtherDomain", 3), TVKMSGErrc::internal},
    };
    for (const auto& c : cases) {
        std::error_code code = c.error;
        EXPECT_EQ(code, c.expected) << c.error.describe();
        EXPECT_EQ(&code.category(), &TVKMSGErrorCategory());
        EXPECT_STREQ(code.category().name(), "TVKMSGErrorDomain");
        EXPECT_TRUE(c.error == c.expected) << c.error.describe();
        EXPECT_TRUE(c.expected == c.error);
        EXPECT_FALSE(c.error == TVKMSGErrc::tooManyRequests);
    }
    // Same number, other category: a generic code 3 is not "channel not connected".
    EXPECT_NE(std::error_code(3, std::generic_category()), TVKMSGErrc::channelNotConnected);
}

TEST(PublicErrorCode, MessageIsTheLocalizedDescription) {
    TVKMsgSetLanguage("de");
    const auto german = TVKMSGServerSideError();
    EXPECT_EQ(make_error_code(german).message(), german.localizedDescription.value());
    TVKMsgSetLanguage("en");
    for (const auto& error : {TVKMSGChatroomNotFoundError(), TVKMSGInternalError(),
                              TVKMSGArchivedInputTimestampError()}) {
        EXPECT_EQ(make_error_code(error).message(), error.localizedDescription.value());
    }
    EXPECT_EQ(std::error_code(TVKMSGErrc::permission).message(),
              TVKMsgLocalizedStringForKey("permission_error"));
    EXPECT_EQ(std::error_code(18, TVKMSGErrorCategory()).message(), "TVKMSGErrorDomain error 18");
}

TEST(StringTables, EveryPublicKeyHasATextInEveryLanguage) {
    const char* keys[] = {"network_no_connection",
                          "channel_code_length_error",
                          "guest_creat_chat_not_supported",
                          "channel_not_connected",
                          "channel_already_connected",
                          "member_nickname_update_not_supported",
                          "nickname_length_error",
                          "message_length_error",
                          "update_user_role_error",
                          "unauthorized_error",
                          "permission_error",
                          "chatroom_not_found",
                          "member_id_not_found",
                          "archived_id_not_found",
                          "archived_input_invalid",
                          "metadata_key_invalid",
                          "metadata_value_invalid",
                          "server_error",
                          "internal_error",
                          "aggregate_data_length_error",
                          "raw_data_format_not_allowed",
                          "too_many_requests"};
    for (const char* language : {"de", "en"}) {
        TVKMsgSetLanguage(language);
        for (const char* key : keys) {
            auto text = TVKMsgLocalizedStringForKey(key);
            ASSERT_TRUE(text);
            EXPECT_NE(*text, key) << language << " lacks " << key;
        }
    }
    auto english = TVKMsgLocalizedStringForKey("server_error");
    TVKMsgSetLanguage("de");
    EXPECT_NE(TVKMsgLocalizedStringForKey("server_error"), english);
    TVKMsgSetLanguage("xx");  // unknown languages fall back to English
    EXPECT_EQ(TVKMsgLocalizedStringForKey("no_such_key"), "no_such_key");
    EXPECT_EQ(TVKMsgLocalizedStringForKey("internal_error"), "An internal error occurred.");
}

TEST(StringTables, ParserReadsEscapesAndSkipsJunk) {
    auto table = detail::parseStringTable(
        "// comment\n\"a\" = \"x \\\"y\\\"\";\nbroken line\n  \"b\"=\"1\\n2\";\n\"c\" = "
        "\"unterminated\n");
    EXPECT_EQ(table.size(), 2u);
    EXPECT_EQ(table["a"], "x \"y\"");
    EXPECT_EQ(table["b"], "1\n2");
}

TEST(TVKErrorModel, ARealtimeConnectionLostToItsProxyIsNoConnection) {
    auto lost = TVKSocketConnectionLostError();
    // Lost for any other reason: an internal error, as always.
    EXPECT_EQ(TVKMSGError(lost).code, TVKMSGErrorInternal);
    lost.underlyingError =
        std::make_shared<const TVKError>(TVKSocketProxyFailureError("proxy answered 403"));
    EXPECT_TRUE(isNetworkError(*lost.underlyingError));
    const auto converted = TVKMSGError(lost);
    EXPECT_EQ(converted.code, TVKMSGErrorNetworkNoConnection);
    ASSERT_TRUE(converted.underlyingError);
    EXPECT_NE(converted.describe().find("proxy answered 403"), std::string::npos)
        << converted.describe();
}

TEST(TVKErrorModel, TheDelayAServiceAskedForSurvivesConversion) {
    for (long status : {429L, 503L}) {
        TVKError answer("TVKHTTPResponseErrorDomain", status);
        answer.failingResponseStatus = status;
        answer.failingResponseData = status == 429 ? R"({"code":"TooManyRequestsError"})" : "{}";
        answer.retryAfter = std::chrono::seconds(9);
        const auto unwrapped = TVKUnwrappedError(answer);
        EXPECT_EQ(unwrapped.retryAfter, std::chrono::seconds(9));
        const auto converted = TVKMSGError(unwrapped);
        EXPECT_EQ(converted.code, status == 429 ? TVKMSGErrorTooManyRequests : TVKMSGErrorInternal);
        EXPECT_EQ(converted.retryAfter, std::chrono::seconds(9));
    }
}

}  // namespace
