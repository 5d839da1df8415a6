// The host's one argument grammar, shared by every command, and the numbers read from text.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "host/command.h"

namespace lumora2 {

// What parseArgs makes of the words after the command word.
struct ParsedArgs {
  Positionals positionals;
  Options options;
  bool operator==(const ParsedArgs&) const = default;
};

// One left-to-right pass. "-o" takes the next word as option "o"; a trailing bare "-o" removes any
// "o" stored so far. "--key" takes the next word as its value unless that word begins with "--"
// or is exactly "-o", and holds "true" otherwise. Everything else is positional. Consequences kept
// on purpose: an option greedily takes a word meant as a positional, a value may begin with a
// single "-", a repeated option keeps its last value, "--" alone is the empty key.
ParsedArgs parseArgs(const std::vector<std::string>& arguments);

// Numbers from text: the whole text must be the number, no surrounding blanks, decimal with an
// optional sign. parseDecimal also takes a fraction and an exponent ("2.5", "-.5", "1e3");
// neither takes hexadecimal, "inf" or "nan". parseInteger refuses values outside int64.
std::optional<double> parseDecimal(std::string_view text);
std::optional<std::int64_t> parseInteger(std::string_view text);

// Samples of 16 kHz warm-up speech: LUMORA2_WARM_SECS seconds when it is set and is a number
// (negative counts as 0; the fraction of a sample is dropped), else 320000 (20 s).
std::int64_t warmSamples();

}  // namespace lumora2
