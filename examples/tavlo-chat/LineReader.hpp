#pragma once

#include <atomic>
#include <optional>
#include <string>

namespace tavlo::chat {

/// Reads standard input line by line, and stops at Ctrl-C: SIGINT and SIGTERM set a flag and
/// wake the reader through a pipe, so a blocked read ends as if the input had ended.
class LineReader {
  public:
    /// Installs the signal handlers (once per process).
    LineReader();
    ~LineReader();
    LineReader(const LineReader&) = delete;
    LineReader& operator=(const LineReader&) = delete;

    /// The next line without its line break; nothing at end of input or after a signal.
    std::optional<std::string> next();

    /// Set by Ctrl-C; long waits of the command loop watch it.
    static const std::atomic<bool>& interrupted();

  private:
    std::optional<std::string> takeLine();

    std::string buffer_;
    bool endOfInput_ = false;
};

}  // namespace tavlo::chat
