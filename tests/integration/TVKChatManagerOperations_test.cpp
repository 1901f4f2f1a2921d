// Every chatroom operation of the chat manager against the emulator: what succeeds, what the
// manager refuses before sending anything, and which public error each failure becomes.

#include <gtest/gtest.h>

#include <cmath>
#include <condition_variable>
#include <future>
#include <limits>
#include <mutex>
#include <thread>

#include "TavloCoreSDK/TVKSDKAuthManager.hpp"
#include "TavloMessagingSDK/TVKAggregatedData.hpp"
#include "TavloMessagingSDK/TVKArchivedChat.hpp"
#include "TavloMessagingSDK/TVKChatManager.hpp"
#include "TavloMessagingSDK/TVKChatMessage.hpp"
#include "TavloMessagingSDK/TVKChatMetadata.hpp"
#include "TavloMessagingSDK/TVKChatUser.hpp"
#include "TavloMessagingSDK/TVKGetMessagesConfiguration.hpp"
#include "TavloMessagingSDK/TVKMSGError.hpp"
#include "tests/support/Access.hpp"
#include "tests/support/Await.hpp"
#include "tests/support/Emulator.hpp"

namespace tavlo {
namespace {

using namespace std::chrono_literals;
namespace json = boost::json;
using Failure = TVKChatManager::Failure;

using test::text;

using test::await;
using test::describe;
using test::Outcome;

/// Waits for connections and keeps the last chatroom heard of.
class Application : public TVKChatEventDelegate {
  public:
    void chatroomConnected(const std::shared_ptr<TVKChat>& chat) override { settle(chat, {}); }
    void chatroomFailToConnect(const std::shared_ptr<TVKChat>& chat,
                               const TVKError& error) override {
        settle(chat, error);
    }
    void chatroomPinnedMessageUpdated(const std::shared_ptr<TVKChat>&,
                                      const std::shared_ptr<TVKChatMessage>&) override {
        std::lock_guard lock(mutex_);
        ++pinEvents_;
        changed_.notify_all();
    }
    std::shared_ptr<TVKChat> waitForChat() {
        std::unique_lock lock(mutex_);
        changed_.wait_for(lock, 15s, [&] { return chat_ != nullptr; });
        return chat_;
    }
    bool waitForPinEvents(int count) {
        std::unique_lock lock(mutex_);
        return changed_.wait_for(lock, 15s, [&] { return pinEvents_ >= count; });
    }
    std::optional<TVKError> failure() const {
        std::lock_guard lock(mutex_);
        return failure_;
    }

  private:
    void settle(const std::shared_ptr<TVKChat>& chat, std::optional<TVKError> error) {
        std::lock_guard lock(mutex_);
        chat_ = chat;
        failure_ = std::move(error);
        changed_.notify_all();
    }
    mutable std::mutex mutex_;
    std::condition_variable changed_;
    std::shared_ptr<TVKChat> chat_;
    std::optional<TVKError> failure_;
    int pinEvents_ = 0;
};

class ChatManagerOperations : public test::EmulatorTest {
  protected:
    void SetUp() override {
        EmulatorTest::SetUp();
        useDemoAccount();
        refreshMemberTokensThroughEmulator();
        alice = connect("alice", "lobby");
        ASSERT_TRUE(alice.chat);
        // Once connected, the manager refreshes the user's record in the background; let that
        // request pass before counting requests.
        for (int i = 0; i < 2000 && sent("/get-users-by-labels/") == 0; ++i) {
            std::this_thread::sleep_for(1ms);
        }
        emulator().clearRequests();
    }

    struct Session {
        std::shared_ptr<TVKChatManager> manager;
        std::shared_ptr<Application> application;
        std::shared_ptr<TVKChat> chat;
    };
    /// `memberId` (empty: a guest) connected to `chatroom`; `chat` is also set when the
    /// connection failed, so that a chatroom that is registered but not connected can be had.
    Session connect(const std::string& memberId, const std::string& chatroom) {
        Session session{TVKChatManager::create(), std::make_shared<Application>(), nullptr};
        session.manager->setHTTPHostURL(emulator().url());
        session.manager->setTimeScale(0.01);
        const auto jwt = memberId.empty() ? std::string() : jwtOf(memberId);
        session.manager->connectToChatroom(chatroom, jwt, 0, session.application);
        session.chat = session.application->waitForChat();
        return session;
    }

