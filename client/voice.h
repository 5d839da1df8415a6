// The embedded voice: text in, 16 kHz mono speech out, synthesised in memory by libespeak-ng (no
// files, no other process). It is the default voice, and the seam where a better one goes: the
// rest of the program sees sentences in and samples out.
//
// espeak-ng keeps one global state, so every use of it in the process is serialised by one lock,
// held for one sentence at a time: several sessions speaking at once take turns sentence by
// sentence. Synthesis draws nothing at random: a process that says the same sentences from its
// start gets the same samples every time (every run of lumora2-render with the same text and
// voice). The library does carry a little of its state from one sentence to the next (the phase
// of its pitch flutter, its roughness cycle), so a sentence said after different ones comes out
// very slightly different, as a speaker never says a sentence twice quite alike.
#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "speech_text.h"

namespace lumora2::render {

class Voice {
 public:
  // An espeak-ng voice by name: a language ("en-us", "ru", "cmn"), optionally with a variant
  // ("en-us+f3"), or a voice file's name. Throws ClientError when there is no such voice or the
  // voice data (espeak-ng-data) is missing.
  explicit Voice(std::string name);

  const std::string& name() const { return name_; }
  // The voice's language tag, as espeak-ng reports it ("en-us").
  const std::string& language() const { return language_; }

  // Throws TextError (unspeakable) naming the script of the first letter the voice does not read,
  // and the word it is in.
  void checkScripts(std::string_view text) const;

  // Where a word begins in what was spoken: its byte offset in the sentence's text, and its first
  // sample (16 kHz) counted from the start of the samples that hold it.
  struct WordMark {
    std::size_t text = 0;
    std::size_t sample = 0;
  };

  // One sentence, as spoken, with no pause added around it; `words`, when given, gets where each
  // of its words begins.
  std::vector<float> synthesize(std::string_view sentence,
                                std::vector<WordMark>* words = nullptr) const;

  // Sentences spoken in order: kLeadIn of silence, then each sentence followed by its pause.
  // `onPiece` gets each sentence's samples (the lead-in with the first, its pause with each) as
  // soon as it is made, outside the library's lock; when it returns false the rest is not made.
  // `onWords`, when given, gets each piece's word marks (counted from the piece's start) just
  // before the piece. Returns the number of samples it took.
  using PieceFn = std::function<bool(const float* samples, std::size_t count)>;
  using WordsFn = std::function<void(const std::vector<WordMark>& words)>;
  std::size_t speak(const std::vector<Sentence>& sentences, const PieceFn& onPiece,
                    const WordsFn& onWords = {}) const;
  // One sentence as speak() says it: with the lead-in before it when it is the first.
  std::size_t speakOne(const Sentence& sentence, bool first, const PieceFn& onPiece,
                       const WordsFn& onWords = {}) const;

 private:
  std::string name_;
  std::string language_;
};

// The voice an avatar speaks with. `chosen` (a --voice option) when not empty: an error when
// espeak-ng lacks it. Else the `voice` field of the avatar's persona (`voice=NAME` or
// `voice: NAME` among its comma- or semicolon-separated parts): when espeak-ng lacks it, the
// default is used and `warning` says so. Else the default for the avatar's gender: en-us+f3 for
// "f" or "female", en-us+m3 for "m" or "male", en-us otherwise.
struct VoiceChoice {
  std::string name;
  std::string warning;  // empty when the choice went as asked
};
VoiceChoice chooseVoice(const std::string& gender, const std::string& persona,
                        const std::string& chosen);

// The persona's `voice` field; empty when it has none.
std::string personaVoice(const std::string& persona);

}  // namespace lumora2::render
