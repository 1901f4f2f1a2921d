#include "SocketIO/WebSocketTransport.hpp"

#if defined(__linux__)
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#endif
#include <openssl/evp.h>
#include <openssl/sha.h>
#include <openssl/ssl.h>

#include <array>
#include <boost/asio/connect.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/read_until.hpp>
#include <boost/asio/ssl.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/write.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/http.hpp>
#include <charconv>
#include <cstring>
#include <deque>
#include <random>
#include <type_traits>

#include "SocketIO/WebSocketFrame.hpp"

namespace tavlo::sio {
namespace {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;
namespace ssl = asio::ssl;
using tcp = asio::ip::tcp;
using error_code = boost::system::error_code;

// Bound to the io_context's own executor type rather than a type-erased one: every read and
// write otherwise pays for copying and destroying the erased executor.
using Executor = asio::io_context::executor_type;
using Socket = asio::basic_stream_socket<tcp, Executor>;
using Resolver = asio::ip::basic_resolver<tcp, Executor>;
using Timer = asio::basic_waitable_timer<std::chrono::steady_clock,
                                         asio::wait_traits<std::chrono::steady_clock>, Executor>;
using PlainStream = Socket;
using SecureStream = ssl::stream<Socket>;

// How much one read may take: a few hundred chat events, so that a flood costs one trip through
// the event loop per few hundred of them rather than one per event. A quiet connection reads
// into a small buffer, grown as reads fill it: a thousand idle chatrooms then do not each hold
// the flood's buffer.
constexpr std::size_t kReadChunk = 64 * 1024;
constexpr std::size_t kQuietReadChunk = 4 * 1024;
// Bounds the opening and the closing handshakes when the peer stops answering.
constexpr auto kUpgradeTimeout = std::chrono::seconds(30);
constexpr auto kCloseTimeout = std::chrono::seconds(5);
// A proxy's answer to CONNECT is a status line and a few headers; more is not an answer.
constexpr std::size_t kMaximumTunnelAnswer = 16 * 1024;
constexpr std::string_view kProxyFailurePrefix = "proxy ";

// The peer went away, in order or not: a lost connection rather than a failure.
bool isPeerClose(const error_code& error) {
    return error == asio::error::eof || error == asio::error::connection_reset ||
           error == asio::error::broken_pipe || error == asio::ssl::error::stream_truncated;
}

std::string describe(const error_code& error) {
    std::string message = error.message();
    return message.empty() ? "connection failed" : message;
}

std::string base64(const unsigned char* data, std::size_t size) {
    std::string text(4 * ((size + 2) / 3), '\0');
    const int written = EVP_EncodeBlock(reinterpret_cast<unsigned char*>(text.data()), data,
                                        static_cast<int>(size));
    text.resize(static_cast<std::size_t>(written));
    return text;
}

// The upgrade's Sec-WebSocket-Key, and the Sec-WebSocket-Accept that proves the peer read it.
std::string makeUpgradeKey() {
    std::array<unsigned char, 16> nonce;
    std::random_device device;
    for (auto& byte : nonce) byte = static_cast<unsigned char>(device());
    return base64(nonce.data(), nonce.size());
}

std::string expectedAccept(const std::string& key) {
    const std::string input = key + "258EAFA5-E914-47DA-95CA-C5AB0DC85B11";
    unsigned char digest[SHA_DIGEST_LENGTH];
    SHA1(reinterpret_cast<const unsigned char*>(input.data()), input.size(), digest);
    return base64(digest, sizeof digest);
}

bool headerHasToken(std::string_view value, std::string_view token) {
    // Tokens are comma separated and compared without regard to case.
    std::size_t start = 0;
    while (start <= value.size()) {
        std::size_t end = value.find(',', start);
        if (end == std::string_view::npos) end = value.size();
        std::string_view item = value.substr(start, end - start);
        while (!item.empty() && item.front() == ' ') item.remove_prefix(1);
        while (!item.empty() && item.back() == ' ') item.remove_suffix(1);
        if (beast::iequals(item, token)) return true;
        start = end + 1;
    }
    return false;
}

// "host:port" as CONNECT and Host name it, IPv6 literals in brackets.
std::string authorityOf(const SocketEndpoint& endpoint) {
    const bool v6 = endpoint.host.find(':') != std::string::npos;
    return (v6 ? "[" + endpoint.host + "]" : endpoint.host) + ":" + std::to_string(endpoint.port);
}

std::string tunnelRequest(const SocketEndpoint& endpoint, const ProxyServer& proxy) {
    const std::string authority = authorityOf(endpoint);
    std::string request = "CONNECT " + authority + " HTTP/1.1\r\nHost: " + authority + "\r\n";
    if (proxy.credentials) {
        const auto& credentials = *proxy.credentials;
        request +=
            "Proxy-Authorization: Basic " +
            base64(reinterpret_cast<const unsigned char*>(credentials.data()), credentials.size()) +
            "\r\n";
    }
    return request + "User-Agent: tavlo-sio/1.0\r\n\r\n";
}

// The status code of "HTTP/1.x NNN ...", or 0 when the line is not one.
int tunnelStatus(std::string_view answer) {
    if (!answer.starts_with("HTTP/1.")) return 0;
    const auto space = answer.find(' ');
    if (space == std::string_view::npos || answer.size() < space + 4) return 0;
    int status = 0;
    auto digits = answer.substr(space + 1, 3);
    auto [end, error] = std::from_chars(digits.data(), digits.data() + 3, status);
    return error == std::errc() && end == digits.data() + 3 ? status : 0;
}

std::shared_ptr<ssl::context> makeTLSContext(const TransportSecurity& security,
                                             std::string& error) {
    auto context = std::make_shared<ssl::context>(ssl::context::tls_client);
    error_code ec;
    context->set_default_verify_paths(ec);
    if (security.caFile) {
        context->load_verify_file(*security.caFile, ec);
        if (ec) {
            error = "cannot load the CA file: " + describe(ec);
            return nullptr;
        }
    }
    context->set_verify_mode(ssl::verify_peer);
    return context;
}

template <class NextLayer>
class FramedTransport final : public WebSocketTransport,
                              public std::enable_shared_from_this<FramedTransport<NextLayer>> {
  public:
    static constexpr bool kSecure = std::is_same_v<NextLayer, SecureStream>;

    FramedTransport(asio::io_context& io, SocketEndpoint endpoint,
                    std::shared_ptr<ssl::context> tls, std::optional<ProxyServer> proxy,
                    std::size_t maxMessageSize, Callbacks callbacks)
        : endpoint_(std::move(endpoint)),
          proxy_(std::move(proxy)),
          tls_(std::move(tls)),
          stream_(makeStream(io, tls_.get())),
          resolver_(io.get_executor()),
          deadline_(io.get_executor()),
          assembler_(maxMessageSize),
          callbacks_(std::move(callbacks)) {}

    void open(std::string target) override {
        target_ = std::move(target);
        // Through a proxy, only the proxy's name is resolved here; the proxy resolves the server's.
        resolver_.async_resolve(
            proxy_ ? proxy_->host : endpoint_.host,
            std::to_string(proxy_ ? proxy_->port : endpoint_.port),
            [self = this->shared_from_this()](const error_code& ec,
                                              const tcp::resolver::results_type& results) {
                self->onResolved(ec, results);
            });
    }

    void send(std::string text) override {
        if (finished_ || closeRequested_) return;
        queueFrame(FrameOpcode::text, text);
    }

    void close() override {
        silenced_ = true;
        if (finished_ || closeRequested_ || failing_) return;
        closeRequested_ = true;
        if (!upgraded_) return abort();
        queueClose();
    }

    void abort() override {
        silenced_ = true;
        finish({"transport close", false});
    }

    void pauseReading() override { paused_ = true; }

    void resumeReading() override {
        if (!paused_) return;
        paused_ = false;
        if (upgraded_ && !reading_ && !finished_ && !failing_) readMore();
    }

  private:
    static NextLayer makeStream(asio::io_context& io, ssl::context* tls) {
        if constexpr (kSecure) {
            return NextLayer(Socket(io.get_executor()), *tls);
        } else {
            (void)tls;
            return NextLayer(io.get_executor());
        }
    }

    Socket& socket() {
        if constexpr (kSecure) {
            return stream_.next_layer();
        } else {
            return stream_;
        }
    }

    // Through a proxy, a message that follows another within a round trip waits for our
    // acknowledgement of the first: proxies commonly leave Nagle's algorithm on, and Linux holds
    // an acknowledgement back for up to 40 ms in the hope of sending it along with data. Quick
    // acknowledgements remove that stall; the kernel drops them again on its own once traffic
    // looks interactive, so they are asked for before every read.
    void acknowledgePromptly() {
#if defined(__linux__) && defined(TCP_QUICKACK)
        if (!proxy_) return;
        const int on = 1;
        ::setsockopt(socket().native_handle(), IPPROTO_TCP, TCP_QUICKACK, &on, sizeof on);
#endif
    }

    // --- Opening ---------------------------------------------------------------------------------

    void onResolved(const error_code& ec, const tcp::resolver::results_type& results) {
        if (finished_) return;
        if (ec && proxy_) {
            return fail(std::string(kProxyFailurePrefix) + "unreachable: cannot resolve " +
                        proxy_->host + ": " + describe(ec));
        }
        if (ec) return fail("cannot resolve " + endpoint_.host + ": " + describe(ec));
        asio::async_connect(
            socket(), results,
            [self = this->shared_from_this()](const error_code& error, const tcp::endpoint&) {
                self->onConnected(error);
            });
    }

    void onConnected(const error_code& ec) {
        if (finished_) return;
        if (ec && proxy_) {
            return fail(std::string(kProxyFailurePrefix) + "unreachable at " + proxy_->describe() +
                        ": " + describe(ec));
        }
        if (ec) return fail(describe(ec));
        socket().set_option(tcp::no_delay(true));
        if (proxy_) return openTunnel();
        startSession();
    }

    // TLS (for wss://) and the upgrade, straight to the server or inside the proxy's tunnel.
    void startSession() {
        armDeadline(kUpgradeTimeout, "WebSocket upgrade timed out");
        if constexpr (kSecure) {
            startTLS();
        } else {
            upgrade();
        }
    }

    // --- Through a proxy -------------------------------------------------------------------------

    void openTunnel() {
        armDeadline(kUpgradeTimeout, std::string(kProxyFailurePrefix) + "did not answer");
        tunnelExchange_ = tunnelRequest(endpoint_, *proxy_);
        asio::async_write(socket(), asio::buffer(tunnelExchange_),
                          [self = this->shared_from_this()](const error_code& ec, std::size_t) {
                              self->onTunnelRequested(ec);
                          });
    }

    void onTunnelRequested(const error_code& ec) {
        if (finished_) return;
        // The request held the credentials: not kept a moment longer than needed.
        std::fill(tunnelExchange_.begin(), tunnelExchange_.end(), '\0');
        tunnelExchange_.clear();
        if (ec) return fail(std::string(kProxyFailurePrefix) + "closed the connection");
        acknowledgePromptly();
        asio::async_read_until(
            socket(), asio::dynamic_buffer(tunnelExchange_, kMaximumTunnelAnswer), "\r\n\r\n",
            [self = this->shared_from_this()](const error_code& error, std::size_t headerSize) {
                self->onTunnelAnswer(error, headerSize);
            });
    }

    void onTunnelAnswer(const error_code& ec, std::size_t headerSize) {
        if (finished_) return;
        if (ec == asio::error::not_found) {
            return fail(std::string(kProxyFailurePrefix) +
                        "answered CONNECT with too long a header");
        }
        if (ec) return fail(std::string(kProxyFailurePrefix) + "closed the connection");
        const int status = tunnelStatus(tunnelExchange_);
        if (status < 200 || status > 299) {
            return fail(std::string(kProxyFailurePrefix) +
                        (status ? "answered " + std::to_string(status) : "answered no HTTP"));
        }
        // Nothing may come from the server before it has been spoken to; bytes here would be
        // lost to TLS or the upgrade.
        if (tunnelExchange_.size() > headerSize) {
            return fail(std::string(kProxyFailurePrefix) + "sent data before the tunnel opened");
        }
        tunnelExchange_ = {};
        startSession();
    }

    void startTLS() {
        if (!endpoint_.hostIsAddress()) {
            // SNI: a server hosting several names picks the certificate by it.
            SSL_set_tlsext_host_name(stream_.native_handle(), endpoint_.host.c_str());
        }
        stream_.set_verify_mode(ssl::verify_peer);
        stream_.set_verify_callback(ssl::host_name_verification(endpoint_.host));
        acknowledgePromptly();
        stream_.async_handshake(ssl::stream_base::client,
                                [self = this->shared_from_this()](const error_code& error) {
                                    if (self->finished_) return;
                                    if (error) return self->fail("TLS: " + describe(error));
                                    self->upgrade();
                                });
    }

    void upgrade() {
        key_ = makeUpgradeKey();
        request_.method(http::verb::get);
        request_.target(target_);
        request_.version(11);
        request_.set(http::field::host, endpoint_.hostHeader());
        request_.set(http::field::upgrade, "websocket");
        request_.set(http::field::connection, "Upgrade");
        request_.set(http::field::sec_websocket_key, key_);
        request_.set(http::field::sec_websocket_version, "13");
        request_.set(http::field::user_agent, "tavlo-sio/1.0");
        http::async_write(stream_, request_,
                          [self = this->shared_from_this()](const error_code& ec, std::size_t) {
                              if (self->finished_) return;
                              if (ec)
                                  return self->fail("WebSocket upgrade failed: " + describe(ec));
                              self->readUpgradeResponse();
                          });
    }

    void readUpgradeResponse() {
        // The header only: a refusal's body is of no interest, and whatever the server sends
        // right after a 101 stays in the read buffer, as the first frames.
        acknowledgePromptly();
        http::async_read_header(stream_, readBuffer_, responseParser_,
                                [self = this->shared_from_this()](
                                    const error_code& ec, std::size_t) { self->onUpgraded(ec); });
    }

    void onUpgraded(const error_code& ec) {
        if (finished_) return;
        if (ec) return fail("WebSocket upgrade failed: " + describe(ec));
        const auto& response = responseParser_.get();
        if (response.result() != http::status::switching_protocols) {
            return fail("WebSocket upgrade declined (HTTP " +
                        std::to_string(response.result_int()) + ")");
        }
        if (!headerHasToken(response[http::field::upgrade], "websocket") ||
            !headerHasToken(response[http::field::connection], "upgrade") ||
            response[http::field::sec_websocket_accept] != expectedAccept(key_)) {
            return fail("WebSocket upgrade failed: the server's answer is not a WebSocket upgrade");
        }
        upgraded_ = true;
        deadline_.cancel();
        request_ = {};
        responseParser_.release();
        if (!silenced_ && callbacks_.opened) callbacks_.opened();
        if (finished_) return;
        if (!writing_) writeNext();
        takeFrames();
    }

    // --- Reading ---------------------------------------------------------------------------------

    void readMore() {
        reading_ = true;
        acknowledgePromptly();
        stream_.async_read_some(
            readBuffer_.prepare(std::max(readSize_, assembler_.bytesWanted(readBuffer_.size()))),
            [self = this->shared_from_this()](const error_code& ec, std::size_t size) {
                self->reading_ = false;
                self->onRead(ec, size);
            });
    }

    void onRead(const error_code& ec, std::size_t size) {
        if (finished_) return;
        if (ec) {
            if (isPeerClose(ec)) return finish({"transport close", false});
            return fail(describe(ec));
        }
        readBuffer_.commit(size);
        adaptReadSize(size);
        takeFrames();
    }

    void adaptReadSize(std::size_t lastRead) {
        if (lastRead >= readSize_ && readSize_ < kReadChunk) {
            readSize_ *= 4;
        } else if (lastRead < kQuietReadChunk / 4 && readSize_ > kQuietReadChunk) {
            // The flood is over: the next read that finds the buffer empty gives the memory back.
            readSize_ = kQuietReadChunk;
            shrinkPending_ = true;
        }
    }

    // Hands over every complete message in the buffer, then reads on unless paused.
    void takeFrames() {
        bool handedOver = false;
        while (!finished_ && !failing_) {
            auto data = readBuffer_.data();
            std::string_view bytes(static_cast<const char*>(data.data()), data.size());
            FrameEvent event = assembler_.next(bytes);
            if (event.kind == FrameEvent::needMore) break;
            handedOver = handle(event) || handedOver;
            // The event's text views the buffer: consumed only once it has been handled.
            readBuffer_.consume(event.consumed);
        }
        if (finished_) return;
        if (handedOver && !silenced_ && callbacks_.batchEnd) callbacks_.batchEnd();
        if (finished_ || failing_ || reading_) return;
        if (shrinkPending_ && readBuffer_.size() == 0) {
            readBuffer_.shrink_to_fit();
            shrinkPending_ = false;
        }
        // Once closing, the closing handshake still reads, whatever the owner asked.
        if (!paused_ || closeRequested_) readMore();
    }

    // True when the owner was handed a message.
    bool handle(const FrameEvent& event) {
        switch (event.kind) {
            case FrameEvent::text:
                if (silenced_ || !callbacks_.text) return false;
                callbacks_.text(event.payload);
                return true;
            case FrameEvent::binary:
                if (silenced_ || !callbacks_.binary) return false;
                callbacks_.binary(event.size);
                return true;
            case FrameEvent::oversized:
                if (silenced_ || !callbacks_.oversized) return false;
                callbacks_.oversized(assembler_.maxMessageSize());
                return true;
            case FrameEvent::ping:
                queueFrame(FrameOpcode::pong, event.payload);
                return false;
            case FrameEvent::close:
                onPeerClose(event.payload);
                return false;
            case FrameEvent::protocolError:
                fail("WebSocket protocol error: " + std::string(event.payload));
                return false;
            case FrameEvent::invalidText:
                failWithClose(kCloseInvalidPayload,
                              "WebSocket protocol error: " + std::string(event.payload));
                return false;
            case FrameEvent::pong:
            case FrameEvent::none:
            case FrameEvent::needMore:
                return false;
        }
        return false;
    }

    void onPeerClose(std::string_view payload) {
        if (closeRequested_) {
            // The answer to our own close: the handshake is complete.
            return finish({"transport close", false});
        }
        // Answer with the same code, then end; the owner hears of a closed connection.
        closeRequested_ = true;
        outbox_.push_back(encodeClientFrame(FrameOpcode::close, payload.substr(0, 2), maskKey()));
        closeSent_ = true;
        awaitingPeerClose_ = false;
        armDeadline(kCloseTimeout, "");
        if (!writing_) writeNext();
    }

    // --- Writing ---------------------------------------------------------------------------------

    std::uint32_t maskKey() {
        return static_cast<std::uint32_t>(random_());
    }

    void queueFrame(FrameOpcode opcode, std::string_view payload) {
        if (finished_ || closeSent_) return;
        outbox_.push_back(encodeClientFrame(opcode, payload, maskKey()));
        if (upgraded_ && !writing_) writeNext();
    }

    void queueClose() {
        // Status 1000, normal closure.
        const char code[2] = {'\x03', '\xE8'};
        outbox_.push_back(encodeClientFrame(FrameOpcode::close, {code, 2}, maskKey()));
        closeSent_ = true;
        awaitingPeerClose_ = true;
        armDeadline(kCloseTimeout, "");
        if (!writing_) writeNext();
        if (!reading_) readMore();
    }

    void writeNext() {
        if (finished_ || outbox_.empty()) return;
        writing_ = true;
        asio::async_write(stream_, asio::buffer(outbox_.front()),
                          [self = this->shared_from_this()](const error_code& ec, std::size_t) {
                              self->onWritten(ec);
                          });
    }

    void onWritten(const error_code& ec) {
        writing_ = false;
        if (finished_) return;
        if (ec) {
            if (isPeerClose(ec)) return finish({"transport close", false});
            return fail(describe(ec));
        }
        outbox_.pop_front();
        if (!outbox_.empty()) return writeNext();
        if (failing_) return finish({*failing_, true});
        // Our answer to the peer's close went out: nothing more to wait for.
        if (closeSent_ && !awaitingPeerClose_) finish({"transport close", false});
    }

    // --- Ending ----------------------------------------------------------------------------------

    void armDeadline(std::chrono::seconds limit, std::string reason) {
        deadline_.expires_after(limit);
        deadline_.async_wait(
            [self = this->shared_from_this(), reason = std::move(reason)](const error_code& ec) {
                if (ec || self->finished_) return;
                if (reason.empty()) return self->finish({"transport close", false});
                self->fail(reason);
            });
    }

    void fail(std::string reason) {
        finish({std::move(reason), true});
    }

    // Fails the connection as RFC 6455 (7.1.7) has it: a close frame with the status tells the
    // peer why, then the connection ends without waiting for its answer, and nothing read after
    // the offending message is handed over.
    void failWithClose(std::uint16_t status, std::string reason) {
        if (finished_ || failing_) return;
        failing_ = reason;
        if (closeSent_ || !upgraded_) return fail(std::move(reason));
        const char code[2] = {static_cast<char>(status >> 8), static_cast<char>(status & 0xFF)};
        outbox_.push_back(encodeClientFrame(FrameOpcode::close, {code, 2}, maskKey()));
        closeSent_ = true;
        awaitingPeerClose_ = false;
        armDeadline(kCloseTimeout, reason);
        if (!writing_) writeNext();
    }

    // Ends the connection once; the owner hears of it unless it asked for it.
    void finish(TransportEnd end) {
        if (finished_) return;
        finished_ = true;
        outbox_.clear();
        resolver_.cancel();
        deadline_.cancel();
        error_code ignored;
        socket().shutdown(tcp::socket::shutdown_both, ignored);
        socket().close(ignored);
        if (silenced_ || !callbacks_.closed) return;
        silenced_ = true;
        callbacks_.closed(std::move(end));
    }

    const SocketEndpoint endpoint_;
    const std::optional<ProxyServer> proxy_;
    const std::shared_ptr<ssl::context> tls_;  // must outlive the stream
    NextLayer stream_;
    Resolver resolver_;
    Timer deadline_;
    FrameAssembler assembler_;
    // Never reset while the transport lives: a callback may be running when the owner closes us.
    const Callbacks callbacks_;
    bool silenced_ = false;
    std::minstd_rand random_{std::random_device{}()};

    std::string target_;
    std::string tunnelExchange_;  // the CONNECT request, then the proxy's answer
    std::string key_;
    http::request<http::empty_body> request_;
    http::response_parser<http::empty_body> responseParser_;
    beast::flat_buffer readBuffer_;
    std::size_t readSize_ = kQuietReadChunk;
    bool shrinkPending_ = false;
    std::deque<std::string> outbox_;
    bool upgraded_ = false;
    bool reading_ = false;
    bool paused_ = false;
    bool writing_ = false;
    bool closeRequested_ = false;
    bool closeSent_ = false;
    bool awaitingPeerClose_ = false;
    // Set once the connection is being failed with a close frame: why, for the owner.
    std::optional<std::string> failing_;
    bool finished_ = false;
};

// Stands in for a transport that could not even be set up, so that the failure reaches the
// owner the same way as any other: asynchronously, through `closed`.
class FailedTransport final : public WebSocketTransport,
                              public std::enable_shared_from_this<FailedTransport> {
  public:
    FailedTransport(asio::io_context& io, std::string reason, Callbacks callbacks)
        : io_(io), reason_(std::move(reason)), callbacks_(std::move(callbacks)) {}

    void open(std::string) override {
        asio::post(io_, [self = shared_from_this()] {
            if (self->silenced_ || !self->callbacks_.closed) return;
            self->silenced_ = true;
            self->callbacks_.closed({self->reason_, true});
        });
    }
    void send(std::string) override {}
    void close() override { silenced_ = true; }
    void abort() override { silenced_ = true; }
    void pauseReading() override {}
    void resumeReading() override {}

  private:
    asio::io_context& io_;
    const std::string reason_;
    const Callbacks callbacks_;
    bool silenced_ = false;
};

}  // namespace

std::shared_ptr<WebSocketTransport> WebSocketTransport::create(
    asio::io_context& io, SocketEndpoint endpoint, TransportSecurity security, ProxyRoute route,
    std::size_t maxMessageSize, Callbacks callbacks) {
    if (route.problem) {
        return std::make_shared<FailedTransport>(
            io, std::string(kProxyFailurePrefix) + "unusable: " + *route.problem,
            std::move(callbacks));
    }
    if (!endpoint.secure) {
        return std::make_shared<FramedTransport<PlainStream>>(io, std::move(endpoint), nullptr,
                                                              std::move(route.proxy),
                                                              maxMessageSize, std::move(callbacks));
    }
    std::string error;
    auto tls = makeTLSContext(security, error);
    if (!tls) return std::make_shared<FailedTransport>(io, std::move(error), std::move(callbacks));
    return std::make_shared<FramedTransport<SecureStream>>(io, std::move(endpoint), std::move(tls),
                                                           std::move(route.proxy), maxMessageSize,
                                                           std::move(callbacks));
}

bool isProxyFailure(std::string_view reason) {
    return reason.starts_with(kProxyFailurePrefix);
}

}  // namespace tavlo::sio
