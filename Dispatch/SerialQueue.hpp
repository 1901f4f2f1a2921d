#pragma once

#include "TavloCoreSDK/TVKExport.hpp"

#include <deque>
#include <mutex>
#include <string>

#include "Dispatch/Queue.hpp"

namespace tavlo::dispatch {

/// Runs its tasks one at a time, in the order they were submitted. A queue may target another
/// serial queue: its tasks then also run one at a time with respect to the target's (the socket
/// clients' labelled queues target their manager's queue this way). Without a target the tasks run
/// on the runtime's worker pool.
class TAVLO_EXPORT SerialQueue final : public Queue {
  public:
    static std::shared_ptr<SerialQueue> create(std::string label,
                                               std::shared_ptr<SerialQueue> target = nullptr);

    const std::string& label() const { return label_; }
    const std::shared_ptr<SerialQueue>& target() const { return target_; }

    void async(Task task) override;

    /// Runs the task on this queue and waits for it. Inline when the calling thread already runs
    /// this queue or one of its targets, so reentrant calls cannot deadlock.
    void sync(const Task& task);

    /// Runs `task` at once on the calling thread when this queue and every queue it targets are
    /// idle (nothing running, nothing waiting), exactly as if it were their next task; returns
    /// false and runs nothing otherwise. Tasks submitted meanwhile wait, then run on the worker
    /// pool as usual. This is how an I/O thread hands over work without a thread switch.
    bool runInlineIfIdle(const Task& task);

    /// True while the calling thread runs a task of this queue or of a queue targeting it.
    bool isCurrent() const;

    SerialQueue(std::string label, std::shared_ptr<SerialQueue> target);

  private:
    bool isHeldByCurrentThread() const;
    // Claims the queue and its targets for the calling thread if all are idle.
    bool claimChain();
    // Gives them back, innermost first, handing what was submitted meanwhile to the workers.
    void releaseChain();
    void scheduleDrain();
    void drain();

    const std::string label_;
    const std::shared_ptr<SerialQueue> target_;
    std::mutex mutex_;
    std::deque<Task> tasks_;
    bool draining_ = false;
};

}  // namespace tavlo::dispatch
