// The completion-token layer (TVKAsync.hpp) against the emulator: every operation in every
// style of waiting, where completions run, cancellation, and the manager's release while
// something waits.

#include "TavloMessagingSDK/TVKAsync.hpp"

#include <gtest/gtest.h>

#include <boost/asio/as_tuple.hpp>
#include <boost/asio/bind_cancellation_slot.hpp>
#include <boost/asio/bind_executor.hpp>
#include <boost/asio/co_spawn.hpp>
#include <boost/asio/deferred.hpp>
#include <boost/asio/detached.hpp>
#include <boost/asio/experimental/awaitable_operators.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/strand.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <boost/asio/use_future.hpp>
#include <future>
#include <thread>

#include "TavloMessagingSDK/Internal/TVKChatManagerAsyncHooks.hpp"
#include "tests/support/Emulator.hpp"

namespace tavlo {
namespace {

namespace asio = boost::asio;
using namespace std::chrono_literals;
using boost::system::error_code;

// How many things an operation answered: the size of a list, 1 for a record, 0 for none.
std::size_t countOf() {
    return 0;
}
template <class T>
std::size_t countOf(const std::vector<T>& list) {
    return list.size();
}
template <class K, class V>
std::size_t countOf(const std::map<K, V>& map) {
    return map.size();
}
template <class T>
std::size_t countOf(const std::shared_ptr<T>& record) {
    return record ? 1 : 0;
}
std::size_t countOf(const TVKMessageListing& listing) {
    return std::visit([](const auto& list) { return list.size(); }, listing);
}

struct Result {
    error_code error;
    std::size_t count = 0;
    bool completed = false;
    bool inlineInTheCall = false;  // the handler ran on the calling thread before it returned
};

enum class Style { callback, future, awaitable, asTuple, deferred };
const char* nameOf(Style style) {
    static const char* names[] = {"callback", "use_future", "use_awaitable", "as_tuple",
                                  "deferred"};
    return names[static_cast<int>(style)];
}
const Style kStyles[] = {Style::callback, Style::future, Style::awaitable, Style::asTuple,
                         Style::deferred};

// A plain handler that records what it got and whether it ran inside the initiating call.
template <class Start, class Wrap>
Result withCallback(Start& start, Wrap wrap) {
    std::promise<Result> promise;
    const auto caller = std::this_thread::get_id();
    std::atomic<bool> returned{false};
    start(wrap([&](error_code error, const auto&... values) {
        promise.set_value(
            {error, countOf(values...), true, std::this_thread::get_id() == caller && !returned});
    }));
    returned = true;
    auto future = promise.get_future();
    if (future.wait_for(20s) != std::future_status::ready) return {};
    return future.get();
}

template <class Start>
Result withFuture(Start& start) {
    auto future = start(asio::use_future);
    if (future.wait_for(20s) != std::future_status::ready) return {};
    Result result;
    result.completed = true;
    try {
        if constexpr (std::is_void_v<decltype(future.get())>) {
            future.get();
        } else {
            result.count = countOf(future.get());
        }
    } catch (const boost::system::system_error& failure) {
        result.error = failure.code();
    }
    return result;
}

template <class Start>
Result withCoroutine(Start& start, bool asTuple) {
    asio::io_context io;
    Result result;
    asio::co_spawn(
        io,
        [&]() -> asio::awaitable<void> {
            if (asTuple) {
                auto outcome = co_await start(asio::as_tuple(asio::use_awaitable));
                result.error = std::get<0>(outcome);
                result.count = std::apply(
                    [](const error_code&, const auto&... values) { return countOf(values...); },
                    outcome);
            } else {
                try {
                    using Awaited = decltype(start(asio::use_awaitable));
                    if constexpr (std::is_void_v<typename Awaited::value_type>) {
                        co_await start(asio::use_awaitable);
                    } else {
                        result.count = countOf(co_await start(asio::use_awaitable));
                    }
                } catch (const boost::system::system_error& failure) {
                    result.error = failure.code();
                }
            }
            result.completed = true;
        },
        asio::detached);
    // Returns as soon as the coroutine is done: only the operation's work keeps it running.
    io.run_for(20s);
    return result;
}

template <class Start>
Result runIn(Style style, Start start) {
    switch (style) {
        case Style::callback:
            return withCallback(start, [](auto handler) { return handler; });
        case Style::future:
            return withFuture(start);
        case Style::awaitable:
            return withCoroutine(start, false);
        case Style::asTuple:
            return withCoroutine(start, true);
        case Style::deferred: {
            auto launch = [&start](auto handler) { start(asio::deferred)(std::move(handler)); };
            return withCallback(launch, [](auto handler) { return handler; });
        }
    }
    return {};
}

using Runner = std::function<Result(Style)>;
template <class Start>
Runner runner(Start start) {
    return [start](Style style) { return runIn(style, start); };
}

std::error_code publicError(TVKMSGErrorCode code) {
    return async_detail::errorCodeOf(TVKError(TVKMSGErrorDomain, code));
}

// An application delegate that counts what it hears.
struct Counter : TVKChatEventDelegate {
    std::atomic<int> connected{0};
    std::atomic<int> messages{0};
    void chatroomConnected(const std::shared_ptr<TVKChat>&) override { ++connected; }
    void chatroomMessageAdded(const std::shared_ptr<TVKChat>&,
                              const std::shared_ptr<TVKChatMessage>&) override {
        ++messages;
    }
};

class AsyncOperations : public test::EmulatorTest {
  protected:
    void SetUp() override {
        EmulatorTest::SetUp();
        useDemoAccount();
        manager = newManager();
    }

