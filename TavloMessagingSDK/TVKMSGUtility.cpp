#include "TavloMessagingSDK/TVKMSGUtility.hpp"

#include <charconv>
#include <chrono>
#include <cmath>
#include <vector>

namespace tavlo {

namespace {

constexpr std::string_view kPersonalChatPrefix = "p#";

constexpr std::size_t kArchivedIdMinLength = 10;
constexpr std::size_t kArchivedIdMaxLength = 32;
constexpr std::size_t kMetadataKeyMaxLength = 30;
constexpr std::size_t kBroadcastMetadataValueLimit = 1024;
constexpr std::size_t kMetadataValueLimit = 4096;

// ---------------------------------------------------------------------------------------------
// Character classes. The identifier rules allow ASCII only, so a byte test is exact: any byte of
// a multi-byte character fails the class, as the character itself would.

bool isAsciiAlphanumeric(char c) {
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9');
}

bool isArchivedIdCharacter(char c) {
    return isAsciiAlphanumeric(c) || c == '_' || c == '-';
}

bool isMetadataKeyTailCharacter(char c) {
    return isAsciiAlphanumeric(c) || c == '_' || c == '@' || c == '#' || c == '-';
}

// ---------------------------------------------------------------------------------------------
// UTF-8 decoding, one well-formed character or one maximal ill-formed subpart at a time.

struct Utf8Step {
    std::size_t bytes;
    std::size_t utf16Units;
    bool wellFormed;
};

Utf8Step nextUtf8Step(std::string_view text, std::size_t at) {
    const auto lead = static_cast<unsigned char>(text[at]);
    if (lead < 0x80) return {1, 1, true};

    // The bounds on the second byte rule out overlong forms, surrogates and values past U+10FFFF.
    std::size_t trailing = 0;
    unsigned char low = 0x80;
    unsigned char high = 0xBF;
    if (lead >= 0xC2 && lead <= 0xDF) {
        trailing = 1;
    } else if (lead >= 0xE0 && lead <= 0xEF) {
        trailing = 2;
        if (lead == 0xE0) low = 0xA0;
        if (lead == 0xED) high = 0x9F;
    } else if (lead >= 0xF0 && lead <= 0xF4) {
        trailing = 3;
        if (lead == 0xF0) low = 0x90;
        if (lead == 0xF4) high = 0x8F;
    } else {
        return {1, 1, false};
    }

    for (std::size_t n = 1; n <= trailing; ++n) {
        if (at + n >= text.size()) return {n, 1, false};
        const auto byte = static_cast<unsigned char>(text[at + n]);
        if (byte < low || byte > high) return {n, 1, false};
        low = 0x80;
        high = 0xBF;
    }
    // Four-byte characters lie above the Basic Multilingual Plane: a surrogate pair in UTF-16.
    return {trailing + 1, trailing == 3 ? 2u : 1u, true};
}

bool isWellFormedUtf8(std::string_view text) {
    for (std::size_t at = 0; at < text.size();) {
        const Utf8Step step = nextUtf8Step(text, at);
        if (!step.wellFormed) return false;
        at += step.bytes;
    }
    return true;
}

// ---------------------------------------------------------------------------------------------
// Number text.

template <class Number>
void appendNumber(std::string& out, Number number) {
    char buffer[64];
    const auto result = std::to_chars(buffer, buffer + sizeof buffer, number);
    out.append(buffer, result.ptr);
}

// Booleans are measured as the numbers 1 and 0.
void appendNumberText(std::string& out, const boost::json::value& number) {
    switch (number.kind()) {
        case boost::json::kind::bool_:
            out += number.get_bool() ? '1' : '0';
            break;
        case boost::json::kind::int64:
            appendNumber(out, number.get_int64());
            break;
        case boost::json::kind::uint64:
            appendNumber(out, number.get_uint64());
            break;
        case boost::json::kind::double_:
            appendNumber(out, number.get_double());
            break;
        default:
            break;
    }
}

bool isNumber(const boost::json::value& value) {
    return value.is_number() || value.is_bool();
}

// ---------------------------------------------------------------------------------------------
// Compact JSON text of an array or object. Iterative, so that a deeply nested value cannot
// exhaust the stack.

class CompactJSONWriter {
  public:
    std::optional<std::string> write(const boost::json::value& root) {
        if (!open(root)) return std::nullopt;
        while (!stack_.empty()) {
            if (!advance()) return std::nullopt;
        }
        return std::move(out_);
    }

  private:
    struct Frame {
        const boost::json::value* container;
        std::size_t next;
    };

