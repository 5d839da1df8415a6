// The embedded voice on the real libespeak-ng and its installed voices: speech of a plausible
// length and loudness, the same samples for the same text, the text's checks, its sentences, the
// scripts each voice reads and the voice each avatar gets.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sys/wait.h>
#include <unistd.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "client/audio_input.h"
#include "client/speech_text.h"
#include "client/voice.h"

namespace lumora2::render {

// For comparing and printing expected sentences (found by argument-dependent lookup).
bool operator==(const Sentence& a, const Sentence& b) {
  return a.text == b.text && std::fabs(a.pauseAfter - b.pauseAfter) < 1e-9;
}
void PrintTo(const Sentence& s, std::ostream* os) {
  *os << '"' << s.text << "\" +" << s.pauseAfter;
}

namespace {

using ::testing::HasSubstr;

double rms(const std::vector<float>& samples) {
  double sum = 0;
  for (float s : samples) sum += double(s) * s;
  return samples.empty() ? 0.0 : std::sqrt(sum / double(samples.size()));
}

struct Spoken {
  const char* voice;
  const char* sentence;
  int words;
};

// The voice's samples for `text`, made in a child process: it starts from this process's state.
std::vector<float> synthesizeInChild(const Voice& voice, const std::string& text) {
  std::FILE* shared = std::tmpfile();
  if (::fork() == 0) {
    const std::vector<float> samples = voice.synthesize(text);
    std::fwrite(samples.data(), sizeof(float), samples.size(), shared);
    std::fflush(shared);
    ::_exit(0);
  }
  ::wait(nullptr);
  std::vector<float> samples(std::size_t(std::ftell(shared)) / sizeof(float));
  std::rewind(shared);
  samples.resize(std::fread(samples.data(), sizeof(float), samples.size(), shared));
  std::fclose(shared);
  return samples;
}

class Synthesis : public ::testing::TestWithParam<Spoken> {};

// About 2.5 words a second (within a factor of 2), loud enough to be speech and never clipped;
// nothing drawn at random: from the same state, the same text gives the same samples, whatever
// else has used rand() in between.
TEST_P(Synthesis, GivesPlausibleSpeechAndTheSameSamplesFromTheSameState) {
  const Voice voice(GetParam().voice);
  const std::vector<float> first = voice.synthesize(GetParam().sentence);
  const double seconds = double(first.size()) / kEngineRate;
  const double expected = GetParam().words / 2.5;
  EXPECT_GT(seconds, expected / 2) << seconds << " s";
  EXPECT_LT(seconds, expected * 2) << seconds << " s";
  EXPECT_GT(rms(first), 0.02);
  for (float s : first) ASSERT_LE(std::fabs(s), 1.0f);

  const std::vector<float> child = synthesizeInChild(voice, GetParam().sentence);
  for (int i = 0; i < 7; ++i) static_cast<void>(std::rand());
  const std::vector<float> again = voice.synthesize(GetParam().sentence);
  ASSERT_FALSE(child.empty());
  EXPECT_TRUE(again == child) << again.size() << " samples here, " << child.size() << " there";
}

INSTANTIATE_TEST_SUITE_P(
    Voices, Synthesis,
    ::testing::Values(Spoken{"en-us+f3", "The quick brown fox jumps over the lazy dog.", 9},
                      Spoken{"ru", "Привет, я говорю то, что вы пишете.", 6}),
    [](const auto& p) {
      std::string n = p.param.voice;
      for (char& c : n)
        if (c == '-' || c == '+') c = '_';
      return n;
    });

// Sentences are spoken with the lead-in before the first and each one's pause after it, one
// piece a sentence, and a piece refused stops the rest.
TEST(Speak, HandsOnOnePieceASentenceWithItsPauses) {
  const Voice voice("en-us+f3");
  const std::vector<Sentence> sentences = splitSentences("One sentence. Another one. A third.");
  ASSERT_EQ(sentences.size(), 3u);
  std::vector<std::vector<float>> pieces;
  const std::size_t total = voice.speak(sentences, [&](const float* s, std::size_t n) {
    pieces.emplace_back(s, s + n);
    return true;
  });
  ASSERT_EQ(pieces.size(), 3u);
  std::size_t sum = 0;
  for (std::size_t k = 0; k < 3; ++k) {
    const std::vector<float>& piece = pieces[k];
    const auto lead = std::size_t(k == 0 ? kLeadIn * kEngineRate : 0);
    const auto pause = std::size_t(sentences[k].pauseAfter * kEngineRate);
    const std::size_t spoken = voice.synthesize(sentences[k].text).size();
    ASSERT_GT(piece.size(), lead + pause);
    // Said again, a sentence may come out up to some 50 ms longer or shorter.
    EXPECT_NEAR(double(piece.size() - lead - pause), double(spoken), 0.1 * kEngineRate);
    EXPECT_EQ(rms(std::vector<float>(piece.begin(), piece.begin() + long(lead))), 0.0);
    EXPECT_EQ(rms(std::vector<float>(piece.end() - long(pause), piece.end())), 0.0);
    EXPECT_GT(rms(std::vector<float>(piece.begin() + long(lead), piece.end() - long(pause))), 0.02);
    sum += piece.size();
  }
  EXPECT_EQ(total, sum);

  int calls = 0;
  const std::size_t stopped =
      voice.speak(sentences, [&](const float*, std::size_t) { return ++calls < 2; });
  EXPECT_EQ(calls, 2);
  EXPECT_NEAR(double(stopped), double(pieces[0].size()), 0.1 * kEngineRate);
}

struct Refused {
  const char* name;
  std::string text;
  std::size_t maxChars;
  TextError::Kind kind;
  const char* message;
};

class TextChecks : public ::testing::TestWithParam<Refused> {};

TEST_P(TextChecks, RefuseWithOneLine) {
  try {
    checkText(GetParam().text, GetParam().maxChars);
    FAIL() << "accepted";
  } catch (const TextError& e) {
    EXPECT_EQ(e.kind(), GetParam().kind);
    EXPECT_THAT(e.what(), HasSubstr(GetParam().message));
    EXPECT_EQ(std::string(e.what()).find('\n'), std::string::npos);
  }
}

INSTANTIATE_TEST_SUITE_P(
    Texts, TextChecks,
    ::testing::Values(
        Refused{"Empty", "", 10, TextError::Kind::empty, "the text is empty"},
        Refused{"Spaces", "  \t \n\u00a0\u200b ", 100, TextError::Kind::blank, "only spaces"},
        Refused{"Bell", "hello\aworld", 100, TextError::Kind::control, "(U+0007, character 6)"},
        Refused{"Nul", std::string("a\0b", 3), 100, TextError::Kind::control, "U+0000"},
        Refused{"C1Control", "ok \u0085", 100, TextError::Kind::control, "U+0085"},
        Refused{"NotUtf8", "caf\xe9", 100, TextError::Kind::notUtf8, "not UTF-8 (byte 4)"},
        // Characters, not bytes: six of them in twelve bytes.
        Refused{"TooLong", "привет", 5, TextError::Kind::tooLong, "has 6 characters; at most 5"}),
    [](const auto& p) { return std::string(p.param.name); });

TEST(TextChecks, TakeTabsLineBreaksAndEveryScript) {
  EXPECT_NO_THROW(checkText("Hello,\tworld.\r\nПривет.\n\n你好。 😀", 100));
  EXPECT_NO_THROW(checkText(std::string(5000, 'a'), 5000));
}

struct Split {
  const char* name;
  const char* text;
  std::vector<Sentence> sentences;
};

class Sentences : public ::testing::TestWithParam<Split> {};

TEST_P(Sentences, EndWhereTheTextSays) {
  EXPECT_EQ(splitSentences(GetParam().text), GetParam().sentences);
}

constexpr double kS = kSentencePause;
INSTANTIATE_TEST_SUITE_P(
    Texts, Sentences,
    ::testing::Values(
        Split{
            "Plain", "Hello there. How are you?", {{"Hello there.", kS}, {"How are you?", kTail}}},
        Split{"NumbersAndRuns",
              "Pi is 3.14, roughly! Really?! Wait... yes.",
              {{"Pi is 3.14, roughly!", kS}, {"Really?!", kS}, {"Wait...", kS}, {"yes.", kTail}}},
        Split{"ClosingQuotes",
              "He said \"Stop.\" Then he left.",
              {{"He said \"Stop.\"", kS}, {"Then he left.", kTail}}},
        Split{"LinesRunOn", "one line\nruns on.", {{"one line runs on.", kTail}}},
        Split{"BlankLinesArePauses",
              "First.\n\nSecond\n \n\n Third\n\n",
              {{"First.", kBlankLinePause}, {"Second", 2 * kBlankLinePause}, {"Third", kTail}}},
        Split{"FullWidthNeedsNoSpace",
              "你好。我会说话！好吗？",
              {{"你好。", kS}, {"我会说话！", kS}, {"好吗？", kTail}}},
        Split{"Devanagari", "नमस्ते। आप कैसे हैं?", {{"नमस्ते।", kS}, {"आप कैसे हैं?", kTail}}}),
    [](const auto& p) { return std::string(p.param.name); });

TEST(Sentences, AnOverLongOneIsCutAtItsLastComma) {
  std::string text;
  for (int i = 0; i < 40; ++i) text += "word word, ";  // 440 characters, no full stop
  const std::vector<Sentence> sentences = splitSentences(text);
  ASSERT_GE(sentences.size(), 2u);
  for (const Sentence& s : sentences) EXPECT_LE(s.text.size(), kLongestSentence);
  EXPECT_EQ(sentences.front().text.back(), ',');
  EXPECT_LT(sentences.front().pauseAfter, kSentencePause);
}

struct Reading {
  const char* name;
  const char* voice;
  const char* text;
  const char* refusal;  // empty: spoken
};

class Scripts : public ::testing::TestWithParam<Reading> {};

TEST_P(Scripts, AreSpokenOrRefusedByName) {
  const Voice voice(GetParam().voice);
  const std::string refusal = GetParam().refusal;
  if (refusal.empty()) {
    EXPECT_NO_THROW(voice.checkScripts(GetParam().text));
    EXPECT_GT(rms(voice.synthesize(GetParam().text)), 0.02);
    return;
  }
  try {
    voice.checkScripts(GetParam().text);
    FAIL() << "accepted";
  } catch (const TextError& e) {
    EXPECT_EQ(e.kind(), TextError::Kind::unspeakable);
    EXPECT_THAT(e.what(), HasSubstr(refusal));
  }
}

INSTANTIATE_TEST_SUITE_P(
    Voices, Scripts,
    ::testing::Values(Reading{"EnglishLatin", "en-us+f3", "Hello, world: 42 € 😀", ""},
                      Reading{"EnglishCyrillic", "en-us+f3", "Hello Привет",
                              "the voice en-us+f3 cannot speak Cyrillic script (\"Привет\")"},
                      Reading{"EnglishHan", "en-us", "你好", "cannot speak Han script"},
                      Reading{"RussianBoth", "ru", "Привет, Alice.", ""},
                      Reading{"CantoneseHan", "yue", "你好", ""},
                      Reading{"JapaneseSpellsLatin", "ja", "hello", "cannot speak Latin script"}),
    [](const auto& p) { return std::string(p.param.name); });

struct Choice {
  const char* name;
  const char* gender;
  const char* persona;
  const char* chosen;
  const char* voice;
  bool warned;
};

class Choosing : public ::testing::TestWithParam<Choice> {};

TEST_P(Choosing, FitsTheAvatar) {
  const VoiceChoice c = chooseVoice(GetParam().gender, GetParam().persona, GetParam().chosen);
  EXPECT_EQ(c.name, GetParam().voice);
  EXPECT_EQ(!c.warning.empty(), GetParam().warned) << c.warning;
}

INSTANTIATE_TEST_SUITE_P(
    Avatars, Choosing,
    ::testing::Values(Choice{"Female", "f", "warm, attentive guide", "", "en-us+f3", false},
                      Choice{"Male", "Male", "calm", "", "en-us+m3", false},
                      Choice{"Unsaid", "", "", "", "en-us", false},
                      Choice{"PersonaVoice", "f", "calm; voice=de+f2, precise", "", "de+f2", false},
                      Choice{"PersonaVoiceMissing", "m", "voice=klingon-x", "", "en-us+m3", true},
                      Choice{"ChosenWins", "f", "voice=de", "ru", "ru", false}),
    [](const auto& p) { return std::string(p.param.name); });

TEST(Choosing, AVoiceAskedForThatIsMissingIsAnError) {
  EXPECT_THROW(chooseVoice("f", "", "nosuch"), ClientError);
  for (const char* name : {"nosuch", "../../etc/passwd", "en us"}) {
    try {
      Voice voice(name);
      FAIL() << name << " was taken";
    } catch (const ClientError& e) {
      EXPECT_THAT(e.what(), HasSubstr(std::string("no voice called \"") + name + "\""));
    }
  }
}

}  // namespace
}  // namespace lumora2::render
