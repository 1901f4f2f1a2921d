#include "TavloMessagingSDK/Internal/TVKStringTable.hpp"

#include <cstdlib>
#include <mutex>
#include <utility>

namespace tavlo::detail {

// Generated at build time from Resources/*.strings.
extern const std::pair<std::string_view, std::string_view> kStringTables[];
extern const int kStringTableCount;

namespace {

// Reads a quoted string starting at `pos` (on the opening quote); advances past the closing one.
std::optional<std::string> readQuoted(std::string_view text, std::size_t& pos) {
    if (pos >= text.size() || text[pos] != '"') return std::nullopt;
    std::string out;
    for (++pos; pos < text.size(); ++pos) {
        char c = text[pos];
        if (c == '"') {
            ++pos;
            return out;
        }
        if (c == '\\' && pos + 1 < text.size()) {
            char next = text[++pos];
            out += next == 'n' ? '\n' : next;
        } else {
            out += c;
        }
    }
    return std::nullopt;
}

void skipBlanks(std::string_view text, std::size_t& pos) {
    while (pos < text.size() && (text[pos] == ' ' || text[pos] == '\t')) ++pos;
}

std::optional<std::pair<std::string, std::string>> parseLine(std::string_view line) {
    std::size_t pos = 0;
    skipBlanks(line, pos);
    auto key = readQuoted(line, pos);
    if (!key) return std::nullopt;
    skipBlanks(line, pos);
    if (pos >= line.size() || line[pos] != '=') return std::nullopt;
    ++pos;
    skipBlanks(line, pos);
    auto value = readQuoted(line, pos);
    if (!value) return std::nullopt;
    return std::pair{std::move(*key), std::move(*value)};
}

struct Catalog {
    std::map<std::string, std::map<std::string, std::string>> tables;
    std::string language = "en";
    std::mutex mutex;

    Catalog() {
        for (int i = 0; i < kStringTableCount; ++i) {
            tables[std::string(kStringTables[i].first)] = parseStringTable(kStringTables[i].second);
        }
        for (const char* variable : {"LC_ALL", "LC_MESSAGES", "LANG"}) {
            const char* value = std::getenv(variable);
            if (value && *value) {
                choose(std::string(value).substr(0, 2));
                break;
            }
        }
    }

    void choose(const std::string& wanted) { language = tables.count(wanted) ? wanted : "en"; }
};

Catalog& catalog() {
    static Catalog instance;
    return instance;
}

}  // namespace

std::map<std::string, std::string> parseStringTable(std::string_view text) {
    std::map<std::string, std::string> table;
    std::size_t start = 0;
    while (start < text.size()) {
        auto end = text.find('\n', start);
        if (end == std::string_view::npos) end = text.size();
        if (auto entry = parseLine(text.substr(start, end - start))) table.insert(std::move(*entry));
        start = end + 1;
    }
    return table;
}

std::optional<std::string> localizedString(const std::string& key) {
    auto& shared = catalog();
    std::lock_guard lock(shared.mutex);
    for (const auto& language : {shared.language, std::string("en")}) {
        auto table = shared.tables.find(language);
        if (table == shared.tables.end()) continue;
        auto text = table->second.find(key);
        if (text != table->second.end()) return text->second;
    }
    return key;
}

void setLanguage(const std::string& language) {
    auto& shared = catalog();
    std::lock_guard lock(shared.mutex);
    shared.choose(language);
}

}  // namespace tavlo::detail
