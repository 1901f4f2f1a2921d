#pragma once

#include <boost/json.hpp>
#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <string_view>

#include "Dispatch/Queue.hpp"
#include "TavloCoreSDK/TVKError.hpp"

namespace tavlo::net {

/// Domain of HTTP answers that are not a success (the code is the HTTP status) and of 2xx answers
/// whose body is not JSON (code 0). Such errors carry the failing status and body.
inline constexpr const char* kHTTPResponseErrorDomain = "TVKHTTPResponseErrorDomain";

enum class HTTPMethod { Get, Post, Put, Delete };
/// "GET", "POST", "PUT" or "DELETE".
const char* HTTPMethodName(HTTPMethod method);

class TrustBundle;
struct TransferRequest;

/// An HTTP client bound to a base URL, in the manner of a session manager: default headers,
/// JSON bodies for POST and PUT, query strings for GET and DELETE, JSON answers.
///
/// All transfers of the process run on one libcurl multi handle driven by one I/O thread, with
/// connection reuse (HTTP/2 over TLS where the server offers it, HTTP/1.1 otherwise). Completions
/// run on the completion queue (the global queue unless set), never on the caller's stack. TLS
/// peers and host names are always verified; `setCAFile` adds a trust anchor.
/// Thread-safe: headers and settings may be changed from any thread; a request is built (its
/// headers copied) at the moment it is issued. The manager may be released while its requests are
/// in flight: they complete and their callbacks still run.
class HTTPSessionManager : public std::enable_shared_from_this<HTTPSessionManager> {
  public:
    using Success = std::function<void(const boost::json::value& response)>;
    using Failure = std::function<void(const TVKError& error)>;

    static std::shared_ptr<HTTPSessionManager> create(std::string baseURL);
    explicit HTTPSessionManager(std::string baseURL);

    const std::string& baseURL() const { return baseURL_; }

    /// Sets a default header, or removes it when `value` is nullopt. Names compare without regard
    /// to case. A name or value holding a line break or NUL is refused (the call does nothing),
    /// since it would let one header smuggle others into the request.
    void setHeader(const std::string& name, std::optional<std::string> value);
    std::optional<std::string> header(const std::string& name) const;

    /// Where completions run; nullptr restores the global queue.
    void setCompletionQueue(std::shared_ptr<dispatch::Queue> queue);
    /// A PEM file of extra trusted certificates (for a private service or a test server), read
    /// when set. They are trusted in addition to the system's certificate authorities. A file that
    /// cannot be read makes every later HTTPS request of this manager fail
    /// (CURLE_SSL_CACERT_BADFILE) rather than quietly trusting less or more than asked. nullopt
    /// removes the extra file.
    void setCAFile(std::optional<std::string> path);
    /// The proxy for this manager's requests, overriding the environment: "http://[user:password@]
    /// host[:port]" (or any proxy URL libcurl takes), or an empty string for none. nullopt (the
    /// default) leaves it to the environment, which libcurl reads: `http_proxy` (lower case only)
    /// for http:// URLs, `https_proxy`/`HTTPS_PROXY` for https://, then `all_proxy`/`ALL_PROXY`,
    /// with `no_proxy`/`NO_PROXY` exempting hosts. A proxy is always asked for a CONNECT tunnel,
    /// for http:// URLs too, so that it refuses or forwards the same way whatever the scheme; a
    /// refusal fails the request as a connectivity error (CURLE_RECV_ERROR, the proxy's status in
    /// the description). Its credentials never appear in an error or a log line.
    void setProxy(std::optional<std::string> proxyURL);
    /// Whole-request time-out; 60 s unless set. Zero or less restores the 60 s.
    void setTimeout(std::chrono::milliseconds timeout);
    /// The query parameters whose values the debug log may show; every other value is written
    /// as "***". None unless set.
    void setLoggedQueryNames(std::set<std::string, std::less<>> names);

    /// Issues a request for `path` resolved against the base URL. Success gets the parsed JSON
    /// body of a 2xx answer (null for an empty body, as a 204 has); anything else reaches
    /// `failure`: transport errors in `kTVKURLErrorDomain` (code = CURLcode, description without
    /// URL or header values), other answers in `kHTTPResponseErrorDomain` with status and body.
    /// Redirects are not followed (a 3xx fails like any answer outside 2xx), so that default
    /// headers never reach a host other than the one asked. `pathCredential` names a credential
    /// that `path` carries as a segment (an API token), so the log shows "***" in its place.
    void request(HTTPMethod method, const std::string& path, const boost::json::object& parameters,
                 Success success, Failure failure, std::string_view pathCredential = {});

    /// The library's own user agent: "TavloMessagingSDK/<version> (<os> <release>; <arch>)".
    static std::string defaultUserAgent();

  private:
    struct CaseInsensitiveLess {
        bool operator()(std::string_view lhs, std::string_view rhs) const;
    };
    struct Settings;
    Settings snapshot() const;
    TransferRequest buildRequest(HTTPMethod method, const std::string& path,
                                 const boost::json::object& parameters,
                                 const Settings& settings) const;
    void recordLoggedURL(TransferRequest& request, std::string_view pathCredential) const;

    const std::string baseURL_;
    mutable std::mutex mutex_;
    std::map<std::string, std::string, CaseInsensitiveLess> headers_;
    std::shared_ptr<dispatch::Queue> completionQueue_;
    std::shared_ptr<const TrustBundle> trustBundle_;
    std::chrono::milliseconds timeout_{std::chrono::seconds(60)};
    std::optional<std::string> proxy_;
    std::set<std::string, std::less<>> loggedQueryNames_;
};

/// The query string of GET and DELETE parameters: strings, numbers and booleans ("true",
/// "false") are one pair; an array is one pair per element under "key[]", in array order; pairs
/// are ordered by key (byte order); keys and values are percent-encoded (RFC 3986 unreserved
/// characters stay as they are). Objects and nulls have no query form and are left out.
std::string encodeQuery(const boost::json::object& parameters);

/// Resolves `reference` against `base` as a URL reference (RFC 3986, dot segments removed): a
/// reference beginning with "/" keeps only the base's scheme, host and port; a relative one
/// replaces the base's last path segment; an absolute URL stands as it is.
std::string resolveURL(const std::string& base, const std::string& reference);

}  // namespace tavlo::net
