// A chatroom's handling of realtime events, driven through its socket client's local dispatch
// (the socket never connects), and the profile answer the events build on.
#include <gtest/gtest.h>

#include <boost/json.hpp>
#include <cstdint>
#include <functional>
#include <limits>
#include <map>
#include <set>
#include <string>
#include <unordered_set>
#include <vector>

#include "Dispatch/SerialQueue.hpp"
#include "SocketIO/SocketIOClient.hpp"
#include "TavloMessagingSDK/DQChatProfile.hpp"
#include "TavloMessagingSDK/Internal/TVKChatReport.hpp"
#include "TavloMessagingSDK/Internal/TVKChatSession.hpp"
#include "TavloMessagingSDK/Internal/TVKMessagingError.hpp"
#include "TavloMessagingSDK/Internal/TVKMessagingSocketClient.hpp"
#include "TavloMessagingSDK/Internal/TVKMessagingSocketConfig.hpp"
#include "TavloMessagingSDK/TVKAggregatedData.hpp"
#include "TavloMessagingSDK/TVKChat.hpp"
#include "TavloMessagingSDK/TVKChatMessage.hpp"
#include "TavloMessagingSDK/TVKChatMetadata.hpp"
#include "TavloMessagingSDK/TVKChatUser.hpp"

namespace tavlo {
namespace {

namespace json = boost::json;
using Counts = std::vector<std::pair<std::string, std::uint64_t>>;

// Nothing listens there; the socket is never asked to connect anyway.
constexpr const char* kUnusedHost = "http://127.0.0.1:9";

TVKChatEnvironment environmentOn(std::shared_ptr<dispatch::SerialQueue> queue) {
    TVKChatEnvironment environment;
    environment.queue = std::move(queue);
    return environment;
}

Counts countsOf(const TVKAggregatedItems& items) {
    Counts counts;
    for (const auto& item : items) {
        counts.emplace_back(item->key().value_or("?"), item->count().value_or(0));
    }
    return counts;
}

/// Records what the chatroom reports, with the state it had at that moment.
struct Recorder : TVKChatReportSink {
    std::vector<std::string> calls;
    std::vector<Counts> aggregated;
    std::vector<std::int64_t> userCounts;
    std::vector<double> intervalChanges;
    std::shared_ptr<TVKChatMessage> message;
    TVKChatUsers users;
    TVKUserLabels labels;
    TVKChatMetadataDictionary metadata;
    std::optional<std::string> removedId;

    void chatReported(const std::shared_ptr<TVKChat>& chat, TVKChatReport&& report) override {
        std::visit([&](auto& record) { note(chat, record); }, report);
    }

