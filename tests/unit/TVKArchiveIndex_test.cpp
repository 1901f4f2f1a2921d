#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <future>
#include <limits>
#include <random>

#include "Networking/TVKNetworkError.hpp"
#include "TavloMessagingSDK/Internal/TVKArcmsgHTTPClient.hpp"
#include "TavloMessagingSDK/Internal/TVKMessagingError.hpp"
#include "TavloMessagingSDK/TVKArchivedChat.hpp"
#include "TavloMessagingSDK/TVKChatMessage.hpp"
#include "TavloMessagingSDK/TVKGetMessagesConfiguration.hpp"

using namespace tavlo;
namespace json = boost::json;

namespace {

using Messages = TVKArchivedMessagesFile::Messages;
using Files = TVKArchivedMessagesMeta::Files;
constexpr std::uint64_t kNotFound = kTVKNotFoundIndex;
constexpr std::uint64_t kWrappedMinusOne = std::numeric_limits<std::uint64_t>::max();

// A service time stamp `ms` milliseconds after 1970-01-01T00:00:00Z (within the first day).
std::string stamp(std::uint64_t ms) {
    char text[40];
    std::snprintf(text, sizeof text, "1970-01-01T%02u:%02u:%02u.%03u+0000",
                  static_cast<unsigned>(ms / 3600000), static_cast<unsigned>(ms / 60000 % 60),
                  static_cast<unsigned>(ms / 1000 % 60), static_cast<unsigned>(ms % 1000));
    return text;
}

Messages messagesAt(const std::vector<std::uint64_t>& times) {
    Messages messages;
    for (std::size_t i = 0; i < times.size(); ++i) {
        json::object message{{"id", "m" + std::to_string(i)}, {"createdDate", stamp(times[i])}};
        messages.push_back(DQDataObject::withJSON<TVKChatMessage>(message));
    }
    return messages;
}

std::shared_ptr<TVKArchivedMessagesFile> fileWithMessagesAt(
    const std::vector<std::uint64_t>& times) {
    auto file = DQDataObject::withJSON<TVKArchivedMessagesFile>(
        json::object{{"id", "f"}, {"start", times.front()}, {"end", times.back()}});
    file->setCachedMessages(messagesAt(times));
    return file;
}

std::vector<std::string> idsOf(const Messages& messages) {
    std::vector<std::string> ids;
    for (const auto& message : messages) ids.push_back(message->messageId().value_or("?"));
    return ids;
}

// A meta document whose files span the given [start, end] pairs, named "f0", "f1", ...
std::shared_ptr<TVKArchivedMessagesMeta> metaWithFiles(
    const std::vector<std::pair<std::uint64_t, std::uint64_t>>& spans) {
    json::array files;
    for (std::size_t i = 0; i < spans.size(); ++i) {
        files.push_back(json::object{{"id", "f" + std::to_string(i)},
                                     {"start", spans[i].first},
                                     {"end", spans[i].second},
                                     {"len", 5}});
    }
    return DQDataObject::withJSON<TVKArchivedMessagesMeta>(json::object{{"files", files}});
}

std::optional<std::vector<std::string>> fileIdsOf(const std::optional<Files>& files) {
    if (!files) return std::nullopt;
    std::vector<std::string> ids;
    for (const auto& file : *files) ids.push_back(file->fileId().value_or("?"));
    return ids;
}

using Ids = std::vector<std::string>;

// --- Query configuration --------------------------------------------------------------------

TEST(ArchivedMessagesConfiguration, IsValidOnlyWithBothEnds) {
    auto configuration = TVKGetArchivedMessagesConfiguration::configurationWithArchiveId("a");
    EXPECT_FALSE(configuration.isValidConfiguration());
    configuration.setStart(0);
    EXPECT_FALSE(configuration.isValidConfiguration());
    configuration.setEnd(0);
    EXPECT_TRUE(configuration.isValidConfiguration());
    configuration.setArchiveId(std::nullopt);  // the archive id is checked elsewhere
    EXPECT_TRUE(configuration.isValidConfiguration());
}

TEST(ArchivedMessagesConfiguration, DictionaryHoldsTheSetEntries) {
    struct Case {
        std::optional<std::string> archiveId;
        std::optional<std::uint64_t> start, end;
        std::optional<json::object> expected;
    };
    const Case cases[] = {
        {"archive-01", 5, 9, json::object{{"aid", "archive-01"}, {"start", 5u}, {"end", 9u}}},
        {"archive-01", std::nullopt, 9, json::object{{"aid", "archive-01"}, {"end", 9u}}},
        {std::nullopt, 5, 9, std::nullopt},
        // Deliberate: the end entry is guarded by the archive id, so no end means no dictionary.
        {"archive-01", 5, std::nullopt, std::nullopt},
        {"archive-01", std::nullopt, std::nullopt, std::nullopt},
    };
    for (const auto& c : cases) {
        TVKGetArchivedMessagesConfiguration configuration(c.archiveId);
        configuration.setStart(c.start);
        configuration.setEnd(c.end);
        EXPECT_EQ(configuration.getConfigurationDictionary(), c.expected)
            << c.archiveId.value_or("<unset>") << " " << c.start.has_value() << c.end.has_value();
    }
}

// --- Records ------------------------------------------------------------------------------

TEST(ArchivedMessagesMeta, MapsTheServiceDocument) {
    auto meta = DQDataObject::withJSON<TVKArchivedMessagesMeta>(json::parse(R"({
        "archiveId": "lobby-archive-2023", "msgType": "text", "oldestDate": 100,
        "latestDate": 600, "platform": "demo", "chatroomName": "lobby", "hasMore": true,
        "files": [{"id": "a", "start": 100, "end": 200, "len": 3},
                  {"id": "b", "start": -10, "end": 600.0, "len": 4}]})"));
    ASSERT_TRUE(meta);
    EXPECT_EQ(meta->msgType(), "text");
    EXPECT_EQ(meta->oldestDate(), 100u);
    EXPECT_EQ(meta->latestDate(), 600u);
    EXPECT_EQ(meta->platform(), "demo");
    EXPECT_EQ(meta->chatroomName(), "lobby");
    EXPECT_TRUE(meta->hasMore());
    ASSERT_EQ(meta->files().size(), 2u);
    EXPECT_EQ(meta->files()[0]->fileId(), "a");
    EXPECT_EQ(meta->files()[0]->len(), 3u);
    EXPECT_EQ(meta->files()[1]->start(), static_cast<std::uint64_t>(-10));  // two's complement
    EXPECT_EQ(meta->files()[1]->end(), 600u);
    EXPECT_FALSE(meta->files()[0]->cachedMessages());
    EXPECT_EQ(meta->getArchivedMessagesFileByFileId("b"), meta->files()[1]);
    EXPECT_EQ(meta->getArchivedMessagesFileByFileId("c"), nullptr);
}

TEST(ArchivedMessagesMeta, MissingOrBrokenPartsLeaveItEmpty) {
    for (const char* text :
         {R"({})", R"({"files": "x", "hasMore": "yes"})", R"({"files": [{"id": "a"}, 7]})"}) {
        auto meta = DQDataObject::withJSON<TVKArchivedMessagesMeta>(json::parse(text));
        ASSERT_TRUE(meta) << text;
        EXPECT_TRUE(meta->files().empty()) << text;
        EXPECT_FALSE(meta->hasMore()) << text;
        EXPECT_FALSE(meta->firstMessageTimestamp()) << text;
        EXPECT_FALSE(meta->lastMessageTimestamp()) << text;
        EXPECT_FALSE(meta->getArchivedFilesByStart(0, 1000)) << text;
    }
    EXPECT_FALSE(DQDataObject::withJSON<TVKArchivedMessagesMeta>(json::array{}));
}

// --- File selection -----------------------------------------------------------------------

TEST(ArchiveFileSelection, PicksTheFilesThatOverlapTheRange) {
    auto meta = metaWithFiles({{100, 200}, {300, 400}, {500, 600}});
    EXPECT_EQ(meta->firstMessageTimestamp(), 100u);
    EXPECT_EQ(meta->lastMessageTimestamp(), 600u);
    struct Case {
        std::optional<std::uint64_t> start, end;
        std::optional<Ids> expected;
    };
    const Case cases[] = {
        {50, 700, Ids{"f0", "f1", "f2"}},
        {610, 700, std::nullopt},  // after the archive
        {10, 90, std::nullopt},    // before it
        {700, 50, std::nullopt},   // start > end
        {350, 380, Ids{"f1"}},     // the first probe hits
        {250, 450, Ids{"f1"}},     // both bounds in gaps: the file between them
        {100, 100, Ids{"f0"}},
        {600, 600, Ids{"f2"}},
        {200, 300, Ids{"f0", "f1"}},
        {0, 250, Ids{"f0"}},
        {450, 1000, Ids{"f2"}},
        {150, 550, Ids{"f0", "f1", "f2"}},
        // Wholly inside one gap: an empty, but present, selection.
        {250, 280, Ids{}},
        {201, 299, Ids{}},
        {std::nullopt, 700, std::nullopt},
        {50, std::nullopt, std::nullopt},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(fileIdsOf(meta->getArchivedFilesByStart(c.start, c.end)), c.expected)
            << c.start.value_or(9999) << "-" << c.end.value_or(9999);
    }
}

TEST(ArchiveFileSelection, BoundsOnTheOuterEdgesNeedNoSearch) {
    auto meta = metaWithFiles({{100, 200}, {300, 400}, {500, 600}});
    for (bool isStart : {true, false}) {
        EXPECT_EQ(meta->binarySearchForArchivedFileIndexByTimestamp(100, isStart), 0u);
        EXPECT_EQ(meta->binarySearchForArchivedFileIndexByTimestamp(0, isStart), 0u);
        EXPECT_EQ(meta->binarySearchForArchivedFileIndexByTimestamp(600, isStart), 2u);
        EXPECT_EQ(meta->binarySearchForArchivedFileIndexByTimestamp(kWrappedMinusOne, isStart), 2u);
    }
    EXPECT_EQ(meta->binarySearchForArchivedFileIndexByTimestamp(250, true), 1u);
    EXPECT_EQ(meta->binarySearchForArchivedFileIndexByTimestamp(250, false), 0u);
}

// Every time over archives of 1 to 12 files: the search must find the containing file, or the
// neighbours of the gap, whichever way the halving goes.
TEST(ArchiveFileSelection, SearchAgreesWithAScanForEveryTimeAndFileCount) {
    for (std::uint64_t count = 1; count <= 12; ++count) {
        std::vector<std::pair<std::uint64_t, std::uint64_t>> spans;
        for (std::uint64_t i = 0; i < count; ++i) spans.emplace_back(i * 100 + 10, i * 100 + 60);
        auto meta = metaWithFiles(spans);
        for (std::uint64_t t = 0; t <= count * 100 + 10; ++t) {
            std::uint64_t after = 0;  // first file whose end is at or after t
            while (after < count && spans[after].second < t) ++after;
            const bool inside = after < count && spans[after].first <= t;
            const std::uint64_t expectStart = std::min(after, count - 1);
            const std::uint64_t expectEnd = inside ? after : (after == 0 ? 0 : after - 1);
            ASSERT_EQ(meta->binarySearchForArchivedFileIndexByTimestamp(t, true), expectStart)
                << count << " files, t " << t;
            ASSERT_EQ(meta->binarySearchForArchivedFileIndexByTimestamp(t, false), expectEnd)
                << count << " files, t " << t;
        }
    }
}

TEST(ArchiveFileSelection, RandomRangesSelectExactlyTheOverlappingFiles) {
    std::vector<std::pair<std::uint64_t, std::uint64_t>> spans;
    for (std::uint64_t i = 0; i < 50; ++i) spans.emplace_back(i * 1000, i * 1000 + 700);
    auto meta = metaWithFiles(spans);
    std::mt19937_64 random(7);
    std::uniform_int_distribution<std::uint64_t> time(0, 51000);
    for (int round = 0; round < 2000; ++round) {
        std::uint64_t start = time(random), end = time(random);
        if (start > end) std::swap(start, end);
        Ids expected;
        for (std::size_t i = 0; i < spans.size(); ++i) {
            if (spans[i].first <= end && start <= spans[i].second) {
                expected.push_back("f" + std::to_string(i));
            }
        }
        auto selected = fileIdsOf(meta->getArchivedFilesByStart(start, end));
        if (start > 49700) {  // after the last file
            EXPECT_FALSE(selected) << start << "-" << end;
        } else {
            ASSERT_TRUE(selected) << start << "-" << end;
            EXPECT_EQ(*selected, expected) << start << "-" << end;
        }
    }
}

TEST(ArchiveFileSelection, SubFilesAreAnInclusiveRangeWithinTheList) {
    auto meta = metaWithFiles({{1, 2}, {3, 4}, {5, 6}});
    EXPECT_EQ(fileIdsOf(meta->getSubFilesByFirstIndex(0, 2)), (Ids{"f0", "f1", "f2"}));
    EXPECT_EQ(fileIdsOf(meta->getSubFilesByFirstIndex(1, 1)), (Ids{"f1"}));
    EXPECT_EQ(fileIdsOf(meta->getSubFilesByFirstIndex(2, 1)), Ids{});
    EXPECT_EQ(fileIdsOf(meta->getSubFilesByFirstIndex(1, 3)), Ids{});
    EXPECT_EQ(fileIdsOf(meta->getSubFilesByFirstIndex(0, kWrappedMinusOne)), Ids{});
}

// Files out of time order must not make the search read outside the list or loop.
TEST(ArchiveFileSelection, FilesOutOfOrderStayWithinTheList) {
    auto meta = metaWithFiles({{100, 200}, {900, 950}, {50, 60}, {300, 400}, {500, 1000}});
    for (std::uint64_t start = 0; start <= 1100; start += 25) {
        for (std::uint64_t end = start; end <= 1100; end += 25) {
            auto files = meta->getArchivedFilesByStart(start, end);
            if (files) {
                EXPECT_LE(files->size(), meta->files().size());
            }
        }
    }
}

// --- Files and their messages ---------------------------------------------------------------

TEST(ArchivedMessagesFile, ContainsComparesSignedValuesInclusively) {
    auto file =
        DQDataObject::withJSON<TVKArchivedMessagesFile>(json::object{{"start", -10}, {"end", 10}});
    EXPECT_TRUE(file->containsTimeStamp(0));  // unsigned, start would be above 0
    EXPECT_TRUE(file->containsTimeStamp(static_cast<std::uint64_t>(-10)));
    EXPECT_TRUE(file->containsTimeStamp(10));
    EXPECT_FALSE(file->containsTimeStamp(11));
    EXPECT_FALSE(file->containsTimeStamp(static_cast<std::uint64_t>(-11)));
}

TEST(ArchivedMessagesFile, IndexSearchFindsTheNeighboursOfATime) {
    auto file = fileWithMessagesAt({10, 20, 20, 30});
    EXPECT_EQ(file->timestampForCachedMessageByIndex(3), 30u);
    EXPECT_EQ(file->timestampForCachedMessageByIndex(4), 9223372036854775807u);
    EXPECT_EQ(file->timestampForCachedMessageByIndex(kWrappedMinusOne), kNotFound);
    const Messages& messages = *file->cachedMessages();
    struct Case {
        std::uint64_t t;
        bool isStart;
        std::uint64_t expected;
    };
    const Case cases[] = {
        {15, true, 1},
        {25, false, 2},
        {5, true, kNotFound},
        {35, false, kNotFound},
        {10, true, 0},
        {30, false, 3},
        {35, true, 4},  // after the last: one past it
        {20, true, 1},
        {20, false, 1},  // equal stamps: the first one the halving meets
        // A time before the first message, searched as an end, is index -1 in unsigned terms.
        {5, false, kWrappedMinusOne},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(file->indexForTimestamp(c.t, c.isStart, messages), c.expected)
            << c.t << (c.isStart ? " start" : " end");
    }
}

TEST(ArchivedMessagesFile, IndexSearchSurvivesTheWrapOfItsUpperBound) {
    // With two messages, an end search before the first sends `hi` below 0 and round the whole
    // unsigned range; the search must still come back, at index -1.
    auto file = fileWithMessagesAt({10, 20});
    EXPECT_EQ(file->indexForTimestamp(5, false, *file->cachedMessages()), kWrappedMinusOne);
    // An empty list (no count to search) must end too.
    EXPECT_EQ(file->indexForTimestamp(5, true, {}), kNotFound);
    file->indexForTimestamp(5, false, {});
}

TEST(ArchivedMessagesFile, CuttingToARange) {
    auto file = fileWithMessagesAt({10, 20, 20, 30});
    struct Case {
        std::uint64_t start, end;
        Ids expected;
    };
    const Case cases[] = {
        {15, 25, Ids{"m1", "m2"}},
        {5, 35, Ids{"m0", "m1", "m2", "m3"}},
        {5, 25, Ids{"m0", "m1", "m2"}},
        {15, 35, Ids{"m1", "m2", "m3"}},
        {10, 30, Ids{"m0", "m1", "m2", "m3"}},
        {0, 9, Ids{}},
        {31, 40, Ids{}},
        {21, 29, Ids{}},
        {25, 15, Ids{}},  // inverted: nothing rather than a failure
        // Deliberate: equal stamps are not widened, so 20..20 yields the one the search meets.
        {20, 20, Ids{"m1"}},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(idsOf(file->getCachedMessagesWithStart(c.start, c.end)), c.expected)
            << c.start << "-" << c.end;
    }
    auto uncached = DQDataObject::withJSON<TVKArchivedMessagesFile>(json::object{{"id", "x"}});
    EXPECT_TRUE(uncached->getCachedMessagesWithStart(0, 100).empty());
    uncached->setCachedMessages(Messages{});
    EXPECT_TRUE(uncached->getCachedMessagesWithStart(0, 100).empty());
}

TEST(ArchivedMessagesFile, RandomRangesCutExactly) {
    std::vector<std::uint64_t> times;
    for (std::uint64_t i = 0; i < 400; ++i) times.push_back(1000 + 3 * i);
    auto file = fileWithMessagesAt(times);
    std::mt19937_64 random(11);
    std::uniform_int_distribution<std::uint64_t> time(0, 2500);
    for (int round = 0; round < 500; ++round) {
        std::uint64_t start = time(random), end = time(random);
        if (start > end) std::swap(start, end);
        Ids expected;
        for (std::size_t i = 0; i < times.size(); ++i) {
            if (start <= times[i] && times[i] <= end) expected.push_back("m" + std::to_string(i));
        }
        ASSERT_EQ(idsOf(file->getCachedMessagesWithStart(start, end)), expected)
            << start << "-" << end;
    }
}

TEST(ArchivedMessagesFile, MessagesOutOfOrderStayWithinTheList) {
    auto file = fileWithMessagesAt({50, 10, 40, 20, 30, 5});
    for (std::uint64_t start = 0; start <= 60; ++start) {
        for (std::uint64_t end = start; end <= 60; ++end) {
            EXPECT_LE(file->getCachedMessagesWithStart(start, end).size(), 6u);
        }
    }
}

// --- Archive client without a network -------------------------------------------------------

TEST(ArcmsgHTTPClient, SendsNoCredentialsAndNamesTheSDK) {
    auto client = TVKArcmsgHTTPClient::create("http://127.0.0.1:9/archive/c1/");
    EXPECT_EQ(client->HTTPManager()->header("Content-Type"), "application/json");
    EXPECT_EQ(client->HTTPManager()->header("X-SDK-Version"), "iOS v1.0 Messaging");
    auto agent = client->HTTPManager()->header("User-Agent").value_or("");
    EXPECT_EQ(agent.rfind(net::HTTPSessionManager::defaultUserAgent() + " ", 0), 0u) << agent;
    EXPECT_FALSE(client->HTTPManager()->header("Authorization"));
}

TEST(ArcmsgHTTPClient, MissingIdsFailAtOnce) {
    // Port 9: nothing listens, so a request that escaped the check would fail differently.
    auto client = TVKArcmsgHTTPClient::create("http://127.0.0.1:9/archive/c1/");
    std::vector<TVKError> failures;
    auto record = [&](const TVKError& error) { failures.push_back(error); };
    client->getArchivedMessagesMetaByArchivedId(std::nullopt, nullptr, record);
    client->getArchivedMessagesMetaByArchivedId("", nullptr, record);
    client->getArchivedMessagesByArchivedId(std::nullopt, "file-0001", nullptr, record);
    client->getArchivedMessagesByArchivedId("archive-01", std::nullopt, nullptr, record);
    client->getArchivedMessagesByArchivedId("archive-01", "", nullptr, record);
    client->getArchivedMessagesMetaByArchivedId(std::nullopt, nullptr, nullptr);  // no callback
    ASSERT_EQ(failures.size(), 5u);  // all before the calls returned
    for (const auto& error : failures) EXPECT_TRUE(isTVKHTTPInvalidRequestError(error));
}

TEST(ArcmsgHTTPClient, WithoutAUsableBaseURLRequestsFailWithoutTraffic) {
    for (std::optional<std::string> base :
         {std::optional<std::string>(), std::optional<std::string>("archive/c1/"),
          std::optional<std::string>("")}) {
        auto client = TVKArcmsgHTTPClient::create(base);
        std::promise<TVKError> failed;
        client->getArchivedMessagesMetaByArchivedId(
            "lobby-archive-2023", [](const json::object&) { ADD_FAILURE() << "succeeded"; },
            [&](const TVKError& error) { failed.set_value(error); });
        auto outcome = failed.get_future();
        ASSERT_EQ(outcome.wait_for(std::chrono::seconds(5)), std::future_status::ready);
        TVKError error = outcome.get();
        EXPECT_EQ(error.domain, kTVKURLErrorDomain) << error.describe();
        EXPECT_FALSE(isNetworkError(error)) << error.describe();
    }
}

}  // namespace
