#include "Dispatch/Internal/Runtime.hpp"

#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <memory>
#include <thread>
#include <vector>

namespace tavlo::dispatch {
namespace {

// An io_context and the threads that run it, named so that profiles and debuggers tell the
// I/O threads from the workers (a thread would otherwise take the name of whichever thread
// happened to start it).
struct ContextThreads {
    ContextThreads(const char* name, unsigned threads) : context(static_cast<int>(threads)) {
        for (unsigned i = 0; i < threads; ++i) {
            std::thread([this, name] {
                pthread_setname_np(pthread_self(), name);
                context.run();
            }).detach();
        }
    }
    boost::asio::io_context context;
    boost::asio::executor_work_guard<boost::asio::io_context::executor_type> guard{
        context.get_executor()};
};

// Deliberately never destroyed: threads may still run handlers while statics are torn down.
std::vector<std::unique_ptr<ContextThreads>>& ioThreads() {
    static auto* threads = [] {
        auto* made = new std::vector<std::unique_ptr<ContextThreads>>;
        for (unsigned i = 0; i < Runtime::ioThreadCount(); ++i) {
            made->push_back(std::make_unique<ContextThreads>("tavlo-io", 1));
        }
        return made;
    }();
    return *threads;
}

}  // namespace

boost::asio::io_context& Runtime::ioContext() {
    return ioThreads().front()->context;
}

boost::asio::io_context& Runtime::nextIOContext() {
    static std::atomic<unsigned> next{0};
    auto& threads = ioThreads();
    return threads[next++ % threads.size()]->context;
}

unsigned Runtime::ioThreadCount() {
    return 2;
}

unsigned Runtime::workerCount() {
    return std::max(2u, std::min(4u, std::thread::hardware_concurrency()));
}

boost::asio::io_context& Runtime::workers() {
    static auto* pool = new ContextThreads("tavlo-worker", workerCount());
    return pool->context;
}

}  // namespace tavlo::dispatch
