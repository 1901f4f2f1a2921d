#pragma once

#include <curl/curl.h>

#include <memory>
#include <mutex>
#include <unordered_map>
#include <vector>

#include "Networking/HTTPTransfer.hpp"

namespace tavlo::net {

/// The process-wide libcurl multi handle and the one I/O thread that drives it. Sharing one multi
/// handle lets every transfer reuse the connections (and DNS answers) of earlier ones.
///
/// The runner starts on first use and is never destroyed, so no destructor ever has to join the
/// thread, which might be the very thread running it.
class CurlMultiRunner {
  public:
    static CurlMultiRunner& shared();

    /// Hands a transfer to the I/O thread; it completes there. Thread-safe.
    void start(std::unique_ptr<HTTPTransfer> transfer);

    CurlMultiRunner(const CurlMultiRunner&) = delete;
    CurlMultiRunner& operator=(const CurlMultiRunner&) = delete;

  private:
    CurlMultiRunner();
    [[noreturn]] void run();
    void step();
    void adoptPending();
    void adopt(std::unique_ptr<HTTPTransfer> transfer) noexcept;
    void finishCompleted();

    CURLM* const multi_;
    std::mutex mutex_;
    std::vector<std::unique_ptr<HTTPTransfer>> pending_;  // guarded by mutex_
    // Owned by the I/O thread only.
    std::unordered_map<CURL*, std::unique_ptr<HTTPTransfer>> active_;
};

}  // namespace tavlo::net
