#include "SocketIO/SocketIOClient.hpp"

#include <atomic>
#include <boost/asio/post.hpp>

#include "Dispatch/Runtime.hpp"
#include "SocketIO/EngineSession.hpp"
#include "SocketIO/Packet.hpp"
#include "SocketIO/SocketEndpoint.hpp"

namespace tavlo::sio {
namespace {

const std::string kConnectEvent = "connect";
const std::string kDisconnectEvent = "disconnect";
const std::string kErrorEvent = "error";

SocketIOArgs reasonArgs(std::string reason) {
    SocketIOArgs args;
    args.emplace_back(boost::json::string(reason));
    return args;
}

std::string controlPacket(SocketPacketType type) {
    SocketPacket packet;
    packet.type = type;
    return encodeSocketPacket(packet);
}
std::string connectPacket() {
    return controlPacket(SocketPacketType::connect);
}
std::string disconnectPacket() {
    return controlPacket(SocketPacketType::disconnect);
}

bool isActive(SocketIOStatus status) {
    return status == SocketIOStatus::connecting || status == SocketIOStatus::connected;
}

}  // namespace

struct SocketIOClient::Registration {
    Registration(SocketIOHandlerId id, SocketIOEventHandler handler)
        : id(id), handler(std::move(handler)) {}
    const SocketIOHandlerId id;
    const SocketIOEventHandler handler;
    std::atomic<bool> active{true};
};

std::shared_ptr<SocketIOClient> SocketIOClient::create(std::string url,
                                                       SocketIOClientOptions options) {
    return std::make_shared<SocketIOClient>(Passkey{}, std::move(url), std::move(options));
}

SocketIOClient::SocketIOClient(Passkey, std::string url, SocketIOClientOptions options)
    : url_(std::move(url)), options_(std::move(options)), io_(dispatch::Runtime::ioContext()) {
    if (!options_.handleQueue) options_.handleQueue = dispatch::SerialQueue::create("tavlo.sio");
}

SocketIOClient::~SocketIOClient() {
    // Nobody else holds the client now, so session_ and connectTimer_ are ours to hand over; the
    // I/O thread closes them, as it owns everything they do.
    if (connectDeadline_) connectDeadline_->cancel();
    if (!session_ && !connectTimer_) return;
    bool leave = status_ == SocketIOStatus::connected;
    boost::asio::post(io_,
                      [session = std::move(session_), timer = std::move(connectTimer_), leave] {
                          if (timer) timer->cancel();
                          if (!session) return;
                          if (leave) session->send(disconnectPacket());
                          session->close();
                      });
}

SocketIOStatus SocketIOClient::status() const {
    std::lock_guard lock(mutex_);
    return status_;
}

// --- Public operations (any thread) ------------------------------------------------------------

void SocketIOClient::connect(std::chrono::milliseconds timeout,
                             std::function<void()> timeoutHandler) {
    std::uint64_t attempt = 0;
    {
        std::lock_guard lock(mutex_);
        if (isActive(status_)) return;
        status_ = SocketIOStatus::connecting;
        attempt = ++attempt_;
    }
    boost::asio::post(io_, [weak = weak_from_this(), attempt, timeout,
                            handler = std::move(timeoutHandler)]() mutable {
        if (auto self = weak.lock()) self->startAttempt(attempt, timeout, std::move(handler));
    });
}

void SocketIOClient::disconnect() {
    bool leave = false;
    {
        std::lock_guard lock(mutex_);
        if (!isActive(status_)) return;
        leave = status_ == SocketIOStatus::connected;
        status_ = SocketIOStatus::disconnected;
        ++attempt_;
        enqueueLocked(kDisconnectEvent, reasonArgs("io client disconnect"));
    }
    boost::asio::post(io_, [self = shared_from_this(), leave] { self->closeSession(leave); });
}

void SocketIOClient::emit(std::string event, SocketIOArgs args) {
    std::uint64_t attempt = 0;
    {
        std::lock_guard lock(mutex_);
        if (status_ != SocketIOStatus::connected) {
            enqueueLocked(kErrorEvent,
                          reasonArgs("Tried emitting " + event + " when not connected"));
            return;
        }
        if (isReservedEventName(event)) {
            enqueueLocked(kErrorEvent, reasonArgs("\"" + event + "\" is a reserved event name"));
            return;
        }
        attempt = attempt_;
    }
    // A strong reference: what was emitted before the client is dropped still goes out.
    boost::asio::post(
        io_, [self = shared_from_this(), attempt, packet = encodeEventPacket(event, args)] {
            self->sendPacket(attempt, packet);
        });
}

SocketIOHandlerId SocketIOClient::on(std::string event, SocketIOEventHandler handler) {
    std::lock_guard lock(mutex_);
    SocketIOHandlerId id = nextHandlerId_++;
    handlers_[std::move(event)].push_back(std::make_shared<Registration>(id, std::move(handler)));
    ++handlersGeneration_;
    return id;
}

void SocketIOClient::off(SocketIOHandlerId id) {
    std::lock_guard lock(mutex_);
    for (auto& [event, registrations] : handlers_) {
        std::erase_if(registrations, [id](const std::shared_ptr<Registration>& registration) {
            if (registration->id != id) return false;
            registration->active = false;
            return true;
        });
    }
    ++handlersGeneration_;
}

void SocketIOClient::removeAllHandlers() {
    std::lock_guard lock(mutex_);
    for (auto& [event, registrations] : handlers_) {
        for (auto& registration : registrations) registration->active = false;
    }
    handlers_.clear();
    ++handlersGeneration_;
}

void SocketIOClient::handleEvent(std::string event, SocketIOArgs args, bool isInternalMessage) {
    std::lock_guard lock(mutex_);
    if (!isInternalMessage && status_ != SocketIOStatus::connected) return;
    enqueueLocked(std::move(event), std::move(args));
}

// --- Delivery (handle queue) -------------------------------------------------------------------

// Queued while the state lock is held, so that handlers see events in the order of the state
// changes that produced them, whichever thread made the change.
void SocketIOClient::enqueueLocked(std::string event, SocketIOArgs args) {
    enqueueLocked(Delivery{std::move(event), std::move(args), {}});
}

// Events travel to the handle queue in batches: one task takes everything that arrived while it
// was waiting to run. Under a flood this spares a thread hand-over per event, which would cost
// more than decoding the event.
void SocketIOClient::enqueueLocked(Delivery delivery) {
    pending_.push_back(std::move(delivery));
    if (deliveryScheduled_) return;
    deliveryScheduled_ = true;
    options_.handleQueue->async([weak = weak_from_this()] {
        if (auto self = weak.lock()) self->deliverPending();
    });
}

void SocketIOClient::deliverPending() {
    std::vector<Delivery> batch;
    {
        std::lock_guard lock(mutex_);
        batch.swap(pending_);
        deliveryScheduled_ = false;
    }
    // The handlers of each event, read again only when they changed: a handler of an earlier
    // event in the batch may have added some (on "connect", typically).
    std::unordered_map<std::string, std::vector<std::shared_ptr<Registration>>> cache;
    std::uint64_t generation = handlersGeneration_.load() + 1;
    for (const Delivery& delivery : batch) {
        if (delivery.task) {
            try {
                delivery.task();
            } catch (...) {
            }
            continue;
        }
        if (handlersGeneration_.load() != generation) {
            cache.clear();
            generation = handlersGeneration_.load();
        }
        auto cached = cache.find(delivery.event);
        if (cached == cache.end()) {
            std::lock_guard lock(mutex_);
            auto found = handlers_.find(delivery.event);
            cached = cache
                         .emplace(delivery.event, found == handlers_.end()
                                                      ? std::vector<std::shared_ptr<Registration>>{}
                                                      : found->second)
                         .first;
        }
        deliver(cached->second, delivery.args);
    }
}

void SocketIOClient::deliver(const std::vector<std::shared_ptr<Registration>>& registrations,
                             const SocketIOArgs& args) {
    for (const auto& registration : registrations) {
        if (!registration->active) continue;
        try {
            registration->handler(args);
        } catch (...) {
            // A throwing handler must not keep the others from their event.
        }
    }
}

bool SocketIOClient::endAttemptLocked(std::uint64_t attempt) {
    if (attempt != attempt_ || !isActive(status_)) return false;
    status_ = SocketIOStatus::disconnected;
    ++attempt_;
    return true;
}

// --- Connection (I/O thread) -------------------------------------------------------------------

void SocketIOClient::startAttempt(std::uint64_t attempt, std::chrono::milliseconds timeout,
                                  std::function<void()> timeoutHandler) {
    {
        std::lock_guard lock(mutex_);
        if (attempt != attempt_) return;
    }
    closeSession(false);
    attachmentsToSkip_ = 0;
    if (!options_.forceWebsockets) {
        return failAttempt(attempt, "only the WebSocket transport is supported");
    }
    if (options_.reconnects) return failAttempt(attempt, "automatic reconnection is not supported");
    auto endpoint = SocketEndpoint::parse(url_);
    if (!endpoint) return failAttempt(attempt, "invalid socket URL");

    std::weak_ptr<SocketIOClient> weak = weak_from_this();
    EngineSession::Callbacks callbacks;
    callbacks.opened = [weak, attempt](const EngineHandshake&) {
        if (auto self = weak.lock()) self->onSessionOpened(attempt);
    };
    callbacks.message = [weak, attempt](std::string_view text) {
        if (auto self = weak.lock()) self->onSessionMessage(attempt, text);
    };
    callbacks.binary = [weak, attempt] {
        if (auto self = weak.lock()) self->onSessionBinary(attempt);
    };
    callbacks.refused = [weak, attempt](std::string reason) {
        if (auto self = weak.lock()) self->reportError(attempt, std::move(reason));
    };
    callbacks.closed = [weak, attempt](TransportEnd end) {
        if (auto self = weak.lock()) self->onSessionClosed(attempt, end);
    };
    EngineSession::Settings settings{
        *endpoint, handshakeTarget(options_.path, options_.connectParams),
        TransportSecurity{options_.caFile}, options_.maxIncomingMessageSize};
    session_ = EngineSession::create(io_, std::move(settings), std::move(callbacks));
    session_->open();

    armConnectDeadline(attempt, timeout, std::move(timeoutHandler));
}

void SocketIOClient::armConnectDeadline(std::uint64_t attempt, std::chrono::milliseconds timeout,
                                        std::function<void()> handler) {
    if (timeout.count() <= 0) return;
    std::weak_ptr<SocketIOClient> weak = weak_from_this();
    if (options_.scheduler) {
        // The scheduler runs its task on a queue; the attempt belongs to the I/O thread.
        connectDeadline_ = options_.scheduler->after(
            timeout, options_.handleQueue, [weak, attempt, handler = std::move(handler)] {
                auto self = weak.lock();
                if (!self) return;
                boost::asio::post(self->io_, [weak, attempt, handler] {
                    if (auto client = weak.lock()) client->onConnectTimeout(attempt, handler);
                });
            });
        return;
    }
    connectTimer_ = std::make_shared<boost::asio::steady_timer>(io_, timeout);
    connectTimer_->async_wait([weak, attempt, handler = std::move(handler)](
                                  const boost::system::error_code& error) mutable {
        if (error) return;
        if (auto self = weak.lock()) self->onConnectTimeout(attempt, std::move(handler));
    });
}

void SocketIOClient::cancelConnectDeadline() {
    if (connectTimer_) connectTimer_->cancel();
    connectTimer_.reset();
    if (connectDeadline_) connectDeadline_->cancel();
    connectDeadline_.reset();
}

void SocketIOClient::onConnectTimeout(std::uint64_t attempt, std::function<void()> handler) {
    {
        std::lock_guard lock(mutex_);
        if (attempt != attempt_ || status_ != SocketIOStatus::connecting) return;
        status_ = SocketIOStatus::disconnected;
        ++attempt_;
        if (handler) enqueueLocked(Delivery{{}, {}, std::move(handler)});
    }
    closeSession(false);
}

void SocketIOClient::onSessionOpened(std::uint64_t attempt) {
    {
        std::lock_guard lock(mutex_);
        if (attempt != attempt_) return;
    }
    if (session_) session_->send(connectPacket());
}

void SocketIOClient::onSessionMessage(std::uint64_t attempt, std::string_view text) {
    auto packet = decodeSocketPacket(text);
    if (!packet) return reportError(attempt, "malformed Socket.IO packet: " + packet.error);
    if (packet.value->nsp != "/") return;  // only the main namespace is ever joined
    onServerPacket(attempt, std::move(*packet.value));
}

void SocketIOClient::onServerPacket(std::uint64_t attempt, SocketPacket&& packet) {
    if (packet.type == SocketPacketType::event) {
        auto event = eventFromPacket(std::move(packet));
        if (!event) return reportError(attempt, "malformed event: " + event.error);
        std::lock_guard lock(mutex_);
        if (attempt != attempt_ || status_ != SocketIOStatus::connected) return;
        return enqueueLocked(std::move(event.value->name), std::move(event.value->args));
    }
    switch (packet.type) {
        case SocketPacketType::connect: {
            {
                std::lock_guard lock(mutex_);
                if (attempt != attempt_ || status_ != SocketIOStatus::connecting) return;
                status_ = SocketIOStatus::connected;
                enqueueLocked(kConnectEvent, {});
            }
            cancelConnectDeadline();
            return;
        }
        case SocketPacketType::connectError: {
            std::string reason = connectErrorReason(packet.data);
            {
                std::lock_guard lock(mutex_);
                if (!endAttemptLocked(attempt)) return;
                enqueueLocked(kErrorEvent, reasonArgs(reason));
                enqueueLocked(kDisconnectEvent, reasonArgs(reason));
            }
            return closeSession(false);
        }
        case SocketPacketType::disconnect: {
            {
                std::lock_guard lock(mutex_);
                if (!endAttemptLocked(attempt)) return;
                enqueueLocked(kDisconnectEvent, reasonArgs("io server disconnect"));
            }
            return closeSession(false);
        }
        case SocketPacketType::event:
        case SocketPacketType::ack:
            return;  // nothing is ever emitted with an acknowledgement id
        case SocketPacketType::binaryEvent:
        case SocketPacketType::binaryAck:
            // Its attachments follow as binary frames; they go with it, without further errors.
            attachmentsToSkip_ += packet.attachments;
            return reportError(attempt, "binary packet dropped: attachments are not supported");
    }
}

void SocketIOClient::onSessionBinary(std::uint64_t attempt) {
    if (attachmentsToSkip_ > 0) {
        --attachmentsToSkip_;
        return;
    }
    reportError(attempt, "binary frame dropped: binary messages are not supported");
}

void SocketIOClient::onSessionClosed(std::uint64_t attempt, const TransportEnd& end) {
    {
        std::lock_guard lock(mutex_);
        if (!endAttemptLocked(attempt)) return;
        if (end.isError) enqueueLocked(kErrorEvent, reasonArgs(end.reason));
        enqueueLocked(kDisconnectEvent, reasonArgs(end.reason));
    }
    closeSession(false);
}

void SocketIOClient::failAttempt(std::uint64_t attempt, std::string reason) {
    onSessionClosed(attempt, TransportEnd{std::move(reason), true});
}

void SocketIOClient::sendPacket(std::uint64_t attempt, const std::string& packet) {
    {
        std::lock_guard lock(mutex_);
        if (attempt != attempt_) return;
    }
    if (!session_) return;
    if (!session_->send(packet)) {
        reportError(attempt, "packet of " + std::to_string(packet.size()) +
                                 " bytes exceeds what the server accepts");
    }
}

void SocketIOClient::reportError(std::uint64_t attempt, std::string reason) {
    std::lock_guard lock(mutex_);
    if (attempt != attempt_ || !isActive(status_)) return;
    enqueueLocked(kErrorEvent, reasonArgs(std::move(reason)));
}

void SocketIOClient::closeSession(bool leaveNamespace) {
    cancelConnectDeadline();
    if (!session_) return;
    if (leaveNamespace) session_->send(disconnectPacket());
    session_->close();
    session_.reset();
}

}  // namespace tavlo::sio
