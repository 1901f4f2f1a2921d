#pragma once

#include <boost/json.hpp>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "Dispatch/Queue.hpp"
#include "Networking/HTTPSessionManager.hpp"
#include "TavloCoreSDK/TVKError.hpp"

namespace tavlo {

/// The headers every request of the SDK's REST clients carries (messaging and archive):
/// "Content-Type", "X-SDK-Version" and "User-Agent".
void setSDKDefaultHeaders(net::HTTPSessionManager& manager);

/// The client of the messaging service's REST interface. It carries two credentials: the
/// service's API token, which ends every endpoint path and is fetched on demand, and the member's
/// JWT, sent as a bearer token. It never retries on its own: a caller whose request failed hands
/// the error to `handleInvalidRequestError`, which refreshes the credential at fault and lets the
/// caller send the same request once more.
///
/// Every endpoint fails at once, synchronously and without traffic, with
/// `TVKHTTPInvalidRequestError` while no API token is held. Otherwise completions run on the
/// completion queue, never on the caller's stack. A client is meant to be driven from one queue.
class TVKMessagingHTTPClient : public std::enable_shared_from_this<TVKMessagingHTTPClient> {
  public:
    using Success = std::function<void()>;
    using Failure = std::function<void(const TVKError&)>;
    using ObjectSuccess = std::function<void(const boost::json::object&)>;
    using ArraySuccess = std::function<void(const boost::json::array&)>;
    using ValueSuccess = std::function<void(const boost::json::value&)>;
    /// chat id, user token, label
    using CreateChatSuccess = std::function<void(
        const boost::json::value&, const boost::json::value&, const boost::json::value&)>;
    /// user token, label, role, socket object
    using JoinSuccess = std::function<void(const boost::json::value&, const boost::json::value&,
                                           const boost::json::value&, const boost::json::object&)>;
    using Labels = std::vector<std::string>;

    /// The REST API key that only the token request carries.
    static constexpr const char* kRestAPIKey = "Kp4Zr8Tn2Wq6Xv9Bc3Md";

    static std::shared_ptr<TVKMessagingHTTPClient> create(
        const std::string& baseURL, std::shared_ptr<dispatch::Queue> completionQueue = nullptr,
        std::optional<std::string> caFile = std::nullopt);
    TVKMessagingHTTPClient(const std::string& baseURL,
                           std::shared_ptr<dispatch::Queue> completionQueue,
                           std::optional<std::string> caFile);

    const std::shared_ptr<net::HTTPSessionManager>& HTTPManager() const { return HTTPManager_; }
    std::optional<std::string> APIToken() const;
    std::optional<std::string> JWT() const;

    /// Stores the member's JWT (nullopt for a guest) and sets or removes the bearer header.
    void setAuthorizationToken(std::optional<std::string> jwt);

    /// Fetches a new API token with the REST API key.
    void refreshAPIToken(Success success, Failure failure);

    /// Repairs a failed call: an invalid-request error refreshes the API token (and the member's
    /// JWT too when its expiry has passed), an unauthorized error refreshes the member's JWT;
    /// after a successful refresh `tokenRefreshed` re-sends the call, so one repair costs at most
    /// two requests. Any other error, or a failed refresh (with the refresh's error), goes to
    /// `fallback`.
    void handleInvalidRequestError(const TVKError& error, Success tokenRefreshed, Failure fallback);

    // --- Chat profile and chat creation ---
    void getChatProfileForChannel(const std::string& channel, const std::string& vendor,
                                  bool returnSticker, ObjectSuccess success, Failure failure);
    void createChatForChannel(const std::string& channel, const std::string& vendor,
                              bool isPersonalChat, CreateChatSuccess success, Failure failure);
    void createMessageBoardForChannel(const std::string& channel, ValueSuccess success,
                                      Failure failure);

    // --- Joining ---
    void addUser(const std::optional<boost::json::object>& user, const std::string& chatId,
                 JoinSuccess success, Failure failure);
    void addLoggedInUserToChat(const std::string& chatId, JoinSuccess success, Failure failure);
    void addGuestToChat(const std::string& chatId, const std::string& nickname, JoinSuccess success,
                        Failure failure);

