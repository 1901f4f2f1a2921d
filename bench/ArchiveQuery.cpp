// The cost of an archive query once its files are cached, which must grow with the logarithm of
// the file count and of the messages per file, not with their product.
//
// CachedArchiveQuery: an archive held in memory (F files of M messages; the queried files'
// messages cached), queried through TVKArchivedChat on its own queue for ten messages at a time,
// rotating over sixteen files. Only the answer's size, fixed at ten, should not vary.
//
// EmulatorArchiveQuery: the same through the public query against the emulator's archive of
// 1,000 files x 1,000 messages, from a foreign thread (so each query includes the hop onto the
// queue). The meta document and the queried files are fetched once before timing; the timed
// queries send nothing.

#include <benchmark/benchmark.h>
#include <curl/curl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <boost/json.hpp>
#include <chrono>
#include <cstdio>
#include <ctime>
#include <filesystem>
#include <future>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "Dispatch/SerialQueue.hpp"
#include "TavloMessagingSDK/TVKArchivedChat.hpp"
#include "TavloMessagingSDK/TVKChatMessage.hpp"

extern char** environ;

namespace {

using namespace tavlo;
namespace json = boost::json;
using Messages = TVKArchivedChat::Messages;

constexpr std::uint64_t kStartMs = 1685577600000;  // 2023-06-01T00:00:00Z
constexpr std::uint64_t kStepMs = 1000;
constexpr std::uint64_t kGapMs = 60000;
constexpr std::int64_t kQueriedFiles = 16;
constexpr std::uint64_t kMessagesPerQuery = 10;

std::string serviceDate(std::uint64_t ms) {
    std::time_t seconds = static_cast<std::time_t>(ms / 1000);
    std::tm utc{};
    gmtime_r(&seconds, &utc);
    char text[48];
    std::snprintf(text, sizeof text, "%04d-%02d-%02dT%02d:%02d:%02d.%03u+0000", utc.tm_year + 1900,
                  utc.tm_mon + 1, utc.tm_mday, utc.tm_hour, utc.tm_min, utc.tm_sec,
                  static_cast<unsigned>(ms % 1000));
    return text;
}

/// Ten-message ranges in the middle of sixteen files spread over the archive.
std::vector<TVKGetArchivedMessagesConfiguration> queriesOver(
    const std::vector<std::uint64_t>& starts, std::uint64_t perFile) {
    std::vector<TVKGetArchivedMessagesConfiguration> queries;
    const std::uint64_t files = starts.size();
    for (std::uint64_t k = 0; k < std::min<std::uint64_t>(files, kQueriedFiles); ++k) {
        const std::uint64_t file = files * k / kQueriedFiles;
        const std::uint64_t first = (perFile - std::min(perFile, kMessagesPerQuery)) / 2;
        auto query = TVKGetArchivedMessagesConfiguration::configurationWithArchiveId(
            std::string("bench-archive-0001"));
        query.setStart(starts[file] + first * kStepMs);
        query.setEnd(starts[file] + (first + kMessagesPerQuery - 1) * kStepMs);
        queries.push_back(query);
    }
    return queries;
}

// --- In memory ----------------------------------------------------------------------------------

struct InMemoryArchive {
    std::shared_ptr<TVKArchivedMessagesMeta> meta;
    std::vector<std::uint64_t> fileStarts;
};

InMemoryArchive makeArchive(std::uint64_t files, std::uint64_t perFile) {
    InMemoryArchive archive;
    json::array list;
    std::uint64_t start = kStartMs;
    for (std::uint64_t i = 0; i < files; ++i) {
        const std::uint64_t end = start + (perFile - 1) * kStepMs;
        list.push_back(json::object{
            {"id", "file-" + std::to_string(i)}, {"start", start}, {"end", end}, {"len", perFile}});
        archive.fileStarts.push_back(start);
        start = end + kGapMs;
    }
    archive.meta = DQDataObject::withJSON<TVKArchivedMessagesMeta>(json::object{{"files", list}});
    for (const auto& query : queriesOver(archive.fileStarts, perFile)) {
        auto file = archive.meta->getArchivedFilesByStart(query.start(), query.end())->front();
        Messages messages;
        for (std::uint64_t m = 0; m < perFile; ++m) {
            const std::uint64_t time = *file->start() + m * kStepMs;
            messages.push_back(DQDataObject::withJSON<TVKChatMessage>(
                json::object{{"id", std::to_string(time)},
                             {"value", "archived message"},
                             {"createdDate", serviceDate(time)}}));
        }
        file->setCachedMessages(std::move(messages));
    }
    return archive;
}

void CachedArchiveQuery(benchmark::State& state) {
    const auto files = static_cast<std::uint64_t>(state.range(0));
    const auto perFile = static_cast<std::uint64_t>(state.range(1));
    const InMemoryArchive archive = makeArchive(files, perFile);
    const auto queries = queriesOver(archive.fileStarts, perFile);
    auto queue = dispatch::SerialQueue::create("bench.archive");
    // Never reached: every queried file is cached.
    auto chat = TVKArchivedChat::chatWithArcmsgHTTPURL("http://127.0.0.1:9/archive/x/", queue);
    std::uint64_t delivered = 0;
    std::uint64_t failures = 0;
    queue->sync([&] {
        std::size_t next = 0;
        for (auto _ : state) {
            chat->getArchivedMessagesWithConfigs(
                queries[next++ % queries.size()], archive.meta,
                [&](const Messages& messages) { delivered += messages.size(); },
                [&](const TVKError&) { ++failures; });
        }
    });
    if (failures != 0) state.SkipWithError("a cached query failed");
    state.counters["messages/query"] = benchmark::Counter(static_cast<double>(delivered) /
                                                          static_cast<double>(state.iterations()));
}
BENCHMARK(CachedArchiveQuery)
    ->ArgNames({"files", "perFile"})
    ->Args({10, 10})
    ->Args({100, 100})
    ->Args({1000, 1000})
    ->Args({1000, 4000})
    ->Args({10000, 1000})
    ->UseRealTime();

// --- Against the emulator -----------------------------------------------------------------------

/// `node emulator/server.js --port 0`, stopped when this object goes (its stdin closes).
class EmulatorProcess {
  public:
    EmulatorProcess() {
        const auto script = std::filesystem::path(TAVLO_SOURCE_DIR) / "emulator" / "server.js";
        int in[2], out[2];
        if (pipe(in) != 0 || pipe(out) != 0) throw std::runtime_error("pipe");
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, in[0], 0);
        posix_spawn_file_actions_adddup2(&actions, out[1], 1);
        posix_spawn_file_actions_addclose(&actions, in[1]);
        posix_spawn_file_actions_addclose(&actions, out[0]);
        std::string node = "node", scriptText = script.string(), port = "--port", zero = "0";
        char* argv[] = {node.data(), scriptText.data(), port.data(), zero.data(), nullptr};
        const int spawned = posix_spawnp(&pid_, "node", &actions, nullptr, argv, environ);
        posix_spawn_file_actions_destroy(&actions);
        close(in[0]);
        close(out[1]);
        stdin_ = in[1];
        if (spawned != 0) {
            close(out[0]);
            throw std::runtime_error("cannot start node");
        }
        std::string line;
        char c;
        while (read(out[0], &c, 1) == 1 && c != '\n') line += c;
        close(out[0]);
        url_ = json::parse(line).at("url").as_string().c_str();
    }
    ~EmulatorProcess() {
        close(stdin_);
        waitpid(pid_, nullptr, 0);
    }
    const std::string& url() const { return url_; }

