#include "Dispatch/Internal/Runtime.hpp"

#include <algorithm>
#include <thread>

namespace tavlo::dispatch {
namespace {

struct IOThread {
    boost::asio::io_context context{1};
    boost::asio::executor_work_guard<boost::asio::io_context::executor_type> guard{
        context.get_executor()};
    std::thread thread{[this] { context.run(); }};
    IOThread() { thread.detach(); }
};

}  // namespace

boost::asio::io_context& Runtime::ioContext() {
    // Deliberately never destroyed: threads may still run handlers while statics are torn down.
    static auto* io = new IOThread;
    return io->context;
}

unsigned Runtime::workerCount() { return std::max(2u, std::min(4u, std::thread::hardware_concurrency())); }

boost::asio::thread_pool& Runtime::workers() {
    static auto* pool = new boost::asio::thread_pool(workerCount());
    return *pool;
}

}  // namespace tavlo::dispatch
