#pragma once

#include <curl/curl.h>

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "Networking/HTTPOutcome.hpp"
#include "Networking/HTTPSessionManager.hpp"
#include "Networking/TrustBundle.hpp"

namespace tavlo::net {

/// Everything one request needs, copied out of the manager when it is issued.
struct TransferRequest {
    HTTPMethod method = HTTPMethod::Get;
    std::string url;
    std::vector<std::string> headerLines;  ///< "Name: value"
    std::string body;                      ///< JSON text for POST and PUT
    std::chrono::milliseconds timeout{std::chrono::seconds(60)};
    std::shared_ptr<const TrustBundle> trust;  ///< nullptr: the system's authorities only
    std::optional<std::string> proxy;          ///< nullopt: the environment's; empty: none
    std::vector<std::string> secrets;          ///< texts no error description may contain
    std::string loggedURL;  ///< `url` redacted for the log; empty while debug lines are off
};

/// One libcurl easy handle with its request data and answer buffer. Created on the caller's
/// thread, then driven and destroyed on the multi handle's I/O thread.
class HTTPTransfer {
  public:
    /// Called once, on the I/O thread, with the judged outcome. Must not block.
    using Completion = std::function<void(HTTPOutcome)>;

    HTTPTransfer(TransferRequest request, Completion completion);
    ~HTTPTransfer();
    HTTPTransfer(const HTTPTransfer&) = delete;
    HTTPTransfer& operator=(const HTTPTransfer&) = delete;

    CURL* handle() const { return handle_; }
    /// CURLE_OK when the handle is ready to run; otherwise `finish` it with this code at once.
    CURLcode setupResult() const { return setupResult_; }

    /// Judges the answer and hands it to the completion. Never throws.
    void finish(CURLcode code) noexcept;

  private:
    CURLcode configure();
    CURLcode configureMethod();
    CURLcode configureProxy();
    CURLcode configureSecurity();
    CURLcode configureHeaders();
    std::optional<std::string> retryAfterHeader() const;
    static size_t receive(char* data, size_t size, size_t count, void* context);
    /// Lets a request with a body go out once: libcurl asks before every attempt.
    static int beforeSending(void* context, char* serverAddress, char* localAddress, int serverPort,
                             int localPort);

    TransferRequest request_;
    Completion completion_;
    CURL* handle_ = nullptr;
    curl_slist* headers_ = nullptr;
    std::string responseBody_;
    bool responseTooLarge_ = false;
    bool sendingStarted_ = false;
    /// libcurl wanted to send the request again after a connection died without an answer.
    bool resendRefused_ = false;
    char errorBuffer_[CURL_ERROR_SIZE] = {};
    CURLcode setupResult_ = CURLE_OK;
};

}  // namespace tavlo::net
