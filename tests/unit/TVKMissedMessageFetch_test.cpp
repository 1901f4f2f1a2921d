// Paging through what a chatroom missed, against an in-memory message list that answers like the
// service (time bound inclusive, oldest first, count and offset): overlapping pages, pages that
// fall inside one millisecond, the limit, and a failure half-way.

#include "TavloMessagingSDK/Internal/TVKMissedMessageFetch.hpp"

#include <gtest/gtest.h>

#include <optional>

#include "TavloMessagingSDK/TVKChatMessage.hpp"
#include "TavloMessagingSDK/Internal/TVKMessageCursor.hpp"
#include "TavloMessagingSDK/Internal/TVKMessagingError.hpp"

namespace tavlo {
namespace {

namespace json = boost::json;
using Fetch = TVKMissedMessageFetch;

std::string stamp(std::int64_t ms) {
    // 2024-05-01T12:00:00.000+0000 is 1714564800000 ms; the tests stay within that minute.
    const std::int64_t inMinute = ms - 1714564800000;
    char text[64];
    std::snprintf(text, sizeof text, "2024-05-01T12:00:%02lld.%03lld+0000",
                  static_cast<long long>(inMinute / 1000), static_cast<long long>(inMinute % 1000));
    return text;
}

constexpr std::int64_t kStart = 1714564800000;

/// The service's message list of one chatroom.
struct Service {
    struct Stored {
        std::string id, msgType;
        std::int64_t time;
    };
    std::vector<Stored> messages;  // in time order
    std::vector<json::object> queries;
    std::optional<std::size_t> failOnRequest;  // 0-based

    void add(const std::string& id, std::int64_t time, const std::string& msgType = "text") {
        messages.push_back({id, msgType, time});
    }

