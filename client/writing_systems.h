// Writing systems, for the embedded voice: which script a letter belongs to, and which scripts a
// voice's language reads as words. A language reads Latin and the scripts it is written in; a
// letter of any other script would be spelt out by name ("Cyrillic letter pe", "Chinese letter")
// or skipped, so a text holding one is refused with the script's name instead.
#pragma once

#include <string>
#include <string_view>

namespace lumora2::render {

enum class Script {
  latin,
  greek,
  cyrillic,
  armenian,
  hebrew,
  arabic,
  syriac,
  thaana,
  nko,
  devanagari,
  bengali,
  gurmukhi,
  gujarati,
  oriya,
  tamil,
  telugu,
  kannada,
  malayalam,
  sinhala,
  thai,
  lao,
  tibetan,
  myanmar,
  georgian,
  hangul,
  ethiopic,
  cherokee,
  canadianSyllabics,
  ogham,
  runic,
  khmer,
  mongolian,
  kana,
  bopomofo,
  han,
  yi,
  other,  // a letter of none of the above
};

// The script of a letter, by its Unicode block. Only meaningful for letters: digits, punctuation,
// symbols and marks belong to no script here.
Script scriptOf(char32_t letter);

// "Cyrillic", "Han", ...; "other" for Script::other.
std::string_view scriptName(Script script);

// Whether a voice whose language tag is `language` ("en-us", "ru", "cmn", case-insensitive; only
// the part before the first '-' counts) speaks words written in `script`.
bool languageReads(std::string_view language, Script script);

}  // namespace lumora2::render
