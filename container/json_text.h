// The one way manifests become text and back: pretty-printed with two-space indents and keys in
// byte order at every level (nlohmann::json keeps objects in a std::map), so equal records always
// give equal bytes.
#pragma once

#include <nlohmann/json.hpp>
#include <string>
#include <string_view>

namespace lumora2 {

// Manifests are a few levels deep; anything far deeper is hostile, and is refused before the
// recursive printer could exhaust the stack on it.
inline constexpr int kMaxJsonDepth = 128;

// Parses `text`; throws ArtifactError(context + ": " + the parser's description) for bad JSON and
// for nesting deeper than kMaxJsonDepth.
nlohmann::json parseJsonText(std::string_view text, const std::string& context);

// The manifest form of `value`: dump(2) with sorted keys. Invalid UTF-8 in a string is replaced
// by U+FFFD rather than refused, the way the command line's own text decoding treats it.
std::string manifestText(const nlohmann::json& value);

}  // namespace lumora2
