#include "tests/support/NodeProcess.hpp"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

extern char** environ;

namespace tavlo::test {
namespace {

using Clock = std::chrono::steady_clock;

constexpr auto kStopGrace = std::chrono::seconds(5);

void closeQuietly(int& fd) {
    if (fd >= 0) ::close(fd);
    fd = -1;
}

void waitForExit(pid_t pid) {
    const auto deadline = Clock::now() + kStopGrace;
    while (Clock::now() < deadline) {
        pid_t done = ::waitpid(pid, nullptr, WNOHANG);
        if (done == pid || (done < 0 && errno != EINTR)) return;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    ::kill(pid, SIGKILL);
    while (::waitpid(pid, nullptr, 0) < 0 && errno == EINTR) {
    }
}

}  // namespace

NodeProcess::NodeProcess(std::string name, const std::vector<std::string>& arguments)
    : name_(std::move(name)) {
    int input[2], output[2];
    if (::pipe2(input, O_CLOEXEC) != 0) throw failure("no pipe");
    if (::pipe2(output, O_CLOEXEC) != 0) {
        ::close(input[0]), ::close(input[1]);
        throw failure("no pipe");
    }
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, input[0], STDIN_FILENO);
    posix_spawn_file_actions_adddup2(&actions, output[1], STDOUT_FILENO);
    std::vector<char*> argv = {const_cast<char*>("node")};
    for (const auto& argument : arguments) argv.push_back(const_cast<char*>(argument.c_str()));
    argv.push_back(nullptr);
    int spawned = ::posix_spawnp(&pid_, "node", &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    ::close(input[0]), ::close(output[1]);
    stdinFd_ = input[1];
    stdoutFd_ = output[0];
    if (spawned != 0) {
        pid_ = -1;
        closeQuietly(stdinFd_);
        closeQuietly(stdoutFd_);
        throw failure(std::string("cannot start node: ") + std::strerror(spawned));
    }
}

NodeProcess::~NodeProcess() {
    stop(SIGTERM);
}

std::string NodeProcess::readLine(std::chrono::milliseconds limit) {
    const auto deadline = Clock::now() + limit;
    std::string line;
    for (;;) {
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
        if (left.count() <= 0) {
            throw failure("nothing printed within " + std::to_string(limit.count()) + " ms");
        }
        pollfd readable{stdoutFd_, POLLIN, 0};
        int ready = ::poll(&readable, 1, static_cast<int>(left.count()));
        if (ready < 0 && errno != EINTR) throw failure("poll failed");
        if (ready <= 0) continue;
        char c = 0;
        ssize_t count = ::read(stdoutFd_, &c, 1);
        if (count < 0 && errno == EINTR) continue;
        if (count <= 0) throw failure("exited before printing a line (is `npm ci` done?)");
        if (c == '\n') return line;
        line.push_back(c);
    }
}

void NodeProcess::discardOutput() {
    outputDrain_ = std::thread([fd = stdoutFd_] {
        char buffer[4096];
        for (;;) {
            ssize_t count = ::read(fd, buffer, sizeof buffer);
            if (count > 0 || (count < 0 && errno == EINTR)) continue;
            return;
        }
    });
}

void NodeProcess::stop(int signal) {
    // The signal goes first: closing standard input alone would already let it exit in order.
    if (pid_ > 0) ::kill(pid_, signal);
    closeQuietly(stdinFd_);
    if (pid_ > 0) {
        waitForExit(pid_);
        pid_ = -1;
    }
    // The child is gone, so the drain has read to the end of its output.
    if (outputDrain_.joinable()) outputDrain_.join();
    closeQuietly(stdoutFd_);
}

std::runtime_error NodeProcess::failure(const std::string& what) const {
    return std::runtime_error(name_ + ": " + what);
}

}  // namespace tavlo::test