    void note(const std::shared_ptr<TVKChat>&, const chat_event::Connected&) {
        calls.push_back("connected");
    }
    void note(const std::shared_ptr<TVKChat>&, const chat_event::InputModeChanged&) {
        calls.push_back("mode");
    }
    void note(const std::shared_ptr<TVKChat>&, const chat_report::InputIntervalChanged& r) {
        calls.push_back("interval");
        intervalChanges.push_back(r.change);
    }
    void note(const std::shared_ptr<TVKChat>&, const chat_event::UsersJoined& e) {
        calls.push_back("joined");
        users = e.users;
    }
    void note(const std::shared_ptr<TVKChat>&, const chat_event::UsersUpdated& e) {
        calls.push_back("updated");
        users = e.users;
    }
    void note(const std::shared_ptr<TVKChat>&, const chat_event::UsersLeft& e) {
        calls.push_back("left");
        labels = e.labels;
    }
    void note(const std::shared_ptr<TVKChat>& chat, const chat_event::UserCount&) {
        calls.push_back("count");
        userCounts.push_back(chat->userCount());
    }
    void note(const std::shared_ptr<TVKChat>&, const chat_event::MessageAdded& e) {
        calls.push_back("message");
        message = e.message;
    }
    void note(const std::shared_ptr<TVKChat>&, const chat_event::AggregatedItemsAdded& e) {
        calls.push_back("aggregated");
        aggregated.push_back(countsOf(e.items));
    }
    void note(const std::shared_ptr<TVKChat>&, const chat_event::RawDataAdded& e) {
        calls.push_back("raw");
        message = e.message;
    }
    void note(const std::shared_ptr<TVKChat>&, const chat_event::MessageRemoved& e) {
        calls.push_back("removed");
        removedId = e.messageId;
    }
    void note(const std::shared_ptr<TVKChat>&, const chat_event::MessageFlushed&) {
        calls.push_back("flushed");
    }
    void note(const std::shared_ptr<TVKChat>&, const chat_event::PinnedMessageUpdated& e) {
        calls.push_back(e.message ? "pinned" : "unpinned");
        message = e.message;
    }
    void note(const std::shared_ptr<TVKChat>&, const chat_event::MetadataUpdated& e) {
        calls.push_back("metadata");
        metadata = e.metadata;
    }
    // Whatever else a chatroom may report is not this test's subject.
    template <class Other>
    void note(const std::shared_ptr<TVKChat>&, const Other&) {
        calls.push_back("other");
    }
};

json::object lobbyProfile() {
    return json::parse(R"({
        "id": "chat-1", "channelCode": "lobby", "chatWriteMode": "ALL", "inputInterval": 3,
        "createdDate": "2024-03-01T00:00:00.000+0000", "memberCount": 4, "guestCount": 1,
        "pinnedMsg": {}, "aggregated": [{"key": "like", "n": 3}, {"key": "clap", "n": 1}],
        "arcMsgURL": "http://127.0.0.1:9/archive/chat-1/",
        "sticker": [{"name": "Basics", "stickers": {":wave:": "http://img/wave.png"}},
                    {"name": "Party", "stickers": {":tada:": "http://img/tada.png"}}]
    })")
        .as_object();
}

json::object userJSON(std::int64_t label, const std::string& role) {
    return {
        {"label", label}, {"role", role}, {"name", "u"}, {"userId", "m" + std::to_string(label)}};
}

/// A chatroom whose profile is loaded and whose event handlers are registered on a socket client
/// that never connects. Events are delivered locally, as the socket would deliver them.
class ChatEvents : public ::testing::Test {
  protected:
    void SetUp() override {
        chat = TVKChatSession::chatForChannel("lobby", "demo-account", "", kUnusedHost,
                                              environmentOn(queue));
        ASSERT_TRUE(chat);
        onQueue([&] {
            // Still without a profile, the connect is refused but the configuration is kept.
            chat->connectWithUserToken("token", socketConfig(), recorder);
            ASSERT_EQ(chat->applyProfileResponse(lobbyProfile()), std::nullopt);
            chat->listenCustomSocketEventsWithDelegate(recorder);
        });
        ASSERT_TRUE(chat->socketClient());
        socket = chat->socketClient()->socket();
    }

    static std::shared_ptr<TVKMessagingSocketConfig> socketConfig() {
        return DQDataObject::withJSON<TVKMessagingSocketConfig>(
            json::object{{"host", kUnusedHost}, {"path", "/socket.io"}, {"query", "a=b"}});
    }

    void onQueue(const std::function<void()>& task) { queue->sync(task); }

    /// Delivers an event and waits until its handlers have run.
    void emit(const std::string& event, sio::SocketIOArgs args = {}) {
        socket->handleEvent(event, std::move(args), true);
        queue->sync([] {});
    }
    void emit(const std::string& event, const char* payload) {
        emit(event, sio::SocketIOArgs{json::parse(payload)});
    }

