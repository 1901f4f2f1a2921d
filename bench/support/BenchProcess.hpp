// Child processes and the emulator for the benchmark programs (header-only: every bench/*.cpp
// is a program of its own).
#pragma once

#include <curl/curl.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <boost/json.hpp>
#include <algorithm>
#include <cctype>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <string>
#include <vector>

extern char** environ;

namespace bench {

namespace json = boost::json;

[[noreturn]] inline void fail(const std::string& what) {
    std::fprintf(stderr, "bench: %s\n", what.c_str());
    std::exit(1);
}

inline double cpuSeconds() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    auto seconds = [](const timeval& t) { return t.tv_sec + t.tv_usec / 1e6; };
    return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

inline double systemSeconds() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return usage.ru_stime.tv_sec + usage.ru_stime.tv_usec / 1e6;
}

// The peak of this process's own memory (VmHWM). Not getrusage's ru_maxrss: a child started by
// posix_spawn inherits its parent's peak through exec, so every reader would show the driver's.
inline long peakResidentKiB() {
    std::ifstream status("/proc/self/status");
    std::string line;
    while (std::getline(status, line)) {
        if (line.rfind("VmHWM:", 0) == 0) return std::atol(line.c_str() + 6);
    }
    return 0;
}

inline long residentBytes() {
    std::ifstream statm("/proc/self/statm");
    long pages = 0, resident = 0;
    statm >> pages >> resident;
    return resident * sysconf(_SC_PAGESIZE);
}

/// Where the resident set is, by mapping (a library's name, "[heap]", "[anonymous]" for thread
/// stacks and malloc's other arenas), largest first, on standard error: TAVLO_BENCH_MAPS=1.
inline void printResidentByMapping(const std::string& who) {
    if (!std::getenv("TAVLO_BENCH_MAPS")) return;
    std::fprintf(stderr, "resident set of %s, by mapping:\n", who.c_str());
    std::ifstream smaps("/proc/self/smaps");
    std::map<std::string, long> kib;
    std::string line, name;
    while (std::getline(smaps, line)) {
        if (line.rfind("Rss:", 0) == 0) {
            kib[name] += std::atol(line.c_str() + 4);
        } else if (!line.empty() && std::isxdigit(static_cast<unsigned char>(line[0])) &&
                   line.find('-') < line.find(' ')) {
            const auto slash = line.find('/');
            const auto bracket = line.find('[');
            name = slash != std::string::npos ? line.substr(line.rfind('/') + 1)
                   : bracket != std::string::npos ? line.substr(bracket)
                                                  : "[anonymous]";
        }
    }
    std::vector<std::pair<long, std::string>> sorted;
    for (const auto& [mapping, size] : kib) sorted.emplace_back(size, mapping);
    std::sort(sorted.rbegin(), sorted.rend());
    for (const auto& [size, mapping] : sorted)
        if (size >= 64) std::fprintf(stderr, "  %6ld KiB  %s\n", size, mapping.c_str());
}

inline std::filesystem::path sourceRoot() {
    return TAVLO_SOURCE_DIR;
}

