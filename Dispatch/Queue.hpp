#pragma once

#include "TavloCoreSDK/TVKExport.hpp"

#include <functional>
#include <memory>

namespace tavlo::dispatch {

using Task = std::function<void()>;

/// Something that runs tasks: a serial queue or the global concurrent queue.
class TAVLO_EXPORT Queue : public std::enable_shared_from_this<Queue> {
  public:
    virtual ~Queue() = default;

    /// Runs the task later, never on the caller's stack.
    virtual void async(Task task) = 0;
};

/// The process-wide concurrent queue of default priority: tasks run on the worker pool in no
/// particular order.
TAVLO_EXPORT std::shared_ptr<Queue> globalQueue();

}  // namespace tavlo::dispatch
