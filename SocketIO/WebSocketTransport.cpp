#include "SocketIO/WebSocketTransport.hpp"

#include <openssl/ssl.h>

#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/ssl.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/ssl.hpp>
#include <boost/beast/websocket.hpp>
#include <boost/beast/websocket/ssl.hpp>
#include <deque>
#include <type_traits>

namespace tavlo::sio {
namespace {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace websocket = beast::websocket;
namespace ssl = asio::ssl;
using tcp = asio::ip::tcp;
using error_code = boost::system::error_code;

// Bound to the io_context's own executor type rather than a type-erased one: every read and
// write otherwise pays for copying and destroying the erased executor.
using Socket = asio::basic_stream_socket<tcp, asio::io_context::executor_type>;
using PlainStream = Socket;
using SecureStream = beast::ssl_stream<Socket>;

// How much one read may append; small frames arrive whole, big ones in pieces we can bound.
constexpr std::size_t kReadChunk = 64 * 1024;
// Bounds the opening and the closing handshakes when the peer stops answering.
constexpr auto kUpgradeTimeout = std::chrono::seconds(30);
constexpr auto kCloseTimeout = std::chrono::seconds(5);

// The peer went away, in order or not: a lost connection rather than a failure.
bool isPeerClose(const error_code& error) {
    return error == websocket::error::closed || error == asio::error::eof ||
           error == asio::error::connection_reset || error == asio::error::broken_pipe ||
           error == asio::ssl::error::stream_truncated;
}

std::string describe(const error_code& error) {
    std::string message = error.message();
    return message.empty() ? "connection failed" : message;
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
class BeastTransport final : public WebSocketTransport,
                             public std::enable_shared_from_this<BeastTransport<NextLayer>> {
  public:
    static constexpr bool kSecure = std::is_same_v<NextLayer, SecureStream>;

    BeastTransport(asio::io_context& io, SocketEndpoint endpoint, std::shared_ptr<ssl::context> tls,
                   std::size_t maxMessageSize, Callbacks callbacks)
        : endpoint_(std::move(endpoint)),
          tls_(std::move(tls)),
          ws_(makeStream(io, tls_.get())),
          resolver_(io),
          maxMessageSize_(maxMessageSize),
          callbacks_(std::move(callbacks)) {}

    void open(std::string target) override {
        target_ = std::move(target);
        resolver_.async_resolve(
            endpoint_.host, std::to_string(endpoint_.port),
            [self = this->shared_from_this()](const error_code& ec,
                                              const tcp::resolver::results_type& results) {
                self->onResolved(ec, results);
            });
    }

    void send(std::string text) override {
        if (finished_ || closeRequested_) return;
        outbox_.push_back(std::move(text));
        if (upgraded_ && !writing_) writeNext();
    }

    void close() override {
        silenced_ = true;
        if (finished_ || closeRequested_) return;
        closeRequested_ = true;
        if (!upgraded_) {
            abort();
        } else if (!writing_) {
            writeNext();
        }
    }

    void abort() override {
        silenced_ = true;
        finish({"transport close", false});
    }

  private:
    static websocket::stream<NextLayer> makeStream(asio::io_context& io, ssl::context* tls) {
        if constexpr (kSecure) {
            return websocket::stream<NextLayer>(io, *tls);
        } else {
            (void)tls;
            return websocket::stream<NextLayer>(io);
        }
    }

    void onResolved(const error_code& ec, const tcp::resolver::results_type& results) {
        if (finished_) return;
        if (ec) return fail("cannot resolve " + endpoint_.host + ": " + describe(ec));
        asio::async_connect(
            beast::get_lowest_layer(ws_), results,
            [self = this->shared_from_this()](const error_code& error, const tcp::endpoint&) {
                self->onConnected(error);
            });
    }

    void onConnected(const error_code& ec) {
        if (finished_) return;
        if (ec) return fail(describe(ec));
        beast::get_lowest_layer(ws_).set_option(tcp::no_delay(true));
        if constexpr (kSecure) {
            startTLS();
        } else {
            upgrade();
        }
    }

    void startTLS() {
        auto& stream = ws_.next_layer();
        if (!endpoint_.hostIsAddress()) {
            // SNI: a server hosting several names picks the certificate by it.
            SSL_set_tlsext_host_name(stream.native_handle(), endpoint_.host.c_str());
        }
        stream.set_verify_mode(ssl::verify_peer);
        stream.set_verify_callback(ssl::host_name_verification(endpoint_.host));
        stream.async_handshake(ssl::stream_base::client,
                               [self = this->shared_from_this()](const error_code& error) {
                                   if (self->finished_) return;
                                   if (error) return self->fail("TLS: " + describe(error));
                                   self->upgrade();
                               });
    }

    void upgrade() {
        websocket::stream_base::timeout timeouts{kUpgradeTimeout, websocket::stream_base::none(),
                                                 false};
        ws_.set_option(timeouts);
        ws_.set_option(websocket::stream_base::decorator([](websocket::request_type& request) {
            request.set(beast::http::field::user_agent, "tavlo-sio/1.0");
        }));
        ws_.read_message_max(0);  // the read loop enforces the limit without dropping the link
        ws_.async_handshake(response_, endpoint_.hostHeader(), target_,
                            [self = this->shared_from_this()](const error_code& error) {
                                self->onUpgraded(error);
                            });
    }

    void onUpgraded(const error_code& ec) {
        if (finished_) return;
        if (ec == websocket::error::upgrade_declined) {
            return fail("WebSocket upgrade declined (HTTP " +
                        std::to_string(response_.result_int()) + ")");
        }
        if (ec) return fail("WebSocket upgrade failed: " + describe(ec));
        upgraded_ = true;
        ws_.set_option(
            websocket::stream_base::timeout{kCloseTimeout, websocket::stream_base::none(), false});
        ws_.text(true);
        if (!silenced_ && callbacks_.opened) callbacks_.opened();
        if (finished_) return;
        read();
        if (!writing_) writeNext();
    }

    void read() {
        ws_.async_read_some(readBuffer_, kReadChunk,
                            [self = this->shared_from_this()](const error_code& ec, std::size_t) {
                                self->onRead(ec);
                            });
    }

    void onRead(const error_code& ec) {
        if (finished_) return;
        if (ec) {
            if (isPeerClose(ec)) return finish({"transport close", false});
            return fail(describe(ec));
        }
        if (discarding_ || readBuffer_.size() > maxMessageSize_) {
            discarding_ = true;
            readBuffer_.clear();
        }
        if (ws_.is_message_done()) deliverMessage();
        // Once closing, the close handshake reads (and discards) whatever still arrives.
        if (!finished_ && !closeRequested_) read();
    }

    void deliverMessage() {
        if (discarding_) {
            discarding_ = false;
            if (!silenced_ && callbacks_.oversized) callbacks_.oversized(maxMessageSize_);
        } else if (ws_.got_text()) {
            auto data = readBuffer_.data();
            if (!silenced_ && callbacks_.text) {
                callbacks_.text({static_cast<const char*>(data.data()), data.size()});
            }
        } else if (!silenced_ && callbacks_.binary) {
            callbacks_.binary(readBuffer_.size());
        }
        readBuffer_.clear();
    }

    void writeNext() {
        if (finished_) return;
        if (outbox_.empty()) {
            if (closeRequested_) startClose();
            return;
        }
        writing_ = true;
        ws_.async_write(asio::buffer(outbox_.front()),
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
        writeNext();
    }

    void startClose() {
        ws_.async_close(websocket::close_code::normal,
                        [self = this->shared_from_this()](const error_code&) {
                            self->finish({"transport close", false});
                        });
    }

    void fail(std::string reason) { finish({std::move(reason), true}); }

    // Ends the connection once; the owner hears of it unless it asked for it.
    void finish(TransportEnd end) {
        if (finished_) return;
        finished_ = true;
        outbox_.clear();
        resolver_.cancel();
        error_code ignored;
        beast::get_lowest_layer(ws_).close(ignored);
        if (silenced_ || !callbacks_.closed) return;
        silenced_ = true;
        callbacks_.closed(std::move(end));
    }

    const SocketEndpoint endpoint_;
    const std::shared_ptr<ssl::context> tls_;  // must outlive the stream
    websocket::stream<NextLayer> ws_;
    tcp::resolver resolver_;
    const std::size_t maxMessageSize_;
    // Never reset while the transport lives: a callback may be running when the owner closes us.
    const Callbacks callbacks_;
    bool silenced_ = false;

    std::string target_;
    websocket::response_type response_;
    beast::flat_buffer readBuffer_;
    std::deque<std::string> outbox_;
    bool upgraded_ = false;
    bool writing_ = false;
    bool discarding_ = false;
    bool closeRequested_ = false;
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

  private:
    asio::io_context& io_;
    const std::string reason_;
    const Callbacks callbacks_;
    bool silenced_ = false;
};

}  // namespace

std::shared_ptr<WebSocketTransport> WebSocketTransport::create(asio::io_context& io,
                                                               SocketEndpoint endpoint,
                                                               TransportSecurity security,
                                                               std::size_t maxMessageSize,
                                                               Callbacks callbacks) {
    if (!endpoint.secure) {
        return std::make_shared<BeastTransport<PlainStream>>(io, std::move(endpoint), nullptr,
                                                             maxMessageSize, std::move(callbacks));
    }
    std::string error;
    auto tls = makeTLSContext(security, error);
    if (!tls) return std::make_shared<FailedTransport>(io, std::move(error), std::move(callbacks));
    return std::make_shared<BeastTransport<SecureStream>>(io, std::move(endpoint), std::move(tls),
                                                          maxMessageSize, std::move(callbacks));
}

}  // namespace tavlo::sio
