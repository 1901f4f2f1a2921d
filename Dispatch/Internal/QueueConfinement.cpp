#include "Dispatch/Internal/QueueConfinement.hpp"

#include <cstdio>
#include <cstdlib>

namespace tavlo::dispatch::detail {

void assertOnQueue(const SerialQueue* queue, const char* function, const char* file, int line) {
    if (queue == nullptr || queue->isCurrent()) return;
    std::fprintf(stderr, "%s:%d: %s must run on queue \"%s\" but runs elsewhere\n", file, line,
                 function, queue->label().c_str());
    std::fflush(stderr);
    std::abort();
}

}  // namespace tavlo::dispatch::detail
