#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>

namespace tavlo::sio {

/// Where a Socket.IO server listens and how the WebSocket upgrade request addresses it.
struct SocketEndpoint {
    /// wss:// (TLS) rather than ws://.
    bool secure = false;
    /// Host name or IP address, without the brackets of an IPv6 literal.
    std::string host;
    std::uint16_t port = 0;

    /// Accepts http, https, ws and wss URLs (http maps to ws, https to wss); the URL's own path and
    /// query are ignored, since the resource path and the parameters are options of the client.
    static std::optional<SocketEndpoint> parse(std::string_view url);

    /// The Host header: the host, plus the port when it is not the scheme's default.
    std::string hostHeader() const;
    /// True when `host` is an IP literal (no SNI, and the certificate must name the address).
    bool hostIsAddress() const;
};

/// The request target of the Engine.IO WebSocket handshake: the resource path (with a trailing
/// slash, as the server expects) and the query "EIO=4&transport=websocket" followed by the
/// percent-encoded parameters. Parameters named "EIO" or "transport" are left out, so they cannot
/// break the handshake.
std::string handshakeTarget(std::string_view path,
                            const std::map<std::string, std::string>& params);

}  // namespace tavlo::sio
