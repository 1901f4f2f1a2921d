#pragma once

#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <string>

#include "ChatCommand.hpp"
#include "ChatDirectory.hpp"
#include "ChatOptions.hpp"
#include "Console.hpp"
#include "EventPrinter.hpp"
#include "PendingCall.hpp"
#include "TavloMessagingSDK/TavloMessagingSDK.hpp"

namespace tavlo::chat {

/// One connected chatroom and the commands a person (or a script) types into it. Every command
/// waits for its answer and ends in exactly one line, "ok VERB[: summary]" or
/// "error VERB: description (code N)", so scripts can follow along.
class ChatSession {
  public:
    ChatSession(std::shared_ptr<TVKChatManager> manager, ChatOptions options, Console& console);

    /// Connects with `jwt` (empty: a guest), shows the room and prints "ok connect ...". False
    /// when the chatroom could not be connected (the error is printed).
    bool connect(const std::string& jwt);
    /// Runs one line of input. False once the user asked to quit.
    bool execute(const std::string& line, bool echo);
    /// Leaves the chatroom and waits (a few seconds at most) until it reports the disconnect.
    void leave();

  private:
    using Handler = void (ChatSession::*)(const ChatCommand&);
    using Start = std::function<void(const std::shared_ptr<PendingCall>&)>;

    static const std::map<std::string, Handler>& handlers();

    // Waiting for the SDK.
    std::chrono::milliseconds timeout() const;
    /// Starts a call and waits for it.
    PendingCall::Outcome await(const Start& start, std::shared_ptr<PendingCall>& call);
    /// Starts a call, waits and prints its "ok" or "error" line.
    void perform(const std::string& verb, const Start& start);
    /// Prints the "error" line of a call that did not succeed.
    void failUnlessSucceeded(const std::string& verb, PendingCall::Outcome outcome,
                             const PendingCall& call);
    void fail(const std::string& verb, const std::string& why);
    static TVKChatManager::Success done(const std::shared_ptr<PendingCall>& call,
                                        std::string summary = "");
    static TVKChatManager::Failure failed(const std::shared_ptr<PendingCall>& call);

    std::shared_ptr<TVKChat> chat() const { return printer_->chat(); }
    std::string archiveChatroomName() const;
    /// A user by name, label or member id; asks the service for the users of `userType` when
    /// this client has not seen the user yet.
    std::shared_ptr<TVKChatUser> resolveUser(const std::string& reference,
                                             TVKChatUserType userType);
    /// A message by id or text this client has seen, or "last": the chatroom's newest message,
    /// asked of the service. Prints the "error" line of `verb` when there is none.
    std::shared_ptr<TVKChatMessage> resolveMessage(const std::string& verb,
                                                   const std::string& reference);
    /// The newest message of `msgType` in the chatroom, nullptr when it has none; nothing when
    /// asking failed (then the "error" line of `verb` is printed).
    std::optional<std::shared_ptr<TVKChatMessage>> newestMessage(const std::string& verb,
                                                                 const std::string& msgType);
    void showRoom(const std::string& verb);
    void printUsers(const TVKChatUsers& users, const std::string& prefix);

    // Commands.
    void send(const ChatCommand& command);
    void sendRaw(const ChatCommand& command);
    void sendAggregated(const ChatCommand& command);
    void counters(const ChatCommand& command);
    void users(const ChatCommand& command);
    void history(const ChatCommand& command);
    void archive(const ChatCommand& command);
    void archiveMeta(const std::string& archiveId);
    void archiveRange(const std::vector<std::string>& words);
    void remove(const ChatCommand& command);
    void pin(const ChatCommand& command);
    void unpin(const ChatCommand& command);
    void pinned(const ChatCommand& command);
    void role(const ChatCommand& command);
    void block(const ChatCommand& command);
    void revive(const ChatCommand& command);
    void nick(const ChatCommand& command);
    void meta(const ChatCommand& command);
    void setMeta(const ChatCommand& command);
    void room(const ChatCommand& command);
    void whoami(const ChatCommand& command);
    void wait(const ChatCommand& command);
    void help(const ChatCommand& command);

    std::shared_ptr<TVKChatManager> manager_;
    ChatOptions options_;
    Console& console_;
    ChatDirectory directory_;
    std::shared_ptr<EventPrinter> printer_;
};

}  // namespace tavlo::chat