    json::value post(const std::string& path, const json::value& body) const {
        CURL* curl = curl_easy_init();
        std::string payload = json::serialize(body), answer;
        const std::string target = url_ + path;
        curl_slist* headers = curl_slist_append(nullptr, "Content-Type: application/json");
        curl_easy_setopt(curl, CURLOPT_URL, target.c_str());
        curl_easy_setopt(curl, CURLOPT_HTTPHEADER, headers);
        curl_easy_setopt(curl, CURLOPT_POSTFIELDS, payload.c_str());
        curl_easy_setopt(
            curl, CURLOPT_WRITEFUNCTION, +[](char* data, size_t size, size_t count, void* sink) {
                static_cast<std::string*>(sink)->append(data, size * count);
                return size * count;
            });
        curl_easy_setopt(curl, CURLOPT_WRITEDATA, &answer);
        const CURLcode code = curl_easy_perform(curl);
        curl_slist_free_all(headers);
        curl_easy_cleanup(curl);
        if (code != CURLE_OK) throw std::runtime_error(curl_easy_strerror(code));
        return json::parse(answer);
    }

  private:
    pid_t pid_ = -1;
    int stdin_ = -1;
    std::string url_;
};

// Runs one query from this thread and waits for its answer.
std::optional<Messages> runQuery(TVKArchivedChat& chat,
                                 const TVKGetArchivedMessagesConfiguration& query) {
    auto answer = std::make_shared<std::promise<std::optional<Messages>>>();
    auto future = answer->get_future();
    chat.getArchivedMessagesWithConfigs(
        query, [answer](const Messages& messages) { answer->set_value(messages); },
        [answer](const TVKError&) { answer->set_value(std::nullopt); });
    if (future.wait_for(std::chrono::seconds(60)) != std::future_status::ready) return std::nullopt;
    return future.get();
}

