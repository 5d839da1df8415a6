#include "voice.h"

#include <espeak-ng/speak_lib.h>

extern "C" {
#include <libavutil/channel_layout.h>
#include <libavutil/samplefmt.h>
#include <libswresample/swresample.h>
}

#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>

#include "audio_input.h"
#include "engine/thread_annotations.h"
#include "utf8_text.h"
#include "writing_systems.h"

namespace lumora2::render {
namespace {

// espeak-ng's one global state: every call into the library holds this lock.
Mutex g_espeak;
int g_rate LUMORA2_GUARDED_BY(g_espeak) = 0;  // the library's output rate, once initialised
std::vector<short>* g_sink LUMORA2_GUARDED_BY(g_espeak) = nullptr;  // where synthesis goes
// Where each word begins: (character position from 1, milliseconds into the speech).
std::vector<std::pair<int, int>>* g_words LUMORA2_GUARDED_BY(g_espeak) = nullptr;

// The library's synthesis callback; it runs inside espeak_Synth, under the lock.
int collect(short* wav, int count, espeak_EVENT* events) LUMORA2_REQUIRES(g_espeak) {
  if (wav != nullptr && count > 0 && g_sink != nullptr)
    g_sink->insert(g_sink->end(), wav, wav + count);
  for (espeak_EVENT* e = events; e != nullptr && e->type != espeakEVENT_LIST_TERMINATED; ++e) {
    if (e->type == espeakEVENT_WORD && g_words != nullptr) {
      g_words->emplace_back(e->text_position, e->audio_position);
    }
  }
  return 0;
}

void initialise() LUMORA2_REQUIRES(g_espeak) {
  if (g_rate > 0) return;
  // Synchronous: espeak_Synth returns when the text is spoken, every sample handed to collect.
  const int rate =
      espeak_Initialize(AUDIO_OUTPUT_SYNCHRONOUS, 0, nullptr, espeakINITIALIZE_DONT_EXIT);
  if (rate <= 0) {
    throw ClientError(
        "the embedded voice finds no espeak-ng data (install espeak-ng-data: "
        "scripts/install-deps.sh)");
  }
  espeak_SetSynthCallback(collect);
  g_rate = rate;
}

// A name is a language, a voice file's path under the voice directory, and a variant after '+':
// nothing that leaves that directory.
bool plausibleName(const std::string& name) {
  if (name.empty() || name.size() > 64 || name.front() == '/' ||
      name.find("..") != std::string::npos) {
    return false;
  }
  return std::all_of(name.begin(), name.end(), [](char c) {
    return std::isalnum(static_cast<unsigned char>(c)) != 0 || c == '-' || c == '_' || c == '+' ||
           c == '/';
  });
}

// Makes `name` the library's voice; its language tag.
std::string select(const std::string& name) LUMORA2_REQUIRES(g_espeak) {
  const std::string unknown = "espeak-ng has no voice called \"" + name + "\"";
  if (!plausibleName(name)) throw ClientError(unknown);
  if (espeak_SetVoiceByName(name.c_str()) != EE_OK) {
    // A language with a region ("en-gb") names no voice file: the best voice for the language,
    // with the variant asked for.
    const std::size_t plus = name.find('+');
    const std::string language = name.substr(0, plus);
    espeak_VOICE wanted{};
    wanted.languages = language.c_str();
    if (espeak_SetVoiceByProperties(&wanted) != EE_OK) throw ClientError(unknown);
    const espeak_VOICE* best = espeak_GetCurrentVoice();
    if (plus != std::string::npos &&
        (best == nullptr || best->identifier == nullptr ||
         espeak_SetVoiceByName((best->identifier + name.substr(plus)).c_str()) != EE_OK)) {
      throw ClientError(unknown);
    }
  }
  // The current voice's language comes after a priority byte.
  const espeak_VOICE* voice = espeak_GetCurrentVoice();
  std::string language;
  if (voice != nullptr && voice->languages != nullptr) {
    const char* text = voice->languages;
    while (*text != '\0' && static_cast<unsigned char>(*text) < 0x20) ++text;
    language = text;
  }
  if (language.empty()) language = name.substr(0, name.find('+'));
  return language;
}

struct SwrFreer {
  void operator()(SwrContext* c) const { swr_free(&c); }
};

// The library's 16-bit samples at `rate` as the engine's: float at kEngineRate. A resampler of
// its own for every sentence, drained at the end, so that a sentence's samples depend on it alone.
std::vector<float> toEngineRate(const std::vector<short>& pcm, int rate) {
  std::vector<float> out;
  if (pcm.empty()) return out;
  AVChannelLayout mono = AV_CHANNEL_LAYOUT_MONO;
  SwrContext* raw = nullptr;
  if (swr_alloc_set_opts2(&raw, &mono, AV_SAMPLE_FMT_FLT, kEngineRate, &mono, AV_SAMPLE_FMT_S16,
                          rate, 0, nullptr) < 0 ||
      swr_init(raw) < 0) {
    swr_free(&raw);
    throw ClientError("cannot convert the voice's speech to 16 kHz");
  }
  std::unique_ptr<SwrContext, SwrFreer> swr(raw);
  const int in = int(pcm.size());
  out.resize(std::size_t(swr_get_out_samples(swr.get(), in)));
  auto* dst = reinterpret_cast<std::uint8_t*>(out.data());
  const auto* src = reinterpret_cast<const std::uint8_t*>(pcm.data());
  int got = swr_convert(swr.get(), &dst, int(out.size()), &src, in);
  if (got < 0) throw ClientError("cannot convert the voice's speech to 16 kHz");
  std::size_t size = std::size_t(got);
  const int tail = swr_get_out_samples(swr.get(), 0);
  if (tail > 0) {
    out.resize(size + std::size_t(tail));
    dst = reinterpret_cast<std::uint8_t*>(out.data() + size);
    got = swr_convert(swr.get(), &dst, tail, nullptr, 0);
    if (got > 0) size += std::size_t(got);
  }
  out.resize(size);
  return out;
}

std::size_t samplesFor(double seconds) {
  return std::size_t(std::llround(seconds * double(kEngineRate)));
}

bool isLetter(char32_t c) {
  switch (utf8proc_category(utf8proc_int32_t(c))) {
    case UTF8PROC_CATEGORY_LU:
    case UTF8PROC_CATEGORY_LL:
    case UTF8PROC_CATEGORY_LT:
    case UTF8PROC_CATEGORY_LM:
    case UTF8PROC_CATEGORY_LO:
      return true;
    default:
      return false;
  }
}

bool inWord(char32_t c) {
  const auto category = utf8proc_category(utf8proc_int32_t(c));
  return isLetter(c) || category == UTF8PROC_CATEGORY_MN || category == UTF8PROC_CATEGORY_MC;
}

std::string lowerCase(std::string text) {
  for (char& c : text) c = char(std::tolower(static_cast<unsigned char>(c)));
  return text;
}

std::string trimmed(const std::string& text) {
  const std::size_t from = text.find_first_not_of(" \t");
  if (from == std::string::npos) return "";
  return text.substr(from, text.find_last_not_of(" \t") - from + 1);
}

}  // namespace

Voice::Voice(std::string name) : name_(std::move(name)) {
  MutexLock hold(g_espeak);
  initialise();
  language_ = select(name_);
}

void Voice::checkScripts(std::string_view text) const {
  const std::u32string chars = decodeUtf8(text);
  for (std::size_t i = 0; i < chars.size(); ++i) {
    if (!isLetter(chars[i])) continue;
    const Script script = scriptOf(chars[i]);
    if (languageReads(language_, script)) continue;
    // The word the letter is in, for the message: at most 24 characters of it.
    std::size_t from = i, to = i + 1;
    while (from > 0 && i - from < 12 && inWord(chars[from - 1])) --from;
    while (to < chars.size() && to - from < 24 && inWord(chars[to])) ++to;
    std::string what;
    if (script == Script::other) {
      char code[16];
      std::snprintf(code, sizeof code, "U+%04X", unsigned(chars[i]));
      what = std::string("the letter ") + code;
    } else {
      what = std::string(scriptName(script)) + " script";
    }
    throw TextError(TextError::Kind::unspeakable,
                    "the voice " + name_ + " cannot speak " + what + " (\"" +
                        encodeUtf8(std::u32string_view(chars).substr(from, to - from)) +
                        "\"); choose a voice that reads it");
  }
}

std::vector<float> Voice::synthesize(std::string_view sentence,
                                     std::vector<WordMark>* words) const {
  const std::string text(sentence);  // the library wants it NUL-terminated
  std::vector<short> pcm;
  std::vector<std::pair<int, int>> marks;
  int rate = 0;
  {
    MutexLock hold(g_espeak);
    initialise();
    select(name_);
    // Some voices breathe: the library draws that noise from rand(). The same seed before every
    // sentence keeps whatever else calls rand() out of the speech.
    std::srand(1);
    g_sink = &pcm;
    g_words = &marks;
    const espeak_ERROR rc = espeak_Synth(text.c_str(), text.size() + 1, 0, POS_CHARACTER, 0,
                                         espeakCHARS_UTF8, nullptr, nullptr);
    g_sink = nullptr;
    g_words = nullptr;
    if (rc != EE_OK) {
      throw ClientError("the voice " + name_ + " could not speak \"" + text.substr(0, 40) + "\"");
    }
    rate = g_rate;
  }
  if (words != nullptr) {
    // The library counts characters from 1; the marks give byte offsets.
    std::vector<std::size_t> byteOf;  // byte offset of each character
    for (std::size_t i = 0; i < text.size(); ++i) {
      if ((static_cast<unsigned char>(text[i]) & 0xC0) != 0x80) byteOf.push_back(i);
    }
    for (const auto& [character, ms] : marks) {
      const std::size_t at = character >= 1 && std::size_t(character) <= byteOf.size()
                                 ? byteOf[std::size_t(character) - 1]
                                 : text.size();
      words->push_back(WordMark{at, std::size_t(std::max(0, ms)) * (kEngineRate / 1000)});
    }
  }
  return toEngineRate(pcm, rate);
}

std::size_t Voice::speakOne(const Sentence& sentence, bool first, const PieceFn& onPiece,
                            const WordsFn& onWords) const {
  const std::size_t lead = first ? samplesFor(kLeadIn) : 0;
  std::vector<float> piece(lead, 0.0f);
  std::vector<WordMark> words;
  const std::vector<float> spoken = synthesize(sentence.text, onWords ? &words : nullptr);
  piece.insert(piece.end(), spoken.begin(), spoken.end());
  piece.resize(piece.size() + samplesFor(sentence.pauseAfter), 0.0f);
  if (onWords) {
    for (WordMark& w : words) w.sample += lead;
    onWords(words);
  }
  return onPiece(piece.data(), piece.size()) ? piece.size() : 0;
}

std::size_t Voice::speak(const std::vector<Sentence>& sentences, const PieceFn& onPiece,
                         const WordsFn& onWords) const {
  std::size_t total = 0;
  for (std::size_t k = 0; k < sentences.size(); ++k) {
    const std::size_t made = speakOne(sentences[k], k == 0, onPiece, onWords);
    if (made == 0) break;
    total += made;
  }
  return total;
}

std::string personaVoice(const std::string& persona) {
  std::size_t from = 0;
  while (from <= persona.size()) {
    const std::size_t end = std::min(persona.find_first_of(",;", from), persona.size());
    const std::string part = trimmed(persona.substr(from, end - from));
    if (lowerCase(part.substr(0, 5)) == "voice") {
      const std::string rest = trimmed(part.substr(5));
      if (!rest.empty() && (rest.front() == '=' || rest.front() == ':')) {
        return trimmed(rest.substr(1));
      }
    }
    from = end + 1;
  }
  return "";
}

VoiceChoice chooseVoice(const std::string& gender, const std::string& persona,
                        const std::string& chosen) {
  if (!chosen.empty()) return {Voice(chosen).name(), ""};
  const std::string g = lowerCase(trimmed(gender));
  const std::string fallback = g == "f" || g == "female" ? "en-us+f3"
                               : g == "m" || g == "male" ? "en-us+m3"
                                                         : "en-us";
  if (const std::string asked = personaVoice(persona); !asked.empty()) {
    try {
      return {Voice(asked).name(), ""};
    } catch (const ClientError& e) {
      return {Voice(fallback).name(),
              std::string(e.what()) + "; the persona's voice gives way to " + fallback};
    }
  }
  return {Voice(fallback).name(), ""};
}

}  // namespace lumora2::render
