#include "host/args.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <limits>

namespace lumora2 {
namespace {

constexpr std::int64_t kSampleRate = 16000;
constexpr std::int64_t kDefaultWarmSamples = 20 * kSampleRate;

bool isDigit(char c) { return c >= '0' && c <= '9'; }

// Length of the run of digits starting at `i`.
std::size_t digitsAt(std::string_view text, std::size_t i) {
  std::size_t n = 0;
  while (i + n < text.size() && isDigit(text[i + n])) ++n;
  return n;
}

// [+-]? (digits [. digits?] | . digits) ([eE] [+-]? digits)?, covering the whole text.
bool isDecimalSyntax(std::string_view text) {
  std::size_t i = 0;
  if (i < text.size() && (text[i] == '+' || text[i] == '-')) ++i;
  std::size_t whole = digitsAt(text, i);
  i += whole;
  std::size_t fraction = 0;
  if (i < text.size() && text[i] == '.') {
    ++i;
    fraction = digitsAt(text, i);
    i += fraction;
  }
  if (whole == 0 && fraction == 0) return false;
  if (i < text.size() && (text[i] == 'e' || text[i] == 'E')) {
    ++i;
    if (i < text.size() && (text[i] == '+' || text[i] == '-')) ++i;
    std::size_t exponent = digitsAt(text, i);
    if (exponent == 0) return false;
    i += exponent;
  }
  return i == text.size();
}

}  // namespace

ParsedArgs parseArgs(const std::vector<std::string>& arguments) {
  ParsedArgs parsed;
  const std::size_t n = arguments.size();
  std::size_t i = 0;
  while (i < n) {
    const std::string& word = arguments[i];
    if (word == "-o") {
      if (i + 1 < n) {
        parsed.options["o"] = arguments[i + 1];
        i += 2;
        continue;
      }
      parsed.options.erase("o");  // a trailing bare -o cancels an earlier one, deliberately
      break;
    }
    if (word.starts_with("--")) {
      std::string key = word.substr(2);
      if (i + 1 < n && !arguments[i + 1].starts_with("--") && arguments[i + 1] != "-o") {
        parsed.options[key] = arguments[i + 1];
        i += 2;
      } else {
        parsed.options[key] = "true";
        i += 1;
      }
      continue;
    }
    parsed.positionals.push_back(word);
    i += 1;
  }
  return parsed;
}

std::optional<double> parseDecimal(std::string_view text) {
  if (!isDecimalSyntax(text)) return std::nullopt;
  std::string copy(text);  // strtod needs a terminator; the syntax check already fixed the extent
  // Overflow gives ±HUGE_VAL, which is what a decimal too large for a double means; underflow
  // gives a value near zero, likewise. Both are kept.
  return std::strtod(copy.c_str(), nullptr);
}

std::optional<std::int64_t> parseInteger(std::string_view text) {
  std::size_t i = 0;
  if (i < text.size() && (text[i] == '+' || text[i] == '-')) ++i;
  if (i == text.size() || digitsAt(text, i) != text.size() - i) return std::nullopt;
  std::string copy(text);
  errno = 0;
  long long value = std::strtoll(copy.c_str(), nullptr, 10);
  if (errno == ERANGE) return std::nullopt;
  return static_cast<std::int64_t>(value);
}

std::int64_t warmSamples() {
  const char* raw = std::getenv("LUMORA2_WARM_SECS");
  if (raw == nullptr) return kDefaultWarmSamples;
  std::optional<double> seconds = parseDecimal(raw);
  if (!seconds) return kDefaultWarmSamples;
  double samples = std::max(*seconds, 0.0) * static_cast<double>(kSampleRate);
  // A number of seconds too large for a sample count saturates rather than overflowing.
  constexpr double kLimit = static_cast<double>(std::numeric_limits<std::int64_t>::max());
  if (!(samples < kLimit)) return std::numeric_limits<std::int64_t>::max();
  return static_cast<std::int64_t>(samples);
}

}  // namespace lumora2
