#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <mutex>
#include <thread>

#include "Dispatch/SerialQueue.hpp"
#include "Networking/TVKNetworkError.hpp"
#include "TavloMessagingSDK/Internal/TVKArcmsgHTTPClient.hpp"
#include "TavloMessagingSDK/Internal/TVKMessagingError.hpp"
#include "TavloMessagingSDK/TVKArchivedChat.hpp"
#include "TavloMessagingSDK/TVKChatMessage.hpp"
#include "tests/support/Emulator.hpp"

namespace tavlo {
namespace {

namespace json = boost::json;
using namespace std::chrono_literals;
using Messages = TVKArchivedChat::Messages;
using Ids = std::vector<std::string>;

constexpr const char* kArchiveId = "test-archive-01";
constexpr const char* kPlatform = "demo-account";
// Three files of five messages, one second apart, ten seconds from one file's start to the next:
// file n (1-based) holds messages "n.1" to "n.5" at kBase + (n-1) * 10000 + (m-1) * 1000.
constexpr std::uint64_t kBase = 1700000000000;

std::uint64_t timeOf(int file, int message) {
    return kBase + (file - 1) * 10000 + (message - 1) * 1000;
}

using test::text;

Ids idsOf(const Messages& messages) {
    Ids ids;
    for (const auto& message : messages) ids.push_back(message->messageId().value_or("?"));
    return ids;
}

// The ids of file `file`'s messages `from` to `to`.
Ids idsIn(int file, int from, int to) {
    Ids ids;
    for (int m = from; m <= to; ++m) ids.push_back(std::to_string(file) + "." + std::to_string(m));
    return ids;
}

Ids joined(std::initializer_list<Ids> parts) {
    Ids all;
    for (const auto& part : parts) all.insert(all.end(), part.begin(), part.end());
    return all;
}

/// Everything a query reported, recorded from the callback queue. The callbacks hold it, so a
/// late report never outlives it.
struct Reports : std::enable_shared_from_this<Reports> {
    std::mutex mutex;
    std::vector<Messages> successes;
    std::vector<TVKError> failures;
    std::promise<void> first;
    bool firstSet = false;
    // Reports that did not arrive on the archived chat's queue.
    std::shared_ptr<dispatch::SerialQueue> queue;
    int offQueue = 0;

    void note() {
        if (queue && !queue->isCurrent()) ++offQueue;
        if (!firstSet) first.set_value();
        firstSet = true;
    }
    TVKArchivedChat::MessagesSuccess success() {
        return [self = shared_from_this()](const Messages& messages) {
            std::lock_guard lock(self->mutex);
            self->successes.push_back(messages);
            self->note();
        };
    }
    TVKArchivedChat::Failure failure() {
        return [self = shared_from_this()](const TVKError& error) {
            std::lock_guard lock(self->mutex);
            self->failures.push_back(error);
            self->note();
        };
    }
    bool waitForFirst(std::chrono::milliseconds limit = 20s) {
        return first.get_future().wait_for(limit) == std::future_status::ready;
    }
};

class ArchivedChat : public test::EmulatorTest {
  protected:
    void SetUp() override {
        EmulatorTest::SetUp();
        auto info = emulator().control("GET", "info");
        lobbyId = text(info.at("lobby").at("id"));
        arcMsgURL = seedArchive("lobby");
        emulator().clearRequests();
    }

    // Seeds kArchiveId in the chatroom and answers the chatroom's archive URL.
    std::string seedArchive(const std::string& chatroom) {
        json::array files;
        for (int f = 1; f <= 3; ++f) {
            json::array messages;
            for (int m = 1; m <= 5; ++m) {
                messages.push_back(json::object{{"id", std::to_string(f) + "." + std::to_string(m)},
                                                {"text", "archived " + std::to_string(f)},
                                                {"createdMs", timeOf(f, m)}});
            }
            files.push_back(json::object{{"messages", messages}});
        }
        auto answer = emulator().control("POST", "chatrooms/" + chatroom + "/archives",
                                         json::object{{"archiveId", kArchiveId}, {"files", files}});
        return text(answer.at("arcMsgURL"));
    }