void EmulatorArchiveQuery(benchmark::State& state) {
    std::optional<EmulatorProcess> emulator;
    json::value seeded;
    try {
        emulator.emplace();
        seeded = emulator->post("/_control/chatrooms/lobby/archives",
                                json::object{{"archiveId", "bench-archive-0001"},
                                             {"generate", json::object{{"files", 1000},
                                                                       {"messagesPerFile", 1000},
                                                                       {"startMs", kStartMs},
                                                                       {"stepMs", kStepMs},
                                                                       {"gapMs", kGapMs}}}});
    } catch (const std::exception& error) {
        state.SkipWithError((std::string("emulator: ") + error.what()).c_str());
        return;
    }
    std::vector<std::uint64_t> starts;
    for (const auto& file : seeded.at("files").as_array()) {
        starts.push_back(json::value_to<std::uint64_t>(file.at("start")));
    }
    const auto queries = queriesOver(starts, 1000);
    auto chat = TVKArchivedChat::chatWithArcmsgHTTPURL(
        std::string(seeded.at("arcMsgURL").as_string()), dispatch::SerialQueue::create("bench"));

    const auto warmUpStart = std::chrono::steady_clock::now();
    for (const auto& query : queries) {
        if (!runQuery(*chat, query)) {
            state.SkipWithError("the warm-up query failed");
            return;
        }
    }
    const std::chrono::duration<double, std::milli> warmUp =
        std::chrono::steady_clock::now() - warmUpStart;

    std::uint64_t delivered = 0;
    std::size_t next = 0;
    for (auto _ : state) {
        auto messages = runQuery(*chat, queries[next++ % queries.size()]);
        if (!messages) {
            state.SkipWithError("a cached query failed");
            break;
        }
        delivered += messages->size();
    }
    state.counters["messages/query"] = benchmark::Counter(static_cast<double>(delivered) /
                                                          static_cast<double>(state.iterations()));
    state.counters["warm-up ms/file"] =
        benchmark::Counter(warmUp.count() / static_cast<double>(queries.size()));
}
BENCHMARK(EmulatorArchiveQuery)->UseRealTime()->Unit(benchmark::kMicrosecond);

}  // namespace
