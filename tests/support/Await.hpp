#pragma once

#include <boost/json/value.hpp>
#include <chrono>
#include <functional>
#include <optional>
#include <string>

#include "TavloCoreSDK/TVKError.hpp"

namespace tavlo::test {

/// How an operation with a success and a failure callback ended. `synchronous` is true when it
/// ended on the calling thread before the call returned (refusals do; answers come later).
struct Outcome {
    bool finished = false;
    bool succeeded = false;
    bool synchronous = false;
    boost::json::value value;
    std::optional<TVKError> error;
};

using OutcomeSuccess = std::function<void(boost::json::value)>;
using OutcomeFailure = std::function<void(const TVKError&)>;

/// Starts an operation, handing it a success callback that takes a JSON summary of the result
/// and a failure callback, and waits for its one outcome (a second one fails the test).
Outcome await(const std::function<void(OutcomeSuccess, OutcomeFailure)>& start,
              std::chrono::milliseconds limit = std::chrono::seconds(20));

/// The same for operations whose success takes no arguments.
Outcome awaitDone(const std::function<void(std::function<void()>, OutcomeFailure)>& start,
                  std::chrono::milliseconds limit = std::chrono::seconds(20));

/// "success", the error's description, or "nothing".
std::string describe(const Outcome& outcome);

}  // namespace tavlo::test
