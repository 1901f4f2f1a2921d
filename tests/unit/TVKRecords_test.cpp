#include <gtest/gtest.h>

#include <boost/json.hpp>
#include <cstdint>
#include <limits>
#include <optional>
#include <string>
#include <vector>

#include "TavloMessagingSDK/DQChatProfile.hpp"
#include "TavloMessagingSDK/TVKChatUser.hpp"
#include "TavloMessagingSDK/TVKAggregatedData.hpp"
#include "TavloMessagingSDK/TVKChatMessage.hpp"
#include "TavloMessagingSDK/TVKChatMetadata.hpp"

namespace tavlo {
namespace {

using boost::json::parse;

template <class Record>
std::shared_ptr<Record> make(const char* json) {
    return DQDataObject::withJSON<Record>(parse(json));
}

constexpr std::int64_t kMax = std::numeric_limits<std::int64_t>::max();
constexpr std::int64_t kMin = std::numeric_limits<std::int64_t>::min();

// --- Users -------------------------------------------------------------------------------------

TEST(DQChatUserLabel, NumbersAndDecimalTextBecomeTheLabel) {
    struct Case {
        const char* json;
        std::optional<std::int64_t> label;
    };
    const std::vector<Case> cases = {
        {"42", 42},
        {"-3", -3},
        {"42.0", 42},
        {"9223372036854775807", kMax},
        {"-9223372036854775808", kMin},
        {R"("42")", 42},
        {R"(" \t42")", 42},
        {R"("+42")", 42},
        {R"("-42")", -42},
        {R"("0042")", 42},
        {R"("42abc")", 42},  // read up to the first character that is not a digit
        {R"("4 2")", 4},
        {R"("0x1F")", 0},
        {R"("9223372036854775807")", kMax},
        {R"("9223372036854775808")", kMax},  // saturates
        {R"("99999999999999999999999")", kMax},
        {R"("-9223372036854775808")", kMin},
        {R"("-9223372036854775809")", kMin},
        // Text without a leading number reads as 0, the way the service's other readers see it.
        {R"("")", 0},
        {R"("abc")", 0},
        {R"("-")", 0},
        {R"("  ")", 0},
        {R"("- 4")", 0},
        {"42.5", std::nullopt},
        {"9223372036854775808", std::nullopt},
        {"1e300", std::nullopt},
        {"true", std::nullopt},
        {"null", std::nullopt},
        {"[42]", std::nullopt},
        {R"({"n": 42})", std::nullopt},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.json);
        EXPECT_EQ(labelFromJSON(parse(c.json)), c.label);
        boost::json::object user{{"label", parse(c.json)}};
        auto record = DQDataObject::withJSON<DQChatUser>(user);
        ASSERT_NE(record, nullptr);
        EXPECT_EQ(record->label(), c.label);
    }
}

TEST(DQChatUser, MapsEveryFieldAndLeavesMistypedOnesUnset) {
    auto user = make<DQChatUser>(R"({"label": 7, "role": "MODERATOR", "userId": "acct",
        "name": "Ann", "avatar": "a.png", "identities": {"mail": "a@b"}, "status": "ACTIVE",
        "updatedDate": "2024-01-02T03:04:05.678+0000", "extra": 1})");
    ASSERT_NE(user, nullptr);
    EXPECT_EQ(user->label(), 7);
    EXPECT_EQ(user->role(), "MODERATOR");
    EXPECT_EQ(user->userId(), "acct");
    EXPECT_EQ(user->name(), "Ann");
    EXPECT_EQ(user->avatar(), "a.png");
    ASSERT_TRUE(user->identities().has_value());
    EXPECT_EQ(boost::json::value(*user->identities()), parse(R"({"mail": "a@b"})"));
    EXPECT_EQ(user->status(), "ACTIVE");
    EXPECT_EQ(user->updatedDate(), "2024-01-02T03:04:05.678+0000");

