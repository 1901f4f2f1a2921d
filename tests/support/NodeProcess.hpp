#pragma once

#include <sys/types.h>

#include <chrono>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace tavlo::test {

/// A test server run as `node ARGUMENTS...`, its standard input and output on pipes held here.
/// Our servers exit by themselves when their standard input closes, so a crashed test leaves no
/// orphan behind.
class NodeProcess {
  public:
    /// Starts it; throws std::runtime_error (prefixed with `name`) when it cannot.
    NodeProcess(std::string name, const std::vector<std::string>& arguments);
    /// Stops it as `stop(SIGTERM)` does.
    ~NodeProcess();
    NodeProcess(const NodeProcess&) = delete;
    NodeProcess& operator=(const NodeProcess&) = delete;

    /// The next line it prints, waiting up to `limit`; throws when none comes.
    std::string readLine(std::chrono::milliseconds limit);
    /// From now on its output is read and dropped, so that it never blocks on a full pipe.
    void discardOutput();
    /// Sends `signal`, closes its standard input and reaps it (SIGKILL after a grace period).
    void stop(int signal);

  private:
    std::runtime_error failure(const std::string& what) const;

    std::string name_;
    pid_t pid_ = -1;
    int stdinFd_ = -1;
    int stdoutFd_ = -1;
    std::thread outputDrain_;
};

}  // namespace tavlo::test
