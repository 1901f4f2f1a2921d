// The realtime receive path, side by side in one run: four readers of the same "message" events,
// each in a process of its own (so that its CPU time and peak resident set are its own), in
// alternating rounds, on two streams:
//
//  - burst: a bare socket.io-style server (a forked child) writes N prebuilt event frames as fast
//    as loopback takes them;
//  - emulator: the local emulator floods one chatroom with N events at the pace it can write.
//
// Readers: a blocking Beast WebSocket reader that parses each event's JSON with Boost.JSON and
// reads a field (the floor), tavlo::sio::SocketIOClient with a handler, the SDK end to end
// (TVKChatManager to the application's delegate; it needs the service's REST interface, so only
// on the emulator's stream), and the official Node socket.io-client (bench/node).
//
// CPU is the reader's user + system time from the moment it is ready (subscribed; for the burst,
// from connecting) until its last event; peak RSS is its whole life's (getrusage, MB = 10^6
// bytes). The table shows medians over the rounds with their range.
//
//   Realtime [--rounds R] [--burst N] [--flood N] [--big N]
//   Realtime --client raw|sio|sdk --url URL --count N [--token T --chat ID | --room NAME]

#include <sys/resource.h>

#include <algorithm>
#include <atomic>
#include <boost/asio.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/websocket.hpp>
#include <condition_variable>
#include <cstdio>
#include <ctime>
#include <future>
#include <map>
#include <mutex>
#include <optional>
#include <sstream>
#include <thread>

#include "SocketIO/SocketIOClient.hpp"
#include "TavloCoreSDK/TVKSDKAuthManager.hpp"
#include "TavloMessagingSDK/TVKChatManager.hpp"
#include "TavloMessagingSDK/TVKChatMessage.hpp"
#include "support/BenchProcess.hpp"

namespace {

using namespace bench;
namespace asio = boost::asio;
namespace beast = boost::beast;
namespace websocket = beast::websocket;
using tcp = asio::ip::tcp;
using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

// About 300 bytes, shaped like a chat message with its creator, as the service sends it.
const std::string kMessage =
    R"({"id":"65f1c0de9a7b4c2e8d3f1a20","chatId":"65f1c0de9a7b4c2e8d3f1a00","msgType":"text",)"
    R"("category":"chat","createdDate":"2024-05-01T12:00:00.000+0000","sourceType":"sdk",)"
    R"("status":"ACTIVE","creatorLabel":1042,"parentName":"bench",)"
    R"("text":"Hello everyone, how is the game going tonight?",)"
    R"("creator":{"label":1042,"role":"NORMAL","name":"Zoe","status":"ACTIVE"}})";

struct Options {
    std::map<std::string, std::string> values;
    std::string get(const std::string& name, std::string fallback = "") const {
        auto found = values.find(name);
        return found == values.end() ? fallback : found->second;
    }
    long number(const std::string& name, long fallback) const {
        auto found = values.find(name);
        return found == values.end() ? fallback : std::atol(found->second.c_str());
    }
};

Options parseOptions(int argc, char** argv) {
    Options options;
    for (int i = 1; i + 1 < argc; i += 2) {
        std::string name = argv[i];
        if (name.rfind("--", 0) != 0) fail("unexpected argument " + name);
        options.values[name.substr(2)] = argv[i + 1];
    }
    return options;
}

// --- Readers (each in its own process) ---------------------------------------------------------

/// What a reader measured from ready to its last event.
class Stopwatch {
  public:
    void start() {
        cpu_ = cpuSeconds();
        system_ = systemSeconds();
        wall_ = Clock::now();
    }
    void report(long events, const char* who) const {
        const double wall = std::chrono::duration<double>(Clock::now() - wall_).count();
        std::printf("%ld %.6f %.6f %ld %.6f\n", events, cpuSeconds() - cpu_, wall,
                    peakResidentKiB(), systemSeconds() - system_);
        std::fflush(stdout);
        printResidentByMapping(who);
    }

