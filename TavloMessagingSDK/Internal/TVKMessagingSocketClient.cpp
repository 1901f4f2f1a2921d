#include "TavloMessagingSDK/Internal/TVKMessagingSocketClient.hpp"

#include "Networking/URLRedaction.hpp"
#include "TavloCoreSDK/Internal/TVKLogLine.hpp"
#include "TavloMessagingSDK/Internal/TVKMessagingError.hpp"
#include "TavloMessagingSDK/Internal/TVKMessagingSocketConfig.hpp"

namespace tavlo {
namespace {

namespace json = boost::json;

sio::SocketIOClientOptions socketOptions(const TVKMessagingSocketConfig& config,
                                         std::shared_ptr<dispatch::SerialQueue> queue,
                                         const TVKMessagingSocketClient::Environment& environment) {
    sio::SocketIOClientOptions options;
    // Reconnection is the chat manager's policy, with its own back-off; the socket never retries.
    static_assert(sio::SocketIOClientOptions::forceWebsockets);
    static_assert(!sio::SocketIOClientOptions::reconnects);
    options.handleQueue = std::move(queue);
    if (config.path()) options.path = *config.path();
    options.connectParams = config.query();
    options.caFile = environment.caFile;
    options.proxy = environment.proxy;
    options.backlog = environment.backlog;
    options.scheduler = environment.scheduler;
    return options;
}

/// `text` with every value in `secrets` cut out, fit for a log line.
std::string without(std::string text, const std::vector<std::string>& secrets) {
    for (const auto& secret : secrets) {
        if (secret.empty()) continue;
        for (auto at = text.find(secret); at != std::string::npos; at = text.find(secret, at)) {
            text.replace(at, secret.size(), "***");
        }
    }
    return text;
}

}  // namespace

// --- Client ------------------------------------------------------------------------------------

TVKMessagingSocketClient::TVKMessagingSocketClient(const TVKMessagingSocketConfig& socketConfig,
                                                   Environment environment)
    : queue_(dispatch::SerialQueue::create(kMessageDispatchSerialQueue, environment.targetQueue)),
      socket_(sio::SocketIOClient::create(socketConfig.host().value_or(""),
                                          socketOptions(socketConfig, queue_, environment))),
      loggedEndpoint_(net::redactedURL(
          socketConfig.host().value_or("") + socketConfig.path().value_or(""), {}, {})) {
    for (const auto& [name, value] : socketConfig.query()) handshakeValues_.push_back(value);
}

TVKMessagingSocketClient::~TVKMessagingSocketClient() = default;

void TVKMessagingSocketClient::connectWithTimeoutHandler(Handler handler) {
    auto status = socket_->status();
    if (status != sio::SocketIOStatus::notConnected &&
        status != sio::SocketIOStatus::disconnected) {
        return;
    }
    TAVLO_LOG(trace, "socket", "open ", loggedEndpoint_);
    socket_->connect(kConnectTimeout, std::move(handler));
}

void TVKMessagingSocketClient::disconnect() {
    if (socket_->status() != sio::SocketIOStatus::connected) return;
    TAVLO_LOG(trace, "socket", "close ", loggedEndpoint_);
    socket_->disconnect();
}

void TVKMessagingSocketClient::subscribeWithUserToken(const std::string& userToken,
                                                      const std::string& chatId) {
    TAVLO_LOG(trace, "socket", "out subscribe");
    socket_->emit("subscribe", {json::string(userToken), json::string(chatId)});
}

void TVKMessagingSocketClient::listenOn(const std::string& event, ItemHandler handler) {
    if (!handler) return;
    // Handlers are only ever removed all at once, so the id is not kept.
    socket_->on(event, [event, handler = std::move(handler)](const sio::SocketIOArgs& args) {
        TAVLO_LOG(trace, "socket", "in ", event);
        handler(args.empty() ? nullptr : &args.front());
    });
}

void TVKMessagingSocketClient::ignoreAllEvents() {
    socket_->removeAllHandlers();
}

void TVKMessagingSocketClient::triggerErrorWithReason(const std::string& reason) {
    socket_->handleEvent("error", {json::string(reason)}, true);
}

// --- Registrations -----------------------------------------------------------------------------

namespace {

// The registrations that hand on nothing but the fact that the event came.
TVKMessagingSocketClient::ItemHandler ignoringItem(TVKMessagingSocketClient::Handler handler) {
    return [handler = std::move(handler)](const json::value*) {
        if (handler) handler();
    };
}

}  // namespace

void TVKMessagingSocketClient::onConnect(Handler handler) {
    listenOn("connect", ignoringItem(std::move(handler)));
}

void TVKMessagingSocketClient::onDisconnect(Handler handler) {
    listenOn("disconnect", ignoringItem(std::move(handler)));
}

void TVKMessagingSocketClient::onError(ErrorHandler handler) {
    listenOn("error", [secrets = handshakeValues_,
                       handler = std::move(handler)](const json::value* item) {
        if (!item || !item->is_string() || !handler) return;
        TAVLO_LOG(debug, "socket", "error: ", without(std::string(item->get_string()), secrets));
        handler(TVKSocketRawErrorWithReason(std::string(item->get_string())));
    });
}

}  // namespace tavlo
