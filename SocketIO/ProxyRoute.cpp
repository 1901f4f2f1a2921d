#include "SocketIO/ProxyRoute.hpp"

#include <algorithm>
#include <array>
#include <boost/asio/ip/address.hpp>
#include <cctype>
#include <charconv>
#include <cstdlib>

namespace tavlo::sio {
namespace {

namespace ip = boost::asio::ip;

std::string lowercase(std::string_view text) {
    std::string result(text);
    std::transform(result.begin(), result.end(), result.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return result;
}

int hexValue(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

std::optional<std::string> percentDecode(std::string_view text) {
    std::string decoded;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '%') {
            decoded.push_back(text[i]);
            continue;
        }
        if (i + 2 >= text.size()) return std::nullopt;
        const int high = hexValue(text[i + 1]);
        const int low = hexValue(text[i + 2]);
        if (high < 0 || low < 0) return std::nullopt;
        decoded.push_back(static_cast<char>(high * 16 + low));
        i += 2;
    }
    return decoded;
}

std::optional<std::uint16_t> parsePort(std::string_view text) {
    unsigned port = 0;
    auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), port);
    if (text.empty() || error != std::errc() || end != text.data() + text.size() || port == 0 ||
        port > 65535) {
        return std::nullopt;
    }
    return static_cast<std::uint16_t>(port);
}

bool isHostCharacter(unsigned char c) {
    return std::isalnum(c) || c == '-' || c == '.' || c == '_';
}

// "host[:port]" or "[v6][:port]".
bool parseHostAndPort(std::string_view authority, ProxyServer& proxy) {
    std::string_view portText;
    if (!authority.empty() && authority.front() == '[') {
        const auto close = authority.find(']');
        if (close == std::string_view::npos) return false;
        proxy.host = std::string(authority.substr(1, close - 1));
        boost::system::error_code error;
        ip::make_address_v6(proxy.host, error);
        if (error) return false;
        auto rest = authority.substr(close + 1);
        if (!rest.empty() && (rest.front() != ':' || rest.size() == 1)) return false;
        if (!rest.empty()) portText = rest.substr(1);
    } else {
        const auto colon = authority.find(':');
        proxy.host = std::string(authority.substr(0, colon));
        if (colon != std::string_view::npos) {
            portText = authority.substr(colon + 1);
            if (portText.empty()) return false;
        }
        if (!std::all_of(proxy.host.begin(), proxy.host.end(),
                         [](unsigned char c) { return isHostCharacter(c); })) {
            return false;
        }
    }
    if (proxy.host.empty()) return false;
    if (portText.empty()) return true;
    auto port = parsePort(portText);
    if (!port) return false;
    proxy.port = *port;
    return true;
}

std::optional<std::string> firstSet(const EnvironmentReader& environment,
                                    std::initializer_list<const char*> names) {
    for (const char* name : names) {
        if (auto value = environment(name)) return value;
    }
    return std::nullopt;
}

std::string_view trimmed(std::string_view text) {
    while (!text.empty() && std::isspace(static_cast<unsigned char>(text.front()))) {
        text.remove_prefix(1);
    }
    while (!text.empty() && std::isspace(static_cast<unsigned char>(text.back()))) {
        text.remove_suffix(1);
    }
    return text;
}

// An address entry, possibly with "/bits", against an address host.
bool addressMatches(std::string_view entry, const ip::address& host) {
    const auto slash = entry.find('/');
    boost::system::error_code error;
    const auto network = ip::make_address(std::string(entry.substr(0, slash)), error);
    if (error || network.is_v4() != host.is_v4()) return false;
    const unsigned width = network.is_v4() ? 32 : 128;
    unsigned bits = width;
    if (slash != std::string_view::npos) {
        auto text = entry.substr(slash + 1);
        auto [end, parseError] = std::from_chars(text.data(), text.data() + text.size(), bits);
        if (parseError != std::errc() || end != text.data() + text.size() || bits > width) {
            return false;
        }
    }
    std::array<unsigned char, 16> a{}, b{};
    if (network.is_v4()) {
        auto x = network.to_v4().to_bytes(), y = host.to_v4().to_bytes();
        std::copy(x.begin(), x.end(), a.begin());
        std::copy(y.begin(), y.end(), b.begin());
    } else {
        auto x = network.to_v6().to_bytes(), y = host.to_v6().to_bytes();
        std::copy(x.begin(), x.end(), a.begin());
        std::copy(y.begin(), y.end(), b.begin());
    }
    for (unsigned bit = 0; bit < bits; ++bit) {
        const unsigned mask = 0x80u >> (bit % 8);
        if ((a[bit / 8] & mask) != (b[bit / 8] & mask)) return false;
    }
    return true;
}

