#include "LineReader.hpp"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <utility>

namespace tavlo::chat {
namespace {

std::atomic<bool> gInterrupted{false};
int gWakePipe[2] = {-1, -1};

extern "C" void onSignal(int) {
    gInterrupted = true;
    const char byte = 1;
    [[maybe_unused]] auto ignored = write(gWakePipe[1], &byte, 1);
}

}  // namespace

LineReader::LineReader() {
    if (gWakePipe[0] < 0 && pipe(gWakePipe) == 0) {
        fcntl(gWakePipe[1], F_SETFL, O_NONBLOCK);
        struct sigaction action {};
        action.sa_handler = onSignal;
        sigemptyset(&action.sa_mask);
        sigaction(SIGINT, &action, nullptr);
        sigaction(SIGTERM, &action, nullptr);
    }
}

LineReader::~LineReader() = default;

const std::atomic<bool>& LineReader::interrupted() {
    return gInterrupted;
}

std::optional<std::string> LineReader::takeLine() {
    const auto end = buffer_.find('\n');
    if (end == std::string::npos) {
        if (!endOfInput_ || buffer_.empty()) return std::nullopt;
        return std::exchange(buffer_, std::string());  // a last line without line break
    }
    std::string line = buffer_.substr(0, end);
    buffer_.erase(0, end + 1);
    if (!line.empty() && line.back() == '\r') line.pop_back();
    return line;
}

std::optional<std::string> LineReader::next() {
    while (!gInterrupted) {
        if (auto line = takeLine()) return line;
        if (endOfInput_) return std::nullopt;
        pollfd watched[2] = {{STDIN_FILENO, POLLIN, 0}, {gWakePipe[0], POLLIN, 0}};
        if (poll(watched, 2, -1) < 0) {
            if (errno == EINTR) continue;
            return std::nullopt;
        }
        if (watched[1].revents != 0) break;
        if (watched[0].revents == 0) continue;
        char chunk[4096];
        const ssize_t count = read(STDIN_FILENO, chunk, sizeof chunk);
        if (count < 0 && errno == EINTR) continue;
        if (count <= 0) {
            endOfInput_ = true;
        } else {
            buffer_.append(chunk, static_cast<std::size_t>(count));
        }
    }
    return std::nullopt;
}

}  // namespace tavlo::chat
