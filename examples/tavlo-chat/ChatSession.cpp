#include "ChatSession.hpp"

#include <algorithm>
#include <boost/json/parse.hpp>
#include <sstream>
#include <variant>

#include "Formatting.hpp"
#include "LineReader.hpp"

namespace tavlo::chat {
namespace {

using namespace std::chrono_literals;

/// How long leaving may take before the client exits anyway.
constexpr auto kLeaveTimeout = 5s;

std::string upper(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
    return text;
}

/// JSON as typed; text that is not JSON counts as a JSON string (meta set topic Demo day).
boost::json::value jsonOrText(const std::string& text) {
    boost::system::error_code error;
    auto value = boost::json::parse(text, error);
    if (error) return boost::json::string(text);
    return value;
}

std::optional<boost::json::value> positiveNumber(const std::string& text) {
    try {
        std::size_t used = 0;
        const long long number = std::stoll(text, &used);
        if (used == text.size() && number > 0) return boost::json::value(number);
    } catch (const std::exception&) {
    }
    return std::nullopt;
}

const std::atomic<bool> kNeverInterrupted{false};

std::string secondsText(double seconds) {
    std::ostringstream text;
    text << seconds;
    return text.str();
}

}  // namespace

ChatSession::ChatSession(std::shared_ptr<TVKChatManager> manager, ChatOptions options,
                         Console& console)
    : manager_(std::move(manager)),
      options_(std::move(options)),
      console_(console),
      printer_(std::make_shared<EventPrinter>(console_, directory_)) {}

const std::map<std::string, ChatSession::Handler>& ChatSession::handlers() {
    static const std::map<std::string, Handler> handlers = {
        {"send", &ChatSession::send},
        {"raw", &ChatSession::sendRaw},
        {"agg", &ChatSession::sendAggregated},
        {"counters", &ChatSession::counters},
        {"users", &ChatSession::users},
        {"history", &ChatSession::history},
        {"archive", &ChatSession::archive},
        {"remove", &ChatSession::remove},
        {"pin", &ChatSession::pin},
        {"unpin", &ChatSession::unpin},
        {"pinned", &ChatSession::pinned},
        {"role", &ChatSession::role},
        {"block", &ChatSession::block},
        {"revive", &ChatSession::revive},
        {"nick", &ChatSession::nick},
        {"meta", &ChatSession::meta},
        {"room", &ChatSession::room},
        {"whoami", &ChatSession::whoami},
        {"wait", &ChatSession::wait},
        {"help", &ChatSession::help},
    };
    return handlers;
}

// --- Waiting for the SDK -------------------------------------------------------------------------

std::chrono::milliseconds ChatSession::timeout() const {
    return std::chrono::milliseconds(static_cast<long long>(options_.timeoutSeconds * 1000));
}

PendingCall::Outcome ChatSession::await(const Start& start, std::shared_ptr<PendingCall>& call) {
    call = std::make_shared<PendingCall>();
    start(call);
    return call->wait(timeout(), LineReader::interrupted());
}

void ChatSession::perform(const std::string& verb, const Start& start) {
    std::shared_ptr<PendingCall> call;
    const auto outcome = await(start, call);
    if (outcome == PendingCall::Outcome::succeeded) {
        console_.print("ok " + verb + (call->summary().empty() ? "" : ": " + call->summary()));
    }
    failUnlessSucceeded(verb, outcome, *call);
}

void ChatSession::failUnlessSucceeded(const std::string& verb, PendingCall::Outcome outcome,
                                      const PendingCall& call) {
    switch (outcome) {
        case PendingCall::Outcome::succeeded:
            break;
        case PendingCall::Outcome::failed:
            fail(verb, describeError(*call.error()));
            break;
        case PendingCall::Outcome::timedOut:
            fail(verb, "no answer within " + secondsText(options_.timeoutSeconds) + " s");
            break;
        case PendingCall::Outcome::interrupted:
            fail(verb, "interrupted");
            break;
    }
}

void ChatSession::fail(const std::string& verb, const std::string& why) {
    console_.print("error " + verb + ": " + why);
}

TVKChatManager::Success ChatSession::done(const std::shared_ptr<PendingCall>& call,
                                          std::string summary) {
    return [call, summary] {
        if (call->claim()) call->finish(std::nullopt, summary);
    };
}

TVKChatManager::Failure ChatSession::failed(const std::shared_ptr<PendingCall>& call) {
    return [call](const TVKError& error) {
        if (call->claim()) call->finish(error);
    };
}

// --- Connecting and leaving ----------------------------------------------------------------------

bool ChatSession::connect(const std::string& jwt) {
    const std::uint64_t flags =
        options_.personal ? std::uint64_t{TVKChatroomOptionPersonalChat} : 0;
    manager_->connectToChatroom(options_.chatroom, jwt, flags, printer_);
    // The manager retries a failing connection for about a minute before it gives up.
    const auto patience = std::max<std::chrono::milliseconds>(timeout() * 3, 90s);
    const auto state =
        printer_->waitWhile(ConnectionState::connecting, patience, LineReader::interrupted());
    if (state == ConnectionState::connected) {
        showRoom("connect");
        return true;
    }
    if (auto error = printer_->failure()) {
        fail("connect", describeError(*error));
    } else {
        fail("connect", LineReader::interrupted() ? "interrupted" : "no answer in time");
    }
    return false;
}

void ChatSession::leave() {
    const auto chat = this->chat();
    if (!chat || !manager_->isChatroomConnected(chat)) return;
    manager_->disconnectFromChatroom(chat);
    const auto state =
        printer_->waitWhile(ConnectionState::connected, kLeaveTimeout, kNeverInterrupted);
    if (state == ConnectionState::disconnected) {
        console_.print("ok quit");
    } else {
        fail("quit", "the chatroom did not confirm the disconnect in time");
    }
}

bool ChatSession::execute(const std::string& line, bool echo) {
    const auto command = parseChatCommand(line);
    if (!command) return true;
    if (echo) console_.echo(line);
    if (command->verb == "quit" || command->verb == "exit") return false;
    const auto handler = handlers().find(command->verb);
    if (handler == handlers().end()) {
        fail(command->verb, "unknown command (type help)");
    } else {
        (this->*handler->second)(*command);
    }
    return true;
}

// --- The room ------------------------------------------------------------------------------------

void ChatSession::printUsers(const TVKChatUsers& users, const std::string& prefix) {
    directory_.rememberUsers(users);
    for (const auto& user : users) {
        if (user) console_.print(prefix + describeUser(*user));
    }
}

void ChatSession::showRoom(const std::string& verb) {
    std::shared_ptr<PendingCall> call;
    // The pinned message's callback runs on the manager's queue, where the chatroom's state may
    // be read safely.
    const auto roomShown = await(
        [this](const std::shared_ptr<PendingCall>& call) {
            auto chat = this->chat();
            manager_->getPinnedMessageForChat(
                chat,
                [this, call, chat](const std::shared_ptr<TVKChatMessage>& message) {
                    if (!call->claim()) return;
                    console_.print("  room " + chat->chatroomName() + ": write mode " +
                                   writeModeName(chat->mode()) + ", " +
                                   std::to_string(chat->userCount()) + " users");
                    console_.print("  pinned: " +
                                   (message ? describeMessage(*message) : std::string("nothing")));
                    console_.print("  counters: " + describeCounters(chat->totalAggregatedItems()));
                    call->finish();
                },
                failed(call));
        },
        call);
    if (roomShown != PendingCall::Outcome::succeeded) {
        return fail(verb, call->error() ? describeError(*call->error()) : "no answer in time");
    }
    std::size_t online = 0;
    const auto usersListed = await(
        [&](const std::shared_ptr<PendingCall>& call) {
            manager_->getUsersForChatroom(
                chat(), TVKChatUserTypeOnline,
                [this, call, &online](const TVKChatUsers& users) {
                    if (!call->claim()) return;
                    online = users.size();
                    printUsers(users, "  online: ");
                    call->finish();
                },
                failed(call));
        },
        call);
    if (usersListed != PendingCall::Outcome::succeeded) {
        return fail(verb, call->error() ? describeError(*call->error()) : "no answer in time");
    }
    const auto me = manager_->currentUserForChatroom(chat());
    console_.print("ok " + verb + ": " + options_.chatroom + " as " +
                   (me ? describeUser(*me) : std::string("?")) + ", " + std::to_string(online) +
                   " online");
}

void ChatSession::room(const ChatCommand&) {
    showRoom("room");
}

void ChatSession::whoami(const ChatCommand&) {
    const auto me = manager_->currentUserForChatroom(chat());
    if (!me) return fail("whoami", "not in a chatroom");
    console_.print("ok whoami: " + describeUser(*me) + (me->isGuest() ? ", a guest" : ""));
}

void ChatSession::counters(const ChatCommand&) {
    console_.print("ok counters: " + printer_->counters());
}

void ChatSession::help(const ChatCommand&) {
    for (const auto& [usage, meaning] : commandHelp()) {
        std::string text = "  " + std::string(usage);
        text.resize(std::max<std::size_t>(text.size() + 1, 50), ' ');
        console_.print(text + meaning);
    }
    console_.print("ok help");
}

void ChatSession::wait(const ChatCommand& command) {
    if (command.rest.empty()) return fail("wait", "usage: wait TEXT");
    if (console_.waitForText(command.rest, timeout(), LineReader::interrupted())) {
        console_.print("ok wait");
    } else {
        fail("wait", "\"" + command.rest + "\" did not appear in time");
    }
}

// --- Sending
// ---------------------------------------------------------------------------------------

void ChatSession::send(const ChatCommand& command) {
    perform("send", [&](const std::shared_ptr<PendingCall>& call) {
        manager_->sendMessage(command.rest, chat(), done(call), failed(call));
    });
}

void ChatSession::sendRaw(const ChatCommand& command) {
    boost::system::error_code error;
    auto value = boost::json::parse(command.rest, error);
    if (error) return fail("raw", "not JSON: " + error.message());
    perform("raw", [&](const std::shared_ptr<PendingCall>& call) {
        manager_->sendRawData(value, chat(), done(call), failed(call));
    });
}

void ChatSession::sendAggregated(const ChatCommand& command) {
    perform("agg", [&](const std::shared_ptr<PendingCall>& call) {
        manager_->sendAggregatedDataWithKey(command.rest, chat(), done(call), failed(call));
    });
}

// --- Listing
// ---------------------------------------------------------------------------------------

void ChatSession::users(const ChatCommand& command) {
    const auto words = command.words();
    const std::string kind = words.empty() ? "online" : words[0];
    const auto userType = userTypeNamed(kind);
    if (!userType || words.size() > 1) {
        return fail("users", "usage: users [online|blocked|supervisors]");
    }
    perform("users", [&](const std::shared_ptr<PendingCall>& call) {
        manager_->getUsersForChatroom(
            chat(), *userType,
            [this, call, kind](const TVKChatUsers& users) {
                if (!call->claim()) return;
                printUsers(users, "  ");
                call->finish(std::nullopt, std::to_string(users.size()) + " " + kind);
            },
            failed(call));
    });
}

void ChatSession::history(const ChatCommand& command) {
    auto words = command.words();
    std::string type = TVKChatMessageTypeNormalText;
    if (!words.empty() && !positiveNumber(words[0])) {
        type = words[0];
        words.erase(words.begin());
    }
    auto configuration = std::make_shared<TVKGetMessagesConfiguration>();
    const auto page = words.size() > 0 ? positiveNumber(words[0]) : boost::json::value(1);
    const auto perPage = words.size() > 1 ? positiveNumber(words[1]) : boost::json::value(10);
    if (!page || !perPage || words.size() > 2) {
        return fail("history", "usage: history [text|raw|aggregate] [PAGE [PER_PAGE]]");
    }
    configuration->setPage(*page);
    configuration->setPerPage(*perPage);
    perform("history", [&](const std::shared_ptr<PendingCall>& call) {
        manager_->getMessagesForChatroom(
            chat(), type, configuration,
            [this, call](const TVKMessageListing& listing) {
                if (!call->claim()) return;
                std::size_t count = 0;
                if (const auto* messages = std::get_if<TVKChatMessages>(&listing)) {
                    for (const auto& message : *messages) {
                        if (!message) continue;
                        directory_.rememberMessage(message);
                        console_.print("  " + message->createdDate().value_or("") + " " +
                                       describeMessage(*message));
                    }
                    count = messages->size();
                } else if (const auto* batches = std::get_if<TVKAggregatedDataList>(&listing)) {
                    for (const auto& batch : *batches) {
                        if (!batch) continue;
                        console_.print(
                            "  " + batch->createdDate().value_or("") + " " +
                            describeCounters(batch->items().value_or(TVKAggregatedData::Items{})));
                    }
                    count = batches->size();
                }
                call->finish(std::nullopt, std::to_string(count) + " listed");
            },
            failed(call));
    });
}

// --- Archived history
// ------------------------------------------------------------------------------

std::string ChatSession::archiveChatroomName() const {
    return options_.personal ? "p#" + options_.chatroom : options_.chatroom;
}

void ChatSession::archive(const ChatCommand& command) {
    const auto words = command.words();
    if (words.size() == 2 && words[0] == "meta") return archiveMeta(words[1]);
    if (words.size() == 3) return archiveRange(words);
    fail("archive", "usage: archive meta ARCHIVE_ID | archive ARCHIVE_ID START END");
}

void ChatSession::archiveMeta(const std::string& archiveId) {
    perform("archive", [&](const std::shared_ptr<PendingCall>& call) {
        manager_->getArchivedMessageMetaForChatroom(
            archiveChatroomName(), archiveId,
            [this, call](const std::shared_ptr<TVKArchivedMessagesMeta>& meta) {
                if (!call->claim()) return;
                if (!meta) return call->finish(std::nullopt, "no archive");
                console_.print("  " + meta->msgType().value_or("?") + " messages from " +
                               utcTime(meta->oldestDate().value_or(0)) + " to " +
                               utcTime(meta->latestDate().value_or(0)));
                for (const auto& file : meta->files()) {
                    if (!file) continue;
                    console_.print("  file " + file->fileId().value_or("?") + ": " +
                                   utcTime(file->start().value_or(0)) + " .. " +
                                   utcTime(file->end().value_or(0)) + ", " +
                                   std::to_string(file->len().value_or(0)) + " messages");
                }
                call->finish(std::nullopt, std::to_string(meta->files().size()) + " files");
            },
            failed(call));
    });
}

void ChatSession::archiveRange(const std::vector<std::string>& words) {
    const auto start = parseArchiveTime(words[1]);
    const auto end = parseArchiveTime(words[2]);
    if (!start || !end) {
        return fail("archive", "START and END: milliseconds since 1970 or 2023-06-01T09:00:00Z");
    }
    auto configuration = TVKGetArchivedMessagesConfiguration::configurationWithArchiveId(words[0]);
    configuration.setStart(*start);
    configuration.setEnd(*end);
    perform("archive", [&](const std::shared_ptr<PendingCall>& call) {
        manager_->getArchivedMessagesForChatroom(
            archiveChatroomName(), configuration,
            [this, call](const std::vector<std::shared_ptr<TVKChatMessage>>& messages) {
                if (!call->claim()) return;
                for (const auto& message : messages) {
                    if (message) {
                        console_.print("  " + message->createdDate().value_or("") + " " +
                                       describeMessage(*message));
                    }
                }
                call->finish(std::nullopt, std::to_string(messages.size()) + " archived");
            },
            failed(call));
    });
}

// --- Messages
// --------------------------------------------------------------------------------------

std::shared_ptr<TVKChatMessage> ChatSession::resolveMessage(const std::string& verb,
                                                            const std::string& reference) {
    if (reference != "last") {
        auto message = directory_.findMessage(reference);
        if (!message) fail(verb, "no message matches \"" + reference + "\"");
        return message;
    }
    // Only the service knows the newest message: this client may have missed it, and history
    // pages list messages newest first. Text and raw messages alike; the later one wins.
    std::shared_ptr<TVKChatMessage> newest;
    for (const char* type : {TVKChatMessageTypeNormalText, TVKChatMessageTypeRawData}) {
        auto candidate = newestMessage(verb, type);
        if (!candidate) return nullptr;
        if (*candidate && (!newest || unixTimeValue((*candidate)->createdDate().value_or("")) >
                                          unixTimeValue(newest->createdDate().value_or("")))) {
            newest = *candidate;
        }
    }
    if (!newest) fail(verb, "the chatroom has no messages");
    return newest;
}

std::optional<std::shared_ptr<TVKChatMessage>> ChatSession::newestMessage(
    const std::string& verb, const std::string& msgType) {
    auto configuration = std::make_shared<TVKGetMessagesConfiguration>();
    configuration->setPerPage(1);  // newest first is the default order
    auto newest = std::make_shared<std::shared_ptr<TVKChatMessage>>();
    std::shared_ptr<PendingCall> call;
    const auto outcome = await(
        [&](const std::shared_ptr<PendingCall>& pending) {
            manager_->getMessagesForChatroom(
                chat(), msgType, configuration,
                [newest, pending](const TVKMessageListing& listing) {
                    if (!pending->claim()) return;
                    const auto* messages = std::get_if<TVKChatMessages>(&listing);
                    if (messages && !messages->empty()) *newest = messages->front();
                    pending->finish();
                },
                failed(pending));
        },
        call);
    if (outcome != PendingCall::Outcome::succeeded) {
        failUnlessSucceeded(verb, outcome, *call);
        return std::nullopt;
    }
    if (*newest) directory_.rememberMessage(*newest);
    return *newest;
}

void ChatSession::remove(const ChatCommand& command) {
    const auto message = resolveMessage("remove", command.rest);
    if (!message) return;
    perform("remove", [&](const std::shared_ptr<PendingCall>& call) {
        manager_->removeMessage(message, chat(), done(call, message->messageId().value_or("")),
                                failed(call));
    });
}

void ChatSession::pin(const ChatCommand& command) {
    const auto message = resolveMessage("pin", command.rest);
    if (!message) return;
    perform("pin", [&](const std::shared_ptr<PendingCall>& call) {
        manager_->pinMessage(message, chat(), done(call, message->messageId().value_or("")),
                             failed(call));
    });
}

void ChatSession::unpin(const ChatCommand&) {
    perform("unpin", [&](const std::shared_ptr<PendingCall>& call) {
        manager_->unpinMessageFromChatroom(chat(), done(call), failed(call));
    });
}

void ChatSession::pinned(const ChatCommand&) {
    perform("pinned", [&](const std::shared_ptr<PendingCall>& call) {
        manager_->getPinnedMessageForChat(
            chat(),
            [call](const std::shared_ptr<TVKChatMessage>& message) {
                if (call->claim()) {
                    call->finish(std::nullopt,
                                 message ? describeMessage(*message) : std::string("nothing"));
                }
            },
            failed(call));
    });
}

// --- Users
// -----------------------------------------------------------------------------------------

std::shared_ptr<TVKChatUser> ChatSession::resolveUser(const std::string& reference,
                                                      TVKChatUserType userType) {
    if (auto user = directory_.findUser(reference)) return user;
    std::shared_ptr<PendingCall> call;
    await(
        [&](const std::shared_ptr<PendingCall>& call) {
            manager_->getUsersForChatroom(
                chat(), userType,
                [this, call](const TVKChatUsers& users) {
                    if (!call->claim()) return;
                    directory_.rememberUsers(users);
                    call->finish();
                },
                failed(call));
        },
        call);
    return directory_.findUser(reference);
}

void ChatSession::role(const ChatCommand& command) {
    const auto words = command.words();
    if (words.size() != 2) return fail("role", "usage: role USER ROLE");
    const std::string role = upper(words[1]);
    const auto user = resolveUser(words[0], TVKChatUserType::online);
    perform("role", [&](const std::shared_ptr<PendingCall>& call) {
        if (user) {
            manager_->updateUserRole(role, user, chat(), done(call), failed(call));
        } else {
            // Not seen in the chatroom: the name may be a member id.
            manager_->updateUserRole(role, words[0], chat(), done(call), failed(call));
        }
    });
}

void ChatSession::block(const ChatCommand& command) {
    const auto user = resolveUser(command.rest, TVKChatUserType::online);
    if (!user) return fail("block", "no user \"" + command.rest + "\" seen online");
    perform("block", [&](const std::shared_ptr<PendingCall>& call) {
        manager_->blockUsers({user}, chat(), done(call, describeUser(*user)), failed(call));
    });
}

void ChatSession::revive(const ChatCommand& command) {
    const auto user = resolveUser(command.rest, TVKChatUserType::blocked);
    if (!user) return fail("revive", "no user \"" + command.rest + "\" seen or blocked");
    perform("revive", [&](const std::shared_ptr<PendingCall>& call) {
        manager_->reviveUsers({user}, chat(), done(call, userName(*user)), failed(call));
    });
}

void ChatSession::nick(const ChatCommand& command) {
    perform("nick", [&](const std::shared_ptr<PendingCall>& call) {
        manager_->updateGuestNickname(command.rest, chat(), done(call), failed(call));
    });
}

// --- Metadata
// --------------------------------------------------------------------------------------

void ChatSession::meta(const ChatCommand& command) {
    auto words = command.words();
    if (!words.empty() && words[0] == "set") return setMeta(command);
    std::optional<std::vector<std::string>> keys;
    if (!words.empty()) keys = words;
    perform("meta", [&](const std::shared_ptr<PendingCall>& call) {
        manager_->getMetadataForKeys(
            keys, chat(),
            [this, call](const TVKChatMetadataDictionary& metadata) {
                if (!call->claim()) return;
                printMetadata(console_, "  ", metadata);
                call->finish(std::nullopt, std::to_string(metadata.size()) + " entries");
            },
            failed(call));
    });
}

void ChatSession::setMeta(const ChatCommand& command) {
    auto words = command.words(3);  // "set", KEY, the rest
    if (words.size() != 3) return fail("meta", "usage: meta set KEY JSON [broadcast]");
    std::string valueText = words[2];
    bool broadcast = false;
    constexpr std::string_view kBroadcast = " broadcast";
    if (valueText.size() > kBroadcast.size() && valueText.ends_with(kBroadcast)) {
        broadcast = true;
        valueText.resize(valueText.size() - kBroadcast.size());
    }
    const auto value = jsonOrText(valueText);
    perform("meta", [&](const std::shared_ptr<PendingCall>& call) {
        manager_->setMetadataValue(value, words[1], chat(), broadcast,
                                   done(call, words[1] + (broadcast ? " (broadcast)" : "")),
                                   failed(call));
    });
}

}  // namespace tavlo::chat