    std::shared_ptr<dispatch::SerialQueue> queue = dispatch::SerialQueue::create("test.chat");
    std::shared_ptr<Recorder> recorder = std::make_shared<Recorder>();
    std::shared_ptr<TVKChatSession> chat;
    std::shared_ptr<sio::SocketIOClient> socket;
};

// --- Subscription and messages -----------------------------------------------------------------

TEST_F(ChatEvents, SubscriptionConnectsTheChatroom) {
    emit("subscribed");
    EXPECT_EQ(chat->status(), TVKChatStatusConnected);
    EXPECT_EQ(recorder->calls, std::vector<std::string>{"connected"});
}

TEST_F(ChatEvents, MessagesAreReportedAndStickersRecognised) {
    emit("message", R"({"id": "m1", "text": "hello"})");
    ASSERT_TRUE(recorder->message);
    EXPECT_EQ(recorder->message->text(), "hello");
    EXPECT_EQ(recorder->message->type(), TVKChatMessage::kPlain);

    // The second sticker set names it: the search goes through every set.
    emit("message", R"({"id": "m2", "text": ":tada:"})");
    EXPECT_EQ(recorder->message->type(), TVKChatMessage::kSticker);
    EXPECT_EQ(recorder->message->stickerURL(), "http://img/tada.png");

    // Only a whole-text match is a sticker.
    emit("message", R"({"id": "m3", "text": ":tada: !"})");
    EXPECT_EQ(recorder->message->type(), TVKChatMessage::kPlain);

    emit("raw_data", R"({"id": "r1", "value": {"score": 3}})");
    EXPECT_EQ(recorder->calls.back(), "raw");
    EXPECT_EQ(recorder->message->messageId(), "r1");

    emit("message_remove", sio::SocketIOArgs{json::string("m1")});
    emit("message_flush", R"({"chatId": "chat-1"})");
    EXPECT_EQ(recorder->removedId, "m1");
    EXPECT_EQ(recorder->calls, (std::vector<std::string>{"message", "message", "message", "raw",
                                                         "removed", "flushed"}));
}

TEST_F(ChatEvents, PinAndUnpinUpdateThePinnedMessageBeforeTheReport) {
    emit("pinned_message", R"({"chatId": "chat-1", "pinnedMsg": {"id": "m9", "text": "read me"}})");
    ASSERT_TRUE(chat->pinnedMessage());
    EXPECT_EQ(chat->pinnedMessage()->messageId(), "m9");
    EXPECT_EQ(recorder->message, chat->pinnedMessage());

    emit("pinned_message", R"({"chatId": "chat-1", "pinnedMsg": {}})");
    EXPECT_EQ(chat->pinnedMessage(), nullptr);
    EXPECT_EQ(recorder->message, nullptr);
    EXPECT_EQ(recorder->calls, (std::vector<std::string>{"pinned", "unpinned"}));
}

TEST_F(ChatEvents, OnlyPublicMetadataIsReported) {
    emit("meta", R"([{"key": "topic", "value": "news", "scope": "chat"},
                     {"key": "secret", "value": 1, "reserved": true}])");
    ASSERT_EQ(recorder->metadata.size(), 1u);
    EXPECT_EQ(recorder->metadata.at("topic")->value(), json::value("news"));

    // Nothing public: no report at all.
    emit("meta", R"([{"key": "secret", "value": 1, "reserved": true}])");
    EXPECT_EQ(recorder->calls, std::vector<std::string>{"metadata"});
}

// --- Aggregated counters -----------------------------------------------------------------------

TEST_F(ChatEvents, AggregatedEventsRaiseTheTotalsAndReportTheIncrements) {
    emit("agg_data", R"({"chatId": "chat-1", "aggregated": [{"key": "like", "n": 2}]})");
    emit("agg_data", R"({"chatId": "chat-1", "aggregated": [{"key": "wow", "n": 1}]})");
    emit("agg_data", R"({"chatId": "chat-1", "aggregated": [{"key": "wow", "n": 4}]})");

    EXPECT_EQ(recorder->aggregated,
              (std::vector<Counts>{{{"like", 2}}, {{"wow", 1}}, {{"wow", 4}}}));
    EXPECT_EQ(countsOf(chat->totalAggregatedItems()),
              (Counts{{"like", 5}, {"clap", 1}, {"wow", 5}}));
}

TEST_F(ChatEvents, AnAggregatedEventRaisesEveryCachedCounterOfItsKey) {
    onQueue([&] {
        auto profile = lobbyProfile();
        profile["aggregated"] = json::parse(R"([{"key": "k", "n": 1}, {"key": "k", "n": 2}])");
        ASSERT_EQ(chat->applyProfileResponse(profile), std::nullopt);
    });
    emit("agg_data", R"({"chatId": "chat-1", "aggregated": [{"key": "k", "n": 5}]})");
    EXPECT_EQ(countsOf(chat->totalAggregatedItems()), (Counts{{"k", 6}, {"k", 7}}));
}

TEST(AggregatedDifferences, ListNewAndChangedKeysInFreshOrder) {
    auto items = [](const char* text) {
        return *DQDataObject::objectsWithArrayOfJSON<TVKAggregatedItem>(json::parse(text));
    };
    constexpr auto max = std::numeric_limits<std::uint64_t>::max();
    struct Case {
        const char* cached;
        const char* fresh;
        Counts expected;
    };
    for (const auto& c : {
             Case{R"([{"key": "a", "n": 3}, {"key": "b", "n": 1}])",
                  R"([{"key": "c", "n": 2}, {"key": "a", "n": 3}, {"key": "b", "n": 4}])",
                  {{"c", 2}, {"b", 3}}},
             // A count that went down wraps around: kept so that adding it restores the total.
             Case{R"([{"key": "a", "n": 5}])", R"([{"key": "a", "n": 3}])", {{"a", max - 1}}},
             Case{R"([{"key": "gone", "n": 5}])", R"([])", {}},
             Case{R"([])", R"([{"key": "a", "n": 1}])", {{"a", 1}}},
         }) {
        EXPECT_EQ(countsOf(TVKChatSession::aggregatedDifferences(items(c.cached), items(c.fresh))),
                  c.expected)
            << c.cached << " -> " << c.fresh;
    }
}

