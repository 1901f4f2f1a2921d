#include "TavloCoreSDK/TVKLog.hpp"

#include <algorithm>
#include <array>
#include <cctype>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <memory>
#include <mutex>
#include <string>

#include "TavloCoreSDK/Internal/TVKCalendar.hpp"
#include "TavloCoreSDK/Internal/TVKLogLine.hpp"

namespace tavlo {
namespace {

constexpr std::array<std::string_view, 6> kLevelNames = {"off",  "error", "warning",
                                                         "info", "debug", "trace"};

// Set while this thread runs a sink: what the sink itself makes the SDK log is dropped (it would
// recurse), and a `setSink` from inside the sink already holds the turn it needs.
thread_local bool insideSink = false;

/// The sinks and the level. Lines are handed to a sink one at a time (the turn), so that a sink
/// need not be thread-safe and `setSink` returns only once no thread is inside the old one. The
/// turn is the only thing held while the sink runs: the state has a lock of its own, so a sink
/// may call back into the SDK, `TVKLog` included, without deadlocking. (A reader-writer lock
/// would let busy logging threads starve `setSink`.)
class LogState {
  public:
    static LogState& shared() {
        static LogState state;
        return state;
    }

    void setApplicationSink(TVKLog::Sink sink) {
        // Declared first, so the replaced sink is destroyed after both locks are released.
        auto replacement = sink ? std::make_shared<const TVKLog::Sink>(std::move(sink)) : nullptr;
        // Inside a sink this thread already has the turn; elsewhere, waiting for the turn means
        // waiting until no thread is inside the old sink.
        std::unique_lock turn(turn_, std::defer_lock);
        if (!insideSink) turn.lock();
        std::lock_guard lock(mutex_);
        applicationSink_.swap(replacement);
        publishThreshold();
    }

    void setLevel(TVKLogLevel level) {
        std::lock_guard lock(mutex_);
        level_ = level;
        publishThreshold();
    }

    TVKLogLevel level() const {
        std::lock_guard lock(mutex_);
        return level_;
    }

    void emit(TVKLogLevel level, std::string_view component, std::string_view line) const {
        if (insideSink) return;
        std::lock_guard turn(turn_);
        std::shared_ptr<const TVKLog::Sink> sink;
        {
            std::lock_guard lock(mutex_);
            // The threshold may have dropped since the caller looked.
            if (level > level_ || level == TVKLogLevel::off) return;
            sink = applicationSink_ ? applicationSink_ : environmentSink_;
        }
        if (!sink || !*sink) return;
        insideSink = true;
        try {
            (*sink)(level, component, line);
        } catch (...) {
            // A sink that throws loses its line, never the SDK's thread.
        }
        insideSink = false;
    }

  private:
    // The environment is read once, here: the threshold is published before any log statement
    // can look at it (see the static below), and nothing later pays for reading it.
    LogState() {
        const char* value = std::getenv(TVKLog::kEnvironmentVariable);
        const auto named = value ? TVKLog::levelNamed(value) : std::nullopt;
        if (named && *named != TVKLogLevel::off) {
            level_ = *named;
            environmentSink_ = std::make_shared<const TVKLog::Sink>(TVKLog::standardErrorSink());
        }
        publishThreshold();
    }

    void publishThreshold() {
        const bool hasSink = applicationSink_ || environmentSink_;
        log_line::threshold.store(hasSink ? static_cast<int>(level_) : 0,
                                  std::memory_order_relaxed);
    }

    mutable std::mutex turn_;   // held while a sink runs
    mutable std::mutex mutex_;  // the sinks and the level; never held while a sink runs
    std::shared_ptr<const TVKLog::Sink> applicationSink_;
    std::shared_ptr<const TVKLog::Sink> environmentSink_;
    TVKLogLevel level_ = TVKLogLevel::info;
};

// Reads TAVLO_LOG while the program starts, before any SDK object exists.
[[maybe_unused]] const LogState& kStateAtStart = LogState::shared();

std::string clockTime() {
    using namespace std::chrono;
    const auto now = system_clock::now();
    const std::time_t seconds = system_clock::to_time_t(now);
    const std::tm utc = utcCalendarTime(seconds);
    const auto millis = duration_cast<milliseconds>(now.time_since_epoch()).count() % 1000;
    char text[16];
    std::snprintf(text, sizeof text, "%02d:%02d:%02d.%03d", utc.tm_hour, utc.tm_min, utc.tm_sec,
                  static_cast<int>(millis));
    return text;
}

}  // namespace

void TVKLog::setSink(Sink sink) {
    LogState::shared().setApplicationSink(std::move(sink));
}

void TVKLog::setLevel(TVKLogLevel level) {
    LogState::shared().setLevel(level);
}

TVKLogLevel TVKLog::level() {
    return LogState::shared().level();
}

TVKLog::Sink TVKLog::standardErrorSink() {
    return [](TVKLogLevel level, std::string_view component, std::string_view line) {
        std::string text = "tavlo " + clockTime() + " ";
        text.append(nameOfLevel(level)).append(" ").append(component).append(": ");
        text.append(line).append("\n");
        // One write per line, so lines of concurrent threads do not interleave.
        std::fwrite(text.data(), 1, text.size(), stderr);
    };
}

std::optional<TVKLogLevel> TVKLog::levelNamed(std::string_view name) {
    std::string lower(name);
    std::transform(lower.begin(), lower.end(), lower.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    if (lower == "warn") return TVKLogLevel::warning;
    if (lower == "none") return TVKLogLevel::off;
    for (std::size_t index = 0; index < kLevelNames.size(); ++index) {
        if (lower == kLevelNames[index]) return static_cast<TVKLogLevel>(index);
    }
    return std::nullopt;
}

std::string_view TVKLog::nameOfLevel(TVKLogLevel level) {
    const auto index = static_cast<std::size_t>(level);
    return index < kLevelNames.size() ? kLevelNames[index] : "?";
}

void log_line::emit(TVKLogLevel level, std::string_view component, std::string_view line) noexcept {
    try {
        LogState::shared().emit(level, component, line);
    } catch (...) {
        // A sink that throws loses its line; the SDK thread that logged carries on.
    }
}

}  // namespace tavlo
