#include "tests/support/Tinyproxy.hpp"

#include <netinet/in.h>
#include <signal.h>
#include <spawn.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <thread>

namespace tavlo::test {
namespace {

// Where Debian's tinyproxy-bin puts it (older releases: /usr/sbin); TAVLO_TINYPROXY names
// another binary.
std::string tinyproxyBinary() {
    if (const char* chosen = std::getenv("TAVLO_TINYPROXY"); chosen && *chosen) return chosen;
    for (const char* candidate : {"/usr/bin/tinyproxy", "/usr/sbin/tinyproxy"}) {
        if (::access(candidate, X_OK) == 0) return candidate;
    }
    return "/usr/bin/tinyproxy";
}

sockaddr_in loopback(int port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    return address;
}

bool accepts(int port) {
    const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) return false;
    auto address = loopback(port);
    const bool connected =
        ::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
    ::close(fd);
    return connected;
}

std::string readFile(const std::string& path) {
    std::ifstream file(path);
    std::stringstream text;
    text << file.rdbuf();
    return text.str();
}

}  // namespace

int unusedLoopbackPort() {
    const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    auto address = loopback(0);
    socklen_t length = sizeof address;
    if (fd < 0 || ::bind(fd, reinterpret_cast<sockaddr*>(&address), length) != 0 ||
        ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
        if (fd >= 0) ::close(fd);
        throw std::runtime_error("no free loopback port");
    }
    ::close(fd);
    return ntohs(address.sin_port);
}

Tinyproxy::Tinyproxy(std::vector<std::string> extraConfiguration) {
    char pattern[] = "/tmp/tavlo-tinyproxy-XXXXXX";
    if (!::mkdtemp(pattern)) throw std::runtime_error("tinyproxy: no directory");
    directory_ = pattern;
    port_ = unusedLoopbackPort();
    {
        std::ofstream conf(directory_ + "/tinyproxy.conf");
        conf << "Port " << port_ << "\nListen 127.0.0.1\nTimeout 30\nMaxClients 100\n"
             << "Allow 127.0.0.1\nLogLevel Info\nLogFile \"" << directory_ << "/tinyproxy.log\"\n";
        for (const auto& line : extraConfiguration) conf << line << "\n";
    }
    const std::string conf = directory_ + "/tinyproxy.conf";
    const std::string binary = tinyproxyBinary();
    const pid_t parent = ::getpid();
    pid_ = ::fork();
    if (pid_ == 0) {
        // The proxy ends with the test process, however that ends.
        ::prctl(PR_SET_PDEATHSIG, SIGTERM);
        if (::getppid() != parent) ::_exit(1);
        ::execl(binary.c_str(), binary.c_str(), "-d", "-c", conf.c_str(),
                static_cast<char*>(nullptr));
        ::_exit(127);
    }
    if (pid_ < 0) throw std::runtime_error("tinyproxy: cannot fork");
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (!accepts(port_)) {
        if (std::chrono::steady_clock::now() > deadline || ::waitpid(pid_, nullptr, WNOHANG) != 0) {
            stop();
            throw std::runtime_error("tinyproxy did not start (is " + binary + " installed?)");
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
}

Tinyproxy::~Tinyproxy() {
    stop();
    std::remove((directory_ + "/tinyproxy.conf").c_str());
    std::remove((directory_ + "/tinyproxy.log").c_str());
    ::rmdir(directory_.c_str());
}

void Tinyproxy::stop() {
    if (pid_ <= 0) return;
    ::kill(pid_, SIGTERM);
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    while (::waitpid(pid_, nullptr, WNOHANG) == 0) {
        if (std::chrono::steady_clock::now() > deadline) {
            ::kill(pid_, SIGKILL);
            ::waitpid(pid_, nullptr, 0);
            break;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    pid_ = -1;
}

std::string Tinyproxy::url(const std::string& userInfo) const {
    return "http://" + (userInfo.empty() ? "" : userInfo + "@") +
           "127.0.0.1:" + std::to_string(port_);
}

std::size_t Tinyproxy::tunnelsTo(int targetPort) const {
    const std::string request = "CONNECT 127.0.0.1:" + std::to_string(targetPort) + " ";
    const std::string text = log();
    std::size_t count = 0;
    for (auto at = text.find(request); at != std::string::npos; at = text.find(request, at + 1)) {
        ++count;
    }
    return count;
}

std::string Tinyproxy::log() const {
    return readFile(directory_ + "/tinyproxy.log");
}

}  // namespace tavlo::test
