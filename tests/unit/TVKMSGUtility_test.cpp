#include "TavloMessagingSDK/TVKMSGUtility.hpp"

#include <gtest/gtest.h>

#include <boost/json.hpp>
#include <cstdint>
#include <limits>
#include <optional>
#include <string>
#include <vector>

namespace tavlo {
namespace {

using boost::json::value;

std::string repeat(std::string_view piece, std::size_t times) {
    std::string text;
    for (std::size_t i = 0; i < times; ++i) text += piece;
    return text;
}

std::string printable(std::string_view text) {
    std::string shown;
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte >= 0x20 && byte < 0x7F) {
            shown += c;
        } else {
            static constexpr char kHex[] = "0123456789ABCDEF";
            shown += "\\x";
            shown += kHex[byte >> 4];
            shown += kHex[byte & 0xF];
        }
    }
    return shown.size() > 60 ? shown.substr(0, 60) + "...(" + std::to_string(text.size()) + ")"
                             : shown;
}

// --- Personal chatrooms -------------------------------------------------------------------------

TEST(PersonalChatPrefix, RecognisesAddsAndRemovesTheLowerCasePrefix) {
    struct Case {
        std::string name;
        bool personal;
        std::string added;
        std::string withoutPrefix;
    };
    const std::vector<Case> cases = {
        {"lobby", false, "p#lobby", "lobby"},
        {"p#a", true, "p#p#a", "a"},  // deliberate: adding does not look for an existing prefix
        {"p#", true, "p#p#", ""},
        {"p#p#a", true, "p#p#p#a", "p#a"},  // only one prefix comes off
        {"P#a", false, "p#P#a", "P#a"},     // case-sensitive
        {"", false, "p#", ""},
        {"p", false, "p#p", "p"},
        {"ap#", false, "p#ap#", "ap#"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(isKindOfPersonalChatroomName(c.name), c.personal);
        EXPECT_EQ(addPersonalChatPrefix(c.name), c.added);
        EXPECT_EQ(withoutPrefixChatroomName(c.name), c.withoutPrefix);
    }
}

// --- Identifiers and keys -----------------------------------------------------------------------

TEST(IsLegalArchivedId, AcceptsTenToThirtyTwoLettersDigitsUnderscoresAndHyphens) {
    const std::vector<std::pair<std::string, bool>> cases = {
        {"abcdefghij", true},
        {"abcdefghi", false},
        {repeat("a", 32), true},
        {repeat("a", 33), false},
        {"A1_-z9Z0_-", true},
        {"abcde.fghij", false},
        {"abcde fghij", false},
        {"abcdefghij\n", false},
        {std::string("abcde\0fghij", 11), false},
        {repeat("\xC3\xA9", 5), false},  // ten bytes, but five non-Latin letters
        {"", false},
    };
    for (const auto& [id, legal] : cases) {
        EXPECT_EQ(isLegalArchivedId(id), legal) << printable(id);
    }
}

TEST(IsLegalChatMetadataKey, AcceptsOneToThirtyCharactersStartingWithALetterOrDigit) {
    const std::vector<std::pair<std::string, bool>> cases = {
        {"a", true},
        {"7", true},
        {"Z", true},
        {"_a", false},
        {"@a", false},
        {"#", false},
        {"-a", false},
        {"a@b#c-d_e", true},
        {"a_@#-", true},
        {repeat("k", 20), true},
        {repeat("k", 30), true},
        {"a" + repeat("@", 29), true},
        {repeat("k", 31), false},
        {"", false},
        {"a b", false},
        {"a.b", false},
        {"a\n", false},
        {"a\xC3\xA9", false},
    };
    for (const auto& [key, legal] : cases) {
        EXPECT_EQ(isLegalChatMetadataKey(key), legal) << printable(key);
    }
}

// --- UTF-16 length ------------------------------------------------------------------------------

TEST(Utf16Length, CountsOneUnitPerBmpCharacterAndTwoAboveIt) {
    const std::vector<std::pair<std::string, std::size_t>> cases = {
        {"", 0},
        {"abc", 3},
        {"\xC3\xA9", 1},                  // é, two bytes
        {"\xE4\xB8\xAD\xE6\x96\x87", 2},  // two CJK characters, three bytes each
        {"\xF0\x9F\x98\x80", 2},          // an emoji: a surrogate pair
        {"a\xF0\x9F\x98\x80\xC3\xA9\xE4\xB8\xAD", 5},
        {"\xEF\xBF\xBF", 1},      // U+FFFF, the last BMP character
        {"\xF4\x8F\xBF\xBF", 2},  // U+10FFFF, the last character
    };
    for (const auto& [text, units] : cases) {
        EXPECT_EQ(utf16Length(text), units) << printable(text);
    }
}

TEST(Utf16Length, CountsEachMaximalIllFormedSubpartAsOneUnit) {
    const std::vector<std::pair<std::string, std::size_t>> cases = {
        {"\x80", 1},      // stray continuation byte
        {"\xFF\xFE", 2},  // bytes that never occur in UTF-8
        {"\xC0\x80", 2},  // overlong NUL: invalid lead, then a stray continuation
        {"\xE2\x82", 1},  // truncated three-byte sequence at the end
        {"\xE2\x82"
         "a",
         2},                                  // truncated, followed by a character
        {"\xED\xA0\x80", 3},                  // an encoded surrogate
        {"\xF4\x90\x80\x80", 4},              // beyond U+10FFFF
        {"\xF0\x9F\x98", 1},                  // truncated four-byte sequence
        {"\xF0\x9F\x98\xF0\x9F\x98\x80", 3},  // truncated, then a whole emoji
    };
    for (const auto& [text, units] : cases) {
        EXPECT_EQ(utf16Length(text), units) << printable(text);
    }
}

// --- Metadata value text ------------------------------------------------------------------------

TEST(ConvertToJSONValueString, WritesScalarsByTheirOwnRules) {
    const double nan = std::numeric_limits<double>::quiet_NaN();
    const double infinity = std::numeric_limits<double>::infinity();
    const std::vector<std::pair<value, std::string>> cases = {
        {nullptr, "null"},
        {"abc", "\"abc\""},
        {"", "\"\""},
        {"a\"b\\c\n", "\"a\"b\\c\n\""},  // deliberate: a string is quoted, not escaped
        {"\xFF", "\"\xFF\""},
        {42, "42"},
        {-7, "-7"},
        {std::numeric_limits<std::uint64_t>::max(), "18446744073709551615"},
        {std::numeric_limits<std::int64_t>::min(), "-9223372036854775808"},
        {1.5, "1.5"},
        {3.0, "3"},
        {0.1, "0.1"},
        {-0.25, "-0.25"},
        {1e300, "1e+300"},
        {nan, "nan"},  // a bare number keeps its text; only JSON containers refuse non-finite ones
        {infinity, "inf"},
        {true, "1"},
        {false, "0"},
    };
    for (const auto& [input, text] : cases) {
        EXPECT_EQ(convertToJSONValueString(input), text) << boost::json::serialize(input);
    }
}

TEST(ConvertToJSONValueString, WritesContainersAsCompactJSON) {
    const std::vector<std::string> texts = {
        R"({"n":1,"a":[1,2.5,"x",null,true,false,-3]})",
        R"([])",
        R"({})",
        R"([[[]],{"k":{"l":[{}]}}])",
        R"({"quote":"a\"b","back":"c\\d","line":"e\nf","control":"\u0001"})",
        R"(["caf)"
        "\xC3\xA9"
        R"("])",
        R"({"big":18446744073709551615,"small":-9223372036854775808})",
    };
    for (const auto& text : texts) {
        EXPECT_EQ(convertToJSONValueString(boost::json::parse(text)), text);
    }
}

