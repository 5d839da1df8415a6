#include "cache_entry.h"

#include <utf8proc.h>

#include <charconv>
#include <limits>

namespace lumora2::cacheEntry {

namespace {

constexpr std::string_view kSuffix = ".mlmodelc";

// Applies `test` to every code point; false for empty or invalid text.
template <class Test>
bool everyCodePoint(std::string_view text, Test test) {
  if (text.empty()) return false;
  const auto* p = reinterpret_cast<const utf8proc_uint8_t*>(text.data());
  utf8proc_ssize_t left = static_cast<utf8proc_ssize_t>(text.size());
  while (left > 0) {
    utf8proc_int32_t cp = 0;
    utf8proc_ssize_t n = utf8proc_iterate(p, left, &cp);
    if (n <= 0 || cp < 0 || !test(cp)) return false;
    p += n;
    left -= n;
  }
  return true;
}

// The two fields between "<key>-" and ".mlmodelc", split at the first "-"; nothing when the
// name does not have that frame.
std::optional<std::pair<std::string_view, std::string_view>> fields(std::string_view name,
                                                                    std::string_view key) {
  if (name.size() < key.size() + 1 + kSuffix.size()) return std::nullopt;
  if (name.substr(0, key.size()) != key || name[key.size()] != '-') return std::nullopt;
  if (name.substr(name.size() - kSuffix.size()) != kSuffix) return std::nullopt;
  std::string_view middle =
      name.substr(key.size() + 1, name.size() - key.size() - 1 - kSuffix.size());
  std::size_t dash = middle.find('-');
  if (dash == std::string_view::npos) return std::nullopt;
  return std::make_pair(middle.substr(0, dash), middle.substr(dash + 1));
}

}  // namespace

bool allNumeric(std::string_view text) {
  return everyCodePoint(text, [](utf8proc_int32_t cp) {
    auto category = utf8proc_category(cp);
    return category == UTF8PROC_CATEGORY_ND || category == UTF8PROC_CATEGORY_NL ||
           category == UTF8PROC_CATEGORY_NO;
  });
}

bool allHexDigits(std::string_view text) {
  return everyCodePoint(text, [](utf8proc_int32_t cp) {
    auto in = [cp](int lo, int hi) { return cp >= lo && cp <= hi; };
    return in('0', '9') || in('a', 'f') || in('A', 'F') || in(0xFF10, 0xFF19) ||
           in(0xFF21, 0xFF26) || in(0xFF41, 0xFF46);
  });
}

bool belongsTo(std::string_view name, std::string_view key) {
  auto f = fields(name, key);
  return f && allNumeric(f->first) && f->second.substr(0, 3) == "sha" &&
         allHexDigits(f->second.substr(3));
}

bool isLegacyOf(std::string_view name, std::string_view key) {
  auto f = fields(name, key);
  return f && allNumeric(f->first) && allNumeric(f->second);
}

int keepFromText(const std::optional<std::string>& text) {
  constexpr int kDefault = 24;
  if (!text || text->empty()) return kDefault;
  std::string_view digits = *text;
  if (digits.front() == '+') {
    digits.remove_prefix(1);
    if (digits.empty() || digits.front() == '-') return kDefault;  // "+" alone, "+-5"
  }
  long long value = 0;
  auto [end, ec] = std::from_chars(digits.data(), digits.data() + digits.size(), value);
  if (ec != std::errc() || end != digits.data() + digits.size()) return kDefault;
  if (value < 2) return 1;
  return value > std::numeric_limits<int>::max() ? std::numeric_limits<int>::max()
                                                 : static_cast<int>(value);
}

}  // namespace lumora2::cacheEntry
