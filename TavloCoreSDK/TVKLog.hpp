#pragma once

#include "TavloCoreSDK/TVKExport.hpp"

#include <functional>
#include <optional>
#include <string_view>

namespace tavlo {

/// How much the SDK tells: each level includes the ones above it.
enum class TVKLogLevel {
    off = 0,
    error,    ///< a chatroom is given up: every reconnection attempt failed
    warning,  ///< a chatroom could not connect, a connection was lost
    info,     ///< connection state changes with their reason, retries, failures reported
    debug,    ///< every HTTP request: method, path, status, duration
    trace,    ///< the realtime channel: socket open and close, every event name in and out
};

/// The SDK's diagnostics. Silent until a sink is installed, by the application with `setSink`
/// or, without code changes, by the environment variable TAVLO_LOG naming a level
/// (`TAVLO_LOG=debug`), which writes to standard error. An application's sink takes precedence
/// over the environment's.
///
/// No line ever holds a credential: API tokens, JWTs, the account token, the REST key and user
/// tokens are left out of paths and queries, and messages' contents are never logged. With no
/// sink, a log statement costs one relaxed atomic load and formats nothing.
///
/// Thread-safe. The sink runs on the thread that logs (an SDK thread), one line at a time across
/// all threads, so it need not be thread-safe itself; it must not block for long. It may call
/// back into the SDK, `TVKLog` included; lines logged by the SDK while the sink runs on that
/// thread are dropped rather than fed back into it. Once `setSink` returns, the sink it replaced
/// is no longer called.
class TAVLO_EXPORT TVKLog {
  public:
    /// Receives one line: its level, the part of the SDK that wrote it ("http", "socket",
    /// "chat", "manager") and the text, without a trailing line break.
    using Sink =
        std::function<void(TVKLogLevel level, std::string_view component, std::string_view line)>;

    /// Installs the application's sink; nullptr removes it (the environment's sink, if
    /// TAVLO_LOG named one, takes over again).
    static void setSink(Sink sink);
    /// Lines above `level` are dropped before they are formatted. Unless set, the level TAVLO_LOG
    /// names, else `info`.
    static void setLevel(TVKLogLevel level);
    static TVKLogLevel level();

    /// A sink writing "tavlo HH:MM:SS.mmm LEVEL component: line" to standard error.
    static Sink standardErrorSink();

    /// "error", "warning" (or "warn"), "info", "debug", "trace", "off" (or "none"), in any case;
    /// nothing for anything else.
    static std::optional<TVKLogLevel> levelNamed(std::string_view name);
    static std::string_view nameOfLevel(TVKLogLevel level);

    /// The environment variable read (once, when the SDK is loaded).
    static constexpr const char* kEnvironmentVariable = "TAVLO_LOG";
};

}  // namespace tavlo