TEST(ConvertToJSONValueString, RefusesContainersThatNoJSONTextCanHold) {
    const double nan = std::numeric_limits<double>::quiet_NaN();
    const double infinity = std::numeric_limits<double>::infinity();
    const std::vector<value> refused = {
        boost::json::array{1, nan},
        boost::json::object{{"a", boost::json::array{-infinity}}},
        boost::json::array{"ok", "\xC3"},
        boost::json::object{{"\xFF", 1}},
    };
    for (const auto& input : refused) {
        EXPECT_EQ(convertToJSONValueString(input), std::nullopt);
        EXPECT_FALSE(isLegalChatMetadataValue(input, false));
    }
}

TEST(ConvertToJSONValueString, WritesDeeplyNestedArraysWithoutRecursion) {
    constexpr std::size_t kDepth = 3000;
    value nested = boost::json::array{};
    for (std::size_t i = 1; i < kDepth; ++i) {
        boost::json::array outer;
        outer.emplace_back(std::move(nested));
        nested = std::move(outer);
    }
    const auto text = convertToJSONValueString(nested);
    ASSERT_TRUE(text.has_value());
    EXPECT_EQ(*text, repeat("[", kDepth) + repeat("]", kDepth));
    EXPECT_FALSE(isLegalChatMetadataValue(nested, true));
    EXPECT_FALSE(isLegalChatMetadataValue(nested, false));
}

// --- Metadata value limits ----------------------------------------------------------------------

