// Reading a JWT's expiry, so that a stale one is renewed before it is sent again.

#include <gtest/gtest.h>

#include "TavloMessagingSDK/Internal/TVKJWTExpiry.hpp"

namespace tavlo {
namespace {

// base64url of the JSON text, without padding, as JWTs carry their parts.
std::string base64URL(const std::string& text) {
    static const char* alphabet =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_";
    std::string out;
    unsigned bits = 0;
    int count = 0;
    for (unsigned char c : text) {
        bits = (bits << 8) | c;
        count += 8;
        while (count >= 6) {
            count -= 6;
            out.push_back(alphabet[(bits >> count) & 63]);
        }
    }
    if (count > 0) out.push_back(alphabet[(bits << (6 - count)) & 63]);
    return out;
}

std::string jwtWith(const std::string& claims) {
    return base64URL(R"({"alg":"HS256","typ":"JWT"})") + "." + base64URL(claims) + ".c2lnbmF0dXJl";
}

TEST(TVKJWTExpiry, ReadsTheExpClaim) {
    using std::chrono::system_clock;
    const auto at = [](long long seconds) {
        return system_clock::time_point(std::chrono::seconds(seconds));
    };
    struct Case {
        std::string token;
        std::optional<system_clock::time_point> expiry;
    };
    const std::vector<Case> cases = {
        {jwtWith(R"({"sub":"alice","exp":1700000000})"), at(1700000000)},
        {jwtWith(R"({"exp":1700000000.0,"sub":"a"})"), at(1700000000)},
        // Payload lengths that leave one and two characters of padding off.
        {jwtWith(R"({"exp":1})"), at(1)},
        {jwtWith(R"({"exp":12})"), at(12)},
        {jwtWith(R"({"sub":"alice"})"), std::nullopt},
        {jwtWith(R"({"exp":"1700000000"})"), std::nullopt},
        {jwtWith(R"({"exp":1e300})"), std::nullopt},
        {jwtWith("not json"), std::nullopt},
        {jwtWith("[1,2]"), std::nullopt},
        {"", std::nullopt},
        {"only.two", std::nullopt},
        {"a.b.c.d", std::nullopt},
        {"x.!!!.y", std::nullopt},
        {"x." + std::string(20000, 'A') + ".y", std::nullopt},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(jwtExpiry(c.token), c.expiry) << c.token.substr(0, 60);
    }
}

TEST(TVKJWTExpiry, ExpiredOnlyOnceTheExpiryIsReached) {
    const auto token = jwtWith(R"({"exp":1000})");
    const auto second = [](long long s) {
        return std::chrono::system_clock::time_point(std::chrono::seconds(s));
    };
    EXPECT_FALSE(jwtHasExpired(token, second(999)));
    EXPECT_TRUE(jwtHasExpired(token, second(1000)));
    EXPECT_TRUE(jwtHasExpired(token, second(5000)));
    // A token without an expiry is the service's to judge.
    EXPECT_FALSE(jwtHasExpired(jwtWith(R"({"sub":"a"})"), second(5000)));
    EXPECT_FALSE(jwtHasExpired("", second(5000)));
}

}  // namespace
}  // namespace tavlo
