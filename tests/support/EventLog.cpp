#include "tests/support/EventLog.hpp"

#include <algorithm>

#include "TavloMessagingSDK/TVKChatMessage.hpp"

namespace tavlo::test {
namespace {

template <class... Kinds>
struct Overloaded : Kinds... {
    using Kinds::operator()...;
};
template <class... Kinds>
Overloaded(Kinds...) -> Overloaded<Kinds...>;

std::string nameOf(const TVKChatEvent& event) {
    using namespace chat_event;
    return std::visit(Overloaded{
                          [](const Connected&) -> std::string { return "connected"; },
                          [](const Disconnected&) -> std::string { return "disconnected"; },
                          [](const FailToConnect&) -> std::string { return "failToConnect"; },
                          [](const Error&) -> std::string { return "error"; },
                          [](const Reconnecting&) -> std::string { return "reconnecting"; },
                          [](const MissedMessagesGap&) -> std::string { return "gap"; },
                          [](const InputModeChanged&) -> std::string { return "inputMode"; },
                          [](const UsersJoined&) -> std::string { return "usersJoined"; },
                          [](const UsersUpdated&) -> std::string { return "usersUpdated"; },
                          [](const UsersLeft&) -> std::string { return "usersLeft"; },
                          [](const UserCount&) -> std::string { return "userCount"; },
                          [](const MessageAdded& added) -> std::string {
                              return "message:" + added.message->text().value_or("");
                          },
                          [](const AggregatedItemsAdded&) -> std::string { return "aggregated"; },
                          [](const RawDataAdded&) -> std::string { return "raw"; },
                          [](const MessageRemoved& removed) -> std::string {
                              return "removed " + removed.messageId;
                          },
                          [](const MessageFlushed&) -> std::string { return "flushed"; },
                          [](const PinnedMessageUpdated&) -> std::string { return "pinned"; },
                          [](const MetadataUpdated&) -> std::string { return "metadata"; },
                      },
                      event);
}

}  // namespace

void EventLog::handle(const std::shared_ptr<TVKChat>& chat, TVKChatEvent event) {
    std::lock_guard lock(mutex_);
    if (auto* failure = std::get_if<chat_event::FailToConnect>(&event)) report_ = failure->error;
    if (auto* error = std::get_if<chat_event::Error>(&event)) report_ = error->error;
    heard_.push_back(nameOf(event));
    chat_ = chat;
    changed_.notify_all();
}

bool EventLog::waitFor(const std::string& name, std::size_t times,
                       std::optional<std::chrono::milliseconds> limit) {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, limit.value_or(waitLimit_),
                             [&] { return countLocked(name) >= times; });
}

std::size_t EventLog::count(const std::string& name) const {
    std::lock_guard lock(mutex_);
    return countLocked(name);
}

std::size_t EventLog::countLocked(const std::string& name) const {
    return static_cast<std::size_t>(std::count(heard_.begin(), heard_.end(), name));
}

std::vector<std::string> EventLog::messages() const {
    std::lock_guard lock(mutex_);
    std::vector<std::string> texts;
    for (const auto& name : heard_) {
        if (name.rfind("message:", 0) == 0) texts.push_back(name.substr(8));
    }
    return texts;
}

std::optional<TVKError> EventLog::report() const {
    std::lock_guard lock(mutex_);
    return report_;
}

std::shared_ptr<TVKChat> EventLog::chat() const {
    std::lock_guard lock(mutex_);
    return chat_;
}

}  // namespace tavlo::test
