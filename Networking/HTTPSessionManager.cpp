#include "Networking/HTTPSessionManager.hpp"

#include <algorithm>
#include <cctype>
#include <variant>

#include "Networking/CurlMultiRunner.hpp"
#include "Networking/HTTPTransfer.hpp"
#include "Networking/TrustBundle.hpp"
#include "Networking/URLRedaction.hpp"
#include "TavloCoreSDK/Internal/TVKDevice.hpp"
#include "TavloCoreSDK/Internal/TVKLogLine.hpp"
#include "Networking/TVKNetworkError.hpp"

#ifndef TAVLO_SDK_VERSION
#define TAVLO_SDK_VERSION "1.0"
#endif

namespace tavlo::net {

const char* HTTPMethodName(HTTPMethod method) {
    switch (method) {
        case HTTPMethod::Get:
            return "GET";
        case HTTPMethod::Post:
            return "POST";
        case HTTPMethod::Put:
            return "PUT";
        case HTTPMethod::Delete:
            return "DELETE";
    }
    return "?";
}

struct HTTPSessionManager::Settings {
    std::map<std::string, std::string, CaseInsensitiveLess> headers;
    std::shared_ptr<dispatch::Queue> queue;
    std::shared_ptr<const TrustBundle> trust;
    std::chrono::milliseconds timeout;
    std::optional<std::string> proxy;
};

namespace {

constexpr std::chrono::milliseconds kDefaultTimeout = std::chrono::seconds(60);
constexpr std::string_view kURLPieceSeparators = "/?&=;";

bool isSafeHeaderText(std::string_view text) {
    return text.find_first_of(std::string_view("\r\n\0", 3)) == std::string_view::npos;
}

bool isValidHeaderName(std::string_view name) {
    return !name.empty() && isSafeHeaderText(name) &&
           name.find_first_of(": \t") == std::string_view::npos;
}

bool carriesBody(HTTPMethod method) {
    return method == HTTPMethod::Post || method == HTTPMethod::Put;
}

/// The URL with GET and DELETE parameters in its query. The fragment is dropped: it is never sent.
std::string requestURL(const std::string& url, HTTPMethod method,
                       const boost::json::object& parameters) {
    std::string target = url.substr(0, url.find('#'));
    if (carriesBody(method)) return target;
    const std::string query = encodeQuery(parameters);
    if (query.empty()) return target;
    return target + (target.find('?') == std::string::npos ? "?" : "&") + query;
}

/// The URL, its path and query, and every piece of them: tokens travel there.
void addURLSecrets(const std::string& url, std::vector<std::string>& secrets) {
    secrets.push_back(url);
    auto scheme = url.find("://");
    auto pathStart = url.find('/', scheme == std::string::npos ? 0 : scheme + 3);
    if (pathStart == std::string::npos) return;
    std::string_view rest = std::string_view(url).substr(pathStart);
    secrets.emplace_back(rest);
    while (!rest.empty()) {
        auto end = rest.find_first_of(kURLPieceSeparators);
        secrets.emplace_back(rest.substr(0, end));
        rest.remove_prefix(end == std::string_view::npos ? rest.size() : end + 1);
    }
}

/// The user information of a proxy URL, whole and in its parts, percent-encoded and not.
void addProxyCredentialSecrets(std::string_view proxy, std::vector<std::string>& secrets) {
    if (auto scheme = proxy.find("://"); scheme != std::string_view::npos) {
        proxy.remove_prefix(scheme + 3);
    }
    const auto at = proxy.substr(0, proxy.find_first_of("/?")).rfind('@');
    if (at == std::string_view::npos) return;
    const auto userInfo = proxy.substr(0, at);
    secrets.emplace_back(userInfo);
    const auto colon = userInfo.find(':');
    if (colon == std::string_view::npos) return;
    secrets.emplace_back(userInfo.substr(colon + 1));
    char* decoded =
        curl_unescape(userInfo.data() + colon + 1, static_cast<int>(userInfo.size() - colon - 1));
    if (decoded) {
        secrets.emplace_back(decoded);
        curl_free(decoded);
    }
}

/// Runs the caller's callbacks on `queue`, never on the I/O thread.
HTTPTransfer::Completion deliverOn(std::shared_ptr<dispatch::Queue> queue,
                                   HTTPSessionManager::Success success,
                                   HTTPSessionManager::Failure failure) {
    return [queue = std::move(queue), success = std::move(success),
            failure = std::move(failure)](HTTPOutcome outcome) mutable {
        queue->async([success = std::move(success), failure = std::move(failure),
                      outcome = std::move(outcome)] {
            try {
                if (const auto* json = std::get_if<boost::json::value>(&outcome)) {
                    if (success) success(*json);
                } else if (failure) {
                    failure(std::get<TVKError>(outcome));
                }
            } catch (...) {
                // An application callback that throws must not take the worker thread down.
            }
        });
    };
}

}  // namespace

bool HTTPSessionManager::CaseInsensitiveLess::operator()(std::string_view lhs,
                                                         std::string_view rhs) const {
    return std::lexicographical_compare(
        lhs.begin(), lhs.end(), rhs.begin(), rhs.end(),
        [](unsigned char a, unsigned char b) { return std::tolower(a) < std::tolower(b); });
}

std::shared_ptr<HTTPSessionManager> HTTPSessionManager::create(std::string baseURL) {
    return std::make_shared<HTTPSessionManager>(std::move(baseURL));
}

HTTPSessionManager::HTTPSessionManager(std::string baseURL)
    : baseURL_(std::move(baseURL)), completionQueue_(dispatch::globalQueue()) {}

void HTTPSessionManager::setHeader(const std::string& name, std::optional<std::string> value) {
    if (!isValidHeaderName(name) || (value && !isSafeHeaderText(*value))) return;
    std::lock_guard lock(mutex_);
    if (value) {
        headers_.insert_or_assign(name, std::move(*value));
    } else {
        headers_.erase(name);
    }
}

std::optional<std::string> HTTPSessionManager::header(const std::string& name) const {
    std::lock_guard lock(mutex_);
    auto found = headers_.find(name);
    if (found == headers_.end()) return std::nullopt;
    return found->second;
}

void HTTPSessionManager::setCompletionQueue(std::shared_ptr<dispatch::Queue> queue) {
    std::lock_guard lock(mutex_);
    completionQueue_ = queue ? std::move(queue) : dispatch::globalQueue();
}

void HTTPSessionManager::setCAFile(std::optional<std::string> path) {
    auto bundle = path ? TrustBundle::withExtraFile(*path) : nullptr;
    std::lock_guard lock(mutex_);
    trustBundle_ = std::move(bundle);
}

void HTTPSessionManager::setProxy(std::optional<std::string> proxyURL) {
    std::lock_guard lock(mutex_);
    proxy_ = std::move(proxyURL);
}

void HTTPSessionManager::setTimeout(std::chrono::milliseconds timeout) {
    std::lock_guard lock(mutex_);
    timeout_ = timeout.count() > 0 ? timeout : kDefaultTimeout;
}

HTTPSessionManager::Settings HTTPSessionManager::snapshot() const {
    std::lock_guard lock(mutex_);
    return Settings{headers_, completionQueue_, trustBundle_, timeout_, proxy_};
}

void HTTPSessionManager::setLoggedQueryNames(std::set<std::string, std::less<>> names) {
    std::lock_guard lock(mutex_);
    loggedQueryNames_ = std::move(names);
}

void HTTPSessionManager::request(HTTPMethod method, const std::string& path,
                                 const boost::json::object& parameters, Success success,
                                 Failure failure, std::string_view pathCredential) {
    try {
        CurlMultiRunner& runner = CurlMultiRunner::shared();  // initialises libcurl first
        Settings settings = snapshot();
        auto request = buildRequest(method, path, parameters, settings);
        recordLoggedURL(request, pathCredential);
        auto transfer = std::make_unique<HTTPTransfer>(
            std::move(request), deliverOn(settings.queue, std::move(success), std::move(failure)));
        if (CURLcode code = transfer->setupResult()) return transfer->finish(code);
        runner.start(std::move(transfer));
    } catch (...) {
        // Only allocation can fail here; the request is then never issued.
    }
}

TransferRequest HTTPSessionManager::buildRequest(HTTPMethod method, const std::string& path,
                                                 const boost::json::object& parameters,
                                                 const Settings& settings) const {
    TransferRequest request;
    request.method = method;
    request.url = requestURL(resolveURL(baseURL_, path), method, parameters);
    if (carriesBody(method)) request.body = boost::json::serialize(parameters);
    for (const auto& [name, value] : settings.headers) {
        // "Name;" is libcurl's way to send a header with an empty value.
        request.headerLines.push_back(value.empty() ? name + ";" : name + ": " + value);
        request.secrets.push_back(value);
    }
    if (carriesBody(method) && !settings.headers.contains("Content-Type")) {
        request.headerLines.emplace_back("Content-Type: application/json");
    }
    request.timeout = settings.timeout;
    request.trust = settings.trust;
    if (settings.proxy) {
        request.proxy = settings.proxy;
        // The whole setting and its user information: libcurl's messages may quote either.
        request.secrets.push_back(*settings.proxy);
        addProxyCredentialSecrets(*settings.proxy, request.secrets);
    }
    addURLSecrets(request.url, request.secrets);
    return request;
}

void HTTPSessionManager::recordLoggedURL(TransferRequest& request,
                                         std::string_view pathCredential) const {
    // Redacting costs a few string copies, spent only while someone reads debug lines.
    if (!log_line::enabled(TVKLogLevel::debug)) return;
    std::lock_guard lock(mutex_);
    request.loggedURL = redactedURL(request.url, pathCredential, loggedQueryNames_);
}

std::string HTTPSessionManager::defaultUserAgent() {
    return std::string("TavloMessagingSDK/") + TAVLO_SDK_VERSION + " (" + systemName() + " " +
           systemVersion() + "; " + hardwareString() + ")";
}

}  // namespace tavlo::net