    auto odd = make<DQChatUser>(R"({"role": 3, "userId": null, "name": ["x"],
        "identities": "none", "status": {}, "updatedDate": false})");
    ASSERT_NE(odd, nullptr);
    EXPECT_FALSE(odd->role() || odd->userId() || odd->name() || odd->status() ||
                 odd->updatedDate() || odd->identities() || odd->label());

    EXPECT_EQ(DQDataObject::withJSON<DQChatUser>(parse("[]")), nullptr);
    EXPECT_EQ(DQDataObject::withJSON<TVKChatUser>(parse(R"("user")")), nullptr);
    auto users = DQDataObject::objectsWithArrayOfJSON<TVKChatUser>(parse(R"([{"label": 1}, 2])"));
    EXPECT_FALSE(users.has_value());
}

// --- Messages ----------------------------------------------------------------------------------

TEST(TVKChatMessage, TheValueIsTextOrPayload) {
    struct Case {
        const char* json;
        std::optional<std::string> text;
        std::optional<const char*> rawData;
    };
    const std::vector<Case> cases = {
        {R"({"id": "m", "value": "hello"})", "hello", std::nullopt},
        {R"({"id": "m", "value": {"score": 3}})", R"({"score":3})", R"({"score": 3})"},
        {R"({"id": "m", "value": [1, "two", null, 2.5, true]})", R"([1,"two",null,2.5,true])",
         R"([1, "two", null, 2.5, true])"},
        {R"({"id": "m", "value": {"a": {"b": []}, "s": "a/\"b\"\n"}})",
         R"({"a":{"b":[]},"s":"a/\"b\"\n"})", R"({"a": {"b": []}, "s": "a/\"b\"\n"})"},
        {R"({"id": "m", "value": {"u": "\u00e9\ud83d\ude00"}})",
         "{\"u\":\"\xC3\xA9\xF0\x9F\x98\x80\"}", R"({"u": "\u00e9\ud83d\ude00"})"},
        {R"({"id": "m", "value": {}})", "{}", "{}"},
        // Without "value", what the same-named keys gave stays.
        {R"({"id": "m", "text": "plain", "rawData": [1]})", "plain", "[1]"},
        // "value" wins over "text"; a scalar value leaves rawData as it was.
        {R"({"id": "m", "text": "plain", "value": "v"})", "v", std::nullopt},
        {R"({"id": "m", "rawData": {"k": 1}, "value": "v"})", "v", R"({"k": 1})"},
        {R"({"id": "m", "text": "plain", "value": {"k": 1}})", R"({"k":1})", R"({"k": 1})"},
        // A value that is no text leaves no text.
        {R"({"id": "m", "text": "plain", "value": 5})", std::nullopt, std::nullopt},
        {R"({"id": "m", "value": null})", std::nullopt, std::nullopt},
        {R"({"id": "m", "value": false})", std::nullopt, std::nullopt},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.json);
        auto message = make<TVKChatMessage>(c.json);
        ASSERT_NE(message, nullptr);
        EXPECT_EQ(message->text(), c.text);
        if (c.rawData) {
            ASSERT_TRUE(message->rawData().has_value());
            EXPECT_EQ(*message->rawData(), parse(*c.rawData));
        } else {
            EXPECT_FALSE(message->rawData().has_value());
        }
        EXPECT_EQ(message->type(), TVKChatMessage::kPlain);
    }
}

TEST(TVKChatMessage, MapsTheServiceFieldsAndTheCreator) {
    auto message = make<TVKChatMessage>(R"({"id": "m1", "messageId": "ignored", "type": 1,
        "value": "hi", "createdDate": "2024-01-02T03:04:05.678+0800", "sourceType": "IOS",
        "creator": {"label": "12", "name": "Bo", "role": "NORMAL"}, "category": "c",
        "status": "ACTIVE", "creatorLabel": 12, "parentName": "lobby"})");
    ASSERT_NE(message, nullptr);
    EXPECT_EQ(message->messageId(), "m1");
    EXPECT_EQ(message->type(), TVKChatMessage::kPlain);
    EXPECT_EQ(message->createdDate(), "2024-01-02T03:04:05.678+0800");
    EXPECT_EQ(message->sourceType(), "IOS");
    ASSERT_NE(message->creator(), nullptr);
    EXPECT_EQ(message->creator()->label(), 12);
    EXPECT_EQ(message->creator()->name(), "Bo");
    EXPECT_FALSE(message->creator()->isManipulable());
    EXPECT_EQ(message->category(), "c");
    EXPECT_EQ(message->status(), "ACTIVE");
    EXPECT_EQ(message->creatorLabel(), 12);
    EXPECT_EQ(message->parentName(), "lobby");
    EXPECT_FALSE(message->stickerURL().has_value());

    auto odd = make<TVKChatMessage>(R"({"id": 5, "creator": "Bo", "creatorLabel": "12"})");
    ASSERT_NE(odd, nullptr);
    EXPECT_FALSE(odd->messageId() || odd->creator() || odd->creatorLabel());
}

