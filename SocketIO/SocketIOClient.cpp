#include "SocketIO/SocketIOClient.hpp"

#include <atomic>
#include <boost/asio/post.hpp>
#include <iterator>
#include <utility>

#include "Dispatch/Internal/Runtime.hpp"
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

bool isEventPacket(std::string_view text) {
    return text.starts_with(static_cast<char>('0' + static_cast<int>(SocketPacketType::event)));
}

// How long one batch may keep an I/O thread before the rest goes to the handle queue's workers,
// and how long the client then keeps sending its batches there.
constexpr auto kInlineBudget = std::chrono::milliseconds(20);
constexpr auto kInlinePause = std::chrono::seconds(2);

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
    auto client = std::make_shared<SocketIOClient>(Passkey{}, std::move(url), std::move(options));
    client->watchBacklog();
    return client;
}

SocketIOClient::SocketIOClient(Passkey, std::string url, SocketIOClientOptions options)
    : url_(std::move(url)), options_(std::move(options)), io_(dispatch::Runtime::nextIOContext()) {
    if (!options_.handleQueue) options_.handleQueue = dispatch::SerialQueue::create("tavlo.sio");
    if (!options_.backlog) options_.backlog = std::make_shared<ReadBacklog>();
}

// Whoever fills or drains the backlog (this client, or an owner's consumer on another thread),
// the session learns of it on the I/O thread, which owns it.
void SocketIOClient::watchBacklog() {
    backlogWatcher_ = options_.backlog->watch([weak = weak_from_this(), &io = io_] {
        boost::asio::post(io, [weak] {
            if (auto self = weak.lock()) self->applyReadingState();
        });
    });
}

