// Names of compiled-model cache entries and the eviction count, shared by the cache and its
// tests.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace lumora2::cacheEntry {

// "<key>-<digits>-sha<hex digits>.mlmodelc": an entry of the current naming scheme for `key`.
bool belongsTo(std::string_view name, std::string_view key);
// "<key>-<digits>-<digits>.mlmodelc": an entry of the older two-number scheme for `key`.
bool isLegacyOf(std::string_view name, std::string_view key);

// A digit is any character with a numeric general category (Nd, Nl, No); a hexadecimal digit is
// any character with a hexadecimal value, ASCII or full-width, in either case. Invalid UTF-8 is
// neither.
bool allNumeric(std::string_view text);
bool allHexDigits(std::string_view text);

// LUMORA2_MLMODELC_CACHE_KEEP's value as prune uses it: decimal with an optional sign; unset,
// empty or not an integer gives 24; below 2 gives 1.
int keepFromText(const std::optional<std::string>& text);

}  // namespace lumora2::cacheEntry