TEST_F(ChatEvents, AFullReconnectionReportsConnectedThenTheCountersMissedOnce) {
    onQueue([&] {
        // The user never joined here, so the reconnection goes straight to the profile.
        chat->reconnectChatWithEventDelegate(recorder, nullptr);
        ASSERT_TRUE(chat->isReconnecting());
        auto profile = lobbyProfile();
        profile["aggregated"] = json::parse(R"([{"key": "like", "n": 3}, {"key": "clap", "n": 4},
                            {"key": "new", "n": 2}])");
        ASSERT_EQ(chat->applyProfileResponse(profile), std::nullopt);
    });

    emit("subscribed");
    EXPECT_EQ(recorder->calls, (std::vector<std::string>{"connected", "aggregated"}));
    EXPECT_EQ(recorder->aggregated, (std::vector<Counts>{{{"clap", 3}, {"new", 2}}}));
    EXPECT_FALSE(chat->isReconnecting());
    EXPECT_FALSE(chat->diffAggregatedItems());

    // Delivered once: the next subscription is an ordinary one.
    emit("subscribed");
    EXPECT_EQ(recorder->calls, (std::vector<std::string>{"connected", "aggregated", "connected"}));
}

TEST_F(ChatEvents, WithoutCachedCountersTheFreshOnesAreTheDifference) {
    onQueue([&] {
        auto profile = lobbyProfile();
        profile.erase("aggregated");
        ASSERT_EQ(chat->applyProfileResponse(profile), std::nullopt);
        chat->reconnectChatWithEventDelegate(recorder, nullptr);
        ASSERT_EQ(chat->applyProfileResponse(lobbyProfile()), std::nullopt);
    });
    emit("subscribed");
    EXPECT_EQ(recorder->aggregated, (std::vector<Counts>{{{"like", 3}, {"clap", 1}}}));
}

// --- Write mode and input interval -------------------------------------------------------------

TEST_F(ChatEvents, AWriteModeEventForThisChatroomChangesTheMode) {
    emit("chat_write_mode", R"({"chatId": "chat-1", "chatWriteMode": "LOGIN"})");
    EXPECT_EQ(chat->mode(), TVKChatInputModeLogin);
    emit("chat_write_mode", R"({"chatId": "chat-2", "chatWriteMode": "ANCHOR"})");
    EXPECT_EQ(chat->mode(), TVKChatInputModeLogin);
    EXPECT_EQ(recorder->calls, std::vector<std::string>{"mode"});
}

TEST_F(ChatEvents, AnIntervalEventReportsTheChangeNotTheNewValue) {
    emit("message_input_interval", R"({"chatId": "chat-1", "inputInterval": 5})");
    EXPECT_EQ(chat->profile()->inputInterval(), 5.0);
    emit("message_input_interval", R"({"chatId": "chat-1", "inputInterval": 1.5})");
    emit("message_input_interval", R"({"chatId": "chat-2", "inputInterval": 9})");
    EXPECT_EQ(recorder->intervalChanges, (std::vector<double>{2.0, -3.5}));
    EXPECT_EQ(chat->profile()->inputInterval(), 1.5);
}

