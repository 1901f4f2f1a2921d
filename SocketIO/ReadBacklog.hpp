#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <mutex>
#include <vector>

namespace tavlo::sio {

/// The bound of a `ReadBacklog`.
struct ReadBacklogLimits {
    std::size_t maxEvents = 1000;
    std::size_t maxBytes = 1024 * 1024;
};

/// What a connection has read and nobody has consumed yet, wherever it waits: for the client's
/// handle queue, for an application's executor, in an event stream. Every one of those places
/// counts into the one backlog of the connection (a chatroom keeps one across its sockets), and
/// the connection reads only while the backlog is below its bound: reading stops once
/// `maxEvents` events or `maxBytes` bytes wait, and resumes once at most half of each is left.
/// However fast the server sends and however slow the consumer, memory stays bounded and TCP
/// makes the server wait.
///
/// Thread-safe. Readers learn of each change of `isFull` through their watchers.
class ReadBacklog {
  public:
    using Limits = ReadBacklogLimits;
    using WatcherId = std::uint64_t;

    explicit ReadBacklog(Limits limits = {}) : limits_(limits) {}
    ReadBacklog(const ReadBacklog&) = delete;
    ReadBacklog& operator=(const ReadBacklog&) = delete;

    /// `events` events of `bytes` bytes more are waiting somewhere.
    void add(std::size_t events, std::size_t bytes = 0);
    /// `events` events of `bytes` bytes were consumed, or dropped unconsumed.
    void remove(std::size_t events, std::size_t bytes = 0);

    /// True from the moment the bound is reached until half of it is left.
    bool isFull() const;
    std::size_t events() const;
    std::size_t bytes() const;
    const Limits& limits() const { return limits_; }

    /// Calls `changed` whenever `isFull` changes, on the thread that made the change and
    /// outside the backlog's lock (it may be called while the caller holds a lock of its own:
    /// it must take none that is held around `add` or `remove`).
    WatcherId watch(std::function<void()> changed);
    void unwatch(WatcherId id);

  private:
    // Applies a change and says whether it flipped `full_`; called with mutex_ held.
    bool updateLocked();
    void notify();

    const Limits limits_;
    mutable std::mutex mutex_;
    std::size_t events_ = 0;
    std::size_t bytes_ = 0;
    bool full_ = false;
    WatcherId nextWatcher_ = 1;
    std::vector<std::pair<WatcherId, std::function<void()>>> watchers_;
};

}  // namespace tavlo::sio
