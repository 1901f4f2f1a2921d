#include "TavloMessagingSDK/Internal/TVKMessagingSocketConfig.hpp"

#include "TavloMessagingSDK/TVKMSGUtility.hpp"

namespace tavlo {
namespace {

int hexValue(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

// Percent-decoding as URL components do it: "%XX" becomes its byte, a malformed escape stays as
// it stands, and "+" is not a space (that is a form-encoding rule, not a URL one).
std::string percentDecode(std::string_view text) {
    std::string decoded;
    decoded.reserve(text.size());
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '%' && i + 2 < text.size()) {
            int high = hexValue(text[i + 1]), low = hexValue(text[i + 2]);
            if (high >= 0 && low >= 0) {
                decoded.push_back(static_cast<char>(high * 16 + low));
                i += 2;
                continue;
            }
        }
        decoded.push_back(text[i]);
    }
    return decoded;
}

}  // namespace

std::map<std::string, std::string> TVKMessagingSocketConfig::queryItems(std::string_view query) {
    std::map<std::string, std::string> items;
    while (!query.empty()) {
        std::size_t end = query.find('&');
        std::string_view item = query.substr(0, end);
        query = end == std::string_view::npos ? std::string_view() : query.substr(end + 1);
        if (item.empty()) continue;
        std::size_t equals = item.find('=');
        std::string name = percentDecode(item.substr(0, equals));
        std::string value = equals == std::string_view::npos
                                ? std::string()
                                : percentDecode(item.substr(equals + 1));
        items[std::move(name)] = std::move(value);  // a repeated name: the later value wins
    }
    items["userAgent"] = TVKMessagingUtility::userAgent();
    return items;
}

bool TVKMessagingSocketConfig::mapJSON(const boost::json::object& json) {
    host_ = json_read::string(json, "host");
    path_ = json_read::string(json, "path");
    query_ = queryItems(json_read::string(json, "query").value_or(""));
    return true;
}

}  // namespace tavlo