SocketIOClient::~SocketIOClient() {
    // The backlog may outlive the client (its owner's next client shares it): what waited here
    // and will never be delivered leaves it.
    options_.backlog->unwatch(backlogWatcher_);
    options_.backlog->remove(pendingEvents_ + deliveringEvents_, pendingBytes_ + deliveringBytes_);
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

std::size_t SocketIOClient::undeliveredEventCount() const {
    std::lock_guard lock(mutex_);
    return pendingEvents_ + deliveringEvents_;
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
    enqueueLocked(Delivery{std::move(event), std::move(args), 0, 0, {}});
}

void SocketIOClient::enqueueLocked(Delivery delivery) {
    if (pending_.empty()) pending_.emplace_back();
    pending_.back().deliveries.push_back(std::move(delivery));
    ++pendingEvents_;
    options_.backlog->add(1);
    scheduleDeliveryLocked();
}

// Events travel to the handle queue in batches: one task takes everything that arrived while it
// was waiting to run. Under a flood this spares a thread hand-over per event, which would cost
// more than decoding the event.
void SocketIOClient::scheduleDeliveryLocked() {
    if (deliveryScheduled_) return;
    deliveryScheduled_ = true;
    options_.handleQueue->async([weak = weak_from_this()] {
        if (auto self = weak.lock()) self->deliverPending();
    });
}

// Each read's batch waits as it is, its text in a buffer of its own: never one large buffer
// that would have to be copied as it grows, and whose size would teach the allocator to keep
// that much memory around.
void SocketIOClient::appendPendingLocked(Batch& batch, std::size_t from, bool first) {
    if (from >= batch.deliveries.size()) return;
    Batch rest;
    rest.packets = std::move(batch.packets);
    rest.deliveries.assign(std::make_move_iterator(batch.deliveries.begin() + from),
                           std::make_move_iterator(batch.deliveries.end()));
    pendingEvents_ += rest.deliveries.size();
    pendingBytes_ += rest.packets.size();
    options_.backlog->add(rest.deliveries.size(), rest.packets.size());
    // The rest of a batch cut short goes before what other threads queued meanwhile.
    if (first) {
        pending_.push_front(std::move(rest));
    } else {
        pending_.push_back(std::move(rest));
    }
    scheduleDeliveryLocked();
}

void SocketIOClient::deliverPending() {
    std::deque<Batch> batches;
    {
        std::lock_guard lock(mutex_);
        std::swap(batches, pending_);
        deliveryScheduled_ = false;
        deliveringEvents_ = std::exchange(pendingEvents_, 0);
        deliveringBytes_ = std::exchange(pendingBytes_, 0);
    }
    for (Batch& batch : batches) {
        deliverBatch(batch);
        batch = Batch{};  // its memory goes as soon as it is delivered
    }
    // Reading resumes through the backlog's watcher once enough has been consumed.
    std::lock_guard lock(mutex_);
    options_.backlog->remove(std::exchange(deliveringEvents_, 0),
                             std::exchange(deliveringBytes_, 0));
}

void SocketIOClient::deliverBatch(const Batch& batch) {
    const std::string_view packets = batch.packets;
    for (const Delivery& delivery : batch.deliveries) {
        if (delivery.task) {
            try {
                delivery.task();
            } catch (...) {
            }
        } else if (delivery.packetSize > 0) {
            deliverPacket(packets.substr(delivery.packetOffset, delivery.packetSize),
                          handlerCache_);
        } else {
            deliver(handlersFor(delivery.event, handlerCache_), delivery.args);
        }
    }
}

// The handle queue was idle: the read's events run here and now, as its task. A batch that
// overruns its time hands its rest to the queue, which runs it on a worker, and the client's
// next batches go there for a while too: a slow handler then delays the other connections of
// this I/O thread for one call, not for every event it gets.
void SocketIOClient::deliverInline(std::uint64_t attempt) {
    HandlerCache& cache = handlerCache_;
    const std::string_view packets = inbound_.packets;
    const auto started = std::chrono::steady_clock::now();
    const std::size_t count = inbound_.deliveries.size();
    for (std::size_t i = 0; i < count; ++i) {
        const Delivery& delivery = inbound_.deliveries[i];
        deliverPacket(packets.substr(delivery.packetOffset, delivery.packetSize), cache);
        const auto now = std::chrono::steady_clock::now();
        if (now - started < kInlineBudget) continue;
        inlineResumesAt_ = now + kInlinePause;
        if (i + 1 == count) break;
        std::lock_guard lock(mutex_);
        if (attempt == attempt_ && status_ == SocketIOStatus::connected) {
            appendPendingLocked(inbound_, i + 1, true);
            pauseReadingIfBacklogged();
        }
        break;
    }
}

// EVENT packets are decoded where they are delivered, never ahead of time on the I/O thread for
// a queue that runs elsewhere: the JSON values are then made and released by the same thread.
// Handing thousands of small allocations per second from one thread to another keeps both
// contending for the allocator's lock, which under a flood costs more than the decoding itself.
void SocketIOClient::deliverPacket(std::string_view packet, HandlerCache& cache) {
    auto decoded = decodeSocketPacket(packet);
    if (!decoded) {
        const auto reason = "malformed Socket.IO packet: " + decoded.error;
        return deliver(handlersFor(kErrorEvent, cache), reasonArgs(reason));
    }
    if (decoded.value->nsp != "/") return;  // only the main namespace is ever joined
    auto event = eventFromPacket(std::move(*decoded.value));
    if (!event) {
        const auto reason = "malformed event: " + event.error;
        return deliver(handlersFor(kErrorEvent, cache), reasonArgs(reason));
    }
    deliver(handlersFor(event.value->name, cache), event.value->args);
}

const SocketIOClient::Registrations& SocketIOClient::handlersFor(const std::string& event,
                                                                 HandlerCache& cache) {
    if (const auto generation = handlersGeneration_.load(); generation != cache.generation) {
        cache.byEvent.clear();
        cache.generation = generation;
    }
    auto cached = cache.byEvent.find(event);
    if (cached == cache.byEvent.end()) {
        std::lock_guard lock(mutex_);
        auto found = handlers_.find(event);
        cached =
            cache.byEvent.emplace(event, found == handlers_.end() ? Registrations{} : found->second)
                .first;
    }
    return cached->second;
}

void SocketIOClient::deliver(const Registrations& registrations, const SocketIOArgs& args) {
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
    inbound_ = Batch{};
    readEvents_ = false;
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
    callbacks.batchEnd = [weak, attempt] {
        if (auto self = weak.lock()) self->flushInbound(attempt);
    };
    callbacks.binary = [weak, attempt] {
        if (auto self = weak.lock()) self->onSessionBinary(attempt);
    };
    callbacks.refused = [weak, attempt](std::string reason) {
        if (auto self = weak.lock()) {
            self->flushInbound(attempt);
            self->reportError(attempt, std::move(reason));
        }
    };
    callbacks.closed = [weak, attempt](TransportEnd end) {
        if (auto self = weak.lock()) self->onSessionClosed(attempt, end);
    };
    EngineSession::Settings settings{
        *endpoint, handshakeTarget(options_.path, options_.connectParams),
        TransportSecurity{options_.caFile}, resolveProxyRoute(*endpoint, options_.proxy),
        options_.maxIncomingMessageSize};
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
        if (handler) enqueueLocked(Delivery{{}, {}, 0, 0, std::move(handler)});
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
    if (isEventPacket(text)) {
        // Kept, undecoded, until the read is over: the whole read then goes in one batch.
        const std::size_t offset = inbound_.packets.size();
        inbound_.packets.append(text);
        inbound_.deliveries.push_back(Delivery{{}, {}, offset, text.size(), {}});
        return;
    }
    // Whatever comes next (a disconnection, say) must not overtake the events before it.
    flushInbound(attempt);
    auto packet = decodeSocketPacket(text);
    if (!packet) return reportError(attempt, "malformed Socket.IO packet: " + packet.error);
    if (packet.value->nsp != "/") return;  // only the main namespace is ever joined
    onServerPacket(attempt, std::move(*packet.value));
}

void SocketIOClient::flushInbound(std::uint64_t attempt) {
    if (inbound_.deliveries.empty()) return;
    readEvents_ = true;
    std::unique_lock lock(mutex_);
    const bool current = attempt == attempt_ && status_ == SocketIOStatus::connected;
    const bool mayRunHere = current && pending_.empty() && !deliveryScheduled_ &&
                            std::chrono::steady_clock::now() >= inlineResumesAt_;
    if (mayRunHere) {
        lock.unlock();
        const bool ran =
            options_.handleQueue->runInlineIfIdle([this, attempt] { deliverInline(attempt); });
        lock.lock();
        if (ran) {
            inbound_.deliveries.clear();
            inbound_.packets.clear();
            return;
        }
    }
    if (attempt == attempt_ && status_ == SocketIOStatus::connected) {
        appendPendingLocked(inbound_, 0, false);
        pauseReadingIfBacklogged();
    }
    inbound_.deliveries.clear();
    inbound_.packets.clear();
}

// Right away, before the next read: the watcher's own call comes later through the I/O queue.
void SocketIOClient::pauseReadingIfBacklogged() {
    if (session_ && readEvents_ && options_.backlog->isFull()) session_->pauseReading();
}

void SocketIOClient::applyReadingState() {
    if (!session_) return;
    if (readEvents_ && options_.backlog->isFull()) {
        session_->pauseReading();
    } else {
        session_->resumeReading();
    }
}

void SocketIOClient::onServerPacket(std::uint64_t attempt, SocketPacket&& packet) {
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
        case SocketPacketType::event:  // decoded on the handle queue, see onSessionMessage
        case SocketPacketType::ack:    // nothing is ever emitted with an acknowledgement id
            return;
        case SocketPacketType::binaryEvent:
        case SocketPacketType::binaryAck:
            // Its attachments follow as binary frames; they go with it, without further errors.
            attachmentsToSkip_ += packet.attachments;
            return reportError(attempt, "binary packet dropped: attachments are not supported");
    }
}

void SocketIOClient::onSessionBinary(std::uint64_t attempt) {
    flushInbound(attempt);
    if (attachmentsToSkip_ > 0) {
        --attachmentsToSkip_;
        return;
    }
    reportError(attempt, "binary frame dropped: binary messages are not supported");
}

void SocketIOClient::onSessionClosed(std::uint64_t attempt, const TransportEnd& end) {
    flushInbound(attempt);
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
