#include "EmulatorControl.hpp"

#include <curl/curl.h>

#include <boost/json.hpp>
#include <memory>

namespace tavlo::chat {
namespace {

std::size_t collect(char* data, std::size_t size, std::size_t count, void* sink) {
    static_cast<std::string*>(sink)->append(data, size * count);
    return size * count;
}

std::string escaped(CURL* curl, const std::string& text) {
    std::unique_ptr<char, decltype(&curl_free)> escaped(
        curl_easy_escape(curl, text.c_str(), static_cast<int>(text.size())), curl_free);
    return escaped ? escaped.get() : "";
}

}  // namespace

EmulatorControl::EmulatorControl(std::string serviceURL, std::optional<std::string> caFile)
    : serviceURL_(std::move(serviceURL)), caFile_(std::move(caFile)) {
    while (!serviceURL_.empty() && serviceURL_.back() == '/') serviceURL_.pop_back();
}

EmulatorControl::Reply EmulatorControl::call(const std::string& path,
                                             const std::optional<std::string>& body) const {
    std::unique_ptr<CURL, decltype(&curl_easy_cleanup)> curl(curl_easy_init(), curl_easy_cleanup);
    if (!curl) return {std::nullopt, "cannot start a request"};
    const std::string url = serviceURL_ + "/_control/" + path;
    std::string answer;
    curl_slist* headers = curl_slist_append(nullptr, "Content-Type: application/json");
    curl_easy_setopt(curl.get(), CURLOPT_URL, url.c_str());
    curl_easy_setopt(curl.get(), CURLOPT_TIMEOUT_MS, 5000L);
    curl_easy_setopt(curl.get(), CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(curl.get(), CURLOPT_WRITEFUNCTION, collect);
    curl_easy_setopt(curl.get(), CURLOPT_WRITEDATA, &answer);
    curl_easy_setopt(curl.get(), CURLOPT_HTTPHEADER, headers);
    if (caFile_) curl_easy_setopt(curl.get(), CURLOPT_CAINFO, caFile_->c_str());
    if (body) curl_easy_setopt(curl.get(), CURLOPT_COPYPOSTFIELDS, body->c_str());
    const CURLcode result = curl_easy_perform(curl.get());
    curl_slist_free_all(headers);
    if (result != CURLE_OK) {
        return {std::nullopt, "the emulator's control API at " + serviceURL_ +
                                  " did not answer: " + curl_easy_strerror(result)};
    }
    long status = 0;
    curl_easy_getinfo(curl.get(), CURLINFO_RESPONSE_CODE, &status);
    boost::system::error_code error;
    auto json = boost::json::parse(answer, error);
    if (status != 200 || error) {
        return {std::nullopt, "the emulator's control API answered status " +
                                  std::to_string(status) + " to /_control/" +
                                  path.substr(0, path.find('/'))};
    }
    return {std::move(json), ""};
}

EmulatorControl::Answer EmulatorControl::jwtFrom(const Reply& reply) {
    if (!reply.json) return {std::nullopt, reply.error};
    const auto* object = reply.json->if_object();
    const auto* jwt = object ? object->if_contains("jwt") : nullptr;
    if (!jwt || !jwt->is_string()) return {std::nullopt, "the control API sent no JWT"};
    return {std::string(jwt->get_string()), ""};
}

EmulatorControl::Answer EmulatorControl::memberJWT(const std::string& memberId) const {
    std::unique_ptr<CURL, decltype(&curl_easy_cleanup)> curl(curl_easy_init(), curl_easy_cleanup);
    if (!curl) return {std::nullopt, "cannot start a request"};
    return jwtFrom(call("members/" + escaped(curl.get(), memberId) + "/jwt", std::nullopt));
}

EmulatorControl::Answer EmulatorControl::refreshedJWT(const std::string& expiredJWT) const {
    boost::json::object body{{"jwt", expiredJWT}};
    return jwtFrom(call("jwt/refresh", boost::json::serialize(body)));
}

}  // namespace tavlo::chat
