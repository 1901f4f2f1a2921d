// Event records and `deliver`: each record reaches its own delegate operation, with its payload
// and the chatroom unchanged.
#include <gtest/gtest.h>

#include <boost/json.hpp>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "TavloMessagingSDK/TVKChatEvent.hpp"
#include "TavloMessagingSDK/TVKChatMessage.hpp"

namespace tavlo {
namespace {

/// Names each call it receives, with what identifies its payload.
struct CallLog : TVKChatEventDelegate {
    std::vector<std::string> calls;
    std::vector<const TVKChat*> chats;

    void note(const std::shared_ptr<TVKChat>& chat, std::string call) {
        chats.push_back(chat.get());
        calls.push_back(std::move(call));
    }
    static std::string idOf(const std::shared_ptr<TVKChatMessage>& message) {
        return message ? message->messageId().value_or("?") : "null";
    }

    void chatroomConnected(const std::shared_ptr<TVKChat>& c) override { note(c, "connected"); }
    void chatroomDisconnected(const std::shared_ptr<TVKChat>& c) override {
        note(c, "disconnected");
    }
    void chatroomFailToConnect(const std::shared_ptr<TVKChat>& c, const TVKError& e) override {
        note(c, "failToConnect " + std::to_string(e.code));
    }
    void chatroomError(const std::shared_ptr<TVKChat>& c, const TVKError& e) override {
        note(c, "error " + std::to_string(e.code));
    }
    void chatroomReconnecting(const std::shared_ptr<TVKChat>& c, unsigned attempt,
                              std::chrono::milliseconds delay) override {
        note(c, "reconnecting " + std::to_string(attempt) + " " + std::to_string(delay.count()));
    }
    void chatroomMissedMessagesGap(const std::shared_ptr<TVKChat>& c,
                                   const TVKMissedMessagesGap& gap) override {
        note(c, "gap " + std::to_string(gap.oldestDate));
    }
    void chatroomInputModeChanged(const std::shared_ptr<TVKChat>& c) override { note(c, "mode"); }
    void chatroomUsersJoined(const std::shared_ptr<TVKChat>& c, const TVKChatUsers& u) override {
        note(c, "joined " + std::to_string(u.size()));
    }
    void chatroomUsersUpdated(const std::shared_ptr<TVKChat>& c, const TVKChatUsers& u) override {
        note(c, "updated " + std::to_string(u.size()));
    }
    void chatroomUsersLeft(const std::shared_ptr<TVKChat>& c, const TVKUserLabels& l) override {
        note(c, "left " + std::to_string(l.empty() ? -1 : l.front()));
    }
    void chatroomUserCount(const std::shared_ptr<TVKChat>& c) override { note(c, "userCount"); }
    void chatroomMessageAdded(const std::shared_ptr<TVKChat>& c,
                              const std::shared_ptr<TVKChatMessage>& m) override {
        note(c, "message " + idOf(m));
    }
    void chatroomAggregatedItemsAdded(const std::shared_ptr<TVKChat>& c,
                                      const TVKAggregatedItems& items) override {
        note(c, "aggregated " + std::to_string(items.size()));
    }
    void chatroomRawDataAdded(const std::shared_ptr<TVKChat>& c,
                              const std::shared_ptr<TVKChatMessage>& m) override {
        note(c, "rawData " + idOf(m));
    }
    void chatroomMessageRemoved(const std::shared_ptr<TVKChat>& c, const std::string& id) override {
        note(c, "removed " + id);
    }
    void chatroomMessageFlushed(const std::shared_ptr<TVKChat>& c) override { note(c, "flushed"); }
    void chatroomPinnedMessageUpdated(const std::shared_ptr<TVKChat>& c,
                                      const std::shared_ptr<TVKChatMessage>& m) override {
        note(c, "pinned " + idOf(m));
    }
    void chatroomMetadataUpdated(const std::shared_ptr<TVKChat>& c,
                                 const TVKChatMetadataDictionary& metadata) override {
        note(c, "metadata " + (metadata.empty() ? std::string("-") : metadata.begin()->first));
    }
};

std::shared_ptr<TVKChatMessage> messageWithId(const char* id) {
    return TVKChatMessage::withJSON<TVKChatMessage>(boost::json::object{{"id", id}});
}

TEST(TVKChatEventTest, EachRecordCallsItsOperationWithItsPayload) {
    TVKMissedMessagesGap gap;
    gap.oldestDate = 1700;
    TVKChatMetadataDictionary metadata{{"topic", nullptr}};
    const std::vector<std::pair<TVKChatEvent, std::string>> cases = {
        {chat_event::Connected{}, "connected"},
        {chat_event::Disconnected{}, "disconnected"},
        {chat_event::FailToConnect{TVKError("d", 11)}, "failToConnect 11"},
        {chat_event::Error{TVKError("d", 12)}, "error 12"},
        {chat_event::Reconnecting{3, std::chrono::milliseconds(2000)}, "reconnecting 3 2000"},
        {chat_event::MissedMessagesGap{gap}, "gap 1700"},
        {chat_event::InputModeChanged{}, "mode"},
        {chat_event::UsersJoined{TVKChatUsers(2)}, "joined 2"},
        {chat_event::UsersUpdated{TVKChatUsers(1)}, "updated 1"},
        {chat_event::UsersLeft{TVKUserLabels{42}}, "left 42"},
        {chat_event::UserCount{}, "userCount"},
        {chat_event::MessageAdded{messageWithId("m1")}, "message m1"},
        {chat_event::AggregatedItemsAdded{TVKAggregatedItems(3)}, "aggregated 3"},
        {chat_event::RawDataAdded{messageWithId("r1")}, "rawData r1"},
        {chat_event::MessageRemoved{"m2"}, "removed m2"},
        {chat_event::MessageFlushed{}, "flushed"},
        {chat_event::PinnedMessageUpdated{nullptr}, "pinned null"},
        {chat_event::MetadataUpdated{metadata}, "metadata topic"},
    };
    // Every kind of event appears in the table exactly once.
    std::set<std::size_t> kinds;
    for (const auto& entry : cases) kinds.insert(entry.first.index());
    ASSERT_EQ(kinds.size(), std::variant_size_v<TVKChatEvent>);
    ASSERT_EQ(cases.size(), std::variant_size_v<TVKChatEvent>);

    // Any non-null chatroom pointer works: the delegate only passes it on.
    const auto chat = std::shared_ptr<TVKChat>(reinterpret_cast<TVKChat*>(&kinds), [](TVKChat*) {});
    for (const auto& [event, expected] : cases) {
        CallLog log;
        deliver(log, chat, event);
        EXPECT_EQ(log.calls, std::vector<std::string>{expected});
        EXPECT_EQ(log.chats, std::vector<const TVKChat*>{chat.get()}) << expected;
    }
}

}  // namespace
}  // namespace tavlo
