#pragma once

// Every asynchronous operation of `TVKChatManager` in the style of Boost.Asio: each takes a
// completion token instead of a success and a failure callback, so the caller decides how to
// wait. Opt-in: this is the one header of the SDK that includes Boost.Asio, and the umbrella
// header does not include it.
//
//     #include "TavloMessagingSDK/TVKAsync.hpp"
//     namespace asio = boost::asio;
//
//     // A coroutine; a failure throws boost::system::system_error:
//     auto chat = co_await tavlo::async_connect(*manager, "lobby", "", 0, asio::use_awaitable);
//     co_await tavlo::async_send_message(*manager, "hello", chat, asio::use_awaitable);
//
//     // The error as a value instead, nothing thrown:
//     auto [error, users] = co_await tavlo::async_get_users(*manager, chat, 0,
//                                                           asio::as_tuple(asio::use_awaitable));
//     if (error == tavlo::TVKMSGErrc::channelNotConnected) ...
//
//     // A plain callback, a future, or asio::deferred work the same way:
//     tavlo::async_pin_message(*manager, message, chat, [](boost::system::error_code error) {});
//
// Completion signatures start with the error as a value: `void(boost::system::error_code,
// T)`, or `void(boost::system::error_code)` where the callback operation reports success alone.
// The error code's category is the public domain ("TVKMSGErrorDomain", the value is the
// `TVKMSGErrorCode`, see TVKMSGError.hpp); the SDK's own ends use `TVKAsyncErrc`, and a
// cancellation is `boost::asio::error::operation_aborted`. The whole `TVKError` (description,
// underlying transport error, HTTP status) is kept where `keep_error` says. On failure the
// values after the error are empty (default-constructed). Nothing throws, unless the token does
// (`use_awaitable` without `as_tuple` throws `boost::system::system_error`; a future's `get()`
// throws the same).
//
// Where completions run: on the handler's associated executor (the coroutine's, a strand bound
// with `bind_executor`, ...), dispatched from the SDK's thread and holding that executor's work
// meanwhile, so an `io_context::run()` does not return while an operation is under way. A
// handler with no executor of its own runs where the callbacks of the SDK run: on the manager's
// queue, or through the application's `setCallbackExecutor`. A completion never runs inside the
// initiating call: a refusal decided at once (not connected, text too long) is posted.
//
// Cancellation: an operation whose handler has a cancellation slot (for instance
// `asio::bind_cancellation_slot`, a coroutine's `||` operator or its cancellation state) ends at
// the first cancellation signal, of any type, with `operation_aborted`. What the service does with
// a request already sent is not undone; its answer is ignored. The handler runs exactly once,
// whichever comes first: answer, refusal, cancellation, or the manager's release. Emit the signal
// on the handler's executor, as Asio requires of every cancellation slot.
//
// Lifetime: the operations keep the manager alive only while they start; a manager released while
// operations are pending ends each of them with `TVKAsyncErrc::managerReleased`, never a hang.

#include <atomic>
#include <boost/asio/associated_cancellation_slot.hpp>
#include <boost/asio/associated_executor.hpp>
#include <boost/asio/async_result.hpp>
#include <boost/asio/dispatch.hpp>
#include <boost/asio/error.hpp>
#include <boost/asio/execution/outstanding_work.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/prefer.hpp>
#include <boost/system/error_code.hpp>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <system_error>
#include <tuple>
#include <type_traits>
#include <utility>
#include <vector>

#include "TavloCoreSDK/TVKExport.hpp"
#include "TavloMessagingSDK/TVKChatEvent.hpp"
#include "TavloMessagingSDK/TavloMessagingSDK.hpp"

