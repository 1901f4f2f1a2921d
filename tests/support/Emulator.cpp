#include "tests/support/Emulator.hpp"

#include <curl/curl.h>

#include <chrono>
#include <csignal>
#include <stdexcept>

#include "Networking/HTTPSessionManager.hpp"
#include "TavloCoreSDK/Internal/TVKPercentEncoding.hpp"
#include "TavloCoreSDK/TVKSDKAuthManager.hpp"

namespace tavlo::test {
namespace {

constexpr auto kStartTimeout = std::chrono::seconds(30);
constexpr long kControlTimeoutMilliseconds = 30000;

std::runtime_error failure(const std::string& what) {
    return std::runtime_error("emulator: " + what);
}

std::vector<std::string> commandLine(bool tls, std::vector<std::string> extraArguments) {
    std::vector<std::string> arguments = {TAVLO_SOURCE_DIR "/emulator/server.js", "--port", "0"};
    if (tls) arguments.emplace_back("--tls");
    arguments.insert(arguments.end(), extraArguments.begin(), extraArguments.end());
    return arguments;
}

size_t collect(char* data, size_t size, size_t count, void* context) {
    static_cast<std::string*>(context)->append(data, size * count);
    return size * count;
}

std::string controlURL(const std::string& base, const std::string& path) {
    return base + (path.starts_with('/') ? path : "/_control/" + path);
}

struct Answer {
    long status = 0;
    std::string body;
};

using CurlHandle = std::unique_ptr<CURL, decltype(&curl_easy_cleanup)>;
using HeaderList = std::unique_ptr<curl_slist, decltype(&curl_slist_free_all)>;

/// A blocking request for the control API; tests only.
Answer blockingRequest(const std::string& method, const std::string& url,
                       const std::string& payload, const std::optional<std::string>& caFile) {
    CurlHandle handle(curl_easy_init(), curl_easy_cleanup);
    HeaderList headers(curl_slist_append(nullptr, "Content-Type: application/json"),
                       curl_slist_free_all);
    if (!handle || !headers) throw failure("no curl handle");
    CURL* curl = handle.get();
    Answer answer;
    curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
    curl_easy_setopt(curl, CURLOPT_CUSTOMREQUEST, method.c_str());
    curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(curl, CURLOPT_TIMEOUT_MS, kControlTimeoutMilliseconds);
    curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, collect);
    curl_easy_setopt(curl, CURLOPT_WRITEDATA, &answer.body);
    if (caFile) curl_easy_setopt(curl, CURLOPT_CAINFO, caFile->c_str());
    if (!payload.empty()) {
        curl_easy_setopt(curl, CURLOPT_HTTPHEADER, headers.get());
        curl_easy_setopt(curl, CURLOPT_POSTFIELDSIZE, static_cast<long>(payload.size()));
        curl_easy_setopt(curl, CURLOPT_POSTFIELDS, payload.c_str());
    }
    if (CURLcode code = curl_easy_perform(curl)) {
        throw failure(method + " " + url + ": " + curl_easy_strerror(code));
    }
    curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &answer.status);
    return answer;
}

}  // namespace

Emulator::Emulator(bool tls, std::vector<std::string> extraArguments)
    : process_("emulator", commandLine(tls, std::move(extraArguments))) {
    static const CURLcode curlReady = curl_global_init(CURL_GLOBAL_DEFAULT);
    if (curlReady != CURLE_OK) throw failure("libcurl did not initialise");
    adopt(boost::json::parse(process_.readLine(kStartTimeout)));
    process_.discardOutput();
}

void Emulator::adopt(const boost::json::value& announcement) {
    const auto& object = announcement.as_object();
    url_ = std::string(object.at("url").as_string());
    port_ = static_cast<int>(object.at("port").to_number<int64_t>());
    tls_ = object.at("tls").as_bool();
    if (const auto* caFile = object.at("caFile").if_string()) caFile_ = std::string(*caFile);
    socketPath_ = std::string(object.at("socketPath").as_string());
}

boost::json::value Emulator::control(const std::string& method, const std::string& path,
                                     const boost::json::value& body) const {
    const std::string payload = body.is_null() ? std::string() : boost::json::serialize(body);
    auto [status, answer] = blockingRequest(method, controlURL(url_, path), payload, caFile_);
    if (status < 200 || status > 299) {
        throw failure(method + " " + path + " answered " + std::to_string(status) + " " + answer);
    }
    return boost::json::parse(answer);
}

boost::json::array Emulator::requests(const std::string& pathPrefix) const {
    std::string path = "requests?kind=http";
    if (!pathPrefix.empty()) path += "&pathPrefix=" + percentEncode(pathPrefix);
    return control("GET", path).at("requests").as_array();
}

void Emulator::clearRequests() const {
    control("DELETE", "requests");
}

void Emulator::reset() const {
    control("POST", "reset");
}

void Emulator::kill() {
    process_.stop(SIGKILL);
}

// --- EmulatorTest ---

std::unique_ptr<Emulator>& EmulatorTest::suiteEmulator() {
    static std::unique_ptr<Emulator> emulator;
    return emulator;
}

std::string& EmulatorTest::startFailure() {
    static std::string text;
    return text;
}

void EmulatorTest::startSuiteEmulator(bool tls, std::vector<std::string> extraArguments) {
    stopSuiteEmulator();
    try {
        suiteEmulator() = std::make_unique<Emulator>(tls, std::move(extraArguments));
        startFailure().clear();
    } catch (const std::exception& error) {
        startFailure() = error.what();
    }
}

void EmulatorTest::stopSuiteEmulator() {
    suiteEmulator().reset();
}

void EmulatorTest::SetUp() {
    ASSERT_TRUE(suiteEmulator()) << "the emulator did not start: " << startFailure();
    emulator().reset();
}

void EmulatorTest::TearDown() {
    TVKSDKAuthManager::sharedManager().setMemberTokenRefresher({});
}

std::string text(const boost::json::value& value) {
    return value.is_string() ? std::string(value.get_string()) : boost::json::serialize(value);
}

std::string EmulatorTest::jwtOf(const std::string& memberId) {
    return text(emulator().control("GET", "members/" + memberId + "/jwt").at("jwt"));
}

void EmulatorTest::useDemoAccount() {
    auto& auth = TVKSDKAuthManager::sharedManager();
    auth.setAccountId("demo-account");
    auth.setAccountToken("demo-account-token");
}

void EmulatorTest::refreshMemberTokensThroughEmulator(std::function<void()> onRefresh) {
    TVKSDKAuthManager::sharedManager().setMemberTokenRefresher(
        [onRefresh](const std::optional<std::string>& jwt, auto success, auto failure) {
            if (onRefresh) onRefresh();
            try {
                auto answer = emulator().control("POST", "jwt/refresh",
                                                 boost::json::object{{"jwt", jwt.value_or("")}});
                success(std::string(answer.at("jwt").as_string()));
            } catch (const std::exception&) {
                failure(TVKError("TestRefresh", 1));
            }
        });
}

Emulator& EmulatorTest::emulator() {
    return *suiteEmulator();
}

}  // namespace tavlo::test
