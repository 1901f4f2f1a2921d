#pragma once

#include <boost/asio/io_context.hpp>
#include <boost/asio/thread_pool.hpp>

namespace tavlo::dispatch {

/// The process-wide threads every library shares: one I/O thread running an Asio io_context
/// (sockets and timers) and a small worker pool on which queues run their tasks. Both start on
/// first use and live until the process ends, so no destructor ever has to join a thread that
/// might be the one running it.
class Runtime {
public:
    /// The io_context of the I/O thread. Handlers posted to it must not block.
    static boost::asio::io_context& ioContext();

    /// The worker pool that serial queues and the global queue execute on.
    static boost::asio::thread_pool& workers();

    /// Number of worker threads (at least two, so that one blocking task does not stall all).
    static unsigned workerCount();
};

}  // namespace tavlo::dispatch
