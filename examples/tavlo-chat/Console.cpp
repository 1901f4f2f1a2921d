#include "Console.hpp"

#include <cstdio>
#include <ctime>

namespace tavlo::chat {

Console::Console(std::ostream& out, std::function<Clock::time_point()> clock)
    : out_(out), clock_(std::move(clock)) {}

std::string Console::timeStamp(Clock::time_point time) {
    const std::time_t seconds = Clock::to_time_t(time);
    const auto millis =
        std::chrono::duration_cast<std::chrono::milliseconds>(time.time_since_epoch()) % 1000;
    std::tm local{};
    localtime_r(&seconds, &local);
    char text[48];
    std::snprintf(text, sizeof text, "%02d:%02d:%02d.%03d", local.tm_hour, local.tm_min,
                  local.tm_sec, static_cast<int>(millis.count()));
    return text;
}

void Console::print(std::string_view line) {
    write(line, true);
}

void Console::echo(std::string_view command) {
    write("> " + std::string(command), false);
}

void Console::write(std::string_view line, bool waitable) {
    const std::string stamp = timeStamp(clock_());
    std::lock_guard lock(mutex_);
    do {
        const auto end = line.find('\n');
        std::string_view part = line.substr(0, end);
        out_ << stamp << ' ' << part << '\n';
        if (waitable) lines_.emplace_back(part);
        line = end == std::string_view::npos ? std::string_view() : line.substr(end + 1);
    } while (!line.empty());
    out_.flush();
    printed_.notify_all();
}

bool Console::lineMatches(std::string_view line, std::string_view pattern) {
    std::size_t from = 0;
    while (true) {
        const auto star = pattern.find('*');
        const auto piece = pattern.substr(0, star);
        const auto at = line.find(piece, from);
        if (at == std::string_view::npos) return false;
        if (star == std::string_view::npos) return true;
        from = at + piece.size();
        pattern.remove_prefix(star + 1);
    }
}

bool Console::findFromCursor(std::string_view text) {
    for (std::size_t index = waitCursor_; index < lines_.size(); ++index) {
        if (lineMatches(lines_[index], text)) {
            waitCursor_ = index + 1;
            return true;
        }
    }
    return false;
}

bool Console::waitForText(std::string_view text, std::chrono::milliseconds timeout,
                          const std::atomic<bool>& interrupted) {
    // Woken by every print; the short slices notice an interruption (Ctrl-C) promptly.
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    std::unique_lock lock(mutex_);
    while (!findFromCursor(text)) {
        if (interrupted || std::chrono::steady_clock::now() >= deadline) return false;
        printed_.wait_for(lock, std::chrono::milliseconds(50));
    }
    return true;
}

}  // namespace tavlo::chat
