#include "Dispatch/Internal/ManualScheduler.hpp"
#include "Dispatch/Internal/Scheduler.hpp"

#include <atomic>
#include <boost/asio/post.hpp>
#include <boost/asio/steady_timer.hpp>
#include <vector>

#include "Dispatch/Internal/Runtime.hpp"

namespace tavlo::dispatch {
namespace {

class TimerTask final : public ScheduledTask, public std::enable_shared_from_this<TimerTask> {
public:
    TimerTask(std::shared_ptr<Queue> queue, Task task)
        : timer_(Runtime::ioContext()), queue_(std::move(queue)), task_(std::move(task)) {}

    void start(Duration delay) {
        timer_.expires_after(delay);
        timer_.async_wait([self = shared_from_this()](const boost::system::error_code& error) {
            if (error || self->cancelled_) return;
            self->queue_->async([self] {
                if (!self->cancelled_.exchange(true)) self->task_();
            });
        });
    }

    void cancel() override {
        if (cancelled_.exchange(true)) return;
        // The timer belongs to the I/O thread; cancel it there.
        boost::asio::post(Runtime::ioContext(), [self = shared_from_this()] { self->timer_.cancel(); });
    }

private:
    boost::asio::steady_timer timer_;
    std::shared_ptr<Queue> queue_;
    Task task_;
    std::atomic<bool> cancelled_{false};
};

}  // namespace

std::shared_ptr<Scheduler> Scheduler::system() {
    static const auto scheduler = std::make_shared<TimerScheduler>();
    return scheduler;
}

std::shared_ptr<ScheduledTask> TimerScheduler::after(Duration delay, std::shared_ptr<Queue> queue,
                                                     Task task) {
    auto scaled = std::chrono::duration_cast<Duration>(delay * timeScale_);
    auto timerTask = std::make_shared<TimerTask>(std::move(queue), std::move(task));
    boost::asio::post(Runtime::ioContext(), [timerTask, scaled] { timerTask->start(scaled); });
    return timerTask;
}

struct ManualScheduler::Entry final : ScheduledTask {
    std::shared_ptr<Queue> queue;
    Task task;
    std::atomic<bool> cancelled{false};
    void cancel() override { cancelled = true; }
};

std::shared_ptr<ScheduledTask> ManualScheduler::after(Duration delay, std::shared_ptr<Queue> queue,
                                                      Task task) {
    auto entry = std::make_shared<Entry>();
    entry->queue = std::move(queue);
    entry->task = std::move(task);
    std::lock_guard lock(mutex_);
    entries_.emplace(now_ + delay, entry);
    return entry;
}

void ManualScheduler::advance(Duration by) {
    std::vector<std::shared_ptr<Entry>> due;
    {
        std::lock_guard lock(mutex_);
        now_ += by;
        auto end = entries_.upper_bound(now_);
        for (auto it = entries_.begin(); it != end; ++it) due.push_back(it->second);
        entries_.erase(entries_.begin(), end);
    }
    for (auto& entry : due) {
        if (entry->cancelled) continue;
        entry->queue->async([entry] {
            if (!entry->cancelled.exchange(true)) entry->task();
        });
    }
}

Duration ManualScheduler::now() const {
    std::lock_guard lock(mutex_);
    return now_;
}

std::size_t ManualScheduler::pendingCount() const {
    std::lock_guard lock(mutex_);
    return entries_.size();
}

}  // namespace tavlo::dispatch