    std::shared_ptr<TVKChatManager> newManager() {
        auto made = TVKChatManager::create();
        made->setHTTPHostURL(emulator().url());
        return made;
    }

    // Connected through the token layer itself, as a coroutine would.
    std::shared_ptr<TVKChat> connect(TVKChatManager& to, const std::string& member,
                                     std::shared_ptr<TVKChatEventDelegate> delegate = nullptr) {
        auto future = async_connect(to, "lobby", member.empty() ? "" : jwtOf(member), 0,
                                    std::move(delegate), asio::use_future);
        if (future.wait_for(20s) != std::future_status::ready) return nullptr;
        return future.get();
    }

    std::shared_ptr<TVKChatMessage> newestTextMessage(const std::shared_ptr<TVKChat>& chat) {
        auto messages = async_get_messages(*manager, chat, nullptr, asio::use_future).get();
        return messages.empty() ? nullptr : messages.front();
    }

    std::shared_ptr<TVKChatUser> onlineUser(const std::shared_ptr<TVKChat>& chat,
                                            const std::string& name) {
        for (const auto& user :
             async_get_users(*manager, chat, TVKChatUserTypeOnline, asio::use_future).get()) {
            if (user->name() == name) return user;
        }
        return nullptr;
    }

    void delay(const std::string& pathPrefix, int ms) const {
        emulator().control("POST", "delays",
                           boost::json::object{{"pathPrefix", pathPrefix}, {"ms", ms}});
    }

