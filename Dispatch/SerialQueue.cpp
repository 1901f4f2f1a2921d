#include "Dispatch/SerialQueue.hpp"

#include <array>
#include <boost/asio/post.hpp>
#include <future>
#include <vector>

#include "Dispatch/Internal/Runtime.hpp"

namespace tavlo::dispatch {
namespace {

// The queues the current thread is running, innermost last.
thread_local std::vector<const SerialQueue*> runningQueues;

struct RunningScope {
    explicit RunningScope(const SerialQueue* queue) { runningQueues.push_back(queue); }
    ~RunningScope() { runningQueues.pop_back(); }
};

// A task that throws must not take a worker thread down with it.
void runGuarded(const Task& task) {
    try {
        task();
    } catch (...) {
    }
}

class GlobalQueue final : public Queue {
  public:
    void async(Task task) override {
        boost::asio::post(Runtime::workers(), [task = std::move(task)] { runGuarded(task); });
    }
};

}  // namespace

std::shared_ptr<Queue> globalQueue() {
    static const auto queue = std::make_shared<GlobalQueue>();
    return queue;
}

SerialQueue::SerialQueue(std::string label, std::shared_ptr<SerialQueue> target)
    : label_(std::move(label)), target_(std::move(target)) {}

std::shared_ptr<SerialQueue> SerialQueue::create(std::string label,
                                                 std::shared_ptr<SerialQueue> target) {
    return std::make_shared<SerialQueue>(std::move(label), std::move(target));
}

void SerialQueue::async(Task task) {
    if (!task) return;
    {
        std::lock_guard lock(mutex_);
        tasks_.push_back(std::move(task));
        if (draining_) return;
        draining_ = true;
    }
    scheduleDrain();
}

void SerialQueue::scheduleDrain() {
    // The drain holds the queue alive until the tasks submitted so far have run.
    auto self = std::static_pointer_cast<SerialQueue>(shared_from_this());
    auto run = [self] { self->drain(); };
    if (target_) {
        target_->async(run);
    } else {
        boost::asio::post(Runtime::workers(), run);
    }
}

void SerialQueue::drain() {
    RunningScope scope(this);
    // Run a bounded batch, then yield the thread so that one busy queue cannot starve others.
    for (int ran = 0; ran < 64; ++ran) {
        Task task;
        {
            std::lock_guard lock(mutex_);
            if (tasks_.empty()) {
                draining_ = false;
                return;
            }
            task = std::move(tasks_.front());
            tasks_.pop_front();
        }
        runGuarded(task);
    }
    scheduleDrain();
}

bool SerialQueue::runInlineIfIdle(const Task& task) {
    if (!task || !claimChain()) return false;
    {
        RunningScope scope(this);
        runGuarded(task);
    }
    releaseChain();
    return true;
}

bool SerialQueue::claimChain() {
    // Children are always locked before their targets, and nothing else holds two of these
    // locks at once, so the order cannot deadlock. Chains are short (a socket's queue, its
    // manager's); a longer one simply never runs inline.
    std::array<std::unique_lock<std::mutex>, 4> locks;
    std::size_t depth = 0;
    for (SerialQueue* queue = this; queue; queue = queue->target_.get()) {
        if (depth == locks.size()) return false;
        locks[depth++] = std::unique_lock(queue->mutex_);
        if (queue->draining_ || !queue->tasks_.empty()) return false;
    }
    for (SerialQueue* queue = this; queue; queue = queue->target_.get()) queue->draining_ = true;
    return true;
}

void SerialQueue::releaseChain() {
    // A child that got tasks meanwhile hands its drain to its target, which is still claimed
    // and so only queues it; the target, released next, then passes everything to the workers.
    for (SerialQueue* queue = this; queue; queue = queue->target_.get()) {
        {
            std::lock_guard lock(queue->mutex_);
            if (queue->tasks_.empty()) {
                queue->draining_ = false;
                continue;
            }
        }
        queue->scheduleDrain();
    }
}

bool SerialQueue::isCurrent() const {
    for (const SerialQueue* running : runningQueues) {
        for (const SerialQueue* queue = running; queue; queue = queue->target_.get()) {
            if (queue == this) return true;
        }
    }
    return false;
}

bool SerialQueue::isHeldByCurrentThread() const {
    for (const SerialQueue* queue = this; queue; queue = queue->target_.get()) {
        if (queue->isCurrent()) return true;
    }
    return false;
}

void SerialQueue::sync(const Task& task) {
    if (!task) return;
    // Waiting for a queue whose work this thread already serialises would deadlock; since
    // nothing else can run on it meanwhile, running inline keeps the same guarantees.
    if (isHeldByCurrentThread()) {
        RunningScope scope(this);
        runGuarded(task);
        return;
    }
    std::promise<void> done;
    auto finished = done.get_future();
    async([&task, &done] {
        runGuarded(task);
        done.set_value();
    });
    finished.wait();
}

}  // namespace tavlo::dispatch
