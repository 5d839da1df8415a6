#include "writing_systems.h"

#include <algorithm>
#include <cctype>
#include <cstddef>
#include <cstdint>
#include <iterator>

namespace lumora2::render {
namespace {

struct Block {
  char32_t first, last;
  Script script;
};

// The Unicode blocks that hold letters, in ascending order.
constexpr Block kBlocks[] = {
    {0x0041, 0x005A, Script::latin},
    {0x0061, 0x007A, Script::latin},
    {0x00AA, 0x00AA, Script::latin},
    {0x00B5, 0x00B5, Script::greek},  // micro sign
    {0x00BA, 0x00BA, Script::latin},
    {0x00C0, 0x02FF, Script::latin},  // Latin-1 to Latin Extended-B, IPA, modifier letters
    {0x0370, 0x03FF, Script::greek},
    {0x0400, 0x052F, Script::cyrillic},
    {0x0530, 0x058F, Script::armenian},
    {0x0590, 0x05FF, Script::hebrew},
    {0x0600, 0x06FF, Script::arabic},
    {0x0700, 0x074F, Script::syriac},
    {0x0750, 0x077F, Script::arabic},
    {0x0780, 0x07BF, Script::thaana},
    {0x07C0, 0x07FF, Script::nko},
    {0x0860, 0x086F, Script::syriac},
    {0x0870, 0x08FF, Script::arabic},
    {0x0900, 0x097F, Script::devanagari},
    {0x0980, 0x09FF, Script::bengali},
    {0x0A00, 0x0A7F, Script::gurmukhi},
    {0x0A80, 0x0AFF, Script::gujarati},
    {0x0B00, 0x0B7F, Script::oriya},
    {0x0B80, 0x0BFF, Script::tamil},
    {0x0C00, 0x0C7F, Script::telugu},
    {0x0C80, 0x0CFF, Script::kannada},
    {0x0D00, 0x0D7F, Script::malayalam},
    {0x0D80, 0x0DFF, Script::sinhala},
    {0x0E00, 0x0E7F, Script::thai},
    {0x0E80, 0x0EFF, Script::lao},
    {0x0F00, 0x0FFF, Script::tibetan},
    {0x1000, 0x109F, Script::myanmar},
    {0x10A0, 0x10FF, Script::georgian},
    {0x1100, 0x11FF, Script::hangul},
    {0x1200, 0x139F, Script::ethiopic},
    {0x13A0, 0x13FF, Script::cherokee},
    {0x1400, 0x167F, Script::canadianSyllabics},
    {0x1680, 0x169F, Script::ogham},
    {0x16A0, 0x16FF, Script::runic},
    {0x1780, 0x17FF, Script::khmer},
    {0x1800, 0x18AF, Script::mongolian},
    {0x18B0, 0x18FF, Script::canadianSyllabics},
    {0x19E0, 0x19FF, Script::khmer},
    {0x1C80, 0x1C8F, Script::cyrillic},
    {0x1C90, 0x1CBF, Script::georgian},
    {0x1D00, 0x1DBF, Script::latin},  // phonetic extensions
    {0x1E00, 0x1EFF, Script::latin},
    {0x1F00, 0x1FFF, Script::greek},
    {0x2070, 0x209F, Script::latin},  // superscript and subscript letters
    {0x2100, 0x214F, Script::latin},  // letterlike symbols
    {0x2C60, 0x2C7F, Script::latin},
    {0x2D00, 0x2D2F, Script::georgian},
    {0x2D80, 0x2DDF, Script::ethiopic},
    {0x2DE0, 0x2DFF, Script::cyrillic},
    {0x2E80, 0x2FDF, Script::han},
    {0x3005, 0x3007, Script::han},
    {0x3021, 0x3029, Script::han},
    {0x3038, 0x303B, Script::han},
    {0x3040, 0x30FF, Script::kana},
    {0x3100, 0x312F, Script::bopomofo},
    {0x3130, 0x318F, Script::hangul},
    {0x31A0, 0x31BF, Script::bopomofo},
    {0x31F0, 0x31FF, Script::kana},
    {0x3400, 0x4DBF, Script::han},
    {0x4E00, 0x9FFF, Script::han},
    {0xA000, 0xA4CF, Script::yi},
    {0xA640, 0xA69F, Script::cyrillic},
    {0xA720, 0xA7FF, Script::latin},
    {0xA8E0, 0xA8FF, Script::devanagari},
    {0xA960, 0xA97F, Script::hangul},
    {0xA9E0, 0xA9FF, Script::myanmar},
    {0xAA60, 0xAA7F, Script::myanmar},
    {0xAB00, 0xAB2F, Script::ethiopic},
    {0xAB30, 0xAB6F, Script::latin},
    {0xAB70, 0xABBF, Script::cherokee},
    {0xAC00, 0xD7FF, Script::hangul},
    {0xF900, 0xFAFF, Script::han},
    {0xFB00, 0xFB06, Script::latin},
    {0xFB13, 0xFB17, Script::armenian},
    {0xFB1D, 0xFB4F, Script::hebrew},
    {0xFB50, 0xFDFF, Script::arabic},
    {0xFE70, 0xFEFF, Script::arabic},
    {0xFF21, 0xFF3A, Script::latin},  // full-width
    {0xFF41, 0xFF5A, Script::latin},
    {0xFF66, 0xFF9F, Script::kana},  // half-width
    {0xFFA0, 0xFFDC, Script::hangul},
    {0x1B000, 0x1B16F, Script::kana},
    {0x1D400, 0x1D7FF, Script::latin},  // mathematical alphanumerics
    {0x20000, 0x323AF, Script::han},
};

constexpr bool ascending() {
  for (std::size_t i = 0; i < std::size(kBlocks); ++i) {
    if (kBlocks[i].first > kBlocks[i].last) return false;
    if (i > 0 && kBlocks[i].first <= kBlocks[i - 1].last) return false;
  }
  return true;
}
static_assert(ascending(), "the blocks ascend without overlapping: scriptOf searches them");

constexpr std::uint64_t bit(Script s) { return std::uint64_t(1) << unsigned(s); }

struct Reader {
  std::string_view language;
  std::uint64_t scripts;
};

constexpr std::uint64_t kLatin = bit(Script::latin);

// Languages that read more than Latin, or not Latin: as the voice data installed with the
// library reads them (measured: a language whose voice spells a script's words out letter by
// letter, or names their letters, does not read it). Every other language reads Latin alone.
constexpr Reader kReaders[] = {
    {"am", kLatin | bit(Script::ethiopic)},
    {"ar", kLatin | bit(Script::arabic)},
    {"as", kLatin | bit(Script::bengali)},
    {"ba", kLatin | bit(Script::cyrillic)},
    {"be", kLatin | bit(Script::cyrillic)},
    {"bg", kLatin | bit(Script::cyrillic)},
    {"bn", kLatin | bit(Script::bengali)},
    {"bpy", kLatin | bit(Script::bengali)},
    {"bs", kLatin | bit(Script::cyrillic)},
    {"cmn", kLatin | bit(Script::han)},
    {"cv", kLatin | bit(Script::cyrillic)},
    {"el", kLatin | bit(Script::greek)},
    {"fa", kLatin | bit(Script::arabic)},
    {"grc", kLatin | bit(Script::greek)},
    {"gu", kLatin | bit(Script::gujarati)},
    {"he", bit(Script::hebrew)},
    {"hi", kLatin | bit(Script::devanagari)},
    {"hy", kLatin | bit(Script::armenian)},
    {"hyw", kLatin | bit(Script::armenian)},
    {"ja", bit(Script::kana)},
    {"ka", kLatin | bit(Script::georgian)},
    {"kk", kLatin | bit(Script::cyrillic)},
    {"kn", kLatin | bit(Script::kannada)},
    {"ko", kLatin | bit(Script::hangul)},
    {"kok", bit(Script::devanagari)},
    {"ky", kLatin | bit(Script::cyrillic)},
    {"mk", kLatin | bit(Script::cyrillic)},
    {"ml", kLatin | bit(Script::malayalam)},
    {"mr", kLatin | bit(Script::devanagari)},
    {"my", bit(Script::myanmar)},
    {"ne", kLatin | bit(Script::devanagari)},
    {"nog", kLatin | bit(Script::cyrillic)},
    {"or", kLatin | bit(Script::oriya)},
    {"pa", kLatin | bit(Script::gurmukhi)},
    {"ru", kLatin | bit(Script::cyrillic)},
    {"sd", kLatin | bit(Script::arabic)},
    {"shn", bit(Script::myanmar)},
    {"si", kLatin | bit(Script::sinhala)},
    {"sr", kLatin | bit(Script::cyrillic)},
    {"ta", kLatin | bit(Script::tamil)},
    {"te", kLatin | bit(Script::telugu)},
    {"th", kLatin | bit(Script::thai)},
    {"tt", kLatin | bit(Script::cyrillic)},
    {"ug", kLatin | bit(Script::arabic)},
    {"uk", kLatin | bit(Script::cyrillic)},
    {"ur", kLatin | bit(Script::arabic)},
    {"uz", kLatin | bit(Script::cyrillic)},
    {"yue", kLatin | bit(Script::han)},
};

constexpr std::string_view kNames[] = {
    "Latin",   "Greek",   "Cyrillic",   "Armenian",  "Hebrew",   "Arabic",   "Syriac",
    "Thaana",  "N'Ko",    "Devanagari", "Bengali",   "Gurmukhi", "Gujarati", "Oriya",
    "Tamil",   "Telugu",  "Kannada",    "Malayalam", "Sinhala",  "Thai",     "Lao",
    "Tibetan", "Myanmar", "Georgian",   "Hangul",    "Ethiopic", "Cherokee", "Canadian syllabics",
    "Ogham",   "Runic",   "Khmer",      "Mongolian", "Kana",     "Bopomofo", "Han",
    "Yi",      "other",
};
static_assert(std::size(kNames) == std::size_t(Script::other) + 1);

}  // namespace

Script scriptOf(char32_t letter) {
  const auto* block = std::upper_bound(std::begin(kBlocks), std::end(kBlocks), letter,
                                       [](char32_t c, const Block& b) { return c < b.first; });
  if (block == std::begin(kBlocks)) return Script::other;
  --block;
  return letter <= block->last ? block->script : Script::other;
}

std::string_view scriptName(Script script) { return kNames[std::size_t(script)]; }

bool languageReads(std::string_view language, Script script) {
  std::string base;
  for (char c : language) {
    if (c == '-' || c == '_' || c == '+') break;
    base += char(std::tolower(static_cast<unsigned char>(c)));
  }
  std::uint64_t scripts = kLatin;
  for (const Reader& r : kReaders) {
    if (r.language == base) scripts = r.scripts;
  }
  return (scripts & bit(script)) != 0;
}

}  // namespace lumora2::render