    std::shared_ptr<TVKChatManager> manager;
};

TEST_F(AsyncOperations, EveryOperationInEveryStyle) {
    auto chat = connect(*manager, "carol");  // the lobby's master: every action is allowed
    ASSERT_TRUE(chat);
    auto message = newestTextMessage(chat);
    auto xavier = onlineUser(chat, "Xavier");
    ASSERT_TRUE(message && xavier);
    auto stranger = newManager()->chatForChatroomName("lobby", false);  // nullptr: not connected
    auto archive = TVKGetArchivedMessagesConfiguration::configurationWithArchiveId(
        std::string("lobby-archive-2023"));
    archive.setStart(1685610000000);
    archive.setEnd(1685610000000 + 4 * 60000);
    auto& m = *manager;

    struct Case {
        const char* name;
        Runner run;
        std::error_code expected;  // empty: success
        std::size_t atLeast = 0;   // answered items on success
    };
    const std::vector<Case> cases = {
        {"connect again",
         runner([&](auto t) { return async_connect(m, "lobby", "", 0, t); }),
         {},
         1},
        {"users",
         runner([&](auto t) { return async_get_users(m, chat, TVKChatUserTypeSupervisor, t); }),
         {},
         2},
        {"text messages",
         runner([&](auto t) { return async_get_messages(m, chat, nullptr, t); }),
         {},
         1},
        {"listing",
         runner([&](auto t) { return async_get_messages(m, chat, "raw", nullptr, t); }),
         {},
         0},
        {"nickname of a member",
         runner([&](auto t) { return async_update_guest_nickname(m, "Cara", chat, t); }),
         publicError(TVKMSGErrorMemberNicknameUpdateNotSupported)},
        {"role of a user",
         runner([&](auto t) {
             return async_update_user_role(m, kTVKUserRoleNormal, xavier, chat, t);
         }),
         {}},
        {"role by member id",
         runner([&](auto t) {
             return async_update_user_role(m, kTVKUserRoleNormal, std::string("bob"), chat, t);
         }),
         {}},
        {"block", runner([&](auto t) { return async_block_users(m, {xavier}, chat, t); }), {}},
        {"revive", runner([&](auto t) { return async_revive_users(m, {xavier}, chat, t); }), {}},
        {"send text", runner([&](auto t) { return async_send_message(m, "hello", chat, t); }), {}},
        {"send too long",
         runner([&](auto t) { return async_send_message(m, std::string(301, 'x'), chat, t); }),
         publicError(TVKMSGErrorMessageLength)},
        {"send typed",
         runner([&](auto t) {
             return async_send_message(m, boost::json::value("typed"), "text", chat, t);
         }),
         {}},
        {"pinned", runner([&](auto t) { return async_get_pinned_message(m, chat, t); }), {}},
        {"pin", runner([&](auto t) { return async_pin_message(m, message, chat, t); }), {}},
        {"unpin", runner([&](auto t) { return async_unpin_message(m, chat, t); }), {}},
        {"set metadata",
         runner([&](auto t) {
             return async_set_metadata_value(m, boost::json::value(7), "level", chat, false, t);
         }),
         {}},
        {"bad metadata key", runner([&](auto t) {
             return async_set_metadata_value(m, boost::json::value(7), "-x", chat, false, t);
         }),
         publicError(TVKMSGErrorInvalidInput)},
        {"metadata",
         runner([&](auto t) { return async_get_metadata(m, std::nullopt, chat, t); }),
         {},
         1},
        {"aggregate",
         runner([&](auto t) { return async_send_aggregated_data(m, "likes", chat, t); }),
         {}},
        {"raw data",
         runner([&](auto t) {
             return async_send_raw_data(m, boost::json::object{{"n", 1}}, chat, t);
         }),
         {}},
        {"aggregated data",
         runner([&](auto t) { return async_get_aggregated_data(m, chat, nullptr, t); }),
         {},
         1},
        {"raw list", runner([&](auto t) { return async_get_raw_data(m, chat, nullptr, t); }), {}},
        {"archive meta",
         runner([&](auto t) {
             return async_get_archived_message_meta(m, "lobby", "lobby-archive-2023", t);
         }),
         {},
         1},
        {"bad archive id",
         runner([&](auto t) { return async_get_archived_message_meta(m, "lobby", "x", t); }),
         publicError(TVKMSGErrorArchivedIdNotFound)},
        {"archived messages",
         runner([&](auto t) { return async_get_archived_messages(m, "lobby", archive, t); }),
         {},
         1},
        {"not connected", runner([&](auto t) { return async_send_message(m, "hi", stranger, t); }),
         publicError(TVKMSGErrorChannelNotConnected)},
        // A fresh message each time: the newest, sent by the cases above.
        {"remove",
         runner([&](auto t) { return async_remove_message(m, newestTextMessage(chat), chat, t); }),
         {}},
    };
    for (const auto& operation : cases) {
        for (auto style : kStyles) {
            SCOPED_TRACE(std::string(operation.name) + " / " + nameOf(style));
            auto result = operation.run(style);
            ASSERT_TRUE(result.completed);
            EXPECT_FALSE(result.inlineInTheCall);
            EXPECT_EQ(result.error, operation.expected) << result.error.message();
            if (!result.error) {
                EXPECT_GE(result.count, operation.atLeast);
            }
        }
    }
}

TEST_F(AsyncOperations, KeepErrorHoldsTheWholeError) {
    auto chat = connect(*manager, "");
    ASSERT_TRUE(chat);
    TVKError why;
    auto [error] = asio::co_spawn(
                       asio::system_executor(),
                       [&]() -> asio::awaitable<std::tuple<error_code>> {
                           co_return co_await async_pin_message(
                               *manager, newestTextMessage(chat), chat,
                               keep_error(why, asio::as_tuple(asio::use_awaitable)));
                       },
                       asio::use_future)
                       .get();
    EXPECT_EQ(error, publicError(TVKMSGErrorPermission));  // a guest may not pin
    EXPECT_EQ(why.domain, TVKMSGErrorDomain);
    EXPECT_EQ(why.code, TVKMSGErrorPermission);
    EXPECT_TRUE(why.localizedDescription);
}

TEST_F(AsyncOperations, CompletionsRunOnTheHandlersStrand) {
    auto chat = connect(*manager, "alice");
    ASSERT_TRUE(chat);
    asio::io_context io;
    auto strand = asio::make_strand(io);
    std::atomic<int> onStrand{0}, elsewhere{0};
    auto check = [&](error_code, const auto&...) {
        (strand.running_in_this_thread() ? onStrand : elsewhere)++;
    };
    for (int i = 0; i < 5; ++i) {
        async_send_message(*manager, "on the strand", chat, asio::bind_executor(strand, check));
        async_get_users(*manager, chat, TVKChatUserTypeOnline, asio::bind_executor(strand, check));
        // Refused before anything is sent: posted, never run inside the call.
        async_send_message(*manager, "", chat, asio::bind_executor(strand, check));
    }
    std::thread second([&] { io.run(); });
    io.run();  // returns once all fifteen have completed: each held the context's work
    second.join();
    EXPECT_EQ(onStrand, 15);
    EXPECT_EQ(elsewhere, 0);
}

TEST_F(AsyncOperations, CancellationEndsTheOperationOnce) {
    auto chat = connect(*manager, "alice");
    ASSERT_TRUE(chat);
    delay("/add-user-message-to-chat/", 1500);

    // A coroutine racing an answer against a timer: the timer wins, the operation is cancelled.
    using namespace asio::experimental::awaitable_operators;
    asio::io_context io;
    bool raced = false;
    asio::co_spawn(
        io,
        [&]() -> asio::awaitable<void> {
            asio::steady_timer timer(io, 100ms);
            auto winner =
                co_await (async_send_message(*manager, "slow", chat, asio::use_awaitable) ||
                          timer.async_wait(asio::use_awaitable));
            raced = true;
            EXPECT_EQ(winner.index(), 1u);
        },
        asio::detached);
    io.run_for(10s);
    EXPECT_TRUE(raced);

    // A plain handler with a slot: aborted once, the late answer ignored.
    asio::cancellation_signal signal;
    std::mutex guard;  // the handler runs on one of the SDK's threads
    std::vector<error_code> calls;
    async_send_message(*manager, "slow too", chat,
                       asio::bind_cancellation_slot(signal.slot(), [&](error_code error) {
                           std::lock_guard lock(guard);
                           calls.push_back(error);
                       }));
    signal.emit(asio::cancellation_type::terminal);
    std::this_thread::sleep_for(2500ms);  // past the delayed answer
    std::lock_guard lock(guard);
    ASSERT_EQ(calls.size(), 1u);
    EXPECT_EQ(calls[0], asio::error::operation_aborted);
}

TEST_F(AsyncOperations, ReleasingTheManagerEndsWhatWaits) {
    auto chat = connect(*manager, "alice");
    ASSERT_TRUE(chat);
    delay("/get-messages-by-chat/", 1000);
    delay("/get-chat-profile-by-channel/", 1000);
    auto other = newManager();

    asio::io_context io;
    std::vector<error_code> ends;
    auto await = [&](auto operation) {
        asio::co_spawn(
            io,
            [&, operation]() -> asio::awaitable<void> {
                auto [error, value] = co_await operation(asio::as_tuple(asio::use_awaitable));
                ends.push_back(error);
            },
            asio::detached);
    };
    await([&, m = manager.get()](auto t) { return async_get_messages(*m, chat, nullptr, t); });
    await([&, m = other.get()](auto t) { return async_connect(*m, "lobby", "", 0, t); });
    io.poll();  // both started
    manager.reset();
    other.reset();
    io.run_for(15s);
    ASSERT_EQ(ends.size(), 2u);
    for (const auto& error : ends) EXPECT_EQ(error, TVKAsyncErrc::managerReleased);
}

TEST_F(AsyncOperations, AwaitedConnectionsShareTheOutcomeAndKeepTheDelegate) {
    auto counter = std::make_shared<Counter>();
    auto first = async_connect(*manager, "lobby", jwtOf("bob"), 0, counter, asio::use_future);
    auto second = async_connect(*manager, "lobby", jwtOf("bob"), 0, asio::use_future);
    auto chat = first.get();
    ASSERT_TRUE(chat);
    EXPECT_EQ(second.get(), chat);
    EXPECT_EQ(counter->connected, 1);
    // The delegate goes on receiving once the connection is handed back to it.
    async_send_message(*manager, "to myself", chat, asio::use_future).get();
    for (int i = 0; i < 200 && counter->messages == 0; ++i) std::this_thread::sleep_for(10ms);
    EXPECT_GE(counter->messages, 1);

    auto failed = async_connect(*manager, "no-such-room", "", 0, asio::use_future);
    ASSERT_EQ(failed.wait_for(20s), std::future_status::ready);
    try {
        failed.get();
        ADD_FAILURE() << "connected to a chatroom that does not exist";
    } catch (const boost::system::system_error& error) {
        EXPECT_EQ(error.code(), publicError(TVKMSGErrorChatroomNotFound));
    }
}

}  // namespace
}  // namespace tavlo