  private:
    double cpu_ = 0;
    double system_ = 0;
    Clock::time_point wall_;
};

void ready() {
    std::printf("ready\n");
    std::fflush(stdout);
}

/// The floor: blocking reads, one JSON parse per event into a small struct.
struct ChatLine {
    std::int64_t creatorLabel = 0;
    std::size_t textBytes = 0;
};

std::optional<ChatLine> parseMessageEvent(std::string_view frame) {
    boost::system::error_code error;
    json::value value = json::parse(frame.substr(2), error);  // past the "42"
    const json::array* array = error ? nullptr : value.if_array();
    if (!array || array->size() < 2 || !array->at(1).is_object()) return std::nullopt;
    const json::object& message = array->at(1).get_object();
    ChatLine line;
    if (const auto* label = message.if_contains("creatorLabel"); label && label->is_int64()) {
        line.creatorLabel = label->get_int64();
    }
    if (const auto* text = message.if_contains("text"); text && text->is_string()) {
        line.textBytes = text->get_string().size();
    }
    return line;
}

void runRawReader(const Options& options) {
    const long count = options.number("count", 0);
    const auto url = options.get("url");  // http://127.0.0.1:PORT
    const auto port = static_cast<unsigned short>(std::stoi(url.substr(url.rfind(':') + 1)));
    asio::io_context io;
    websocket::stream<tcp::socket> ws(io);
    Stopwatch stopwatch;
    stopwatch.start();
    ws.next_layer().connect(tcp::endpoint(asio::ip::make_address("127.0.0.1"), port));
    ws.handshake("127.0.0.1", "/socket.io/?EIO=4&transport=websocket");
    ws.text(true);
    beast::flat_buffer buffer;
    auto readText = [&] {
        buffer.clear();
        ws.read(buffer);
        auto data = buffer.data();
        return std::string_view(static_cast<const char*>(data.data()), data.size());
    };
    readText();  // the Engine.IO open packet
    ws.write(asio::buffer(std::string("40")));
    while (!readText().starts_with("40")) {
    }
    if (options.values.count("chat")) {
        ws.write(asio::buffer("42" + json::serialize(json::array{"subscribe", options.get("token"),
                                                                 options.get("chat")})));
        while (!readText().starts_with("42[\"subscribed\"")) {
        }
        stopwatch.start();
        ready();
    }
    long events = 0;
    [[maybe_unused]] std::size_t textBytes = 0;  // the same work as the other readers do
    while (events < count) {
        const auto frame = readText();
        if (frame == "2") {
            ws.write(asio::buffer(std::string("3")));  // the server's heartbeat
        } else if (auto line = parseMessageEvent(frame)) {
            textBytes += line->textBytes;
            ++events;
        }
    }
    stopwatch.report(events, "the floor reader");
}

void runLibrary(const Options& options) {
    const long count = options.number("count", 0);
    const bool subscribe = options.values.count("chat") > 0;
    auto client = tavlo::sio::SocketIOClient::create(options.get("url"), {});
    std::atomic<long> events = 0;
    std::atomic<std::size_t> textBytes = 0;
    std::promise<void> done;
    Stopwatch stopwatch;
    stopwatch.start();
    client->on("connect", [&](const tavlo::sio::SocketIOArgs&) {
        if (subscribe)
            client->emit("subscribe",
                         {json::string(options.get("token")), json::string(options.get("chat"))});
    });
    client->on("subscribed", [&](const tavlo::sio::SocketIOArgs&) {
        stopwatch.start();
        ready();
    });
    client->on("message", [&](const tavlo::sio::SocketIOArgs& args) {
        // The least an application would do: find the text.
        if (!args.empty() && args[0].is_object()) {
            if (const auto* text = args[0].as_object().if_contains("text")) {
                textBytes += text->is_string() ? text->get_string().size() : 0;
            }
        }
        if (++events == count) done.set_value();
    });
    client->connect(10s);
    if (done.get_future().wait_for(180s) != std::future_status::ready) fail("events missing");
    stopwatch.report(events, "the SocketIOClient reader");
    client->disconnect();
}

/// Counts what the application hears.
class Application : public tavlo::TVKChatEventDelegate {
  public:
    explicit Application(long expected) : expected_(expected) {}
    void chatroomConnected(const std::shared_ptr<tavlo::TVKChat>&) override {
        stopwatch.start();
        ready();
    }
    void chatroomFailToConnect(const std::shared_ptr<tavlo::TVKChat>&,
                               const tavlo::TVKError& error) override {
        fail("the chatroom failed to connect: " + error.describe());
    }
    void chatroomError(const std::shared_ptr<tavlo::TVKChat>&,
                       const tavlo::TVKError& error) override {
        fail("the chatroom reported an error: " + error.describe());
    }
    void chatroomMessageAdded(const std::shared_ptr<tavlo::TVKChat>&,
                              const std::shared_ptr<tavlo::TVKChatMessage>& message) override {
        // Read the message as an application would.
        textBytes_ += message->text() ? message->text()->size() : 0;
        if (++messages_ == expected_) done.set_value();
    }