    // --- Users ---
    void getUsersByChat(const std::string& chatId, const std::string& userToken,
                        const std::vector<std::string>& roles,
                        const std::vector<std::string>& statuses, ArraySuccess success,
                        Failure failure);
    void getUsersByLabels(const Labels& labels, const std::string& chatId,
                          const std::string& userToken, ArraySuccess success, Failure failure);
    void removeUsersByLabels(const Labels& labels, const std::string& chatId,
                             const std::string& userToken, Success success, Failure failure);
    void updateUsers(const boost::json::array& users, const std::string& chatId,
                     const std::string& userToken, Success success, Failure failure);
    void updateGuestNickname(const std::string& nickname, const std::string& label,
                             const std::string& chatId, const std::string& userToken,
                             Success success, Failure failure);
    void updateLoggedInUserRole(const std::string& role, const std::string& label,
                                const std::string& chatId, const std::string& userToken,
                                Success success, Failure failure);
    void updateLoggedInUserRole(const std::string& role, const std::string& memberId,
                                const std::string& venderAccountId, const std::string& chatId,
                                const std::string& userToken, Success success, Failure failure);
    void blockUsersInChat(const std::string& chatId, const Labels& labels,
                          const std::string& userToken, Success success, Failure failure);
    void reviveUsersInChat(const std::string& chatId, const Labels& labels,
                           const std::string& userToken, Success success, Failure failure);

    // --- Messages ---
    void getMessagesByChat(const std::string& chatId, const std::string& userToken,
                           const std::optional<boost::json::object>& configs, ArraySuccess success,
                           Failure failure);
    /// The message goes under "text" for text messages and under "value" for every other type.
    void addUserMessage(const boost::json::value& message, const std::string& chatId,
                        const std::string& userToken, const std::string& msgType,
                        ValueSuccess success, Failure failure);
    void removeMessage(const std::string& messageId, const std::string& chatId,
                       const std::string& userToken, Success success, Failure failure);
    void pinMessage(const std::string& messageId, const std::string& chatId,
                    const std::string& userToken, Success success, Failure failure);
    void unpinMessageFromChat(const std::string& chatId, const std::string& userToken,
                              Success success, Failure failure);

    // --- Metadata ---
    void setMetadataValue(const boost::json::value& value, const std::string& key,
                          const std::string& chatId, bool broadcast, const std::string& userToken,
                          Success success, Failure failure);
    /// No keys (nullopt) asks for every key.
    void getMetadataForKeys(const std::optional<std::vector<std::string>>& keys,
                            const std::string& chatId, const std::string& userToken,
                            ArraySuccess success, Failure failure);

    /// True when "host", "path" and "query" are all present, whatever their values.
    bool socketConfigHasRequiredKeys(const boost::json::object& socket) const;
    /// Text and aggregate messages must be strings. For raw data the test looks at the type, not
    /// the message, and so accepts every message: kept deliberately, callers check raw data.
    static bool isMessageTypeCorrectWithMsgType(const std::string& msgType,
                                                const boost::json::value& message);

  private:
    using AnswerHandler = std::function<void(const boost::json::value&)>;

    void call(net::HTTPMethod method, const std::string& path, boost::json::object parameters,
              AnswerHandler onAnswer, Failure failure);
    void callWithoutResult(net::HTTPMethod method, const std::string& path,
                           boost::json::object parameters, Success success, Failure failure);
    void callForArray(net::HTTPMethod method, const std::string& path,
                      boost::json::object parameters, const char* member, ArraySuccess success,
                      Failure failure);
    /// Asks the application's refresher for a new JWT and installs it.
    void refreshJWT(Success success, Failure failure);
    /// Runs `resend` once the JWT is fit to be sent: at once, or after renewing an expired one.
    void renewExpiredJWTThen(Success resend);
    void handleJoinAnswer(const boost::json::value& answer, const JoinSuccess& success,
                          const Failure& failure) const;

    std::shared_ptr<net::HTTPSessionManager> HTTPManager_;
    mutable std::mutex mutex_;
    std::optional<std::string> APIToken_;
    std::optional<std::string> JWT_;
};

}  // namespace tavlo
