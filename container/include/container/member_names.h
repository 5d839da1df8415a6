// Member-name canonicalisation shared by the IMX reader and writer. Names are compared by their
// NFC form and ordered by the NFC form's UTF-8 bytes (which is the order of Unicode scalar values),
// so canonically equivalent spellings are one name wherever the container code meets them.
#pragma once

#include <string>
#include <string_view>

namespace lumora2 {

// Whether the bytes are well-formed UTF-8 (no overlongs, surrogates or values past U+10FFFF).
bool isValidUtf8(std::string_view bytes);

// The NFC form of valid UTF-8; invalid input is returned unchanged.
std::string nfc(std::string_view utf8);

// Equality and ordering of member names by their NFC forms.
bool sameMemberName(std::string_view a, std::string_view b);
bool memberNameLess(std::string_view a, std::string_view b);

}  // namespace lumora2
