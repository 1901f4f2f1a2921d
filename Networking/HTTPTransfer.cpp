#include "Networking/HTTPTransfer.hpp"

#include <algorithm>
#include <cctype>
#include <cstdio>

#include "Networking/HTTPRequestLog.hpp"

namespace tavlo::net {
namespace {

// Answers larger than this are refused rather than held in memory.
constexpr std::size_t kMaximumResponseSize = 64 * 1024 * 1024;

/// libcurl would guess "http://" for a URL without a scheme and go looking for a host named
/// after a path; a URL that names no scheme is refused instead.
bool namesScheme(const std::string& url) {
    auto end = url.find("://");
    return end != std::string::npos && end > 0 &&
           std::all_of(
               url.begin(), url.begin() + static_cast<std::ptrdiff_t>(end),
               [](unsigned char c) { return std::isalnum(c) || c == '+' || c == '-' || c == '.'; });
}

bool hasBody(HTTPMethod method) {
    return method == HTTPMethod::Post || method == HTTPMethod::Put;
}

}  // namespace

HTTPTransfer::HTTPTransfer(TransferRequest request, Completion completion)
    : request_(std::move(request)), completion_(std::move(completion)), handle_(curl_easy_init()) {
    setupResult_ = handle_ ? configure() : CURLE_FAILED_INIT;
}

HTTPTransfer::~HTTPTransfer() {
    if (handle_) curl_easy_cleanup(handle_);
    curl_slist_free_all(headers_);
}

CURLcode HTTPTransfer::configure() {
    if (!namesScheme(request_.url)) return CURLE_URL_MALFORMAT;
    const std::pair<CURLoption, const char*> textOptions[] = {
        {CURLOPT_URL, request_.url.c_str()},
        {CURLOPT_PROTOCOLS_STR, "http,https"},
        {CURLOPT_ACCEPT_ENCODING, ""},
    };
    for (const auto& [option, value] : textOptions) {
        if (CURLcode code = curl_easy_setopt(handle_, option, value)) return code;
    }
    curl_easy_setopt(handle_, CURLOPT_PRIVATE, this);
    curl_easy_setopt(handle_, CURLOPT_ERRORBUFFER, errorBuffer_);
    curl_easy_setopt(handle_, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(handle_, CURLOPT_HTTP_VERSION, static_cast<long>(CURL_HTTP_VERSION_2TLS));
    // Redirects are not followed: the default headers (credentials among them) would travel to
    // whatever host a redirect names. A 3xx is reported like any other answer outside 2xx.
    curl_easy_setopt(handle_, CURLOPT_TIMEOUT_MS, static_cast<long>(request_.timeout.count()));
    curl_easy_setopt(handle_, CURLOPT_WRITEFUNCTION, &HTTPTransfer::receive);
    curl_easy_setopt(handle_, CURLOPT_WRITEDATA, this);
    if (CURLcode code = configureMethod()) return code;
    if (CURLcode code = configureProxy()) return code;
    if (CURLcode code = configureSecurity()) return code;
    return configureHeaders();
}

// libcurl silently sends a request again when a reused connection dies before any answer. For
// a request that changes something the first one may have been carried out already, so only GET
// is left to that: a request with a body refuses, before it is sent, any attempt after its first,
// and a DELETE (no body) goes out on a connection of its own, which libcurl never retries.
//
// The body is handed over whole, so that libcurl sends it in the same write as the headers: an
// intermediary that waits for an acknowledgement before passing on a second small write (Nagle's
// algorithm, left on by common proxies) would otherwise hold every body back for the receiver's
// delayed acknowledgement, some 40 ms per request.
CURLcode HTTPTransfer::configureMethod() {
    switch (request_.method) {
        case HTTPMethod::Get:
            return curl_easy_setopt(handle_, CURLOPT_HTTPGET, 1L);
        case HTTPMethod::Delete:
            curl_easy_setopt(handle_, CURLOPT_FRESH_CONNECT, 1L);
            return curl_easy_setopt(handle_, CURLOPT_CUSTOMREQUEST, "DELETE");
        case HTTPMethod::Post:
        case HTTPMethod::Put:
            break;
    }
    curl_easy_setopt(handle_, CURLOPT_POST, 1L);
    curl_easy_setopt(handle_, CURLOPT_POSTFIELDSIZE_LARGE,
                     static_cast<curl_off_t>(request_.body.size()));
    curl_easy_setopt(handle_, CURLOPT_POSTFIELDS, request_.body.data());
    curl_easy_setopt(handle_, CURLOPT_PREREQFUNCTION, &HTTPTransfer::beforeSending);
    curl_easy_setopt(handle_, CURLOPT_PREREQDATA, this);
    if (request_.method == HTTPMethod::Put) {
        return curl_easy_setopt(handle_, CURLOPT_CUSTOMREQUEST, "PUT");
    }
    return CURLE_OK;
}

int HTTPTransfer::beforeSending(void* context, char*, char*, int, int) {
    auto* self = static_cast<HTTPTransfer*>(context);
    if (!self->sendingStarted_) {
        self->sendingStarted_ = true;
        return CURL_PREREQFUNC_OK;
    }
    self->resendRefused_ = true;
    return CURL_PREREQFUNC_ABORT;
}

CURLcode HTTPTransfer::configureProxy() {
    // A tunnel for http:// too: the realtime connection tunnels as well, so a proxy that refuses
    // refuses both alike, and what travels inside stays between the SDK and the service.
    curl_easy_setopt(handle_, CURLOPT_HTTPPROXYTUNNEL, 1L);
    if (!request_.proxy) return CURLE_OK;  // libcurl reads the environment
    if (CURLcode code = curl_easy_setopt(handle_, CURLOPT_PROXY, request_.proxy->c_str())) {
        return code;
    }
    // A proxy set by the application stands for every host: NO_PROXY is not consulted either.
    return curl_easy_setopt(handle_, CURLOPT_NOPROXY, "");
}

CURLcode HTTPTransfer::configureSecurity() {
    // Verification is never switched off, whatever the caller configures.
    curl_easy_setopt(handle_, CURLOPT_SSL_VERIFYPEER, 1L);
    curl_easy_setopt(handle_, CURLOPT_SSL_VERIFYHOST, 2L);
    return request_.trust ? request_.trust->apply(handle_) : CURLE_OK;
}

CURLcode HTTPTransfer::configureHeaders() {
    std::vector<std::string> lines = request_.headerLines;
    if (hasBody(request_.method)) {
        // Without this libcurl would wait for "100 Continue" before sending a large body.
        lines.emplace_back("Expect:");
    }
    for (const auto& line : lines) {
        curl_slist* extended = curl_slist_append(headers_, line.c_str());
        if (!extended) return CURLE_OUT_OF_MEMORY;
        headers_ = extended;
    }
    return curl_easy_setopt(handle_, CURLOPT_HTTPHEADER, headers_);
}

size_t HTTPTransfer::receive(char* data, size_t size, size_t count, void* context) {
    auto* self = static_cast<HTTPTransfer*>(context);
    const size_t bytes = size * count;
    if (self->responseBody_.size() + bytes > kMaximumResponseSize) {
        self->responseTooLarge_ = true;
        return 0;
    }
    try {
        self->responseBody_.append(data, bytes);
    } catch (...) {
        return 0;  // libcurl ends the transfer with CURLE_WRITE_ERROR
    }
    return bytes;
}

std::optional<std::string> HTTPTransfer::retryAfterHeader() const {
    curl_header* header = nullptr;
    // The final answer's headers only (-1): not those of a proxy's CONNECT answer.
    if (!handle_ ||
        curl_easy_header(handle_, "Retry-After", 0, CURLH_HEADER, -1, &header) != CURLHE_OK) {
        return std::nullopt;
    }
    return std::string(header->value);
}

void HTTPTransfer::finish(CURLcode code) noexcept {
    try {
        HTTPResult result;
        result.code = responseTooLarge_ ? CURLE_FILESIZE_EXCEEDED : code;
        result.transportMessage = errorBuffer_[0] ? errorBuffer_ : curl_easy_strerror(code);
        if (resendRefused_ && code != CURLE_OK) {
            // The request went out and the connection died before the answer: it may have been
            // carried out, so it is not sent again. To the caller the service did not answer.
            result.code = CURLE_GOT_NOTHING;
            result.transportMessage = "the connection closed before the answer arrived";
        }
        if (handle_) curl_easy_getinfo(handle_, CURLINFO_RESPONSE_CODE, &result.status);
        result.retryAfter = retryAfterHeader();
        logFinishedRequest(request_, result.code, result.status, handle_);
        result.body = std::move(responseBody_);
        auto completion = std::move(completion_);
        if (completion) completion(interpretResult(std::move(result), request_.secrets));
    } catch (...) {
        // Nothing may escape into the I/O thread; a completion that cannot even be built is lost.
    }
}

}  // namespace tavlo::net
