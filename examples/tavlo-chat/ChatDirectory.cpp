#include "ChatDirectory.hpp"

#include <charconv>
#include <iterator>

namespace tavlo::chat {

void ChatDirectory::rememberUsers(const TVKChatUsers& users) {
    std::lock_guard lock(mutex_);
    for (const auto& user : users) {
        if (!user || !user->label()) continue;
        usersByLabel_[*user->label()] = {user, user->name().value_or(""),
                                         user->userId().value_or(""), ++sightings_};
    }
}

namespace {

std::uint64_t writtenAt(const TVKChatMessage& message) {
    return unixTimeValue(message.createdDate().value_or(""));
}

}  // namespace

void ChatDirectory::rememberMessage(const std::shared_ptr<TVKChatMessage>& message) {
    if (!message) return;
    std::lock_guard lock(mutex_);
    auto position = messages_.end();
    if (const auto time = writtenAt(*message)) {
        while (position != messages_.begin() && writtenAt(**std::prev(position)) > time) {
            --position;
        }
    }
    messages_.insert(position, message);
    if (messages_.size() > kMessageLimit) messages_.pop_front();
}

std::shared_ptr<TVKChatUser> ChatDirectory::newestUserWhere(std::string SeenUser::*field,
                                                            std::string_view value) const {
    const SeenUser* newest = nullptr;
    for (const auto& [label, seen] : usersByLabel_) {
        if (seen.*field == value && (!newest || seen.seenAt > newest->seenAt)) newest = &seen;
    }
    return newest ? newest->user : nullptr;
}

std::shared_ptr<TVKChatUser> ChatDirectory::findUser(std::string_view reference) const {
    std::lock_guard lock(mutex_);
    std::int64_t label = 0;
    auto [end, error] =
        std::from_chars(reference.data(), reference.data() + reference.size(), label);
    if (error == std::errc() && end == reference.data() + reference.size()) {
        auto found = usersByLabel_.find(label);
        if (found != usersByLabel_.end()) return found->second.user;
    }
    if (reference.empty()) return nullptr;
    if (auto byName = newestUserWhere(&SeenUser::name, reference)) return byName;
    return newestUserWhere(&SeenUser::memberId, reference);
}

std::shared_ptr<TVKChatMessage> ChatDirectory::findMessage(std::string_view reference) const {
    std::lock_guard lock(mutex_);
    for (auto it = messages_.rbegin(); it != messages_.rend(); ++it) {
        if ((*it)->messageId() && *(*it)->messageId() == reference) return *it;
    }
    for (auto it = messages_.rbegin(); it != messages_.rend(); ++it) {
        if ((*it)->text() && (*it)->text()->find(reference) != std::string::npos) return *it;
    }
    return nullptr;
}

}  // namespace tavlo::chat