    // Writes a scalar, or the opening bracket of a container that `advance` then walks through.
    bool open(const boost::json::value& value) {
        switch (value.kind()) {
            case boost::json::kind::array:
                out_ += '[';
                stack_.push_back({&value, 0});
                return true;
            case boost::json::kind::object:
                out_ += '{';
                stack_.push_back({&value, 0});
                return true;
            case boost::json::kind::string:
                return appendString(value.get_string());
            case boost::json::kind::null:
                out_ += "null";
                return true;
            case boost::json::kind::bool_:
                out_ += value.get_bool() ? "true" : "false";
                return true;
            case boost::json::kind::double_:
                if (!std::isfinite(value.get_double())) return false;
                appendNumberText(out_, value);
                return true;
            default:
                appendNumberText(out_, value);
                return true;
        }
    }

    // Writes the next element of the innermost container, or closes it.
    bool advance() {
        Frame& frame = stack_.back();
        const std::size_t index = frame.next++;
        if (const auto* array = frame.container->if_array()) {
            if (index == array->size()) return close(']');
            if (index > 0) out_ += ',';
            return open((*array)[index]);
        }
        const auto& object = frame.container->get_object();
        if (index == object.size()) return close('}');
        if (index > 0) out_ += ',';
        const auto& member = *(object.begin() + static_cast<std::ptrdiff_t>(index));
        if (!appendString(member.key())) return false;
        out_ += ':';
        return open(member.value());
    }

    bool close(char bracket) {
        out_ += bracket;
        stack_.pop_back();
        return true;
    }

    bool appendString(std::string_view text) {
        if (!isWellFormedUtf8(text)) return false;
        out_ += '"';
        for (const char c : text) appendEscaped(c);
        out_ += '"';
        return true;
    }

    void appendEscaped(char c) {
        switch (c) {
            case '"':
                out_ += "\\\"";
                return;
            case '\\':
                out_ += "\\\\";
                return;
            case '\b':
                out_ += "\\b";
                return;
            case '\f':
                out_ += "\\f";
                return;
            case '\n':
                out_ += "\\n";
                return;
            case '\r':
                out_ += "\\r";
                return;
            case '\t':
                out_ += "\\t";
                return;
            default:
                break;
        }
        if (static_cast<unsigned char>(c) < 0x20) {
            static constexpr char kHex[] = "0123456789abcdef";
            out_ += "\\u00";
            out_ += kHex[(c >> 4) & 0xF];
            out_ += kHex[c & 0xF];
            return;
        }
        out_ += c;
    }

    std::string out_;
    std::vector<Frame> stack_;
};

// ---------------------------------------------------------------------------------------------
// Time stamps.

class TimeStampReader {
  public:
    explicit TimeStampReader(std::string_view text) : text_(text) {}

    // Reads exactly `count` decimal digits.
    bool digits(std::size_t count, int& value) {
        if (text_.size() - position_ < count) return false;
        value = 0;
        for (std::size_t i = 0; i < count; ++i) {
            const char c = text_[position_ + i];
            if (c < '0' || c > '9') return false;
            value = value * 10 + (c - '0');
        }
        position_ += count;
        return true;
    }

    bool literal(char expected) {
        if (position_ >= text_.size() || text_[position_] != expected) return false;
        ++position_;
        return true;
    }

    bool atEnd() const { return position_ == text_.size(); }

