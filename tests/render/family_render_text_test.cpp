// lumora2-render speaking text on the packed reference family: --text and --text-file through the
// real executable and its real render-stream child, the MP4 read back with FFmpeg's tools. The
// video's sound is the embedded voice's speech, the mouth moves during the words and rests in the
// pauses between sentences. Texts that cannot be spoken are among the refusals of
// family_render_robustness_test.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <numeric>
#include <string>
#include <vector>

#include "client/audio_input.h"
#include "client/speech_text.h"
#include "client/voice.h"
#include "family_fixture.h"
#include "render_test_support.h"

namespace lumora2::family::test {
namespace {

namespace fs = std::filesystem;
using ::testing::HasSubstr;

constexpr std::size_t kFrameSamples = 800;
constexpr const char* kText =
    "Hello there. I am a talking avatar of the family. Every frame is rendered from my voice.";

std::vector<std::string> renderWords(const std::vector<std::string>& args, const fs::path& out) {
  std::vector<std::string> words = {renderBin().string(), avatarFile().string(), "--engine",
                                    engineFile().string()};
  words.insert(words.end(), args.begin(), args.end());
  words.insert(words.end(), {"-o", out.string()});
  return words;
}

// The RMS of each frame's 800 samples.
std::vector<double> frameLevels(const std::vector<float>& samples) {
  std::vector<double> levels;
  for (std::size_t at = 0; at < samples.size(); at += kFrameSamples) {
    const std::size_t to = std::min(samples.size(), at + kFrameSamples);
    double sum = 0;
    for (std::size_t i = at; i < to; ++i) sum += double(samples[i]) * samples[i];
    levels.push_back(std::sqrt(sum / double(to - at)));
  }
  return levels;
}

double correlation(const std::vector<double>& a, const std::vector<double>& b) {
  const std::size_t n = std::min(a.size(), b.size());
  const double ma = std::accumulate(a.begin(), a.begin() + long(n), 0.0) / double(n);
  const double mb = std::accumulate(b.begin(), b.begin() + long(n), 0.0) / double(n);
  double ab = 0, aa = 0, bb = 0;
  for (std::size_t i = 0; i < n; ++i) {
    ab += (a[i] - ma) * (b[i] - mb);
    aa += (a[i] - ma) * (a[i] - ma);
    bb += (b[i] - mb) * (b[i] - mb);
  }
  return ab / std::sqrt(aa * bb);
}

double mean(const std::vector<double>& v) {
  return v.empty() ? 0.0 : std::accumulate(v.begin(), v.end(), 0.0) / double(v.size());
}

// The text rendered once for the suite, with the speech the voice makes for it here.
class RenderText : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    ASSERT_TRUE(generatedFamily().packed);
    ::setenv("LUMORA2_MLMODELC_CACHE", (generatedFamily().root / "render-cache").c_str(), 1);
    dir_ = scratchDir("render-text");
    run_ = shell(commandLine(renderWords({"--text", kText}, dir_ / "text.mp4")), dir_ / "stderr");
    video_ = decodeVideo(dir_ / "text.mp4");
    sound_ = render::decodeAudio(dir_ / "text.mp4");
    render::Voice("en-us+f3")
        .speak(render::splitSentences(kText), [](const float* s, std::size_t n) {
          speech_.insert(speech_.end(), s, s + n);
          return true;
        });
  }

  static const std::uint8_t* frame(std::size_t f) {
    return reinterpret_cast<const std::uint8_t*>(video_.data()) + f * kFrameBytes;
  }
  static std::size_t frames() { return video_.size() / kFrameBytes; }

  static inline fs::path dir_;
  static inline Shell run_;
  static inline std::string video_;
  static inline std::vector<float> sound_, speech_;
};

TEST_F(RenderText, TheSoundIsTheVoicesSpeech) {
  ASSERT_EQ(run_.status, 0) << readFile(dir_ / "stderr");
  EXPECT_THAT(readFile(dir_ / "stderr"), HasSubstr("voice en-us+f3: 3 sentences"));
  const std::size_t expected = (speech_.size() + kFrameSamples - 1) / kFrameSamples;
  EXPECT_EQ(frames(), expected);
  EXPECT_THAT(run_.out, HasSubstr(": " + std::to_string(expected) + " frames"));
  // Through AAC: every sample there, the loudness following the speech frame by frame.
  EXPECT_NEAR(double(sound_.size()), double(speech_.size()), 1024.0);
  EXPECT_GT(correlation(frameLevels(sound_), frameLevels(speech_)), 0.95);
}

// The lower face differs from the mouth at rest while words are spoken far more than in the
// pauses between sentences (frames at least 150 ms from any sound: the engine's mouth opens a
// little ahead of a word and closes a little after it).
TEST_F(RenderText, TheMouthMovesDuringWordsAndRestsBetweenSentences) {
  ASSERT_EQ(run_.status, 0) << readFile(dir_ / "stderr");
  const std::vector<double> levels = frameLevels(speech_);
  ASSERT_EQ(levels.size(), frames());
  std::vector<double> grey;
  for (std::size_t f = 0; f < frames(); ++f) grey.push_back(mouthGrey(frame(f)));
  const double shut = *std::max_element(grey.begin(), grey.end());
  std::size_t first = 0, last = 0;  // the first and last frames with sound
  for (std::size_t f = 0; f < levels.size(); ++f) {
    if (levels[f] <= 0.02) continue;
    if (first == 0) first = f;
    last = f;
  }
  ASSERT_GT(first, 0u) << "the text starts without its lead-in";
  std::vector<double> words, pauses;
  for (std::size_t f = first; f <= last; ++f) {
    if (levels[f] > 0.02) words.push_back(shut - grey[f]);
    bool quiet = true;
    for (std::size_t g = f - 3; g <= f + 3; ++g) quiet = quiet && levels[g] < 0.002;
    if (quiet) pauses.push_back(shut - grey[f]);
  }
  ASSERT_GE(words.size(), 40u);
  ASSERT_GE(pauses.size(), 4u) << "the pauses between sentences are missing";
  EXPECT_GT(mean(words), 3 * mean(pauses) + 1.0)
      << "open by " << mean(words) << " during words, " << mean(pauses) << " in the pauses";
}

// A blank line in a text file is a pause long enough for the idle clip: two utterances.
TEST(RenderTextFile, ABlankLineIsAPauseWhereTheAvatarRests) {
  const fs::path dir = scratchDir("render-text-file");
  std::ofstream(dir / "words.txt") << "\xEF\xBB\xBFHello there.\n\n\nAnd goodbye.\n";
  const Shell r = shell(
      commandLine(renderWords({"--text-file", (dir / "words.txt").string(), "--voice", "en-us+m3"},
                              dir / "out.mp4")),
      dir / "stderr");
  ASSERT_EQ(r.status, 0) << readFile(dir / "stderr");
  EXPECT_THAT(r.out, HasSubstr(", 2 utterances,"));
  EXPECT_THAT(readFile(dir / "stderr"), HasSubstr("voice en-us+m3: 2 sentences"));
}

}  // namespace
}  // namespace lumora2::family::test
