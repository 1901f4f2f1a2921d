#include "Networking/HTTPSessionManager.hpp"

#include <curl/curl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <future>
#include <variant>

#include "Dispatch/SerialQueue.hpp"
#include "Networking/TVKNetworkError.hpp"
#include "tests/support/Emulator.hpp"

namespace tavlo::net {
namespace {

using boost::json::array;
using boost::json::object;
using boost::json::value;
using Outcome = std::variant<value, TVKError>;
using namespace std::chrono_literals;

constexpr auto kWaitLimit = 20s;

/// Issues a request and waits for its completion.
Outcome perform(HTTPSessionManager& manager, HTTPMethod method, const std::string& path,
                const object& parameters = {}) {
    auto promise = std::make_shared<std::promise<Outcome>>();
    auto future = promise->get_future();
    manager.request(
        method, path, parameters, [promise](const value& json) { promise->set_value(json); },
        [promise](const TVKError& error) { promise->set_value(error); });
    if (future.wait_for(kWaitLimit) != std::future_status::ready) {
        ADD_FAILURE() << "no completion for " << path;
        return TVKError("no completion", -1);
    }
    return future.get();
}

value successOf(const Outcome& outcome) {
    if (const auto* error = std::get_if<TVKError>(&outcome)) {
        ADD_FAILURE() << "unexpected failure " << error->describe();
        return nullptr;
    }
    return std::get<value>(outcome);
}

TVKError errorOf(const Outcome& outcome) {
    if (const auto* error = std::get_if<TVKError>(&outcome)) return *error;
    ADD_FAILURE() << "unexpected success " << boost::json::serialize(std::get<value>(outcome));
    return TVKError();
}


/// A port on which nothing listens (bound once, then released).
int closedPort() {
    int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    ::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address);
    ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
    ::close(fd);
    return ntohs(address.sin_port);
}

class HTTPSessionManagerTest : public test::EmulatorTest {
  protected:
    void SetUp() override {
        EmulatorTest::SetUp();
        manager = HTTPSessionManager::create(emulator().url());
    }

    /// The next `count` requests under `pathPrefix` answer `status` with `body`.
    void answerNext(const std::string& pathPrefix, long status, value body, int count = 1) {
        emulator().control("POST", "faults",
                           object{{"pathPrefix", pathPrefix},
                                  {"status", status},
                                  {"body", std::move(body)},
                                  {"count", count}});
    }

    object lastRequest(const std::string& pathPrefix) {
        auto requests = emulator().requests(pathPrefix);
        if (requests.empty()) return {};
        return requests.back().as_object();
    }

