// Frames per second and CPU per event of the SocketIO library, next to a raw Beast WebSocket
// reader that only parses the same JSON, on the same stream, in one run.
//
// A flood server (a child process, so that its work is not counted) sends N pre-encoded
// "message" events of about 300 bytes of JSON each over loopback as fast as it can. The raw
// reader reads each frame and parses its JSON; the library decodes the frame, dispatches the
// event to a handler on its handle queue, and the handler reads one field. CPU is this process's
// user + system time over the run, all threads included.
//
//   SocketIOThroughput [events [raw|library]]   (default 200000 events, both readers)

#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <boost/asio.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/websocket.hpp>
#include <boost/json.hpp>
#include <chrono>
#include <cstdio>
#include <future>
#include <string>

#include "SocketIO/SocketIOClient.hpp"

namespace {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace websocket = beast::websocket;
namespace json = boost::json;
using tcp = asio::ip::tcp;
using Clock = std::chrono::steady_clock;

// About 300 bytes, shaped like a chat message with its creator.
const std::string kMessage =
    R"({"id":"65f1c0de9a7b4c2e8d3f1a20","chatId":"lobby-7f3a","msgType":"text","category":"chat",)"
    R"("createdDate":"2024-05-01T12:00:00.000+0000","sourceType":"sdk","status":"ACTIVE",)"
    R"("creatorLabel":1042,"text":"Hello everyone, how is the game going tonight? 👋",)"
    R"("creator":{"label":1042,"role":"NORMAL","name":"Zoë","status":"ACTIVE"}})";

enum class Mode { raw, socketIO };

// The flood server: accepts one connection, plays the Engine.IO/Socket.IO opening when asked,
// then writes `count` frames and a final "done" event.
[[noreturn]] void serve(tcp::acceptor& acceptor, Mode mode, int count) {
    try {
        tcp::socket socket = acceptor.accept();
        websocket::stream<tcp::socket> ws(std::move(socket));
        ws.accept();
        ws.text(true);
        if (mode == Mode::socketIO) {
            ws.write(asio::buffer(std::string(
                R"(0{"sid":"bench","upgrades":[],"pingInterval":600000,"pingTimeout":60000,"maxPayload":1000000})")));
            beast::flat_buffer buffer;
            ws.read(buffer);  // the client's "40"
            ws.write(asio::buffer(std::string(R"(40{"sid":"bench-socket"})")));
        }
        const std::string frame = "42[\"message\"," + kMessage + "]";
        for (int i = 0; i < count; ++i) ws.write(asio::buffer(frame));
        ws.write(asio::buffer(std::string(R"(42["done"])")));
        beast::flat_buffer buffer;
        boost::system::error_code ignored;
        ws.read(buffer, ignored);  // until the client goes
    } catch (...) {
    }
    _exit(0);
}

struct Server {
    pid_t pid;
    unsigned short port;
};

// Forked before any thread starts, so the child owns a clean process.
Server startServer(Mode mode, int count) {
    asio::io_context io;
    tcp::acceptor acceptor(io, tcp::endpoint(asio::ip::make_address("127.0.0.1"), 0));
    unsigned short port = acceptor.local_endpoint().port();
    pid_t pid = fork();
    if (pid == 0) serve(acceptor, mode, count);
    return {pid, port};
}

double cpuSeconds() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    auto seconds = [](const timeval& t) { return t.tv_sec + t.tv_usec / 1e6; };
    return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

struct Result {
    long events = 0;
    double wallSeconds = 0;
    double cpuSeconds = 0;
};

Result runRawReader(unsigned short port) {
    asio::io_context io;
    websocket::stream<tcp::socket> ws(io);
    ws.next_layer().connect(tcp::endpoint(asio::ip::make_address("127.0.0.1"), port));
    ws.handshake("127.0.0.1", "/socket.io/?EIO=4&transport=websocket");
    Result result;
    double cpu = cpuSeconds();
    auto start = Clock::now();
    beast::flat_buffer buffer;
    for (;;) {
        ws.read(buffer);
        auto data = buffer.data();
        std::string_view text(static_cast<const char*>(data.data()), data.size());
        boost::system::error_code error;
        json::value value = json::parse(text.substr(2), error);  // past the "42"
        buffer.clear();
        if (error || !value.is_array() || value.as_array().size() < 2) break;
        ++result.events;
    }
    result.wallSeconds = std::chrono::duration<double>(Clock::now() - start).count();
    result.cpuSeconds = cpuSeconds() - cpu;
    ws.close(websocket::close_code::normal);
    return result;
}

Result runLibrary(unsigned short port) {
    auto client =
        tavlo::sio::SocketIOClient::create("http://127.0.0.1:" + std::to_string(port), {});
    std::atomic<long> events = 0;
    std::atomic<long> labels = 0;
    std::promise<void> done, connected;
    client->on("connect", [&connected](const tavlo::sio::SocketIOArgs&) { connected.set_value(); });
    client->on("message", [&](const tavlo::sio::SocketIOArgs& args) {
        // Touch the payload as a consumer would.
        if (!args.empty() && args[0].is_object()) {
            if (const auto* label = args[0].as_object().if_contains("creatorLabel")) {
                labels += label->is_int64() ? 1 : 0;
            }
        }
        ++events;
    });
    client->on("done", [&done](const tavlo::sio::SocketIOArgs&) { done.set_value(); });
    Result result;
    double cpu = cpuSeconds();
    auto start = Clock::now();
    client->connect(std::chrono::seconds(10));
    connected.get_future().wait();
    done.get_future().wait();
    result.wallSeconds = std::chrono::duration<double>(Clock::now() - start).count();
    result.cpuSeconds = cpuSeconds() - cpu;
    result.events = events;
    client->disconnect();
    return result;
}

void print(const char* name, const Result& result) {
    std::printf("%-28s %10ld %14.0f %16.3f %14.2f\n", name, result.events,
                result.events / result.wallSeconds, result.cpuSeconds * 1e6 / result.events,
                result.cpuSeconds);
}

}  // namespace

int main(int argc, char** argv) {
    int count = argc > 1 ? std::atoi(argv[1]) : 200000;
    std::string only = argc > 2 ? argv[2] : "";  // to profile one reader alone
    bool runRaw = only != "library";
    bool runLib = only != "raw";
    Server rawServer = startServer(Mode::raw, runRaw ? count : 0);
    Server libraryServer = startServer(Mode::socketIO, runLib ? count : 0);

    Result raw = runRaw ? runRawReader(rawServer.port) : Result{};
    Result library = runLib ? runLibrary(libraryServer.port) : Result{};
    if (!runRaw) kill(rawServer.pid, SIGKILL);
    if (!runLib) kill(libraryServer.pid, SIGKILL);
    waitpid(rawServer.pid, nullptr, 0);
    waitpid(libraryServer.pid, nullptr, 0);

    std::printf("%zu-byte JSON per event, %d events, loopback\n\n", kMessage.size(), count);
    std::printf("%-28s %10s %14s %16s %14s\n", "reader", "events", "events/s", "CPU us/event",
                "CPU s");
    if (runRaw) print("raw Beast + Boost.JSON", raw);
    if (runLib) print("tavlo::sio::SocketIOClient", library);
    if (runRaw && runLib) {
        double ratio = (library.cpuSeconds / std::max(library.events, 1L)) /
                       (raw.cpuSeconds / std::max(raw.events, 1L));
        std::printf("\nCPU per event, library / raw: %.2fx (target at most 1.5x)\n", ratio);
    }
    bool complete = (!runRaw || raw.events == count) && (!runLib || library.events == count);
    return complete ? 0 : 1;
}
