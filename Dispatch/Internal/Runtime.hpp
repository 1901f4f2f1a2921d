#pragma once

#include <boost/asio/io_context.hpp>

namespace tavlo::dispatch {

/// The process-wide threads every library shares: a few I/O threads, each running an Asio
/// io_context of its own (sockets and timers), and a small worker pool on which queues run their
/// tasks. All start on first use and live until the process ends, so no destructor ever has to
/// join a thread that might be the one running it.
class Runtime {
  public:
    /// The io_context of the first I/O thread (timers). Handlers posted to it must not block.
    static boost::asio::io_context& ioContext();

    /// The io_context for a new connection, the I/O threads taken in turn. Each context runs on
    /// one thread only, so a connection's handlers need no strand; a handler that blocks holds up
    /// the connections of its own thread only.
    static boost::asio::io_context& nextIOContext();

    /// Number of I/O threads.
    static unsigned ioThreadCount();

    /// The worker pool that serial queues and the global queue execute on: an io_context run by
    /// `workerCount()` threads.
    static boost::asio::io_context& workers();

    /// Number of worker threads (at least two, so that one blocking task does not stall all).
    static unsigned workerCount();
};

}  // namespace tavlo::dispatch
