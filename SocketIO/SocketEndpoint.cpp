#include "SocketIO/SocketEndpoint.hpp"

#include <algorithm>
#include <boost/asio/ip/address.hpp>
#include <cctype>
#include <charconv>

#include "TavloCoreSDK/Internal/TVKPercentEncoding.hpp"

namespace tavlo::sio {
namespace {

std::string lowercase(std::string_view text) {
    std::string result(text);
    std::transform(result.begin(), result.end(), result.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return result;
}

std::optional<bool> isSecureScheme(std::string_view scheme) {
    std::string lower = lowercase(scheme);
    if (lower == "ws" || lower == "http") return false;
    if (lower == "wss" || lower == "https") return true;
    return std::nullopt;
}

// RFC 3986 "unreserved": the only characters a query or a host name carries unescaped.
bool isUnreserved(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' ||
           c == '.' || c == '_' || c == '~';
}

std::optional<std::uint16_t> parsePort(std::string_view text) {
    unsigned port = 0;
    auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), port);
    if (text.empty() || error != std::errc() || end != text.data() + text.size()) {
        return std::nullopt;
    }
    if (port == 0 || port > 65535) return std::nullopt;
    return static_cast<std::uint16_t>(port);
}

// Splits "host[:port]" or "[v6]:port" into its parts and checks them.
bool parseAuthority(std::string_view authority, SocketEndpoint& endpoint) {
    std::string_view portText;
    if (!authority.empty() && authority.front() == '[') {
        std::size_t close = authority.find(']');
        if (close == std::string_view::npos) return false;
        endpoint.host = std::string(authority.substr(1, close - 1));
        boost::system::error_code error;
        boost::asio::ip::make_address_v6(endpoint.host, error);
        if (error) return false;
        std::string_view rest = authority.substr(close + 1);
        if (!rest.empty()) {
            if (rest.front() != ':') return false;
            portText = rest.substr(1);
            if (portText.empty()) return false;
        }
    } else {
        std::size_t colon = authority.find(':');
        endpoint.host = std::string(authority.substr(0, colon));
        if (colon != std::string_view::npos) {
            portText = authority.substr(colon + 1);
            if (portText.empty()) return false;
        }
        if (!std::all_of(endpoint.host.begin(), endpoint.host.end(), isUnreserved)) {
            return false;
        }
    }
    if (endpoint.host.empty()) return false;
    endpoint.port = endpoint.secure ? 443 : 80;
    if (!portText.empty()) {
        auto port = parsePort(portText);
        if (!port) return false;
        endpoint.port = *port;
    }
    return true;
}

}  // namespace

std::optional<SocketEndpoint> SocketEndpoint::parse(std::string_view url) {
    std::size_t separator = url.find("://");
    if (separator == std::string_view::npos) return std::nullopt;
    auto secure = isSecureScheme(url.substr(0, separator));
    if (!secure) return std::nullopt;

    std::string_view rest = url.substr(separator + 3);
    std::string_view authority = rest.substr(0, rest.find_first_of("/?#"));
    // Credentials in the URL would end up in logs and error texts; the protocol has no use for
    // them.
    if (authority.find('@') != std::string_view::npos) return std::nullopt;

    SocketEndpoint endpoint;
    endpoint.secure = *secure;
    if (!parseAuthority(authority, endpoint)) return std::nullopt;
    return endpoint;
}

std::string SocketEndpoint::hostHeader() const {
    // Appended piece by piece: GCC 12 warns falsely (-Wrestrict) on "[" + host + "]" in release.
    std::string header;
    const bool ipv6 = host.find(':') != std::string::npos;
    if (ipv6) header.push_back('[');
    header.append(host);
    if (ipv6) header.push_back(']');
    if (port != (secure ? 443 : 80)) header.append(":").append(std::to_string(port));
    return header;
}

bool SocketEndpoint::hostIsAddress() const {
    boost::system::error_code error;
    boost::asio::ip::make_address(host, error);
    return !error;
}

std::string handshakeTarget(std::string_view path,
                            const std::map<std::string, std::string>& params) {
    std::string target;
    if (path.empty() || path.front() != '/') target.push_back('/');
    target += path;
    if (target.back() != '/') target.push_back('/');
    target += "?EIO=4&transport=websocket";
    for (const auto& [name, value] : params) {
        if (name == "EIO" || name == "transport") continue;
        target += '&' + percentEncode(name) + '=' + percentEncode(value);
    }
    return target;
}

}  // namespace tavlo::sio