    std::shared_ptr<HTTPSessionManager> manager;
};

TEST_F(HTTPSessionManagerTest, QueryMethodsSendParametersInTheQuery) {
    const object parameters{{"userToken", "u t"}, {"roles", {"NORMAL", "MASTER"}}, {"n", 3}};
    for (HTTPMethod method : {HTTPMethod::Get, HTTPMethod::Delete}) {
        SCOPED_TRACE(HTTPMethodName(method));
        answerNext("/echo/", 200, object{{"ok", true}});
        EXPECT_EQ(successOf(perform(*manager, method, "/echo/TOKEN", parameters)),
                  (object{{"ok", true}}));
        auto logged = lastRequest("/echo/");
        EXPECT_EQ(logged["method"], HTTPMethodName(method));
        EXPECT_EQ(logged["path"], "/echo/TOKEN");
        EXPECT_EQ(
            logged["queryPairs"],
            (array{
                {"n", "3"}, {"roles[]", "NORMAL"}, {"roles[]", "MASTER"}, {"userToken", "u t"}}));
        EXPECT_TRUE(logged["body"].is_null());
    }
}

TEST_F(HTTPSessionManagerTest, BodyMethodsSendParametersAsJSON) {
    const object parameters{
        {"chatId", "c1"}, {"targetUsers", {object{{"name", "Zoë"}}}}, {"newSocket", true}};
    for (HTTPMethod method : {HTTPMethod::Post, HTTPMethod::Put}) {
        SCOPED_TRACE(HTTPMethodName(method));
        answerNext("/echo/", 201, array{1, 2});
        EXPECT_EQ(successOf(perform(*manager, method, "/echo/TOKEN", parameters)), (array{1, 2}));
        auto logged = lastRequest("/echo/");
        EXPECT_EQ(logged["method"], HTTPMethodName(method));
        EXPECT_EQ(logged["body"], parameters);
        EXPECT_EQ(logged["queryPairs"], array{});
        EXPECT_EQ(logged["headers"].at("content-type"), "application/json");
    }
}

TEST_F(HTTPSessionManagerTest, PathBeginningWithSlashReplacesBasePath) {
    manager = HTTPSessionManager::create(emulator().url() + "/some/base/");
    answerNext("/echo/", 200, object{});
    successOf(perform(*manager, HTTPMethod::Get, "/echo/x"));
    EXPECT_EQ(lastRequest("/")["path"], "/echo/x");
}

TEST_F(HTTPSessionManagerTest, DefaultHeadersAreSetAndRemoved) {
    manager->setHeader("X-Custom", "one");
    manager->setHeader("x-custom", "two");  // same header: names ignore case
    manager->setHeader("X-Empty", "");
    manager->setHeader("X-Smuggled", "a\r\nX-Injected: 1");
    EXPECT_EQ(manager->header("X-CUSTOM"), "two");
    EXPECT_EQ(manager->header("X-Smuggled"), std::nullopt);

    answerNext("/echo/", 200, object{}, 2);
    successOf(perform(*manager, HTTPMethod::Get, "/echo/1"));
    auto headers = lastRequest("/echo/")["headers"].as_object();
    EXPECT_EQ(headers["x-custom"], "two");
    EXPECT_EQ(headers["x-empty"], "");
    EXPECT_FALSE(headers.contains("x-injected"));

    manager->setHeader("X-Custom", std::nullopt);
    successOf(perform(*manager, HTTPMethod::Get, "/echo/2"));
    EXPECT_FALSE(lastRequest("/echo/")["headers"].as_object().contains("x-custom"));
}

TEST_F(HTTPSessionManagerTest, ErrorStatusKeepsStatusAndBody) {
    answerNext("/echo/", 409, object{{"code", "InvalidRequestError"}});
    auto error = errorOf(perform(*manager, HTTPMethod::Get, "/echo/TOKEN"));
    EXPECT_EQ(error.domain, kHTTPResponseErrorDomain);
    EXPECT_EQ(error.code, 409);
    EXPECT_EQ(error.failingResponseStatus, 409);
    ASSERT_TRUE(error.failingResponseData);
    EXPECT_EQ(boost::json::parse(*error.failingResponseData),
              (object{{"code", "InvalidRequestError"}}));
    EXPECT_FALSE(isNetworkError(error));

    // An unknown route of the service itself: its own 404 answer.
    auto notFound = errorOf(perform(*manager, HTTPMethod::Get, "/no-such-endpoint/"));
    EXPECT_EQ(notFound.code, 404);
    EXPECT_EQ(boost::json::parse(*notFound.failingResponseData).at("code"), "RouteNotFound");
}

TEST_F(HTTPSessionManagerTest, NonJSONSuccessIsAnErrorWithStatusAndBody) {
    emulator().control("POST", "faults",
                       object{{"pathPrefix", "/echo/"}, {"broken", true}, {"rawBody", "<html>"}});
    auto error = errorOf(perform(*manager, HTTPMethod::Get, "/echo/x"));
    EXPECT_EQ(error.domain, kHTTPResponseErrorDomain);
    EXPECT_EQ(error.code, 0);
    EXPECT_EQ(error.failingResponseStatus, 200);
    EXPECT_EQ(error.failingResponseData, "<html>");
}

TEST_F(HTTPSessionManagerTest, ServiceEndpointAnswersThroughTheManager) {
    manager->setHeader("X-RestAPI-Key", "Kp4Zr8Tn2Wq6Xv9Bc3Md");
    auto answer = successOf(perform(*manager, HTTPMethod::Get, "/api-tokens"));
    EXPECT_TRUE(answer.is_object() && answer.as_object().at("token").is_string());
}

TEST_F(HTTPSessionManagerTest, RefusedConnectionIsANetworkErrorWithoutSecrets) {
    auto refused = HTTPSessionManager::create("http://127.0.0.1:" + std::to_string(closedPort()));
    refused->setHeader("Authorization", "Bearer SECRET-JWT-VALUE");
    auto error = errorOf(perform(*refused, HTTPMethod::Get, "/chat-meta/SECRET-API-TOKEN",
                                 object{{"userToken", "SECRET-USER-TOKEN"}}));
    EXPECT_EQ(error.domain, kTVKURLErrorDomain);
    EXPECT_EQ(error.code, CURLE_COULDNT_CONNECT);
    EXPECT_TRUE(isNetworkError(error));
    EXPECT_EQ(error.describe().find("SECRET"), std::string::npos) << error.describe();
}

TEST_F(HTTPSessionManagerTest, DroppedConnectionIsANetworkError) {
    // Several drops: libcurl sends a GET again when a reused connection closes without an
    // answer (that is how a stale keep-alive connection looks), once per pooled connection.
    emulator().control("POST", "faults",
                       object{{"pathPrefix", "/echo/"}, {"drop", true}, {"count", 10}});
    auto error = errorOf(perform(*manager, HTTPMethod::Get, "/echo/x"));
    EXPECT_EQ(error.domain, kTVKURLErrorDomain);
    EXPECT_TRUE(isNetworkError(error)) << error.describe();
}

TEST_F(HTTPSessionManagerTest, SlowAnswerTimesOut) {
    emulator().control("POST", "delays", object{{"pathPrefix", "/slow/"}, {"ms", 3000}});
    manager->setTimeout(300ms);
    const auto started = std::chrono::steady_clock::now();
    auto error = errorOf(perform(*manager, HTTPMethod::Get, "/slow/x"));
    EXPECT_EQ(error.code, CURLE_OPERATION_TIMEDOUT);
    EXPECT_TRUE(isNetworkError(error));
    EXPECT_LT(std::chrono::steady_clock::now() - started, 2500ms);
}

TEST_F(HTTPSessionManagerTest, CompletionRunsOnTheChosenQueueNeverOnTheCallersStack) {
    auto queue = dispatch::SerialQueue::create("test.completions");
    manager->setCompletionQueue(queue);
    answerNext("/echo/", 200, object{});
    auto refused = HTTPSessionManager::create("http://127.0.0.1:" + std::to_string(closedPort()));
    refused->setCompletionQueue(queue);
    auto done = std::make_shared<std::promise<void>>();
    auto completions = std::make_shared<std::atomic<int>>(0);
    auto issued = std::make_shared<bool>(false);
    auto check = [=] {
        // Issued from a task of the same serial queue: a completion run on the caller's stack
        // would run before that task ends and see `issued` false.
        EXPECT_TRUE(*issued);
        EXPECT_TRUE(queue->isCurrent());
        if (++*completions == 2) done->set_value();
    };
    queue->async([=, this] {
        manager->request(
            HTTPMethod::Get, "/echo/x", {}, [=](const value&) { check(); },
            [](const TVKError& error) { ADD_FAILURE() << error.describe(); });
        refused->request(
            HTTPMethod::Get, "/x", {}, [](const value&) { ADD_FAILURE(); },
            [=](const TVKError&) { check(); });
        *issued = true;
    });
    ASSERT_EQ(done->get_future().wait_for(kWaitLimit), std::future_status::ready);
}

TEST_F(HTTPSessionManagerTest, RequestOutlivesReleasedManager) {
    emulator().control("POST", "delays", object{{"pathPrefix", "/slow/"}, {"ms", 300}});
    answerNext("/slow/", 200, object{{"late", true}});
    auto answered = std::make_shared<std::promise<value>>();
    manager->request(
        HTTPMethod::Get, "/slow/x", {},
        [answered](const value& json) { answered->set_value(json); },
        [](const TVKError& error) { ADD_FAILURE() << error.describe(); });
    manager.reset();
    auto future = answered->get_future();
    ASSERT_EQ(future.wait_for(kWaitLimit), std::future_status::ready);
    EXPECT_EQ(future.get(), (object{{"late", true}}));
}

TEST_F(HTTPSessionManagerTest, ConcurrentRequestsAllComplete) {
    constexpr int kRequests = 40;
    answerNext("/echo/", 200, object{{"ok", true}}, kRequests);
    std::vector<std::future<Outcome>> futures;
    for (int i = 0; i < kRequests; ++i) {
        futures.push_back(std::async(std::launch::async, [this, i] {
            return perform(*manager, HTTPMethod::Get, "/echo/" + std::to_string(i));
        }));
    }
    for (auto& future : futures) EXPECT_EQ(successOf(future.get()), (object{{"ok", true}}));
    EXPECT_EQ(emulator().requests("/echo/").size(), static_cast<size_t>(kRequests));
}

TEST(HTTPSessionManagerInputTest, UnusableURLsFailWithAClearError) {
    struct Case {
        const char* base;
        const char* path;
        CURLcode expected;
    };
    const Case cases[] = {
        {"", "/x", CURLE_URL_MALFORMAT},
        {"not a url", "x", CURLE_URL_MALFORMAT},
        {"ftp://127.0.0.1", "/x", CURLE_UNSUPPORTED_PROTOCOL},
        {"file:///etc", "/passwd", CURLE_UNSUPPORTED_PROTOCOL},
    };
    for (const auto& testCase : cases) {
        auto manager = HTTPSessionManager::create(testCase.base);
        auto error = errorOf(perform(*manager, HTTPMethod::Get, testCase.path));
        EXPECT_EQ(error.domain, kTVKURLErrorDomain) << testCase.base;
        EXPECT_EQ(error.code, testCase.expected) << testCase.base << " " << error.describe();
    }
}

class HTTPSessionManagerTLSTest : public test::TLSEmulatorTest {
  protected:
    void SetUp() override {
        TLSEmulatorTest::SetUp();
        emulator().control(
            "POST", "faults",
            object{{"pathPrefix", "/echo/"}, {"status", 200}, {"body", object{}}, {"count", 10}});
        manager = HTTPSessionManager::create(emulator().url());
    }
    std::shared_ptr<HTTPSessionManager> manager;
};

TEST_F(HTTPSessionManagerTLSTest, TrustedCertificateWorks) {
    ASSERT_TRUE(emulator().caFile());
    manager->setCAFile(*emulator().caFile());
    EXPECT_EQ(successOf(perform(*manager, HTTPMethod::Post, "/echo/x", object{{"a", 1}})),
              object{});
}

TEST_F(HTTPSessionManagerTLSTest, UntrustedCertificateIsANetworkError) {
    auto error = errorOf(perform(*manager, HTTPMethod::Get, "/echo/x"));
    EXPECT_EQ(error.domain, kTVKURLErrorDomain);
    EXPECT_EQ(error.code, CURLE_PEER_FAILED_VERIFICATION);
    EXPECT_TRUE(isNetworkError(error));
    EXPECT_TRUE(emulator().requests("/echo/").empty());
}

TEST_F(HTTPSessionManagerTLSTest, UnreadableCAFileFailsInsteadOfTrustingLess) {
    manager->setCAFile("/nonexistent/ca.pem");
    auto error = errorOf(perform(*manager, HTTPMethod::Get, "/echo/x"));
    EXPECT_EQ(error.code, CURLE_SSL_CACERT_BADFILE);
    manager->setCAFile(*emulator().caFile());
    successOf(perform(*manager, HTTPMethod::Get, "/echo/x"));
}

}  // namespace
}  // namespace tavlo::net