namespace tavlo {

/// Ends of an asynchronous operation that come from the SDK itself rather than the service.
enum class TVKAsyncErrc : int {
    /// The manager was released while the operation waited for it.
    managerReleased = 1,
    /// The event stream was closed (`TVKChatEventStream::close`, or its chatroom ended).
    streamClosed = 2,
};

/// The category of `TVKAsyncErrc`, named "TVKAsync".
TAVLO_EXPORT const std::error_category& TVKAsyncErrorCategory() noexcept;
TAVLO_EXPORT std::error_code make_error_code(TVKAsyncErrc code) noexcept;

/// The full error of a failed operation, stored where the application wants it. Wrap any token:
///
///     tavlo::TVKError why;
///     auto [error] = co_await tavlo::async_pin_message(
///         *manager, message, chat, tavlo::keep_error(why, asio::as_tuple(asio::use_awaitable)));
///     if (error) log(why.describe());
///
/// `error` must live until the operation completes; it is written before the handler runs, only
/// on a failure of the service's domain (it stays as it was on success or cancellation).
template <class Token>
struct TVKKeepError {
    TVKError& error;
    Token token;
};

template <class Token>
TVKKeepError<std::decay_t<Token>> keep_error(TVKError& error, Token&& token) {
    return {error, std::forward<Token>(token)};
}

namespace async_detail {

/// The error code of a failure reported by the SDK (public domain, number = code).
TAVLO_EXPORT std::error_code errorCodeOf(const TVKError& error);
/// Runs `task` on the manager's queue, or on the SDK's worker pool once the manager is gone.
TAVLO_EXPORT void postToSDK(const std::weak_ptr<TVKChatManager>& manager,
                            std::function<void()> task);

/// One pending operation as the SDK sees it: its results, whatever handler waits for them.
template <class... Values>
class Pending {
  public:
    virtual ~Pending() = default;
    virtual void succeed(Values... values) = 0;
    virtual void fail(boost::system::error_code error, const TVKError* details) = 0;
    /// Nobody will complete it any more (its callbacks were dropped).
    virtual void abandon() = 0;
};

/// How code of the SDK completes an operation: copies share one pending operation, which ends
/// with `managerReleased` when the last copy goes without having completed it.
template <class... Values>
class Completion {
  public:
    explicit Completion(std::shared_ptr<Pending<Values...>> pending)
        : link_(std::make_shared<Link>(std::move(pending))) {}

    void succeed(const Values&... values) const { link_->pending->succeed(values...); }
    void fail(const TVKError& error) const {
        link_->pending->fail(boost::system::error_code(errorCodeOf(error)), &error);
    }
    void fail(std::error_code error) const {
        link_->pending->fail(boost::system::error_code(error), nullptr);
    }
    void fail(boost::system::error_code error) const { link_->pending->fail(error, nullptr); }

    /// The callbacks the manager's operations take.
    std::function<void(const Values&...)> success() const {
        return [link = link_](const Values&... values) { link->pending->succeed(values...); };
    }
    std::function<void(const TVKError&)> failure() const {
        return [link = link_](const TVKError& error) {
            link->pending->fail(boost::system::error_code(errorCodeOf(error)), &error);
        };
    }