// A profile answer read by the service before these events arrived is older than they are: it
// fills in what no event touched, and leaves what they changed. An answer requested after them
// is taken whole.
TEST_F(ChatEvents, AProfileAnswerDoesNotUndoWhatEventsChangedAfterItsRequest) {
    TVKChatSession::EventChanges requestSent;
    onQueue([&] { requestSent = chat->eventChanges(); });
    emit("chat_write_mode", R"({"chatId": "chat-1", "chatWriteMode": "LOGIN"})");
    emit("message_input_interval", R"({"chatId": "chat-1", "inputInterval": 7})");
    emit("user_count", R"({"chatId": "chat-1", "memberCount": 40, "guestCount": 2})");
    emit("pinned_message", R"({"chatId": "chat-1", "pinnedMsg": {"id": "m9", "text": "read me"}})");
    emit("agg_data", R"({"chatId": "chat-1", "aggregated": [{"key": "like", "n": 2}]})");

    auto older = lobbyProfile();
    older["aggregated"] = json::parse(R"([{"key": "like", "n": 1}])");
    older["pinnedMsg"] = json::parse(R"({"id": "m1", "text": "old pin"})");
    onQueue([&] { ASSERT_EQ(chat->applyProfileResponse(older, requestSent), std::nullopt); });
    EXPECT_EQ(chat->mode(), TVKChatInputModeLogin);
    EXPECT_EQ(chat->profile()->inputInterval(), 7.0);
    EXPECT_EQ(chat->userCount(), 42);
    EXPECT_EQ(chat->profile()->memberCount(), 40);
    ASSERT_TRUE(chat->pinnedMessage());
    EXPECT_EQ(chat->pinnedMessage()->messageId(), "m9");
    EXPECT_EQ(countsOf(chat->totalAggregatedItems()), (Counts{{"like", 5}, {"clap", 1}}));

    onQueue(
        [&] { ASSERT_EQ(chat->applyProfileResponse(older, chat->eventChanges()), std::nullopt); });
    EXPECT_EQ(chat->mode(), TVKChatInputModeAll);
    EXPECT_EQ(chat->profile()->inputInterval(), 3.0);
    EXPECT_EQ(chat->userCount(), 5);
    ASSERT_TRUE(chat->pinnedMessage());
    EXPECT_EQ(chat->pinnedMessage()->messageId(), "m1");
    EXPECT_EQ(countsOf(chat->totalAggregatedItems()), (Counts{{"like", 1}}));
}

// The two events tell their chatroom apart differently, deliberately: the write-mode event by
// the id's text, the interval event by the very JSON value the profile was loaded with. An id
// equal only in content (the number 42 for the string "42") passes the first test, not the
// second.
TEST_F(ChatEvents, TheIntervalEventNeedsTheProfilesOwnChatIdValue) {
    onQueue([&] {
        auto profile = lobbyProfile();
        profile["id"] = "42";
        ASSERT_EQ(chat->applyProfileResponse(profile), std::nullopt);
    });
    emit("chat_write_mode", R"({"chatId": 42, "chatWriteMode": "ANCHOR"})");
    EXPECT_EQ(chat->mode(), TVKChatInputModeAnchor);
    emit("message_input_interval", R"({"chatId": 42, "inputInterval": 10})");
    EXPECT_EQ(chat->profile()->inputInterval(), 3.0);
    emit("message_input_interval", R"({"chatId": "42", "inputInterval": 10})");
    EXPECT_EQ(chat->profile()->inputInterval(), 10.0);
    EXPECT_EQ(recorder->calls, (std::vector<std::string>{"mode", "interval"}));
}

TEST_F(ChatEvents, ANumericChatIdIsMatchedByValueAndKind) {
    onQueue([&] {
        auto profile = lobbyProfile();
        profile["id"] = 42;
        ASSERT_EQ(chat->applyProfileResponse(profile), std::nullopt);
    });
    emit("message_input_interval", R"({"chatId": "42", "inputInterval": 7})");
    emit("message_input_interval", R"({"chatId": 42.0, "inputInterval": 7})");
    EXPECT_TRUE(recorder->intervalChanges.empty());
    emit("message_input_interval", R"({"chatId": 42, "inputInterval": 7})");
    EXPECT_EQ(recorder->intervalChanges, std::vector<double>{4.0});
}

// --- Users and counts --------------------------------------------------------------------------

TEST_F(ChatEvents, AJoinCachesTheUsersAndCountsEveryoneButTheSignedInUser) {
    onQueue([&] { chat->currentUser()->updateChatId("chat-1", "token", 7, "NORMAL"); });
    ASSERT_EQ(chat->userCount(), 5);

    emit("user_add", sio::SocketIOArgs{json::array{userJSON(7, "NORMAL")}});
    EXPECT_EQ(recorder->calls, (std::vector<std::string>{"joined", "count"}));
    EXPECT_EQ(recorder->userCounts, std::vector<std::int64_t>{5});

    emit("user_add",
         sio::SocketIOArgs{json::array{userJSON(8, "MODERATOR"), userJSON(9, "NORMAL")}});
    EXPECT_EQ(recorder->userCounts.back(), 7);
    EXPECT_EQ(recorder->users.size(), 2u);
    onQueue([&] {
        EXPECT_TRUE(chat->userCache().findCachedUserByLabel(8));
        EXPECT_TRUE(chat->userCache().findCachedUserByLabel(7));
    });

    // A payload that does not map to users is dropped.
    emit("user_add", R"([1, 2])");
    EXPECT_EQ(recorder->calls.size(), 4u);
}

