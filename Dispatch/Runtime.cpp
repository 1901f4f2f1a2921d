#include "Dispatch/Runtime.hpp"

#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <memory>
#include <thread>
#include <vector>

namespace tavlo::dispatch {
namespace {

struct IOThread {
    boost::asio::io_context context{1};
    boost::asio::executor_work_guard<boost::asio::io_context::executor_type> guard{
        context.get_executor()};
    std::thread thread{[this] {
        // Named, so that profiles and debuggers tell the I/O threads from the workers.
        pthread_setname_np(pthread_self(), "tavlo-io");
        context.run();
    }};
    IOThread() { thread.detach(); }
};

std::vector<std::unique_ptr<IOThread>>& ioThreads() {
    // Deliberately never destroyed: threads may still run handlers while statics are torn down.
    static auto* threads = [] {
        auto* made = new std::vector<std::unique_ptr<IOThread>>;
        for (unsigned i = 0; i < Runtime::ioThreadCount(); ++i) {
            made->push_back(std::make_unique<IOThread>());
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

boost::asio::thread_pool& Runtime::workers() {
    static auto* pool = new boost::asio::thread_pool(workerCount());
    return *pool;
}

}  // namespace tavlo::dispatch
