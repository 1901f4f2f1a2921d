#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <ostream>
#include <string>
#include <string_view>
#include <vector>

namespace tavlo::chat {

/// The client's output: whole lines, each stamped with the local time, written and flushed one
/// at a time from any thread (SDK callbacks and the command loop print side by side). It also
/// remembers what it printed, so a script can wait for a line.
class Console {
  public:
    using Clock = std::chrono::system_clock;

    explicit Console(std::ostream& out, std::function<Clock::time_point()> clock = Clock::now);

    /// Prints "HH:MM:SS.mmm <line>". Line breaks inside `line` start further stamped lines.
    void print(std::string_view line);
    /// Prints a command as it was read ("> line"). Waits never match it, or "wait TEXT" would
    /// find its own echo.
    void echo(std::string_view command);

    /// Waits until a line containing `text` has been printed after the line that satisfied the
    /// previous wait (or since the start). A "*" in `text` stands for any run of characters
    /// ("updated: Visitor*MODERATOR"). True when found; false after `timeout` or once
    /// `interrupted` is set.
    bool waitForText(std::string_view text, std::chrono::milliseconds timeout,
                     const std::atomic<bool>& interrupted);

    /// "HH:MM:SS.mmm" of a time point, local time.
    static std::string timeStamp(Clock::time_point time);
    /// True when `line` contains the pieces of `pattern` between its "*"s, in order.
    static bool lineMatches(std::string_view line, std::string_view pattern);

  private:
    void write(std::string_view line, bool waitable);
    bool findFromCursor(std::string_view text);

    std::ostream& out_;
    std::function<Clock::time_point()> clock_;
    std::mutex mutex_;
    std::condition_variable printed_;
    /// Every line a wait may match, in order.
    std::vector<std::string> lines_;
    std::size_t waitCursor_ = 0;
};

}  // namespace tavlo::chat