TEST_F(ChatEvents, AnUpdateReplacesCachedUsersAndKeepsTheCount) {
    emit("user_add", sio::SocketIOArgs{json::array{userJSON(8, "MODERATOR")}});
    emit("user_update", sio::SocketIOArgs{json::array{userJSON(8, "NORMAL")}});
    EXPECT_EQ(recorder->calls, (std::vector<std::string>{"joined", "count", "updated"}));
    onQueue([&] {
        EXPECT_TRUE(chat->userCache().moderators().empty());
        ASSERT_EQ(chat->userCache().normalUsers().size(), 1u);
        EXPECT_EQ(chat->userCache().normalUsers().front()->role(), "NORMAL");
    });
    EXPECT_EQ(chat->userCount(), 6);
}

TEST_F(ChatEvents, ALeaveReportsFirstThenLowersTheCountWithoutFloor) {
    onQueue([&] { chat->currentUser()->updateChatId("chat-1", "token", 7, "NORMAL"); });
    emit("user_add", sio::SocketIOArgs{json::array{userJSON(8, "NORMAL")}});
    // The signed-in user's own leave counts too, unlike its join.
    emit("user_remove", R"([{"label": 8}, {"label": 7}])");
    EXPECT_EQ(recorder->labels, (TVKUserLabels{8, 7}));
    EXPECT_EQ(recorder->userCounts.back(), 4);
    onQueue([&] { EXPECT_FALSE(chat->userCache().findCachedUserByLabel(8)); });

    emit("user_remove",
         R"([{"label": 1}, {"label": 2}, {"label": 3}, {"label": 4}, {"label": 5}])");
    EXPECT_EQ(chat->userCount(), 1);  // stored below 1, read as 1
    EXPECT_EQ(recorder->calls,
              (std::vector<std::string>{"joined", "count", "left", "count", "left", "count"}));
}

TEST_F(ChatEvents, AUserCountEventSetsTheProfileCounts) {
    emit("user_count", R"({"chatId": "chat-1", "memberCount": 4990, "guestCount": 11})");
    EXPECT_EQ(chat->memberCount(), 4990u);
    EXPECT_EQ(chat->guestCount(), 11u);
    EXPECT_EQ(recorder->userCounts, std::vector<std::int64_t>{5001});

    // A large chatroom keeps its cache when users leave.
    emit("user_add", sio::SocketIOArgs{json::array{userJSON(8, "NORMAL")}});
    emit("user_remove", R"([{"label": 8}])");
    onQueue([&] { EXPECT_TRUE(chat->userCache().findCachedUserByLabel(8)); });
}

// --- Lifetimes ---------------------------------------------------------------------------------

TEST_F(ChatEvents, AReleasedChatroomOrDelegateHearsNothing) {
    recorder.reset();
    emit("message", R"({"id": "m1", "text": "nobody listens"})");  // no crash, nothing to tell

    std::weak_ptr<TVKChat> weakChat = chat;
    auto client = chat->socketClient();
    chat.reset();
    EXPECT_TRUE(weakChat.expired());  // pending handlers do not keep it alive
    emit("message", R"({"id": "m2", "text": "too late"})");
}

// --- The profile answer ------------------------------------------------------------------------

TEST_F(ChatEvents, TheProfileAnswerSetsTheChatroomsState) {
    EXPECT_EQ(chat->status(), TVKChatStatusReady);
    EXPECT_EQ(chat->chatId(), "chat-1");
    EXPECT_EQ(chat->chatroomName(), "lobby");
    EXPECT_EQ(chat->userCount(), 5);
    EXPECT_EQ(chat->mode(), TVKChatInputModeAll);
    EXPECT_EQ(chat->arcHTTPHostURL(), "http://127.0.0.1:9/archive/chat-1/");
    ASSERT_TRUE(chat->stickers());
    EXPECT_EQ(chat->stickers()->size(), 2u);
    EXPECT_EQ(chat->pinnedMessage(), nullptr);  // an empty "pinnedMsg" pins nothing
    EXPECT_TRUE(chat->hasGotSocketConfig());

    // A load that asked for no stickers leaves none, so that the next load asks again.
    onQueue([&] {
        auto profile = lobbyProfile();
        profile.erase("sticker");
        ASSERT_EQ(chat->applyProfileResponse(profile), std::nullopt);
    });
    EXPECT_FALSE(chat->hasGotStickers());
}

