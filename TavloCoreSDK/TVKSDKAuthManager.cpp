#include "TavloCoreSDK/TVKSDKAuthManager.hpp"

namespace tavlo {

TVKSDKAuthManager& TVKSDKAuthManager::sharedManager() {
    static TVKSDKAuthManager manager;
    return manager;
}

void TVKSDKAuthManager::setAccountId(std::optional<std::string> accountId) {
    std::lock_guard lock(mutex_);
    accountId_ = std::move(accountId);
}

std::optional<std::string> TVKSDKAuthManager::accountId() const {
    std::lock_guard lock(mutex_);
    return accountId_;
}

void TVKSDKAuthManager::setAccountToken(std::optional<std::string> accountToken) {
    std::lock_guard lock(mutex_);
    accountToken_ = std::move(accountToken);
}

std::optional<std::string> TVKSDKAuthManager::accountToken() const {
    std::lock_guard lock(mutex_);
    return accountToken_;
}

void TVKSDKAuthManager::setMemberTokenRefresher(MemberTokenRefresher refresher) {
    std::lock_guard lock(mutex_);
    refresher_ = std::move(refresher);
}

void TVKSDKAuthManager::refreshMemberToken(const std::optional<std::string>& jwt,
                                           TokenSuccess success, TokenFailure failure) const {
    MemberTokenRefresher refresher;
    {
        std::lock_guard lock(mutex_);
        refresher = refresher_;
    }
    auto succeed = [success](const std::string& token) { if (success) success(token); };
    auto fail = [failure](const TVKError& error) { if (failure) failure(error); };
    if (!refresher) {
        TVKError error(kTVKSDKAuthErrorDomain, kTVKSDKAuthNoRefresherCode);
        error.localizedDescription = "No member-token refresher is installed";
        fail(error);
        return;
    }
    // The refresher is application code: it must not unwind into the SDK.
    try {
        refresher(jwt, succeed, fail);
    } catch (...) {
        TVKError error(kTVKSDKAuthErrorDomain, kTVKSDKAuthNoRefresherCode + 1);
        error.localizedDescription = "The member-token refresher threw";
        fail(error);
    }
}

}  // namespace tavlo
