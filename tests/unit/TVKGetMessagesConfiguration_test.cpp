#include "TavloMessagingSDK/TVKGetMessagesConfiguration.hpp"

#include <gtest/gtest.h>

#include <boost/json.hpp>
#include <cstdint>
#include <limits>
#include <string>
#include <vector>

namespace tavlo {
namespace {

using boost::json::value;

constexpr std::int64_t kInt64Max = std::numeric_limits<std::int64_t>::max();

std::vector<std::string> keysOf(const boost::json::object& object) {
    std::vector<std::string> keys;
    for (const auto& member : object) keys.emplace_back(member.key());
    return keys;
}

TEST(TVKGetMessagesConfiguration, DefaultsToTheFirstTenTextMessagesNewestFirst) {
    const TVKGetMessagesConfiguration configuration;
    const auto parameters = configuration.getConfigurationDictionary();
    EXPECT_EQ(value(parameters),
              boost::json::parse(R"({"count":10,"offset":0,"order":"desc","msgType":"text"})"));
    EXPECT_EQ(keysOf(parameters),
              (std::vector<std::string>{"count", "offset", "order", "msgType"}));
    EXPECT_TRUE(parameters.at("count").is_uint64());
    EXPECT_TRUE(parameters.at("offset").is_int64());
}

TEST(TVKGetMessagesConfiguration, TranslatesPagesIntoACappedCountAndAnOffset) {
    // Each page of 100 messages up to this one ends at or below 2^63-1; the next would not.
    constexpr std::int64_t kLastWholePage = kInt64Max / 100 + 1;
    const double nan = std::numeric_limits<double>::quiet_NaN();
    struct Case {
        value page;
        value perPage;
        std::uint64_t count;
        std::int64_t offset;
    };
    const std::vector<Case> cases = {
        {1, 10, 10, 0},
        {3, 20, 20, 40},
        {1, 250, 100, 0},
        {2, 100, 100, 100},
        {2, 99, 99, 99},
        {1, 1, 1, 0},
        {1, 0, 10, 0},
        {1, -5, 10, 0},
        {0, 10, 10, 0},
        {-2, 10, 10, 0},
        {std::int64_t{1} << 62, 100, 100, kInt64Max},
        {kLastWholePage, 100, 100, (kLastWholePage - 1) * 100},
        {kLastWholePage + 1, 100, 100, kInt64Max},
        {kInt64Max, 1, 1, kInt64Max - 1},
        {kInt64Max, 2, 2, kInt64Max},
        // Numbers read by their integer part; beyond the 64-bit range, the nearest 64-bit value.
        {2.9, 20.7, 20, 20},
        {0.5, 0.5, 10, 0},
        {std::numeric_limits<std::uint64_t>::max(), 1, 1, kInt64Max - 1},
        {1e300, 1, 1, kInt64Max - 1},
        {-1e300, -1e300, 10, 0},
        {nan, nan, 10, 0},
        {true, true, 1, 0},
        {false, false, 10, 0},
        // What the setters would never store still reads as the defaults.
        {"3", nullptr, 10, 0},
        {boost::json::array{3}, boost::json::object{}, 10, 0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE("page " + boost::json::serialize(c.page) + ", perPage " +
                     boost::json::serialize(c.perPage));
        const auto countAndOffset =
            TVKGetMessagesConfiguration::convertToCountAndOffsetWithPage(c.page, c.perPage);
        EXPECT_EQ(countAndOffset.size(), 2u);
        EXPECT_EQ(countAndOffset.at("count"), value(c.count));
        EXPECT_EQ(countAndOffset.at("offset"), value(c.offset));
    }
}

TEST(TVKGetMessagesConfiguration, SettersKeepPageAndPerPageNumbers) {
    struct Case {
        value given;
        value page;
        value perPage;
    };
    const std::vector<Case> cases = {
        {"2", 1, 10},
        {nullptr, 1, 10},
        {boost::json::array{5}, 1, 10},
        {boost::json::object{{"page", 5}}, 1, 10},
        {0, 0, 0},  // stored as given; read as the defaults when translated
        {-2, -2, -2},
        {250, 250, 250},
        {2.5, 2.5, 2.5},
        {true, true, true},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(boost::json::serialize(c.given));
        TVKGetMessagesConfiguration configuration;
        configuration.setPage(c.given);
        configuration.setPerPage(c.given);
        EXPECT_EQ(configuration.page(), c.page);
        EXPECT_EQ(configuration.perPage(), c.perPage);
    }
}

TEST(TVKGetMessagesConfiguration, SendsAscendingOnlyForOrderZero) {
    const std::vector<std::pair<std::uint64_t, std::string>> cases = {
        {0, "asc"}, {1, "desc"}, {2, "desc"}, {std::numeric_limits<std::uint64_t>::max(), "desc"}};
    for (const auto& [order, text] : cases) {
        TVKGetMessagesConfiguration configuration;
        configuration.setOrder(order);
        EXPECT_EQ(configuration.getConfigurationDictionary().at("order"), value(text)) << order;
    }
}

TEST(TVKGetMessagesConfiguration, PassesOnlyTheTimeBoundsThatAreSet) {
    TVKGetMessagesConfiguration configuration;
    configuration.setOldestDate(1588566896789);
    auto parameters = configuration.getConfigurationDictionary();
    EXPECT_EQ(parameters.at("oldestDate"), value(1588566896789));
    EXPECT_FALSE(parameters.contains("latestDate"));

    configuration.setLatestDate(1.5e12);
    configuration.setPage(3);
    configuration.setPerPage(20);
    configuration.setOrder(0);
    configuration.setMsgType("aggregate");
    parameters = configuration.getConfigurationDictionary();
    EXPECT_EQ(keysOf(parameters), (std::vector<std::string>{"count", "offset", "oldestDate",
                                                            "latestDate", "order", "msgType"}));
    EXPECT_EQ(value(parameters), boost::json::parse(R"({"count":20,"offset":40,
        "oldestDate":1588566896789,"latestDate":1.5e12,"order":"asc","msgType":"aggregate"})"));
    EXPECT_TRUE(parameters.at("latestDate").is_double());  // passed on without conversion

    configuration.setOldestDate(nullptr);
    EXPECT_FALSE(configuration.getConfigurationDictionary().contains("oldestDate"));
}

}  // namespace
}  // namespace tavlo