    Stopwatch stopwatch;
    std::promise<void> done;

  private:
    const long expected_;
    long messages_ = 0;
    std::size_t textBytes_ = 0;
};

void runSDK(const Options& options) {
    curl_global_init(CURL_GLOBAL_DEFAULT);  // the SDK's REST calls; the other readers need none
    auto& auth = tavlo::TVKSDKAuthManager::sharedManager();
    auth.setAccountId("demo-account");
    auth.setAccountToken("demo-account-token");
    const long count = options.number("count", 0);
    auto manager = tavlo::TVKChatManager::create();
    manager->setHTTPHostURL(options.get("url"));
    auto application = std::make_shared<Application>(count);
    manager->connectToChatroom(options.get("room"), "", 0, application);
    if (application->done.get_future().wait_for(300s) != std::future_status::ready) {
        fail("messages missing");
    }
    application->stopwatch.report(count, "the SDK");
}

int runClient(const Options& options) {
    const auto kind = options.get("client");
    if (kind == "raw") {
        runRawReader(options);
    } else if (kind == "sio") {
        runLibrary(options);
    } else if (kind == "sdk") {
        runSDK(options);
    } else if (kind == "idle") {
        // The same program doing nothing: what its shared libraries alone keep resident.
        std::printf("%ld\n", peakResidentKiB());
        printResidentByMapping("an idle process");
    } else {
        fail("unknown client " + kind);
    }
    std::fflush(stdout);
    _exit(0);  // nothing to tear down that the table needs
}

// --- The burst server --------------------------------------------------------------------------

/// Accepts one connection, plays the Engine.IO and Socket.IO opening, writes `count` event
/// frames as fast as the reader takes them, then waits for the reader to go.
[[noreturn]] void serveBurst(tcp::acceptor& acceptor, long count) {
    try {
        websocket::stream<tcp::socket> ws(acceptor.accept());
        ws.accept();
        ws.text(true);
        ws.write(asio::buffer(std::string(
            R"(0{"sid":"bench","upgrades":[],"pingInterval":600000,"pingTimeout":60000,"maxPayload":1000000})")));
        beast::flat_buffer buffer;
        ws.read(buffer);  // the reader's "40"
        ws.write(asio::buffer(std::string(R"(40{"sid":"bench-socket"})")));
        const std::string frame = "42[\"message\"," + kMessage + "]";
        for (long i = 0; i < count; ++i) ws.write(asio::buffer(frame));
        boost::system::error_code ignored;
        for (;;) {
            buffer.clear();
            ws.read(buffer, ignored);
            if (ignored) break;
        }
    } catch (...) {
    }
    _exit(0);
}

struct BurstServer {
    pid_t pid;
    std::string url;
};

BurstServer startBurstServer(long count) {
    asio::io_context io;
    tcp::acceptor acceptor(io, tcp::endpoint(asio::ip::make_address("127.0.0.1"), 0));
    const auto port = acceptor.local_endpoint().port();
    std::fflush(stdout);
    const pid_t pid = fork();
    if (pid == 0) serveBurst(acceptor, count);
    return {pid, "http://127.0.0.1:" + std::to_string(port)};
}

// --- The driver --------------------------------------------------------------------------------

struct Sample {
    long events = 0;
    double cpuSeconds = 0;
    double wallSeconds = 0;
    long peakKiB = 0;
    double systemSeconds = 0;
    double usPerEvent() const { return cpuSeconds * 1e6 / static_cast<double>(events); }
    double eventsPerSecond() const { return static_cast<double>(events) / wallSeconds; }
};

Sample parseSample(const std::string& line) {
    Sample sample;
    std::istringstream in(line);
    in >> sample.events >> sample.cpuSeconds >> sample.wallSeconds >> sample.peakKiB >> sample.systemSeconds;
    if (!in || sample.events <= 0) fail("unreadable result: " + line);
    return sample;
}

enum class Reader { raw, library, sdk, node };
const std::vector<Reader> kReaders = {Reader::raw, Reader::library, Reader::sdk, Reader::node};

const char* readerName(Reader reader) {
    switch (reader) {
        case Reader::raw:
            return "blocking Beast + Boost.JSON (floor)";
        case Reader::library:
            return "tavlo::sio::SocketIOClient";
        case Reader::sdk:
            return "SDK end to end (delegate)";
        case Reader::node:
            return "Node socket.io-client 4.8.4";
    }
    return "";
}

std::vector<std::string> readerCommand(Reader reader, const std::string& self) {
    switch (reader) {
        case Reader::raw:
            return {self, "--client", "raw"};
        case Reader::library:
            return {self, "--client", "sio"};
        case Reader::sdk:
            return {self, "--client", "sdk"};
        case Reader::node:
            return {"node", (sourceRoot() / "bench" / "node" / "client.js").string()};
    }
    return {};
}

class Driver {
  public:
    Driver(Emulator& emulator, std::string self) : emulator_(emulator), self_(std::move(self)) {}

