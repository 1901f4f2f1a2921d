#pragma once


#include <chrono>
#include <memory>

#include "Dispatch/Queue.hpp"

namespace tavlo::dispatch {

using Duration = std::chrono::nanoseconds;

/// Cancels a scheduled task; cancelling after it ran, or twice, does nothing.
class ScheduledTask {
  public:
    virtual ~ScheduledTask() = default;
    virtual void cancel() = 0;
};

/// Delayed dispatch. Production code uses `TimerScheduler`; tests inject a scaled one (the 0.5 s to
/// 32 s retry delays then take milliseconds) or one driven by hand.
class Scheduler {
  public:
    virtual ~Scheduler() = default;

    /// Runs `task` on `queue` once `delay` has passed.
    virtual std::shared_ptr<ScheduledTask> after(Duration delay, std::shared_ptr<Queue> queue,
                                                 Task task) = 0;

    /// The process-wide real-time scheduler.
    static std::shared_ptr<Scheduler> system();
};

/// Real timers on the runtime's I/O thread. A time scale below 1 shortens every delay (tests).
class TimerScheduler final : public Scheduler {
  public:
    explicit TimerScheduler(double timeScale = 1.0) : timeScale_(timeScale) {}
    std::shared_ptr<ScheduledTask> after(Duration delay, std::shared_ptr<Queue> queue,
                                         Task task) override;

  private:
    const double timeScale_;
};

}  // namespace tavlo::dispatch
