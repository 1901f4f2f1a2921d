#pragma once

#include <map>
#include <memory>
#include <mutex>

#include "Dispatch/Internal/Scheduler.hpp"

namespace tavlo::dispatch {

/// Virtual time for unit tests: nothing runs until `advance` moves the clock past a task's time.
/// Due tasks are handed to their queues in time order.
class ManualScheduler final : public Scheduler {
  public:
    std::shared_ptr<ScheduledTask> after(Duration delay, std::shared_ptr<Queue> queue,
                                         Task task) override;
    void advance(Duration by);
    Duration now() const;
    std::size_t pendingCount() const;

  private:
    struct Entry;
    mutable std::mutex mutex_;
    Duration now_{0};
    std::multimap<Duration, std::shared_ptr<Entry>> entries_;
};

}  // namespace tavlo::dispatch
