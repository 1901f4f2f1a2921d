// A clock for tests that writes down the delay of everything scheduled on it, around the
// scheduler that really keeps the time (a manual one, or a scaled timer).
#pragma once

#include <algorithm>
#include <mutex>
#include <utility>
#include <vector>

#include "Dispatch/Internal/Scheduler.hpp"

namespace tavlo::test {

template <class Inner>
class RecordingScheduler : public dispatch::Scheduler {
  public:
    template <class... Arguments>
    explicit RecordingScheduler(Arguments&&... arguments)
        : inner(std::forward<Arguments>(arguments)...) {}

    std::shared_ptr<dispatch::ScheduledTask> after(dispatch::Duration delay,
                                                   std::shared_ptr<dispatch::Queue> queue,
                                                   dispatch::Task task) override {
        {
            std::lock_guard lock(mutex_);
            delays_.push_back(delay);
        }
        return inner.after(delay, std::move(queue), std::move(task));
    }
    std::vector<dispatch::Duration> delays() const {
        std::lock_guard lock(mutex_);
        return delays_;
    }
    bool asked(dispatch::Duration delay) const {
        const auto all = delays();
        return std::find(all.begin(), all.end(), delay) != all.end();
    }

    Inner inner;  // what keeps the time

  private:
    mutable std::mutex mutex_;
    std::vector<dispatch::Duration> delays_;
};

}  // namespace tavlo::test
