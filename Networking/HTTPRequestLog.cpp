#include "Networking/HTTPRequestLog.hpp"

#include "Networking/HTTPTransfer.hpp"
#include "TavloCoreSDK/Internal/TVKLogLine.hpp"

namespace tavlo::net {

void logFinishedRequest(const TransferRequest& request, CURLcode code, long status, CURL* handle) {
    if (!log_line::enabled(TVKLogLevel::debug)) return;
    curl_off_t micros = 0;
    if (handle) curl_easy_getinfo(handle, CURLINFO_TOTAL_TIME_T, &micros);
    // Issued while debug lines were off: its URL was never made fit to be shown.
    const std::string& url = request.loggedURL.empty() ? "(URL not recorded)" : request.loggedURL;
    const auto duration = static_cast<double>(micros) / 1000.0;
    if (code != CURLE_OK) {
        TAVLO_LOG(debug, "http", HTTPMethodName(request.method), " ", url, " -> failed (",
                  curl_easy_strerror(code), ") in ", duration, " ms");
    } else {
        TAVLO_LOG(debug, "http", HTTPMethodName(request.method), " ", url, " -> ", status, " in ",
                  duration, " ms");
    }
}

}  // namespace tavlo::net