TEST(TVKChatMessage, AStickerMessageIsTypeOneWhateverTheJSONSays) {
    auto message = TVKChatMessage::withJSON(parse(R"({"id": "m", "value": ":wave:", "type": 7})"),
                                            "https://cdn.example/wave.png");
    ASSERT_NE(message, nullptr);
    EXPECT_EQ(message->type(), TVKChatMessage::kSticker);
    EXPECT_EQ(message->stickerURL(), "https://cdn.example/wave.png");
    EXPECT_EQ(message->text(), ":wave:");
    EXPECT_EQ(TVKChatMessage::withJSON(parse("[1]"), "u"), nullptr);
}

TEST(TVKChatMessage, IdentityIsTheIdAlone) {
    auto a = make<TVKChatMessage>(R"({"id": "m1", "value": "a"})");
    auto b = make<TVKChatMessage>(R"({"id": "m1", "value": "b", "status": "x"})");
    auto c = make<TVKChatMessage>(R"({"id": "m2", "value": "a"})");
    auto none1 = make<TVKChatMessage>(R"({"value": "a"})");
    auto none2 = make<TVKChatMessage>(R"({"value": "a"})");
    EXPECT_TRUE(*a == *b);
    EXPECT_EQ(std::hash<TVKChatMessage>{}(*a), std::hash<TVKChatMessage>{}(*b));
    EXPECT_FALSE(*a == *c);
    // Without an id a message equals nothing, itself included (kept deliberately).
    EXPECT_FALSE(*none1 == *none2);
    EXPECT_FALSE(*none1 == *none1);
    EXPECT_FALSE(*a == *none1);
    EXPECT_FALSE(*none1 == *a);
}

// --- Stickers and profile ----------------------------------------------------------------------

TEST(TVKChatSticker, LooksUpTheExactText) {
    auto set = make<TVKChatSticker>(R"({"name": "Waves", "mainImage": "main.png",
        "stickers": {":wave:": "wave.png", ":Wave:": "big.png", ":bad:": 3}})");
    ASSERT_NE(set, nullptr);
    EXPECT_EQ(set->name(), "Waves");
    EXPECT_EQ(set->mainImage(), "main.png");
    EXPECT_EQ(set->stickerURLWithText(":wave:"), "wave.png");
    EXPECT_EQ(set->stickerURLWithText(":Wave:"), "big.png");
    EXPECT_EQ(set->stickerURLWithText(":wave: "), std::nullopt);
    EXPECT_EQ(set->stickerURLWithText(":bad:"), std::nullopt);
    EXPECT_EQ(set->stickerURLWithText(""), std::nullopt);
    ASSERT_TRUE(set->stickers().has_value());
    EXPECT_EQ(set->stickers()->size(), 2u);

    auto empty = make<TVKChatSticker>(R"({"stickers": ["wave.png"]})");
    ASSERT_NE(empty, nullptr);
    EXPECT_FALSE(empty->stickers().has_value());
    EXPECT_EQ(empty->stickerURLWithText(":wave:"), std::nullopt);
}

// --- Aggregated counters -----------------------------------------------------------------------

