#pragma once

// Helpers for the SocketIO library's integration tests: the echo server script as a child
// process, a recorder of the events a client delivers, and listeners that refuse or ignore.

#include <signal.h>

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/json.hpp>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "SocketIO/SocketIOClient.hpp"
#include "tests/support/NodeProcess.hpp"

namespace tavlo::sio::test {

using namespace std::chrono_literals;

/// `node tests/integration/sio/echo-server.js --port 0 ...`, stopped when this object goes.
class EchoServer {
  public:
    explicit EchoServer(std::vector<std::string> extraArguments = {})
        : process_("echo server", commandLine(std::move(extraArguments))) {
        auto announcement = boost::json::parse(process_.readLine(20s));
        url_ = std::string(announcement.at("url").as_string());
        port_ = static_cast<int>(announcement.at("port").to_number<int>());
    }
    EchoServer(const EchoServer&) = delete;
    EchoServer& operator=(const EchoServer&) = delete;

    const std::string& url() const { return url_; }
    int port() const { return port_; }

    /// Kills the server without a goodbye (SIGKILL): the kernel closes its sockets.
    void kill() { process_.stop(SIGKILL); }

  private:
    static std::vector<std::string> commandLine(std::vector<std::string> extraArguments) {
        std::vector<std::string> arguments = {
            TAVLO_SOURCE_DIR "/tests/integration/sio/echo-server.js", "--port", "0"};
        arguments.insert(arguments.end(), extraArguments.begin(), extraArguments.end());
        return arguments;
    }

    tavlo::test::NodeProcess process_;
    std::string url_;
    int port_ = 0;
};

/// Records what a client delivers for the events it is attached to. Handlers hold the recorder
/// strongly, so a late delivery never finds it gone.
class EventRecorder : public std::enable_shared_from_this<EventRecorder> {
  public:
    struct Entry {
        std::string event;
        SocketIOArgs args;
    };

    void attach(SocketIOClient& client, const std::vector<std::string>& events) {
        for (const auto& event : events) {
            client.on(event, [self = shared_from_this(), event](const SocketIOArgs& args) {
                self->record(event, args);
            });
        }
    }

    void record(const std::string& event, const SocketIOArgs& args) {
        std::lock_guard lock(mutex_);
        entries_.push_back({event, args});
        changed_.notify_all();
    }

    /// The arguments of the `nth` (0-based) delivery of `event`, waiting up to `timeout`.
    std::optional<SocketIOArgs> waitFor(const std::string& event, std::size_t nth = 0,
                                        std::chrono::milliseconds timeout = 10s) {
        std::unique_lock lock(mutex_);
        std::optional<SocketIOArgs> found;
        changed_.wait_for(lock, timeout, [&] {
            found = findLocked(event, nth);
            return found.has_value();
        });
        return found;
    }

    std::size_t count(const std::string& event) const {
        std::lock_guard lock(mutex_);
        std::size_t n = 0;
        for (const auto& entry : entries_) n += entry.event == event;
        return n;
    }

    std::vector<std::string> sequence() const {
        std::lock_guard lock(mutex_);
        std::vector<std::string> names;
        for (const auto& entry : entries_) names.push_back(entry.event);
        return names;
    }

    /// The reason text of the `nth` delivery of `event` ("" when missing).
    std::string reason(const std::string& event, std::size_t nth = 0) {
        auto args = waitFor(event, nth, 0ms);
        if (!args || args->empty() || !args->front().is_string()) return {};
        return std::string(args->front().get_string());
    }

  private:
    std::optional<SocketIOArgs> findLocked(const std::string& event, std::size_t nth) const {
        for (const auto& entry : entries_) {
            if (entry.event != event) continue;
            if (nth-- == 0) return entry.args;
        }
        return std::nullopt;
    }

    mutable std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<Entry> entries_;
};

/// A loopback port with nothing listening on it.
inline int closedPort() {
    boost::asio::io_context io;
    boost::asio::ip::tcp::acceptor acceptor(
        io, boost::asio::ip::tcp::endpoint(boost::asio::ip::make_address("127.0.0.1"), 0));
    return acceptor.local_endpoint().port();
}

/// A listener whose connections the kernel completes but nobody ever answers.
class SilentListener {
  public:
    SilentListener()
        : acceptor_(
              io_, boost::asio::ip::tcp::endpoint(boost::asio::ip::make_address("127.0.0.1"), 0)) {}
    std::string url() const {
        return "http://127.0.0.1:" + std::to_string(acceptor_.local_endpoint().port());
    }

  private:
    boost::asio::io_context io_;
    boost::asio::ip::tcp::acceptor acceptor_;
};

}  // namespace tavlo::sio::test