/// A program started with its standard input and output on pipes held here. It is expected to
/// exit when its standard input closes, so a crashed benchmark leaves nothing behind.
class ChildProcess {
  public:
    explicit ChildProcess(std::vector<std::string> arguments) {
        int input[2], output[2];
        if (pipe2(input, O_CLOEXEC) != 0 || pipe2(output, O_CLOEXEC) != 0) fail("no pipe");
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, input[0], STDIN_FILENO);
        posix_spawn_file_actions_adddup2(&actions, output[1], STDOUT_FILENO);
        std::vector<char*> argv;
        for (auto& argument : arguments) argv.push_back(argument.data());
        argv.push_back(nullptr);
        if (posix_spawnp(&pid_, argv[0], &actions, nullptr, argv.data(), environ) != 0) {
            fail("cannot start " + arguments[0]);
        }
        posix_spawn_file_actions_destroy(&actions);
        close(input[0]);
        close(output[1]);
        stdin_ = input[1];
        stdout_ = output[0];
        name_ = arguments[0];
    }
    ~ChildProcess() {
        if (stdin_ >= 0) close(stdin_);
        if (stdout_ >= 0) close(stdout_);
        if (pid_ > 0) {
            kill(pid_, SIGTERM);
            waitpid(pid_, nullptr, 0);
        }
    }
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    /// The next line it prints; fails the benchmark when none comes within `limit`.
    std::string readLine(std::chrono::seconds limit = std::chrono::seconds(180)) {
        const auto deadline = std::chrono::steady_clock::now() + limit;
        std::string line;
        for (;;) {
            const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                deadline - std::chrono::steady_clock::now());
            pollfd fd{stdout_, POLLIN, 0};
            if (left.count() <= 0 || poll(&fd, 1, static_cast<int>(left.count())) <= 0) {
                fail(name_ + " said nothing in time");
            }
            char c;
            if (read(stdout_, &c, 1) != 1) fail(name_ + " ended early");
            if (c == '\n') return line;
            line += c;
        }
    }

    /// Waits for it to exit by itself.
    void wait() {
        if (pid_ > 0) waitpid(pid_, nullptr, 0);
        pid_ = -1;
    }

  private:
    std::string name_;
    pid_t pid_ = -1;
    int stdin_ = -1;
    int stdout_ = -1;
};

inline size_t collect(char* data, size_t size, size_t count, void* answer) {
    static_cast<std::string*>(answer)->append(data, size * count);
    return size * count;
}

/// `node emulator/server.js --port 0 [extra arguments]` as a child process (TAVLO_EMULATOR names
/// another server.js); `npm ci` must have been run in emulator/.
class Emulator {
  public:
    explicit Emulator(const std::vector<std::string>& extraArguments = {})
        : process_(commandLine(extraArguments)) {
        const std::string line = process_.readLine(std::chrono::seconds(30));
        const auto started = json::parse(line);
        url_ = std::string(started.at("url").as_string());
        if (const auto* ca = started.as_object().if_contains("caFile"); ca && ca->is_string()) {
            caFile_ = std::string(ca->as_string());
        }
    }
    const std::string& url() const { return url_; }
    /// The CA to trust for an emulator started with --tls; empty otherwise.
    const std::string& caFile() const { return caFile_; }

    /// A control route ("chatrooms", "chatrooms/x/flood"), synchronously.
    json::value control(const std::string& method, const std::string& path,
                        const json::value& body = nullptr) const {
        std::unique_ptr<CURL, decltype(&curl_easy_cleanup)> handle(curl_easy_init(),
                                                                   curl_easy_cleanup);
        std::unique_ptr<curl_slist, decltype(&curl_slist_free_all)> headers(
            curl_slist_append(nullptr, "Content-Type: application/json"), curl_slist_free_all);
        const std::string url = url_ + "/_control/" + path;
        const std::string payload = body.is_null() ? "" : json::serialize(body);
        std::string answer;
        CURL* curl = handle.get();
        curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
        curl_easy_setopt(curl, CURLOPT_CUSTOMREQUEST, method.c_str());
        curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
        curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, collect);
        curl_easy_setopt(curl, CURLOPT_WRITEDATA, &answer);
        if (!payload.empty()) {
            curl_easy_setopt(curl, CURLOPT_HTTPHEADER, headers.get());
            curl_easy_setopt(curl, CURLOPT_POSTFIELDS, payload.c_str());
        }
        long status = 0;
        if (curl_easy_perform(curl) != CURLE_OK) fail(method + " " + path + ": no answer");
        curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &status);
        if (status < 200 || status > 299) fail(method + " " + path + ": " + answer);
        return json::parse(answer);
    }

  private:
    static std::string serverScript() {
        if (const char* chosen = std::getenv("TAVLO_EMULATOR")) return chosen;
        return (sourceRoot() / "emulator" / "server.js").string();
    }
    static std::vector<std::string> commandLine(const std::vector<std::string>& extraArguments) {
        std::vector<std::string> arguments = {"node", serverScript(), "--port", "0"};
        arguments.insert(arguments.end(), extraArguments.begin(), extraArguments.end());
        return arguments;
    }

    ChildProcess process_;
    std::string url_;
    std::string caFile_;
};

}  // namespace bench
