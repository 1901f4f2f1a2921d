// What a log statement costs: below its level (the SDK's normal state, logging off) it must
// cost next to nothing, since some sit on the realtime path (one per socket event).

#include <benchmark/benchmark.h>

#include <string>

#include "TavloCoreSDK/Internal/TVKLogLine.hpp"
#include "TavloCoreSDK/TVKLog.hpp"

namespace {

const std::string kEvent = "message";

void LogStatementWithLoggingOff(benchmark::State& state) {
    tavlo::TVKLog::setSink(nullptr);
    for (auto _ : state) {
        TAVLO_LOG(trace, "socket", "in ", kEvent);
        benchmark::ClobberMemory();
    }
}
BENCHMARK(LogStatementWithLoggingOff);

void LogStatementBelowTheLevel(benchmark::State& state) {
    tavlo::TVKLog::setSink([](auto, auto, auto) {});
    tavlo::TVKLog::setLevel(tavlo::TVKLogLevel::info);
    for (auto _ : state) {
        TAVLO_LOG(trace, "socket", "in ", kEvent);
        benchmark::ClobberMemory();
    }
    tavlo::TVKLog::setSink(nullptr);
}
BENCHMARK(LogStatementBelowTheLevel);

void LogStatementWrittenToASink(benchmark::State& state) {
    tavlo::TVKLog::setSink([](auto, auto, auto line) { benchmark::DoNotOptimize(line.size()); });
    tavlo::TVKLog::setLevel(tavlo::TVKLogLevel::trace);
    for (auto _ : state) {
        TAVLO_LOG(trace, "socket", "in ", kEvent);
    }
    tavlo::TVKLog::setSink(nullptr);
    tavlo::TVKLog::setLevel(tavlo::TVKLogLevel::info);
}
BENCHMARK(LogStatementWrittenToASink);

}  // namespace
