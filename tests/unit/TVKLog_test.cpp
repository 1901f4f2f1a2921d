// The log switch: levels, sinks, the environment variable, and what a statement costs when its
// level is off.

#include <gtest/gtest.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <future>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "TavloCoreSDK/Internal/TVKCalendar.hpp"
#include "TavloCoreSDK/Internal/TVKLogLine.hpp"
#include "TavloCoreSDK/TVKLog.hpp"

namespace tavlo {
namespace {

using namespace std::chrono_literals;

/// Counts how often it is formatted.
struct Counted {
    std::atomic<int>* formatted;
};
std::ostream& operator<<(std::ostream& stream, const Counted& counted) {
    ++*counted.formatted;
    return stream << "counted";
}

/// Restores silence whatever a test installed.
class TVKLogTest : public ::testing::Test {
  protected:
    void SetUp() override {
        if (std::getenv(TVKLog::kEnvironmentVariable)) GTEST_SKIP() << "TAVLO_LOG is set";
    }
    void TearDown() override {
        TVKLog::setSink(nullptr);
        TVKLog::setLevel(TVKLogLevel::info);
    }
};

TEST_F(TVKLogTest, LevelNamesInEverySpelling) {
    EXPECT_EQ(TVKLog::levelNamed("error"), TVKLogLevel::error);
    EXPECT_EQ(TVKLog::levelNamed("Warning"), TVKLogLevel::warning);
    EXPECT_EQ(TVKLog::levelNamed("WARN"), TVKLogLevel::warning);
    EXPECT_EQ(TVKLog::levelNamed("info"), TVKLogLevel::info);
    EXPECT_EQ(TVKLog::levelNamed("DEBUG"), TVKLogLevel::debug);
    EXPECT_EQ(TVKLog::levelNamed("trace"), TVKLogLevel::trace);
    EXPECT_EQ(TVKLog::levelNamed("off"), TVKLogLevel::off);
    EXPECT_EQ(TVKLog::levelNamed("none"), TVKLogLevel::off);
    for (const char* junk : {"", "3", "loud", "debug ", "tracer"}) {
        EXPECT_EQ(TVKLog::levelNamed(junk), std::nullopt) << junk;
    }
    EXPECT_EQ(TVKLog::nameOfLevel(TVKLogLevel::warning), "warning");
}

TEST_F(TVKLogTest, NothingIsFormattedWithoutASinkOrAboveTheLevel) {
    std::atomic<int> formatted{0};
    TVKLog::setLevel(TVKLogLevel::trace);
    TAVLO_LOG(error, "chat", Counted{&formatted});  // no sink: silent
    EXPECT_EQ(formatted, 0);

    std::vector<std::string> lines;
    TVKLog::setSink([&](TVKLogLevel level, std::string_view component, std::string_view line) {
        lines.push_back(std::string(TVKLog::nameOfLevel(level)) + " " + std::string(component) +
                        ": " + std::string(line));
    });
    TVKLog::setLevel(TVKLogLevel::info);
    TAVLO_LOG(debug, "http", Counted{&formatted});
    TAVLO_LOG(trace, "socket", Counted{&formatted});
    EXPECT_EQ(formatted, 0);
    TAVLO_LOG(info, "chat", "lobby: ", Counted{&formatted}, " ", 42);
    TAVLO_LOG(error, "manager", "given up");
    EXPECT_EQ(formatted, 1);
    EXPECT_EQ(lines, (std::vector<std::string>{"info chat: lobby: counted 42",
                                               "error manager: given up"}));
    TVKLog::setLevel(TVKLogLevel::off);
    TAVLO_LOG(error, "manager", Counted{&formatted});
    EXPECT_EQ(formatted, 1);
}

TEST_F(TVKLogTest, ASinkThatThrowsLosesItsLineOnly) {
    TVKLog::setSink(
        [](TVKLogLevel, std::string_view, std::string_view) { throw std::runtime_error("full"); });
    EXPECT_NO_THROW(TAVLO_LOG(error, "chat", "lost"));
}

TEST_F(TVKLogTest, AReplacedSinkIsNeverCalledOnceSetSinkReturns) {
    std::atomic<bool> stop{false};
    std::vector<std::thread> writers;
    for (int i = 0; i < 4; ++i) {
        writers.emplace_back([&stop] {
            while (!stop) TAVLO_LOG(info, "chat", "busy");
        });
    }
    TVKLog::setLevel(TVKLogLevel::info);
    for (int round = 0; round < 50; ++round) {
        auto calls = std::make_shared<std::atomic<int>>(0);
        auto replaced = std::make_shared<std::atomic<bool>>(false);
        TVKLog::setSink([calls, replaced](TVKLogLevel, std::string_view, std::string_view) {
            EXPECT_FALSE(*replaced);
            ++*calls;
        });
        std::this_thread::yield();
        TVKLog::setSink(round % 2 ? nullptr : TVKLog::Sink([](auto, auto, auto) {}));
        *replaced = true;
    }
    stop = true;
    for (auto& writer : writers) writer.join();
}

TEST_F(TVKLogTest, ASinkHoldingItsOwnLockMayCallBackIntoTheLog) {
    // The application's sink takes its own lock and, under it, calls back in: reads and sets the
    // level, logs (dropped: it would feed itself), and finally replaces itself. A lock of the SDK
    // held around the sink would deadlock here; the bounded wait turns that into a failure.
    std::mutex applicationLock;
    std::vector<std::string> lines;
    TVKLog::setLevel(TVKLogLevel::info);
    TVKLog::setSink([&](TVKLogLevel, std::string_view, std::string_view line) {
        std::lock_guard held(applicationLock);
        lines.emplace_back(line);
        TVKLog::setLevel(TVKLog::level());
        TAVLO_LOG(error, "chat", "from inside the sink");
        if (line == "last") TVKLog::setSink(nullptr);
    });
    std::promise<void> done;
    auto finished = done.get_future();
    std::thread([&done] {
        TAVLO_LOG(info, "chat", "first");
        TAVLO_LOG(info, "chat", "last");
        TAVLO_LOG(info, "chat", "after the sink is gone");
        done.set_value();
    }).detach();
    ASSERT_EQ(finished.wait_for(10s), std::future_status::ready) << "deadlock in the log";
    std::lock_guard held(applicationLock);
    EXPECT_EQ(lines, (std::vector<std::string>{"first", "last"}));
}

// --- The environment variable, read when a process starts: checked in child processes ------

/// Run by the parent below (in a child process with TAVLO_LOG set); skipped otherwise.
TEST(TVKLogChild, WritesOneLineOfThreeLevels) {
    const char* mode = std::getenv("TAVLO_LOG_CHILD");
    if (!mode) GTEST_SKIP() << "runs as a child of TVKLogEnvironment";
    if (std::string(mode) == "app") {
        TVKLog::setSink([](TVKLogLevel level, std::string_view component, std::string_view line) {
            std::printf("application sink: %s %.*s: %.*s\n", TVKLog::nameOfLevel(level).data(),
                        static_cast<int>(component.size()), component.data(),
                        static_cast<int>(line.size()), line.data());
        });
    }
    TAVLO_LOG(warning, "manager", "warned");
    TAVLO_LOG(debug, "http", "debugged");
    TAVLO_LOG(trace, "socket", "traced");
}

std::string childOutput(const std::string& environment) {
    // The shell popen starts would be /proc/self/exe there: name this test program instead.
    const std::string command = environment + " " +
                                std::filesystem::read_symlink("/proc/self/exe").string() +
                                " --gtest_filter=TVKLogChild.* 2>&1";
    std::string output;
    if (FILE* child = popen(command.c_str(), "r")) {
        char buffer[512];
        while (std::fgets(buffer, sizeof buffer, child)) output += buffer;
        pclose(child);
    }
    return output;
}

// The log's clock reads UTC through the platform's calendar conversion; leap days, the turn of
// the century and moments past 2038 (a 32-bit time_t would wrap) convert exactly.
TEST(TVKCalendar, UTCCalendarFieldsOfKnownMoments) {
    struct Case {
        std::time_t seconds;
        int year, month, day, hour, minute, second;
    };
    const Case cases[] = {
        {0, 1970, 1, 1, 0, 0, 0},
        {951825599, 2000, 2, 29, 11, 59, 59},
        {2147483648, 2038, 1, 19, 3, 14, 8},
        {4102444800, 2100, 1, 1, 0, 0, 0},
    };
    for (const Case& c : cases) {
        const std::tm utc = utcCalendarTime(c.seconds);
        EXPECT_EQ(utc.tm_year + 1900, c.year) << c.seconds;
        EXPECT_EQ(utc.tm_mon + 1, c.month) << c.seconds;
        EXPECT_EQ(utc.tm_mday, c.day) << c.seconds;
        EXPECT_EQ(utc.tm_hour, c.hour) << c.seconds;
        EXPECT_EQ(utc.tm_min, c.minute) << c.seconds;
        EXPECT_EQ(utc.tm_sec, c.second) << c.seconds;
    }
}

TEST(TVKLogEnvironment, NamesALevelAndWritesToStandardErrorUnlessTheApplicationHasASink) {
    auto debug = childOutput("TAVLO_LOG=Debug TAVLO_LOG_CHILD=1");
    EXPECT_NE(debug.find(" warning manager: warned\n"), std::string::npos) << debug;
    EXPECT_NE(debug.find(" debug http: debugged\n"), std::string::npos) << debug;
    EXPECT_EQ(debug.find("traced"), std::string::npos) << debug;

    auto warn = childOutput("TAVLO_LOG=warn TAVLO_LOG_CHILD=1");
    EXPECT_NE(warn.find("warned"), std::string::npos) << warn;
    EXPECT_EQ(warn.find("debugged"), std::string::npos) << warn;

    for (const char* silent : {"TAVLO_LOG=loud", "TAVLO_LOG=off", "TAVLO_LOG="}) {
        auto output = childOutput(std::string(silent) + " TAVLO_LOG_CHILD=1");
        EXPECT_EQ(output.find("warned"), std::string::npos) << silent << ": " << output;
    }

    auto app = childOutput("TAVLO_LOG=trace TAVLO_LOG_CHILD=app");
    EXPECT_NE(app.find("application sink: trace socket: traced"), std::string::npos) << app;
    EXPECT_EQ(app.find("tavlo "), std::string::npos) << app;  // nothing on standard error
}

}  // namespace
}  // namespace tavlo