    std::string filePath(int file) const {
        return "/archive/" + lobbyId + "/" + kArchiveId + "/file-000" + std::to_string(file);
    }

    void failFile(int file, int status = 500, const char* code = "DataAccessError") {
        emulator().control(
            "POST", "faults",
            json::object{{"path", filePath(file)}, {"status", status}, {"code", code}});
    }

    std::shared_ptr<TVKArchivedChat> chatFromURL() {
        return TVKArchivedChat::chatWithArcmsgHTTPURL(arcMsgURL, queue);
    }
    std::shared_ptr<TVKArchivedChat> chatByName(const std::string& name = "lobby") {
        return TVKArchivedChat::chatForChatroomName(name, kPlatform, emulator().url(), queue);
    }

    static TVKGetArchivedMessagesConfiguration range(std::uint64_t start, std::uint64_t end) {
        auto configuration = TVKGetArchivedMessagesConfiguration::configurationWithArchiveId(
            std::string(kArchiveId));
        configuration.setStart(start);
        configuration.setEnd(end);
        return configuration;
    }

    /// Runs a query and waits for its first report, then a little longer for any further one.
    std::shared_ptr<Reports> query(const std::shared_ptr<TVKArchivedChat>& chat,
                                   const TVKGetArchivedMessagesConfiguration& configuration) {
        auto reports = std::make_shared<Reports>();
        chat->getArchivedMessagesWithConfigs(configuration, reports->success(), reports->failure());
        EXPECT_TRUE(reports->waitForFirst()) << "no report within 20 s";
        std::this_thread::sleep_for(200ms);
        return reports;
    }

    Messages expectMessages(const std::shared_ptr<TVKArchivedChat>& chat,
                            const TVKGetArchivedMessagesConfiguration& configuration) {
        auto reports = query(chat, configuration);
        std::lock_guard lock(reports->mutex);
        EXPECT_EQ(reports->offQueue, 0);
        EXPECT_EQ(reports->successes.size(), 1u);
        for (const auto& error : reports->failures) ADD_FAILURE() << error.describe();
        return reports->successes.empty() ? Messages{} : reports->successes.front();
    }

    std::size_t requestCount(const std::string& prefix) const {
        return emulator().requests(prefix).size();
    }