    std::size_t sent(const std::string& pathPrefix) const {
        return emulator().requests(pathPrefix).size();
    }

    /// The lobby's seeded user of this name, as the service lists it.
    std::shared_ptr<TVKChatUser> lobbyUser(const std::string& name) {
        TVKChatUsers users;
        auto outcome = await([&](auto done, auto fail) {
            alice.manager->getUsersForChatroom(
                alice.chat, TVKChatUserTypeOnline,
                [&users, done](const TVKChatUsers& listed) {
                    users = listed;
                    done(nullptr);
                },
                fail);
        });
        EXPECT_TRUE(outcome.succeeded) << describe(outcome);
        for (const auto& user : users) {
            if (user->name() == name) return user;
        }
        ADD_FAILURE() << name << " is not online";
        return nullptr;
    }

    std::shared_ptr<TVKChatMessage> firstTextMessage() {
        std::shared_ptr<TVKChatMessage> first;
        auto outcome = await([&](auto done, auto fail) {
            alice.manager->getMessagesForChatroom(
                alice.chat, nullptr,
                [&first, done](const TVKChatMessages& messages) {
                    if (!messages.empty()) first = messages.front();
                    done(nullptr);
                },
                fail);
        });
        EXPECT_TRUE(first) << describe(outcome);
        return first;
    }

    Outcome sendText(const std::string& message) {
        return await([&](auto done, auto fail) {
            alice.manager->sendMessage(
                message, alice.chat, [done] { done(nullptr); }, fail);
        });
    }

