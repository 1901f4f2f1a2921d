// The pieces of tavlo-chat that decide what the user meant: options, command lines, times,
// references to users and messages, and the waiting that keeps scripted runs in step.

#include <gtest/gtest.h>

#include <boost/json.hpp>
#include <sstream>
#include <thread>

#include "ChatCommand.hpp"
#include "ChatDirectory.hpp"
#include "ChatOptions.hpp"
#include "Console.hpp"
#include "Formatting.hpp"
#include "PendingCall.hpp"

namespace tavlo::chat {
namespace {

using namespace std::chrono_literals;

ParsedOptions parse(std::vector<std::string> arguments,
                    std::optional<std::string> environmentURL = std::nullopt) {
    return parseChatOptions(arguments, environmentURL);
}

TEST(ChatOptions, DefaultsAreAGuestInTheLobbyOfTheLocalEmulator) {
    const auto parsed = parse({});
    ASSERT_TRUE(parsed.options);
    EXPECT_EQ(parsed.options->url, kDefaultServiceURL);
    EXPECT_EQ(parsed.options->chatroom, "lobby");
    EXPECT_EQ(parsed.options->account, "demo-account");
    EXPECT_TRUE(parsed.options->isGuest());
    EXPECT_FALSE(parsed.options->personal);
}

TEST(ChatOptions, ReadsEveryOptionInBothSpellings) {
    const auto parsed =
        parse({"--url=http://h:1", "--chatroom", "quiz", "--member", "alice", "--personal",
               "--ca-file", "/tmp/ca.pem", "--account=acme", "--timeout", "2.5", "--log=Trace"},
              "http://ignored:2");
    ASSERT_TRUE(parsed.options) << parsed.error;
    EXPECT_EQ(parsed.options->url, "http://h:1");
    EXPECT_EQ(parsed.options->chatroom, "quiz");
    EXPECT_EQ(parsed.options->member, "alice");
    EXPECT_TRUE(parsed.options->personal);
    EXPECT_EQ(parsed.options->caFile, "/tmp/ca.pem");
    EXPECT_EQ(parsed.options->account, "acme");
    EXPECT_DOUBLE_EQ(parsed.options->timeoutSeconds, 2.5);
    EXPECT_EQ(parsed.options->logLevel, TVKLogLevel::trace);
    EXPECT_FALSE(parsed.options->isGuest());
}

TEST(ChatOptions, EnvironmentReplacesTheDefaultURL) {
    EXPECT_EQ(parse({}, "http://127.0.0.1:9999").options->url, "http://127.0.0.1:9999");
    EXPECT_EQ(parse({}, "").options->url, kDefaultServiceURL);
}

TEST(ChatOptions, RefusesWhatCannotWork) {
    const std::vector<std::vector<std::string>> mistakes = {
        {"--jwt", "a", "--member", "b"},  // two identities
        {"--personal"},                   // a guest has no personal chatroom
        {"--url"},                        // value missing
        {"--url="},                       // value empty
        {"--colour", "red"},              // unknown
        {"lobby"},                        // positional
        {"--timeout", "0"},
        {"--timeout", "soon"},
        {"--timeout", "2.5s"},  // trailing text
        {"--log", "loud"},
    };
    for (const auto& arguments : mistakes) {
        const auto parsed = parse(arguments);
        EXPECT_FALSE(parsed.options) << arguments[0];
        EXPECT_FALSE(parsed.error.empty()) << arguments[0];
    }
}

TEST(ChatCommand, SplitsVerbAndKeepsTheRestAsTyped) {
    EXPECT_FALSE(parseChatCommand(""));
    EXPECT_FALSE(parseChatCommand("   "));
    EXPECT_FALSE(parseChatCommand("# a comment"));
    const auto command = parseChatCommand("  SEND  Hello,   world  ");
    ASSERT_TRUE(command);
    EXPECT_EQ(command->verb, "send");
    EXPECT_EQ(command->rest, "Hello,   world");
    EXPECT_EQ(parseChatCommand("unpin")->rest, "");
}

TEST(ChatCommand, WordsKeepTheRemainderInTheLastOne) {
    const auto command = *parseChatCommand(R"(meta set topic {"a": [1, 2]} broadcast)");
    EXPECT_EQ(command.words(),
              (std::vector<std::string>{"set", "topic", R"({"a":)", "[1,", "2]}", "broadcast"}));
    EXPECT_EQ(command.words(3),
              (std::vector<std::string>{"set", "topic", R"({"a": [1, 2]} broadcast)"}));
    EXPECT_TRUE(parseChatCommand("users")->words().empty());
}

TEST(ChatCommand, NamesUserTypes) {
    EXPECT_EQ(userTypeNamed(""), TVKChatUserTypeOnline);
    EXPECT_EQ(userTypeNamed("online"), TVKChatUserTypeOnline);
    EXPECT_EQ(userTypeNamed("blocked"), TVKChatUserTypeBlocked);
    EXPECT_EQ(userTypeNamed("supervisors"), TVKChatUserTypeSupervisor);
    EXPECT_FALSE(userTypeNamed("everyone"));
}

TEST(ChatCommand, ReadsArchiveTimes) {
    struct Case {
        const char* text;
        std::optional<std::uint64_t> millis;
    };
    const Case cases[] = {
        {"1685610000000", 1685610000000},
        {"2023-06-01T09:00:00Z", 1685610000000},
        {"2023-06-01T09:00Z", 1685610000000},
        {"2023-06-01T09:00:00.250Z", 1685610000250},
        {"1970-01-01T00:00:00Z", 0},
        {"2023-06-01T09:00:00", std::nullopt},
        {"2023-06-01 09:00:00Z", std::nullopt},
        {"yesterday", std::nullopt},
        {"-5", std::nullopt},
        {"", std::nullopt},
    };
    for (const auto& [text, millis] : cases) EXPECT_EQ(parseArchiveTime(text), millis) << text;
    EXPECT_EQ(utcTime(1685610000250), "2023-06-01T09:00:00.250Z");
}

std::shared_ptr<TVKChatUser> user(std::int64_t label, const std::string& name,
                                  std::optional<std::string> memberId = std::nullopt) {
    boost::json::object json{{"label", label}, {"name", name}, {"role", "NORMAL"}};
    if (memberId) json["userId"] = *memberId;
    return DQDataObject::withJSON<TVKChatUser>(json);
}

std::shared_ptr<TVKChatMessage> message(const std::string& id, const std::string& text,
                                        const std::string& createdDate = "") {
    boost::json::object json{{"id", id}, {"value", text}, {"msgType", "text"}};
    if (!createdDate.empty()) json["createdDate"] = createdDate;
    return DQDataObject::withJSON<TVKChatMessage>(json);
}

TEST(ChatDirectory, FindsUsersByLabelThenNewestNameThenMemberId) {
    ChatDirectory directory;
    directory.rememberUsers({user(4, "Guest"), user(9, "Alice", "alice"), user(12, "Guest")});
    EXPECT_EQ(directory.findUser("4")->label(), 4);
    EXPECT_EQ(directory.findUser("Guest")->label(), 12);  // the most recently seen
    EXPECT_EQ(directory.findUser("alice")->label(), 9);
    EXPECT_EQ(directory.findUser("Alice")->label(), 9);
    EXPECT_EQ(directory.findUser("77"), nullptr);
    EXPECT_EQ(directory.findUser(""), nullptr);

    // A renamed user is found under the new name only.
    directory.rememberUsers({user(12, "Visitor")});
    EXPECT_EQ(directory.findUser("Visitor")->label(), 12);
    EXPECT_EQ(directory.findUser("Guest")->label(), 4);
}

TEST(ChatDirectory, FindsMessagesByIdOrNewestText) {
    ChatDirectory directory;
    EXPECT_EQ(directory.findMessage("Hello"), nullptr);
    // Seen newest first, as a history page lists them: the service's time decides what is newer.
    directory.rememberMessage(message("m3", "m1", "2024-01-01T10:00:03.000Z"));
    directory.rememberMessage(message("m2", "Hello again", "2024-01-01T10:00:02.000Z"));
    directory.rememberMessage(message("m1", "Hello from Alice", "2024-01-01T10:00:01.000Z"));
    EXPECT_EQ(directory.findMessage("m1")->messageId(), "m1");  // an id wins over text
    EXPECT_EQ(directory.findMessage("Hello")->messageId(), "m2");
    EXPECT_EQ(directory.findMessage("Alice")->messageId(), "m1");
    EXPECT_EQ(directory.findMessage("nobody"), nullptr);
    directory.rememberMessage(message("m4", "Hello, undated"));  // counts as the newest
    EXPECT_EQ(directory.findMessage("Hello")->messageId(), "m4");
}

TEST(ChatDirectory, KeepsABoundedNumberOfMessages) {
    ChatDirectory directory;
    for (std::size_t i = 0; i <= ChatDirectory::kMessageLimit; ++i) {
        directory.rememberMessage(message("id" + std::to_string(i), "text"));
    }
    EXPECT_EQ(directory.findMessage("id0"), nullptr);
    EXPECT_NE(directory.findMessage("id1"), nullptr);
}

TEST(Console, StampsLinesAndWaitsForLaterOnes) {
    std::ostringstream out;
    Console console(out);
    const std::atomic<bool> interrupted{false};
    console.echo("wait hello");
    EXPECT_FALSE(console.waitForText("hello", 10ms, interrupted)) << "its own echo must not count";
    console.print("* message x Alice: hello\n* second line");
    EXPECT_TRUE(console.waitForText("hello", 10ms, interrupted));
    EXPECT_FALSE(console.waitForText("hello", 10ms, interrupted)) << "a line satisfies one wait";
    EXPECT_TRUE(console.waitForText("second", 10ms, interrupted));

    std::thread later([&] {
        std::this_thread::sleep_for(30ms);
        console.print("late news");
    });
    EXPECT_TRUE(console.waitForText("news", 5s, interrupted));
    later.join();

    std::istringstream lines(out.str());
    std::string line;
    int count = 0;
    while (std::getline(lines, line)) {
        ++count;
        ASSERT_GE(line.size(), 13u);
        EXPECT_EQ(line[2], ':');
        EXPECT_EQ(line[8], '.');
        EXPECT_EQ(line[12], ' ');
    }
    EXPECT_EQ(count, 4);
    EXPECT_NE(out.str().find(" > wait hello\n"), std::string::npos);
}

TEST(Console, PatternsMatchPiecesInOrder) {
    const std::string line = "* updated: Visitor (label 12, MODERATOR)";
    EXPECT_TRUE(Console::lineMatches(line, "updated: Visitor"));
    EXPECT_TRUE(Console::lineMatches(line, "updated: Visitor*MODERATOR"));
    EXPECT_TRUE(Console::lineMatches(line, "*Visitor*12*"));
    EXPECT_FALSE(Console::lineMatches(line, "MODERATOR*Visitor"));
    EXPECT_FALSE(Console::lineMatches(line, "Visitor*NORMAL"));
    EXPECT_TRUE(Console::lineMatches("aa", "a*a"));
    EXPECT_FALSE(Console::lineMatches("a", "a*a"));
}

TEST(Console, AWaitEndsOnInterruption) {
    std::ostringstream out;
    Console console(out);
    const std::atomic<bool> interrupted{true};
    const auto started = std::chrono::steady_clock::now();
    EXPECT_FALSE(console.waitForText("never", 10s, interrupted));
    EXPECT_LT(std::chrono::steady_clock::now() - started, 2s);
}

TEST(PendingCall, FirstOfCallbackAndTimeOutSettlesIt) {
    const std::atomic<bool> interrupted{false};
    {
        PendingCall call;
        ASSERT_TRUE(call.claim());
        call.finish(std::nullopt, "3 online");
        EXPECT_EQ(call.wait(10ms, interrupted), PendingCall::Outcome::succeeded);
        EXPECT_EQ(call.summary(), "3 online");
    }
    {
        PendingCall call;
        ASSERT_TRUE(call.claim());
        call.finish(TVKError(TVKMSGErrorDomain, TVKMSGErrorPermission));
        EXPECT_EQ(call.wait(10ms, interrupted), PendingCall::Outcome::failed);
        EXPECT_EQ(call.error()->code, TVKMSGErrorPermission);
    }
    {
        PendingCall call;
        EXPECT_EQ(call.wait(10ms, interrupted), PendingCall::Outcome::timedOut);
        EXPECT_FALSE(call.claim()) << "a late callback must stay silent";
    }
    {
        PendingCall call;
        const std::atomic<bool> stop{true};
        EXPECT_EQ(call.wait(10s, stop), PendingCall::Outcome::interrupted);
    }
    {
        // A callback that claimed before the time-out is waited for, however slow it prints.
        PendingCall call;
        ASSERT_TRUE(call.claim());
        std::thread slow([&] {
            std::this_thread::sleep_for(50ms);
            call.finish();
        });
        EXPECT_EQ(call.wait(1ms, interrupted), PendingCall::Outcome::succeeded);
        slow.join();
    }
}

TEST(Formatting, ErrorsShowDescriptionAndCode) {
    TVKError error(TVKMSGErrorDomain, TVKMSGErrorPermission);
    error.localizedDescription = "Not allowed";
    EXPECT_EQ(describeError(error), "Not allowed (code 10)");
    TVKError bare("SomeDomain", 4);
    EXPECT_EQ(describeError(bare), "SomeDomain error (code 4)");
    EXPECT_EQ(writeModeName(TVKChatInputModeAll), "ALL");
    EXPECT_EQ(writeModeName(TVKChatInputModeLogin), "LOGIN");
    EXPECT_EQ(writeModeName(TVKChatInputModeAnchor), "ANCHOR");
    EXPECT_EQ(writeModeName(TVKChatInputModeNull), "unknown");
}

TEST(Formatting, DescribesUsersAndMessages) {
    EXPECT_EQ(describeUser(*user(9, "Alice")), "Alice (label 9, NORMAL)");
    EXPECT_EQ(describeMessage(*message("m1", "Hi")), "m1 someone: Hi");
    auto raw = DQDataObject::withJSON<TVKChatMessage>(
        boost::json::object{{"id", "r1"}, {"value", boost::json::object{{"k", 1}}}});
    EXPECT_EQ(describeMessage(*raw), R"(r1 someone: {"k":1})");
}

}  // namespace
}  // namespace tavlo::chat