  private:
    std::string_view text_;
    std::size_t position_ = 0;
};

struct TimeStampFields {
    int year = 0, month = 0, day = 0;
    int hour = 0, minute = 0, second = 0, millisecond = 0;
    int zoneMinutes = 0;  // east of UTC
};

// "Z", or a sign, two digits of hours and two of minutes, with or without a colon between.
bool readZone(TimeStampReader& reader, int& zoneMinutes) {
    if (reader.literal('Z')) {
        zoneMinutes = 0;
        return true;
    }
    int sign = 1;
    if (reader.literal('-')) {
        sign = -1;
    } else if (!reader.literal('+')) {
        return false;
    }
    int hours = 0;
    int minutes = 0;
    if (!reader.digits(2, hours)) return false;
    reader.literal(':');
    if (!reader.digits(2, minutes)) return false;
    if (hours > 23 || minutes > 59) return false;
    zoneMinutes = sign * (hours * 60 + minutes);
    return true;
}

std::optional<TimeStampFields> readTimeStamp(std::string_view text) {
    TimeStampReader reader(text);
    TimeStampFields f;
    const bool shaped =
        reader.digits(4, f.year) && reader.literal('-') && reader.digits(2, f.month) &&
        reader.literal('-') && reader.digits(2, f.day) && reader.literal('T') &&
        reader.digits(2, f.hour) && reader.literal(':') && reader.digits(2, f.minute) &&
        reader.literal(':') && reader.digits(2, f.second) && reader.literal('.') &&
        reader.digits(3, f.millisecond) && readZone(reader, f.zoneMinutes) && reader.atEnd();
    if (!shaped) return std::nullopt;
    if (f.hour > 23 || f.minute > 59 || f.second > 59) return std::nullopt;
    return f;
}

std::optional<std::chrono::milliseconds> millisecondsSince1970(const TimeStampFields& f) {
    using namespace std::chrono;
    // The week-based year is read as the calendar year of the month and day (see the header).
    const year_month_day date{year{f.year}, month{static_cast<unsigned>(f.month)},
                              day{static_cast<unsigned>(f.day)}};
    if (!date.ok()) return std::nullopt;
    const auto localTime = sys_days{date}.time_since_epoch() + hours{f.hour} + minutes{f.minute} +
                           seconds{f.second} + milliseconds{f.millisecond};
    return duration_cast<milliseconds>(localTime - minutes{f.zoneMinutes});
}

}  // namespace

// ---------------------------------------------------------------------------------------------

bool isKindOfPersonalChatroomName(std::string_view name) noexcept {
    return name.starts_with(kPersonalChatPrefix);
}

std::string addPersonalChatPrefix(std::string_view name) {
    std::string prefixed;
    prefixed.reserve(kPersonalChatPrefix.size() + name.size());
    prefixed.append(kPersonalChatPrefix).append(name);
    return prefixed;
}

std::string withoutPrefixChatroomName(std::string_view name) {
    if (isKindOfPersonalChatroomName(name)) name.remove_prefix(kPersonalChatPrefix.size());
    return std::string(name);
}

bool isLegalArchivedId(std::string_view archivedId) noexcept {
    if (archivedId.size() < kArchivedIdMinLength || archivedId.size() > kArchivedIdMaxLength) {
        return false;
    }
    for (const char c : archivedId) {
        if (!isArchivedIdCharacter(c)) return false;
    }
    return true;
}

bool isLegalChatMetadataKey(std::string_view key) noexcept {
    if (key.empty() || key.size() > kMetadataKeyMaxLength) return false;
    if (!isAsciiAlphanumeric(key.front())) return false;
    for (const char c : key.substr(1)) {
        if (!isMetadataKeyTailCharacter(c)) return false;
    }
    return true;
}

std::optional<std::string> convertToJSONValueString(const boost::json::value& value) noexcept {
    try {
        if (value.is_null()) return std::string("null");
        if (const auto* string = value.if_string()) {
            // Deliberately unescaped: the size rule counts the string as it stands.
            std::string quoted;
            quoted.reserve(string->size() + 2);
            quoted.append(1, '"').append(string->data(), string->size()).append(1, '"');
            return quoted;
        }
        if (isNumber(value)) {
            std::string text;
            appendNumberText(text, value);
            return text;
        }
        return CompactJSONWriter().write(value);
    } catch (...) {
        // Only memory exhaustion can get here; a value that cannot be written has no text.
        return std::nullopt;
    }
}

bool isLegalChatMetadataValue(const boost::json::value& value, bool broadcast) noexcept {
    const auto text = convertToJSONValueString(value);
    if (!text) return false;
    const std::size_t limit = broadcast ? kBroadcastMetadataValueLimit : kMetadataValueLimit;
    // A UTF-16 length never exceeds the UTF-8 length: most values need no counting.
    return text->size() <= limit || utf16Length(*text) <= limit;
}

std::size_t utf16Length(std::string_view utf8) noexcept {
    std::size_t units = 0;
    for (std::size_t at = 0; at < utf8.size();) {
        const Utf8Step step = nextUtf8Step(utf8, at);
        units += step.utf16Units;
        at += step.bytes;
    }
    return units;
}

std::uint64_t unixTimeValue(std::string_view timeStamp) noexcept {
    const auto fields = readTimeStamp(timeStamp);
    if (!fields) return 0;
    const auto sinceEpoch = millisecondsSince1970(*fields);
    if (!sinceEpoch) return 0;
    // Computed in whole milliseconds, so no millisecond is lost to floating-point rounding; an
    // earlier time keeps the bit pattern of its negative count.
    return static_cast<std::uint64_t>(sinceEpoch->count());
}

}  // namespace tavlo