    Session alice;
};

std::string repeated(const std::string& unit, std::size_t times) {
    std::string result;
    for (std::size_t i = 0; i < times; ++i) result += unit;
    return result;
}

TEST_F(ChatManagerOperations, UsersByType) {
    const std::vector<std::pair<TVKChatUserType, std::vector<std::string>>> cases = {
        {TVKChatUserTypeBlocked, {"Mallory"}},
        {TVKChatUserTypeSupervisor, {"Zoe", "Yuki", "Alice"}},
    };
    for (const auto& [type, expected] : cases) {
        std::vector<std::string> names;
        auto outcome = await([&, &type = type](auto done, auto fail) {
            alice.manager->getUsersForChatroom(
                alice.chat, type,
                [&names, done](const TVKChatUsers& users) {
                    for (const auto& user : users) names.push_back(user->name().value_or(""));
                    done(nullptr);
                },
                fail);
        });
        ASSERT_TRUE(outcome.succeeded) << describe(outcome);
        for (const auto& name : expected) {
            EXPECT_NE(std::find(names.begin(), names.end(), name), names.end())
                << name << " missing for type " << static_cast<int>(type);
        }
    }
    EXPECT_TRUE(lobbyUser("Xavier"));
}

TEST_F(ChatManagerOperations, MessageListingsAndTheConfigurationsType) {
    auto first = firstTextMessage();
    ASSERT_TRUE(first);
    auto listed = emulator().requests("/get-messages-by-chat/");
    ASSERT_EQ(listed.size(), 1u);
    EXPECT_EQ(text(listed[0].at("query").at("msgType")), "text");
    EXPECT_EQ(text(listed[0].at("query").at("count")), "10");

    auto configuration = std::make_shared<TVKGetMessagesConfiguration>();
    std::size_t batches = 0;
    auto outcome = await([&](auto done, auto fail) {
        alice.manager->getAggregatedDataForChatroom(
            alice.chat, configuration,
            [&batches, done](const TVKAggregatedDataList& data) {
                batches = data.size();
                done(nullptr);
            },
            fail);
    });
    ASSERT_TRUE(outcome.succeeded) << describe(outcome);
    EXPECT_EQ(batches, 1u);
    // Deliberately the caller's own configuration carries the type afterwards.
    EXPECT_EQ(configuration->msgType(), "aggregate");

    std::optional<json::value> raw;
    outcome = await([&](auto done, auto fail) {
        alice.manager->getRawDataForChatroom(
            alice.chat, configuration,
            [&raw, done](const TVKChatMessages& messages) {
                if (messages.size() == 1) raw = messages[0]->rawData();
                done(nullptr);
            },
            fail);
    });
    ASSERT_TRUE(outcome.succeeded) << describe(outcome);
    EXPECT_TRUE(raw && raw->is_object());
    EXPECT_EQ(configuration->msgType(), "raw");
}

TEST_F(ChatManagerOperations, MetadataAndPinnedMessage) {
    const std::vector<std::pair<std::optional<std::vector<std::string>>, std::string>> cases = {
        {std::nullopt, "rules,topic,"},  // the reserved and the vendor's entries are left out
        {std::vector<std::string>{"topic"}, "topic,"},
    };
    for (const auto& [keys, expected] : cases) {
        std::string found;
        auto outcome = await([&, &keys = keys](auto done, auto fail) {
            alice.manager->getMetadataForKeys(
                keys, alice.chat,
                [&found, done](const TVKChatMetadataDictionary& metadata) {
                    for (const auto& [key, record] : metadata) found += key + ",";
                    done(nullptr);
                },
                fail);
        });
        ASSERT_TRUE(outcome.succeeded) << describe(outcome);
        EXPECT_EQ(found, expected);
    }

    auto pinned = [&] {
        std::optional<std::string> id;
        auto outcome = await([&](auto done, auto fail) {
            alice.manager->getPinnedMessageForChat(
                alice.chat,
                [&id, done](const std::shared_ptr<TVKChatMessage>& message) {
                    id = message ? message->messageId().value_or("?") : "none";
                    done(nullptr);
                },
                fail);
        });
        EXPECT_TRUE(outcome.succeeded) << describe(outcome);
        return id.value_or("");
    };
    const auto requestsBefore = sent("");
    EXPECT_EQ(pinned(), "none");
    EXPECT_EQ(sent(""), requestsBefore) << "the pinned message comes from the chatroom's state";

    auto message = firstTextMessage();
    ASSERT_TRUE(message);
    auto outcome = await([&](auto done, auto fail) {
        alice.manager->pinMessage(
            message, alice.chat, [done] { done(nullptr); }, fail);
    });
    ASSERT_TRUE(outcome.succeeded) << describe(outcome);
    ASSERT_TRUE(alice.application->waitForPinEvents(1));
    EXPECT_EQ(pinned(), *message->messageId());
    outcome = await([&](auto done, auto fail) {
        alice.manager->unpinMessageFromChatroom(
            alice.chat, [done] { done(nullptr); }, fail);
    });
    ASSERT_TRUE(outcome.succeeded) << describe(outcome);
    ASSERT_TRUE(alice.application->waitForPinEvents(2));
    EXPECT_EQ(pinned(), "none");
}

TEST_F(ChatManagerOperations, ModerationActions) {
    auto xavier = lobbyUser("Xavier");
    ASSERT_TRUE(xavier);
    auto act = [&](const std::function<void(TVKChatManager::Success, Failure)>& start) {
        return await([&](auto done, auto fail) { start([done] { done(nullptr); }, fail); });
    };
    auto& manager = *alice.manager;
    auto chat = alice.chat;
    auto outcome = act([&](auto s, auto f) { manager.blockUsers({xavier}, chat, s, f); });
    EXPECT_TRUE(outcome.succeeded) << describe(outcome);
    outcome = act([&](auto s, auto f) { manager.reviveUsers({xavier}, chat, s, f); });
    EXPECT_TRUE(outcome.succeeded) << describe(outcome);

    // A moderator may not hand out roles: refused by the user's rules, nothing sent.
    outcome = act(
        [&](auto s, auto f) { manager.updateUserRole(kTVKUserRoleModerator, xavier, chat, s, f); });
    ASSERT_TRUE(outcome.error);
    EXPECT_EQ(outcome.error->code, TVKMSGErrorPermission);
    EXPECT_EQ(sent("/update-users-in-chat/"), 0u);

    auto carol = connect("carol", "lobby");
    ASSERT_TRUE(carol.chat);
    outcome = act([&](auto s, auto f) {
        carol.manager->updateUserRole(kTVKUserRoleModerator, xavier, carol.chat, s, f);
    });
    EXPECT_TRUE(outcome.succeeded) << describe(outcome);
    outcome = act([&](auto s, auto f) {
        carol.manager->updateUserRole(kTVKUserRoleModerator, "bob", carol.chat, s, f);
    });
    EXPECT_TRUE(outcome.succeeded) << describe(outcome);
    auto roles = emulator().requests("/update-users-in-chat/");
    ASSERT_EQ(roles.size(), 2u);
    EXPECT_NE(json::serialize(roles[1].at("body")).find("demo-account"), std::string::npos);

    outcome = act([&](auto s, auto f) { manager.updateGuestNickname("Ally", chat, s, f); });
    ASSERT_TRUE(outcome.error);
    EXPECT_EQ(outcome.error->code, TVKMSGErrorMemberNicknameUpdateNotSupported);
    auto guest = connect("", "lobby");
    ASSERT_TRUE(guest.chat);
    outcome = act(
        [&](auto s, auto f) { guest.manager->updateGuestNickname("Visitor", guest.chat, s, f); });
    EXPECT_TRUE(outcome.succeeded) << describe(outcome);

    auto message = firstTextMessage();
    ASSERT_TRUE(message);
    outcome = act([&](auto s, auto f) { manager.removeMessage(message, chat, s, f); });
    EXPECT_TRUE(outcome.succeeded) << describe(outcome);
}

TEST_F(ChatManagerOperations, SendingRecordsTheSendTime) {
    const auto before = TVKChatManager::Clock::now();
    auto outcome = sendText("hello");
    ASSERT_TRUE(outcome.succeeded) << describe(outcome);
    auto date = testing::Access::bookkeeping(*alice.manager, "lobby").inputAvailableDate;
    ASSERT_TRUE(date);
    EXPECT_GE(*date, before);
    EXPECT_EQ(alice.manager->cooldownForChatroom(alice.chat), 0);
    auto body = emulator().requests("/add-user-message-to-chat/").at(0).at("body");
    EXPECT_NE(json::serialize(body).find("hello"), std::string::npos);
}

// The limits themselves are checked where they are computed; here, that each operation applies
// its own before anything is sent, and lets the boundary case through.
TEST_F(ChatManagerOperations, InputIsCheckedBeforeAnythingIsSent) {
    const std::string emoji = "\xF0\x9F\x98\x80";  // two UTF-16 units
    using Start = std::function<void(TVKChatManager::Success, Failure)>;
    auto& manager = *alice.manager;
    auto chat = alice.chat;
    auto message = [&](std::string value) -> Start {
        return [&, value](auto s, auto f) { manager.sendMessage(value, chat, s, f); };
    };
    auto counter = [&](std::string key) -> Start {
        return [&, key](auto s, auto f) { manager.sendAggregatedDataWithKey(key, chat, s, f); };
    };
    auto raw = [&](json::value value) -> Start {
        return [&, value](auto s, auto f) { manager.sendRawData(value, chat, s, f); };
    };
    auto metadata = [&](std::string key, json::value value, bool broadcast) -> Start {
        return [&, key, value, broadcast](auto s, auto f) {
            manager.setMetadataValue(value, key, chat, broadcast, s, f);
        };
    };
    const auto textLength = TVKMSGLengthErrorWithMsgType("text");
    const auto keyLength = TVKMSGLengthErrorWithMsgType("aggregate");
    const auto notJSON = TVKMSGRawDataCannotBeConvertedToJson();
    const auto badKey = TVKMSGMetadataKeyInvalidError();
    const auto badValue = TVKMSGMetadataValueInvalidError();
    const std::vector<std::tuple<std::string, Start, std::optional<TVKError>>> cases = {
        {"300 letters", message(repeated("a", 300)), std::nullopt},
        {"301 letters", message(repeated("a", 301)), textLength},
        {"151 emoji", message(repeated(emoji, 151)), textLength},
        {"empty text", message(""), textLength},
        {"100-unit key", counter(repeated("k", 100)), std::nullopt},
        {"101-unit key", counter(repeated("k", 101)), keyLength},
        {"raw object", raw(json::object{{"move", "e4"}}), std::nullopt},
        {"raw string", raw(json::string("text")), notJSON},
        {"raw infinity", raw(json::object{{"x", std::numeric_limits<double>::infinity()}}),
         notJSON},
        {"31-letter key", metadata(repeated("k", 31), 1, false), badKey},
        {"4096-byte value", metadata("topic", json::string(repeated("v", 4094)), false),
         std::nullopt},
        {"4097-byte value", metadata("topic", json::string(repeated("v", 4095)), false), badValue},
        {"1025-byte broadcast", metadata("topic", json::string(repeated("v", 1023)), true),
         badValue},
        {"the key goes first", metadata("bad key", json::string(repeated("v", 5000)), false),
         badKey},
    };
    for (const auto& [name, start, refusal] : cases) {
        SCOPED_TRACE(name);
        const auto requestsBefore = sent("");
        auto outcome = await(
            [&, &start = start](auto done, auto fail) { start([done] { done(nullptr); }, fail); });
        if (!refusal) {
            EXPECT_TRUE(outcome.succeeded) << describe(outcome);
            continue;
        }
        ASSERT_TRUE(outcome.error);
        EXPECT_TRUE(outcome.synchronous);
        EXPECT_EQ(*outcome.error, *refusal);
        EXPECT_EQ(sent(""), requestsBefore);
    }
}

TEST_F(ChatManagerOperations, EveryOperationNeedsAConnectedChatroom) {
    auto stranded = connect("alice", "nowhere");  // registered, never connected
    ASSERT_TRUE(stranded.chat);
    ASSERT_TRUE(stranded.application->failure());
    auto& manager = *stranded.manager;
    auto chat = stranded.chat;
    auto message = firstTextMessage();
    auto xavier = lobbyUser("Xavier");
    emulator().clearRequests();

    using Start = std::function<void(TVKChatManager::Success, Failure)>;
    const std::vector<std::pair<std::string, Start>> operations = {
        {"users",
         [&](auto s, auto f) {
             manager.getUsersForChatroom(
                 chat, TVKChatUserTypeOnline, [s](auto&) { s(); }, f);
         }},
        {"messages",
         [&](auto s, auto f) {
             manager.getMessagesForChatroom(
                 chat, nullptr, [s](auto&) { s(); }, f);
         }},
        {"typed messages",
         [&](auto s, auto f) {
             manager.getMessagesForChatroom(
                 chat, "raw", nullptr, [s](auto&) { s(); }, f);
         }},
        {"nickname", [&](auto s, auto f) { manager.updateGuestNickname("Nick", chat, s, f); }},
        {"role", [&](auto s, auto f) { manager.updateUserRole("NORMAL", xavier, chat, s, f); }},
        {"role by id",
         [&](auto s, auto f) { manager.updateUserRole("NORMAL", "bob", chat, s, f); }},
        {"block", [&](auto s, auto f) { manager.blockUsers({xavier}, chat, s, f); }},
        {"revive", [&](auto s, auto f) { manager.reviveUsers({xavier}, chat, s, f); }},
        {"text", [&](auto s, auto f) { manager.sendMessage("hi", chat, s, f); }},
        {"typed",
         [&](auto s, auto f) { manager.sendMessage(json::value("hi"), "text", chat, s, f); }},
        {"remove", [&](auto s, auto f) { manager.removeMessage(message, chat, s, f); }},
        {"pinned",
         [&](auto s, auto f) {
             manager.getPinnedMessageForChat(
                 chat, [s](auto&) { s(); }, f);
         }},
        {"pin", [&](auto s, auto f) { manager.pinMessage(message, chat, s, f); }},
        {"unpin", [&](auto s, auto f) { manager.unpinMessageFromChatroom(chat, s, f); }},
        {"metadata",
         [&](auto s, auto f) { manager.setMetadataValue(1, "topic", chat, false, s, f); }},
        {"read metadata",
         [&](auto s, auto f) {
             manager.getMetadataForKeys(
                 std::nullopt, chat, [s](auto&) { s(); }, f);
         }},
        {"aggregate",
         [&](auto s, auto f) { manager.sendAggregatedDataWithKey("like", chat, s, f); }},
        {"raw", [&](auto s, auto f) { manager.sendRawData(json::object{}, chat, s, f); }},
        {"aggregates",
         [&](auto s, auto f) {
             manager.getAggregatedDataForChatroom(
                 chat, nullptr, [s](auto&) { s(); }, f);
         }},
        {"raws",
         [&](auto s, auto f) {
             manager.getRawDataForChatroom(
                 chat, nullptr, [s](auto&) { s(); }, f);
         }},
        // A chatroom of another manager is not connected for this one.
        {"foreign", [&](auto s, auto f) { manager.sendMessage("hi", alice.chat, s, f); }},
    };
    for (const auto& [name, start] : operations) {
        SCOPED_TRACE(name);
        auto outcome = await(
            [&, &start = start](auto done, auto fail) { start([done] { done(nullptr); }, fail); });
        ASSERT_TRUE(outcome.error);
        EXPECT_TRUE(outcome.synchronous);
        EXPECT_EQ(*outcome.error, TVKMSGNotConnectedError());
    }
    EXPECT_EQ(sent(""), 0u);
}

TEST_F(ChatManagerOperations, MissingCallbacksAreSkipped) {
    // A refused argument without a failure callback: nothing sent, nothing to report to.
    alice.manager->sendMessage(
        repeated("a", 301), alice.chat, [] { FAIL(); }, nullptr);
    alice.manager->sendRawData(json::string("no"), alice.chat, nullptr, nullptr);
    alice.manager->setMetadataValue(1, "", alice.chat, false, nullptr, nullptr);
    alice.manager->getArchivedMessageMetaForChatroom("lobby", "short", nullptr, nullptr);
    EXPECT_EQ(sent(""), 0u);
    // Without a success callback the operation still goes out.
    alice.manager->sendMessage("quietly", alice.chat, nullptr, nullptr);
    for (int i = 0; i < 1000 && sent("/add-user-message-to-chat/") == 0; ++i) {
        std::this_thread::sleep_for(2ms);
    }
    EXPECT_EQ(sent("/add-user-message-to-chat/"), 1u);
}

TEST_F(ChatManagerOperations, ServerFailuresBecomePublicErrors) {
    struct Case {
        json::object fault;
        long code;
    };
    const std::vector<Case> cases = {
        {{{"status", 500}, {"code", "DataAccessError"}}, TVKMSGErrorServer},
        {{{"status", 403}, {"code", "PermissionViolationError"}}, TVKMSGErrorPermission},
        {{{"status", 429}, {"code", "TooManyRequestsError"}}, TVKMSGErrorTooManyRequests},
        {{{"status", 404}, {"code", "EntityNotFoundError"}}, TVKMSGErrorInternal},
        // Refused again after the refresher handed out a fresh JWT.
        {{{"status", 401}, {"code", "UnauthorizedError"}, {"count", 2}}, TVKMSGErrorUnauthorized},
        // A kept-alive connection that dies unanswered is not tried again for a send.
        {{{"drop", true}}, TVKMSGErrorNetworkNoConnection},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(json::serialize(c.fault));
        auto fault = c.fault;
        fault["pathPrefix"] = "/add-user-message-to-chat/";
        emulator().control("POST", "faults", fault);
        auto outcome = sendText("doomed");
        ASSERT_TRUE(outcome.error) << describe(outcome);
        EXPECT_EQ(outcome.error->domain, TVKMSGErrorDomain);
        EXPECT_EQ(outcome.error->code, c.code);
        EXPECT_FALSE(outcome.synchronous);
        emulator().control("DELETE", "faults");
    }
    // Without a refresher that works the expired JWT cannot be renewed: the refresher's own
    // failure is what the application hears, as an internal error.
    TVKSDKAuthManager::sharedManager().setMemberTokenRefresher({});
    emulator().control("POST", "faults",
                       json::object{{"pathPrefix", "/add-user-message-to-chat/"},
                                    {"status", 401},
                                    {"code", "UnauthorizedError"}});
    auto outcome = sendText("doomed");
    ASSERT_TRUE(outcome.error) << describe(outcome);
    EXPECT_EQ(outcome.error->code, TVKMSGErrorInternal);
}

TEST_F(ChatManagerOperations, ArchivedHistory) {
    auto archived = alice.manager->getArchivedChatWithChatroomName("lobby", "demo-account");
    ASSERT_TRUE(archived);
    EXPECT_EQ(alice.manager->getArchivedChatWithChatroomName("lobby", "another-account"), archived);

    std::size_t files = 0;
    auto outcome = await([&](auto done, auto fail) {
        alice.manager->getArchivedMessageMetaForChatroom(
            "lobby", "lobby-archive-2023",
            [&files, done](const std::shared_ptr<TVKArchivedMessagesMeta>& meta) {
                files = meta ? meta->files().size() : 0;
                done(nullptr);
            },
            fail);
    });
    ASSERT_TRUE(outcome.succeeded) << describe(outcome);
    EXPECT_EQ(files, 3u);

    auto query = [&](const TVKGetArchivedMessagesConfiguration& configuration) {
        std::size_t count = 0;
        auto outcome = await([&](auto done, auto fail) {
            alice.manager->getArchivedMessagesForChatroom(
                "lobby", configuration,
                [&count, done](const TVKChatMessages& messages) {
                    count = messages.size();
                    done(json::value(count));
                },
                fail);
        });
        return outcome;
    };
    const std::uint64_t start = 1685610000000;  // the first message of the first file
    auto configuration = TVKGetArchivedMessagesConfiguration::configurationWithArchiveId(
        std::string("lobby-archive-2023"));
    configuration.setStart(start);
    configuration.setEnd(start + 4 * 60000);
    outcome = query(configuration);
    ASSERT_TRUE(outcome.succeeded) << describe(outcome);
    EXPECT_EQ(outcome.value, json::value(5));

    auto withoutEnd = configuration;
    withoutEnd.setEnd(std::nullopt);
    outcome = query(withoutEnd);
    ASSERT_TRUE(outcome.error);
    EXPECT_EQ(*outcome.error, TVKMSGArchivedInputTimestampError());

    for (const std::optional<std::string>& id :
         {std::optional<std::string>(), std::optional<std::string>("short"),
          std::optional<std::string>("has space in it"),
          std::optional<std::string>(repeated("a", 33))}) {
        auto bad = withoutEnd;  // the id is judged before the range
        bad.setArchiveId(id);
        outcome = query(bad);
        ASSERT_TRUE(outcome.error);
        EXPECT_EQ(*outcome.error, TVKMSGArchivedIdNotFoundError());
        outcome = await([&](auto done, auto fail) {
            alice.manager->getArchivedMessageMetaForChatroom(
                "lobby", id.value_or(""), [done](auto&) { done(nullptr); }, fail);
        });
        ASSERT_TRUE(outcome.error);
        EXPECT_EQ(*outcome.error, TVKMSGArchivedIdNotFoundError());
    }
}

}  // namespace
}  // namespace tavlo