TEST_F(ChatEvents, AnIncompleteProfileAnswerIsRefusedAndChangesNothing) {
    struct Case {
        const char* name;
        const char* key;
        json::value value;  // null: the key is removed
        bool missing;       // TVKHTTPDataMissingError, else a mapping error
    };
    for (const auto& c : {
             Case{"no archive address", "arcMsgURL", nullptr, true},
             Case{"stickers not a list", "sticker", "none", false},
             Case{"counters not objects", "aggregated", json::array{1}, false},
         }) {
        auto profile = lobbyProfile();
        profile["memberCount"] = 100;
        if (c.value.is_null()) {
            profile.erase(c.key);
        } else {
            profile[c.key] = c.value;
        }
        std::optional<TVKError> error;
        onQueue([&] { error = chat->applyProfileResponse(profile); });
        ASSERT_TRUE(error) << c.name;
        EXPECT_EQ(c.missing, *error == TVKHTTPDataMissingError()) << c.name;
        EXPECT_EQ(!c.missing, error->data.has_value()) << c.name;
        EXPECT_EQ(chat->memberCount(), 4u) << c.name;
    }
}

TEST(ChatProperties, DerivedPropertiesReadTheProfile) {
    auto queue = dispatch::SerialQueue::create("test.chat");
    auto chat = TVKChatSession::chatForChannel("p#mine", "vendor", "jwt", kUnusedHost,
                                               environmentOn(queue));
    EXPECT_EQ(TVKChatSession::chatForChannel(std::nullopt, "vendor", "", kUnusedHost,
                                             environmentOn(queue)),
              nullptr);
    EXPECT_EQ(chat->chatroomName(), "mine");
    EXPECT_EQ(chat->originalChatroomName(), "p#mine");
    EXPECT_TRUE(chat->isPersonalChat());
    EXPECT_TRUE(chat->shouldTryToCreateChat());
    EXPECT_EQ(chat->status(), TVKChatStatusNone);
    EXPECT_EQ(chat->chatId(), "");
    EXPECT_FALSE(chat->currentUser()->isGuest());

    struct Case {
        json::value memberCount, guestCount;
        std::int64_t userCount;
    };
    for (const auto& c : {Case{0, 0, 1}, Case{1, 0, 1}, Case{-5, 1, 1}, Case{2, 3, 5}}) {
        auto profile = lobbyProfile();
        profile["memberCount"] = c.memberCount;
        profile["guestCount"] = c.guestCount;
        queue->sync([&] { ASSERT_EQ(chat->applyProfileResponse(profile), std::nullopt); });
        EXPECT_EQ(chat->userCount(), c.userCount) << c.memberCount << "+" << c.guestCount;
    }
    for (auto [writeMode, mode] :
         std::vector<std::pair<json::value, TVKChatInputMode>>{{"ANCHOR", TVKChatInputModeAnchor},
                                                               {"LOGIN", TVKChatInputModeLogin},
                                                               {"ALL", TVKChatInputModeAll},
                                                               {"all", TVKChatInputModeNull},
                                                               {nullptr, TVKChatInputModeNull}}) {
        auto profile = lobbyProfile();
        profile["chatWriteMode"] = writeMode;
        queue->sync([&] { ASSERT_EQ(chat->applyProfileResponse(profile), std::nullopt); });
        EXPECT_EQ(chat->mode(), mode) << writeMode;
    }
}

TEST(ChatProperties, EqualityComparesTheShortNameWithTheOthersFullName) {
    auto queue = dispatch::SerialQueue::create("test.chat");
    auto make = [&](const char* channel) {
        return TVKChatSession::chatForChannel(channel, "vendor", "", kUnusedHost,
                                              environmentOn(queue));
    };
    EXPECT_TRUE(make("lobby")->isEqual(*make("lobby")));
    EXPECT_EQ(make("lobby")->hash(), make("lobby")->hash());
    EXPECT_FALSE(make("lobby")->isEqual(*make("hall")));
    // Deliberately one-sided: a personal chatroom equals nothing, not even itself.
    auto personal = make("p#mine");
    EXPECT_FALSE(personal->isEqual(*personal));
    EXPECT_TRUE(make("mine")->isEqual(*make("mine")));
    EXPECT_TRUE(personal->isEqual(*make("mine")));  // "mine" == the other's full name
    EXPECT_FALSE(make("mine")->isEqual(*personal));
}

