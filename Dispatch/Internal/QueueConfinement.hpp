#pragma once

// Checked confinement: a function that must run on a serial queue (because the state it touches
// has no lock of its own) says so with
//
//     TAVLO_ASSERT_ON_QUEUE(queue_);
//
// In debug builds a call from anywhere else (a thread that runs neither the queue nor a queue
// that targets it) prints where and aborts, so a wrong thread shows up as a crash in the test that
// made the call rather than as a rare data race. Release builds (NDEBUG) compile it away.

#include <memory>

#include "Dispatch/SerialQueue.hpp"

namespace tavlo::dispatch::detail {

/// Aborts with a message naming `function`, `file` and `line` unless the calling thread runs
/// `queue`. A null queue stands for "no queue to be confined to" and passes.
void assertOnQueue(const SerialQueue* queue, const char* function, const char* file, int line);

inline const SerialQueue* queuePointer(const SerialQueue* queue) {
    return queue;
}
inline const SerialQueue* queuePointer(const SerialQueue& queue) {
    return &queue;
}
template <class Queue>
const SerialQueue* queuePointer(const std::shared_ptr<Queue>& queue) {
    return queue.get();
}

}  // namespace tavlo::dispatch::detail

#ifdef NDEBUG
#define TAVLO_ASSERT_ON_QUEUE(queue) static_cast<void>(0)
#else
#define TAVLO_ASSERT_ON_QUEUE(queue)                                                         \
    ::tavlo::dispatch::detail::assertOnQueue(::tavlo::dispatch::detail::queuePointer(queue), \
                                             __func__, __FILE__, __LINE__)
#endif
