#include "TavloMessagingSDK/Internal/TVKMessagingHTTPClient.hpp"

#include "TavloCoreSDK/Internal/TVKDevice.hpp"
#include "TavloCoreSDK/Internal/TVKLogLine.hpp"
#include "TavloCoreSDK/TVKSDKAuthManager.hpp"
#include "TavloMessagingSDK/Internal/TVKJWTExpiry.hpp"
#include "TavloMessagingSDK/Internal/TVKMessagingError.hpp"
#include "TavloMessagingSDK/TVKMSGUtility.hpp"

namespace tavlo {

namespace {
constexpr const char* kRestAPIKeyHeader = "X-RestAPI-Key";
constexpr const char* kAuthorizationHeader = "Authorization";

/// The query parameters whose values the debug log shows: names, ids, paging and filters. The
/// user token, and anything added later, is shown as "***".
std::set<std::string, std::less<>> loggedQueryNames() {
    return {"channelCode", "platform", "return_sticker",   "chatId",
            "roles",       "statuses", "targetUserLabels", "populateCreator",
            "count",       "offset",   "oldestDate",       "latestDate",
            "order",       "msgType",  "messageId",        "keys"};
}
}  // namespace

void setSDKDefaultHeaders(net::HTTPSessionManager& manager) {
    manager.setHeader("Content-Type", "application/json");
    manager.setHeader("X-SDK-Version",
                      "iOS v" + TVKMessagingUtility::sdkVersion().value_or("") + " Messaging");
    manager.setHeader("User-Agent",
                      net::HTTPSessionManager::defaultUserAgent() + " " + hardwareString());
}

std::shared_ptr<TVKMessagingHTTPClient> TVKMessagingHTTPClient::create(
    const std::string& baseURL, std::shared_ptr<dispatch::Queue> completionQueue,
    std::optional<std::string> caFile) {
    return std::make_shared<TVKMessagingHTTPClient>(baseURL, std::move(completionQueue),
                                                    std::move(caFile));
}

TVKMessagingHTTPClient::TVKMessagingHTTPClient(const std::string& baseURL,
                                               std::shared_ptr<dispatch::Queue> completionQueue,
                                               std::optional<std::string> caFile)
    : HTTPManager_(net::HTTPSessionManager::create(baseURL)) {
    if (completionQueue) HTTPManager_->setCompletionQueue(std::move(completionQueue));
    HTTPManager_->setCAFile(std::move(caFile));
    HTTPManager_->setLoggedQueryNames(loggedQueryNames());
    setSDKDefaultHeaders(*HTTPManager_);
}

std::optional<std::string> TVKMessagingHTTPClient::APIToken() const {
    std::lock_guard lock(mutex_);
    return APIToken_;
}

std::optional<std::string> TVKMessagingHTTPClient::JWT() const {
    std::lock_guard lock(mutex_);
    return JWT_;
}

void TVKMessagingHTTPClient::setAuthorizationToken(std::optional<std::string> jwt) {
    std::lock_guard lock(mutex_);
    HTTPManager_->setHeader(kAuthorizationHeader,
                            jwt ? std::optional<std::string>("Bearer " + *jwt) : std::nullopt);
    JWT_ = std::move(jwt);
}

void TVKMessagingHTTPClient::refreshAPIToken(Success success, Failure failure) {
    std::weak_ptr<TVKMessagingHTTPClient> weakSelf = weak_from_this();
    auto onAnswer = [weakSelf, success, failure](const boost::json::value& answer) {
        const auto* object = answer.if_object();
        const auto* token = object ? object->if_contains("token") : nullptr;
        if (!token || !token->is_string()) {
            if (failure) failure(TVKHTTPDataMissingError());
            return;
        }
        if (auto self = weakSelf.lock()) {
            std::lock_guard lock(self->mutex_);
            self->APIToken_ = std::string(token->get_string());
        }
        if (success) success();
    };
    auto onFailure = [failure](const TVKError& error) {
        if (failure) failure(TVKUnwrappedError(error));
    };
    // The key is set, the request built and the key removed in one locked stretch, so that no
    // other request of this client can ever carry it.
    std::lock_guard lock(mutex_);
    HTTPManager_->setHeader(kRestAPIKeyHeader, kRestAPIKey);
    HTTPManager_->request(net::HTTPMethod::Get, "/api-tokens", {}, onAnswer, onFailure);
    HTTPManager_->setHeader(kRestAPIKeyHeader, std::nullopt);
}

void TVKMessagingHTTPClient::handleInvalidRequestError(const TVKError& error,
                                                       Success tokenRefreshed, Failure fallback) {
    auto reportTo = [fallback](const TVKError& refreshError) {
        if (fallback) fallback(refreshError);
    };
    if (isTVKHTTPInvalidRequestError(error)) {
        TAVLO_LOG(info, "http", "API token missing or refused: fetching a new one, then retrying");
        std::weak_ptr<TVKMessagingHTTPClient> weakSelf = weak_from_this();
        auto onAPIToken = [weakSelf, tokenRefreshed] {
            auto self = weakSelf.lock();
            if (!self) return;
            self->renewExpiredJWTThen(tokenRefreshed);
        };
        refreshAPIToken(onAPIToken, reportTo);
        return;
    }
    if (isTVKHTTPUnauthorizedError(error)) {
        TAVLO_LOG(info, "http", "member JWT refused: asking the application for a new one");
        refreshJWT(tokenRefreshed, reportTo);
        return;
    }
    reportTo(error);
}

void TVKMessagingHTTPClient::refreshJWT(Success success, Failure failure) {
    std::weak_ptr<TVKMessagingHTTPClient> weakSelf = weak_from_this();
    auto onToken = [weakSelf, success](const std::string& newJWT) {
        if (auto self = weakSelf.lock()) self->setAuthorizationToken(newJWT);
        if (success) success();
    };
    TVKSDKAuthManager::sharedManager().refreshMemberToken(JWT(), onToken, std::move(failure));
}

void TVKMessagingHTTPClient::renewExpiredJWTThen(Success resend) {
    // The service checks the API token first: a request whose API token and JWT have both gone
    // stale (a device that slept for hours) is refused for the API token alone. Sent again with
    // the old JWT it would be refused once more, for the JWT, with no repair left. A JWT whose
    // own expiry has passed is therefore renewed before the one resend, so that one repair stays
    // two requests on the wire.
    const auto jwt = JWT();
    if (!jwt || !jwtHasExpired(*jwt, std::chrono::system_clock::now())) {
        if (resend) resend();
        return;
    }
    TAVLO_LOG(info, "http", "member JWT expired too: asking the application for a new one first");
    // Without a new JWT the request still goes out: the service is the judge of the old one.
    refreshJWT(resend, [resend](const TVKError& error) {
        TAVLO_LOG(info, "http", "JWT renewal failed (", error.describe(), "), sending anyway");
        if (resend) resend();
    });
}

void TVKMessagingHTTPClient::call(net::HTTPMethod method, const std::string& path,
                                  boost::json::object parameters, AnswerHandler onAnswer,
                                  Failure failure) {
    std::unique_lock lock(mutex_);
    if (!APIToken_) {
        lock.unlock();
        if (failure) failure(TVKHTTPInvalidRequestError());
        return;
    }
    auto onFailure = [failure](const TVKError& error) {
        if (failure) failure(TVKUnwrappedError(error));
    };
    HTTPManager_->request(method, path + *APIToken_, parameters, std::move(onAnswer), onFailure,
                          *APIToken_);
}

void TVKMessagingHTTPClient::callWithoutResult(net::HTTPMethod method, const std::string& path,
                                               boost::json::object parameters, Success success,
                                               Failure failure) {
    call(
        method, path, std::move(parameters),
        [success](const boost::json::value&) {
            if (success) success();
        },
        std::move(failure));
}

void TVKMessagingHTTPClient::callForArray(net::HTTPMethod method, const std::string& path,
                                          boost::json::object parameters, const char* member,
                                          ArraySuccess success, Failure failure) {
    auto onAnswer = [member, success, failure](const boost::json::value& answer) {
        const auto* object = answer.if_object();
        const auto* value = object ? object->if_contains(member) : nullptr;
        if (!value || !value->is_array()) {
            if (failure) failure(TVKHTTPDataMissingError());
            return;
        }
        if (success) success(value->get_array());
    };
    call(method, path, std::move(parameters), onAnswer, std::move(failure));
}

bool TVKMessagingHTTPClient::socketConfigHasRequiredKeys(const boost::json::object& socket) const {
    return socket.contains("host") && socket.contains("path") && socket.contains("query");
}

bool TVKMessagingHTTPClient::isMessageTypeCorrectWithMsgType(const std::string& msgType,
                                                             const boost::json::value& message) {
    if (msgType == "text" || msgType == "aggregate") return message.is_string();
    // Deliberately examines the type string rather than the message: a string is never an array
    // nor an object, so every raw message passes.
    if (msgType == "raw") return true;
    return false;
}

}  // namespace tavlo
