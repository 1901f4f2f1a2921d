#pragma once

#include <sys/types.h>

#include <cstddef>
#include <string>
#include <vector>

namespace tavlo::test {

/// A real HTTP proxy (Debian's tinyproxy) on a free loopback port, in the foreground with a
/// configuration written for it, logging every request. Stopped when destroyed; it also dies
/// with the test process.
class Tinyproxy {
  public:
    /// `extraConfiguration` lines go into the configuration as they are ("BasicAuth user pass",
    /// "ConnectPort 443"). Throws std::runtime_error when the proxy does not come up.
    explicit Tinyproxy(std::vector<std::string> extraConfiguration = {});
    ~Tinyproxy();
    Tinyproxy(const Tinyproxy&) = delete;
    Tinyproxy& operator=(const Tinyproxy&) = delete;

    int port() const { return port_; }
    /// "http://127.0.0.1:<port>", with "user:password@" when given.
    std::string url(const std::string& userInfo = "") const;
    /// How many tunnels were asked for to 127.0.0.1:`targetPort` so far.
    std::size_t tunnelsTo(int targetPort) const;
    /// Everything the proxy logged.
    std::string log() const;
    /// Ends the proxy now (its port is then closed).
    void stop();

  private:
    std::string directory_;
    int port_ = 0;
    pid_t pid_ = -1;
};

/// A loopback port nobody listens on (it was free a moment ago).
int unusedLoopbackPort();

}  // namespace tavlo::test