    Fetch::ListPage listPage() {
        return [this](const json::object& query, auto success, auto failure) {
            queries.push_back(query);
            if (failOnRequest && queries.size() - 1 == *failOnRequest) {
                return failure(TVKHTTPDataMissingError());
            }
            const auto oldest = query.at("oldestDate").to_number<std::int64_t>();
            const auto offset = query.at("offset").to_number<std::size_t>();
            const auto count = query.at("count").to_number<std::size_t>();
            EXPECT_EQ(query.at("order"), "asc");
            Fetch::Messages page;
            std::size_t skipped = 0;
            for (const auto& stored : messages) {
                if (stored.msgType != query.at("msgType").as_string() || stored.time < oldest)
                    continue;
                if (skipped++ < offset) continue;
                if (page.size() == count) break;
                page.push_back(TVKChatMessage::withJSON<TVKChatMessage>(json::object{
                    {"id", stored.id}, {"createdDate", stamp(stored.time)}, {"value", stored.id}}));
            }
            success(page);
        };
    }
};

struct Outcome {
    std::optional<Fetch::Result> result;
    std::optional<TVKError> error;
    std::vector<std::string> ids() const {
        std::vector<std::string> ids;
        for (const auto& missed : result->messages) ids.push_back(*missed.message->messageId());
        return ids;
    }
};

Outcome fetch(
    Service& service, std::int64_t since, unsigned limit,
    Fetch::IsDelivered isDelivered = [](const TVKChatMessage&) { return false; }) {
    Outcome outcome;
    Fetch::start(
        service.listPage(), since, std::move(isDelivered), limit,
        [&](const Fetch::Result& result) { outcome.result = result; },
        [&](const TVKError& error) { outcome.error = error; });
    return outcome;
}

std::vector<std::string> numbered(const std::string& prefix, int from, int to) {
    std::vector<std::string> ids;
    for (int i = from; i < to; ++i) ids.push_back(prefix + std::to_string(i));
    return ids;
}

TEST(MissedMessageFetch, PagesFollowTheTimeAndMergeTheKindsInTimeOrder) {
    Service service;
    service.add("old", kStart);  // before the cursor: history
    service.add("seen", kStart + 10);
    for (int i = 0; i < 250; ++i) service.add("t" + std::to_string(i), kStart + 11 + i);
    service.add("r0", kStart + 15, "raw");
    service.add("r1", kStart + 300, "raw");

    auto outcome = fetch(service, kStart + 10, 1000, [](const TVKChatMessage& message) {
        return message.messageId() == "seen";
    });
    ASSERT_TRUE(outcome.result);
    // r0 shares its millisecond with t4: within a time, text comes first.
    auto expected = numbered("t", 0, 5);
    expected.push_back("r0");
    for (auto& id : numbered("t", 5, 250)) expected.push_back(id);
    expected.push_back("r1");
    EXPECT_EQ(outcome.ids(), expected);
    EXPECT_FALSE(outcome.result->truncated);
    // Three text pages (each from the last time seen), one raw page.
    ASSERT_EQ(service.queries.size(), 4u);
    EXPECT_EQ(service.queries[1].at("oldestDate"), kStart + 11 + 98);
    EXPECT_EQ(service.queries[1].at("offset"), 0);
}

TEST(MissedMessageFetch, AWholePageInOneMillisecondIsSteppedPastByOffset) {
    Service service;
    for (int i = 0; i < 230; ++i) service.add("same" + std::to_string(i), kStart + 5);
    service.add("after", kStart + 6);

    auto outcome = fetch(service, kStart, 1000);
    ASSERT_TRUE(outcome.result);
    auto expected = numbered("same", 0, 230);
    expected.push_back("after");
    EXPECT_EQ(outcome.ids(), expected);
}

TEST(MissedMessageFetch, BeyondTheLimitTheOldestAreKeptAndTheRestIsMarked) {
    Service service;
    for (int i = 0; i < 30; ++i) service.add("t" + std::to_string(i), kStart + i);
    for (int i = 0; i < 5; ++i) service.add("r" + std::to_string(i), kStart + 2 * i, "raw");

    auto exact = fetch(service, kStart, 35);
    ASSERT_TRUE(exact.result);
    EXPECT_FALSE(exact.result->truncated);
    EXPECT_EQ(exact.ids().size(), 35u);

    auto capped = fetch(service, kStart, 10);
    ASSERT_TRUE(capped.result);
    EXPECT_TRUE(capped.result->truncated);
    EXPECT_EQ(capped.ids(), (std::vector<std::string>{"t0", "r0", "t1", "t2", "r1", "t3", "t4",
                                                      "r2", "t5", "t6"}));
    EXPECT_EQ(capped.result->resumeAt, kStart + 6);
}

TEST(MissedMessageFetch, AFailureOnALaterPageDeliversNothing) {
    Service service;
    for (int i = 0; i < 150; ++i) service.add("t" + std::to_string(i), kStart + i);
    service.failOnRequest = 1;
    auto outcome = fetch(service, kStart, 1000);
    EXPECT_FALSE(outcome.result);
    ASSERT_TRUE(outcome.error);
}

TEST(MessageCursor, RemembersDeliveriesAndOnlyMovesForward) {
    TVKMessageCursor cursor;
    auto message = [](const std::string& id, std::int64_t time) {
        return TVKChatMessage::withJSON<TVKChatMessage>(
            json::object{{"id", id}, {"createdDate", stamp(time)}});
    };
    EXPECT_FALSE(cursor.time());
    cursor.delivered(*message("b", kStart + 20));
    cursor.delivered(*message("a", kStart + 10));  // late arrival: remembered, time stays
    EXPECT_EQ(cursor.time(), kStart + 20);
    EXPECT_TRUE(cursor.wasDelivered(*message("a", kStart)));
    EXPECT_FALSE(cursor.wasDelivered(*message("c", kStart + 20)));
    // Without an id nothing can be recognised; without a time the cursor does not move.
    cursor.delivered(*TVKChatMessage::withJSON<TVKChatMessage>(json::object{{"text", "x"}}));
    EXPECT_EQ(cursor.time(), kStart + 20);
    for (std::size_t i = 0; i < TVKMessageCursor::kRememberedIds; ++i) {
        cursor.delivered(*message("n" + std::to_string(i), kStart + 30));
    }
    EXPECT_FALSE(cursor.wasDelivered(*message("b", kStart)));  // the oldest id was let go
}

}  // namespace
}  // namespace tavlo