TEST(TVKAggregatedItem, CountsAddAsUnsigned64BitNumbers) {
    constexpr std::uint64_t kTop = std::numeric_limits<std::uint64_t>::max();
    struct Case {
        const char* n;
        std::optional<std::uint64_t> mapped;
        std::uint64_t add;
        std::uint64_t sum;
    };
    const std::vector<Case> cases = {
        {"5", 5, 3, 8},
        {"0", 0, 0, 0},
        {"18446744073709551615", kTop, 1, 0},  // wraps past the top
        {"18446744073709551615", kTop, 0, kTop},
        {"18446744073709551614", kTop - 1, 3, 1},
        {"9223372036854775807", 9223372036854775807ULL, 1, 9223372036854775808ULL},
        {"-1", kTop, 1, 0},  // a wrapped difference, as the service may echo it
        {"-3", kTop - 2, 5, 2},
        {"7.0", 7, 1, 8},
        {"null", std::nullopt, 4, 4},  // no count counts as 0
        {R"("5")", std::nullopt, 4, 4},
        {"7.5", std::nullopt, 1, 1},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.n);
        boost::json::object json{{"key", "like"}, {"n", parse(c.n)}};
        auto item = DQDataObject::withJSON<TVKAggregatedItem>(json);
        ASSERT_NE(item, nullptr);
        EXPECT_EQ(item->key(), "like");
        EXPECT_EQ(item->count(), c.mapped);
        item->addCount(c.add);
        EXPECT_EQ(item->count(), c.sum);
    }
}

TEST(TVKAggregatedItem, AWrappedDifferenceRestoresTheLaterCount) {
    const std::uint64_t before = 10, after = 4;
    boost::json::object difference{{"key", "k"}, {"n", after - before}};
    auto item = DQDataObject::withJSON<TVKAggregatedItem>(difference);
    ASSERT_NE(item, nullptr);
    auto cached = make<TVKAggregatedItem>(R"({"key": "k", "n": 10})");
    cached->addCount(*item->count());
    EXPECT_EQ(cached->count(), after);
}

TEST(TVKAggregatedData, AListThatDoesNotMapLeavesTheBatchWithoutItems) {
    auto batch = make<TVKAggregatedData>(R"({"createdDate": "d",
        "aggregated": [{"key": "a", "n": 1}, {"key": "b", "n": 2}]})");
    ASSERT_NE(batch, nullptr);
    EXPECT_EQ(batch->createdDate(), "d");
    ASSERT_TRUE(batch->items().has_value());
    ASSERT_EQ(batch->items()->size(), 2u);
    EXPECT_EQ((*batch->items())[1]->key(), "b");
    EXPECT_EQ((*batch->items())[1]->count(), 2u);

    auto empty = make<TVKAggregatedData>(R"({"aggregated": []})");
    ASSERT_NE(empty, nullptr);
    EXPECT_TRUE(empty->items()->empty());
    auto without = make<TVKAggregatedData>(R"({"createdDate": "d"})");
    ASSERT_NE(without, nullptr);
    EXPECT_FALSE(without->items().has_value());
    EXPECT_NE(make<TVKAggregatedData>(R"({"aggregated": null})"), nullptr);

    for (const char* odd : {R"({"createdDate": "d", "aggregated": [{"key": "a"}, 3]})",
                            R"({"createdDate": "d", "aggregated": {"key": "a"}})"}) {
        SCOPED_TRACE(odd);
        auto kept = make<TVKAggregatedData>(odd);
        ASSERT_NE(kept, nullptr);
        EXPECT_EQ(kept->createdDate(), "d");
        EXPECT_FALSE(kept->items().has_value());
    }
    // So one malformed batch leaves the page around it intact.
    auto page = DQDataObject::objectsWithArrayOfJSON<TVKAggregatedData>(
        parse(R"([{"aggregated": []}, {"aggregated": "x"}])"));
    ASSERT_TRUE(page.has_value());
    EXPECT_EQ(page->size(), 2u);
}

// --- Metadata ----------------------------------------------------------------------------------