  private:
    struct Link {
        explicit Link(std::shared_ptr<Pending<Values...>> pending) : pending(std::move(pending)) {}
        ~Link() { pending->abandon(); }
        std::shared_ptr<Pending<Values...>> pending;
    };
    std::shared_ptr<Link> link_;
};

/// A handler waiting for one operation: it runs once, on its executor (see the top of this
/// file), whichever of answer, refusal, cancellation and abandonment comes first.
template <class Handler, class... Values>
class Operation final : public Pending<Values...>,
                        public std::enable_shared_from_this<Operation<Handler, Values...>> {
  public:
    using Executor = boost::asio::associated_executor_t<Handler>;
    // Without an executor of its own a handler runs where the SDK's callbacks run.
    static constexpr bool kHasOwnExecutor = !std::is_same_v<Executor, boost::asio::system_executor>;

    Operation(Handler handler, std::weak_ptr<TVKChatManager> manager, TVKError* details)
        : handler_(std::move(handler)),
          work_(boost::asio::prefer(boost::asio::get_associated_executor(*handler_),
                                    boost::asio::execution::outstanding_work.tracked)),
          slot_(boost::asio::get_associated_cancellation_slot(*handler_)),
          manager_(std::move(manager)),
          details_(details) {}

    /// Calls `start` with the completion, so that what it reports before returning is posted.
    template <class Start>
    void start(Start&& start) {
        if (slot_.is_connected()) {
            slot_.template emplace<CancelHandler>(this->weak_from_this());
        }
        starting_ = true;
        std::forward<Start>(start)(Completion<Values...>(this->shared_from_this()));
        starting_ = false;
    }

    void succeed(Values... values) override {
        finish(boost::system::error_code(), std::move(values)..., Route::answer);
    }
    void fail(boost::system::error_code error, const TVKError* details) override {
        if (!claim()) return;
        if (details && details_) *details_ = TVKMSGError(*details);
        result_.emplace(error, Values()...);
        // An end decided by the SDK itself (a stream closed, a read already pending) may come on
        // any thread: posted like a cancellation.
        schedule(details ? Route::answer : Route::late);
    }
    void abandon() override {
        finish(make_error_code(TVKAsyncErrc::managerReleased), Values()..., Route::late);
    }
    void cancel() { finish(boost::asio::error::operation_aborted, Values()..., Route::late); }

  private:
    // How the result reaches the handler: an answer from the SDK's thread is dispatched, anything
    // that may come inside the initiating call or on a foreign thread is posted.
    enum class Route { answer, late };

    struct CancelHandler {
        // Spelled out: clang before 16 cannot aggregate-initialise from parentheses, which is
        // how the slot's emplace constructs its handler.
        explicit CancelHandler(std::weak_ptr<Operation> op) : operation(std::move(op)) {}
        std::weak_ptr<Operation> operation;
        void operator()(boost::asio::cancellation_type type) const {
            if (type == boost::asio::cancellation_type::none) return;
            if (auto op = operation.lock()) op->cancel();
        }
    };

    bool claim() { return !finished_.exchange(true); }

    void finish(boost::system::error_code error, Values... values, Route route) {
        if (!claim()) return;
        result_.emplace(error, std::move(values)...);
        schedule(route);
    }

    void schedule(Route route) {
        auto task = [self = this->shared_from_this()] { self->invoke(); };
        const bool post = route == Route::late || starting_;
        if constexpr (kHasOwnExecutor) {
            if (post) {
                boost::asio::post(*work_, std::move(task));
            } else {
                boost::asio::dispatch(*work_, std::move(task));
            }
        } else {
            if (post) {
                postToSDK(manager_, std::move(task));
            } else {
                task();
            }
        }
    }

    void invoke() {
        if (slot_.is_connected()) slot_.clear();
        // Nothing of the handler (its executor above all) stays behind: the SDK may drop its last
        // reference to this operation long after the application's io_context is gone.
        auto handler = std::move(*handler_);
        handler_.reset();
        auto result = std::move(*result_);
        // The work is released after the handler ran: a handler that starts the next operation
        // keeps its executor busy without a gap.
        [[maybe_unused]] auto work = std::move(*work_);
        work_.reset();
        std::apply(std::move(handler), std::move(result));
    }

    std::optional<Handler> handler_;
    std::optional<std::decay_t<decltype(boost::asio::prefer(
        std::declval<Executor>(), boost::asio::execution::outstanding_work.tracked))>>
        work_;
    boost::asio::associated_cancellation_slot_t<Handler> slot_;
    std::weak_ptr<TVKChatManager> manager_;
    TVKError* details_;
    std::atomic<bool> finished_{false};
    std::atomic<bool> starting_{false};
    std::optional<std::tuple<boost::system::error_code, Values...>> result_;
};

template <class... Values>
struct Initiation {
    template <class Handler, class Start>
    void operator()(Handler&& handler, const std::weak_ptr<TVKChatManager>& manager,
                    TVKError* details, Start start) const {
        auto operation = std::make_shared<Operation<std::decay_t<Handler>, Values...>>(
            std::forward<Handler>(handler), manager, details);
        operation->start(std::move(start));
    }
};

template <class Token>
struct IsKeepError : std::false_type {};
template <class Token>
struct IsKeepError<TVKKeepError<Token>> : std::true_type {};

/// The one implementation behind every operation: `start(Completion<Values...>)` begins the
/// work; the token decides how its end is awaited. `manager` is where handlers without an
/// executor of their own are posted.
template <class... Values, class Token, class Start>
auto initiateFor(std::weak_ptr<TVKChatManager> manager, Token&& token, Start start) {
    using Signature = void(boost::system::error_code, Values...);
    if constexpr (IsKeepError<std::decay_t<Token>>::value) {
        using Inner = decltype(token.token);
        return boost::asio::async_initiate<Inner, Signature>(Initiation<Values...>{}, token.token,
                                                             std::move(manager), &token.error,
                                                             std::move(start));
    } else {
        return boost::asio::async_initiate<Token, Signature>(
            Initiation<Values...>{}, token, std::move(manager), nullptr, std::move(start));
    }
}

/// The same for an operation of the manager: `start(manager, Completion<Values...>)`. The manager
/// is kept until the operation starts (a deferred one too).
template <class... Values, class Token, class Start>
auto initiate(TVKChatManager& manager, Token&& token, Start start) {
    return initiateFor<Values...>(
        manager.weak_from_this(), std::forward<Token>(token),
        [owner = manager.shared_from_this(), start = std::move(start)](auto completion) mutable {
            start(*owner, std::move(completion));
        });
}

/// Connects and reports the first outcome to `completion` (see `async_connect`).
TAVLO_EXPORT void startConnect(TVKChatManager& manager, const std::string& chatroomName,
                               const std::string& JWT, std::uint64_t options,
                               const std::shared_ptr<TVKChatEventDelegate>* delegate,
                               Completion<std::shared_ptr<TVKChat>> completion);

class StreamCore;
TAVLO_EXPORT void receive(StreamCore& core, Completion<TVKChatEvent> completion);

}  // namespace async_detail

// --- Connecting --------------------------------------------------------------------------------

/// Connects to a chatroom (see `TVKChatManager::connectToChatroom`) and completes once it is
/// connected, with the chatroom, or when connecting finally failed, with the error
/// `chatroomFailToConnect` / `chatroomError` reports (the reconnection rules apply unchanged:
/// up to `TVKReconnectAttemptLimit` attempts). Signature `void(error_code, shared_ptr<TVKChat>)`.
///
/// Every event of the chatroom, from the first, goes to `eventDelegate` (held weakly, as by
/// `connectToChatroom`); a `TVKChatEventStream` is such a delegate. Without `eventDelegate` the
/// chatroom keeps the delegate it had (none for a new one). A chatroom already connected completes
/// at once; several awaited connections of the same chatroom complete together. The options are
/// those of `connectToChatroom` (`TVKChatroomOptionPersonalChat`).
template <class Token>
auto async_connect(TVKChatManager& manager, std::string chatroomName, std::string JWT,
                   std::uint64_t options, std::shared_ptr<TVKChatEventDelegate> eventDelegate,
                   Token&& token) {
    return async_detail::initiate<std::shared_ptr<TVKChat>>(
        manager, std::forward<Token>(token),
        [name = std::move(chatroomName), JWT = std::move(JWT), options,
         eventDelegate = std::move(eventDelegate)](TVKChatManager& manager, auto completion) {
            async_detail::startConnect(manager, name, JWT, options, &eventDelegate,
                                       std::move(completion));
        });
}

template <class Token>
auto async_connect(TVKChatManager& manager, std::string chatroomName, std::string JWT,
                   std::uint64_t options, Token&& token) {
    return async_detail::initiate<std::shared_ptr<TVKChat>>(
        manager, std::forward<Token>(token),
        [name = std::move(chatroomName), JWT = std::move(JWT), options](TVKChatManager& manager,
                                                                        auto completion) {
            async_detail::startConnect(manager, name, JWT, options, nullptr, std::move(completion));
        });
}

// --- Chatroom operations -----------------------------------------------------------------------
// The same operations, rules and errors as the member functions of the same name of
// `TVKChatManager`; what their success callback receives comes after the error code.

/// `void(error_code, TVKChatUsers)`
template <class Token>
auto async_get_users(TVKChatManager& manager, std::shared_ptr<TVKChat> chat,
                     TVKChatUserType userType, Token&& token) {
    return async_detail::initiate<TVKChatUsers>(
        manager, std::forward<Token>(token),
        [chat, userType](TVKChatManager& manager, auto completion) {
            manager.getUsersForChatroom(chat, userType, completion.success(), completion.failure());
        });
}

/// Text messages: `void(error_code, TVKChatMessages)`.
template <class Token>
auto async_get_messages(TVKChatManager& manager, std::shared_ptr<TVKChat> chat,
                        std::shared_ptr<TVKGetMessagesConfiguration> configuration, Token&& token) {
    return async_detail::initiate<TVKChatMessages>(
        manager, std::forward<Token>(token),
        [chat, configuration](TVKChatManager& manager, auto completion) {
            manager.getMessagesForChatroom(chat, configuration, completion.success(),
                                           completion.failure());
        });
}

/// Messages of `msgType`: `void(error_code, TVKMessageListing)`.
template <class Token>
auto async_get_messages(TVKChatManager& manager, std::shared_ptr<TVKChat> chat, std::string msgType,
                        std::shared_ptr<TVKGetMessagesConfiguration> configuration, Token&& token) {
    return async_detail::initiate<TVKMessageListing>(
        manager, std::forward<Token>(token),
        [chat, msgType = std::move(msgType), configuration](TVKChatManager& manager,
                                                            auto completion) {
            manager.getMessagesForChatroom(chat, msgType, configuration, completion.success(),
                                           completion.failure());
        });
}

/// `void(error_code)`
template <class Token>
auto async_update_guest_nickname(TVKChatManager& manager, std::string nickname,
                                 std::shared_ptr<TVKChat> chat, Token&& token) {
    return async_detail::initiate<>(
        manager, std::forward<Token>(token),
        [nickname = std::move(nickname), chat](TVKChatManager& manager, auto completion) {
            manager.updateGuestNickname(nickname, chat, completion.success(), completion.failure());
        });
}

/// `void(error_code)`
template <class Token>
auto async_update_user_role(TVKChatManager& manager, std::string role,
                            std::shared_ptr<TVKChatUser> targetUser, std::shared_ptr<TVKChat> chat,
                            Token&& token) {
    return async_detail::initiate<>(
        manager, std::forward<Token>(token),
        [role = std::move(role), targetUser, chat](TVKChatManager& manager, auto completion) {
            manager.updateUserRole(role, targetUser, chat, completion.success(),
                                   completion.failure());
        });
}

/// By member id: `void(error_code)`.
template <class Token>
auto async_update_user_role(TVKChatManager& manager, std::string role, std::string memberId,
                            std::shared_ptr<TVKChat> chat, Token&& token) {
    return async_detail::initiate<>(manager, std::forward<Token>(token),
                                    [role = std::move(role), memberId = std::move(memberId), chat](
                                        TVKChatManager& manager, auto completion) {
                                        manager.updateUserRole(role, memberId, chat,
                                                               completion.success(),
                                                               completion.failure());
                                    });
}

/// `void(error_code)`
template <class Token>
auto async_block_users(TVKChatManager& manager, TVKChatUsers users, std::shared_ptr<TVKChat> chat,
                       Token&& token) {
    return async_detail::initiate<>(
        manager, std::forward<Token>(token),
        [users = std::move(users), chat](TVKChatManager& manager, auto completion) {
            manager.blockUsers(users, chat, completion.success(), completion.failure());
        });
}

/// `void(error_code)`
template <class Token>
auto async_revive_users(TVKChatManager& manager, TVKChatUsers users, std::shared_ptr<TVKChat> chat,
                        Token&& token) {
    return async_detail::initiate<>(
        manager, std::forward<Token>(token),
        [users = std::move(users), chat](TVKChatManager& manager, auto completion) {
            manager.reviveUsers(users, chat, completion.success(), completion.failure());
        });
}

/// A text message: `void(error_code)`.
template <class Token>
auto async_send_message(TVKChatManager& manager, std::string text, std::shared_ptr<TVKChat> chat,
                        Token&& token) {
    return async_detail::initiate<>(
        manager, std::forward<Token>(token),
        [text = std::move(text), chat](TVKChatManager& manager, auto completion) {
            manager.sendMessage(text, chat, completion.success(), completion.failure());
        });
}

/// A message of any type: `void(error_code)`.
template <class Token>
auto async_send_message(TVKChatManager& manager, boost::json::value message, std::string msgType,
                        std::shared_ptr<TVKChat> chat, Token&& token) {
    return async_detail::initiate<>(
        manager, std::forward<Token>(token),
        [message = std::move(message), msgType = std::move(msgType), chat](TVKChatManager& manager,
                                                                           auto completion) {
            manager.sendMessage(message, msgType, chat, completion.success(), completion.failure());
        });
}

/// `void(error_code)`
template <class Token>
auto async_remove_message(TVKChatManager& manager, std::shared_ptr<TVKChatMessage> message,
                          std::shared_ptr<TVKChat> chat, Token&& token) {
    return async_detail::initiate<>(manager, std::forward<Token>(token),
                                    [message, chat](TVKChatManager& manager, auto completion) {
                                        manager.removeMessage(message, chat, completion.success(),
                                                              completion.failure());
                                    });
}

/// `void(error_code, std::shared_ptr<TVKChatMessage>)`, nullptr when nothing is pinned.
template <class Token>
auto async_get_pinned_message(TVKChatManager& manager, std::shared_ptr<TVKChat> chat,
                              Token&& token) {
    return async_detail::initiate<std::shared_ptr<TVKChatMessage>>(
        manager, std::forward<Token>(token), [chat](TVKChatManager& manager, auto completion) {
            manager.getPinnedMessageForChat(chat, completion.success(), completion.failure());
        });
}

/// `void(error_code)`
template <class Token>
auto async_pin_message(TVKChatManager& manager, std::shared_ptr<TVKChatMessage> message,
                       std::shared_ptr<TVKChat> chat, Token&& token) {
    return async_detail::initiate<>(manager, std::forward<Token>(token),
                                    [message, chat](TVKChatManager& manager, auto completion) {
                                        manager.pinMessage(message, chat, completion.success(),
                                                           completion.failure());
                                    });
}

/// `void(error_code)`
template <class Token>
auto async_unpin_message(TVKChatManager& manager, std::shared_ptr<TVKChat> chat, Token&& token) {
    return async_detail::initiate<>(
        manager, std::forward<Token>(token), [chat](TVKChatManager& manager, auto completion) {
            manager.unpinMessageFromChatroom(chat, completion.success(), completion.failure());
        });
}

/// `void(error_code)`
template <class Token>
auto async_set_metadata_value(TVKChatManager& manager, boost::json::value value, std::string key,
                              std::shared_ptr<TVKChat> chat, bool broadcast, Token&& token) {
    return async_detail::initiate<>(manager, std::forward<Token>(token),
                                    [value = std::move(value), key = std::move(key), chat,
                                     broadcast](TVKChatManager& manager, auto completion) {
                                        manager.setMetadataValue(value, key, chat, broadcast,
                                                                 completion.success(),
                                                                 completion.failure());
                                    });
}

/// `void(error_code, TVKChatMetadataDictionary)`; nullopt asks for every key.
template <class Token>
auto async_get_metadata(TVKChatManager& manager, std::optional<std::vector<std::string>> keys,
                        std::shared_ptr<TVKChat> chat, Token&& token) {
    return async_detail::initiate<TVKChatMetadataDictionary>(
        manager, std::forward<Token>(token),
        [keys = std::move(keys), chat](TVKChatManager& manager, auto completion) {
            manager.getMetadataForKeys(keys, chat, completion.success(), completion.failure());
        });
}

// --- Data channel ------------------------------------------------------------------------------

/// `void(error_code)`
template <class Token>
auto async_send_aggregated_data(TVKChatManager& manager, std::string key,
                                std::shared_ptr<TVKChat> chat, Token&& token) {
    return async_detail::initiate<>(
        manager, std::forward<Token>(token),
        [key = std::move(key), chat](TVKChatManager& manager, auto completion) {
            manager.sendAggregatedDataWithKey(key, chat, completion.success(),
                                              completion.failure());
        });
}

/// `void(error_code)`
template <class Token>
auto async_send_raw_data(TVKChatManager& manager, boost::json::value rawData,
                         std::shared_ptr<TVKChat> chat, Token&& token) {
    return async_detail::initiate<>(
        manager, std::forward<Token>(token),
        [rawData = std::move(rawData), chat](TVKChatManager& manager, auto completion) {
            manager.sendRawData(rawData, chat, completion.success(), completion.failure());
        });
}

/// `void(error_code, TVKAggregatedDataList)`
template <class Token>
auto async_get_aggregated_data(TVKChatManager& manager, std::shared_ptr<TVKChat> chat,
                               std::shared_ptr<TVKGetMessagesConfiguration> configuration,
                               Token&& token) {
    return async_detail::initiate<TVKAggregatedDataList>(
        manager, std::forward<Token>(token),
        [chat, configuration](TVKChatManager& manager, auto completion) {
            manager.getAggregatedDataForChatroom(chat, configuration, completion.success(),
                                                 completion.failure());
        });
}

/// `void(error_code, TVKChatMessages)`
template <class Token>
auto async_get_raw_data(TVKChatManager& manager, std::shared_ptr<TVKChat> chat,
                        std::shared_ptr<TVKGetMessagesConfiguration> configuration, Token&& token) {
    return async_detail::initiate<TVKChatMessages>(
        manager, std::forward<Token>(token),
        [chat, configuration](TVKChatManager& manager, auto completion) {
            manager.getRawDataForChatroom(chat, configuration, completion.success(),
                                          completion.failure());
        });
}

// --- Archived history --------------------------------------------------------------------------

/// `void(error_code, std::shared_ptr<TVKArchivedMessagesMeta>)`
template <class Token>
auto async_get_archived_message_meta(TVKChatManager& manager, std::string chatroomName,
                                     std::string archivedId, Token&& token) {
    return async_detail::initiate<std::shared_ptr<TVKArchivedMessagesMeta>>(
        manager, std::forward<Token>(token),
        [name = std::move(chatroomName), id = std::move(archivedId)](TVKChatManager& manager,
                                                                     auto completion) {
            manager.getArchivedMessageMetaForChatroom(name, id, completion.success(),
                                                      completion.failure());
        });
}

/// `void(error_code, std::vector<std::shared_ptr<TVKChatMessage>>)`
template <class Token>
auto async_get_archived_messages(TVKChatManager& manager, std::string chatroomName,
                                 TVKGetArchivedMessagesConfiguration configuration, Token&& token) {
    return async_detail::initiate<std::vector<std::shared_ptr<TVKChatMessage>>>(
        manager, std::forward<Token>(token),
        [name = std::move(chatroomName), configuration = std::move(configuration)](
            TVKChatManager& manager, auto completion) {
            manager.getArchivedMessagesForChatroom(name, configuration, completion.success(),
                                                   completion.failure());
        });
}

// --- Events as a stream ------------------------------------------------------------------------

/// A chatroom's events as a stream of `TVKChatEvent` values, read with `async_receive`, as an
/// alternative to a delegate of your own:
///
///     auto events = tavlo::TVKChatEventStream::create(*manager);
///     auto chat = co_await tavlo::async_connect(*manager, "lobby", jwt, 0, events->delegate(),
///                                               asio::use_awaitable);
///     for (;;) {
///         auto [error, event] = co_await
///         events->async_receive(asio::as_tuple(asio::use_awaitable)); if (error) break;  //
///         closed, the chatroom ended, or the manager was released if (auto* added =
///         std::get_if<tavlo::chat_event::MessageAdded>(&event)) ...
///     }
///
/// The stream receives what its `delegate()` is given: pass that to `async_connect` (or
/// `connectToChatroom`, `setEventDelegate`) for one chatroom. Events come in the order the
/// delegate would have heard them, none dropped. The bound is the chatroom's, shared with a
/// callback executor: once 1,000 of its events wait unread (in the stream and the executor
/// together), the chatroom's socket stops reading, as it does for a slow callback executor, and
/// resumes when half of them have been read; the service's
/// further events wait in TCP meanwhile. Memory stays bounded; a reader that stays away longer
/// than the service's heartbeat allows loses the connection, which is re-established as usual.
///
/// A read completes with `void(error_code, TVKChatEvent)`, on the handler's executor. It ends
/// with `TVKAsyncErrc::streamClosed` after `close()`, and once the chatroom's last event
/// (`Disconnected`, or the final `Error` / `FailToConnect`) has been read; with
/// `managerReleased` when the manager goes. One read at a time; a second one while the first is
/// pending fails with `boost::asio::error::in_progress`. Safe from any thread.
class TAVLO_EXPORT TVKChatEventStream {
  public:
    static std::shared_ptr<TVKChatEventStream> create(TVKChatManager& manager);
    ~TVKChatEventStream();
    TVKChatEventStream(const TVKChatEventStream&) = delete;
    TVKChatEventStream& operator=(const TVKChatEventStream&) = delete;

    /// The delegate that feeds this stream; the stream keeps it alive.
    std::shared_ptr<TVKChatEventDelegate> delegate() const;

    /// The next event: `void(boost::system::error_code, TVKChatEvent)`.
    template <class Token>
    auto async_receive(Token&& token) {
        return async_detail::initiateFor<TVKChatEvent>(
            manager_, std::forward<Token>(token),
            [core = core_](async_detail::Completion<TVKChatEvent> completion) {
                async_detail::receive(*core, std::move(completion));
            });
    }

    /// Ends the stream: a pending read and every later one complete with `streamClosed`; events
    /// still unread are let go, and the socket reads on.
    void close();

    TVKChatEventStream(std::weak_ptr<TVKChatManager> manager,
                       std::shared_ptr<async_detail::StreamCore> core);

  private:
    std::weak_ptr<TVKChatManager> manager_;
    std::shared_ptr<async_detail::StreamCore> core_;
    std::shared_ptr<TVKChatEventDelegate> delegate_;
};

}  // namespace tavlo

template <>
struct std::is_error_code_enum<tavlo::TVKAsyncErrc> : std::true_type {};
