#include "TavloMessagingSDK/Internal/TVKArcmsgHTTPClient.hpp"

#include <curl/curl.h>

#include <algorithm>
#include <cctype>

#include "Networking/TVKNetworkError.hpp"
#include "TavloCoreSDK/Internal/TVKPercentEncoding.hpp"
#include "TavloMessagingSDK/Internal/TVKMessagingError.hpp"
#include "TavloMessagingSDK/Internal/TVKMessagingHTTPClient.hpp"
#include "TavloMessagingSDK/TVKMSGUtility.hpp"

namespace tavlo {

namespace {

bool startsWithIgnoringCase(std::string_view text, std::string_view prefix) {
    return text.size() >= prefix.size() &&
           std::equal(prefix.begin(), prefix.end(), text.begin(), [](char a, char b) {
               return std::tolower(static_cast<unsigned char>(a)) ==
                      std::tolower(static_cast<unsigned char>(b));
           });
}

// A base URL without an http(s) scheme would make every path a scheme-less reference, which the
// transfer library would take for a host name and try to look up.
bool isAbsoluteHTTPURL(const std::optional<std::string>& url) {
    return url &&
           (startsWithIgnoringCase(*url, "http://") || startsWithIgnoringCase(*url, "https://"));
}

bool isPresent(const std::optional<std::string>& id) {
    return id && !id->empty();
}

// Ids become path segments: encoding them keeps an id holding "/", "?" or "#" inside its segment.
std::string segment(const std::string& id) {
    return percentEncode(id);
}

TVKError malformedURLError() {
    TVKError error(kTVKURLErrorDomain, CURLE_URL_MALFORMAT);
    error.localizedDescription = curl_easy_strerror(CURLE_URL_MALFORMAT);
    return error;
}

}  // namespace

std::shared_ptr<TVKArcmsgHTTPClient> TVKArcmsgHTTPClient::create(
    std::optional<std::string> baseURL, std::shared_ptr<dispatch::Queue> completionQueue,
    std::optional<std::string> caFile) {
    return std::make_shared<TVKArcmsgHTTPClient>(std::move(baseURL), std::move(completionQueue),
                                                 std::move(caFile));
}

TVKArcmsgHTTPClient::TVKArcmsgHTTPClient(std::optional<std::string> baseURL,
                                         std::shared_ptr<dispatch::Queue> completionQueue,
                                         std::optional<std::string> caFile)
    : baseURL_(std::move(baseURL)),
      reachable_(isAbsoluteHTTPURL(baseURL_)),
      completionQueue_(completionQueue ? std::move(completionQueue) : dispatch::globalQueue()),
      HTTPManager_(net::HTTPSessionManager::create(baseURL_.value_or(""))) {
    HTTPManager_->setCompletionQueue(completionQueue_);
    HTTPManager_->setCAFile(std::move(caFile));
    setSDKDefaultHeaders(*HTTPManager_);
}

void TVKArcmsgHTTPClient::getArchivedMessagesMetaByArchivedId(
    const std::optional<std::string>& archivedId, ObjectSuccess success, Failure failure) {
    if (!isPresent(archivedId)) {
        if (failure) failure(TVKHTTPInvalidRequestError());
        return;
    }
    auto onAnswer = [success, failure](const boost::json::value& answer) {
        if (!answer.is_object()) {
            if (failure) failure(TVKHTTPDataMissingError());
            return;
        }
        if (success) success(answer.get_object());
    };
    get(segment(*archivedId) + "/meta", onAnswer, std::move(failure));
}

void TVKArcmsgHTTPClient::getArchivedMessagesByArchivedId(
    const std::optional<std::string>& archivedId, const std::optional<std::string>& fileId,
    ArraySuccess success, Failure failure) {
    if (!isPresent(archivedId) || !isPresent(fileId)) {
        if (failure) failure(TVKHTTPInvalidRequestError());
        return;
    }
    auto onAnswer = [success, failure](const boost::json::value& answer) {
        if (!answer.is_array()) {
            if (failure) failure(TVKHTTPDataMissingError());
            return;
        }
        if (success) success(answer.get_array());
    };
    get(segment(*archivedId) + "/" + segment(*fileId), onAnswer, std::move(failure));
}

void TVKArcmsgHTTPClient::get(const std::string& path, AnswerHandler onAnswer, Failure failure) {
    if (!reachable_) {
        completionQueue_->async([failure] {
            if (failure) failure(malformedURLError());
        });
        return;
    }
    auto onFailure = [failure](const TVKError& error) {
        if (failure) failure(TVKUnwrappedError(error));
    };
    HTTPManager_->request(net::HTTPMethod::Get, path, {}, std::move(onAnswer), onFailure);
}

}  // namespace tavlo