TEST(TVKChatMetadata, OnlyTheChatsOwnPublicEntriesAreRecords) {
    struct Case {
        const char* json;
        bool accepted;
    };
    const std::vector<Case> cases = {
        {R"({"key": "k", "value": 1})", true},
        {R"({"key": "k", "value": 1, "scope": "chat"})", true},
        {R"({"key": "k", "value": 1, "reserved": false})", true},
        {R"({"key": "k", "value": 1, "reserved": 0})", true},
        {R"({"key": "k", "value": 1, "reserved": "true"})", true},
        {R"({"key": "k", "value": 1, "reserved": null})", true},
        {R"({"key": "k", "value": 1, "reserved": true})", false},
        {R"({"key": "k", "value": 1, "reserved": 1})", false},
        {R"({"key": "k", "value": 1, "scope": "user"})", false},
        {R"({"key": "k", "value": 1, "scope": "Chat"})", false},
        {R"({"key": "k", "value": 1, "scope": ""})", false},
        {R"({"key": "k", "value": 1, "scope": null})", false},
        {R"({"key": "k", "value": 1, "scope": ["chat"]})", false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.json);
        EXPECT_EQ(make<TVKChatMetadata>(c.json) != nullptr, c.accepted);
    }

    auto entry = make<TVKChatMetadata>(R"({"key": "theme", "value": {"dark": true}})");
    ASSERT_NE(entry, nullptr);
    EXPECT_EQ(entry->key(), "theme");
    EXPECT_EQ(entry->value(), parse(R"({"dark": true})"));
    auto nullValue = make<TVKChatMetadata>(R"({"key": "k", "value": null})");
    ASSERT_TRUE(nullValue->value().has_value());
    EXPECT_TRUE(nullValue->value()->is_null());
    EXPECT_FALSE(make<TVKChatMetadata>(R"({"key": "k"})")->value().has_value());
}

TEST(TVKChatMetadata, TheDictionaryKeepsOnePublicEntryPerKeyTheLaterWinning) {
    const auto list = parse(R"([
        {"key": "a", "value": 1},
        {"key": "hidden", "value": 2, "reserved": true},
        {"key": "mine", "value": 3, "scope": "user"},
        "not an object",
        null,
        {"value": "no key"},
        {"key": 5, "value": "numeric key"},
        {"key": "b", "value": [1]},
        {"key": "a", "value": "later"}
    ])");
    const auto dictionary = TVKChatMetadata::dictionaryWithArrayOfJSON(list);
    ASSERT_EQ(dictionary.size(), 2u);
    EXPECT_EQ(dictionary.at("a")->value(), boost::json::value("later"));
    EXPECT_EQ(dictionary.at("b")->value(), parse("[1]"));

    EXPECT_TRUE(TVKChatMetadata::dictionaryWithArrayOfJSON(boost::json::value()).empty());
    EXPECT_TRUE(TVKChatMetadata::dictionaryWithArrayOfJSON(parse(R"({"key": "a"})")).empty());
    EXPECT_TRUE(TVKChatMetadata::dictionaryWithArrayOfJSON(boost::json::array()).empty());
}

// --- Leniency ----------------------------------------------------------------------------------

// Every field of every record fed every kind of JSON value: mapping never fails or throws for a
// mistyped member, and records refuse only what they must.
TEST(TVKRecords, MistypedMembersAreLeftUnset) {
    const std::vector<const char*> keys = {
        "id",          "value",        "text",          "rawData",
        "createdDate", "sourceType",   "creator",       "category",
        "status",      "creatorLabel", "parentName",    "type",
        "label",       "role",         "userId",        "name",
        "avatar",      "identities",   "updatedDate",   "mainImage",
        "stickers",    "channelCode",  "chatWriteMode", "inputInterval",
        "memberCount", "guestCount",   "key",           "n",
        "reserved",    "scope",        "aggregated"};
    const std::vector<const char*> values = {"null",
                                             "true",
                                             "-1",
                                             "1.5e300",
                                             R"("x")",
                                             "[]",
                                             "{}",
                                             R"([{"a": [null]}])",
                                             "18446744073709551615"};
    for (const char* key : keys) {
        for (const char* text : values) {
            SCOPED_TRACE(std::string(key) + "=" + text);
            boost::json::object json{{key, parse(text)}};
            EXPECT_NO_THROW({
                EXPECT_NE(DQDataObject::withJSON<DQChatUser>(json), nullptr);
                EXPECT_NE(DQDataObject::withJSON<TVKChatUser>(json), nullptr);
                EXPECT_NE(DQDataObject::withJSON<TVKChatMessage>(json), nullptr);
                EXPECT_NE(DQDataObject::withJSON<TVKChatSticker>(json), nullptr);
                EXPECT_NE(DQDataObject::withJSON<DQChatProfile>(json), nullptr);
                EXPECT_NE(DQDataObject::withJSON<TVKAggregatedItem>(json), nullptr);
                DQDataObject::withJSON<TVKAggregatedData>(json);
                DQDataObject::withJSON<TVKChatMetadata>(json);
            });
        }
    }
}

}  // namespace
}  // namespace tavlo
