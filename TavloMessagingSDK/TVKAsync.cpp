#include "TavloMessagingSDK/TVKAsync.hpp"

#include "Dispatch/Queue.hpp"
#include "TavloMessagingSDK/Internal/TVKChatManagerAsyncHooks.hpp"
#include "TavloMessagingSDK/Internal/TVKConnectWaiter.hpp"

namespace tavlo {
namespace {

class AsyncErrorCategory final : public std::error_category {
  public:
    const char* name() const noexcept override { return "TVKAsync"; }
    std::string message(int code) const override {
        switch (static_cast<TVKAsyncErrc>(code)) {
            case TVKAsyncErrc::managerReleased:
                return "the chat manager was released before the operation ended";
            case TVKAsyncErrc::streamClosed:
                return "the event stream is closed";
        }
        return "unknown TVKAsync error";
    }
};

}  // namespace

const std::error_category& TVKAsyncErrorCategory() noexcept {
    static const AsyncErrorCategory category;
    return category;
}

std::error_code make_error_code(TVKAsyncErrc code) noexcept {
    return {static_cast<int>(code), TVKAsyncErrorCategory()};
}

namespace async_detail {

std::error_code errorCodeOf(const TVKError& error) {
    return make_error_code(error);
}

void postToSDK(const std::weak_ptr<TVKChatManager>& manager, std::function<void()> task) {
    if (auto owner = manager.lock()) {
        TVKChatManagerAsyncHooks::post(*owner, std::move(task));
    } else {
        dispatch::globalQueue()->async(std::move(task));
    }
}

void startConnect(TVKChatManager& manager, const std::string& chatroomName, const std::string& JWT,
                  std::uint64_t options, const std::shared_ptr<TVKChatEventDelegate>* delegate,
                  Completion<std::shared_ptr<TVKChat>> completion) {
    TVKConnectWaiter::start(manager, chatroomName, JWT, options, delegate, std::move(completion));
}

}  // namespace async_detail
}  // namespace tavlo
