#include "TavloMessagingSDK/Internal/TVKConnectWaiter.hpp"

#include "TavloMessagingSDK/Internal/TVKChatManagerAsyncHooks.hpp"

namespace tavlo {
namespace {

std::string attachmentKey(const std::string& channel) {
    return "connect:" + channel;
}

}  // namespace

void TVKConnectWaiter::start(TVKChatManager& manager, const std::string& chatroomName,
                             const std::string& JWT, std::uint64_t options,
                             const std::shared_ptr<TVKChatEventDelegate>* delegate,
                             Completion completion) {
    const bool personal = (options & TVKChatroomOptionPersonalChat) != 0;
    const std::string channel = personal ? addPersonalChatPrefix(chatroomName) : chatroomName;
    TVKChatManagerAsyncHooks::onQueue(manager, [&] {
        auto chat = manager.chatForChatroomName(chatroomName, personal);
        if (chat && manager.isChatroomConnected(chat)) {
            // Nothing left to wait for: connecting again would announce nothing.
            if (delegate) manager.setEventDelegate(*delegate, chat);
            completion.succeed(chat);
            return;
        }
        const auto key = attachmentKey(channel);
        if (auto waiter = std::static_pointer_cast<TVKConnectWaiter>(
                TVKChatManagerAsyncHooks::attached(manager, key))) {
            waiter->join(delegate, std::move(completion));
            return;
        }
        auto target = delegate ? *delegate : TVKChatManagerAsyncHooks::delegateOf(manager, channel);
        auto waiter = std::make_shared<TVKConnectWaiter>(manager.weak_from_this(), channel,
                                                         std::move(target), std::move(completion));
        TVKChatManagerAsyncHooks::attach(manager, key, waiter);
        manager.connectToChatroom(chatroomName, JWT, options, waiter);
    });
}

TVKConnectWaiter::TVKConnectWaiter(std::weak_ptr<TVKChatManager> manager, std::string channel,
                                   std::shared_ptr<TVKChatEventDelegate> target,
                                   Completion completion)
    : manager_(std::move(manager)), channel_(std::move(channel)), target_(std::move(target)) {
    waiting_.push_back(std::move(completion));
}

void TVKConnectWaiter::join(const std::shared_ptr<TVKChatEventDelegate>* delegate,
                            Completion completion) {
    std::lock_guard lock(mutex_);
    if (delegate) target_ = *delegate;
    waiting_.push_back(std::move(completion));
}

std::shared_ptr<TVKChatEventDelegate> TVKConnectWaiter::target() const {
    std::lock_guard lock(mutex_);
    return target_.lock();
}

void TVKConnectWaiter::handle(const std::shared_ptr<TVKChat>& chat, TVKChatEvent event) {
    // The application may release the manager from the delegate called below, and with it this
    // waiter.
    auto self = shared_from_this();
    if (auto delegate = target()) deliver(*delegate, chat, event);
    auto manager = manager_.lock();
    if (!manager) return;
    if (std::holds_alternative<chat_event::Connected>(event)) {
        finish(*manager, chat, true);
        return;
    }
    const TVKError* failure = nullptr;
    if (auto* failed = std::get_if<chat_event::FailToConnect>(&event)) failure = &failed->error;
    if (auto* failed = std::get_if<chat_event::Error>(&event)) failure = &failed->error;
    const bool disconnected = std::holds_alternative<chat_event::Disconnected>(event);
    if (!failure && !disconnected) return;
    std::vector<Completion> waiting;
    {
        std::lock_guard lock(mutex_);
        waiting.swap(waiting_);
    }
    const auto error = failure ? *failure : TVKMSGNotConnectedError();
    for (const auto& completion : waiting) completion.fail(error);
    finish(*manager, chat, false);
}

void TVKConnectWaiter::finish(TVKChatManager& manager, const std::shared_ptr<TVKChat>& chat,
                              bool connected) {
    std::vector<Completion> waiting;
    {
        std::lock_guard lock(mutex_);
        waiting.swap(waiting_);
    }
    auto delegate = target();
    TVKChatManagerAsyncHooks::onQueue(manager, [&] {
        // A failed chatroom is forgotten by the manager already; a connected one goes on with
        // the application's delegate (or none) from its next event.
        if (connected && chat) manager.setEventDelegate(delegate, chat);
        TVKChatManagerAsyncHooks::detach(manager, attachmentKey(channel_), this);
    });
    for (const auto& completion : waiting) completion.succeed(chat);
}

}  // namespace tavlo
