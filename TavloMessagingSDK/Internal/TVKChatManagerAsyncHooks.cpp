#include "TavloMessagingSDK/Internal/TVKChatManagerAsyncHooks.hpp"

#include "TavloMessagingSDK/Internal/TVKChatManagerForwarding.hpp"
#include "TavloMessagingSDK/Internal/TVKChatSession.hpp"

namespace tavlo {

void TVKChatManagerAsyncHooks::onQueue(TVKChatManager& manager, const std::function<void()>& body) {
    manager.queue_->sync(body);
}

void TVKChatManagerAsyncHooks::post(TVKChatManager& manager, std::function<void()> task) {
    manager.queue_->async(std::move(task));
}

void TVKChatManagerAsyncHooks::attach(TVKChatManager& manager, const std::string& key,
                                      std::shared_ptr<void> object) {
    manager.asyncAttachments_[key] = std::move(object);
}

std::shared_ptr<void> TVKChatManagerAsyncHooks::attached(TVKChatManager& manager,
                                                         const std::string& key) {
    auto found = manager.asyncAttachments_.find(key);
    return found == manager.asyncAttachments_.end() ? nullptr : found->second;
}

void TVKChatManagerAsyncHooks::detach(TVKChatManager& manager, const std::string& key,
                                      const void* object) {
    auto found = manager.asyncAttachments_.find(key);
    if (found == manager.asyncAttachments_.end()) return;
    if (object && found->second.get() != object) return;
    // Released after the erase: its destructor may reach the manager again.
    auto released = std::move(found->second);
    manager.asyncAttachments_.erase(found);
}

std::shared_ptr<TVKChatEventDelegate> TVKChatManagerAsyncHooks::delegateOf(
    TVKChatManager& manager, const std::string& channel) {
    return manager.delegateForChannel(channel);
}

std::shared_ptr<sio::ReadBacklog> TVKChatManagerAsyncHooks::backlogOf(
    const std::shared_ptr<TVKChat>& chat) {
    return chat ? sessionOf(chat)->readBacklog() : nullptr;
}

}  // namespace tavlo
