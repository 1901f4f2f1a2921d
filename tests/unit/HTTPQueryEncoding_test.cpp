#include <gtest/gtest.h>

#include <boost/json.hpp>

#include "Networking/HTTPSessionManager.hpp"
#include "TavloCoreSDK/Internal/TVKPercentEncoding.hpp"

namespace tavlo::net {
namespace {

using boost::json::object;

struct QueryCase {
    const char* name;
    object parameters;
    std::string expected;
};

class EncodeQueryTest : public ::testing::TestWithParam<QueryCase> {};

TEST_P(EncodeQueryTest, EncodesParameters) {
    EXPECT_EQ(encodeQuery(GetParam().parameters), GetParam().expected);
}

INSTANTIATE_TEST_SUITE_P(
    Cases, EncodeQueryTest,
    ::testing::Values(
        QueryCase{"Empty", object{}, ""},
        QueryCase{"PairsOrderedByKey",
                  object{{"userToken", "t"}, {"chatId", "c"}, {"b", "2"}, {"a", "1"}},
                  "a=1&b=2&chatId=c&userToken=t"},
        QueryCase{"UppercaseSortsBeforeLowercase", object{{"b", 1}, {"B", 2}, {"a", 3}},
                  "B=2&a=3&b=1"},
        QueryCase{"ArrayKeepsElementOrderUnderBrackets",
                  object{{"roles", {"NORMAL", "MASTER", "BLOCKED"}}, {"chatId", "c"}},
                  "chatId=c&roles%5B%5D=NORMAL&roles%5B%5D=MASTER&roles%5B%5D=BLOCKED"},
        QueryCase{"EmptyArrayHasNoPair", object{{"keys", boost::json::array{}}, {"a", "1"}}, "a=1"},
        QueryCase{"Numbers", object{{"i", -7}, {"u", 18446744073709551615ull}, {"d", 0.5}},
                  "d=0.5&i=-7&u=18446744073709551615"},
        QueryCase{"WholeDoubleReadsAsInteger", object{{"oldest", 1700000000000.0}},
                  "oldest=1700000000000"},
        QueryCase{"Booleans", object{{"yes", true}, {"no", false}}, "no=false&yes=true"},
        QueryCase{"NullsAndObjectsLeftOut",
                  object{{"n", nullptr}, {"o", object{{"x", 1}}}, {"a", {1, nullptr, "z"}}},
                  "a%5B%5D=1&a%5B%5D=z"},
        QueryCase{"ReservedCharactersEncoded",
                  object{{"q", "a b+c&d=e/f?g#h%i:j@k[l]m,n;o'p!q*r(s)t$u"}},
                  "q=a%20b%2Bc%26d%3De%2Ff%3Fg%23h%25i%3Aj%40k%5Bl%5Dm%2Cn%3Bo%27p%21q%2Ar%28s%29t%"
                  "24u"},
        QueryCase{"UnreservedCharactersKept", object{{"k", "AZaz09-._~"}}, "k=AZaz09-._~"},
        QueryCase{"NonASCIIEncodedAsUTF8Bytes", object{{"name", "Jürg 🙂"}},
                  "name=J%C3%BCrg%20%F0%9F%99%82"},
        QueryCase{"KeysEncodedToo", object{{"a key&", "v"}}, "a%20key%26=v"}),
    [](const auto& info) { return std::string(info.param.name); });

TEST(PercentEncodeTest, EncodesEveryByteOutsideUnreservedSetAndDecodesBack) {
    const std::pair<std::string, std::string> cases[] = {
        {"", ""},
        {"AZaz09-._~", "AZaz09-._~"},
        {" +%/=&#", "%20%2B%25%2F%3D%26%23"},
        {std::string("\x00\x7f\xff", 3), "%00%7F%FF"},
    };
    for (const auto& [plain, encoded] : cases) {
        EXPECT_EQ(percentEncode(plain), encoded);
        EXPECT_EQ(percentDecode(encoded), plain);
    }
}

TEST(PercentDecodeTest, PlusStaysAndMalformedEscapesStayAsTheyStand) {
    const std::pair<std::string, std::string> cases[] = {
        {"a+b", "a+b"}, {"%2b%2B", "++"}, {"%zz%4", "%zz%4"}, {"%", "%"}, {"100%", "100%"},
    };
    for (const auto& [encoded, decoded] : cases) EXPECT_EQ(percentDecode(encoded), decoded);
}

struct ResolveCase {
    const char* name;
    const char* base;
    const char* reference;
    const char* expected;
};

class ResolveURLTest : public ::testing::TestWithParam<ResolveCase> {};

TEST_P(ResolveURLTest, Resolves) {
    EXPECT_EQ(resolveURL(GetParam().base, GetParam().reference), GetParam().expected);
}

INSTANTIATE_TEST_SUITE_P(
    Cases, ResolveURLTest,
    ::testing::Values(
        ResolveCase{"AbsolutePathOnHost", "https://api.example.com", "/api-tokens",
                    "https://api.example.com/api-tokens"},
        ResolveCase{"AbsolutePathReplacesBasePath", "https://api.example.com/v1/room/",
                    "/chat-meta/TOKEN", "https://api.example.com/chat-meta/TOKEN"},
        ResolveCase{"PortKept", "http://127.0.0.1:41234/some/path", "/get-users-by-chat/t",
                    "http://127.0.0.1:41234/get-users-by-chat/t"},
        ResolveCase{"BaseQueryDropped", "https://h/a?x=1", "/b", "https://h/b"},
        ResolveCase{"RelativeReplacesLastSegment", "https://h/archive/index.json", "meta",
                    "https://h/archive/meta"},
        ResolveCase{"RelativeBelowTrailingSlash", "https://h/archive/", "meta",
                    "https://h/archive/meta"},
        ResolveCase{"RelativeOnBareHost", "https://h:8443", "meta", "https://h:8443/meta"},
        ResolveCase{"DoubleTrailingSlashKeepsEmptySegment", "https://h/a//", "b", "https://h/a//b"},
        ResolveCase{"TrailingSlashInReferenceKept", "https://h/a", "/b/c/", "https://h/b/c/"},
        ResolveCase{"DotSegmentsRemoved", "https://h/a/b/c", "../d/./e", "https://h/a/d/e"},
        ResolveCase{"DotSegmentsCannotClimbAboveRoot", "https://h/a", "/../../x", "https://h/x"},
        ResolveCase{"AbsoluteURLStands", "https://h/a", "http://other:81/x?y=1",
                    "http://other:81/x?y=1"},
        ResolveCase{"NetworkPathKeepsScheme", "https://h/a", "//cdn.example.com/f",
                    "https://cdn.example.com/f"},
        ResolveCase{"QueryOnlyKeepsPath", "https://h/a/b?old=1", "?new=2", "https://h/a/b?new=2"},
        ResolveCase{"EmptyReferenceIsBase", "https://h/a?q=1", "", "https://h/a?q=1"},
        ResolveCase{"ReferenceQueryKept", "https://h", "/p/?chatId=1", "https://h/p/?chatId=1"},
        ResolveCase{"ColonInPathIsNoScheme", "https://h/a/", "./x:y", "https://h/a/x:y"}),
    [](const auto& info) { return std::string(info.param.name); });

}  // namespace
}  // namespace tavlo::net
