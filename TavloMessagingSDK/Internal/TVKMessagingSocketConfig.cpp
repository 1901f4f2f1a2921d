#include "TavloMessagingSDK/Internal/TVKMessagingSocketConfig.hpp"

#include "TavloCoreSDK/Internal/TVKPercentEncoding.hpp"
#include "TavloMessagingSDK/TVKMSGUtility.hpp"

namespace tavlo {
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
