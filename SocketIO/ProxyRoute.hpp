#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "SocketIO/SocketEndpoint.hpp"

namespace tavlo::sio {

/// An HTTP proxy that opens tunnels with CONNECT.
struct ProxyServer {
    std::string host;  ///< without the brackets of an IPv6 literal
    std::uint16_t port = 1080;
    /// "user:password", percent-decoded, for the Proxy-Authorization header (basic scheme).
    std::optional<std::string> credentials;

    /// "host:port" without credentials, fit for logs and error texts.
    std::string describe() const;
};

/// How a connection reaches its server: straight, through a proxy, or not at all (the proxy
/// setting cannot be used; `problem` says why, without repeating the setting, which may hold
/// a password).
struct ProxyRoute {
    std::optional<ProxyServer> proxy;
    std::optional<std::string> problem;
};

/// Reads an environment variable; nullopt when unset.
using EnvironmentReader = std::function<std::optional<std::string>(const char* name)>;
/// The process environment.
EnvironmentReader processEnvironment();

/// Parses "[http://][user[:password]@]host[:port]" as libcurl does (no scheme means http, no
/// port means 1080). Other schemes (https, socks) are not offered for tunnels: nullopt.
std::optional<ProxyServer> parseProxyURL(std::string_view url);

/// The route to `target`. `configured` nullopt: the environment decides, read the way libcurl
/// reads it (for ws:// targets `http_proxy`, lower case only; for wss:// `https_proxy`, then
/// `HTTPS_PROXY`; then `all_proxy`, `ALL_PROXY`; `no_proxy`/`NO_PROXY` exempts hosts). An empty
/// `configured` means no proxy at all; any other value is the proxy for every host, whatever the
/// environment says.
ProxyRoute resolveProxyRoute(const SocketEndpoint& target,
                             const std::optional<std::string>& configured,
                             const EnvironmentReader& environment = processEnvironment());

/// Whether a no-proxy list exempts `host`, by libcurl's rules: comma (or blank) separated
/// entries; "*" exempts every host; a name matches itself and every name under it (a leading
/// dot is ignored, "example.com" covers "www.example.com"); an IP address matches itself, or a
/// range written in CIDR form ("10.0.0.0/8"). Names compare without regard to case; the target's
/// port plays no part.
bool noProxyExempts(std::string_view noProxyList, std::string_view host);

}  // namespace tavlo::sio
