#pragma once

#include <map>
#include <optional>
#include <string>
#include <string_view>

namespace tavlo::detail {

/// Parses a string table: lines of `"key" = "text";`, with `//` comment lines and `\"`, `\\`
/// and `\n` escapes inside quotes. Malformed lines are skipped.
std::map<std::string, std::string> parseStringTable(std::string_view text);

/// The text of `key` in the chosen language (English when the language has no such key); the key
/// itself when no table has it.
std::optional<std::string> localizedString(const std::string& key);

void setLanguage(const std::string& language);

}  // namespace tavlo::detail
