#include "Networking/CurlMultiRunner.hpp"

#include <thread>

namespace tavlo::net {
namespace {

// The longest the I/O thread sleeps without news; new transfers wake it at once.
constexpr int kIdleWaitMilliseconds = 5000;

CURLM* makeMultiHandle() {
    curl_global_init(CURL_GLOBAL_DEFAULT);
    CURLM* multi = curl_multi_init();
    curl_multi_setopt(multi, CURLMOPT_PIPELINING, static_cast<long>(CURLPIPE_MULTIPLEX));
    return multi;
}

}  // namespace

CurlMultiRunner& CurlMultiRunner::shared() {
    // Deliberately never destroyed: its thread runs until the process ends.
    static auto* runner = new CurlMultiRunner;
    return *runner;
}

CurlMultiRunner::CurlMultiRunner() : multi_(makeMultiHandle()) {
    std::thread([this] { run(); }).detach();
}

void CurlMultiRunner::start(std::unique_ptr<HTTPTransfer> transfer) {
    {
        std::lock_guard lock(mutex_);
        pending_.push_back(std::move(transfer));
    }
    curl_multi_wakeup(multi_);
}

void CurlMultiRunner::run() {
    for (;;) {
        try {
            step();
        } catch (...) {
            // Only allocation failures can get here; the loop must outlive them.
        }
    }
}

void CurlMultiRunner::step() {
    adoptPending();
    int running = 0;
    curl_multi_perform(multi_, &running);
    finishCompleted();
    curl_multi_poll(multi_, nullptr, 0, kIdleWaitMilliseconds, nullptr);
}

void CurlMultiRunner::adoptPending() {
    std::vector<std::unique_ptr<HTTPTransfer>> arrived;
    {
        std::lock_guard lock(mutex_);
        arrived.swap(pending_);
    }
    for (auto& transfer : arrived) adopt(std::move(transfer));
}

void CurlMultiRunner::adopt(std::unique_ptr<HTTPTransfer> transfer) noexcept {
    CURL* handle = transfer->handle();
    try {
        active_.emplace(handle, std::move(transfer));
    } catch (...) {
        if (transfer) transfer->finish(CURLE_OUT_OF_MEMORY);
        return;
    }
    if (curl_multi_add_handle(multi_, handle) == CURLM_OK) return;
    auto found = active_.find(handle);
    found->second->finish(CURLE_FAILED_INIT);
    active_.erase(found);
}

void CurlMultiRunner::finishCompleted() {
    int remaining = 0;
    while (CURLMsg* message = curl_multi_info_read(multi_, &remaining)) {
        if (message->msg != CURLMSG_DONE) continue;
        CURL* handle = message->easy_handle;
        const CURLcode code = message->data.result;
        curl_multi_remove_handle(multi_, handle);
        auto found = active_.find(handle);
        if (found == active_.end()) continue;
        std::unique_ptr<HTTPTransfer> transfer = std::move(found->second);
        active_.erase(found);
        transfer->finish(code);
    }
}

}  // namespace tavlo::net