TEST(IsLegalChatMetadataValue, LimitsTheTextTo1024UnitsWhenBroadcastAnd4096Otherwise) {
    struct Case {
        std::string label;
        value input;
        bool broadcast;
        bool legal;
    };
    const std::string emoji = "\xF0\x9F\x98\x80";
    const std::string cjk = "\xE4\xB8\xAD";
    const std::vector<Case> cases = {
        {"1022 ASCII", value(repeat("a", 1022)), true, true},
        {"1023 ASCII", value(repeat("a", 1023)), true, false},
        {"1023 ASCII unbroadcast", value(repeat("a", 1023)), false, true},
        {"4094 ASCII", value(repeat("a", 4094)), false, true},
        {"4095 ASCII", value(repeat("a", 4095)), false, false},
        {"1022 CJK", value(repeat(cjk, 1022)), true, true},  // 3066 bytes, 1022 units
        {"1023 CJK", value(repeat(cjk, 1023)), true, false},
        {"4094 CJK", value(repeat(cjk, 4094)), false, true},
        {"4095 CJK", value(repeat(cjk, 4095)), false, false},
        {"511 emoji", value(repeat(emoji, 511)), true, true},  // 1022 units
        {"512 emoji", value(repeat(emoji, 512)), true, false},
        {"510 emoji and 2", value(repeat(emoji, 510) + "ab"), true, true},
        {"510 emoji and 3", value(repeat(emoji, 510) + "abc"), true, false},
        {"array of 1020", boost::json::array{value(repeat("x", 1020))}, true, true},
        {"array of 1021", boost::json::array{value(repeat("x", 1021))}, true, false},
        {"empty string", "", true, true},
        {"true", true, true, true},
        {"null", nullptr, true, true},
        {"number", 1.25, true, true},
        {"object", boost::json::object{{"k", 1}}, true, true},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(isLegalChatMetadataValue(c.input, c.broadcast), c.legal) << c.label;
    }
}

// --- Time stamps --------------------------------------------------------------------------------

constexpr std::uint64_t kAllBits = std::numeric_limits<std::uint64_t>::max();

TEST(UnixTimeValue, ReadsMillisecondsSince1970InTheTextsOwnZone) {
    const std::vector<std::pair<std::string, std::uint64_t>> cases = {
        {"1970-01-01T00:00:00.000+0000", 0},
        {"1970-01-01T00:00:00.001Z", 1},
        {"2020-05-04T12:34:56.789+0800", 1588566896789},
        {"2020-05-04T12:34:56.789+08:00", 1588566896789},
        {"2020-05-04T04:34:56.789Z", 1588566896789},
        {"2020-05-03T23:04:56.789-05:30", 1588566896789},
        {"2020-02-29T23:59:59.999-0130", 1583026199999},
        {"2024-01-01T08:00:00.000+0800", 1704067200000},
        {"9999-12-31T23:59:59.999+0000", 253402300799999},
        // Before 1970: the bit pattern of the negative count.
        {"1969-12-31T23:59:59.999+0000", kAllBits},
        {"1970-01-01T00:00:00.000+0001", kAllBits - 60000 + 1},
        {"0001-01-01T00:00:00.000+0000", static_cast<std::uint64_t>(-62135596800000)},
    };
    for (const auto& [text, milliseconds] : cases) {
        EXPECT_EQ(unixTimeValue(text), milliseconds) << text;
    }
}

// The year field is the week-based year, but with a month and a day and no week number it reads
// as the calendar year: days that belong to the neighbouring week-year stay where they are.
TEST(UnixTimeValue, ReadsTheWeekBasedYearAsTheCalendarYearOfTheMonthAndDay) {
    const std::vector<std::pair<std::string, std::uint64_t>> cases = {
        {"2019-12-30T00:00:00.000+0000", 1577664000000},  // a day of week 1 of 2020
        {"2019-12-31T23:59:59.999+0000", 1577836799999},
        {"2021-01-01T00:00:00.000+0000", 1609459200000},  // a day of week 53 of 2020
        {"2021-01-03T12:00:00.000+0000", 1609675200000},
        {"2016-01-01T00:00:00.000+0000", 1451606400000},  // a day of week 53 of 2015
    };
    for (const auto& [text, milliseconds] : cases) {
        EXPECT_EQ(unixTimeValue(text), milliseconds) << text;
    }
}

TEST(UnixTimeValue, IsZeroForTextThatDoesNotParse) {
    const std::vector<std::string> texts = {
        "garbage",
        "",
        "2019-02-29T00:00:00.000+0000",  // not a leap year
        "2020-04-31T00:00:00.000+0000",
        "2020-13-01T00:00:00.000+0000",
        "2020-00-10T00:00:00.000+0000",
        "2020-01-00T00:00:00.000+0000",
        "2020-05-04T24:00:00.000+0000",
        "2020-05-04T23:60:00.000+0000",
        "2020-05-04T23:59:60.000+0000",
        "2020-05-04T12:34:56+0800",  // no milliseconds
        "2020-05-04T12:34:56.78+0800",
        "2020-05-04T12:34:56.7890+0800",
        "2020-05-04 12:34:56.789+0800",
        "2020-05-04T12:34:56.789",  // no zone
        "2020-05-04T12:34:56.789+08",
        "2020-05-04T12:34:56.789+8:00",
        "2020-05-04T12:34:56.789+2400",
        "2020-05-04T12:34:56.789+0860",
        "2020-05-04T12:34:56.789z",
        "2020-05-04T12:34:56.789+0800 ",
        " 2020-05-04T12:34:56.789+0800",
        std::string("2020-05-04T12:34:56.789+0800\0", 29),
        "2020-5-04T12:34:56.789+0800",
        "-2020-05-04T12:34:56.789+0800",
        "20200504T123456.789+0800",
        "2020-05-04T12:34:56.789+08:00:00",
    };
    for (const auto& text : texts) {
        EXPECT_EQ(unixTimeValue(text), 0u) << printable(text);
    }
}

}  // namespace
}  // namespace tavlo
