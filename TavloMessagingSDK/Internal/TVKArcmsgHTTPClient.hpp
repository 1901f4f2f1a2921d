#pragma once

#include <boost/json.hpp>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "Dispatch/Queue.hpp"
#include "Networking/HTTPSessionManager.hpp"
#include "TavloCoreSDK/TVKError.hpp"

namespace tavlo {

/// The client of the archive service, which serves an archive's meta document at
/// "<base><archive id>/meta" and each of its files at "<base><archive id>/<file id>". The
/// service is read without credentials, so no authorization header is ever sent.
///
/// Completions run on the completion queue, never on the caller's stack, except the immediate
/// failure of a request with a missing id.
class TVKArcmsgHTTPClient {
  public:
    using ObjectSuccess = std::function<void(const boost::json::object&)>;
    using ArraySuccess = std::function<void(const boost::json::array&)>;
    using Failure = std::function<void(const TVKError&)>;

    /// A client of the service at `baseURL` (normally the chatroom profile's "arcMsgURL", which
    /// ends in "/"). An unset base URL, or one that is not an absolute http(s) URL, leaves the
    /// client unable to reach anything: its requests fail with a malformed-URL transport error.
    static std::shared_ptr<TVKArcmsgHTTPClient> create(
        std::optional<std::string> baseURL,
        std::shared_ptr<dispatch::Queue> completionQueue = nullptr,
        std::optional<std::string> caFile = std::nullopt);
    TVKArcmsgHTTPClient(std::optional<std::string> baseURL,
                        std::shared_ptr<dispatch::Queue> completionQueue,
                        std::optional<std::string> caFile);

    const std::optional<std::string>& baseURL() const { return baseURL_; }
    const std::shared_ptr<net::HTTPSessionManager>& HTTPManager() const { return HTTPManager_; }

    /// GETs the archive's meta document, which must be a JSON object (else
    /// `TVKHTTPDataMissingError`). A missing or empty archive id fails at once, synchronously,
    /// with `TVKHTTPInvalidRequestError`; transport and HTTP errors arrive through
    /// `TVKUnwrappedError`.
    void getArchivedMessagesMetaByArchivedId(const std::optional<std::string>& archivedId,
                                             ObjectSuccess success, Failure failure);

    /// GETs one file of the archive, which must be a JSON array of messages (else
    /// `TVKHTTPDataMissingError`). Either id missing or empty: `TVKHTTPInvalidRequestError` at
    /// once; other errors as above.
    void getArchivedMessagesByArchivedId(const std::optional<std::string>& archivedId,
                                         const std::optional<std::string>& fileId,
                                         ArraySuccess success, Failure failure);

  private:
    using AnswerHandler = std::function<void(const boost::json::value&)>;

    void get(const std::string& path, AnswerHandler onAnswer, Failure failure);

    const std::optional<std::string> baseURL_;
    const bool reachable_;
    const std::shared_ptr<dispatch::Queue> completionQueue_;
    std::shared_ptr<net::HTTPSessionManager> HTTPManager_;
};

}  // namespace tavlo
