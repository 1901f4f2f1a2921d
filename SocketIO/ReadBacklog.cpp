#include "SocketIO/ReadBacklog.hpp"

#include <algorithm>

namespace tavlo::sio {

void ReadBacklog::add(std::size_t events, std::size_t bytes) {
    bool flipped = false;
    {
        std::lock_guard lock(mutex_);
        events_ += events;
        bytes_ += bytes;
        flipped = updateLocked();
    }
    if (flipped) notify();
}

void ReadBacklog::remove(std::size_t events, std::size_t bytes) {
    bool flipped = false;
    {
        std::lock_guard lock(mutex_);
        // Never below zero, whatever a caller miscounted: a backlog stuck full would stop its
        // connection for good.
        events_ -= std::min(events, events_);
        bytes_ -= std::min(bytes, bytes_);
        flipped = updateLocked();
    }
    if (flipped) notify();
}

bool ReadBacklog::updateLocked() {
    const bool full = full_ ? events_ > limits_.maxEvents / 2 || bytes_ > limits_.maxBytes / 2
                            : events_ >= limits_.maxEvents || bytes_ >= limits_.maxBytes;
    if (full == full_) return false;
    full_ = full;
    return true;
}

bool ReadBacklog::isFull() const {
    std::lock_guard lock(mutex_);
    return full_;
}

std::size_t ReadBacklog::events() const {
    std::lock_guard lock(mutex_);
    return events_;
}

std::size_t ReadBacklog::bytes() const {
    std::lock_guard lock(mutex_);
    return bytes_;
}

ReadBacklog::WatcherId ReadBacklog::watch(std::function<void()> changed) {
    std::lock_guard lock(mutex_);
    const WatcherId id = nextWatcher_++;
    watchers_.emplace_back(id, std::move(changed));
    return id;
}

void ReadBacklog::unwatch(WatcherId id) {
    std::lock_guard lock(mutex_);
    std::erase_if(watchers_, [id](const auto& watcher) { return watcher.first == id; });
}

void ReadBacklog::notify() {
    std::vector<std::function<void()>> watchers;
    {
        std::lock_guard lock(mutex_);
        for (const auto& watcher : watchers_) watchers.push_back(watcher.second);
    }
    for (const auto& changed : watchers) changed();
}

}  // namespace tavlo::sio
