#pragma once

#include <gtest/gtest.h>
#include <sys/types.h>

#include <boost/json.hpp>

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>
#include "tests/support/NodeProcess.hpp"

namespace tavlo::test {

/// A running emulator of the service (`node emulator/server.js --port 0 [--tls]`) on a free
/// loopback port, for as long as this object lives.
class Emulator {
  public:
    /// Starts the emulator and waits (up to 30 s) for its announcement line. `extraArguments` go
    /// to server.js as they are ("--ping-interval", "200", ...). Throws std::runtime_error when
    /// it cannot start.
    explicit Emulator(bool tls = false, std::vector<std::string> extraArguments = {});
    Emulator(const Emulator&) = delete;
    Emulator& operator=(const Emulator&) = delete;

    /// "http://127.0.0.1:PORT" or "https://127.0.0.1:PORT".
    const std::string& url() const { return url_; }
    int port() const { return port_; }
    bool tls() const { return tls_; }
    /// The PEM file of the emulator's self-signed certificate (TLS only).
    const std::optional<std::string>& caFile() const { return caFile_; }
    /// The Socket.IO path ("/socket.io").
    const std::string& socketPath() const { return socketPath_; }

    /// Calls a control route synchronously and returns its JSON answer. `path` is either
    /// relative to "/_control/" ("faults", "chatrooms/lobby") or absolute ("/_control/faults",
    /// query included). A null `body` sends none. Throws std::runtime_error on a transport
    /// failure or an answer outside 2xx (with status and body in the message).
    boost::json::value control(const std::string& method, const std::string& path,
                               const boost::json::value& body = nullptr) const;

    /// The service requests received so far (oldest first) whose path starts with `pathPrefix`:
    /// objects with "method", "path", "url", "headers" (lower-case names), "query",
    /// "queryPairs", "body", "status".
    boost::json::array requests(const std::string& pathPrefix = "") const;
    void clearRequests() const;
    /// Back to the seeded state: data, faults, delays, logs and sockets.
    void reset() const;
    /// Ends the process abruptly (SIGKILL), as a crash or a deploy does: connections die without
    /// a goodbye and the port refuses until another emulator takes it.
    void kill();

  private:
    void adopt(const boost::json::value& announcement);

    NodeProcess process_;
    std::string url_;
    int port_ = 0;
    bool tls_ = false;
    std::optional<std::string> caFile_;
    std::string socketPath_;
};

/// A JSON string's text; any other value serialized.
std::string text(const boost::json::value& value);

/// A GoogleTest fixture with one emulator per test suite (plain HTTP). Every test starts from
/// the emulator's seeded state (`reset` in SetUp); a derived fixture that seeds more data does
/// so in its own SetUp after calling this one's.
class EmulatorTest : public ::testing::Test {
  public:
    static void SetUpTestSuite() { startSuiteEmulator(false); }
    static void TearDownTestSuite() { stopSuiteEmulator(); }

  protected:
    /// Fails the test at once when the suite's emulator did not start.
    void SetUp() override;
    /// Forgets the member-token refresher a test may have installed.
    void TearDown() override;
    static Emulator& emulator();

    /// A member's JWT as the emulator issues it ("alice", "bob", "carol").
    static std::string jwtOf(const std::string& memberId);
    /// Signs the SDK in with the account the emulator is seeded with.
    static void useDemoAccount();
    /// Lets the SDK renew expired member tokens through the emulator (until TearDown);
    /// `onRefresh` runs at each request, to count them.
    static void refreshMemberTokensThroughEmulator(std::function<void()> onRefresh = {});

    /// For fixtures that need another flavour (TLS, other server arguments).
    static void startSuiteEmulator(bool tls, std::vector<std::string> extraArguments = {});
    static void stopSuiteEmulator();

  private:
    static std::unique_ptr<Emulator>& suiteEmulator();
    static std::string& startFailure();
};

/// The same with the emulator serving HTTPS (self-signed certificate in `caFile()`).
class TLSEmulatorTest : public EmulatorTest {
  public:
    static void SetUpTestSuite() { startSuiteEmulator(true); }
};

}  // namespace tavlo::test