namespace tavlo {
namespace {

class AsyncEventStream : public AsyncOperations {
  protected:
    // The next event, or an error when none comes within ten seconds.
    std::pair<error_code, TVKChatEvent> next(TVKChatEventStream& events) {
        auto read = receive(events);
        if (read.wait_for(10s) != std::future_status::ready) return {asio::error::timed_out, {}};
        return read.get();
    }
    // The next event, read with a plain handler.
    static std::future<std::pair<error_code, TVKChatEvent>> receive(TVKChatEventStream& events) {
        auto promise = std::make_shared<std::promise<std::pair<error_code, TVKChatEvent>>>();
        events.async_receive([promise](error_code error, TVKChatEvent event) {
            promise->set_value({error, std::move(event)});
        });
        return promise->get_future();
    }
};

TEST_F(AsyncEventStream, ASlowReaderHoldsTheSocketAndLosesNothing) {
    auto events = TVKChatEventStream::create(*manager);
    auto chat = connect(*manager, "", events->delegate());
    ASSERT_TRUE(chat);
    auto [error, first] = next(*events);
    ASSERT_FALSE(error);
    EXPECT_TRUE(std::holds_alternative<chat_event::Connected>(first));

    constexpr int kFlood = 3000;
    emulator().control("POST", "chatrooms/lobby/stream",
                       boost::json::object{{"rate", 5000}, {"count", kFlood}});
    auto backlog = TVKChatManagerAsyncHooks::backlogOf(chat);
    for (int i = 0; i < 1000 && !backlog->isFull(); ++i) std::this_thread::sleep_for(10ms);
    ASSERT_TRUE(backlog->isFull());
    std::this_thread::sleep_for(500ms);
    // Held: what the service sends meanwhile waits in TCP, not in the stream nor in the socket.
    EXPECT_LE(backlog->events(), backlog->limits().maxEvents + 2 * 64 * 1024 / 100);

    int expected = 1;
    while (expected <= kFlood) {
        auto [error, event] = next(*events);
        ASSERT_FALSE(error) << error.message() << " after " << expected - 1;
        auto* added = std::get_if<chat_event::MessageAdded>(&event);
        if (!added) continue;  // user counts and the like
        ASSERT_EQ(added->message->text(), "stream " + std::to_string(expected));
        ++expected;
    }
    EXPECT_FALSE(backlog->isFull());
    EXPECT_EQ(backlog->events(), 0u);
}

TEST_F(AsyncEventStream, PendingReadsEndClearly) {
    auto events = TVKChatEventStream::create(*manager);
    auto chat = connect(*manager, "", events->delegate());
    ASSERT_TRUE(chat);
    ASSERT_FALSE(next(*events).first);  // Connected

    // One read at a time; closing ends the pending one and every later one.
    auto pending = receive(*events);
    EXPECT_EQ(next(*events).first, asio::error::in_progress);
    events->close();
    ASSERT_EQ(pending.wait_for(10s), std::future_status::ready);
    EXPECT_EQ(pending.get().first, TVKAsyncErrc::streamClosed);
    EXPECT_EQ(next(*events).first, TVKAsyncErrc::streamClosed);

    // The chatroom's end is read, then the stream is over.
    auto again = TVKChatEventStream::create(*manager);
    manager->setEventDelegate(again->delegate(), chat);
    manager->disconnectFromChatroom(chat);
    bool disconnected = false;
    for (auto read = next(*again); !read.first; read = next(*again)) {
        EXPECT_FALSE(disconnected) << "an event after the last one";
        disconnected = std::holds_alternative<chat_event::Disconnected>(read.second);
    }
    EXPECT_TRUE(disconnected);
    EXPECT_EQ(next(*again).first, TVKAsyncErrc::streamClosed);

    // A coroutine waiting on a stream whose manager goes.
    auto orphan = TVKChatEventStream::create(*manager);
    asio::io_context io;
    error_code ended;
    asio::co_spawn(
        io,
        [&]() -> asio::awaitable<void> {
            auto [error, event] =
                co_await orphan->async_receive(asio::as_tuple(asio::use_awaitable));
            ended = error;
        },
        asio::detached);
    io.poll();
    manager.reset();
    io.run_for(10s);
    EXPECT_EQ(ended, TVKAsyncErrc::managerReleased);
}

}  // namespace
}  // namespace tavlo
