#pragma once

// How SDK code writes a log line:
//
//     TAVLO_LOG(debug, "http", method, " ", path, " -> ", status);
//
// The pieces go to an ostringstream one after the other. They are evaluated only when the level
// is on: with logging off a statement is one relaxed atomic load and a branch, so none may have
// side effects the code relies on.

#include <atomic>
#include <sstream>
#include <string>
#include <string_view>

#include "TavloCoreSDK/TVKLog.hpp"

namespace tavlo::log_line {

/// The most detailed level a sink receives now: `off` while no sink is installed. Constant-
/// initialised, so it is valid before any static constructor runs.
inline std::atomic<int> threshold{static_cast<int>(TVKLogLevel::off)};

inline bool enabled(TVKLogLevel level) {
    return static_cast<int>(level) <= threshold.load(std::memory_order_relaxed);
}

/// Hands a finished line to the installed sink.
void emit(TVKLogLevel level, std::string_view component, std::string_view line) noexcept;

template <class... Pieces>
void write(TVKLogLevel level, std::string_view component, const Pieces&... pieces) noexcept {
    try {
        std::ostringstream line;
        (line << ... << pieces);
        emit(level, component, line.str());
    } catch (...) {
        // A line that cannot be built (out of memory) is lost; the caller carries on.
    }
}

}  // namespace tavlo::log_line

#define TAVLO_LOG(level, component, ...)                                                   \
    do {                                                                                   \
        if (::tavlo::log_line::enabled(::tavlo::TVKLogLevel::level)) {                     \
            ::tavlo::log_line::write(::tavlo::TVKLogLevel::level, component, __VA_ARGS__); \
        }                                                                                  \
    } while (false)