TEST(ChatProperties, IdentityIsAnEquivalenceThatAgreesWithHashAndOrder) {
    auto queue = dispatch::SerialQueue::create("test.chat");
    auto make = [&](const char* channel) {
        return TVKChatSession::chatForChannel(channel, "vendor", "", kUnusedHost,
                                              environmentOn(queue));
    };
    // Two objects per name, personal chatrooms included: equal exactly when the full names are.
    std::vector<std::shared_ptr<TVKChat>> chats;
    for (const char* channel : {"lobby", "hall", "p#mine", "mine"}) {
        chats.push_back(make(channel));
        chats.push_back(make(channel));
    }
    for (const auto& a : chats) {
        EXPECT_TRUE(*a == *a) << a->originalChatroomName();
        for (const auto& b : chats) {
            const bool sameName = a->originalChatroomName() == b->originalChatroomName();
            EXPECT_EQ(*a == *b, sameName);
            EXPECT_EQ(*a == *b, *b == *a);
            EXPECT_EQ(*a == *b, (*a <=> *b) == 0);
            if (*a == *b) {
                EXPECT_EQ(std::hash<TVKChat>{}(*a), std::hash<TVKChat>{}(*b));
            }
            for (const auto& c : chats) {
                if (*a == *b && *b == *c) {
                    EXPECT_TRUE(*a == *c);
                }
            }
        }
    }

    using ChatRef = std::reference_wrapper<const TVKChat>;
    std::unordered_set<ChatRef, std::hash<TVKChat>, std::equal_to<TVKChat>> unordered;
    std::set<ChatRef, std::less<TVKChat>> ordered;
    std::map<ChatRef, int, std::less<TVKChat>> counts;
    for (const auto& chat : chats) {
        unordered.insert(*chat);
        ordered.insert(*chat);
        ++counts[*chat];
    }
    EXPECT_EQ(unordered.size(), 4u);
    EXPECT_EQ(ordered.size(), 4u);
    EXPECT_EQ(counts.size(), 4u);
    auto personal = make("p#mine");
    EXPECT_TRUE(unordered.contains(*personal));  // found although isEqual says otherwise
    EXPECT_EQ(counts.at(*personal), 2);
    EXPECT_FALSE(ordered.contains(*make("p#other")));
}

#ifndef NDEBUG
TEST(ChatConfinementDeathTest, DrivingAChatroomOffItsQueueAbortsInDebugBuilds) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    auto queue = dispatch::SerialQueue::create("test.chat");
    auto chat =
        TVKChatSession::chatForChannel("lobby", "vendor", "", kUnusedHost, environmentOn(queue));
    EXPECT_DEATH(chat->applyProfileResponse(lobbyProfile()), "must run on queue \"test.chat\"");
    queue->sync([&] { EXPECT_EQ(chat->applyProfileResponse(lobbyProfile()), std::nullopt); });
}
#endif

TEST(ChatProperties, QueriesBeforeTheProfileAreRefused) {
    auto queue = dispatch::SerialQueue::create("test.chat");
    auto chat =
        TVKChatSession::chatForChannel("lobby", "vendor", "", kUnusedHost, environmentOn(queue));
    std::vector<TVKError> errors;
    auto record = [&](const TVKError& error) { errors.push_back(error); };
    queue->sync([&] {
        chat->getPinnedMessageWithSuccess([](auto&) { ADD_FAILURE(); }, record);
        chat->getUsersWithUserToken(
            "t", TVKChatUserTypeOnline, [](auto&) { ADD_FAILURE(); }, record);
        chat->listUsersWithUserToken(
            "t", TVKChatUserTypeOnline, [](auto&) { ADD_FAILURE(); }, record);
        chat->listMessagesWithUserToken(
            "t", {}, [](auto&) { ADD_FAILURE(); }, record);
    });
    ASSERT_EQ(errors.size(), 4u);
    for (const auto& error : errors) EXPECT_TRUE(isTVKEmptyChatProfileError(error));

    // An unknown user type is answered at once, with no list and no request.
    bool answered = false;
    queue->sync([&] {
        chat->listUsersWithUserToken(
            "t", static_cast<TVKChatUserType>(9),
            [&](const TVKChatUsers& users) { answered = users.empty(); }, record);
    });
    EXPECT_TRUE(answered);
}

}  // namespace
}  // namespace tavlo
