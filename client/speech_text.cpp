#include "speech_text.h"

#include <cctype>

#include <utf8proc.h>

#include <algorithm>
#include <cstdio>
#include <string_view>

#include "utf8_text.h"

namespace lumora2::render {
namespace {

// A pause where an over-long sentence was cut (a comma's, about).
constexpr double kCutPause = 0.2;

bool isLineBreak(char32_t c) { return c == U'\n' || c == U'\r' || c == 0x2028 || c == 0x2029; }

bool isControl(char32_t c) {
  return utf8proc_category(utf8proc_int32_t(c)) == UTF8PROC_CATEGORY_CC && c != U'\t' &&
         !isLineBreak(c);
}

// Shows nothing and says nothing: spaces, line breaks and format characters.
bool isInvisible(char32_t c) {
  switch (utf8proc_category(utf8proc_int32_t(c))) {
    case UTF8PROC_CATEGORY_ZS:
    case UTF8PROC_CATEGORY_ZL:
    case UTF8PROC_CATEGORY_ZP:
    case UTF8PROC_CATEGORY_CF:
      return true;
    default:
      return c == U'\t' || isLineBreak(c);
  }
}

bool isSpace(char32_t c) {
  const auto category = utf8proc_category(utf8proc_int32_t(c));
  return category == UTF8PROC_CATEGORY_ZS || c == U'\t' || isLineBreak(c);
}

// Ends a sentence when a space or the line's end follows: . ! ? … ‼ ⁇ ⁈ ⁉, the Greek question
// mark, the Armenian full stop, the Arabic question mark, the Urdu full stop, the danda and double
// danda, the Myanmar section mark, the Ethiopic full stop, question mark and paragraph separator,
// and the full-width 。 ！ ． ？ ｡.
constexpr std::u32string_view kTerminators =
    U".!?\u2026\u203C\u2047\u2048\u2049\u037E\u0589\u061F\u06D4\u0964\u0965\u104B\u1362"
    U"\u1367\u1368\u3002\uFF01\uFF0E\uFF1F\uFF61";
// Those of scripts written without a space after them.
constexpr std::u32string_view kUnspaced = U"\u0964\u0965\u104B\u1362\u3002\uFF01\uFF0E\uFF1F\uFF61";
// Closing quotes and brackets that stay with the sentence they close: " ' ) ] } » ’ ” › 」 』 】
// 〉 》 ）.
constexpr std::u32string_view kClosers =
    U"\"')]}\u00BB\u2019\u201D\u203A\u300D\u300F\u3011\u3009\u300B\uFF09";
// Where an over-long sentence may be cut: , ; : ، 、 ， ； ：.
constexpr std::u32string_view kClauseEnds = U",;:\u060C\u3001\uFF0C\uFF1B\uFF1A";

bool isTerminator(char32_t c) { return kTerminators.find(c) != std::u32string_view::npos; }
bool needsNoSpace(char32_t c) { return kUnspaced.find(c) != std::u32string_view::npos; }
bool isCloser(char32_t c) { return kClosers.find(c) != std::u32string_view::npos; }
bool isClauseEnd(char32_t c) { return kClauseEnds.find(c) != std::u32string_view::npos; }

bool blank(std::u32string_view text) { return std::all_of(text.begin(), text.end(), isInvisible); }

class Splitter {
 public:
  std::vector<Sentence> sentences;

  void line(std::u32string_view line) {
    if (blank(line)) {
      flush(kSentencePause);
      if (!sentences.empty()) ++blankLines_;
      return;
    }
    if (blankLines_ > 0) {
      sentences.back().pauseAfter = std::max(kSentencePause, double(blankLines_) * kBlankLinePause);
      blankLines_ = 0;
    }
    if (!pending_.empty()) add(U' ');  // a paragraph's lines run on
    std::size_t i = 0;
    while (i < line.size()) {
      const char32_t c = line[i++];
      add(c);
      if (!isTerminator(c)) continue;
      while (i < line.size() && isCloser(line[i])) add(line[i++]);
      if (i < line.size() && isTerminator(line[i])) continue;  // "?!", "..."
      if (i == line.size() || isSpace(line[i]) || needsNoSpace(c)) flush(kSentencePause);
    }
  }

  void finish() {
    flush(kSentencePause);
    if (!sentences.empty()) sentences.back().pauseAfter = kTail;
  }

