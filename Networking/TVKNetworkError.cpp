#include "Networking/TVKNetworkError.hpp"

#include <curl/curl.h>

#include <algorithm>
#include <array>

namespace tavlo {

bool isNetworkError(const TVKError& error) {
    static constexpr std::array kConnectivityCodes = {
        CURLE_COULDNT_RESOLVE_PROXY, CURLE_COULDNT_RESOLVE_HOST, CURLE_COULDNT_CONNECT,
        CURLE_OPERATION_TIMEDOUT,    CURLE_SSL_CONNECT_ERROR,    CURLE_GOT_NOTHING,
        CURLE_SEND_ERROR,            CURLE_RECV_ERROR,           CURLE_PARTIAL_FILE,
        CURLE_PEER_FAILED_VERIFICATION, CURLE_SSL_CACERT_BADFILE, CURLE_HTTP2,
        CURLE_HTTP2_STREAM,          CURLE_NO_CONNECTION_AVAILABLE,
    };
    if (error.domain != kTVKURLErrorDomain) return false;
    return std::any_of(kConnectivityCodes.begin(), kConnectivityCodes.end(),
                       [&](CURLcode code) { return error.code == static_cast<long>(code); });
}

}  // namespace tavlo