    Sample burst(Reader reader, long count) {
        auto server = startBurstServer(count);
        auto command = readerCommand(reader, self_);
        command.insert(command.end(), {"--url", server.url, "--count", std::to_string(count)});
        ChildProcess client(command);
        auto sample = parseSample(client.readLine());
        client.wait();
        kill(server.pid, SIGKILL);
        waitpid(server.pid, nullptr, 0);
        return sample;
    }

    Sample flood(Reader reader, long count) {
        const std::string room = "bench-" + std::to_string(++rooms_);
        auto chat = emulator_.control("POST", "chatrooms", json::object{{"channelCode", room}});
        auto command = readerCommand(reader, self_);
        command.insert(command.end(), {"--url", emulator_.url(), "--count", std::to_string(count)});
        if (reader == Reader::sdk) {
            command.insert(command.end(), {"--room", room});
        } else {
            auto users = emulator_.control(
                "POST", "chatrooms/" + room + "/users",
                json::object{
                    {"users", json::array{json::object{{"name", "reader"}, {"join", true}}}}});
            command.insert(
                command.end(),
                {"--token", std::string(users.at("users").at(0).at("userToken").as_string()),
                 "--chat", std::string(chat.at("id").as_string())});
        }
        ChildProcess client(command);
        if (client.readLine() != "ready") fail("the reader did not get ready");
        emulator_.control(
            "POST", "chatrooms/" + room + "/flood",
            json::object{
                {"event", "message"}, {"payload", json::parse(kMessage)}, {"count", count}});
        auto sample = parseSample(client.readLine());
        client.wait();
        return sample;
    }

  private:
    Emulator& emulator_;
    const std::string self_;
    int rooms_ = 0;
};

double median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    const auto n = values.size();
    return n % 2 ? values[n / 2] : (values[n / 2 - 1] + values[n / 2]) / 2;
}

struct Summary {
    double us = 0, usLow = 0, usHigh = 0;
    double rate = 0;
    double peakMB = 0, peakLow = 0, peakHigh = 0;
    double systemUs = 0, systemLow = 0, systemHigh = 0;  // system CPU per event
};

Summary summarise(const std::vector<Sample>& samples) {
    std::vector<double> us, rate, peak, system;
    for (const auto& sample : samples) {
        us.push_back(sample.usPerEvent());
        system.push_back(sample.systemSeconds * 1e6 / static_cast<double>(sample.events));
        rate.push_back(sample.eventsPerSecond());
        peak.push_back(static_cast<double>(sample.peakKiB) * 1024.0 / 1e6);
    }
    return {median(us),
            *std::min_element(us.begin(), us.end()),
            *std::max_element(us.begin(), us.end()),
            median(rate),
            median(peak),
            *std::min_element(peak.begin(), peak.end()),
            *std::max_element(peak.begin(), peak.end()),
            median(system),
            *std::min_element(system.begin(), system.end()),
            *std::max_element(system.begin(), system.end())};
}

std::string machine() {
    std::ifstream cpuinfo("/proc/cpuinfo");
    std::string line, model = "unknown CPU";
    while (std::getline(cpuinfo, line)) {
        if (line.rfind("model name", 0) == 0) {
            model = line.substr(line.find(':') + 2);
            break;
        }
    }
    return model + ", " + std::to_string(std::thread::hardware_concurrency()) + " cores";
}

std::string today() {
    std::time_t now = std::time(nullptr);
    char text[32];
    std::strftime(text, sizeof text, "%Y-%m-%d %H:%M UTC", std::gmtime(&now));
    return text;
}

