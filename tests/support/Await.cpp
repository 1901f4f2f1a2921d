#include "tests/support/Await.hpp"

#include <gtest/gtest.h>

#include <condition_variable>
#include <memory>
#include <mutex>
#include <thread>

namespace tavlo::test {

Outcome await(const std::function<void(OutcomeSuccess, OutcomeFailure)>& start,
              std::chrono::milliseconds limit) {
    struct Shared {
        std::mutex mutex;
        std::condition_variable done;
        Outcome outcome;
        std::thread::id caller = std::this_thread::get_id();
        bool returned = false;
    };
    auto shared = std::make_shared<Shared>();
    auto finish = [shared](Outcome outcome) {
        std::lock_guard lock(shared->mutex);
        if (shared->outcome.finished) {
            ADD_FAILURE() << "a second outcome";
            return;
        }
        outcome.finished = true;
        outcome.synchronous = !shared->returned && std::this_thread::get_id() == shared->caller;
        shared->outcome = std::move(outcome);
        shared->done.notify_all();
    };
    start([finish](boost::json::value value) { finish({false, true, false, std::move(value), {}}); },
          [finish](const TVKError& error) { finish({false, false, false, nullptr, error}); });
    std::unique_lock lock(shared->mutex);
    shared->returned = true;
    if (!shared->done.wait_for(lock, limit, [&] { return shared->outcome.finished; })) {
        ADD_FAILURE() << "no outcome within " << limit.count() << " ms";
        return {};
    }
    return shared->outcome;
}

Outcome awaitDone(const std::function<void(std::function<void()>, OutcomeFailure)>& start,
                  std::chrono::milliseconds limit) {
    return await(
        [&](OutcomeSuccess succeed, OutcomeFailure fail) {
            start([succeed] { succeed(nullptr); }, fail);
        },
        limit);
}

std::string describe(const Outcome& outcome) {
    return outcome.error ? outcome.error->describe() : outcome.succeeded ? "success" : "nothing";
}

}  // namespace tavlo::test
