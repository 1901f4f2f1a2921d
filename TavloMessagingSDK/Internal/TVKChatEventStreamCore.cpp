#include "TavloMessagingSDK/Internal/TVKChatEventStreamCore.hpp"

#include <boost/asio/error.hpp>

#include "TavloMessagingSDK/Internal/TVKChatManagerAsyncHooks.hpp"

namespace tavlo {
namespace async_detail {
namespace {

bool isLastEventOfTheChatroom(const TVKChatEvent& event) {
    return std::holds_alternative<chat_event::Disconnected>(event) ||
           std::holds_alternative<chat_event::FailToConnect>(event) ||
           std::holds_alternative<chat_event::Error>(event);
}

std::string attachmentKey(const StreamCore* core) {
    return "stream:" + std::to_string(reinterpret_cast<std::uintptr_t>(core));
}

// Kept by the manager for a stream: the manager's release ends the stream's reads.
struct ReleaseSentinel {
    std::weak_ptr<StreamCore> core;
    ~ReleaseSentinel() {
        if (auto alive = core.lock()) alive->end(make_error_code(TVKAsyncErrc::managerReleased));
    }
};

}  // namespace

StreamCore::StreamCore(std::weak_ptr<TVKChatManager> manager) : manager_(std::move(manager)) {}

void StreamCore::push(const std::shared_ptr<TVKChat>& chat, TVKChatEvent event) {
    auto backlog = TVKChatManagerAsyncHooks::backlogOf(chat);
    std::optional<Completion<TVKChatEvent>> reader;
    {
        std::lock_guard lock(mutex_);
        if (ended_) return;  // closed: the application no longer listens
        if (isLastEventOfTheChatroom(event)) chatroomEnded_ = true;
        if (reader_ && waiting_.empty()) {
            reader.swap(reader_);
        } else {
            if (backlog) backlog->add(1);
            waiting_.push_back({std::move(event), std::move(backlog)});
            return;
        }
    }
    reader->succeed(event);
}

void StreamCore::receive(Completion<TVKChatEvent> completion) {
    std::optional<Waiting> next;
    boost::system::error_code refusal;
    {
        std::lock_guard lock(mutex_);
        if (ended_) {
            refusal = *ended_;
        } else if (!waiting_.empty()) {
            next.emplace(std::move(waiting_.front()));
            waiting_.pop_front();
        } else if (chatroomEnded_) {
            refusal = make_error_code(TVKAsyncErrc::streamClosed);
        } else if (reader_) {
            refusal = boost::asio::error::in_progress;
        } else {
            reader_.emplace(std::move(completion));
            return;
        }
    }
    if (!next) return completion.fail(refusal);
    if (next->backlog) next->backlog->remove(1);
    completion.succeed(next->event);
}

void StreamCore::end(std::error_code why) {
    std::optional<Completion<TVKChatEvent>> reader;
    std::deque<Waiting> dropped;
    {
        std::lock_guard lock(mutex_);
        if (ended_) return;
        ended_ = why;
        reader.swap(reader_);
        dropped.swap(waiting_);
    }
    for (const auto& waiting : dropped) {
        if (waiting.backlog) waiting.backlog->remove(1);
    }
    if (reader) reader->fail(why);
}

void receive(StreamCore& core, Completion<TVKChatEvent> completion) {
    core.receive(std::move(completion));
}

void StreamDelegate::handle(const std::shared_ptr<TVKChat>& chat, TVKChatEvent event) {
    if (auto core = core_.lock()) core->push(chat, std::move(event));
}

}  // namespace async_detail

// --- TVKChatEventStream ------------------------------------------------------------------------

std::shared_ptr<TVKChatEventStream> TVKChatEventStream::create(TVKChatManager& manager) {
    auto core = std::make_shared<async_detail::StreamCore>(manager.weak_from_this());
    auto sentinel = std::make_shared<async_detail::ReleaseSentinel>();
    sentinel->core = core;
    TVKChatManagerAsyncHooks::onQueue(manager, [&] {
        TVKChatManagerAsyncHooks::attach(manager, async_detail::attachmentKey(core.get()),
                                         sentinel);
    });
    return std::make_shared<TVKChatEventStream>(manager.weak_from_this(), std::move(core));
}

TVKChatEventStream::TVKChatEventStream(std::weak_ptr<TVKChatManager> manager,
                                       std::shared_ptr<async_detail::StreamCore> core)
    : manager_(std::move(manager)),
      core_(std::move(core)),
      delegate_(std::make_shared<async_detail::StreamDelegate>(core_)) {}

TVKChatEventStream::~TVKChatEventStream() {
    close();
}

std::shared_ptr<TVKChatEventDelegate> TVKChatEventStream::delegate() const {
    return delegate_;
}

void TVKChatEventStream::close() {
    core_->end(make_error_code(TVKAsyncErrc::streamClosed));
    auto manager = manager_.lock();
    if (!manager) return;
    TVKChatManagerAsyncHooks::onQueue(*manager, [&] {
        TVKChatManagerAsyncHooks::detach(*manager, async_detail::attachmentKey(core_.get()),
                                         nullptr);
    });
}

}  // namespace tavlo