// A name entry against a host name: the name itself or any name under it.
bool nameMatches(std::string_view entry, std::string_view host) {
    if (!entry.empty() && entry.front() == '.') entry.remove_prefix(1);
    if (!entry.empty() && entry.back() == '.') entry.remove_suffix(1);
    if (entry.empty()) return false;
    const auto name = lowercase(entry);
    if (host == name) return true;
    return host.size() > name.size() && host.ends_with(name) &&
           host[host.size() - name.size() - 1] == '.';
}

}  // namespace

std::string ProxyServer::describe() const {
    const bool v6 = host.find(':') != std::string::npos;
    return (v6 ? "[" + host + "]" : host) + ":" + std::to_string(port);
}

EnvironmentReader processEnvironment() {
    return [](const char* name) -> std::optional<std::string> {
        const char* value = std::getenv(name);
        if (!value) return std::nullopt;
        return std::string(value);
    };
}

std::optional<ProxyServer> parseProxyURL(std::string_view url) {
    url = trimmed(url);
    if (const auto scheme = url.find("://"); scheme != std::string_view::npos) {
        if (lowercase(url.substr(0, scheme)) != "http") return std::nullopt;
        url.remove_prefix(scheme + 3);
    }
    // Whatever follows the authority (a path, a query) plays no part for a proxy.
    url = url.substr(0, url.find_first_of("/?#"));
    ProxyServer proxy;
    if (const auto at = url.rfind('@'); at != std::string_view::npos) {
        auto userInfo = url.substr(0, at);
        const auto colon = userInfo.find(':');
        auto user = percentDecode(userInfo.substr(0, colon));
        auto password = colon == std::string_view::npos ? std::optional<std::string>("")
                                                        : percentDecode(userInfo.substr(colon + 1));
        if (!user || !password) return std::nullopt;
        proxy.credentials = *user + ":" + *password;
        url.remove_prefix(at + 1);
    }
    if (!parseHostAndPort(url, proxy)) return std::nullopt;
    return proxy;
}

bool noProxyExempts(std::string_view noProxyList, std::string_view host) {
    std::string name = lowercase(host);
    if (!name.empty() && name.back() == '.') name.pop_back();
    boost::system::error_code error;
    const auto address = ip::make_address(name, error);
    const bool isAddress = !error;
    std::string_view rest = noProxyList;
    while (!rest.empty()) {
        const auto end = rest.find_first_of(", \t");
        const auto entry = rest.substr(0, end);
        rest.remove_prefix(end == std::string_view::npos ? rest.size() : end + 1);
        if (entry.empty()) continue;
        if (entry == "*") return true;
        if (isAddress ? addressMatches(entry, address) : nameMatches(entry, name)) return true;
    }
    return false;
}

ProxyRoute resolveProxyRoute(const SocketEndpoint& target,
                             const std::optional<std::string>& configured,
                             const EnvironmentReader& environment) {
    std::optional<std::string> setting = configured;
    if (!setting) {
        if (auto noProxy = firstSet(environment, {"no_proxy", "NO_PROXY"});
            noProxy && noProxyExempts(*noProxy, target.host)) {
            return {};
        }
        // The upper-case HTTP_PROXY is deliberately not read: in a CGI program the client of a
        // request could set it through a "Proxy:" header.
        setting = target.secure ? firstSet(environment, {"https_proxy", "HTTPS_PROXY"})
                                : environment("http_proxy");
        if (!setting) setting = firstSet(environment, {"all_proxy", "ALL_PROXY"});
    }
    if (!setting || trimmed(*setting).empty()) return {};
    auto proxy = parseProxyURL(*setting);
    if (!proxy) {
        return {std::nullopt, "the proxy setting is not a usable http:// proxy URL"};
    }
    return {std::move(proxy), std::nullopt};
}

}  // namespace tavlo::sio
