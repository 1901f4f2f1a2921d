#include "TavloMessagingSDK/Internal/TVKHeldSends.hpp"

namespace tavlo {

bool TVKHeldSends::hold(const std::string& channel, Send send) {
    auto& chatroom = chatrooms_[channel];
    if (chatroom.waiting.size() >= kLimitPerChatroom) return false;
    chatroom.waiting.push_back(std::move(send));
    return true;
}

bool TVKHeldSends::isBusy(const std::string& channel) const {
    auto found = chatrooms_.find(channel);
    return found != chatrooms_.end() &&
           (!found->second.waiting.empty() || found->second.onItsWay.has_value());
}

std::optional<TVKHeldSends::Taken> TVKHeldSends::takeNext(const std::string& channel) {
    auto found = chatrooms_.find(channel);
    if (found == chatrooms_.end()) return std::nullopt;
    auto& chatroom = found->second;
    if (chatroom.onItsWay || chatroom.waiting.empty()) return std::nullopt;
    Taken taken{std::move(chatroom.waiting.front()), ++lastTicket_};
    chatroom.waiting.pop_front();
    chatroom.onItsWay = taken.ticket;
    return taken;
}

void TVKHeldSends::answered(const std::string& channel, std::uint64_t ticket) {
    auto found = chatrooms_.find(channel);
    if (found == chatrooms_.end() || found->second.onItsWay != ticket) return;
    found->second.onItsWay.reset();
    if (found->second.waiting.empty()) chatrooms_.erase(found);
}

std::vector<TVKHeldSends::Send> TVKHeldSends::takeAll(const std::string& channel) {
    auto found = chatrooms_.find(channel);
    if (found == chatrooms_.end()) return {};
    std::vector<Send> all(std::make_move_iterator(found->second.waiting.begin()),
                          std::make_move_iterator(found->second.waiting.end()));
    chatrooms_.erase(found);
    return all;
}

}  // namespace tavlo