 private:
  void add(char32_t c) {
    pending_ += c;
    if (pending_.size() >= kLongestSentence) cut();
  }

  // An over-long sentence ends after its last clause mark, else its last space, else here.
  void cut() {
    std::size_t at = pending_.size();
    for (auto* test : {isClauseEnd, isSpace}) {
      const auto found = std::find_if(pending_.rbegin(), pending_.rend(), test);
      if (found != pending_.rend() && found.base() - pending_.begin() > 1) {
        at = std::size_t(found.base() - pending_.begin());
        break;
      }
    }
    std::u32string rest = pending_.substr(at);
    pending_.resize(at);
    flush(kCutPause);
    pending_ = std::move(rest);
  }

  void flush(double pause) {
    std::u32string_view text = pending_;
    while (!text.empty() && isInvisible(text.front())) text.remove_prefix(1);
    while (!text.empty() && isInvisible(text.back())) text.remove_suffix(1);
    if (!text.empty()) sentences.push_back({encodeUtf8(text), pause});
    pending_.clear();
  }

  std::u32string pending_;
  std::size_t blankLines_ = 0;
};

}  // namespace

void checkText(std::string_view text, std::size_t maxChars) {
  using Kind = TextError::Kind;
  if (text.empty()) throw TextError(Kind::empty, "the text is empty");
  const auto* p = reinterpret_cast<const utf8proc_uint8_t*>(text.data());
  auto left = utf8proc_ssize_t(text.size());
  std::size_t chars = 0;
  std::size_t controlAt = 0;  // character number, from 1; 0: none
  char32_t control = 0;
  bool visible = false;
  while (left > 0) {
    utf8proc_int32_t c = 0;
    const utf8proc_ssize_t n = utf8proc_iterate(p, left, &c);
    if (n <= 0) {
      throw TextError(Kind::notUtf8, "the text is not UTF-8 (byte " +
                                         std::to_string(text.size() - std::size_t(left) + 1) + ")");
    }
    ++chars;
    if (controlAt == 0 && isControl(char32_t(c))) {
      controlAt = chars;
      control = char32_t(c);
    }
    visible = visible || !isInvisible(char32_t(c));
    p += n;
    left -= n;
  }
  if (chars > maxChars) {
    throw TextError(Kind::tooLong, "the text has " + std::to_string(chars) +
                                       " characters; at most " + std::to_string(maxChars) +
                                       " are taken");
  }
  if (controlAt != 0) {
    char code[16];
    std::snprintf(code, sizeof code, "U+%04X", unsigned(control));
    throw TextError(Kind::control, std::string("the text holds a control character (") + code +
                                       ", character " + std::to_string(controlAt) + ")");
  }
  if (!visible) throw TextError(Kind::blank, "the text holds only spaces: nothing to say");
}

std::vector<Sentence> splitSentences(std::string_view text) {
  std::u32string all = decodeUtf8(text);
  Splitter splitter;
  std::size_t from = 0;
  while (from <= all.size()) {
    std::size_t end = from;
    while (end < all.size() && !isLineBreak(all[end])) ++end;
    splitter.line(std::u32string_view(all).substr(from, end - from));
    if (end < all.size()) {
      // CR LF is one break; a paragraph separator is a blank line as well.
      if (all[end] == U'\r' && end + 1 < all.size() && all[end + 1] == U'\n') ++end;
      if (all[end] == 0x2029) splitter.line(U"");
    }
    from = end + 1;
  }
  splitter.finish();
  return std::move(splitter.sentences);
}

WrittenSoFar completeSentences(std::string_view text) {
  WrittenSoFar out;
  std::vector<Sentence> sofar = splitSentences(text);
  if (sofar.empty()) {
    out.rest = std::string(text);
    return out;
  }
  // A word more either starts a sentence of its own (every sentence so far is complete) or joins
  // the last one; either way the sentences before are final, with their pauses as they will be.
  std::string more(text);
  more += " x";
  std::vector<Sentence> extended = splitSentences(more);
  const bool lastComplete = extended.size() > sofar.size();
  const std::size_t complete = lastComplete ? sofar.size() : sofar.size() - 1;
  out.complete.assign(extended.begin(), extended.begin() + std::ptrdiff_t(complete));
  if (!lastComplete) {
    out.rest = sofar.back().text;
    if (!text.empty() && std::isspace(static_cast<unsigned char>(text.back()))) out.rest += ' ';
  }
  return out;
}

}  // namespace lumora2::render