int runDriver(const Options& options, const std::string& self) {
    curl_global_init(CURL_GLOBAL_DEFAULT);
    const int rounds = static_cast<int>(options.number("rounds", 5));
    const long burstCount = options.number("burst", 200000);
    const long floodCount = options.number("flood", 100000);
    const long bigCount = options.number("big", 1000000);
    Emulator emulator;
    Driver driver(emulator, self);

    std::map<std::pair<int, Reader>, std::vector<Sample>> samples;  // stream 0 burst, 1 emulator
    for (int round = 0; round < rounds; ++round) {
        for (std::size_t i = 0; i < kReaders.size(); ++i) {
            // Each round starts with another reader, so that none always runs first or last.
            const Reader reader = kReaders[(i + static_cast<std::size_t>(round)) % kReaders.size()];
            if (reader != Reader::sdk)
                samples[{0, reader}].push_back(driver.burst(reader, burstCount));
            samples[{1, reader}].push_back(driver.flood(reader, floodCount));
        }
        std::fprintf(stderr, "round %d of %d done\n", round + 1, rounds);
    }
    const Sample big = bigCount > 0 ? driver.flood(Reader::sdk, bigCount) : Sample{};
    ChildProcess idle({self, "--client", "idle"});
    const double idleMB = static_cast<double>(std::stol(idle.readLine())) * 1024.0 / 1e6;
    idle.wait();

    std::printf("Realtime receive path, %s, %s; %zu-byte \"message\" events over loopback.\n",
                today().c_str(), machine().c_str(), kMessage.size());
    std::printf(
        "Medians of %d alternating rounds, [range]; burst: %ld events from a bare server, "
        "emulator: %ld events flooded into one chatroom.\n\n",
        rounds, burstCount, floodCount);
    std::printf("| %-36s | %-8s | %-20s | %-18s | %9s | %-18s | %8s |\n", "reader", "stream",
                "CPU us/event", "of which system", "events/s", "peak RSS MB", "vs floor");
    std::printf("|%s|%s|%s|%s|%s|%s|%s|\n", std::string(38, '-').c_str(),
                std::string(10, '-').c_str(), std::string(22, '-').c_str(),
                std::string(20, '-').c_str(), std::string(11, '-').c_str(),
                std::string(20, '-').c_str(), std::string(10, '-').c_str());
    for (int stream = 0; stream < 2; ++stream) {
        const double floor = summarise(samples[{stream, Reader::raw}]).us;
        for (Reader reader : kReaders) {
            const auto& list = samples[{stream, reader}];
            if (list.empty()) continue;
            const auto s = summarise(list);
            char us[64], system[64], peak[64];
            std::snprintf(us, sizeof us, "%.2f [%.2f-%.2f]", s.us, s.usLow, s.usHigh);
            std::snprintf(system, sizeof system, "%.2f [%.2f-%.2f]", s.systemUs, s.systemLow,
                          s.systemHigh);
            std::snprintf(peak, sizeof peak, "%.1f [%.1f-%.1f]", s.peakMB, s.peakLow, s.peakHigh);
            std::printf("| %-36s | %-8s | %-20s | %-18s | %9.0f | %-18s | %7.2fx |\n",
                        readerName(reader), stream == 0 ? "burst" : "emulator", us, system, s.rate,
                        peak, s.us / floor);
        }
    }
    auto median = [&](int stream, Reader reader) {
        return summarise(samples[{stream, reader}]).us;
    };
    std::printf(
        "\nCPU per event: SocketIOClient / floor on the burst %.2fx (target at most 1.3x); "
        "SDK / floor at the emulator's pace %.2fx (at most 1.15x); Node / SDK there %.2fx "
        "(at least 1.5x)\n",
        median(0, Reader::library) / median(0, Reader::raw),
        median(1, Reader::sdk) / median(1, Reader::raw),
        median(1, Reader::node) / median(1, Reader::sdk));
    const double sdkPeakMB = summarise(samples[{1, Reader::sdk}]).peakMB;
    std::printf(
        "\nPeak RSS: the SDK end to end %.1f MB (target at most 8 MB); this program idle, its "
        "shared libraries loaded and nothing else, %.1f MB; the SDK's own share %.1f MB\n",
        sdkPeakMB, idleMB, sdkPeakMB - idleMB);
    if (bigCount > 0) {
        std::printf(
            "\nSDK end to end, %ld events flooded into one chatroom: %.2f us/event, %.0f "
            "events/s, peak RSS %.1f MB\n",
            bigCount, big.usPerEvent(), big.eventsPerSecond(),
            static_cast<double>(big.peakKiB) * 1024.0 / 1e6);
    }
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    const auto options = parseOptions(argc, argv);
    if (options.values.count("client")) return runClient(options);
    return runDriver(options, std::filesystem::canonical("/proc/self/exe").string());
}
