// Text for the embedded voice: what a text may hold, and how it is cut into sentences, each
// synthesised and handed on by itself so that speaking starts before a long text is all made.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "client_error.h"

namespace lumora2::render {

// A text the voice refuses, and why; the message is one line.
class TextError : public ClientError {
 public:
  enum class Kind {
    notUtf8,
    empty,
    blank,        // only spaces (and other invisible characters)
    control,      // a control character other than tab and line breaks
    tooLong,      // more characters than the caller takes
    unspeakable,  // a letter of a script the voice does not read
  };
  TextError(Kind kind, const std::string& message) : ClientError(message), kind_(kind) {}
  Kind kind() const { return kind_; }

 private:
  Kind kind_;
};

// Throws TextError unless `text` is UTF-8 of at most `maxChars` characters (code points) holding
// something to say and no control character but tab, line feed and carriage return.
void checkText(std::string_view text, std::size_t maxChars);

// Silences, in seconds: after a sentence, for each blank line between two, before the first
// sentence and after the last.
inline constexpr double kSentencePause = 0.5;
inline constexpr double kBlankLinePause = 1.0;
inline constexpr double kLeadIn = 0.25;
inline constexpr double kTail = 0.5;
// A sentence longer than this (characters) is cut at its last comma or space before it.
inline constexpr std::size_t kLongestSentence = 300;

struct Sentence {
  std::string text;         // UTF-8, trimmed
  double pauseAfter = 0.0;  // seconds of silence after it
};

// The sentences of a checked text in order. A sentence ends after . ! ? … and their kin in other
// scripts (。 । ؟ ። …) followed by a space or a line's end (the full-width and Indic ones need
// none); lines of a paragraph run on; each blank line between two sentences adds
// kBlankLinePause to the pause after the first (instead of kSentencePause); the last sentence is
// followed by kTail.
std::vector<Sentence> splitSentences(std::string_view text);

// For text that is still being written (a language model's words as they come): its sentences that no
// later word can change, each followed by kSentencePause or its blank lines' pause, and the rest,
// to be continued (its trailing space kept).
struct WrittenSoFar {
  std::vector<Sentence> complete;
  std::string rest;
};
WrittenSoFar completeSentences(std::string_view text);

}  // namespace lumora2::render
