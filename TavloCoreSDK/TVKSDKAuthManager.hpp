#pragma once

#include "TavloCoreSDK/TVKExport.hpp"

#include <functional>
#include <mutex>
#include <optional>
#include <string>

#include "TavloCoreSDK/TVKError.hpp"

namespace tavlo {

/// The account the application works for, and the refresh of a member's JWT. The application
/// configures it once, before creating a chat manager.
class TAVLO_EXPORT TVKSDKAuthManager {
  public:
    using TokenSuccess = std::function<void(const std::string& newJWT)>;
    using TokenFailure = std::function<void(const TVKError&)>;
    /// Fetches a fresh JWT for the member whose current (possibly expired) JWT is given; the
    /// current JWT is empty for a guest. Must call exactly one of the two callbacks, on any thread.
    using MemberTokenRefresher = std::function<void(const std::optional<std::string>& currentJWT,
                                                    TokenSuccess success, TokenFailure failure)>;

    static TVKSDKAuthManager& sharedManager();

    void setAccountId(std::optional<std::string> accountId);
    std::optional<std::string> accountId() const;
    void setAccountToken(std::optional<std::string> accountToken);
    std::optional<std::string> accountToken() const;

    /// Installs (or, with an empty function, removes) the application's member-token refresher.
    void setMemberTokenRefresher(MemberTokenRefresher refresher);

    /// Asks the installed refresher for a new JWT. Without one, fails with
    /// `kTVKSDKAuthErrorDomain` code `kTVKSDKAuthNoRefresherCode`.
    void refreshMemberToken(const std::optional<std::string>& jwt, TokenSuccess success,
                            TokenFailure failure) const;

  private:
    mutable std::mutex mutex_;
    std::optional<std::string> accountId_;
    std::optional<std::string> accountToken_;
    MemberTokenRefresher refresher_;
};

inline constexpr const char* kTVKSDKAuthErrorDomain = "TVKSDKAuthErrorDomain";
inline constexpr long kTVKSDKAuthNoRefresherCode = 1;

}  // namespace tavlo
