#pragma once

#include <map>
#include <optional>
#include <string>
#include <string_view>

#include "TavloCoreSDK/DQDataObject.hpp"

namespace tavlo {

/// Where a chatroom's realtime channel is: the service hands it out when a user joins
/// ({"host", "path", "query"}).
class TVKMessagingSocketConfig : public DQDataObject {
  public:
    /// The realtime server's base URL ("https://...").
    const std::optional<std::string>& host() const { return host_; }
    /// The Socket.IO resource path on that server.
    const std::optional<std::string>& path() const { return path_; }
    /// The handshake parameters: the service's "query" decoded, plus the SDK's "userAgent".
    const std::map<std::string, std::string>& query() const { return query_; }

    /// Parses a URL query string (without "?") into names and values. Names and values are
    /// percent-decoded ("+" stays a plus sign); when a name repeats, the later value wins; a name
    /// without "=" has an empty value. "userAgent" is always the SDK's user agent, whatever the
    /// query said.
    static std::map<std::string, std::string> queryItems(std::string_view query);

    /// Reads "host" and "path"; "query" goes through `queryItems` (a query that is not a string
    /// counts as empty).
    bool mapJSON(const boost::json::object& json) override;

  private:
    std::optional<std::string> host_;
    std::optional<std::string> path_;
    std::map<std::string, std::string> query_;
};

}  // namespace tavlo
