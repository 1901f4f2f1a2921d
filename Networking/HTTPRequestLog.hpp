#pragma once

#include <curl/curl.h>

namespace tavlo::net {

struct TransferRequest;

/// Writes the debug line of a finished request: method, redacted URL, status (or the transport
/// failure) and duration. Does nothing unless debug lines are wanted.
void logFinishedRequest(const TransferRequest& request, CURLcode code, long status, CURL* handle);

}  // namespace tavlo::net