    std::shared_ptr<dispatch::SerialQueue> queue =
        dispatch::SerialQueue::create("ArchivedChatTest");
    std::string lobbyId;
    std::string arcMsgURL;
};

TEST_F(ArchivedChat, AnswersRangesBeforeInsideAcrossAndAfterTheFiles) {
    auto chat = chatFromURL();
    struct Case {
        const char* what;
        std::uint64_t start, end;
        Ids expected;
    };
    const Case cases[] = {
        {"before the first file", kBase - 5000, kBase - 1, Ids{}},
        {"after the last file", timeOf(3, 5) + 1, timeOf(3, 5) + 100000, Ids{}},
        {"inside one file", timeOf(2, 2), timeOf(2, 4), idsIn(2, 2, 4)},
        {"between two messages", timeOf(2, 2) + 1, timeOf(2, 3) - 1, Ids{}},
        {"across all three", timeOf(1, 4), timeOf(3, 2) + 500,
         joined({idsIn(1, 4, 5), idsIn(2, 1, 5), idsIn(3, 1, 2)})},
        {"from a gap into a file", timeOf(1, 5) + 1, timeOf(2, 1), idsIn(2, 1, 1)},
        {"the whole archive", 0, timeOf(3, 5) + 100000,
         joined({idsIn(1, 1, 5), idsIn(2, 1, 5), idsIn(3, 1, 5)})},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        EXPECT_EQ(idsOf(expectMessages(chat, range(c.start, c.end))), c.expected);
    }
    // One meta document for all of them, and each file fetched once.
    EXPECT_EQ(requestCount("/archive/" + lobbyId + "/" + kArchiveId + "/meta"), 1u);
    for (int file = 1; file <= 3; ++file) EXPECT_EQ(requestCount(filePath(file)), 1u) << file;
}

TEST_F(ArchivedChat, ASecondQuerySendsNoRequest) {
    auto chat = chatFromURL();
    auto across = range(timeOf(1, 3), timeOf(3, 3));
    auto first = idsOf(expectMessages(chat, across));
    ASSERT_EQ(first.size(), 11u);
    emulator().clearRequests();

    EXPECT_EQ(idsOf(expectMessages(chat, across)), first);
    EXPECT_EQ(idsOf(expectMessages(chat, range(timeOf(2, 1), timeOf(2, 2)))), idsIn(2, 1, 2));
    // The meta document comes from the cache too, before the call returns.
    std::shared_ptr<TVKArchivedMessagesMeta> meta;
    chat->getArchivedMessagesMetabyArchivedId(
        std::string(kArchiveId), [&](const auto& cached) { meta = cached; }, nullptr);
    ASSERT_TRUE(meta);
    EXPECT_EQ(meta->files().size(), 3u);
    EXPECT_EQ(requestCount("/"), 0u);
}

TEST_F(ArchivedChat, OneFailingFileReportsOneFailureAndKeepsTheOthers) {
    auto chat = chatFromURL();
    failFile(2);
    auto reports = query(chat, range(timeOf(1, 1), timeOf(3, 5)));
    std::this_thread::sleep_for(300ms);  // the other two files have surely arrived by now
    {
        std::lock_guard lock(reports->mutex);
        EXPECT_TRUE(reports->successes.empty());
        ASSERT_EQ(reports->failures.size(), 1u);
        EXPECT_TRUE(isTVKHTTPServerFailureError(reports->failures[0]))
            << reports->failures[0].describe();
    }
    auto meta = chat->cachedArchivedMetas().at(kArchiveId);
    EXPECT_TRUE(meta->files()[0]->cachedMessages());
    EXPECT_FALSE(meta->files()[1]->cachedMessages());
    EXPECT_TRUE(meta->files()[2]->cachedMessages());

    // Asking again fetches only the file that failed.
    emulator().clearRequests();
    EXPECT_EQ(expectMessages(chat, range(timeOf(1, 1), timeOf(3, 5))).size(), 15u);
    EXPECT_EQ(requestCount("/archive/"), 1u);
    EXPECT_EQ(requestCount(filePath(2)), 1u);
}

TEST_F(ArchivedChat, OnlyTheFirstOfSeveralFailuresIsReported) {
    auto chat = chatFromURL();
    failFile(1, 404, "EntityNotFoundError");
    failFile(3, 500);
    auto reports = query(chat, range(timeOf(1, 1), timeOf(3, 5)));
    std::this_thread::sleep_for(300ms);
    std::lock_guard lock(reports->mutex);
    EXPECT_TRUE(reports->successes.empty());
    EXPECT_EQ(reports->failures.size(), 1u);
    EXPECT_EQ(requestCount("/archive/" + lobbyId + "/" + kArchiveId + "/file-"), 3u);
}

TEST_F(ArchivedChat, AFailureCallbackHoldingItsLockMayCallBackIn) {
    // Two files fail at once. The application's failure callback takes its own lock and, under
    // it, calls back into the archived chat: reads its cache and asks again. Nothing of the SDK
    // may be locked around the callback, or the second report would never come (bounded wait).
    auto chat = chatFromURL();
    failFile(1, 500);
    failFile(3, 500);
    std::mutex applicationLock;
    std::promise<void> secondReport;
    int reports = 0;
    TVKArchivedChat::Failure failure = [&](const TVKError&) {
        std::lock_guard held(applicationLock);
        if (++reports > 1) return secondReport.set_value();
        EXPECT_EQ(chat->cachedArchivedMetas().size(), 1u);
        failFile(1, 500);
        chat->getArchivedMessagesWithConfigs(range(timeOf(1, 1), timeOf(3, 5)), {}, failure);
    };
    chat->getArchivedMessagesWithConfigs(range(timeOf(1, 1), timeOf(3, 5)), {}, failure);
    ASSERT_EQ(secondReport.get_future().wait_for(20s), std::future_status::ready);
    std::this_thread::sleep_for(300ms);  // only the first failure of each query is reported
    std::lock_guard held(applicationLock);
    EXPECT_EQ(reports, 2);
}

TEST_F(ArchivedChat, ARangeInsideAGapEndsQuietly) {
    auto chat = chatFromURL();
    // Deliberate: the selection is an empty list of files, so no request starts and neither
    // callback is called.
    auto reports = std::make_shared<Reports>();
    chat->getArchivedMessagesWithConfigs(range(timeOf(1, 5) + 1, timeOf(2, 1) - 1),
                                         reports->success(), reports->failure());
    EXPECT_FALSE(reports->waitForFirst(700ms));
    EXPECT_EQ(requestCount("/archive/" + lobbyId + "/" + kArchiveId + "/meta"), 1u);
    EXPECT_EQ(requestCount("/archive/" + lobbyId + "/" + kArchiveId + "/file-"), 0u);
}

TEST_F(ArchivedChat, MadeFromTheArchiveURLItNeverAsksForAProfile) {
    auto chat = chatFromURL();
    EXPECT_FALSE(chat->shouldRunInitailProcess());
    EXPECT_FALSE(chat->msgHTTPClient());
    EXPECT_EQ(expectMessages(chat, range(timeOf(1, 1), timeOf(1, 2))).size(), 2u);
    auto requests = emulator().requests("/");
    ASSERT_EQ(requests.size(), 2u);  // the meta document and one file, nothing else
    for (const auto& request : requests) {
        EXPECT_TRUE(text(request.at("path")).starts_with("/archive/")) << request;
        EXPECT_FALSE(request.at("headers").as_object().contains("authorization")) << request;
        EXPECT_EQ(text(request.at("headers").at("x-sdk-version")), "iOS v1.0 Messaging");
    }
}

TEST_F(ArchivedChat, MadeByNameItRunsTheInitialProcessFirst) {
    auto chat = chatByName();
    EXPECT_TRUE(chat->shouldRunInitailProcess());
    EXPECT_EQ(chat->chatroomName(), "lobby");
    EXPECT_EQ(chat->platform(), kPlatform);
    EXPECT_EQ(idsOf(expectMessages(chat, range(timeOf(3, 4), timeOf(3, 5)))), idsIn(3, 4, 5));
    EXPECT_FALSE(chat->shouldRunInitailProcess());
    EXPECT_EQ(chat->chatId(), lobbyId);
    ASSERT_TRUE(chat->arcHTTPClient());
    EXPECT_EQ(chat->arcHTTPClient()->baseURL(), arcMsgURL);

    // The first profile request fails without an API token and is repaired once.
    auto profiles = emulator().requests("/get-chat-profile-by-channel/");
    ASSERT_EQ(profiles.size(), 1u);
    EXPECT_EQ(text(profiles[0].at("query").at("channelCode")), "lobby");
    EXPECT_EQ(text(profiles[0].at("query").at("platform")), kPlatform);
    EXPECT_FALSE(profiles[0].at("query").as_object().contains("return_sticker"));
    EXPECT_EQ(requestCount("/api-tokens"), 1u);
    auto joins = emulator().requests("/add-users-to-chat/");
    ASSERT_EQ(joins.size(), 1u);
    EXPECT_EQ(text(joins[0].at("body").at("targetUsers").at(0).at("name")), "Guest");

    // Once found, the archive service is asked directly.
    emulator().clearRequests();
    EXPECT_EQ(expectMessages(chat, range(timeOf(1, 1), timeOf(1, 1))).size(), 1u);
    EXPECT_EQ(requestCount("/"), 1u);
    EXPECT_EQ(requestCount(filePath(1)), 1u);
}

TEST_F(ArchivedChat, AFailedProfileIsReportedAndTriedAgainByTheNextQuery) {
    auto chat = chatByName();
    emulator().control("POST", "faults",
                       json::object{{"pathPrefix", "/get-chat-profile-by-channel/"},
                                    {"status", 500},
                                    {"code", "DataAccessError"}});
    auto reports = query(chat, range(timeOf(1, 1), timeOf(1, 5)));
    {
        std::lock_guard lock(reports->mutex);
        ASSERT_EQ(reports->failures.size(), 1u);
        EXPECT_TRUE(isTVKHTTPServerFailureError(reports->failures[0]));
        EXPECT_TRUE(reports->successes.empty());
    }
    EXPECT_TRUE(chat->shouldRunInitailProcess());
    EXPECT_EQ(requestCount("/add-users-to-chat/"), 0u);  // a server failure is not repaired

    EXPECT_EQ(expectMessages(chat, range(timeOf(1, 1), timeOf(1, 5))).size(), 5u);
    EXPECT_EQ(requestCount("/get-chat-profile-by-channel/"), 2u);
}

TEST_F(ArchivedChat, ARefusedGuestJoinIsRepairedOnceOnly) {
    auto chat = chatByName();
    // Refused for a stale API token twice: the repair fetches a token and resends once, and the
    // second refusal is the answer.
    emulator().control("POST", "faults",
                       json::object{{"pathPrefix", "/add-users-to-chat/"},
                                    {"status", 409},
                                    {"code", "InvalidRequestError"},
                                    {"count", 2}});
    auto reports = query(chat, range(timeOf(1, 1), timeOf(1, 5)));
    {
        std::lock_guard lock(reports->mutex);
        ASSERT_EQ(reports->failures.size(), 1u);
        EXPECT_TRUE(isTVKHTTPInvalidRequestError(reports->failures[0]));
    }
    EXPECT_EQ(requestCount("/add-users-to-chat/"), 2u);
    EXPECT_EQ(requestCount("/api-tokens"), 2u);  // one for the profile, one for the join
    EXPECT_EQ(requestCount("/archive/"), 0u);
}

TEST_F(ArchivedChat, AProfileWithoutArchiveURLStillCompletesTheInitialProcess) {
    auto chat = chatByName();
    emulator().control(
        "POST", "faults",
        json::object{{"pathPrefix", "/get-chat-profile-by-channel/"},
                     {"status", 200},
                     {"body", json::object{{"id", lobbyId}, {"channelCode", "lobby"}}}});
    std::promise<std::optional<TVKError>> done;
    chat->startInitailProcess([&] { done.set_value(std::nullopt); },
                              [&](const TVKError& error) { done.set_value(error); });
    auto outcome = done.get_future();
    ASSERT_EQ(outcome.wait_for(20s), std::future_status::ready);
    auto error = outcome.get();
    EXPECT_FALSE(error) << error->describe();
    EXPECT_EQ(chat->chatId(), lobbyId);
    ASSERT_TRUE(chat->arcHTTPClient());
    EXPECT_FALSE(chat->arcHTTPClient()->baseURL());

    // Its archive client reaches nothing, and says so.
    auto reports = query(chat, range(timeOf(1, 1), timeOf(1, 5)));
    std::lock_guard lock(reports->mutex);
    ASSERT_EQ(reports->failures.size(), 1u);
    EXPECT_EQ(reports->failures[0].domain, kTVKURLErrorDomain);
    EXPECT_EQ(requestCount("/archive/"), 0u);
}

TEST_F(ArchivedChat, MetaDocumentsAreMappedAndCached) {
    auto chat = chatFromURL();
    std::promise<std::shared_ptr<TVKArchivedMessagesMeta>> fetched;
    chat->getArchivedMessagesMetabyArchivedId(
        std::string(kArchiveId), [&](const auto& meta) { fetched.set_value(meta); },
        [&](const TVKError& error) {
            ADD_FAILURE() << error.describe();
            fetched.set_value(nullptr);
        });
    auto future = fetched.get_future();
    ASSERT_EQ(future.wait_for(20s), std::future_status::ready);
    auto meta = future.get();
    ASSERT_TRUE(meta);
    EXPECT_EQ(meta->chatroomName(), "lobby");
    EXPECT_EQ(meta->platform(), kPlatform);
    EXPECT_EQ(meta->oldestDate(), timeOf(1, 1));
    EXPECT_EQ(meta->latestDate(), timeOf(3, 5));
    ASSERT_EQ(meta->files().size(), 3u);
    EXPECT_EQ(meta->files()[1]->fileId(), "file-0002");
    EXPECT_EQ(meta->files()[1]->start(), timeOf(2, 1));
    EXPECT_EQ(chat->cachedArchivedMetas().at(kArchiveId), meta);
}

TEST_F(ArchivedChat, ServiceErrorsAndUnmappableAnswersReachTheFailure) {
    struct Case {
        const char* what;
        json::object fault;  // put in front of the first archive request
        std::function<bool(const TVKError&)> expected;
    };
    const std::string archivePath = "/archive/" + lobbyId + "/" + kArchiveId + "/";
    const Case cases[] = {
        {"unknown archive",
         json::object{
             {"path", archivePath + "meta"}, {"status", 404}, {"code", "EntityNotFoundError"}},
         isTVKHTTPEntityNotFoundError},
        {"meta not an object",
         json::object{{"path", archivePath + "meta"}, {"status", 200}, {"body", json::array{1, 2}}},
         [](const TVKError& e) { return e == TVKHTTPDataMissingError(); }},
        {"file not an array",
         json::object{{"path", filePath(1)}, {"status", 200}, {"body", json::object{}}},
         [](const TVKError& e) { return e == TVKHTTPDataMissingError(); }},
        {"file of non-messages",
         json::object{{"path", filePath(1)}, {"status", 200}, {"body", json::array{1}}},
         [](const TVKError& e) { return e.data == json::value(json::array{1}); }},
        // Every time: the transfer library resends by itself (up to five times) when a reused
        // connection dies, and earlier cases leave several connections to reuse.
        {"connection dropped", json::object{{"path", filePath(1)}, {"drop", true}, {"count", 100}},
         [](const TVKError& e) { return e.domain == kTVKURLErrorDomain; }},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        emulator().control("POST", "faults", c.fault);
        auto reports = query(chatFromURL(), range(timeOf(1, 1), timeOf(1, 5)));
        std::lock_guard lock(reports->mutex);
        EXPECT_TRUE(reports->successes.empty());
        ASSERT_EQ(reports->failures.size(), 1u);
        EXPECT_TRUE(c.expected(reports->failures[0])) << reports->failures[0].describe();
        emulator().control("DELETE", "faults");
    }
}

TEST_F(ArchivedChat, AReleasedArchivedChatReportsNothing) {
    auto chat = chatFromURL();
    emulator().control("POST", "delays", json::object{{"pathPrefix", "/archive/"}, {"ms", 300}});
    auto reports = std::make_shared<Reports>();
    chat->getArchivedMessagesWithConfigs(range(timeOf(1, 1), timeOf(3, 5)), reports->success(),
                                         reports->failure());
    std::weak_ptr<TVKArchivedChat> weak = chat;
    chat.reset();
    EXPECT_TRUE(weak.expired());  // pending requests do not keep it alive
    EXPECT_FALSE(reports->waitForFirst(1s));
}

}  // namespace
}  // namespace tavlo
